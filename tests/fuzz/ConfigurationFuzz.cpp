// Any file content reads as a configuration without a crash; every key and
// value read is valid UTF-8 and trimmed (a key of quotes alone trims to the
// empty string and is kept, as any other key).

#include "cli/Value.h"
#include "connector/OVConnectorIKEv2.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    int fd = memfd_create("configuration", MFD_CLOEXEC);
    if (fd < 0) return 0;
    if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) {
        close(fd);
        return 0;
    }
    auto config = ParseConfig("/proc/self/fd/" + std::to_string(fd));
    close(fd);
    if (!config) std::abort();  // the file exists, so it opens
    const std::string trimmed = " \t\"'";
    for (const auto& [key, value] : *config) {
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
