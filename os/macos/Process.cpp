#include "os/Process.h"

#include <crt_externs.h>
#include <stdlib.h>

namespace os {

std::string programName() {
    const char* name = ::getprogname();
    return name != nullptr ? name : "";
}

std::vector<std::string> processArguments() {
    // The argc and argv that main was given, kept by the C runtime.
    const int count = *::_NSGetArgc();
    char** const values = *::_NSGetArgv();
    std::vector<std::string> arguments;
    if (values == nullptr) return arguments;
    for (int i = 0; i < count && values[i] != nullptr; ++i) arguments.emplace_back(values[i]);
    return arguments;
}

}  // namespace os
