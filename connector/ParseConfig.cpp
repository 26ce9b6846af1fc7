#include "connector/OVConnectorIKEv2.h"

#include "log/DDLog.h"
#include "os/Memory.h"
#include "platform/Utf8.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

using platform::Secret;

namespace {

std::string_view trim(std::string_view text) {
    constexpr std::string_view kTrimmed = " \t\"'";
    const auto first = text.find_first_not_of(kTrimmed);
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(kTrimmed);
    return text.substr(first, last - first + 1);
}

// The file holds the password: every buffer its bytes pass through is wiped.
// Appends to `bytes`, wiping the old buffer when it has to grow.
void appendWiping(std::string& bytes, const char* data, std::size_t size) {
    if (bytes.size() + size > bytes.capacity()) {
        std::string larger;
        larger.reserve(std::max(2 * bytes.capacity(), bytes.size() + size));
        larger.append(bytes);
        os::wipeString(bytes);
        bytes.swap(larger);
    }
    bytes.append(data, size);
}

// Reads at most `limit` bytes into `bytes`; false when the file holds more.
bool readBounded(int fd, std::string& bytes, std::size_t limit) {
    char chunk[8192];
    bool tooLarge = false;
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        // A read error ends the file, as it ends a line-by-line read.
        if (n <= 0) {
            break;
        }
        appendWiping(bytes, chunk, static_cast<std::size_t>(n));
        if (bytes.size() > limit) {
            tooLarge = true;
            break;
        }
    }
    os::wipeMemory(chunk, sizeof chunk);
    return !tooLarge;
}

}  // namespace

ConfigDictionary ParseConfigText(std::string_view bytes) {
    ConfigDictionary config;
    // One line is what one fgets() into 256 bytes gives: up to and
    // including a line feed, at most 255 bytes.
    char line[256] = {};
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::size_t end = bytes.find('\n', at);
        const std::size_t size =
            std::min<std::size_t>((end == std::string::npos ? bytes.size() : end + 1) - at, 255);
        std::memcpy(line, bytes.data() + at, size);
        line[size] = '\0';
        at += size;
        const char* key = std::strtok(line, "=");
        if (key == nullptr) {
            continue;
        }
        const char* value = std::strtok(nullptr, "\n");
        if (value == nullptr) {
            continue;
        }
        if (!platform::isValidUTF8(key) || !platform::isValidUTF8(value)) {
            continue;
        }
        const std::string_view trimmedKey = trim(key);
        if (const auto found = config.find(trimmedKey); found != config.end()) {
            found->second = Secret(trim(value));
        } else {
            config.emplace(Secret(trimmedKey), Secret(trim(value)));
        }
    }
    os::wipeMemory(line, sizeof line);
    return config;
}

ConfigFile OpenConfigFile(const std::string& path) {
    ConfigFile file{os::FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC))};
    if (!file.descriptor.valid()) {
        file.openError = errno;
    }
    return file;
}

std::optional<ConfigDictionary> ParseConfig(ConfigFile file, const std::string& path) {
    if (!file.descriptor.valid()) {
        DDLogError("parse_config {}: {}", path, std::strerror(file.openError));
        return std::nullopt;
    }
    std::string bytes;
    const bool whole = readBounded(file.descriptor.get(), bytes, kMaxConfigFileSize);
    file.descriptor = os::FileDescriptor();
    std::optional<ConfigDictionary> config;
    if (whole) {
        config = ParseConfigText(bytes);
    }
    os::wipeString(bytes);
    if (!whole) {
        DDLogError("parse_config {}: {}", path, std::strerror(EFBIG));
    }
    return config;
}

std::optional<ConfigDictionary> ParseConfig(const std::string& path) {
    return ParseConfig(OpenConfigFile(path), path);
}
