#pragma once

// Reader for XML property lists. The markup is read by expat, a conforming
// XML parser; what the elements may hold follows Foundation's reader:
//
// - The root is one value, optionally inside <plist>, which holds exactly
//   one value (and may wrap one anywhere). Text after the root is not read.
// - <string> and <key> keep their text as it stands, entities and CDATA
//   decoded; control characters, U+FFFE/U+FFFF and carriage returns are kept
//   too, as Foundation's writer writes them raw.
// - <integer>: blanks, a sign, blanks, decimal or 0x hexadecimal digits and
//   nothing else; -2^63 to 2^64-1. <real>: nan, inf, infinity with an
//   optional sign (any case), or a decimal number that is the whole text.
//   <date>: [-]Y...-MM-DDTHH:MM:SSZ exactly, in UTC, within the range the
//   XML form holds. <data>: base64; other ASCII characters are skipped, any
//   other byte is an error. These three take no markup and no entities.
// - <dict> alternates <key> and a value; a repeated key keeps the last
//   value; a dictionary whose only key is "CF$UID" with a number is a UID.
// - <true/> and <false/> are empty. Every other element name is an error,
//   and so is text between elements, a DOCTYPE with an internal subset, an
//   entity other than XML's five and character references, and nesting of
//   arrays and dictionaries beyond kPropertyListMaxNesting.

#include "cli/Value.h"

#include <string>
#include <string_view>

namespace cli {

// Reads UTF-8 XML text, which may begin with blanks. Answers nil and sets
// `*problem` (when given) on malformed input. Containers read immutable.
Value parseXmlPropertyList(std::string_view text, std::string* problem);

}  // namespace cli
