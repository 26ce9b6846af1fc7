// Property-list files of a settings level: its own storage only.

#include "cli/GBSettings.h"
#include "cli/PropertyList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

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

bool readFile(const std::string& path, std::string& bytes, int& number) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        number = errno;
        return false;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) {
        number = S_ISDIR(info.st_mode) ? EISDIR : errno;
        ::close(fd);
        return false;
    }
    // libplist takes 32-bit lengths.
    if (info.st_size > static_cast<off_t>(std::numeric_limits<std::uint32_t>::max())) {
        number = EFBIG;
        ::close(fd);
        return false;
    }
    bytes.clear();
    bytes.reserve(static_cast<std::size_t>(info.st_size));
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            number = errno;
            ::close(fd);
            return false;
        }
        if (got == 0) break;
        bytes.append(buffer, static_cast<std::size_t>(got));
        if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
            number = EFBIG;
            ::close(fd);
            return false;
        }
    }
    ::close(fd);
    return true;
}

// Creates a new file named `path` plus a dot and six random letters. Made
// with O_EXCL and mode 0666, so the system applies the umask as for any new
// file, and an existing file or symbolic link of that name is never opened.
int createTemporaryBeside(const std::string& path, std::string& temporary) {
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    static std::atomic<std::uint64_t> counter{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::uint64_t bits = static_cast<std::uint64_t>(
                                 std::chrono::steady_clock::now().time_since_epoch().count()) ^
                             (static_cast<std::uint64_t>(::getpid()) << 40) ^
                             (++counter * 0x9E3779B97F4A7C15ull);
        bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9ull;
        bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EBull;
        bits ^= bits >> 31;
        temporary = path + ".";
        for (int i = 0; i < 6; ++i, bits /= 62) temporary += kLetters[bits % 62];
        const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

// Writes to a new file beside the target, flushes it to disk, then renames
// it over the target, so readers see the old file or the new one, whole.
bool writeFileAtomically(const std::string& path, const std::string& bytes, int& number) {
    std::string temporary;
    const int fd = createTemporaryBeside(path, temporary);
    if (fd < 0) {
        number = errno;
        return false;
    }
    auto abandon = [&] {
        number = errno;
        ::close(fd);
        ::unlink(temporary.c_str());
        return false;
    };
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t put = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return abandon();
        written += static_cast<std::size_t>(put);
    }
    if (::fsync(fd) != 0) return abandon();
    if (::close(fd) != 0) {
        number = errno;
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        number = errno;
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

std::string withoutLeadingDashes(const std::string& key) {
    const std::size_t first = key.find_first_not_of('-');
    return first == std::string::npos ? std::string() : key.substr(first);
}

}  // namespace

bool GBSettings::loadSettingsFromPlist(const std::string& path, std::optional<NSError>* error) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return false;

    std::string bytes;
    int number = 0;
    if (!readFile(path, bytes, number)) {
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
    int number = 0;
    if (!writeFileAtomically(path, *xml, number)) {
        setFileError(error, false, number, path);
        return false;
    }
    return true;
}

}  // namespace cli
