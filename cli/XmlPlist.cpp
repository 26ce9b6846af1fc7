// The XML property-list reader: expat for the markup, Foundation's rules for
// the values.

#include "cli/XmlPlist.h"

#include "cli/PropertyList.h"
#include "cli/XmlPlistValues.h"

#include <expat.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace cli {

namespace {

using namespace xmlplist;

// Room for every container the limit allows, each inside a <plist>.
constexpr std::size_t kMaxElementDepth = 2 * kPropertyListMaxNesting + 2;

bool isXmlBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

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
        // <plist> wrappers do not count as containers, but nesting them
        // endlessly must not cost endless memory either.
        if (self.frames_.size() >= kMaxElementDepth) {
            return self.fail("elements nested too deep");
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
