// Any file content reads as a configuration without a crash; every key and
// value read is valid UTF-8 and trimmed (a key of quotes alone trims to the
// empty string and is kept, as any other key).

#include "cli/Value.h"
#include "connector/OVConnectorIKEv2.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ConfigDictionary config =
        ParseConfigText(std::string_view(reinterpret_cast<const char*>(data), size));
    const std::string trimmed = " \t\"'";
    for (const auto& [key, value] : config) {
        if (!cli::isValidUTF8(key.view()) || !cli::isValidUTF8(value.view())) std::abort();
        for (const std::string_view text : {key.view(), value.view()}) {
            if (!text.empty() && (trimmed.find(text.front()) != std::string::npos ||
                                  trimmed.find(text.back()) != std::string::npos)) {
                std::abort();
            }
        }
    }
    return 0;
}
