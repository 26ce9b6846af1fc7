// The XML property-list writer, in the exact layout Foundation writes.

#include "cli/ValueUtf8.h"
#include "cli/plist/PropertyList.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <vector>

namespace cli {

namespace {

const char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Foundation sorts keys by UTF-16 code units, which differs from UTF-8
// byte order between supplementary characters and U+E000-U+FFFF.
bool lessInUTF16Order(const std::string& a, const std::string& b) {
    return utf8::toUTF16(a) < utf8::toUTF16(b);
}

class Writer {
  public:
    bool write(const Value& value, std::size_t depth) {
        switch (value.kind()) {
            case Value::Kind::Nil:
                return invalid("nil cannot be stored in a property list");
            case Value::Kind::String:
                if (!isValidUTF8(value.stringValue())) return invalid("text is not UTF-8");
                line(depth, "<string>" + escaped(value.stringValue()) + "</string>");
                return true;
            case Value::Kind::Number:
                line(depth, number(value));
                return true;
            case Value::Kind::Date: {
                const double seconds = value.secondsSince1970();
                if (!std::isfinite(seconds) || std::fabs(seconds) > kPropertyListDateLimit) {
                    return invalid("date out of range");
                }
                line(depth, "<date>" + date(seconds) + "</date>");
                return true;
            }
            case Value::Kind::Data:
                data(value.bytes(), depth);
                return true;
            case Value::Kind::Array:
                return array(value, depth);
            case Value::Kind::Dictionary:
                return dictionary(value, depth);
            case Value::Kind::UID:
                line(depth, "<dict>");
                line(depth + 1, "<key>CF$UID</key>");
                line(depth + 1, "<integer>" + std::to_string(value.uidValue()) + "</integer>");
                line(depth, "</dict>");
                return true;
        }
        return invalid("unknown kind of value");
    }

    std::string& output() { return out_; }
    const std::string& problem() const { return problem_; }

  private:
    bool invalid(const std::string& why) {
        problem_ = why;
        return false;
    }

    void line(std::size_t depth, const std::string& text) {
        out_.append(depth, '\t');
        out_ += text;
        out_ += '\n';
    }

    static std::string escaped(const std::string& text) {
        std::string out;
        out.reserve(text.size());
        for (char c : text) {
            switch (c) {
                case '&':
                    out += "&amp;";
                    break;
                case '<':
                    out += "&lt;";
                    break;
                case '>':
                    out += "&gt;";
                    break;
                default:
                    out += c;
                    break;
            }
        }
        return out;
    }

    static std::string number(const Value& value) {
        char buffer[64];
        switch (value.numberType()) {
            case Value::NumberType::Bool:
                return value.boolValue() ? "<true/>" : "<false/>";
            case Value::NumberType::UnsignedInteger:
                std::snprintf(buffer, sizeof buffer, "%llu",
                              static_cast<unsigned long long>(value.integerValue()));
                return std::string("<integer>") + buffer + "</integer>";
            case Value::NumberType::Double: {
                const double d = value.doubleValue();
                if (std::isnan(d)) return "<real>nan</real>";
                if (std::isinf(d))
                    return d > 0 ? "<real>+infinity</real>" : "<real>-infinity</real>";
                if (d == 0.0) return "<real>0.0</real>";
                std::snprintf(buffer, sizeof buffer, "%.17g", d);
                return std::string("<real>") + buffer + "</real>";
            }
            default:
                std::snprintf(buffer, sizeof buffer, "%lld",
                              static_cast<long long>(value.integerValue()));
                return std::string("<integer>") + buffer + "</integer>";
        }
    }

    static std::string date(double secondsSince1970) {
        const std::time_t whole = static_cast<std::time_t>(std::floor(secondsSince1970));
        std::tm parts{};
        gmtime_r(&whole, &parts);
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%04lld-%02d-%02dT%02d:%02d:%02dZ",
                      static_cast<long long>(parts.tm_year) + 1900, parts.tm_mon + 1, parts.tm_mday,
                      parts.tm_hour, parts.tm_min, parts.tm_sec);
        return buffer;
    }

    void data(const std::vector<std::uint8_t>& bytes, std::size_t depth) {
        line(depth, "<data>");
        std::string encoded;
        for (std::size_t i = 0; i < bytes.size(); i += 3) {
            const std::uint32_t chunk = (bytes[i] << 16) |
                                        (i + 1 < bytes.size() ? bytes[i + 1] << 8 : 0) |
                                        (i + 2 < bytes.size() ? bytes[i + 2] : 0);
            encoded += kBase64Alphabet[(chunk >> 18) & 0x3F];
            encoded += kBase64Alphabet[(chunk >> 12) & 0x3F];
            encoded += i + 1 < bytes.size() ? kBase64Alphabet[(chunk >> 6) & 0x3F] : '=';
            encoded += i + 2 < bytes.size() ? kBase64Alphabet[chunk & 0x3F] : '=';
        }
        // Lines narrow with the indent, which counts at most eight levels.
        const std::size_t width = 76 - 8 * std::min<std::size_t>(depth, 8);
        for (std::size_t i = 0; i < encoded.size(); i += width) {
            line(depth, encoded.substr(i, width));
        }
        line(depth, "</data>");
    }

    bool array(const Value& value, std::size_t depth) {
        if (depth >= kPropertyListMaxNesting) return invalid("nesting too deep");
        if (value.count() == 0) {
            line(depth, "<array/>");
            return true;
        }
        line(depth, "<array>");
        for (const Value& element : value.elements()) {
            if (!write(element, depth + 1)) return false;
        }
        line(depth, "</array>");
        return true;
    }

    bool dictionary(const Value& value, std::size_t depth) {
        if (depth >= kPropertyListMaxNesting) return invalid("nesting too deep");
        if (value.entries().empty()) {
            line(depth, "<dict/>");
            return true;
        }
        std::vector<const std::string*> keys;
        for (const auto& entry : value.entries()) {
            if (!isValidUTF8(entry.first)) return invalid("key is not UTF-8");
            keys.push_back(&entry.first);
        }
        std::sort(keys.begin(), keys.end(), [](const std::string* a, const std::string* b) {
            return lessInUTF16Order(*a, *b);
        });
        line(depth, "<dict>");
        for (const std::string* key : keys) {
            line(depth + 1, "<key>" + escaped(*key) + "</key>");
            if (!write(value.objectForKey(*key), depth + 1)) return false;
        }
        line(depth, "</dict>");
        return true;
    }

    std::string out_;
    std::string problem_;
};

}  // namespace

std::optional<std::string> xmlDataFromPropertyList(const Value& root,
                                                   std::optional<NSError>* error) {
    Writer writer;
    writer.output() =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n";
    if (!writer.write(root, 0)) {
        if (error) {
            *error = NSError{kCocoaErrorDomain, kPropertyListWriteInvalidError,
                             "Property list invalid for format: " + writer.problem()};
        }
        return std::nullopt;
    }
    writer.output() += "</plist>\n";
    return std::move(writer.output());
}

}  // namespace cli
