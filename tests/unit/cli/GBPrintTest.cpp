#include "cli/GBPrint.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>

namespace cli {
namespace {

// Everything written to a temporary stream by `write`.
template <typename Write>
std::string writtenTo(Write write) {
    std::FILE* stream = std::tmpfile();
    EXPECT_NE(stream, nullptr);
    write(stream);
    std::fflush(stream);
    std::rewind(stream);
    std::string text;
    char buffer[256];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, stream)) > 0;)
        text.append(buffer, n);
    std::fclose(stream);
    return text;
}

TEST(GBPrint, PrintlnWithEmptyFormatPrintsOneLineFeed) {
    testing::internal::CaptureStdout();
    gbprintln("");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");
}

TEST(GBPrint, PrintAddsNoNewline) {
    testing::internal::CaptureStdout();
    gbprint("a{}", 1);
    gbprint("b");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a1b");
}

TEST(GBPrint, NilValuePrintsNull) {
    testing::internal::CaptureStdout();
    gbprintln("[{}]", Value());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[(null)]\n");
}

TEST(GBPrint, AbsentOptionalStringPrintsNull) {
    const std::optional<std::string> none;
    const std::optional<std::string> some = "grp";
    EXPECT_EQ(writtenTo([&](std::FILE* s) { gbfprint(s, "{} {}", none, some); }), "(null) grp");
}

TEST(GBPrint, ValuesPrintTheirDescription) {
    const std::string text = writtenTo([](std::FILE* s) {
        gbfprintln(s, "{} {} {} {}", Value("str"), Value::numberWithBool(true),
                   Value::numberWithDouble(0.5), Value::array({"a b"}));
    });
    EXPECT_EQ(text, "str 1 0.5 (\n    \"a b\"\n)\n");
}

TEST(GBPrint, NonAsciiTextIsWrittenAsUTF8Bytes) {
    const std::string text =
        writtenTo([](std::FILE* s) { gbfprint(s, "h\u00e9 {}", Value("\U0001F389")); });
    EXPECT_EQ(text, "h\xc3\xa9 \xf0\x9f\x8e\x89");
}

TEST(GBPrint, StreamVariantsWriteToTheGivenStream) {
    testing::internal::CaptureStderr();
    gbfprintln(stderr, "Unknown command line option {}, try --help!", "--x");
    gbfprint(stderr, "{}", "tail");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Unknown command line option --x, try --help!\ntail");
}

TEST(GBPrint, WidthAppliesToValueText) {
    EXPECT_EQ(writtenTo([](std::FILE* s) { gbfprint(s, "[{:<5}]", Value("ab")); }), "[ab   ]");
}

TEST(GBPrint, RejectedRuntimeFormatIsWrittenAsItStands) {
    EXPECT_EQ(writtenTo([](std::FILE* s) { gbfprint(s, fmt::runtime("bad {"), 1); }), "bad {");
}

TEST(GBPrint, TextStopsAtAnEmbeddedNul) {
    const std::string withNul("a\0b", 3);
    EXPECT_EQ(writtenTo([&](std::FILE* s) { gbfprint(s, "<{}>", withNul); }), "<a");
    EXPECT_EQ(writtenTo([&](std::FILE* s) { gbfprintln(s, "{}", Value(withNul)); }), "a");
}

}  // namespace
}  // namespace cli
