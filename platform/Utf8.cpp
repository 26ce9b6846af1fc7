#include "platform/Utf8.h"

#include <cstdint>

namespace platform {

bool isValidUTF8(std::string_view text) {
    return utf16FromUTF8(text, nullptr).has_value();
}

std::optional<std::size_t> utf16FromUTF8(std::string_view text, std::uint16_t* out) {
    std::size_t units = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        std::uint32_t codePoint = 0;
        if (byte < 0x80) {
            if (out != nullptr) {
                out[units] = byte;
            }
            ++units;
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
            return std::nullopt;
        }
        if (i + length > text.size()) {
            return std::nullopt;
        }
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return std::nullopt;
            }
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        const std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (codePoint < smallest[length] || codePoint > 0x10FFFF ||
            (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return std::nullopt;
        }
        if (codePoint < 0x10000) {
            if (out != nullptr) {
                out[units] = static_cast<std::uint16_t>(codePoint);
            }
            ++units;
        } else {
            if (out != nullptr) {
                out[units] = static_cast<std::uint16_t>(0xD800 + ((codePoint - 0x10000) >> 10));
                out[units + 1] = static_cast<std::uint16_t>(0xDC00 + (codePoint & 0x3FF));
            }
            units += 2;
        }
        i += length;
    }
    return units;
}

}  // namespace platform
