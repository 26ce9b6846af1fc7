// Prints what os/Process.h reports about this process, for ProcessTest:
// the program name on the first line, then every argument, each ended by a
// NUL byte.

#include "os/Process.h"

#include <cstdio>

int main() {
    std::fputs(os::programName().c_str(), stdout);
    std::fputc('\n', stdout);
    for (const std::string& argument : os::processArguments()) {
        std::fwrite(argument.data(), 1, argument.size(), stdout);
        std::fputc('\0', stdout);
    }
    return 0;
}
