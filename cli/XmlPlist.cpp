// The XML property-list reader: expat for the markup, Foundation's rules for
// the values.

#include "cli/XmlPlist.h"

#include "cli/PropertyList.h"
#include "cli/ValueObject.h"

#include <expat.h>

#include <locale.h>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace cli {

namespace {

// --- Characters that XML refuses but property-list strings may hold ---
//
// Foundation's reader takes the text between tags as bytes, so a string may
// hold control characters, NUL and U+FFFE/U+FFFF, which expat refuses. Before
// parsing, each of them becomes a mark, the noncharacter U+10FFFF, followed
// by a private-use character U+E0xx naming it; a U+10FFFF of the input is
// marked the same way. Text taken from the document has the marks undone.

constexpr std::string_view kMark = "\xF4\x8F\xBF\xBF";
constexpr unsigned char kNamedFFFE = 0x20;
constexpr unsigned char kNamedFFFF = 0x21;
constexpr unsigned char kNamedMark = 0x22;

void appendMarked(std::string& out, unsigned char name) {
    out += kMark;
    out += "\xEE\x80";  // U+E000 + name, for names below 0x40
    out += static_cast<char>(0x80 + name);
}

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

// --- Values of the leaf elements ---

bool isXmlBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

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

// --- The document ---

enum class Tag { Plist, Array, Dict, Key, String, Data, Date, Real, Integer, True, False };

std::optional<Tag> tagNamed(std::string_view name) {
    static const std::map<std::string_view, Tag> tags = {
        {"plist", Tag::Plist}, {"array", Tag::Array},   {"dict", Tag::Dict},
        {"key", Tag::Key},     {"string", Tag::String}, {"data", Tag::Data},
        {"date", Tag::Date},   {"real", Tag::Real},     {"integer", Tag::Integer},
        {"true", Tag::True},   {"false", Tag::False},
    };
    const auto found = tags.find(name);
    if (found == tags.end()) return std::nullopt;
    return found->second;
}

bool holdsValues(Tag tag) {
    return tag == Tag::Plist || tag == Tag::Array || tag == Tag::Dict;
}

// Leaves whose text is decoded XML: entities and CDATA sections count.
bool holdsText(Tag tag) {
    return tag == Tag::Key || tag == Tag::String || tag == Tag::Real;
}

struct Frame {
    Tag tag;
    std::size_t contentStart;  // byte offset just after the start tag
    bool selfClosing;
    std::string text;                       // key, string, real
    std::vector<Value> elements;            // plist, array
    std::map<std::string, Value> entries;   // dict
    std::optional<std::string> pendingKey;  // dict: a key read, its value not yet
};

struct ParserDeleter {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

class Reader {
  public:
    explicit Reader(std::string document) : document_(std::move(document)) {}

    Value read(std::string* problem) {
        const std::unique_ptr<XML_ParserStruct, ParserDeleter> owned(XML_ParserCreate("UTF-8"));
        parser_ = owned.get();
        if (!parser_) return refuse(problem, "out of memory");
        XML_SetUserData(parser_, this);
        XML_SetElementHandler(parser_, onStart, onEnd);
        XML_SetCharacterDataHandler(parser_, onText);
        XML_SetStartCdataSectionHandler(parser_, onCdata);
        XML_SetCommentHandler(parser_, onComment);
        XML_SetProcessingInstructionHandler(parser_, onProcessingInstruction);
        XML_SetStartDoctypeDeclHandler(parser_, onDoctype);
        XML_SetSkippedEntityHandler(parser_, onSkippedEntity);

        // expat takes int lengths; positions reported stay document-wide.
        constexpr std::size_t kChunk = std::size_t{1} << 30;
        std::size_t offset = 0;
        XML_Status status = XML_STATUS_OK;
        do {
            const std::size_t length = std::min(kChunk, document_.size() - offset);
            const bool last = offset + length == document_.size();
            status = XML_Parse(parser_, document_.data() + offset, static_cast<int>(length),
                               last ? XML_TRUE : XML_FALSE);
            offset += length;
        } while (status == XML_STATUS_OK && offset < document_.size());

        if (!problem_.empty()) return refuse(problem, problem_);
        if (!root_.isNil()) return root_;
        if (status != XML_STATUS_OK) {
            return refuse(problem,
                          std::string(XML_ErrorString(XML_GetErrorCode(parser_))) + atLine());
        }
        return refuse(problem, "no XML content");
    }

