#include "connector/OVConnectorIKEv2.h"

#include "log/DDLog.h"
#include "platform/Utf8.h"

#include <cerrno>
#include <cstdio>
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

}  // namespace

std::optional<std::map<std::string, std::string>> ParseConfig(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        const int error = errno;
        DDLogError("parse_config {}: {}", path, std::strerror(error));
        return std::nullopt;
    }
    std::map<std::string, std::string> config;
    char line[256] = {};
    while (std::fgets(line, sizeof line, file) != nullptr) {
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
    std::fclose(file);
    return config;
}
