// Reading property lists: format and text-encoding detection; binary lists
// through libplist, behind the guards that keep hostile input away from its
// recursive parser; XML and OpenStep text through the readers of their own.

#include "cli/ValueObject.h"
#include "cli/plist/BinaryPlistCheck.h"
#include "cli/plist/OpenStepPlist.h"
#include "cli/plist/PropertyList.h"
#include "cli/plist/XmlPlist.h"

#include <iconv.h>
#include <plist/plist.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <vector>

namespace cli {

namespace {

constexpr double kSecondsFrom1970To2001 = 978307200.0;

void setCorrupt(std::optional<NSError>* error, const std::string& detail) {
    if (!error) return;
    *error = NSError{kCocoaErrorDomain, kPropertyListReadCorruptError,
                     "The data couldn\xE2\x80\x99t be read because it isn\xE2\x80\x99t in the "
                     "correct format. (" +
                         detail + ")"};
}

bool startsWith(std::string_view bytes, std::string_view prefix) {
    return bytes.substr(0, prefix.size()) == prefix;
}

// The encoding an XML declaration at the very start names, if it names one.
std::optional<std::string> declaredEncoding(std::string_view bytes) {
    if (!startsWith(bytes, "<?xml")) return std::nullopt;
    for (std::size_t i = 5; i < bytes.size() && bytes[i] != '?' && bytes[i] != '>'; ++i) {
        if (!startsWith(bytes.substr(i), "encoding=") || i + 9 >= bytes.size()) continue;
        const char quote = bytes[i + 9];
        if (quote != '"' && quote != '\'') return std::nullopt;
        const std::size_t end = bytes.find(quote, i + 10);
        if (end == std::string_view::npos) return std::nullopt;
        return std::string(bytes.substr(i + 10, end - i - 10));
    }
    return std::nullopt;
}

// The bytes converted from `encoding` to UTF-8 by iconv; nothing, with
// `problem` set, for an encoding iconv does not know or bytes that are not
// in it.
std::optional<std::string> convertedToUTF8(std::string_view bytes, const std::string& encoding,
                                           std::string& problem) {
    const iconv_t converter = iconv_open("UTF-8", encoding.c_str());
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        problem = "unknown encoding \"" + encoding + "\"";
        return std::nullopt;
    }
    std::string out;
    char buffer[16384];
    auto* in = const_cast<char*>(bytes.data());
    std::size_t inLeft = bytes.size();
    bool ok = true;
    while (ok && inLeft > 0) {
        char* put = buffer;
        std::size_t outLeft = sizeof buffer;
        const std::size_t done = iconv(converter, &in, &inLeft, &put, &outLeft);
        out.append(buffer, static_cast<std::size_t>(put - buffer));
        ok = done != static_cast<std::size_t>(-1) || errno == E2BIG;
    }
    iconv_close(converter);
    if (!ok) {
        problem = "text is not in its declared encoding " + encoding;
        return std::nullopt;
    }
    return out;
}

// Text with a UTF-16 or UTF-32 byte-order mark becomes UTF-8; a UTF-8 mark
// is dropped. Without a mark, an XML declaration at the very start may name
// the encoding. Nothing, with `problem` set, for ill-formed text or an
// encoding that cannot be read.
std::optional<std::string> textAsUTF8(std::string_view bytes, std::string& problem) {
    problem = "ill-formed text encoding";
    int unitSize = 0;
    bool bigEndian = false;
    if (startsWith(bytes, std::string_view("\xFF\xFE\x00\x00", 4))) {
        unitSize = 4;
    } else if (startsWith(bytes, std::string_view("\x00\x00\xFE\xFF", 4))) {
        unitSize = 4, bigEndian = true;
    } else if (startsWith(bytes, "\xFF\xFE")) {
        unitSize = 2;
    } else if (startsWith(bytes, "\xFE\xFF")) {
        unitSize = 2, bigEndian = true;
    } else if (startsWith(bytes, "\xEF\xBB\xBF")) {
        return std::string(bytes.substr(3));
    } else {
        const std::optional<std::string> encoding = declaredEncoding(bytes);
        if (encoding && !equalsIgnoringASCIICase(*encoding, "utf-8")) {
            return convertedToUTF8(bytes, *encoding, problem);
        }
        return std::string(bytes);
    }
    bytes.remove_prefix(unitSize);
    if (bytes.size() % unitSize != 0) return std::nullopt;
    auto unitAt = [&](std::size_t i) {
        std::uint32_t value = 0;
        for (int k = 0; k < unitSize; ++k) {
            const std::uint32_t b = static_cast<unsigned char>(bytes[i + k]);
            value |= bigEndian ? b << (8 * (unitSize - 1 - k)) : b << (8 * k);
        }
        return value;
    };
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += unitSize) {
        std::uint32_t c = unitAt(i);
        if (unitSize == 2 && c >= 0xD800 && c <= 0xDBFF) {
            if (i + 2 >= bytes.size()) return std::nullopt;
            const std::uint32_t low = unitAt(i + 2);
            if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
            i += 2;
        } else if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) {
            return std::nullopt;
        }
        appendUTF8(out, c);
    }
    return out;
}

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

