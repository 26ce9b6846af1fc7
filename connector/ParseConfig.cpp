#include "connector/OVConnectorIKEv2.h"

#include "log/DDLog.h"

#include <cerrno>
#include <cstdio>
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
        if (!isValidUTF8(key) || !isValidUTF8(value)) {
            continue;
        }
        config[trim(key)] = trim(value);
    }
    std::fclose(file);
    return config;
}
