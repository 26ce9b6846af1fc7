#include "connector/OVConnectorIKEv2.h"

#include "log/DDLog.h"
#include "os/Memory.h"
#include "platform/Utf8.h"

#include <cerrno>
#include <cstdio>
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

// The file's bytes pass through stdio's buffer and the line buffer: both are
// ours, and both are wiped once the file is closed, as is the stack that the
// C library's reading and splitting used.
struct ReadBuffers {
    char stream[BUFSIZ] = {};
    char line[256] = {};

    ReadBuffers() = default;
    ~ReadBuffers() { os::wipeMemory(this, sizeof *this); }
    ReadBuffers(const ReadBuffers&) = delete;
    ReadBuffers& operator=(const ReadBuffers&) = delete;
};

}  // namespace

std::optional<ConfigDictionary> ParseConfig(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        const int error = errno;
        DDLogError("parse_config {}: {}", path, std::strerror(error));
        return std::nullopt;
    }
    ReadBuffers buffers;
    std::setvbuf(file, buffers.stream, _IOFBF, sizeof buffers.stream);
    ConfigDictionary config;
    char* const line = buffers.line;
    while (std::fgets(line, sizeof buffers.line, file) != nullptr) {
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
    std::fclose(file);
    platform::wipeScratch();
    return config;
}
