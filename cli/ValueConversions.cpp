// The numeric and boolean conversions of strings and numbers, and the text
// form of a number, by NSString's and NSNumber's rules.

#include "cli/Value.h"
#include "cli/ValueObject.h"
#include "cli/ValueUtf8.h"

#include <locale.h>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace cli {

bool isConversionWhitespace(char32_t c) {
    return c == 0x20 || c == 0x09 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200B) ||
           c == 0x202F || c == 0x205F || c == 0x3000;
}

namespace {

// The first code point of each run of ten Unicode decimal digits.
constexpr char32_t kDigitZeros[] = {
    0x0030,  0x0660,  0x06F0,  0x07C0,  0x0966,  0x09E6,  0x0A66,  0x0AE6,  0x0B66,  0x0BE6,
    0x0C66,  0x0CE6,  0x0D66,  0x0DE6,  0x0E50,  0x0ED0,  0x0F20,  0x1040,  0x1090,  0x17E0,
    0x1810,  0x1946,  0x19D0,  0x1A80,  0x1A90,  0x1B50,  0x1BB0,  0x1C40,  0x1C50,  0xA620,
    0xA8D0,  0xA900,  0xA9D0,  0xA9F0,  0xAA50,  0xABF0,  0xFF10,  0x104A0, 0x10D30, 0x11066,
    0x110F0, 0x11136, 0x111D0, 0x112F0, 0x11450, 0x114D0, 0x11650, 0x116C0, 0x11730, 0x118E0,
    0x11950, 0x11C50, 0x11D50, 0x11DA0, 0x16A60, 0x16AC0, 0x16B50, 0x1D7CE, 0x1D7D8, 0x1D7E2,
    0x1D7EC, 0x1D7F6, 0x1E140, 0x1E2F0, 0x1E950, 0x1FBF0,
};

// The value of a decimal digit in any script, or -1.
int digitValue(char32_t c) {
    for (char32_t zero : kDigitZeros) {
        if (c >= zero && c < zero + 10) return static_cast<int>(c - zero);
    }
    return -1;
}

// A cursor over UTF-8 text that reads one code point at a time.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : text_(text) {}

    bool atEnd() const { return pos_ >= text_.size(); }
    char32_t peek() const { return atEnd() ? 0 : utf8::decode(text_, pos_).value; }
    void advance() {
        if (!atEnd()) pos_ += utf8::decode(text_, pos_).length;
    }
    void skipWhitespace() {
        while (!atEnd() && isConversionWhitespace(peek())) advance();
    }
    int peekDigit() const { return atEnd() ? -1 : digitValue(peek()); }

  private:
    std::string_view text_;
    std::size_t pos_ = 0;
};

bool stringBoolValue(std::string_view text) {
    Scanner scan(text);
    scan.skipWhitespace();
    const char32_t first = scan.peek();
    if (first == U'Y' || first == U'y' || first == U'T' || first == U't') return true;
    if (first == U'+' || first == U'-') scan.advance();
    while (scan.peek() == U'0') scan.advance();
    const char32_t next = scan.peek();
    return next >= U'1' && next <= U'9';
}

// Decimal integer with sign, saturating at [minimum, maximum].
std::int64_t stringIntegerValue(std::string_view text, std::int64_t minimum, std::int64_t maximum) {
    Scanner scan(text);
    scan.skipWhitespace();
    bool negative = false;
    if (scan.peek() == U'+' || scan.peek() == U'-') {
        negative = scan.peek() == U'-';
        scan.advance();
        scan.skipWhitespace();  // "- 7" is -7 for the integer forms
    }
    // Accumulate as a negative number so that the minimum is reachable.
    const std::int64_t limit = negative ? minimum : -maximum;
    std::int64_t accumulated = 0;
    bool saturated = false;
    for (int digit = scan.peekDigit(); digit >= 0; digit = scan.peekDigit()) {
        scan.advance();
        if (saturated) continue;
        if (accumulated < (limit + digit) / 10) {
            saturated = true;
            continue;
        }
        accumulated = accumulated * 10 - digit;
    }
    if (saturated) return negative ? minimum : maximum;
    return negative ? accumulated : -accumulated;
}

double parseCDouble(const std::string& ascii) {
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return strtod_l(ascii.c_str(), nullptr, cLocale);
}

