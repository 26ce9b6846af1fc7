// Any bytes read as a property list are refused with an error or give a
// value; a value read is written back as XML, which reads again unless the
// text holds control characters: those are written raw, which XML readers
// refuse.

#include "cli/PropertyList.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::optional<cli::NSError> error;
    cli::Value root = cli::propertyListFromData(
        std::string_view(reinterpret_cast<const char*>(data), size), &error);
    if (root.isNil()) {
        if (!error) std::abort();  // every refusal carries an error
        return 0;
    }
    std::optional<cli::NSError> writeError;
    auto xml = cli::xmlDataFromPropertyList(root, &writeError);
    if (!xml) return 0;  // e.g. text that is not UTF-8 cannot be written
    for (unsigned char c : *xml) {
        if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') return 0;
    }
    std::optional<cli::NSError> againError;
    cli::Value again = cli::propertyListFromData(*xml, &againError);
    if (again.isNil()) std::abort();  // what we write, we read
    return 0;
}