  private:
    static Reader& of(void* data) { return *static_cast<Reader*>(data); }

    static Value refuse(std::string* problem, const std::string& why) {
        if (problem) *problem = why;
        return {};
    }

    std::string atLine() const {
        return " on line " + std::to_string(XML_GetCurrentLineNumber(parser_));
    }

    bool stopped() const { return !problem_.empty() || !root_.isNil(); }

    void fail(const std::string& why) {
        if (stopped()) return;
        problem_ = why + atLine();
        XML_StopParser(parser_, XML_FALSE);
    }

    std::size_t position() const {
        return static_cast<std::size_t>(XML_GetCurrentByteIndex(parser_));
    }
    std::size_t eventLength() const {
        return static_cast<std::size_t>(XML_GetCurrentByteCount(parser_));
    }
    std::string_view eventBytes() const {
        return std::string_view(document_).substr(position(), eventLength());
    }

    static void XMLCALL onStart(void* data, const XML_Char* name, const XML_Char**) {
        Reader& self = of(data);
        if (self.stopped()) return;
        const std::optional<Tag> tag = tagNamed(name);
        if (!tag) return self.fail(std::string("unknown tag <") + name + ">");
        if (!self.frames_.empty() && !holdsValues(self.frames_.back().tag)) {
            return self.fail(std::string("tag <") + name + "> inside a value");
        }
        if (*tag == Tag::Array || *tag == Tag::Dict) {
            if (++self.containers_ > kPropertyListMaxNesting) {
                return self.fail("arrays and dictionaries nested too deep");
            }
        }
        const std::string_view markup = self.eventBytes();
        self.frames_.push_back(
            Frame{*tag, self.position() + markup.size(), markup.ends_with("/>"), {}, {}, {}, {}});
    }

    static void XMLCALL onEnd(void* data, const XML_Char*) {
        Reader& self = of(data);
        if (self.stopped()) return;
        Frame frame = std::move(self.frames_.back());
        self.frames_.pop_back();
        if (frame.tag == Tag::Array || frame.tag == Tag::Dict) --self.containers_;
        const std::size_t contentEnd = frame.selfClosing ? frame.contentStart : self.position();
        Value value = self.valueOf(frame, contentEnd);
        if (value.isNil()) return;
        if (self.frames_.empty()) {
            self.root_ = std::move(value);
            // What follows the root is not read.
            XML_StopParser(self.parser_, XML_FALSE);
            return;
        }
        self.addToParent(frame.tag, std::move(value));
    }

    Value valueOf(Frame& frame, std::size_t contentEnd) {
        std::string why;
        Value value;
        switch (frame.tag) {
            case Tag::Plist:
                if (frame.elements.empty()) why = "empty <plist>";
                if (!frame.elements.empty()) value = frame.elements.front();
                break;
            case Tag::Array:
                value = Value::array(std::move(frame.elements));
                break;
            case Tag::Dict:
                if (frame.pendingKey) {
                    why = "value missing for key \"" + *frame.pendingKey + "\" in <dict>";
                } else {
                    value = dictionaryOrUID(std::move(frame.entries));
                }
                break;
            case Tag::Key:
            case Tag::String:
                value = Value(unmarkRefusedCharacters(frame.text));
                break;
            case Tag::Real:
                value = realFromText(unmarkRefusedCharacters(frame.text), why);
                break;
            case Tag::True:
            case Tag::False:
                if (contentEnd != frame.contentStart) why = "<true> or <false> not empty";
                if (why.empty()) value = Value::numberWithBool(frame.tag == Tag::True);
                break;
            case Tag::Integer:
            case Tag::Date:
            case Tag::Data: {
                // Read from the document's bytes: these take no markup and no
                // entities, and an empty element is an error.
                const std::string_view raw = std::string_view(document_).substr(
                    frame.contentStart, contentEnd - frame.contentStart);
                if (frame.selfClosing) {
                    why = "empty element";
                } else if (raw.find('<') != std::string_view::npos) {
                    why = "markup inside <integer>, <date> or <data>";
                } else {
                    const std::string text = unmarkRefusedCharacters(raw);
                    if (frame.tag == Tag::Integer) value = integerFromText(text, why);
                    if (frame.tag == Tag::Date) value = dateFromText(text, why);
                    if (frame.tag == Tag::Data) value = dataFromText(text, why);
                }
                break;
            }
        }
        if (value.isNil()) fail(why);
        return value;
    }

