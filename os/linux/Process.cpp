#include "os/Process.h"

#include <errno.h>

#include <fstream>
#include <iterator>

namespace os {

std::string programName() {
    const char* name = program_invocation_short_name;
    return name != nullptr ? name : "";
}

std::vector<std::string> processArguments() {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    if (!file) return {};
    const std::string bytes((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    // NUL-terminated entries, one per argument; an empty argument is an
    // empty entry.
    std::vector<std::string> arguments;
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find('\0', start);
        if (end == std::string::npos) end = bytes.size();
        arguments.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    return arguments;
}

}  // namespace os
