// The values of the XML property-list reader's leaf elements, by Foundation's
// rules, and the marking of the characters XML refuses.

#include "cli/plist/XmlPlistValues.h"

#include "cli/ValueObject.h"
#include "cli/ValueUtf8.h"
#include "cli/plist/PropertyList.h"

#include <locale.h>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <vector>

namespace cli::xmlplist {

namespace {

// The mark, and the names of the characters it stands for after it: below
// 0x20 the control character itself.
constexpr std::string_view kMark = "\xF4\x8F\xBF\xBF";
constexpr unsigned char kNamedFFFE = 0x20;
constexpr unsigned char kNamedFFFF = 0x21;
constexpr unsigned char kNamedMark = 0x22;

void appendMarked(std::string& out, unsigned char name) {
    out += kMark;
    out += "\xEE\x80";  // U+E000 + name, for names below 0x40
    out += static_cast<char>(0x80 + name);
}

}  // namespace

std::string markRefusedCharacters(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t copied = 0;  // text before this is in `out`
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        std::size_t length = 1;
        unsigned char name = byte;
        if (byte >= 0x20 || byte == '\t' || byte == '\n' || byte == '\r') {
            const std::string_view rest = text.substr(i);
            if (byte == 0xEF && rest.starts_with("\xEF\xBF\xBE")) {
                name = kNamedFFFE, length = 3;
            } else if (byte == 0xEF && rest.starts_with("\xEF\xBF\xBF")) {
                name = kNamedFFFF, length = 3;
            } else if (byte == 0xF4 && rest.starts_with(kMark)) {
                name = kNamedMark, length = kMark.size();
            } else {
                continue;
            }
        }
        out.append(text.substr(copied, i - copied));
        appendMarked(out, name);
        i += length - 1;
        copied = i + 1;
    }
    out.append(text.substr(copied));
    return out;
}

std::string unmarkRefusedCharacters(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t from = 0;
    for (std::size_t at; (at = text.find(kMark, from)) != std::string_view::npos;) {
        out.append(text.substr(from, at - from));
        const std::size_t named = at + kMark.size() + 2;
        if (named >= text.size()) {  // not made by the marking: kept as it is
            from = at;
            break;
        }
        const auto name =
            static_cast<unsigned char>(static_cast<unsigned char>(text[named]) - 0x80);
        if (name == kNamedFFFE) {
            out += "\xEF\xBF\xBE";
        } else if (name == kNamedFFFF) {
            out += "\xEF\xBF\xBF";
        } else if (name == kNamedMark) {
            out += kMark;
        } else {
            out += static_cast<char>(name);
        }
        from = named + 1;
    }
    out.append(text.substr(std::min(from, text.size())));
    return out;
}

namespace {

// The bytes Foundation's <integer> reader skips as blanks, one byte at a
// time: every byte below 0x21 or from 0x7F to 0xA0, and the lead byte of
// U+2000-U+200B, U+202F, U+205F and U+3000.
bool isIntegerBlankAt(std::string_view text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x21 || (lead > 0x7E && lead < 0xA1)) return true;
    if ((lead != 0xE2 && lead != 0xE3) || text.size() - i < 3) return false;
    const unsigned char second = byte(i + 1);
    const unsigned char third = byte(i + 2);
    if (lead == 0xE2 && second == 0x80) return third <= 0x8B || third == 0xAF;
    if (lead == 0xE2 && second == 0x81) return third == 0x9F;
    return lead == 0xE3 && second == 0x80 && third == 0x80;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Days from 1970-01-01 to the first of the month, in the proleptic Gregorian
// calendar with a year 0.
std::int64_t daysToMonth(std::int64_t year, int month) {
    year -= month <= 2;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const std::int64_t yearOfEra = year - era * 400;
    const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5;
    const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

}  // namespace

Value integerFromText(std::string_view text, std::string& problem) {
    std::size_t i = 0;
    const auto skipBlanks = [&] {
        while (i < text.size() && isIntegerBlankAt(text, i)) ++i;
    };
    skipBlanks();
    if (i == text.size()) {
        problem = "empty <integer>";
        return {};
    }
    bool negative = false;
    if (text[i] == '-' || text[i] == '+') {
        negative = text[i] == '-';
        ++i;
        skipBlanks();
    }
    bool hex = false;
    bool leadingZero = false;
    if (i < text.size() && text[i] == '0') {
        if (i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
            hex = true;
            i += 2;
        } else {
            leadingZero = true;
            ++i;
        }
    }
    for (; i < text.size() && text[i] == '0'; ++i) leadingZero = true;
    if (i == text.size()) {
        if (leadingZero) return Value::numberWithInteger(0);
        problem = "incomplete <integer>";
        return {};
    }
    const std::uint64_t base = hex ? 16 : 10;
    std::uint64_t value = 0;
    for (; i < text.size(); ++i) {
        const int digit = hexDigit(text[i]);
        if (digit < 0 || (!hex && digit > 9)) {
            problem = "unexpected character in <integer>";
            return {};
        }
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / base) {
            problem = "<integer> out of range";
            return {};
        }
        value = value * base + static_cast<std::uint64_t>(digit);
        if (negative && value > std::uint64_t{1} << 63) {
            problem = "<integer> out of range";
            return {};
        }
    }
    if (negative) return Value::numberWithInteger(static_cast<std::int64_t>(0 - value));
    if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return Value::numberWithUnsignedInteger(value);
    }
    return Value::numberWithInteger(static_cast<std::int64_t>(value));
}

