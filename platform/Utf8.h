#pragma once

#include <string_view>

namespace platform {

// The strict UTF-8 test of the framework's string conversion from bytes: no
// overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text);

}  // namespace platform
