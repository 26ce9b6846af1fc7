// Property-list files of a settings level: its own storage only.

#include "cli/GBSettings.h"
#include "cli/plist/PropertyList.h"
#include "os/File.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>

namespace cli {

namespace {

// Foundation's file error codes.
constexpr std::int64_t kFileNoSuchFileError = 4;
constexpr std::int64_t kFileReadUnknownError = 256;
constexpr std::int64_t kFileReadNoPermissionError = 257;
constexpr std::int64_t kFileReadTooLargeError = 263;
constexpr std::int64_t kFileWriteUnknownError = 512;
constexpr std::int64_t kFileWriteNoPermissionError = 513;
constexpr std::int64_t kFileWriteOutOfSpaceError = 640;
constexpr std::int64_t kFileWriteVolumeReadOnlyError = 642;

void setFileError(std::optional<NSError>* error, bool reading, int number,
                  const std::string& path) {
    if (!error) return;
    std::int64_t code = reading ? kFileReadUnknownError : kFileWriteUnknownError;
    if (number == EACCES || number == EPERM) {
        code = reading ? kFileReadNoPermissionError : kFileWriteNoPermissionError;
    } else if (number == ENOENT || number == ENOTDIR) {
        code = kFileNoSuchFileError;
    } else if (!reading && (number == ENOSPC || number == EDQUOT)) {
        code = kFileWriteOutOfSpaceError;
    } else if (!reading && number == EROFS) {
        code = kFileWriteVolumeReadOnlyError;
    } else if (reading && number == EFBIG) {
        code = kFileReadTooLargeError;
    }
    *error = NSError{kCocoaErrorDomain, code,
                     std::string("The file \xE2\x80\x9C") + path +
                         "\xE2\x80\x9D couldn\xE2\x80\x99t be " + (reading ? "opened" : "saved") +
                         ". (" + std::strerror(number) + ")"};
}

// libplist takes 32-bit lengths.
constexpr std::size_t kMaxFileSize = std::numeric_limits<std::uint32_t>::max();

std::string withoutLeadingDashes(const std::string& key) {
    const std::size_t first = key.find_first_not_of('-');
    return first == std::string::npos ? std::string() : key.substr(first);
}

}  // namespace

bool GBSettings::loadSettingsFromPlist(const std::string& path, std::optional<NSError>* error) {
    const os::FileDescriptor file = os::openForReading(path, os::FinalLink::follow);
    std::string bytes;
    const int number = file.valid() ? os::readBounded(file.get(), kMaxFileSize, bytes) : errno;
    if (number != 0) {
        // Only a path that names nothing at all is a missing file, which is
        // no error; one that exists but cannot be opened is.
        struct stat info {};
        if (!file.valid() && ::stat(path.c_str(), &info) != 0) return false;
        setFileError(error, true, number, path);
        return false;
    }
    const Value root = propertyListFromData(bytes, error);
    if (root.isNil()) return false;
    if (!root.isDictionary()) {
        if (error) {
            *error = NSError{kCocoaErrorDomain, kPropertyListReadCorruptError,
                             "The data couldn\xE2\x80\x99t be read because it isn\xE2\x80\x99t in "
                             "the correct format. (the root object is not a dictionary)"};
        }
        return false;
    }

    storage_.removeAllObjects();
    auto apply = [this](const std::string& key, const Value& value) {
        setObject(value, withoutLeadingDashes(key));
    };
    for (const auto& [key, value] : root.entries()) {
        if (value.isDictionary()) {
            // A group: its entries stand at the root; only one level unfolds.
            for (const auto& [innerKey, innerValue] : value.entries()) apply(innerKey, innerValue);
        } else {
            apply(key, value);
        }
    }
    return true;
}

bool GBSettings::saveSettingsToPlist(const std::string& path, std::optional<NSError>* error) const {
    const std::optional<std::string> xml = xmlDataFromPropertyList(storage_, error);
    if (!xml) return false;
    const os::WriteFailure failure = os::writeFileAtomically(path, *xml);
    if (failure) {
        setFileError(error, false, failure.number, path);
        return false;
    }
    return true;
}

}  // namespace cli
