#pragma once

// What the operating system records about this process. One implementation
// per OS (os/linux/, os/macos/), chosen by the build; nothing here knows of
// the rest of the program.

#include <string>
#include <vector>

namespace os {

// The program's short name: the last path component of the program as it
// was started (its argv[0]); empty when the system has none.
std::string programName();

// The argument list the process was started with, element 0 (the program)
// included, each argument as raw bytes; empty when it cannot be read.
std::vector<std::string> processArguments();

}  // namespace os
