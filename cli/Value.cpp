#include "cli/Value.h"

#include "cli/ValueObject.h"

#include <compare>
#include <utility>

namespace cli {

namespace {

const std::string kEmptyString;
const std::vector<Value> kNoElements;
const std::map<std::string, Value> kNoEntries;
const std::vector<std::uint8_t> kNoBytes;
const Value kNil;

std::shared_ptr<Value::Object> makeObject(Value::Kind kind) {
    auto object = std::make_shared<Value::Object>();
    object->kind = kind;
    return object;
}

std::shared_ptr<Value::Object> makeNumber(Value::NumberType type) {
    auto object = makeObject(Value::Kind::Number);
    object->numberType = type;
    return object;
}

bool isSignedKind(Value::NumberType type) {
    return type != Value::NumberType::UnsignedInteger && type != Value::NumberType::Double;
}

// Orders two numbers by value, across their stored types.
std::partial_ordering compareNumbers(const Value::Object& a, const Value::Object& b) {
    using NT = Value::NumberType;
    if (a.numberType == NT::Double || b.numberType == NT::Double) {
        auto asLong = [](const Value::Object& o) -> long double {
            if (o.numberType == NT::Double) return o.doubleNumber;
            if (o.numberType == NT::UnsignedInteger)
                return static_cast<long double>(o.unsignedNumber);
            return static_cast<long double>(o.signedNumber);
        };
        return asLong(a) <=> asLong(b);
    }
    const bool aSigned = isSignedKind(a.numberType);
    const bool bSigned = isSignedKind(b.numberType);
    if (aSigned && bSigned) return a.signedNumber <=> b.signedNumber;
    if (!aSigned && !bSigned) return a.unsignedNumber <=> b.unsignedNumber;
    if (aSigned) {
        if (a.signedNumber < 0) return std::partial_ordering::less;
        return static_cast<std::uint64_t>(a.signedNumber) <=> b.unsignedNumber;
    }
    if (b.signedNumber < 0) return std::partial_ordering::greater;
    return a.unsignedNumber <=> static_cast<std::uint64_t>(b.signedNumber);
}

}  // namespace

Value::Value(const char* utf8) {
    if (utf8) *this = string(std::string(utf8));
}

Value::Value(std::string utf8) : Value(string(std::move(utf8))) {}

Value::Value(std::string_view utf8) : Value(string(std::string(utf8))) {}

Value Value::string(std::string utf8) {
    auto object = makeObject(Kind::String);
    object->text = std::move(utf8);
    return Value(std::move(object));
}

Value Value::numberWithBool(bool value) {
    auto object = makeNumber(NumberType::Bool);
    object->signedNumber = value ? 1 : 0;
    return Value(std::move(object));
}

Value Value::numberWithChar(std::int8_t value) {
    auto object = makeNumber(NumberType::Char);
    object->signedNumber = value;
    return Value(std::move(object));
}

Value Value::numberWithInt(std::int32_t value) {
    auto object = makeNumber(NumberType::Int);
    object->signedNumber = value;
    return Value(std::move(object));
}

Value Value::numberWithInteger(std::int64_t value) {
    auto object = makeNumber(NumberType::Integer);
    object->signedNumber = value;
    return Value(std::move(object));
}

Value Value::numberWithUnsignedInteger(std::uint64_t value) {
    auto object = makeNumber(NumberType::UnsignedInteger);
    object->unsignedNumber = value;
    return Value(std::move(object));
}

Value Value::numberWithDouble(double value) {
    auto object = makeNumber(NumberType::Double);
    object->doubleNumber = value;
    return Value(std::move(object));
}

Value Value::array(std::vector<Value> elements) {
    auto object = makeObject(Kind::Array);
    object->elements = std::move(elements);
    return Value(std::move(object));
}

Value Value::mutableArray(std::vector<Value> elements) {
    auto object = makeObject(Kind::Array);
    object->isMutable = true;
    object->elements = std::move(elements);
    return Value(std::move(object));
}

Value Value::dictionary(std::map<std::string, Value> entries) {
    auto object = makeObject(Kind::Dictionary);
    object->entries = std::move(entries);
    return Value(std::move(object));
}

Value Value::mutableDictionary(std::map<std::string, Value> entries) {
    auto object = makeObject(Kind::Dictionary);
    object->isMutable = true;
    object->entries = std::move(entries);
    return Value(std::move(object));
}

Value Value::data(std::vector<std::uint8_t> bytes) {
    auto object = makeObject(Kind::Data);
    object->bytes = std::move(bytes);
    return Value(std::move(object));
}

Value Value::date(double secondsSince1970) {
    auto object = makeObject(Kind::Date);
    object->doubleNumber = secondsSince1970;
    return Value(std::move(object));
}

Value Value::uid(std::uint32_t value) {
    auto object = makeObject(Kind::UID);
    object->unsignedNumber = value;
    return Value(std::move(object));
}

Value::Kind Value::kind() const {
    return object_ ? object_->kind : Kind::Nil;
}

bool Value::isMutableArray() const {
    return isArray() && object_->isMutable;
}

bool Value::isMutableDictionary() const {
    return isDictionary() && object_->isMutable;
}

bool Value::isEqual(const Value& other) const {
    if (!object_ || !other.object_) return false;
    if (object_ == other.object_) return true;
    if (object_->kind != other.object_->kind) return false;
    switch (object_->kind) {
        case Kind::Nil:
            return false;
        case Kind::String:
            return object_->text == other.object_->text;
        case Kind::Number:
            return compareNumbers(*object_, *other.object_) == std::partial_ordering::equivalent;
        case Kind::Array: {
            const auto& a = object_->elements;
            const auto& b = other.object_->elements;
            if (a.size() != b.size()) return false;
            for (std::size_t i = 0; i < a.size(); ++i) {
                if (!a[i].isEqual(b[i])) return false;
            }
            return true;
        }
        case Kind::Dictionary: {
            const auto& a = object_->entries;
            const auto& b = other.object_->entries;
            if (a.size() != b.size()) return false;
            for (auto ia = a.begin(), ib = b.begin(); ia != a.end(); ++ia, ++ib) {
                if (ia->first != ib->first || !ia->second.isEqual(ib->second)) return false;
            }
            return true;
        }
        case Kind::Data:
            return object_->bytes == other.object_->bytes;
        case Kind::Date:
            return object_->doubleNumber == other.object_->doubleNumber;
        case Kind::UID:
            return object_->unsignedNumber == other.object_->unsignedNumber;
    }
    return false;
}

const std::string& Value::stringValue() const {
    return isString() ? object_->text : kEmptyString;
}

std::size_t Value::length() const {
    return isString() ? utf16Length(object_->text) : 0;
}

Value::NumberType Value::numberType() const {
    return isNumber() ? object_->numberType : NumberType::Integer;
}

std::size_t Value::count() const {
    if (isArray()) return object_->elements.size();
    if (isDictionary()) return object_->entries.size();
    return 0;
}

const Value& Value::objectAtIndex(std::size_t index) const {
    if (!isArray() || index >= object_->elements.size()) return kNil;
    return object_->elements[index];
}

const std::vector<Value>& Value::elements() const {
    return isArray() ? object_->elements : kNoElements;
}

bool Value::containsObject(const Value& value) const {
    for (const auto& element : elements()) {
        if (element.isEqual(value)) return true;
    }
    return false;
}

void Value::addObject(Value value) {
    if (!isMutableArray() || value.isNil()) return;
    object_->elements.push_back(std::move(value));
}

void Value::addObjectsFromArray(const Value& array) {
    if (!isMutableArray() || !array.isArray()) return;
    // Copy first: the array may be this very array.
    std::vector<Value> added = array.elements();
    object_->elements.insert(object_->elements.end(), added.begin(), added.end());
}

void Value::removeLastObject() {
    if (isMutableArray() && !object_->elements.empty()) object_->elements.pop_back();
}

const std::map<std::string, Value>& Value::entries() const {
    return isDictionary() ? object_->entries : kNoEntries;
}

Value Value::objectForKey(std::string_view key) const {
    if (!isDictionary()) return {};
    auto found = object_->entries.find(std::string(key));
    return found == object_->entries.end() ? Value() : found->second;
}

void Value::setObjectForKey(Value value, const std::string& key) {
    if (!isMutableDictionary()) return;
    if (value.isNil()) {
        object_->entries.erase(key);
    } else {
        object_->entries.insert_or_assign(key, std::move(value));
    }
}

void Value::removeObjectForKey(const std::string& key) {
    if (isMutableDictionary()) object_->entries.erase(key);
}

void Value::removeAllObjects() {
    if (isMutableDictionary()) object_->entries.clear();
    if (isMutableArray()) object_->elements.clear();
}

const std::vector<std::uint8_t>& Value::bytes() const {
    return isData() ? object_->bytes : kNoBytes;
}

double Value::secondsSince1970() const {
    return isDate() ? object_->doubleNumber : 0.0;
}

std::uint32_t Value::uidValue() const {
    return isUID() ? static_cast<std::uint32_t>(object_->unsignedNumber) : 0;
}

std::string describe(const std::optional<std::string>& text) {
    return text ? *text : std::string(kNilDescription);
}

}  // namespace cli