    // A dictionary whose one key is "CF$UID" with a number is a keyed
    // archiver's reference, its value cut to 32 bits.
    static Value dictionaryOrUID(std::map<std::string, Value> entries) {
        if (entries.size() == 1) {
            const auto uid = entries.find("CF$UID");
            if (uid != entries.end() && uid->second.isNumber() &&
                uid->second.numberType() != Value::NumberType::Bool) {
                return Value::uid(static_cast<std::uint32_t>(uid->second.integerValue()));
            }
        }
        return Value::dictionary(std::move(entries));
    }

    void addToParent(Tag tag, Value value) {
        Frame& parent = frames_.back();
        switch (parent.tag) {
            case Tag::Plist:
                if (!parent.elements.empty()) return fail("<plist> holds more than one value");
                parent.elements.push_back(std::move(value));
                return;
            case Tag::Array:
                parent.elements.push_back(std::move(value));
                return;
            default:  // a dictionary: values only ever reach containers
                if (parent.pendingKey) {
                    parent.entries.insert_or_assign(*parent.pendingKey, std::move(value));
                    parent.pendingKey.reset();
                } else if (tag == Tag::Key) {
                    parent.pendingKey = value.stringValue();
                } else {
                    fail("value without a <key> in <dict>");
                }
                return;
        }
    }

    static void XMLCALL onText(void* data, const XML_Char* text, int length) {
        Reader& self = of(data);
        if (self.stopped() || self.frames_.empty()) return;
        Frame& frame = self.frames_.back();
        if (holdsValues(frame.tag)) {
            const std::string_view raw = self.eventBytes();
            if (!std::all_of(raw.begin(), raw.end(), isXmlBlank)) {
                self.fail("text between the values of a container");
            }
        } else if (holdsText(frame.tag)) {
            // expat turns CR LF and CR into LF; the string keeps them.
            const std::string_view raw = self.eventBytes();
            if (length == 1 && text[0] == '\n' && raw.starts_with('\r')) {
                frame.text += raw;
            } else {
                frame.text.append(text, static_cast<std::size_t>(length));
            }
        }
    }

    static void XMLCALL onCdata(void* data) {
        Reader& self = of(data);
        if (self.stopped() || self.frames_.empty()) return;
        if (!holdsText(self.frames_.back().tag)) self.fail("CDATA outside <string> or <key>");
    }

    void markupInside() {
        if (!stopped() && !frames_.empty() && !holdsValues(frames_.back().tag)) {
            fail("comment or processing instruction inside a value");
        }
    }

    static void XMLCALL onComment(void* data, const XML_Char*) { of(data).markupInside(); }

    static void XMLCALL onProcessingInstruction(void* data, const XML_Char*, const XML_Char*) {
        of(data).markupInside();
    }

    static void XMLCALL onDoctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*,
                                  int hasInternalSubset) {
        if (hasInternalSubset) of(data).fail("DOCTYPE with an internal subset");
    }

    static void XMLCALL onSkippedEntity(void* data, const XML_Char* name, int) {
        of(data).fail(std::string("unknown entity &") + name + ";");
    }

    std::string document_;
    XML_Parser parser_ = nullptr;
    std::vector<Frame> frames_;
    std::size_t containers_ = 0;
    Value root_;
    std::string problem_;
};

}  // namespace

Value parseXmlPropertyList(std::string_view text, std::string* problem) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        if (problem) *problem = "no XML content";
        return {};
    }
    // Blanks before the XML declaration are fine for Foundation, not for XML.
    return Reader(markRefusedCharacters(text.substr(first))).read(problem);
}

}  // namespace cli
