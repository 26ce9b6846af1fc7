// Any bytes, loaded as a settings file that our writer did not produce:
// either the load fails with an error and leaves the level as it was, or
// the property list it read, written by our writer and read again, is the
// same list. "The same" allows for what the XML form cannot say: dates lose
// their fractions of a second, and a date beyond the form's range cannot be
// written at all.

#include "cli/GBSettings.h"
#include "cli/plist/PropertyList.h"

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

namespace {

using cli::Value;

// One file for every input, in a folder of its own removed at exit; in
// memory where the system has a place for it, since the file is rewritten
// for every input.
const std::string& inputPath() {
    static const std::string path = [] {
        static std::string folder =
            std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") +
            "/property-list-fuzz-XXXXXX";
        if (!mkdtemp(folder.data())) std::abort();
        std::atexit([] {
            std::remove((folder + "/input.plist").c_str());
            rmdir(folder.c_str());
        });
        return folder + "/input.plist";
    }();
    return path;
}

bool isWritableDate(double seconds) {
    return std::isfinite(seconds) && std::fabs(seconds) <= cli::kPropertyListDateLimit;
}

bool holdsUnwritableDate(const Value& value) {
    if (value.isDate()) return !isWritableDate(value.secondsSince1970());
    for (const Value& element : value.elements()) {
        if (holdsUnwritableDate(element)) return true;
    }
    for (const auto& entry : value.entries()) {
        if (holdsUnwritableDate(entry.second)) return true;
    }
    return false;
}

bool isIntegerType(Value::NumberType type) {
    return type != Value::NumberType::Bool && type != Value::NumberType::Double;
}

// `read` is what the XML form of `original` reads back as.
bool sameList(const Value& original, const Value& read) {
    if (original.kind() != read.kind()) return false;
    switch (original.kind()) {
        case Value::Kind::Number: {
            const Value::NumberType a = original.numberType();
            const Value::NumberType b = read.numberType();
            if (isIntegerType(a) && isIntegerType(b)) return original.isEqual(read);
            if (a != b) return false;
            if (a == Value::NumberType::Bool) return original.boolValue() == read.boolValue();
            return (std::isnan(original.doubleValue()) && std::isnan(read.doubleValue())) ||
                   original.doubleValue() == read.doubleValue();
        }
        case Value::Kind::Date:
            return std::floor(original.secondsSince1970()) == read.secondsSince1970();
        case Value::Kind::Array:
            if (original.count() != read.count()) return false;
            for (std::size_t i = 0; i < original.count(); ++i) {
                if (!sameList(original.objectAtIndex(i), read.objectAtIndex(i))) return false;
            }
            return true;
        case Value::Kind::Dictionary:
            if (original.count() != read.count()) return false;
            for (const auto& [key, value] : original.entries()) {
                if (!sameList(value, read.objectForKey(key))) return false;
            }
            return true;
        default:
            return original.isEqual(read);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::ofstream(inputPath(), std::ios::binary | std::ios::trunc).write(bytes.data(), size);

    auto level = cli::GBSettings::settingsWithName(std::string("Fuzz"), nullptr);
    level->setObject(Value("old"), "previous");
    const Value before = Value::dictionary(level->storage().entries());
    std::optional<cli::NSError> error;
    if (!level->loadSettingsFromPlist(inputPath(), &error)) {
        if (!error || !level->storage().isEqual(before)) std::abort();
        return 0;
    }

    std::optional<cli::NSError> readError;
    const Value root = cli::propertyListFromData(bytes, &readError);
    if (!root.isDictionary()) std::abort();  // the level took what the reader refuses
    std::optional<cli::NSError> writeError;
    const std::optional<std::string> xml = cli::xmlDataFromPropertyList(root, &writeError);
    if (!xml) {
        if (!holdsUnwritableDate(root)) std::abort();  // a list read is a list we write
        return 0;
    }
    const Value again = cli::propertyListFromData(*xml, &readError);
    if (!sameList(root, again)) std::abort();
    return 0;
}
