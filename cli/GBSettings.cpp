#include "cli/GBSettings.h"

#include <utility>

namespace cli {

GBSettings::GBSettings(std::optional<std::string> name, GBSettingsRef parent)
    : name_(std::move(name)),
      parent_(std::move(parent)),
      arrayKeys_(std::set<std::string>()),
      storage_(Value::mutableDictionary()) {
    registerArrayForKey(GBSettingsArgumentsKey);
}

GBSettingsRef GBSettings::settingsWithName(std::optional<std::string> name, GBSettingsRef parent) {
    return std::make_shared<GBSettings>(std::move(name), std::move(parent));
}

Value GBSettings::objectForKey(const std::string& key) const {
    if (isKeyArray(key)) {
        // Every level's items, nearest first; no level hides another's.
        Value merged = Value::mutableArray();
        for (const GBSettings* level = this; level; level = level->parent_.get()) {
            const Value local = level->objectForLocalKey(key);
            if (local.isArray()) {
                merged.addObjectsFromArray(local);
            } else {
                merged.addObject(local);  // only reachable by a caller's mistake
            }
        }
        return merged;
    }
    for (const GBSettings* level = this; level; level = level->parent_.get()) {
        if (level->isKeyPresentAtThisLevel(key)) return level->objectForLocalKey(key);
    }
    return {};
}

void GBSettings::setObject(const Value& value, const std::string& key) {
    if (value.isNil()) return;
    if (!isKeyArray(key)) {
        setObjectForLocalKey(value, key);
        return;
    }
    Value items = objectForLocalKey(key);
    if (!items.isMutableArray()) {
        // A previous value of any kind, an immutable array included, becomes
        // one element of the new list: it is nested, not flattened.
        const Value previous = items;
        items = Value::mutableArray();
        items.addObject(previous);
        setObjectForLocalKey(items, key);
    }
    if (value.isArray()) {
        items.addObjectsFromArray(value);
    } else {
        items.addObject(value);
    }
}

Value GBSettings::objectForLocalKey(const std::string& key) const {
    return storage_.objectForKey(key);
}

void GBSettings::setObjectForLocalKey(const Value& value, const std::string& key) {
    // Nil is never stored; a storage-less level drops every write.
    if (value.isNil()) return;
    storage_.setObjectForKey(value, key);
}

bool GBSettings::isKeyPresentAtThisLevel(const std::string& key) const {
    return !objectForLocalKey(key).isNil();
}

void GBSettings::registerArrayForKey(const std::string& key) {
    if (arrayKeys_) arrayKeys_->insert(key);
}

bool GBSettings::isKeyArray(const std::string& key) const {
    return arrayKeys_ && arrayKeys_->count(key) > 0;
}

bool GBSettings::boolForKey(const std::string& key) const {
    return objectForKey(key).boolValue();
}

void GBSettings::setBool(bool value, const std::string& key) {
    setObject(Value::numberWithBool(value), key);
}

std::int64_t GBSettings::integerForKey(const std::string& key) const {
    return objectForKey(key).integerValue();
}

void GBSettings::setInteger(std::int64_t value, const std::string& key) {
    setObject(Value::numberWithInteger(value), key);
}

std::uint64_t GBSettings::unsignedIntegerForKey(const std::string& key) const {
    // The signed conversion, reinterpreted: "-1" reads as the all-ones value.
    return static_cast<std::uint64_t>(objectForKey(key).integerValue());
}

void GBSettings::setUnsignedInteger(std::uint64_t value, const std::string& key) {
    setObject(Value::numberWithUnsignedInteger(value), key);
}

double GBSettings::floatForKey(const std::string& key) const {
    return objectForKey(key).doubleValue();
}

void GBSettings::setFloat(double value, const std::string& key) {
    setObject(Value::numberWithDouble(value), key);
}

void GBSettings::addArgument(const Value& argument) {
    setObject(argument, GBSettingsArgumentsKey);
}

Value GBSettings::arguments() const {
    return objectForKey(GBSettingsArgumentsKey);
}

void GBSettings::setArguments(const Value& arguments) {
    setObject(arguments, GBSettingsArgumentsKey);
}

GBSettings* GBSettings::settingsForArgument(const Value& argument) {
    return settingsForArrayValue(argument, GBSettingsArgumentsKey);
}

void GBSettings::enumerateSettings(
    const std::function<void(GBSettings& level, bool* stop)>& block) {
    bool stop = false;
    for (GBSettings* level = this; level; level = level->parent_.get()) {
        block(*level, &stop);
        if (stop) return;
    }
}

GBSettings* GBSettings::settingsForKey(const std::string& key) {
    GBSettings* found = nullptr;
    enumerateSettings([&](GBSettings& level, bool* stop) {
        if (level.isKeyPresentAtThisLevel(key)) {
            found = &level;
            *stop = true;
        }
    });
    return found;
}

GBSettings* GBSettings::settingsForArrayValue(const Value& value, const std::string& key) {
    GBSettings* found = nullptr;
    enumerateSettings([&](GBSettings& level, bool* stop) {
        if (level.objectForLocalKey(key).containsObject(value)) {
            found = &level;
            *stop = true;
        }
    });
    return found;
}

}  // namespace cli
