#include "cli/BinaryPlistCheck.h"
#include "cli/PropertyList.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace cli {
namespace {

// Binary property lists assembled object by object, with 4-byte offsets
// and references, so that tests can build shapes no writer would.
struct BinaryBuilder {
    std::string objects;
    std::vector<std::uint64_t> offsets;

    static void bigEndian(std::string& out, std::uint64_t value, int size) {
        for (int i = size - 1; i >= 0; --i)
            out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
    void array(const std::vector<std::uint32_t>& references) {
        offsets.push_back(8 + objects.size());
        objects.push_back(static_cast<char>(0xA0 | std::min<std::size_t>(references.size(), 0xF)));
        if (references.size() >= 0xF) {
            objects.push_back(static_cast<char>(0x12));
            bigEndian(objects, references.size(), 4);
        }
        for (std::uint32_t reference : references) bigEndian(objects, reference, 4);
    }
    void string(const std::string& ascii) {
        offsets.push_back(8 + objects.size());
        objects.push_back(static_cast<char>(0x50 | ascii.size()));
        objects += ascii;
    }
    void uid(std::uint64_t value, int size) {
        offsets.push_back(8 + objects.size());
        objects.push_back(static_cast<char>(0x80 | (size - 1)));
        bigEndian(objects, value, size);
    }
    std::string build(std::uint64_t top = 0) const {
        std::string out = "bplist00" + objects;
        const std::uint64_t table = out.size();
        for (std::uint64_t offset : offsets) bigEndian(out, offset, 4);
        out.append(6, '\0');
        out.push_back(4);
        out.push_back(4);
        bigEndian(out, offsets.size(), 8);
        bigEndian(out, top, 8);
        bigEndian(out, table, 8);
        return out;
    }
};

std::string libplistBinary() {
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "name", plist_new_string("value"));
    plist_dict_set_item(root, "flag", plist_new_bool(1));
    plist_dict_set_item(root, "count", plist_new_uint(42));
    plist_dict_set_item(root, "ratio", plist_new_real(0.5));
    plist_dict_set_item(root, "blob", plist_new_data("\x01\x02", 2));
    plist_dict_set_item(root, "when", plist_new_date(728512994, 0));
    plist_t list = plist_new_array();
    plist_array_append_item(list, plist_new_string("a"));
    plist_array_append_item(list, plist_new_string("b"));
    plist_dict_set_item(root, "list", list);
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    std::string out(bytes, length);
    std::free(bytes);
    plist_free(root);
    return out;
}

bool readFails(std::string_view bytes) {
    std::optional<NSError> error;
    const Value value = propertyListFromData(bytes, &error);
    if (!value.isNil()) return false;
    EXPECT_TRUE(error.has_value());
    if (error) {
        EXPECT_EQ(error->code, 3840);
    }
    return true;
}

TEST(BinaryPlistTest, BinaryFileReadsWithItsTypes) {
    std::optional<NSError> error;
    const Value root = propertyListFromData(libplistBinary(), &error);
    ASSERT_TRUE(root.isDictionary()) << (error ? error->description : "");
    EXPECT_EQ(root.objectForKey("name").stringValue(), "value");
    EXPECT_EQ(root.objectForKey("flag").numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(root.objectForKey("flag").boolValue());
    EXPECT_EQ(root.objectForKey("count").integerValue(), 42);
    EXPECT_EQ(root.objectForKey("ratio").doubleValue(), 0.5);
    EXPECT_EQ(root.objectForKey("blob").bytes(), (std::vector<std::uint8_t>{1, 2}));
    EXPECT_EQ(root.objectForKey("when").secondsSince1970(), 1706820194.0);
    EXPECT_EQ(root.objectForKey("list").count(), 2u);
}

TEST(BinaryPlistTest, HandBuiltListPassesTheCheckAndReads) {
    BinaryBuilder builder;
    builder.array({1, 2});
    builder.string("one");
    builder.string("two");
    std::optional<NSError> error;
    const Value root = propertyListFromData(builder.build(), &error);
    ASSERT_TRUE(root.isArray());
    EXPECT_EQ(root.objectAtIndex(1).stringValue(), "two");
}

TEST(BinaryPlistTest, UidReadsAsAUidUpTo32Bits) {
    BinaryBuilder builder;
    builder.array({1, 2});
    builder.uid(7, 1);
    builder.uid(0xFFFFFFFF, 4);
    std::optional<NSError> error;
    const Value root = propertyListFromData(builder.build(), &error);
    ASSERT_TRUE(root.isArray()) << (error ? error->description : "");
    EXPECT_TRUE(root.objectAtIndex(0).isUID());
    EXPECT_EQ(root.objectAtIndex(0).uidValue(), 7u);
    EXPECT_EQ(root.objectAtIndex(1).uidValue(), 0xFFFFFFFFu);
    BinaryBuilder wide;
    wide.uid(std::uint64_t{1} << 32, 8);
    EXPECT_TRUE(readFails(wide.build()));
}

TEST(BinaryPlistTest, StringThatIsNotUtf8IsRefused) {
    BinaryBuilder builder;
    builder.string("caf\xE9");
    EXPECT_TRUE(readFails(builder.build()));
}

BinaryBuilder nestedArrays(std::uint32_t depth) {
    BinaryBuilder builder;
    for (std::uint32_t i = 0; i < depth; ++i) builder.array({i + 1});
    builder.string("leaf");
    return builder;
}

TEST(BinaryPlistTest, NestingOf512IsAcceptedAnd513IsRefused) {
    EXPECT_FALSE(readFails(nestedArrays(512).build()));
    EXPECT_TRUE(readFails(nestedArrays(513).build()));
}

TEST(BinaryPlistTest, HundredThousandNestedArraysAreRefusedWithoutCrashing) {
    EXPECT_TRUE(readFails(nestedArrays(100000).build()));
}

TEST(BinaryPlistTest, CyclicObjectGraphIsRefused) {
    BinaryBuilder builder;
    builder.array({1});
    builder.array({0});
    EXPECT_TRUE(readFails(builder.build()));
    BinaryBuilder self;
    self.array({0});
    EXPECT_TRUE(readFails(self.build()));
}

TEST(BinaryPlistTest, SharedObjectsThatExpandExponentiallyAreRefused) {
    BinaryBuilder builder;
    for (std::uint32_t i = 0; i < 100; ++i) builder.array({i + 1, i + 1});
    builder.string("x");
    EXPECT_TRUE(readFails(builder.build()));
}

TEST(BinaryPlistTest, BadOffsetsAndTrailersAreRefused) {
    BinaryBuilder builder;
    builder.array({1});
    builder.string("x");
    const std::string good = builder.build();
    ASSERT_FALSE(readFails(good));
    const std::size_t trailer = good.size() - 32;

    std::string offsetPastTable = good;
    offsetPastTable[trailer - 1] = static_cast<char>(0x7F);  // second object's offset
    EXPECT_TRUE(readFails(offsetPastTable));

    std::string hugeCount = good;
    for (int i = 8; i < 16; ++i) hugeCount[trailer + i] = static_cast<char>(0xFF);
    EXPECT_TRUE(readFails(hugeCount));

    std::string topOutside = good;
    topOutside[trailer + 23] = 5;
    EXPECT_TRUE(readFails(topOutside));

    std::string tableOutside = good;
    tableOutside[trailer + 24] = static_cast<char>(0x80);
    EXPECT_TRUE(readFails(tableOutside));

    std::string zeroSizes = good;
    zeroSizes[trailer + 6] = 0;
    EXPECT_TRUE(readFails(zeroSizes));

    std::string referenceOutside = good;
    referenceOutside[8 + 4] = 9;  // the array's reference names object 9
    EXPECT_TRUE(readFails(referenceOutside));

    std::string countPastData = good;
    countPastData[8] = static_cast<char>(0xAE);  // 14 references claimed
    EXPECT_TRUE(readFails(countPastData));
}

TEST(BinaryPlistTest, EveryTruncationFailsCleanly) {
    const std::string good = libplistBinary();
    // Shorter prefixes of the magic are bare words of the text form.
    for (std::size_t length = 7; length < good.size(); ++length) {
        EXPECT_TRUE(readFails(std::string_view(good).substr(0, length))) << length;
    }
}

TEST(BinaryPlistTest, RandomlyDamagedFilesNeverCrash) {
    const std::string good = libplistBinary();
    std::mt19937 random(20240201);
    for (int round = 0; round < 3000; ++round) {
        std::string damaged = good;
        const int flips = 1 + static_cast<int>(random() % 4);
        for (int i = 0; i < flips; ++i) {
            damaged[8 + random() % (damaged.size() - 8)] = static_cast<char>(random() & 0xFF);
        }
        std::optional<NSError> error;
        const Value value = propertyListFromData(damaged, &error);
        EXPECT_EQ(value.isNil(), error.has_value());
    }
}

TEST(BinaryPlistTest, GarbageAfterTheMagicIsRefused) {
    std::mt19937 random(7);
    for (int round = 0; round < 500; ++round) {
        std::string garbage = "bplist00";
        const std::size_t size = random() % 200;
        for (std::size_t i = 0; i < size; ++i)
            garbage.push_back(static_cast<char>(random() & 0xFF));
        std::optional<NSError> error;
        const Value value = propertyListFromData(garbage, &error);
        EXPECT_EQ(value.isNil(), error.has_value());
    }
}

}  // namespace
}  // namespace cli
