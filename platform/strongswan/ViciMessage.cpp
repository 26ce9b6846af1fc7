#include "platform/strongswan/ViciMessage.h"

#include "os/Memory.h"

#include <fmt/format.h>

#include <utility>

namespace platform::strongswan {

ViciSection& ViciSection::add(std::string name, std::string value) {
    ViciEntry entry;
    entry.kind = ViciEntry::Kind::Value;
    entry.name = std::move(name);
    entry.value = std::move(value);
    entries_.push_back(std::move(entry));
    return *this;
}

ViciSection& ViciSection::addList(std::string name, std::vector<std::string> items) {
    ViciEntry entry;
    entry.kind = ViciEntry::Kind::List;
    entry.name = std::move(name);
    entry.items = std::move(items);
    entries_.push_back(std::move(entry));
    return *this;
}

ViciSection& ViciSection::addSection(std::string name) {
    ViciEntry entry;
    entry.kind = ViciEntry::Kind::Section;
    entry.name = std::move(name);
    entries_.push_back(std::move(entry));
    return entries_.back().section;
}

ViciSection& ViciSection::addSecret(std::string name, const Secret& secret) {
    ViciEntry& entry = entries_.emplace_back();
    entry.kind = ViciEntry::Kind::Value;
    entry.name = std::move(name);
    entry.value.assign(secret.view());
    return *this;
}

void ViciSection::wipe() {
    for (auto& entry : entries_) {
        os::wipeString(entry.name);
        os::wipeString(entry.value);
        for (auto& item : entry.items) {
            os::wipeString(item);
        }
        entry.section.wipe();
    }
    entries_.clear();
}

namespace {

const ViciEntry* findEntry(const std::vector<ViciEntry>& entries, std::string_view name,
                           ViciEntry::Kind kind) {
    for (const auto& entry : entries) {
        if (entry.kind == kind && entry.name == name) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

const std::string* ViciSection::value(std::string_view name) const {
    const ViciEntry* entry = findEntry(entries_, name, ViciEntry::Kind::Value);
    return entry != nullptr ? &entry->value : nullptr;
}

const std::vector<std::string>* ViciSection::list(std::string_view name) const {
    const ViciEntry* entry = findEntry(entries_, name, ViciEntry::Kind::List);
    return entry != nullptr ? &entry->items : nullptr;
}

const ViciSection* ViciSection::section(std::string_view name) const {
    const ViciEntry* entry = findEntry(entries_, name, ViciEntry::Kind::Section);
    return entry != nullptr ? &entry->section : nullptr;
}

std::string ViciSection::get(std::string_view name, std::string_view fallback) const {
    const std::string* found = value(name);
    return found != nullptr ? *found : std::string(fallback);
}

bool ViciSection::operator==(const ViciSection& other) const {
    return entries_ == other.entries_;
}

bool viciPacketHasName(ViciPacketType type) {
    return type == ViciPacketType::CmdRequest || type == ViciPacketType::EventRegister ||
           type == ViciPacketType::EventUnregister || type == ViciPacketType::Event;
}

bool viciPacketHasMessage(ViciPacketType type) {
    return type == ViciPacketType::CmdRequest || type == ViciPacketType::CmdResponse ||
           type == ViciPacketType::Event;
}

namespace {

Result<void> putName(std::string& out, std::string_view name) {
    if (name.size() > kViciMaxName) {
        return Error{fmt::format("name of {} bytes exceeds {} bytes", name.size(), kViciMaxName)};
    }
    out.push_back(static_cast<char>(name.size()));
    out.append(name);
    return {};
}

Result<void> putValue(std::string& out, std::string_view value) {
    if (value.size() > kViciMaxValue) {
        return Error{
            fmt::format("value of {} bytes exceeds {} bytes", value.size(), kViciMaxValue)};
    }
    out.push_back(static_cast<char>((value.size() >> 8) & 0xff));
    out.push_back(static_cast<char>(value.size() & 0xff));
    out.append(value);
    return {};
}

void putElement(std::string& out, ViciElement element) {
    out.push_back(static_cast<char>(element));
}

Result<void> encodeSection(const ViciSection& section, std::size_t depth, std::string& out) {
    if (depth > kViciMaxDepth) {
        return Error{fmt::format("sections nested deeper than {}", kViciMaxDepth)};
    }
    for (const auto& entry : section.entries()) {
        Result<void> put;
        switch (entry.kind) {
            case ViciEntry::Kind::Value:
                putElement(out, ViciElement::KeyValue);
                put = putName(out, entry.name);
                if (put) {
                    put = putValue(out, entry.value);
                }
                break;
            case ViciEntry::Kind::List:
                putElement(out, ViciElement::ListStart);
                put = putName(out, entry.name);
                for (auto item = entry.items.begin(); put && item != entry.items.end(); ++item) {
                    putElement(out, ViciElement::ListItem);
                    put = putValue(out, *item);
                }
                putElement(out, ViciElement::ListEnd);
                break;
            case ViciEntry::Kind::Section:
                putElement(out, ViciElement::SectionStart);
                put = putName(out, entry.name);
                if (put) {
                    put = encodeSection(entry.section, depth + 1, out);
                }
                putElement(out, ViciElement::SectionEnd);
                break;
        }
        if (!put) {
            return put;
        }
    }
    return {};
}

// Bounds-checked reader over one packet's bytes.
class Cursor {
  public:
    explicit Cursor(std::string_view bytes) : bytes_(bytes) {}
    bool atEnd() const { return pos_ >= bytes_.size(); }
    std::size_t position() const { return pos_; }
    bool byte(std::uint8_t& out) {
        if (atEnd()) {
            return false;
        }
        out = static_cast<std::uint8_t>(bytes_[pos_++]);
        return true;
    }
    bool name(std::string& out) {
        std::uint8_t length = 0;
        if (!byte(length) || bytes_.size() - pos_ < length) {
            return false;
        }
        out.assign(bytes_.substr(pos_, length));
        pos_ += length;
        return true;
    }
    bool value(std::string& out) {
        std::uint8_t high = 0;
        std::uint8_t low = 0;
        if (!byte(high) || !byte(low)) {
            return false;
        }
        std::size_t length = (std::size_t{high} << 8) | low;
        if (bytes_.size() - pos_ < length) {
            return false;
        }
        out.assign(bytes_.substr(pos_, length));
        pos_ += length;
        return true;
    }
    std::string_view rest() const { return bytes_.substr(pos_); }

  private:
    std::string_view bytes_;
    std::size_t pos_ = 0;
};

}  // namespace

std::size_t viciMessageSize(const ViciSection& message) {
    std::size_t size = 0;
    for (const auto& entry : message.entries()) {
        size += 2 + entry.name.size();
        switch (entry.kind) {
            case ViciEntry::Kind::Value:
                size += 2 + entry.value.size();
                break;
            case ViciEntry::Kind::List:
                for (const auto& item : entry.items) {
                    size += 3 + item.size();
                }
                size += 1;
                break;
            case ViciEntry::Kind::Section:
                size += viciMessageSize(entry.section) + 1;
                break;
        }
    }
    return size;
}

Result<void> encodeViciMessage(const ViciSection& message, std::string& out) {
    return encodeSection(message, 0, out);
}

namespace {

// The decoder proper: fills `message`, or stops at the first flaw.
Result<void> decodeMessage(std::string_view bytes, ViciSection& message) {
    message = ViciSection{};
    Cursor cursor(bytes);
    // The path of open sections; the root is always at the bottom.
    std::vector<ViciSection*> open{&message};
    std::vector<std::string>* openList = nullptr;
    while (!cursor.atEnd()) {
        std::size_t at = cursor.position();
        std::uint8_t type = 0;
        cursor.byte(type);
        std::string name;
        std::string value;
        switch (static_cast<ViciElement>(type)) {
            case ViciElement::SectionStart:
                if (openList != nullptr) {
                    return Error{fmt::format("section inside a list at offset {}", at)};
                }
                if (open.size() > kViciMaxDepth) {
                    return Error{fmt::format("sections nested deeper than {}", kViciMaxDepth)};
                }
                if (!cursor.name(name)) {
                    return Error{fmt::format("truncated section name at offset {}", at)};
                }
                open.push_back(&open.back()->addSection(std::move(name)));
                break;
            case ViciElement::SectionEnd:
                if (openList != nullptr) {
                    return Error{fmt::format("section end inside a list at offset {}", at)};
                }
                if (open.size() == 1) {
                    return Error{fmt::format("section end without a section at offset {}", at)};
                }
                open.pop_back();
                break;
            case ViciElement::KeyValue:
                if (openList != nullptr) {
                    return Error{fmt::format("key/value inside a list at offset {}", at)};
                }
                if (!cursor.name(name) || !cursor.value(value)) {
                    return Error{fmt::format("truncated key/value at offset {}", at)};
                }
                open.back()->add(std::move(name), std::move(value));
                break;
            case ViciElement::ListStart:
                if (openList != nullptr) {
                    return Error{fmt::format("list inside a list at offset {}", at)};
                }
                if (!cursor.name(name)) {
                    return Error{fmt::format("truncated list name at offset {}", at)};
                }
                open.back()->addList(std::move(name), {});
                openList = &open.back()->entries().back().items;
                break;
            case ViciElement::ListItem:
                if (openList == nullptr) {
                    return Error{fmt::format("list item outside a list at offset {}", at)};
                }
                if (!cursor.value(value)) {
                    return Error{fmt::format("truncated list item at offset {}", at)};
                }
                openList->push_back(std::move(value));
                break;
            case ViciElement::ListEnd:
                if (openList == nullptr) {
                    return Error{fmt::format("list end without a list at offset {}", at)};
                }
                openList = nullptr;
                break;
            default:
                return Error{fmt::format("unknown element type {} at offset {}", type, at)};
        }
    }
    if (openList != nullptr) {
        return Error{"unterminated list"};
    }
    if (open.size() != 1) {
        return Error{fmt::format("{} unterminated section(s)", open.size() - 1)};
    }
    return {};
}

}  // namespace

Result<ViciSection> decodeViciMessage(std::string_view bytes) {
    ViciSection message;
    if (Result<void> decoded = decodeMessage(bytes, message); !decoded) {
        return decoded.error();
    }
    return message;
}

namespace {

const ViciSection kEmptyMessage;

Result<void> appendPacket(ViciPacketType packetType, std::string_view name,
                          const ViciSection& message, std::string& out) {
    auto type = static_cast<std::uint8_t>(packetType);
    if (type > static_cast<std::uint8_t>(ViciPacketType::Event)) {
        return Error{fmt::format("unknown packet type {}", type)};
    }
    std::size_t start = out.size();
    out.push_back(static_cast<char>(type));
    if (viciPacketHasName(packetType)) {
        if (Result<void> put = putName(out, name); !put) {
            return put;
        }
    }
    if (viciPacketHasMessage(packetType)) {
        if (Result<void> put = encodeSection(message, 0, out); !put) {
            return put;
        }
    }
    if (out.size() - start > kViciMaxPacket) {
        return Error{
            fmt::format("packet of {} bytes exceeds {} bytes", out.size() - start, kViciMaxPacket)};
    }
    return {};
}

std::size_t packetSize(ViciPacketType type, std::string_view name, const ViciSection& message) {
    std::size_t size = 1;
    if (viciPacketHasName(type)) {
        size += 1 + name.size();
    }
    if (viciPacketHasMessage(type)) {
        size += viciMessageSize(message);
    }
    return size;
}

}  // namespace

Result<void> encodeViciPacket(const ViciPacket& packet, std::string& out) {
    os::wipeString(out);
    out.reserve(packetSize(packet.type, packet.name, packet.message));
    Result<void> appended = appendPacket(packet.type, packet.name, packet.message, out);
    if (!appended) {
        os::wipeString(out);
    }
    return appended;
}

Result<ViciPacket> decodeViciPacket(std::string_view bytes) {
    if (bytes.size() > kViciMaxPacket) {
        return Error{
            fmt::format("packet of {} bytes exceeds {} bytes", bytes.size(), kViciMaxPacket)};
    }
    ViciPacket packet;
    Cursor cursor(bytes);
    std::uint8_t type = 0;
    if (!cursor.byte(type)) {
        return Error{"empty packet"};
    }
    if (type > static_cast<std::uint8_t>(ViciPacketType::Event)) {
        return Error{fmt::format("unknown packet type {}", type)};
    }
    packet.type = static_cast<ViciPacketType>(type);
    if (viciPacketHasName(packet.type) && !cursor.name(packet.name)) {
        return Error{"truncated packet name"};
    }
    if (viciPacketHasMessage(packet.type)) {
        if (Result<void> decoded = decodeMessage(cursor.rest(), packet.message); !decoded) {
            return decoded.error();
        }
        return packet;
    }
    if (!cursor.atEnd()) {
        return Error{fmt::format("{} unexpected byte(s) after packet of type {}",
                                 cursor.rest().size(), type)};
    }
    return packet;
}

Result<void> encodeViciFrame(const ViciPacket& packet, std::string& out) {
    return encodeViciFrame(packet.type, packet.name, &packet.message, out);
}

Result<void> encodeViciFrame(ViciPacketType type, std::string_view name, const ViciSection* message,
                             std::string& out) {
    const ViciSection& body = message != nullptr ? *message : kEmptyMessage;
    os::wipeString(out);
    out.reserve(4 + packetSize(type, name, body));
    out.append(4, '\0');
    if (Result<void> appended = appendPacket(type, name, body, out); !appended) {
        os::wipeString(out);
        return appended;
    }
    auto length = static_cast<std::uint32_t>(out.size() - 4);
    out[0] = static_cast<char>((length >> 24) & 0xff);
    out[1] = static_cast<char>((length >> 16) & 0xff);
    out[2] = static_cast<char>((length >> 8) & 0xff);
    out[3] = static_cast<char>(length & 0xff);
    return {};
}

void ViciFrameReader::feed(std::string_view bytes) {
    if (failure_) {
        return;
    }
    if (offset_ > 0 && offset_ == buffer_.size()) {
        buffer_.clear();
        offset_ = 0;
    }
    buffer_.append(bytes);
}

Result<ViciFrameReader::Frame> ViciFrameReader::next(std::string& packet) {
    if (failure_) {
        return *failure_;
    }
    std::size_t available = buffer_.size() - offset_;
    if (available < 4) {
        return Frame::NeedMore;
    }
    const auto* head = reinterpret_cast<const unsigned char*>(buffer_.data() + offset_);
    std::size_t length = (std::size_t{head[0]} << 24) | (std::size_t{head[1]} << 16) |
                         (std::size_t{head[2]} << 8) | std::size_t{head[3]};
    if (length == 0 || length > kViciMaxPacket) {
        failure_ = Error{fmt::format("frame length {} outside 1..{}", length, kViciMaxPacket)};
        return *failure_;
    }
    if (available - 4 < length) {
        return Frame::NeedMore;
    }
    packet.assign(buffer_, offset_ + 4, length);
    offset_ += 4 + length;
    if (offset_ == buffer_.size()) {
        buffer_.clear();
        offset_ = 0;
    } else if (offset_ > 64 * 1024) {
        buffer_.erase(0, offset_);
        offset_ = 0;
    }
    return Frame::Packet;
}

}  // namespace platform::strongswan
