#pragma once

// UTF-8 decoding for the object model and the property-list code. Internal
// to the command-line layer.

#include <cstddef>
#include <string>
#include <string_view>

namespace cli {

namespace utf8 {

// One decoded code point; an ill-formed byte decodes as U+FFFD of length 1.
struct CodePoint {
    char32_t value;
    std::size_t length;
    bool valid;
};

CodePoint decode(std::string_view text, std::size_t pos);

// The UTF-16 code units of the text, ill-formed bytes each giving U+FFFD.
std::u16string toUTF16(std::string_view text);

}  // namespace utf8

}  // namespace cli
