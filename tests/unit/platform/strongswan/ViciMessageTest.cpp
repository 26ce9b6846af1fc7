#include "platform/strongswan/ViciMessage.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace ss = platform::strongswan;
using ss::ViciPacket;
using ss::ViciPacketType;
using ss::ViciSection;

namespace {

using Frame = ss::ViciFrameReader::Frame;

// The reader's next frame; a refused stream fails the test.
std::optional<Frame> frameOf(ss::ViciFrameReader& reader, std::string& body) {
    auto frame = reader.next(body);
    EXPECT_TRUE(frame) << (frame ? "" : frame.error().text);
    return frame ? std::optional<Frame>(*frame) : std::nullopt;
}

// `message` encoded and decoded again; empty after a failure.
ViciSection roundTrip(const ViciSection& message) {
    std::string out;
    auto encoded = ss::encodeViciMessage(message, out);
    EXPECT_TRUE(encoded) << (encoded ? "" : encoded.error().text);
    auto back = ss::decodeViciMessage(out);
    EXPECT_TRUE(back) << (back ? "" : back.error().text);
    return back ? *back : ViciSection{};
}

std::string bytes(std::initializer_list<int> values) {
    std::string out;
    for (int v : values) {
        out.push_back(static_cast<char>(v));
    }
    return out;
}

std::string lengthPrefix(std::size_t n, int width) {
    std::string out;
    for (int i = width - 1; i >= 0; --i) {
        out.push_back(static_cast<char>((n >> (8 * i)) & 0xff));
    }
    return out;
}

ViciPacket packet(ViciPacketType type, std::string name = {}, ViciSection message = {}) {
    ViciPacket p;
    p.type = type;
    p.name = std::move(name);
    p.message = std::move(message);
    return p;
}

struct FrameCase {
    const char* what;
    ViciPacket packet;
    std::string frame;
};

ViciSection versionResponseStart() {
    ViciSection s;
    s.add("daemon", "charon").add("version", "5.9.8");
    return s;
}

ViciSection nested() {
    ViciSection s;
    ViciSection& conn = s.addSection("a");
    conn.add("k", "v");
    conn.addList("l", {"x", ""});
    conn.addSection("b");
    return s;
}

std::vector<FrameCase> frameCases() {
    return {
        {"version request", packet(ViciPacketType::CmdRequest, "version"),
         bytes({0, 0, 0, 9, 0, 7}) + "version"},
        {"register ike-updown", packet(ViciPacketType::EventRegister, "ike-updown"),
         bytes({0, 0, 0, 0x0c, 3, 0x0a}) + "ike-updown"},
        {"unregister log", packet(ViciPacketType::EventUnregister, "log"),
         bytes({0, 0, 0, 5, 4, 3}) + "log"},
        {"event confirm", packet(ViciPacketType::EventConfirm), bytes({0, 0, 0, 1, 5})},
        {"event unknown", packet(ViciPacketType::EventUnknown), bytes({0, 0, 0, 1, 6})},
        {"unknown command", packet(ViciPacketType::CmdUnknown), bytes({0, 0, 0, 1, 2})},
        {"empty response", packet(ViciPacketType::CmdResponse), bytes({0, 0, 0, 1, 1})},
        {"version response", packet(ViciPacketType::CmdResponse, "", versionResponseStart()),
         bytes({0, 0, 0, 0x21, 1, 3, 6}) + "daemon" + bytes({0, 6}) + "charon" + bytes({3, 7}) +
             "version" + bytes({0, 5}) + "5.9.8"},
        {"event with sections and lists", packet(ViciPacketType::Event, "e", nested()),
         bytes({0, 0, 0, 0x1c, 7, 1}) + "e" + bytes({1, 1}) + "a" + bytes({3, 1}) + "k" +
             bytes({0, 1}) + "v" + bytes({4, 1}) + "l" + bytes({5, 0, 1}) + "x" +
             bytes({5, 0, 0, 6, 1, 1}) + "b" + bytes({2, 2})},
    };
}

TEST(ViciMessageTest, EncodesTheKnownFrames) {
    for (const auto& c : frameCases()) {
        std::string out;
        auto encoded = ss::encodeViciFrame(c.packet, out);
        ASSERT_TRUE(encoded) << c.what << ": " << encoded.error().text;
        EXPECT_EQ(out, c.frame) << c.what;
    }
}

TEST(ViciMessageTest, DecodesTheKnownFrames) {
    for (const auto& c : frameCases()) {
        ss::ViciFrameReader reader;
        reader.feed(c.frame);
        std::string body;
        ASSERT_EQ(frameOf(reader, body), Frame::Packet) << c.what;
        auto decoded = ss::decodeViciPacket(body);
        ASSERT_TRUE(decoded) << c.what << ": " << decoded.error().text;
        EXPECT_EQ(*decoded, c.packet) << c.what;
        EXPECT_EQ(frameOf(reader, body), Frame::NeedMore) << c.what;
    }
}

TEST(ViciMessageTest, KeepsOrderAndTellsListsFromValues) {
    ViciSection s;
    s.add("z", "1").addList("a", {"2"}).add("m", "3");
    ViciSection back = roundTrip(s);
    ASSERT_EQ(back.entries().size(), 3u);
    EXPECT_EQ(back.entries()[0].name, "z");
    EXPECT_EQ(back.entries()[1].name, "a");
    EXPECT_EQ(back.entries()[2].name, "m");
    EXPECT_EQ(back.value("a"), nullptr);
    ASSERT_NE(back.list("a"), nullptr);
    EXPECT_EQ(*back.list("a"), std::vector<std::string>{"2"});
    EXPECT_EQ(back.list("z"), nullptr);
    EXPECT_EQ(back.get("m"), "3");
    EXPECT_EQ(back.get("missing", "fb"), "fb");
}

TEST(ViciMessageTest, CarriesArbitraryValueBytes) {
    ViciSection s;
    std::string binary("\0\x01\xff\n", 4);
    s.add("data", binary);
    ViciSection back = roundTrip(s);
    EXPECT_EQ(back.get("data"), binary);
}

TEST(ViciMessageTest, AcceptsTheLargestNameAndValue) {
    ViciSection s;
    s.add(std::string(255, 'n'), std::string(65535, 'v'));
    ViciSection back = roundTrip(s);
    EXPECT_EQ(back, s);
}

struct EncodeFailure {
    const char* what;
    ViciSection message;
};

TEST(ViciMessageTest, RefusesToEncodeWhatTheWireCannotCarry) {
    std::vector<EncodeFailure> cases;
    {
        ViciSection s;
        s.add(std::string(256, 'n'), "v");
        cases.push_back({"name of 256 bytes", s});
    }
    {
        ViciSection s;
        s.add("k", std::string(65536, 'v'));
        cases.push_back({"value of 65536 bytes", s});
    }
    {
        ViciSection s;
        s.addList("l", {"a", std::string(65536, 'v')});
        cases.push_back({"list item of 65536 bytes", s});
    }
    {
        ViciSection s;
        s.addSection(std::string(300, 's'));
        cases.push_back({"section name of 300 bytes", s});
    }
    {
        ViciSection s;
        ViciSection* at = &s;
        for (int i = 0; i < 40; ++i) {
            at = &at->addSection("d");
        }
        cases.push_back({"nesting of 40", s});
    }
    for (const auto& c : cases) {
        std::string out;
        auto encoded = ss::encodeViciMessage(c.message, out);
        ASSERT_FALSE(encoded) << c.what;
        EXPECT_FALSE(encoded.error().text.empty()) << c.what;
    }
}

TEST(ViciMessageTest, RefusesToEncodeAnOversizedPacket) {
    ViciSection s;
    for (int i = 0; i < 9; ++i) {
        s.add("k" + std::to_string(i), std::string(65535, 'v'));
    }
    std::string out;
    auto encoded = ss::encodeViciFrame(packet(ViciPacketType::CmdRequest, "load-conn", s), out);
    ASSERT_FALSE(encoded);
    EXPECT_NE(encoded.error().text.find("exceeds"), std::string::npos);
}

struct DecodeFailure {
    const char* what;
    std::string packet;  // bytes after the frame length
};

std::vector<DecodeFailure> malformedPackets() {
    std::string deep = bytes({1});
    for (int i = 0; i < 40; ++i) {
        deep += bytes({1, 1}) + "d";
    }
    return {
        {"empty packet", ""},
        {"unknown packet type", bytes({8})},
        {"named packet without name length", bytes({0})},
        {"name longer than the packet", bytes({0, 7}) + "vers"},
        {"confirm with trailing bytes", bytes({5, 0})},
        {"unknown with trailing bytes", bytes({2, 1, 2})},
        {"register with trailing bytes", bytes({3, 1}) + "a" + bytes({9})},
        {"unknown element type", bytes({1, 9})},
        {"element type zero", bytes({1, 0})},
        {"section end at the root", bytes({1, 2})},
        {"unterminated section", bytes({1, 1, 1}) + "s"},
        {"unterminated list", bytes({1, 4, 1}) + "l"},
        {"list inside list", bytes({1, 4, 1}) + "l" + bytes({4, 1}) + "m" + bytes({6, 6})},
        {"key/value inside list", bytes({1, 4, 1}) + "l" + bytes({3, 1}) + "k" + bytes({0, 0, 6})},
        {"section inside list", bytes({1, 4, 1}) + "l" + bytes({1, 1}) + "s" + bytes({2, 6})},
        {"section end inside list", bytes({1, 1, 1}) + "s" + bytes({4, 1}) + "l" + bytes({2, 6})},
        {"list item outside list", bytes({1, 5, 0, 0})},
        {"list end outside list", bytes({1, 6})},
        {"truncated key name", bytes({1, 3, 5}) + "ab"},
        {"truncated value length", bytes({1, 3, 1}) + "k" + bytes({0})},
        {"value longer than the packet", bytes({1, 3, 1}) + "k" + bytes({0, 9}) + "abc"},
        {"value length 65535 with few bytes", bytes({1, 3, 1}) + "k" + bytes({0xff, 0xff}) + "x"},
        {"truncated list item", bytes({1, 4, 1}) + "l" + bytes({5, 0, 4}) + "ab"},
        {"truncated section name", bytes({1, 1, 4}) + "s"},
        {"nesting deeper than the bound", deep},
        {"trailing element after balanced message", bytes({1, 1, 1}) + "s" + bytes({2, 2})},
    };
}

TEST(ViciMessageTest, RefusesEveryMalformedPacket) {
    for (const auto& c : malformedPackets()) {
        auto decoded = ss::decodeViciPacket(c.packet);
        ASSERT_FALSE(decoded) << c.what;
        EXPECT_FALSE(decoded.error().text.empty()) << c.what;
    }
}

TEST(ViciMessageTest, AcceptsNestingUpToTheBound) {
    ViciSection s;
    ViciSection* at = &s;
    for (std::size_t i = 0; i < ss::kViciMaxDepth; ++i) {
        at = &at->addSection("d");
    }
    at->add("k", "v");
    ViciSection back = roundTrip(s);
    EXPECT_EQ(back, s);
}

TEST(ViciMessageTest, ReaderReassemblesSplitFramesAndKeepsBackToBackOnesApart) {
    std::string a;
    std::string b;
    ASSERT_TRUE(ss::encodeViciFrame(packet(ViciPacketType::CmdRequest, "version"), a));
    ASSERT_TRUE(ss::encodeViciFrame(packet(ViciPacketType::EventConfirm), b));
    std::string stream = a + b;
    ss::ViciFrameReader reader;
    std::vector<std::string> got;
    for (char c : stream) {
        reader.feed(std::string_view(&c, 1));
        std::string body;
        while (frameOf(reader, body) == Frame::Packet) {
            got.push_back(body);
        }
    }
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], a.substr(4));
    EXPECT_EQ(got[1], b.substr(4));
}

