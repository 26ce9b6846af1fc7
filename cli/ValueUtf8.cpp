// UTF-8 decoding and UTF-16 counting for the object model.

#include "cli/ValueUtf8.h"
#include "cli/Value.h"

namespace cli {

namespace utf8 {

CodePoint decode(std::string_view text, std::size_t pos) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const CodePoint invalid{U'\uFFFD', 1, false};
    const unsigned char lead = byte(pos);
    if (lead < 0x80) return {lead, 1, true};
    std::size_t length = 0;
    char32_t value = 0;
    char32_t minimum = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        value = lead & 0x1F;
        minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        value = lead & 0x0F;
        minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        value = lead & 0x07;
        minimum = 0x10000;
    } else {
        return invalid;
    }
    if (pos + length > text.size()) return invalid;
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned char next = byte(pos + i);
        if ((next & 0xC0) != 0x80) return invalid;
        value = (value << 6) | (next & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
        return invalid;
    }
    return {value, length, true};
}

std::u16string toUTF16(std::string_view text) {
    std::u16string units;
    units.reserve(text.size());
    for (std::size_t pos = 0; pos < text.size();) {
        const CodePoint cp = decode(text, pos);
        pos += cp.length;
        if (cp.value >= 0x10000) {
            const char32_t v = cp.value - 0x10000;
            units.push_back(static_cast<char16_t>(0xD800 + (v >> 10)));
            units.push_back(static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
        } else {
            units.push_back(static_cast<char16_t>(cp.value));
        }
    }
    return units;
}

}  // namespace utf8

std::size_t utf16Length(std::string_view text) {
    std::size_t units = 0;
    for (std::size_t pos = 0; pos < text.size();) {
        const utf8::CodePoint cp = utf8::decode(text, pos);
        pos += cp.length;
        units += cp.value >= 0x10000 ? 2 : 1;
    }
    return units;
}

bool isValidUTF8(std::string_view bytes) {
    for (std::size_t pos = 0; pos < bytes.size();) {
        const utf8::CodePoint cp = utf8::decode(bytes, pos);
        if (!cp.valid) return false;
        pos += cp.length;
    }
    return true;
}

}  // namespace cli