double stringDoubleValue(std::string_view text) {
    Scanner scan(text);
    scan.skipWhitespace();
    std::string ascii;
    if (scan.peek() == U'+' || scan.peek() == U'-') {
        ascii.push_back(static_cast<char>(scan.peek()));
        scan.advance();
    }
    bool sawDigit = false;
    for (int digit = scan.peekDigit(); digit >= 0; digit = scan.peekDigit()) {
        ascii.push_back(static_cast<char>('0' + digit));
        sawDigit = true;
        scan.advance();
    }
    if (scan.peek() == U'.') {
        ascii.push_back('.');
        scan.advance();
        for (int digit = scan.peekDigit(); digit >= 0; digit = scan.peekDigit()) {
            ascii.push_back(static_cast<char>('0' + digit));
            sawDigit = true;
            scan.advance();
        }
    }
    if (!sawDigit) return 0.0;
    if (scan.peek() == U'e' || scan.peek() == U'E') {
        // An exponent counts only when at least one digit follows it.
        std::string exponent = "e";
        scan.advance();
        if (scan.peek() == U'+' || scan.peek() == U'-') {
            exponent.push_back(static_cast<char>(scan.peek()));
            scan.advance();
        }
        bool exponentDigit = false;
        for (int digit = scan.peekDigit(); digit >= 0; digit = scan.peekDigit()) {
            exponent.push_back(static_cast<char>('0' + digit));
            exponentDigit = true;
            scan.advance();
        }
        if (exponentDigit) ascii += exponent;
    }
    return parseCDouble(ascii);
}

// A double converted toward zero, saturating at the type's limits; NaN is 0.
template <typename Int>
Int saturatingTruncate(double value) {
    if (std::isnan(value)) return 0;
    constexpr double upper = -static_cast<double>(std::numeric_limits<Int>::min());
    if (value >= upper) return std::numeric_limits<Int>::max();
    if (value < static_cast<double>(std::numeric_limits<Int>::min())) {
        return std::numeric_limits<Int>::min();
    }
    return static_cast<Int>(value);
}

}  // namespace

bool Value::boolValue() const {
    if (isString()) return stringBoolValue(object_->text);
    if (!isNumber()) return false;
    switch (object_->numberType) {
        case NumberType::Double:
            return object_->doubleNumber != 0.0;
        case NumberType::UnsignedInteger:
            return object_->unsignedNumber != 0;
        default:
            return object_->signedNumber != 0;
    }
}

std::int32_t Value::intValue() const {
    if (isString()) {
        return static_cast<std::int32_t>(
            stringIntegerValue(object_->text, std::numeric_limits<std::int32_t>::min(),
                               std::numeric_limits<std::int32_t>::max()));
    }
    if (!isNumber()) return 0;
    switch (object_->numberType) {
        case NumberType::Double:
            return saturatingTruncate<std::int32_t>(object_->doubleNumber);
        case NumberType::UnsignedInteger:
            return static_cast<std::int32_t>(object_->unsignedNumber);
        default:
            return static_cast<std::int32_t>(object_->signedNumber);
    }
}

std::int64_t Value::integerValue() const {
    if (isString()) {
        return stringIntegerValue(object_->text, std::numeric_limits<std::int64_t>::min(),
                                  std::numeric_limits<std::int64_t>::max());
    }
    if (!isNumber()) return 0;
    switch (object_->numberType) {
        case NumberType::Double:
            return saturatingTruncate<std::int64_t>(object_->doubleNumber);
        case NumberType::UnsignedInteger:
            return static_cast<std::int64_t>(object_->unsignedNumber);
        default:
            return object_->signedNumber;
    }
}

double Value::doubleValue() const {
    if (isString()) return stringDoubleValue(object_->text);
    if (!isNumber()) return 0.0;
    switch (object_->numberType) {
        case NumberType::Double:
            return object_->doubleNumber;
        case NumberType::UnsignedInteger:
            return static_cast<double>(object_->unsignedNumber);
        default:
            return static_cast<double>(object_->signedNumber);
    }
}

std::string numberDescription(const Value& number) {
    char buffer[64];
    switch (number.numberType()) {
        case Value::NumberType::Double: {
            const double value = number.doubleValue();
            // glibc writes "-nan" for a NaN with its sign bit set; the form
            // to match is always "nan".
            if (std::isnan(value)) return "nan";
            std::snprintf(buffer, sizeof buffer, "%.16g", value);
            return buffer;
        }
        case Value::NumberType::UnsignedInteger:
            std::snprintf(
                buffer, sizeof buffer, "%llu",
                static_cast<unsigned long long>(static_cast<std::uint64_t>(number.integerValue())));
            return buffer;
        default:
            std::snprintf(buffer, sizeof buffer, "%lld",
                          static_cast<long long>(number.integerValue()));
            return buffer;
    }
}

}  // namespace cli