TEST(ViciMessageTest, ReaderRefusesZeroAndOversizedLengthsForGood) {
    for (std::size_t length : {std::size_t{0}, ss::kViciMaxPacket + 1, std::size_t{0xffffffff}}) {
        ss::ViciFrameReader reader;
        reader.feed(lengthPrefix(length, 4) + "xx");
        std::string body;
        auto refused = reader.next(body);
        ASSERT_FALSE(refused) << length;
        EXPECT_FALSE(refused.error().text.empty());
        reader.feed(bytes({0, 0, 0, 1, 5}));
        EXPECT_FALSE(reader.next(body)) << length;
        EXPECT_TRUE(reader.failed());
    }
}

TEST(ViciMessageTest, ReaderAcceptsTheLargestFrame) {
    ss::ViciFrameReader reader;
    std::string body(ss::kViciMaxPacket, '\x01');
    reader.feed(lengthPrefix(ss::kViciMaxPacket, 4) + body);
    std::string got;
    ASSERT_EQ(frameOf(reader, got), Frame::Packet);
    EXPECT_EQ(got.size(), ss::kViciMaxPacket);
}

}  // namespace

namespace {

TEST(ViciMessageTest, PredictsTheEncodedSizeExactly) {
    for (const auto& c : frameCases()) {
        std::string out;
        ASSERT_TRUE(ss::encodeViciMessage(c.packet.message, out));
        EXPECT_EQ(ss::viciMessageSize(c.packet.message), out.size()) << c.what;
    }
}

TEST(ViciMessageTest, WipeEmptiesSectionsAndSecretsStayExact) {
    ViciSection s;
    s.reserve(3);
    s.add("id", "x");
    s.addSecret("data", platform::Secret("hunter2 with spaces"));
    s.addList("owners", {"alice"});
    EXPECT_EQ(s.get("data"), "hunter2 with spaces");
    s.wipe();
    EXPECT_TRUE(s.empty());
}

}  // namespace
