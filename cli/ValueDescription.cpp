// The text form of values: strings as they are, numbers by their printf
// form, collections in the multi-line, indented, quoted form.

#include "cli/Value.h"
#include "cli/ValueObject.h"
#include "cli/ValueUtf8.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace cli {

namespace {

std::string indentation(int level) {
    return std::string(static_cast<std::size_t>(level) * 4, ' ');
}

bool isAsciiAlphanumeric(char16_t unit) {
    return (unit >= u'0' && unit <= u'9') || (unit >= u'a' && unit <= u'z') ||
           (unit >= u'A' && unit <= u'Z');
}

// A leaf's text, double-quoted and escaped unless it is made only of ASCII
// letters and digits.
std::string quoteIfNeeded(std::string_view text) {
    const std::u16string units = utf8::toUTF16(text);
    if (!units.empty() && std::all_of(units.begin(), units.end(), isAsciiAlphanumeric)) {
        return std::string(text);
    }
    std::string out = "\"";
    char buffer[16];
    for (char16_t unit : units) {
        switch (unit) {
            case u'"':
                out += "\\\"";
                break;
            case u'\\':
                out += "\\\\";
                break;
            case u'\n':
                out += "\\n";
                break;
            case u'\t':
                out += "\\t";
                break;
            case u'\a':
                out += "\\a";
                break;
            case u'\b':
                out += "\\b";
                break;
            case u'\v':
                out += "\\v";
                break;
            case u'\f':
                out += "\\f";
                break;
            case u'\r':
                out += '\r';
                break;  // carriage return stays raw
            default:
                if (unit >= 0x80) {
                    std::snprintf(buffer, sizeof buffer, "\\U%04x", static_cast<unsigned>(unit));
                    out += buffer;
                } else if (unit < 0x20 || unit == 0x7F) {
                    std::snprintf(buffer, sizeof buffer, "\\%03o", static_cast<unsigned>(unit));
                    out += buffer;
                } else {
                    out += static_cast<char>(unit);
                }
        }
    }
    out += '"';
    return out;
}

// NSString compare: order for the keys, by UTF-16 code units.
bool keyLess(const std::string& a, const std::string& b) {
    return utf8::toUTF16(a) < utf8::toUTF16(b);
}

std::string dataDescription(const std::vector<std::uint8_t>& bytes) {
    std::string out = "<";
    char buffer[4];
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0 && i % 4 == 0) out += ' ';
        std::snprintf(buffer, sizeof buffer, "%02x", static_cast<unsigned>(bytes[i]));
        out += buffer;
    }
    out += '>';
    return out;
}

std::string dateDescription(double secondsSince1970) {
    const std::time_t seconds = static_cast<std::time_t>(std::floor(secondsSince1970));
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char buffer[64];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return buffer;
}

std::string describeAt(const Value& value, int level);

// An element or dictionary value: nested collections carry their own
// leading indent, which gives the doubled indent of nested levels.
std::string describeMember(const Value& value, int level) {
    if (value.isArray() || value.isDictionary()) return describeAt(value, level);
    return quoteIfNeeded(value.description());
}

std::string describeAt(const Value& value, int level) {
    const std::string indent = indentation(level);
    if (value.isArray()) {
        std::string out = indent + "(\n";
        const auto& elements = value.elements();
        for (std::size_t i = 0; i < elements.size(); ++i) {
            out += indent + "    " + describeMember(elements[i], level + 1);
            out += i + 1 < elements.size() ? ",\n" : "\n";
        }
        return out + indent + ")";
    }
    if (value.isDictionary()) {
        std::vector<const std::string*> keys;
        for (const auto& entry : value.entries()) keys.push_back(&entry.first);
        std::sort(keys.begin(), keys.end(),
                  [](const std::string* a, const std::string* b) { return keyLess(*a, *b); });
        std::string out = indent + "{\n";
        for (const std::string* key : keys) {
            out += indent + "    " + quoteIfNeeded(*key) + " = " +
                   describeMember(value.objectForKey(*key), level + 1) + ";\n";
        }
        return out + indent + "}";
    }
    return value.description();
}

}  // namespace

std::string Value::description() const {
    switch (kind()) {
        case Kind::Nil:
            return std::string(kNilDescription);
        case Kind::String:
            return object_->text;
        case Kind::Number:
            return numberDescription(*this);
        case Kind::Array:
        case Kind::Dictionary:
            return describeAt(*this, 0);
        case Kind::Data:
            return dataDescription(object_->bytes);
        case Kind::Date:
            return dateDescription(object_->doubleNumber);
        case Kind::UID:
            // Foundation adds the object's address, which means nothing here.
            return "<CFKeyedArchiverUID>{value = " + std::to_string(uidValue()) + "}";
    }
    return {};
}

}  // namespace cli
