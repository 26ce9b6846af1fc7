#include "cli/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace cli {
namespace {

constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kInt64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kInt32Min = std::numeric_limits<std::int32_t>::min();

struct BoolCase {
    const char* text;
    bool expected;
};

TEST(ValueStringBool, FollowsTheLetterSignZerosDigitRule) {
    const BoolCase cases[] = {
        {"YES", true},     {"no", false},   {"1", true},        {"0", false},
        {" 2", true},      {"-1", true},    {"+0", false},      {"0001", true},
        {"true", true},    {"", false},     {"t", true},        {"N", false},
        {"00", false},     {"0.1", false},  {".5", false},      {"  yes", true},
        {"y+", true},      {"ya", true},    {"1a", true},       {"+000009", true},
        {"+-5", false},    {"--1", false},  {"- 7", false},     {"+t", false},
        {"+y", false},     {"0t", false},   {"\t\n42", false},  {"\u0663", false},
        {"0x1A", false},   {" 0 2", false}, {"000-1", false},   {" + 111", false},
        {"false", false},  {"T", true},     {"\t9", true},      {"\u00a01", true},
        {"\u30001", true}, {"\n1", false},  {"\u20281", false}, {"9", true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Value(c.text).boolValue(), c.expected) << "text: \"" << c.text << "\"";
    }
}

struct NumberCase {
    const char* text;
    std::int32_t intValue;
    std::int64_t integerValue;
    double doubleValue;
};

TEST(ValueStringNumbers, ConvertByTheTable) {
    const NumberCase cases[] = {
        {"  42abc", 42, 42, 42.0},
        {"-1", -1, -1, -1.0},
        {"+7", 7, 7, 7.0},
        {"9999999999999999999999", kInt32Max, kInt64Max, 1e22},
        {"-9999999999999999999999", kInt32Min, kInt64Min, -1e22},
        {"2147483648", kInt32Max, 2147483648LL, 2147483648.0},
        {"-2147483649", kInt32Min, -2147483649LL, -2147483649.0},
        {"9223372036854775807", kInt32Max, kInt64Max, 9223372036854775807.0},
        {"-9223372036854775808", kInt32Min, kInt64Min, -9223372036854775808.0},
        {"9223372036854775808", kInt32Max, kInt64Max, 9223372036854775808.0},
        {"3.9", 3, 3, 3.9},
        {"1e3", 1, 1, 1000.0},
        {"", 0, 0, 0.0},
        {"0x1A", 0, 0, 0.0},
        {"- 7", -7, -7, 0.0},
        {"\t\n42", 0, 0, 0.0},
        {".5", 0, 0, 0.5},
        {"-.5", 0, 0, -0.5},
        {"5.", 5, 5, 5.0},
        {"1.5e", 1, 1, 1.5},
        {"1.5e+", 1, 1, 1.5},
        {"2E-2", 2, 2, 0.02},
        {"inf", 0, 0, 0.0},
        {"nan", 0, 0, 0.0},
        {"infinity", 0, 0, 0.0},
        {"007", 7, 7, 7.0},
        {"1,5", 1, 1, 1.0},
        {"\u00a0 12", 12, 12, 12.0},
        {"\u0663", 3, 3, 3.0},
        {"\uff11\uff12", 12, 12, 12.0},
        {"-", 0, 0, 0.0},
        {".", 0, 0, 0.0},
    };
    for (const auto& c : cases) {
        const Value v(c.text);
        EXPECT_EQ(v.intValue(), c.intValue) << "text: \"" << c.text << "\"";
        EXPECT_EQ(v.integerValue(), c.integerValue) << "text: \"" << c.text << "\"";
        EXPECT_DOUBLE_EQ(v.doubleValue(), c.doubleValue) << "text: \"" << c.text << "\"";
    }
}

TEST(ValueStringNumbers, SkipOnlyTheBlankWhitespaceSet) {
    const char* blanks[] = {" ",      "\t",     "\u00a0", "\u1680", "\u2000",
                            "\u200b", "\u202f", "\u205f", "\u3000"};
    for (const char* blank : blanks) {
        const std::string text = std::string(blank) + "5";
        EXPECT_EQ(Value(text).integerValue(), 5) << text;
        EXPECT_EQ(Value(text).doubleValue(), 5.0) << text;
        EXPECT_TRUE(Value(text).boolValue()) << text;
    }
    const char* newlines[] = {"\n", "\r", "\v", "\f", "\u0085", "\u2028", "\u2029", "\u200c"};
    for (const char* stop : newlines) {
        const std::string text = std::string(stop) + "5";
        EXPECT_EQ(Value(text).integerValue(), 0) << text;
        EXPECT_EQ(Value(text).doubleValue(), 0.0) << text;
        EXPECT_FALSE(Value(text).boolValue()) << text;
    }
}

TEST(ValueStringNumbers, OverflowingDoubleIsInfinite) {
    EXPECT_EQ(Value("1e400").doubleValue(), std::numeric_limits<double>::infinity());
    EXPECT_EQ(Value("-1e400").doubleValue(), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(Value("1e400").integerValue(), 1);
    EXPECT_EQ(Value("-1e400").intValue(), -1);
    EXPECT_EQ(Value("1e-400").doubleValue(), 0.0);
}

TEST(ValueStringNumbers, DoubleIsCorrectlyRounded) {
    EXPECT_EQ(Value("0.1").doubleValue(), 0.1);
    EXPECT_EQ(Value("2.2250738585072014e-308").doubleValue(), 2.2250738585072014e-308);
}

TEST(ValueNumbers, ConvertByValue) {
    EXPECT_TRUE(Value::numberWithBool(true).boolValue());
    EXPECT_EQ(Value::numberWithBool(true).integerValue(), 1);
    EXPECT_EQ(Value::numberWithBool(true).doubleValue(), 1.0);
    EXPECT_FALSE(Value::numberWithBool(false).boolValue());
    EXPECT_EQ(Value::numberWithInteger(5).integerValue(), 5);
    EXPECT_EQ(Value::numberWithInt(-7).integerValue(), -7);
    EXPECT_FALSE(Value::numberWithInteger(0).boolValue());
    EXPECT_EQ(Value::numberWithDouble(3.5).integerValue(), 3);
    EXPECT_EQ(Value::numberWithDouble(-3.99).integerValue(), -3);
    EXPECT_TRUE(Value::numberWithDouble(0.4).boolValue());
    EXPECT_TRUE(Value::numberWithDouble(std::nan("")).boolValue());
    EXPECT_FALSE(Value::numberWithDouble(-0.0).boolValue());
    EXPECT_TRUE(Value::numberWithInteger(256).boolValue());
    EXPECT_EQ(Value::numberWithDouble(1e20).integerValue(), kInt64Max);
    EXPECT_EQ(Value::numberWithDouble(-1e20).integerValue(), kInt64Min);
    EXPECT_EQ(Value::numberWithDouble(1e20).intValue(), kInt32Max);
    EXPECT_EQ(Value::numberWithUnsignedInteger(UINT64_MAX).integerValue(), -1);
    EXPECT_EQ(Value::numberWithUnsignedInteger(UINT64_MAX).doubleValue(), 18446744073709551616.0);
    EXPECT_EQ(Value::numberWithChar('v').integerValue(), 118);
    EXPECT_EQ(Value::numberWithInteger((1LL << 32) + 1).intValue(), 1);
}

TEST(ValueNil, AnswersZeroToEveryConversion) {
    const Value nil;
    EXPECT_FALSE(nil.boolValue());
    EXPECT_EQ(nil.intValue(), 0);
    EXPECT_EQ(nil.integerValue(), 0);
    EXPECT_EQ(nil.doubleValue(), 0.0);
    EXPECT_EQ(nil.description(), "(null)");
    EXPECT_FALSE(Value::array({Value("1")}).boolValue());
}

struct DescriptionCase {
    Value number;
    const char* expected;
};

TEST(ValueNumbers, DescriptionUsesTheTypesPrintfForm) {
    const double inf = std::numeric_limits<double>::infinity();
    const DescriptionCase cases[] = {
        {Value::numberWithBool(true), "1"},
        {Value::numberWithBool(false), "0"},
        {Value::numberWithInteger(5), "5"},
        {Value::numberWithInt(-7), "-7"},
        {Value::numberWithInteger(0), "0"},
        {Value::numberWithDouble(3.5), "3.5"},
        {Value::numberWithDouble(0.1), "0.1"},
        {Value::numberWithDouble(1e20), "1e+20"},
        {Value::numberWithDouble(-0.0), "-0"},
        {Value::numberWithDouble(100.0), "100"},
        {Value::numberWithDouble(0.1 + 0.2), "0.3"},
        {Value::numberWithDouble(0.07), "0.07000000000000001"},
        {Value::numberWithDouble(1.0 / 3), "0.3333333333333333"},
        {Value::numberWithDouble(1e15), "1000000000000000"},
        {Value::numberWithDouble(1e16), "1e+16"},
        {Value::numberWithDouble(1e-4), "0.0001"},
        {Value::numberWithDouble(1e-5), "1e-05"},
        {Value::numberWithDouble(123456789012345678.0), "1.234567890123457e+17"},
        {Value::numberWithDouble(inf), "inf"},
        {Value::numberWithDouble(-inf), "-inf"},
        {Value::numberWithDouble(std::nan("")), "nan"},
        {Value::numberWithDouble(-std::nan("")), "nan"},
        {Value::numberWithChar('v'), "118"},
        {Value::numberWithUnsignedInteger(UINT64_MAX), "18446744073709551615"},
        {Value::numberWithInteger(kInt64Min), "-9223372036854775808"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.number.description(), c.expected);
}

TEST(ValueEquality, NumbersCompareByValueAcrossTypes) {
    EXPECT_TRUE(Value::numberWithBool(true).isEqual(Value::numberWithInt(1)));
    EXPECT_TRUE(Value::numberWithDouble(2.0).isEqual(Value::numberWithInteger(2)));
    EXPECT_FALSE(Value::numberWithDouble(2.5).isEqual(Value::numberWithInteger(2)));
    EXPECT_FALSE(
        Value::numberWithUnsignedInteger(UINT64_MAX).isEqual(Value::numberWithInteger(-1)));
    EXPECT_FALSE(Value::numberWithInt(1).isEqual(Value("1")));
}

TEST(ValueEquality, NilEqualsNothingAndIdentityIsSeparate) {
    EXPECT_FALSE(Value().isEqual(Value()));
    EXPECT_TRUE(Value().isSameObject(Value()));
    const Value a("x");
    const Value b("x");
    EXPECT_TRUE(a.isEqual(b));
    EXPECT_FALSE(a.isSameObject(b));
    const Value c = a;
    EXPECT_TRUE(a.isSameObject(c));
}

TEST(ValueEquality, CollectionsCompareContents) {
    EXPECT_TRUE(Value::array({"a", "b"}).isEqual(Value::mutableArray({"a", "b"})));
    EXPECT_FALSE(Value::array({"a", "b"}).isEqual(Value::array({"b", "a"})));
    EXPECT_TRUE(Value::dictionary({{"k", Value::numberWithInt(1)}})
                    .isEqual(Value::mutableDictionary({{"k", Value::numberWithBool(true)}})));
    EXPECT_FALSE(Value::dictionary({{"k", "1"}}).isEqual(Value::dictionary({{"j", "1"}})));
    EXPECT_TRUE(Value::data({1, 2}).isEqual(Value::data({1, 2})));
    EXPECT_TRUE(Value::date(5).isEqual(Value::date(5)));
    EXPECT_FALSE(Value::date(5).isEqual(Value::numberWithInt(5)));
}

TEST(ValueCollections, MutationIsSeenThroughEveryReference) {
    Value array = Value::mutableArray();
    Value alias = array;
    alias.addObject("a");
    alias.addObjectsFromArray(Value::array({"b", "c"}));
    EXPECT_EQ(array.count(), 3u);
    EXPECT_TRUE(array.containsObject(Value("b")));
    array.removeLastObject();
    EXPECT_EQ(alias.count(), 2u);
    array.addObjectsFromArray(array);
    EXPECT_EQ(array.count(), 4u);
    EXPECT_TRUE(array.objectAtIndex(9).isNil());
    alias.removeAllObjects();
    EXPECT_EQ(array.count(), 0u);
    array.addObject(Value());
    EXPECT_EQ(array.count(), 0u);  // nil is never stored

    Value dict = Value::mutableDictionary();
    Value dictAlias = dict;
    dictAlias.setObjectForKey("v", "k");
    EXPECT_EQ(dict.objectForKey("k").stringValue(), "v");
    dict.setObjectForKey(Value(), "k");
    EXPECT_TRUE(dictAlias.objectForKey("k").isNil());
}

TEST(ValueCollections, ImmutableCollectionsIgnoreMutation) {
    Value array = Value::array({"a"});
    array.addObject("b");
    array.removeLastObject();
    EXPECT_EQ(array.count(), 1u);
    EXPECT_FALSE(array.isMutableArray());
    Value dict = Value::dictionary({{"k", "v"}});
    dict.setObjectForKey("w", "k");
    dict.removeAllObjects();
    EXPECT_EQ(dict.objectForKey("k").stringValue(), "v");
}

TEST(ValueStrings, LengthCountsUTF16Units) {
    EXPECT_EQ(Value("a\U0001F389b").length(), 4u);
    EXPECT_EQ(Value("\u00e9").length(), 1u);
    EXPECT_EQ(Value("e\u0301").length(), 2u);
    EXPECT_EQ(utf16Length("abc"), 3u);
    EXPECT_EQ(utf16Length("\xff\xfe"), 2u);
    EXPECT_EQ(Value::numberWithInt(12).length(), 0u);
}

TEST(ValueStrings, ValidUTF8IsRecognised) {
    EXPECT_TRUE(isValidUTF8(""));
    EXPECT_TRUE(isValidUTF8("h\u00e9llo \U0001F389"));
    EXPECT_FALSE(isValidUTF8("\xff"));
    EXPECT_FALSE(isValidUTF8("\xc0\xaf"));          // overlong
    EXPECT_FALSE(isValidUTF8("\xed\xa0\x80"));      // surrogate
    EXPECT_FALSE(isValidUTF8("\xf4\x90\x80\x80"));  // above U+10FFFF
    EXPECT_FALSE(isValidUTF8("\xe2\x82"));          // truncated
}

TEST(ValueStrings, DescribeOptionalPrintsNullForNone) {
    EXPECT_EQ(describe(std::nullopt), "(null)");
    EXPECT_EQ(describe(std::string("x")), "x");
    EXPECT_EQ(Value("plain text").description(), "plain text");
}

TEST(ValueDescription, ArraysAreMultiLineAndQuoted) {
    EXPECT_EQ(Value::array({"a", "b"}).description(), "(\n    a,\n    b\n)");
    EXPECT_EQ(Value::array().description(), "(\n)");
    EXPECT_EQ(Value::array({"with space", "", "a.b", "a_b", "1abc"}).description(),
              "(\n    \"with space\",\n    \"\",\n    \"a.b\",\n    \"a_b\",\n    1abc\n)");
    EXPECT_EQ(Value::array({Value::numberWithBool(true), Value::numberWithInteger(5),
                            Value::numberWithDouble(2.5), Value::numberWithInteger(-1)})
                  .description(),
              "(\n    1,\n    5,\n    \"2.5\",\n    \"-1\"\n)");
    EXPECT_EQ(Value::array({"h\u00e9llo", "a\nb"}).description(),
              "(\n    \"h\\U00e9llo\",\n    \"a\\nb\"\n)");
}

TEST(ValueDescription, DictionariesSortKeys) {
    EXPECT_EQ(Value::dictionary({{"b", "x y"}, {"a", Value::numberWithInt(1)}}).description(),
              "{\n    a = 1;\n    b = \"x y\";\n}");
    EXPECT_EQ(Value::dictionary().description(), "{\n}");
    EXPECT_EQ(Value::dictionary({{"alpha", "1"}, {"_", "2"}, {"B", "3"}, {"9", "4"}, {"10", "5"}})
                  .description(),
              "{\n    10 = 5;\n    9 = 4;\n    B = 3;\n    \"_\" = 2;\n    alpha = 1;\n}");
}

TEST(ValueDescription, NestedCollectionsDoubleTheIndent) {
    const Value nested = Value::array(
        {Value::numberWithInt(1), Value::array({Value::numberWithInt(3), Value::numberWithInt(4)}),
         Value::array()});
    EXPECT_EQ(nested.description(),
              "(\n    1,\n        (\n        3,\n        4\n    ),\n        (\n    )\n)");
    const Value map =
        Value::dictionary({{"list", Value::array({"x y"})}, {"map", Value::dictionary()}});
    EXPECT_EQ(map.description(),
              "{\n    list =     (\n        \"x y\"\n    );\n    map =     {\n    };\n}");
}

TEST(ValueDescription, EscapesInsideQuotes) {
    EXPECT_EQ(Value::array({"q\"b\\s"}).description(), "(\n    \"q\\\"b\\\\s\"\n)");
    EXPECT_EQ(Value::array({"\t\a\b\v\f"}).description(), "(\n    \"\\t\\a\\b\\v\\f\"\n)");
    EXPECT_EQ(Value::array({"a\rb"}).description(), "(\n    \"a\rb\"\n)");
    EXPECT_EQ(Value::array({"\U0001F389"}).description(), "(\n    \"\\Ud83c\\Udf89\"\n)");
    EXPECT_EQ(Value::array({"\x01"}).description(), "(\n    \"\\001\"\n)");
}

TEST(ValueDescription, KeysAreQuotedByTheSameRule) {
    EXPECT_EQ(Value::dictionary({{"a key", "v"}, {"", "e"}}).description(),
              "{\n    \"\" = e;\n    \"a key\" = v;\n}");
}

TEST(ValueDescription, DataAndDate) {
    EXPECT_EQ(Value::data({0x01, 0x02, 0x03, 0x04, 0xab}).description(), "<01020304 ab>");
    EXPECT_EQ(Value::date(978307200.0).description(), "2001-01-01 00:00:00 +0000");
}

TEST(ValueUid, ComparesByValueAndAnswersZeroToEveryConversion) {
    const Value uid = Value::uid(7);
    EXPECT_TRUE(uid.isUID());
    EXPECT_FALSE(uid.isDictionary());
    EXPECT_EQ(uid.uidValue(), 7u);
    EXPECT_TRUE(uid.isEqual(Value::uid(7)));
    EXPECT_FALSE(uid.isEqual(Value::uid(8)));
    EXPECT_FALSE(uid.isEqual(Value::numberWithInt(7)));
    EXPECT_FALSE(uid.boolValue());
    EXPECT_EQ(uid.integerValue(), 0);
    EXPECT_EQ(uid.description(), "<CFKeyedArchiverUID>{value = 7}");
    EXPECT_EQ(Value::array({uid}).description(), "(\n    \"<CFKeyedArchiverUID>{value = 7}\"\n)");
}

}  // namespace
}  // namespace cli
