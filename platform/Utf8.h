#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace platform {

// The strict UTF-8 test of the framework's string conversion from bytes: no
// overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text);

// The text's UTF-16 code units under the same test: their count, none when
// the text is not UTF-8. When `out` is not null they are also written
// there, which must have room for them (call once with null to size it).
std::optional<std::size_t> utf16FromUTF8(std::string_view text, std::uint16_t* out);

}  // namespace platform