// libplist keeps an integer's sign beside its 64 bits but 2.2 has no
// accessor for it; its XML text tells a negative value from a large
// unsigned one.
bool integerNodeIsNegative(plist_t node) {
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    CString owned(xml);
    return xml && std::string_view(xml, length).find("<integer>-") != std::string_view::npos;
}

Value valueFromNode(plist_t node, std::size_t depth) {
    if (!node || depth > kPropertyListMaxNesting) return {};
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            std::uint8_t flag = 0;
            plist_get_bool_val(node, &flag);
            return Value::numberWithBool(flag != 0);
        }
        case PLIST_UINT: {
            std::uint64_t bits = 0;
            plist_get_uint_val(node, &bits);
            if (bits > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) &&
                !integerNodeIsNegative(node)) {
                return Value::numberWithUnsignedInteger(bits);
            }
            return Value::numberWithInteger(static_cast<std::int64_t>(bits));
        }
        case PLIST_REAL: {
            double real = 0;
            plist_get_real_val(node, &real);
            return Value::numberWithDouble(real);
        }
        case PLIST_STRING:
        case PLIST_KEY: {
            // The pointer form: libplist's copying getter asserts on text
            // holding a NUL character.
            std::uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            std::string value;
            if (text) {
                value.assign(text, length);
            } else {
                char* key = nullptr;  // a key node
                plist_get_key_val(node, &key);
                CString owned(key);
                if (!key) return {};
                value = key;
            }
            // A string whose bytes are not ASCII, or UTF-16 with a lone
            // surrogate, has no UTF-8 form.
            return isValidUTF8(value) ? Value(std::move(value)) : Value();
        }
        case PLIST_DATA: {
            char* bytes = nullptr;
            std::uint64_t length = 0;
            plist_get_data_val(node, &bytes, &length);
            CString owned(bytes);
            if (!bytes && length > 0) return {};
            const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes);
            return Value::data(std::vector<std::uint8_t>(begin, begin + length));
        }
        case PLIST_DATE: {
            std::int32_t seconds = 0;
            std::int32_t microseconds = 0;
            plist_get_date_val(node, &seconds, &microseconds);
            return Value::date(seconds + microseconds / 1e6 + kSecondsFrom1970To2001);
        }
        case PLIST_UID: {
            std::uint64_t uid = 0;
            plist_get_uid_val(node, &uid);
            if (uid > std::numeric_limits<std::uint32_t>::max()) return {};
            return Value::uid(static_cast<std::uint32_t>(uid));
        }
        case PLIST_ARRAY: {
            std::vector<Value> elements;
            const std::uint32_t count = plist_array_get_size(node);
            for (std::uint32_t i = 0; i < count; ++i) {
                Value element = valueFromNode(plist_array_get_item(node, i), depth + 1);
                if (element.isNil()) return {};
                elements.push_back(std::move(element));
            }
            return Value::array(std::move(elements));
        }
        case PLIST_DICT: {
            std::map<std::string, Value> entries;
            plist_dict_iter iterator = nullptr;
            plist_dict_new_iter(node, &iterator);
            bool ok = true;
            for (;;) {
                char* key = nullptr;
                plist_t item = nullptr;
                plist_dict_next_item(node, iterator, &key, &item);
                if (!key) break;
                CString ownedKey(key);
                Value value = valueFromNode(item, depth + 1);
                if (value.isNil() || !isValidUTF8(key)) {
                    ok = false;
                    break;
                }
                entries[key] = std::move(value);
            }
            std::free(iterator);
            if (!ok) return {};
            return Value::dictionary(std::move(entries));
        }
        default:
            return {};
    }
}

}  // namespace

Value propertyListFromData(std::string_view bytes, std::optional<NSError>* error) {
    if (bytes.empty()) {
        setCorrupt(error, "empty data");
        return {};
    }
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        setCorrupt(error, "data too large");
        return {};
    }
    if (startsWith(bytes, "bplist0")) {
        std::string problem;
        if (!binaryPlistIsWellFormed(bytes, kPropertyListMaxNesting, &problem)) {
            setCorrupt(error, problem);
            return {};
        }
        plist_t root = nullptr;
        plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
        PlistPtr owned(root);
        Value value = valueFromNode(root, 0);
        if (value.isNil()) setCorrupt(error, "malformed binary property list");
        return value;
    }

    std::string problem;
    const std::optional<std::string> text = textAsUTF8(bytes, problem);
    if (!text) {
        setCorrupt(error, problem);
        return {};
    }
    const std::size_t first = text->find_first_not_of(" \t\r\n");
    const bool looksLikeXml = first != std::string::npos && (*text)[first] == '<';
    if (looksLikeXml) {
        Value value = parseXmlPropertyList(*text, &problem);
        if (!value.isNil()) return value;
    }
    // Not XML: the old text form is the last resort.
    std::string openStepProblem = "text is not UTF-8";
    Value value;
    if (isValidUTF8(*text)) value = parseOpenStepPropertyList(*text, &openStepProblem);
    // Text that looked like XML is reported by what the XML reader found.
    if (value.isNil()) setCorrupt(error, looksLikeXml ? problem : openStepProblem);
    return value;
}

}  // namespace cli
