#pragma once

// The parts of the XML property-list reader that work on text alone: the
// values of its leaf elements by Foundation's rules, and the marking that
// lets text XML refuses pass through expat. Internal to the reader.

#include "cli/Value.h"

#include <string>
#include <string_view>

namespace cli::xmlplist {

// Foundation's reader takes the text between tags as bytes, so a string may
// hold control characters, NUL and U+FFFE/U+FFFF, which XML refuses. Each of
// them becomes a mark, the noncharacter U+10FFFF, followed by a private-use
// character naming it; a U+10FFFF of the input is marked the same way.
std::string markRefusedCharacters(std::string_view text);
// Undoes the marking in text taken from a marked document.
std::string unmarkRefusedCharacters(std::string_view text);

// The value of an element's text, or nil with `problem` set. The text of
// <integer>, <date> and <data> is the element's raw content.
Value integerFromText(std::string_view text, std::string& problem);
Value realFromText(std::string_view text, std::string& problem);
Value dateFromText(std::string_view text, std::string& problem);
Value dataFromText(std::string_view text, std::string& problem);

}  // namespace cli::xmlplist
