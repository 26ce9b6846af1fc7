#pragma once

// Reader for the old OpenStep (NeXT) text property lists: dictionaries
// `{ key = value; }`, arrays `( a, b )`, data `<0fa3>` and strings, quoted
// or bare. Every scalar reads as a string. There is no writer: the format is
// read-only for property-list serialisation.

#include "cli/Value.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace cli {

// Containers nested deeper than this make the input invalid.
inline constexpr std::size_t kOpenStepMaxNesting = 512;

// Parses well-formed UTF-8 text. Blank or empty text is an empty
// dictionary; a lone string followed by more text is read again as a
// strings file (dictionary entries without braces). Answers nil and sets
// `*problem` (when given) on malformed input. Recursion is bounded by the
// nesting limit.
Value parseOpenStepPropertyList(std::string_view text, std::string* problem);

// Appends the UTF-8 form of one code point.
void appendUTF8(std::string& out, char32_t codePoint);

}  // namespace cli
