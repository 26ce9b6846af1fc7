// The string conversions and text forms accept any bytes.

#include "cli/Value.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    cli::Value text(std::string(reinterpret_cast<const char*>(data), size));
    const bool flag = text.boolValue();
    const auto narrow = text.intValue();
    const auto wide = text.integerValue();
    (void)text.doubleValue();
    // The 32-bit conversion saturates where the 64-bit one does not.
    if (wide > INT32_MAX && narrow != INT32_MAX) std::abort();
    if (wide < INT32_MIN && narrow != INT32_MIN) std::abort();
    if (wide >= INT32_MIN && wide <= INT32_MAX && narrow != wide) std::abort();
    (void)flag;
    cli::Value list =
        cli::Value::array({text, cli::Value::dictionary({{text.stringValue(), text}})});
    if (list.description().empty()) std::abort();
    (void)cli::utf16Length(text.stringValue());
    return 0;
}
