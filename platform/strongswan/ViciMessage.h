#pragma once

// strongSwan's VICI wire format: the message tree (sections, key/values and
// lists, in the order they were built), the packet layer around it (type
// byte, optional name) and the 4-byte big-endian frame length on the
// stream. Every decoder answers malformed input with an error text; none of
// them throws.

#include "platform/Secret.h"
#include "platform/strongswan/Result.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::strongswan {

// Largest packet charon accepts or sends (VICI_MESSAGE_SIZE_MAX).
inline constexpr std::size_t kViciMaxPacket = 512 * 1024;
inline constexpr std::size_t kViciMaxName = 255;
inline constexpr std::size_t kViciMaxValue = 65535;
// Deepest section nesting the decoder accepts; charon's own messages stay
// far below it.
inline constexpr std::size_t kViciMaxDepth = 32;

struct ViciEntry;

// A section: the message root or a named section inside it.
class ViciSection {
  public:
    ViciSection& add(std::string name, std::string value);
    ViciSection& addList(std::string name, std::vector<std::string> items);
    // Adds an empty named section and returns it for filling.
    ViciSection& addSection(std::string name);
    // Adds a key/value whose value is a secret: the bytes are copied once,
    // straight into their final place, so no moved-from copy is left behind.
    // Call `reserve` first when more entries follow.
    ViciSection& addSecret(std::string name, const Secret& secret);
    void reserve(std::size_t entries);
    // Overwrites every name, value and list item with zeros, then empties
    // the section.
    void wipe();

    // First entry of that name and kind, or null.
    const std::string* value(std::string_view name) const;
    const std::vector<std::string>* list(std::string_view name) const;
    const ViciSection* section(std::string_view name) const;
    // The value, or `fallback` when there is no such key/value.
    std::string get(std::string_view name, std::string_view fallback = {}) const;

    const std::vector<ViciEntry>& entries() const { return entries_; }
    std::vector<ViciEntry>& entries() { return entries_; }
    bool empty() const;

    bool operator==(const ViciSection& other) const;

  private:
    std::vector<ViciEntry> entries_;
};

struct ViciEntry {
    enum class Kind : std::uint8_t { Value, List, Section };
    Kind kind = Kind::Value;
    std::string name;
    std::string value;               // Kind::Value
    std::vector<std::string> items;  // Kind::List
    ViciSection section;             // Kind::Section

    bool operator==(const ViciEntry&) const = default;
};

inline void ViciSection::reserve(std::size_t entries) {
    entries_.reserve(entries);
}

inline bool ViciSection::empty() const {
    return entries_.empty();
}

enum class ViciElement : std::uint8_t {
    SectionStart = 1,
    SectionEnd = 2,
    KeyValue = 3,
    ListStart = 4,
    ListItem = 5,
    ListEnd = 6,
};

enum class ViciPacketType : std::uint8_t {
    CmdRequest = 0,
    CmdResponse = 1,
    CmdUnknown = 2,
    EventRegister = 3,
    EventUnregister = 4,
    EventConfirm = 5,
    EventUnknown = 6,
    Event = 7,
};

struct ViciPacket {
    ViciPacketType type = ViciPacketType::CmdRequest;
    std::string name;     // command or event name, for the named types
    ViciSection message;  // for the types that carry a message

    bool operator==(const ViciPacket&) const = default;
};

// Whether packets of this type carry a name / a message.
bool viciPacketHasName(ViciPacketType type);
bool viciPacketHasMessage(ViciPacketType type);

// Message <-> element bytes. Encoding fails on a name longer than 255
// bytes, a value longer than 65535 bytes or nesting deeper than the bound.
// The encoders write into the caller's `out`, which the caller wipes once
// the bytes are sent (a message may hold a secret).
Result<void> encodeViciMessage(const ViciSection& message, std::string& out);
Result<ViciSection> decodeViciMessage(std::string_view bytes);

// Packet <-> packet bytes (without the frame length).
Result<void> encodeViciPacket(const ViciPacket& packet, std::string& out);
Result<ViciPacket> decodeViciPacket(std::string_view bytes);

// Bytes `encodeViciMessage` would produce (not checked against the limits).
std::size_t viciMessageSize(const ViciSection& message);

// A packet with its 4-byte big-endian length in front, ready to write. The
// output is sized once up front, so a secret in the message is written to
// exactly one buffer.
Result<void> encodeViciFrame(const ViciPacket& packet, std::string& out);
// The same from the parts, so a caller's message need not be copied.
Result<void> encodeViciFrame(ViciPacketType type, std::string_view name, const ViciSection* message,
                             std::string& out);

// Cuts a byte stream into packets. Feed it what the socket gave; take
// complete packets with `next`. A zero or oversized frame length poisons the
// reader: the stream cannot be resynchronised after it.
class ViciFrameReader {
  public:
    void feed(std::string_view bytes);
    enum class Frame { Packet, NeedMore };
    // On Packet, `packet` holds the next whole packet's bytes.
    Result<Frame> next(std::string& packet);
    bool failed() const { return failure_.has_value(); }
    std::size_t buffered() const { return buffer_.size() - offset_; }

  private:
    std::string buffer_;
    std::size_t offset_ = 0;
    std::optional<Error> failure_;
};

}  // namespace platform::strongswan
