#pragma once

// The shared object behind a Value. Internal to the command-line layer.

#include "cli/Value.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

struct Value::Object {
    Kind kind = Kind::Nil;
    bool isMutable = false;
    std::string text;  // String
    NumberType numberType = NumberType::Integer;
    std::int64_t signedNumber = 0;     // Bool, Char, Int, Integer
    std::uint64_t unsignedNumber = 0;  // UnsignedInteger; the value of a UID
    double doubleNumber = 0.0;         // Double; seconds since 1970 for a Date
    std::vector<Value> elements;
    std::map<std::string, Value> entries;
    std::vector<std::uint8_t> bytes;
};

// Whether `text` is `lower` but for the case of ASCII letters.
inline bool equalsIgnoringASCIICase(std::string_view text, std::string_view lower) {
    return text.size() == lower.size() &&
           std::equal(text.begin(), text.end(), lower.begin(), [](char a, char b) {
               return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
           });
}

// The whitespace set the string conversions skip: blanks, never newlines.
bool isConversionWhitespace(char32_t c);

// The text form of a number, as NSNumber's description gives it.
std::string numberDescription(const Value& number);

}  // namespace cli