Value realFromText(std::string_view text, std::string& problem) {
    const struct {
        std::string_view name;
        double value;
    } named[] = {
        {"nan", NAN},           {"+infinity", INFINITY}, {"-infinity", -INFINITY},
        {"infinity", INFINITY}, {"-inf", -INFINITY},     {"inf", INFINITY},
        {"+inf", INFINITY},
    };
    for (const auto& [name, value] : named) {
        if (equalsIgnoringASCIICase(text, name)) return Value::numberWithDouble(value);
    }
    std::size_t i = 0;
    while (i < text.size()) {
        const utf8::CodePoint c = utf8::decode(text, i);
        if (!isConversionWhitespace(c.value)) break;
        i += c.length;
    }
    // The number must be the whole rest, in the characters a decimal number
    // is written with; strtod must take all of it.
    const std::string number(text.substr(i));
    const bool plain =
        !number.empty() && number.find_first_not_of("0123456789+-.eE") == std::string::npos;
    if (plain) {
        static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
        char* end = nullptr;
        const double value = strtod_l(number.c_str(), &end, cLocale);
        if (end == number.c_str() + number.size()) return Value::numberWithDouble(value);
    }
    problem = "misformatted <real>";
    return {};
}

Value dateFromText(std::string_view text, std::string& problem) {
    problem = "could not interpret <date>";
    std::size_t i = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (negative) ++i;
    std::int64_t year = 0;
    const std::size_t yearStart = i;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        if (i - yearStart >= 9) return {};  // far beyond the dates the form holds
        year = year * 10 + (text[i] - '0');
    }
    int fields[5] = {};
    const char separators[6] = {'-', '-', 'T', ':', ':', 'Z'};
    if (i >= text.size() || text[i] != separators[0]) return {};
    ++i;
    for (int f = 0; f < 5; ++f) {
        if (text.size() - i < 3) return {};
        const char tens = text[i];
        const char ones = text[i + 1];
        if (tens < '0' || tens > '9' || ones < '0' || ones > '9') return {};
        fields[f] = (tens - '0') * 10 + (ones - '0');
        if (text[i + 2] != separators[f + 1]) return {};
        i += 3;
    }
    if (i != text.size()) return {};
    const auto [month, day, hour, minute, second] = fields;
    if (month < 1 || month > 12) return {};
    // Days, hours, minutes and seconds count on linearly, so a 30 February
    // is a 1 or 2 March.
    const double seconds =
        static_cast<double>(daysToMonth(negative ? -year : year, month) + day - 1) * 86400.0 +
        hour * 3600.0 + minute * 60.0 + second;
    if (std::fabs(seconds) > kPropertyListDateLimit) {
        problem = "<date> out of range";
        return {};
    }
    problem.clear();
    return Value::date(seconds);
}

Value dataFromText(std::string_view text, std::string& problem) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    int padding = 0;
    std::uint32_t accumulated = 0;
    std::size_t count = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80) {
            problem = "<data> holds a byte that is not base64";
            return {};
        }
        if (c == '=') {
            ++padding;
        } else if (!(c == ' ' || (c >= '\t' && c <= '\r'))) {
            padding = 0;
        }
        int sextet = -1;
        if (c >= 'A' && c <= 'Z') sextet = c - 'A';
        if (c >= 'a' && c <= 'z') sextet = c - 'a' + 26;
        if (c >= '0' && c <= '9') sextet = c - '0' + 52;
        if (c == '+') sextet = 62;
        if (c == '/') sextet = 63;
        if (c == '=') sextet = 0;
        if (sextet < 0) continue;  // blanks and other ASCII are skipped
        accumulated = (accumulated << 6) | static_cast<std::uint32_t>(sextet);
        if (++count % 4 == 0) {
            bytes.push_back(static_cast<std::uint8_t>(accumulated >> 16));
            if (padding < 2) bytes.push_back(static_cast<std::uint8_t>(accumulated >> 8));
            if (padding < 1) bytes.push_back(static_cast<std::uint8_t>(accumulated));
        }
    }
    return Value::data(std::move(bytes));
}

}  // namespace cli::xmlplist
