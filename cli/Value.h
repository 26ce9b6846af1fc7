#pragma once

// A small object model in the manner of Foundation's: a Value is a reference
// to a shared object (string, number, array, dictionary, data, date, or the
// keyed archiver's object reference that property lists carry) or nil.
// Copying a Value copies the reference, as assigning an object pointer does;
// mutating a mutable array or dictionary through one Value is seen through
// every other Value that refers to it. `isEqual` compares contents,
// `isSameObject` compares identity.
//
// The conversions (`boolValue`, `integerValue`, `doubleValue`) and the text
// form (`description`) follow Foundation's rules exactly, so that values the
// parser stores as strings read back as flags and numbers the way the
// settings layer expects.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

class Value {
  public:
    enum class Kind { Nil, String, Number, Array, Dictionary, Data, Date, UID };

    // What a number was made from; decides its text form and its type in a
    // property list (a Bool becomes <true/>/<false/>).
    enum class NumberType { Bool, Char, Int, Integer, UnsignedInteger, Double };

    // nil
    Value() = default;
    Value(std::nullptr_t) {}

    // Strings (UTF-8). A Value made from a string literal is a string.
    Value(const char* utf8);
    Value(std::string utf8);
    Value(std::string_view utf8);
    static Value string(std::string utf8);

    // Numbers, named like NSNumber's factory methods.
    static Value numberWithBool(bool value);
    static Value numberWithChar(std::int8_t value);
    static Value numberWithInt(std::int32_t value);
    static Value numberWithInteger(std::int64_t value);
    static Value numberWithUnsignedInteger(std::uint64_t value);
    static Value numberWithDouble(double value);

    // Collections. Immutable ones cannot be changed after creation; the
    // settings layer's array rule tells the two kinds apart.
    static Value array(std::vector<Value> elements = {});
    static Value mutableArray(std::vector<Value> elements = {});
    static Value dictionary(std::map<std::string, Value> entries = {});
    static Value mutableDictionary(std::map<std::string, Value> entries = {});

    static Value data(std::vector<std::uint8_t> bytes);
    // Seconds since 1970-01-01 00:00:00 UTC.
    static Value date(double secondsSince1970);
    // A keyed archiver's object reference: a binary list's UID, or the XML
    // form's dictionary whose one key is "CF$UID". Not a dictionary: it
    // answers the conversions with NO and 0 like data and dates.
    static Value uid(std::uint32_t value);

    Kind kind() const;
    bool isNil() const { return !object_; }
    explicit operator bool() const { return !isNil(); }
    bool isString() const { return kind() == Kind::String; }
    bool isNumber() const { return kind() == Kind::Number; }
    bool isArray() const { return kind() == Kind::Array; }
    bool isMutableArray() const;
    bool isDictionary() const { return kind() == Kind::Dictionary; }
    bool isMutableDictionary() const;
    bool isData() const { return kind() == Kind::Data; }
    bool isDate() const { return kind() == Kind::Date; }
    bool isUID() const { return kind() == Kind::UID; }

    // Identity: both refer to the same object (two nils are the same).
    bool isSameObject(const Value& other) const { return object_ == other.object_; }
    // Foundation's isEqual: same kind and equal contents; numbers compare by
    // value across their types (numberWithBool:YES equals numberWithInt:1);
    // nil equals nothing, not even nil.
    bool isEqual(const Value& other) const;

    // The string's UTF-8 text; empty for a value that is not a string.
    const std::string& stringValue() const;
    // Length in UTF-16 code units (strings only; 0 otherwise).
    std::size_t length() const;

    // Number details (numbers only).
    NumberType numberType() const;

    // Foundation conversions. Strings and numbers answer them by the rules
    // of NSString and NSNumber; nil and every other kind answer NO/0/0.0.
    bool boolValue() const;
    std::int32_t intValue() const;
    std::int64_t integerValue() const;
    double doubleValue() const;

    // The text `%@` inserts: strings as they are, numbers by their type's
    // printf form, collections in the multi-line quoted form, nil as
    // "(null)".
    std::string description() const;

    // Arrays. `count` of anything else is 0.
    std::size_t count() const;
    const Value& objectAtIndex(std::size_t index) const;
    const std::vector<Value>& elements() const;
    bool containsObject(const Value& value) const;  // by isEqual
    // Mutable arrays only; a call on anything else is ignored.
    void addObject(Value value);
    void addObjectsFromArray(const Value& array);
    void removeLastObject();

    // Dictionaries. Keys are strings, enumerated in code-unit order.
    const std::map<std::string, Value>& entries() const;
    Value objectForKey(std::string_view key) const;  // nil when absent
    // Mutable dictionaries only; a nil value removes the key.
    void setObjectForKey(Value value, const std::string& key);
    void removeObjectForKey(const std::string& key);
    void removeAllObjects();  // also empties a mutable array

    const std::vector<std::uint8_t>& bytes() const;  // data only
    double secondsSince1970() const;                 // date only
    std::uint32_t uidValue() const;                  // UID only

    struct Object;

  private:
    explicit Value(std::shared_ptr<Object> object) : object_(std::move(object)) {}
    std::shared_ptr<Object> object_;
};

// An error reported by a file operation of the command-line layer: a domain
// ("NSCocoaErrorDomain" for read, parse and write failures), a code and the
// text `description` gives.
struct NSError {
    std::string domain;
    std::int64_t code = 0;
    std::string description;
};

// What `%@` prints for nil.
inline constexpr std::string_view kNilDescription = "(null)";

// The text form of an optional string as `%@` prints it: kNilDescription
// for none.
std::string describe(const std::optional<std::string>& text);

// Length of UTF-8 text in UTF-16 code units (invalid bytes count one each).
std::size_t utf16Length(std::string_view utf8);

// Whether the bytes are well-formed UTF-8.
bool isValidUTF8(std::string_view bytes);

}  // namespace cli
