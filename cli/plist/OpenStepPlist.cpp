#include "cli/plist/OpenStepPlist.h"

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace cli {

namespace {

// Unicode values of the NeXTSTEP character set's upper half (0x80-0xFF),
// which octal escapes above 0177 name.
constexpr char16_t kNextStepUpperHalf[128] = {
    0x00A0, 0x00C0, 0x00C1, 0x00C2, 0x00C3, 0x00C4, 0x00C5, 0x00C7,  // 0x80
    0x00C8, 0x00C9, 0x00CA, 0x00CB, 0x00CC, 0x00CD, 0x00CE, 0x00CF,  // 0x88
    0x00D0, 0x00D1, 0x00D2, 0x00D3, 0x00D4, 0x00D5, 0x00D6, 0x00D9,  // 0x90
    0x00DA, 0x00DB, 0x00DC, 0x00DD, 0x00DE, 0x00B5, 0x00D7, 0x00F7,  // 0x98
    0x00A9, 0x00A1, 0x00A2, 0x00A3, 0x2044, 0x00A5, 0x0192, 0x00A7,  // 0xA0
    0x00A4, 0x2019, 0x201C, 0x00AB, 0x2039, 0x203A, 0xFB01, 0xFB02,  // 0xA8
    0x00AE, 0x2013, 0x2020, 0x2021, 0x00B7, 0x00A6, 0x00B6, 0x2022,  // 0xB0
    0x201A, 0x201E, 0x201D, 0x00BB, 0x2026, 0x2030, 0x00AC, 0x00BF,  // 0xB8
    0x00B9, 0x02CB, 0x00B4, 0x02C6, 0x02DC, 0x00AF, 0x02D8, 0x02D9,  // 0xC0
    0x00A8, 0x00B2, 0x02DA, 0x00B8, 0x00B3, 0x02DD, 0x02DB, 0x02C7,  // 0xC8
    0x2014, 0x00B1, 0x00BC, 0x00BD, 0x00BE, 0x00E0, 0x00E1, 0x00E2,  // 0xD0
    0x00E3, 0x00E4, 0x00E5, 0x00E7, 0x00E8, 0x00E9, 0x00EA, 0x00EB,  // 0xD8
    0x00EC, 0x00C6, 0x00ED, 0x00AA, 0x00EE, 0x00EF, 0x00F0, 0x00F1,  // 0xE0
    0x0141, 0x00D8, 0x0152, 0x00BA, 0x00F2, 0x00F3, 0x00F4, 0x00F5,  // 0xE8
    0x00F6, 0x00E6, 0x00F9, 0x00FA, 0x00FB, 0x0131, 0x00FC, 0x00FD,  // 0xF0
    0x0142, 0x00F8, 0x0153, 0x00DF, 0x00FE, 0x00FF, 0xFFFD, 0xFFFD,  // 0xF8
};

bool isBareStringChar(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '$' || c == '/' || c == ':' || c == '.' || c == '-';
}

int hexDigitValue(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

class Parser {
  public:
    explicit Parser(std::string_view text) : text_(text) {}

    Value parseTopLevel() {
        skipBlanks();
        if (atEnd()) return Value::dictionary();
        const std::size_t start = pos_;
        const bool startsString = peek() == '"' || peek() == '\'' || isBareStringChar(peek());
        Value root = parseObject(0);
        if (root.isNil()) return {};
        skipBlanks();
        if (atEnd()) return root;
        if (!startsString) return fail("junk after the property list");
        // A string followed by more text: the whole input is a strings file.
        pos_ = start;
        std::map<std::string, Value> entries;
        if (!parseEntries(entries, 0, /*braced=*/false)) return {};
        return Value::dictionary(std::move(entries));
    }

    const std::string& problem() const { return problem_; }

  private:
    bool atEnd() const { return pos_ >= text_.size(); }
    unsigned char peek(std::size_t ahead = 0) const {
        return pos_ + ahead < text_.size() ? static_cast<unsigned char>(text_[pos_ + ahead]) : 0;
    }

    Value fail(const std::string& why) {
        if (problem_.empty()) {
            problem_ = why + " at offset " + std::to_string(pos_);
        }
        return {};
    }

    // Blanks and comments between tokens.
    void skipBlanks() {
        while (!atEnd()) {
            const unsigned char c = peek();
            if (c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r') {
                ++pos_;
            } else if (c == 0xE2 && peek(1) == 0x80 && (peek(2) == 0xA8 || peek(2) == 0xA9)) {
                pos_ += 3;  // line and paragraph separators
            } else if (c == '/' && peek(1) == '/') {
                while (!atEnd() && peek() != '\n' && peek() != '\r') ++pos_;
            } else if (c == '/' && peek(1) == '*') {
                const std::size_t close = text_.find("*/", pos_ + 2);
                pos_ = close == std::string_view::npos ? text_.size() : close + 2;
            } else {
                return;
            }
        }
    }

    Value parseObject(std::size_t depth) {
        if (atEnd()) return fail("unexpected end of input");
        const unsigned char c = peek();
        if (c == '{' || c == '(') {
            if (depth >= kOpenStepMaxNesting) return fail("nesting too deep");
            ++pos_;
            if (c == '{') {
                std::map<std::string, Value> entries;
                if (!parseEntries(entries, depth + 1, /*braced=*/true)) return {};
                return Value::dictionary(std::move(entries));
            }
            return parseArrayBody(depth + 1);
        }
        if (c == '<') return parseData();
        std::optional<std::string> text = parseString();
        if (!text) return {};
        return Value(std::move(*text));
    }

    // Entries up to the closing brace (or the end, for a strings file).
    bool parseEntries(std::map<std::string, Value>& entries, std::size_t depth, bool braced) {
        for (;;) {
            skipBlanks();
            if (atEnd()) {
                if (!braced) return true;
                fail("unterminated dictionary");
                return false;
            }
            if (braced && peek() == '}') {
                ++pos_;
                return true;
            }
            std::optional<std::string> key = parseString();
            if (!key) {
                fail("dictionary key is not a string");
                return false;
            }
            skipBlanks();
            Value value;
            if (peek() == ';') {
                value = Value(*key);  // "key;" stores the key as its own value
            } else if (peek() == '=') {
                ++pos_;
                skipBlanks();
                value = parseObject(depth);
                if (value.isNil()) return false;
                skipBlanks();
            } else {
                fail("expected '=' or ';' after a dictionary key");
                return false;
            }
            if (peek() != ';' || atEnd()) {
                fail("missing ';' after a dictionary entry");
                return false;
            }
            ++pos_;
            entries[*key] = std::move(value);
        }
    }

    Value parseArrayBody(std::size_t depth) {
        std::vector<Value> elements;
        skipBlanks();
        if (peek() == ')' && !atEnd()) {
            ++pos_;
            return Value::array(std::move(elements));
        }
        for (;;) {
            Value element = parseObject(depth);
            if (element.isNil()) return {};
            elements.push_back(std::move(element));
            skipBlanks();
            if (atEnd()) return fail("unterminated array");
            if (peek() == ')') {
                ++pos_;
                return Value::array(std::move(elements));
            }
            if (peek() != ',') return fail("expected ',' or ')' in an array");
            ++pos_;
            skipBlanks();
            if (peek() == ')' && !atEnd()) {  // a trailing comma
                ++pos_;
                return Value::array(std::move(elements));
            }
        }
    }

    Value parseData() {
        ++pos_;  // '<'
        std::vector<std::uint8_t> bytes;
        for (;;) {
            while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' ||
                                peek() == '\r' || peek() == '\v' || peek() == '\f')) {
                ++pos_;
            }
            if (atEnd()) return fail("unterminated data");
            if (peek() == '>') {
                ++pos_;
                return Value::data(std::move(bytes));
            }
            const int high = hexDigitValue(peek());
            const int low = hexDigitValue(peek(1));
            if (high < 0 || low < 0) return fail("malformed data");
            bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
            pos_ += 2;
        }
    }

    std::optional<std::string> parseString() {
        if (atEnd()) {
            fail("unexpected end of input");
            return std::nullopt;
        }
        const unsigned char c = peek();
        if (c == '"' || c == '\'') return parseQuoted(static_cast<char>(c));
        if (!isBareStringChar(c)) {
            fail("unexpected character");
            return std::nullopt;
        }
        const std::size_t start = pos_;
        while (!atEnd() && isBareStringChar(peek())) ++pos_;
        return std::string(text_.substr(start, pos_ - start));
    }

    std::optional<std::string> parseQuoted(char quote) {
        ++pos_;
        std::string out;
        char16_t pendingHigh = 0;  // a \U high surrogate awaiting its pair; 0 for none
        auto flushPending = [&] {
            if (pendingHigh != 0) appendUTF8(out, 0xFFFD);
            pendingHigh = 0;
        };
        for (;;) {
            if (atEnd()) {
                fail("unterminated quoted string");
                return std::nullopt;
            }
            const char c = text_[pos_++];
            if (c == quote) break;
            if (c != '\\') {
                flushPending();
                out.push_back(c);
                continue;
            }
            if (atEnd()) {
                fail("unterminated quoted string");
                return std::nullopt;
            }
            const unsigned char e = static_cast<unsigned char>(text_[pos_++]);
            if (e == 'U') {
                char16_t unit = 0;
                for (int i = 0; i < 4 && hexDigitValue(peek()) >= 0 && !atEnd(); ++i) {
                    unit = static_cast<char16_t>(unit * 16 + hexDigitValue(peek()));
                    ++pos_;
                }
                if (unit >= 0xDC00 && unit <= 0xDFFF && pendingHigh != 0) {
                    appendUTF8(out, 0x10000 +
                                        ((static_cast<char32_t>(pendingHigh) - 0xD800) << 10) +
                                        (unit - 0xDC00));
                    pendingHigh = 0;
                } else if (unit >= 0xD800 && unit <= 0xDBFF) {
                    flushPending();
                    pendingHigh = unit;
                } else {
                    flushPending();
                    appendUTF8(out, (unit >= 0xDC00 && unit <= 0xDFFF) ? 0xFFFD : unit);
                }
                continue;
            }
            flushPending();
            if (e >= '0' && e <= '7') {
                unsigned value = e - '0';
                for (int i = 0; i < 2 && peek() >= '0' && peek() <= '7' && !atEnd(); ++i) {
                    value = value * 8 + (peek() - '0');
                    ++pos_;
                }
                value &= 0xFF;
                appendUTF8(out, value < 0x80 ? value : kNextStepUpperHalf[value - 0x80]);
                continue;
            }
            switch (e) {
                case 'n':
                    out.push_back('\n');
                    break;
                case 't':
                    out.push_back('\t');
                    break;
                case 'r':
                    out.push_back('\r');
                    break;
                case 'a':
                    out.push_back('\a');
                    break;
                case 'b':
                    out.push_back('\b');
                    break;
                case 'f':
                    out.push_back('\f');
                    break;
                case 'v':
                    out.push_back('\v');
                    break;
                default:
                    out.push_back(static_cast<char>(e));
                    break;
            }
        }
        flushPending();
        return out;
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    std::string problem_;
};

}  // namespace

void appendUTF8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

Value parseOpenStepPropertyList(std::string_view text, std::string* problem) {
    Parser parser(text);
    Value result = parser.parseTopLevel();
    if (result.isNil() && problem) *problem = parser.problem();
    return result;
}

}  // namespace cli
