#pragma once

// Property-list serialisation of Values: reading the XML, binary and old
// OpenStep text forms, writing the XML form. Errors come back in
// NSCocoaErrorDomain with Foundation's codes.

#include "cli/Value.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace cli {

inline constexpr const char* kCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::int64_t kPropertyListReadCorruptError = 3840;
inline constexpr std::int64_t kPropertyListWriteInvalidError = 3851;

// Containers nested deeper than this are refused on read and on write.
inline constexpr std::size_t kPropertyListMaxNesting = 512;

// The XML form holds dates at most this many seconds from 1970 either way
// (some three million years): the writer refuses later ones, the reader
// refuses their text.
inline constexpr double kPropertyListDateLimit = 1e14;

// The property list in `bytes`, whatever its form: binary ("bplist0"), XML,
// or OpenStep text (also tried when XML parsing fails). Text is UTF-8 unless
// a byte-order mark or an XML declaration at its very start names another
// encoding. XML is read as strictly as Foundation reads it (XmlPlist.h).
// Containers read immutable; OpenStep scalars are strings. Any root type is
// answered. Nil with *error (domain above, code 3840) for anything
// malformed, including nesting beyond the limit, binary object graphs that
// are cyclic or expand to an unreasonable size, and binary strings with no
// UTF-8 form.
Value propertyListFromData(std::string_view bytes, std::optional<NSError>* error);

// The XML (version 1.0) text of `root`: tab-indented, dictionary keys in
// UTF-16 order, the root element not indented. Nothing with *error (code
// 3851) when the value holds something a property list cannot: nil inside
// a collection, text that is not UTF-8, a date that is not finite, or
// nesting beyond the limit (which includes a collection holding itself).
std::optional<std::string> xmlDataFromPropertyList(const Value& root,
                                                   std::optional<NSError>* error);

}  // namespace cli
