#include "cli/plist/OpenStepPlist.h"

#include <gtest/gtest.h>

#include <string>

namespace cli {
namespace {

Value parse(const std::string& text) {
    std::string problem;
    Value value = parseOpenStepPropertyList(text, &problem);
    if (value.isNil()) {
        EXPECT_FALSE(problem.empty());
    }
    return value;
}

TEST(OpenStepPlistTest, EveryScalarIsAString) {
    const Value root = parse("{ a = 1; b = YES; c = 2.5; d = some/path:with.dots-and_$; }");
    ASSERT_TRUE(root.isDictionary());
    EXPECT_TRUE(root.objectForKey("a").isString());
    EXPECT_EQ(root.objectForKey("a").stringValue(), "1");
    EXPECT_EQ(root.objectForKey("b").stringValue(), "YES");
    EXPECT_EQ(root.objectForKey("c").stringValue(), "2.5");
    EXPECT_EQ(root.objectForKey("d").stringValue(), "some/path:with.dots-and_$");
}

TEST(OpenStepPlistTest, KeyWithoutValueStoresItselfAsItsValue) {
    const Value root = parse("{ alone; \"quoted key\"; }");
    EXPECT_EQ(root.objectForKey("alone").stringValue(), "alone");
    EXPECT_EQ(root.objectForKey("quoted key").stringValue(), "quoted key");
}

TEST(OpenStepPlistTest, NestedArraysDictionariesAndData) {
    const Value root =
        parse("{ list = (a, \"b c\", (d), {e = f;}, <0fA3 b2>); empty = (); none = {}; }");
    const Value list = root.objectForKey("list");
    ASSERT_TRUE(list.isArray());
    ASSERT_EQ(list.count(), 5u);
    EXPECT_EQ(list.objectAtIndex(1).stringValue(), "b c");
    EXPECT_EQ(list.objectAtIndex(2).objectAtIndex(0).stringValue(), "d");
    EXPECT_EQ(list.objectAtIndex(3).objectForKey("e").stringValue(), "f");
    EXPECT_EQ(list.objectAtIndex(4).bytes(), (std::vector<std::uint8_t>{0x0F, 0xA3, 0xB2}));
    EXPECT_EQ(root.objectForKey("empty").count(), 0u);
    EXPECT_TRUE(root.objectForKey("none").isDictionary());
    EXPECT_FALSE(list.isMutableArray());
}

TEST(OpenStepPlistTest, TrailingCommaInAnArrayIsAccepted) {
    const Value root = parse("(a, b,)");
    ASSERT_TRUE(root.isArray());
    EXPECT_EQ(root.count(), 2u);
}

TEST(OpenStepPlistTest, CommentsAndUnicodeLineSeparatorsAreBlanks) {
    const Value root = parse(
        "// leading comment\n{ /* inline */ a = b; // to the end\n\xE2\x80\xA8 c = d;\xE2\x80\xA9 "
        "}");
    EXPECT_EQ(root.objectForKey("a").stringValue(), "b");
    EXPECT_EQ(root.objectForKey("c").stringValue(), "d");
}

TEST(OpenStepPlistTest, QuotedEscapesAreDecoded) {
    const Value root = parse(
        "{ s = \"n\\nt\\tr\\ra\\ab\\bf\\fv\\v q\\\" s\\\\ x\\y\"; u = \"\\U00e9\\U20AC\"; "
        "pair = \"\\Ud83c\\Udf89\"; octal = \"\\101\\335\"; single = 'it\\'s \"raw\"'; "
        "lines = \"one\ntwo\\\nthree\"; }");
    EXPECT_EQ(root.objectForKey("s").stringValue(), "n\nt\tr\ra\ab\bf\fv\v q\" s\\ xy");
    EXPECT_EQ(root.objectForKey("u").stringValue(), "\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(root.objectForKey("pair").stringValue(), "\xF0\x9F\x8E\x89");
    // \335 is e-acute in the NeXTSTEP character set.
    EXPECT_EQ(root.objectForKey("octal").stringValue(), "A\xC3\xA9");
    EXPECT_EQ(root.objectForKey("single").stringValue(), "it's \"raw\"");
    EXPECT_EQ(root.objectForKey("lines").stringValue(), "one\ntwo\nthree");
}

TEST(OpenStepPlistTest, LoneSurrogateEscapeBecomesReplacementCharacter) {
    const Value root = parse("{ a = \"\\Ud800x\"; }");
    EXPECT_EQ(root.objectForKey("a").stringValue(), "\xEF\xBF\xBDx");
}

TEST(OpenStepPlistTest, BlankOrCommentOnlyInputIsAnEmptyDictionary) {
    for (const char* text : {"", "   \n\t", "/* nothing */ // at all"}) {
        const Value root = parse(text);
        ASSERT_TRUE(root.isDictionary()) << text;
        EXPECT_TRUE(root.entries().empty());
    }
}

TEST(OpenStepPlistTest, StringFollowedByMoreTextIsReadAsAStringsFile) {
    const Value root = parse("\"k1\" = \"v1\";\nk2 = v2;\nshort;");
    ASSERT_TRUE(root.isDictionary());
    EXPECT_EQ(root.objectForKey("k1").stringValue(), "v1");
    EXPECT_EQ(root.objectForKey("k2").stringValue(), "v2");
    EXPECT_EQ(root.objectForKey("short").stringValue(), "short");
}

TEST(OpenStepPlistTest, LoneStringIsAStringRoot) {
    const Value root = parse("  \"just text\"  ");
    ASSERT_TRUE(root.isString());
    EXPECT_EQ(root.stringValue(), "just text");
}

TEST(OpenStepPlistTest, RepeatedKeyKeepsTheLastValue) {
    EXPECT_EQ(parse("{ a = 1; a = 2; }").objectForKey("a").stringValue(), "2");
}

TEST(OpenStepPlistTest, MalformedInputIsRejected) {
    const char* bad[] = {
        "{ a = b }",        // missing ';'
        "{ a = b; ",        // unterminated dictionary
        "{ (a) = b; }",     // key not a string
        "{ a b; }",         // neither '=' nor ';'
        "(a, b",            // unterminated array
        "(a b)",            // missing comma
        "(,)",              // empty element
        "<0fa>",            // odd number of hex digits
        "<0g>",             // not a hex digit
        "<0f",              // unterminated data
        "\"open",           // unterminated string
        "{ a = \"b; }",     // unterminated string inside
        "(a) junk",         // junk after the property list
        "{} {}",            // junk after the property list
        "= b;",             // no object
        "{ a = ; }",        // missing value
        "\"k\" = v; oops",  // strings file without ';'
    };
    for (const char* text : bad) {
        std::string problem;
        EXPECT_TRUE(parseOpenStepPropertyList(text, &problem).isNil()) << text;
        EXPECT_FALSE(problem.empty()) << text;
    }
}

TEST(OpenStepPlistTest, NestingOf512IsAcceptedAnd513IsRejected) {
    const auto nested = [](std::size_t depth) {
        return std::string(depth, '(') + std::string(depth, ')');
    };
    EXPECT_TRUE(parse(nested(512)).isArray());
    EXPECT_TRUE(parse(nested(513)).isNil());
}

TEST(OpenStepPlistTest, HundredThousandNestedContainersFailWithoutExhaustingTheStack) {
    std::string arrays(100000, '(');
    EXPECT_TRUE(parse(arrays + std::string(100000, ')')).isNil());
    std::string dictionaries;
    for (int i = 0; i < 100000; ++i) dictionaries += "{a=";
    EXPECT_TRUE(parse(dictionaries).isNil());
}

}  // namespace
}  // namespace cli
