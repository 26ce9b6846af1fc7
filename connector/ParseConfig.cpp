#include "connector/OVConnectorIKEv2.h"

#include "log/DDLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// The strict UTF-8 test of a string conversion: no overlong forms, no
// surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        std::uint32_t codePoint = 0;
        if (byte < 0x80) {
            ++i;
            continue;
        } else if ((byte & 0xE0) == 0xC0) {
            length = 2;
            codePoint = byte & 0x1F;
        } else if ((byte & 0xF0) == 0xE0) {
            length = 3;
            codePoint = byte & 0x0F;
        } else if ((byte & 0xF8) == 0xF0) {
            length = 4;
            codePoint = byte & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        const std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (codePoint < smallest[length] || codePoint > 0x10FFFF ||
            (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

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
        if (!isValidUTF8(key) || !isValidUTF8(value)) {
            continue;
        }
        config[trim(key)] = trim(value);
    }
    wipe(line, sizeof line);
    wipe(bytes);
    return config;
}
