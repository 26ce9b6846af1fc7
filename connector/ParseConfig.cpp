#include "connector/OVConnectorIKEv2.h"

#include "log/DDLog.h"
#include "platform/Utf8.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

std::string trim(std::string_view text) {
    constexpr std::string_view kTrimmed = " \t\"'";
    const auto first = text.find_first_not_of(kTrimmed);
    if (first == std::string_view::npos) {
        return "";
    }
    const auto last = text.find_last_not_of(kTrimmed);
    return std::string(text.substr(first, last - first + 1));
}

// The file holds the password: no copy of it is left behind in memory.
void wipe(void* data, std::size_t size) {
    volatile unsigned char* bytes = static_cast<volatile unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = 0;
    }
}

void wipe(std::string& text) {
    text.resize(text.capacity());
    wipe(text.data(), text.size());
    text.clear();
}

// Appends to `bytes`, wiping the old buffer when it has to grow.
void appendWiping(std::string& bytes, const char* data, std::size_t size) {
    if (bytes.size() + size > bytes.capacity()) {
        std::string larger;
        larger.reserve(std::max(2 * bytes.capacity(), bytes.size() + size));
        larger.append(bytes);
        wipe(bytes);
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
    wipe(chunk, sizeof chunk);
    return !tooLarge;
}

}  // namespace

std::optional<std::map<std::string, std::string>> ParseConfig(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        DDLogError("parse_config {}: {}", path, std::strerror(error));
        return std::nullopt;
    }
    std::string bytes;
    const bool whole = readBounded(fd, bytes, kMaxConfigFileSize);
    ::close(fd);
    if (!whole) {
        wipe(bytes);
        DDLogError("parse_config {}: {}", path, std::strerror(EFBIG));
        return std::nullopt;
    }
    std::map<std::string, std::string> config;
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
        config[trim(key)] = trim(value);
    }
    wipe(line, sizeof line);
    wipe(bytes);
    return config;
}
