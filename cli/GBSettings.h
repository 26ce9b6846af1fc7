#pragma once

// One level of the layered settings store: a named dictionary of values
// with an optional parent level. A lookup that misses here continues in the
// parent, so the level nearest to the caller wins. Array keys accumulate:
// writes append, and a read merges every level's items, nearest first.
// Positional arguments are kept under GBSettingsArgumentsKey, an array key
// on every level.

#include "cli/Value.h"

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace cli {

inline constexpr const char* GBSettingsArgumentsKey = "B450A340-EC4F-40EC-B18D-B52DB881A16A";

class GBSettings;
using GBSettingsRef = std::shared_ptr<GBSettings>;

class GBSettings {
  public:
    // A level without name, parent or storage (the plain initialiser): every
    // write to it is lost and every read finds nothing.
    GBSettings() = default;
    // A level with storage; registers GBSettingsArgumentsKey as an array key.
    GBSettings(std::optional<std::string> name, GBSettingsRef parent);

    static GBSettingsRef settingsWithName(std::optional<std::string> name, GBSettingsRef parent);

    const std::optional<std::string>& name() const { return name_; }
    const GBSettingsRef& parent() const { return parent_; }
    // This level's own values; nil for a storage-less level.
    const Value& storage() const { return storage_; }

    // Hierarchical lookup; for an array key the merged items of every level.
    Value objectForKey(const std::string& key) const;
    // Writes on this level only; appends for array keys.
    void setObject(const Value& value, const std::string& key);
    Value objectForLocalKey(const std::string& key) const;
    void setObjectForLocalKey(const Value& value, const std::string& key);
    bool isKeyPresentAtThisLevel(const std::string& key) const;
    void registerArrayForKey(const std::string& key);
    bool isKeyArray(const std::string& key) const;

    bool boolForKey(const std::string& key) const;
    void setBool(bool value, const std::string& key);
    std::int64_t integerForKey(const std::string& key) const;
    void setInteger(std::int64_t value, const std::string& key);
    std::uint64_t unsignedIntegerForKey(const std::string& key) const;
    void setUnsignedInteger(std::uint64_t value, const std::string& key);
    double floatForKey(const std::string& key) const;
    void setFloat(double value, const std::string& key);

    void addArgument(const Value& argument);
    // The merged arguments of this level and its ancestors; nil only on a
    // storage-less level.
    Value arguments() const;
    // Appends, like every write to an array key.
    void setArguments(const Value& arguments);
    GBSettings* settingsForArgument(const Value& argument);

    // Calls `block` for this level and then each ancestor, nearest first,
    // until the block sets *stop.
    void enumerateSettings(const std::function<void(GBSettings& level, bool* stop)>& block);
    // The nearest level, starting here, at which `key` is present.
    GBSettings* settingsForKey(const std::string& key);
    // The nearest level whose own array value for `key` contains `value`.
    GBSettings* settingsForArrayValue(const Value& value, const std::string& key);

    // Property-list files: this level's own storage only.
    bool loadSettingsFromPlist(const std::string& path, std::optional<NSError>* error);
    bool saveSettingsToPlist(const std::string& path, std::optional<NSError>* error) const;

  private:
    std::optional<std::string> name_;
    GBSettingsRef parent_;
    std::optional<std::set<std::string>> arrayKeys_;
    Value storage_;  // a mutable dictionary, nil on a storage-less level
};

}  // namespace cli
