#include "cli/GBOptionsHelper.h"
#include "tests/unit/cli/CaptureStdout.h"

#include <gtest/gtest.h>

#include <string>

namespace cli {
namespace {

using test::captureStdout;

std::string helpOf(GBOptionsHelper& options) {
    return captureStdout([&] { options.printHelp(); });
}

TEST(HelpOutputTest, OptionsAreAlignedOnTheLongestNameColumn) {
    GBOptionsHelper options;
    options.registerOption('i', "input", "Read from a file", 0);
    options.registerOption(0, "dry", "Change nothing", 2);
    options.registerOption(0, "level", "Log level", 1);
    options.registerOption('q', "quiet", "Print nothing", 2);
    EXPECT_EQ(helpOf(options),
              "\n"
              "-i --input <value>   Read from a file \n"
              "   --dry             Change nothing \n"
              "   --level [<value>] Log level \n"
              "-q --quiet           Print nothing \n"
              "\n");
}

TEST(HelpOutputTest, SeparatorsAndGroupsGetTitlesAndATrailingSeparatorIsDropped) {
    GBOptionsHelper options;
    options.registerSeparator("Options:");
    options.registerOption('c', "config", "Read configurations from file", 0);
    options.registerOption(0, "level", "Log level", 1);
    options.registerGroup("Advanced", "rarely needed",
                          [](GBOptionsHelper& o) { o.registerOption(0, "dry", "Do nothing", 2); });
    options.registerSeparator("Misc");
    EXPECT_EQ(helpOf(options),
              "\n"
              "\n"
              "Options: \n"
              "-c --config <value>  Read configurations from file \n"
              "   --level [<value>] Log level \n"
              "\n"
              "Advanced rarely needed \n"
              "   --dry             Do nothing \n"
              "\n");
}

TEST(HelpOutputTest, NoRecordsPrintsOnlyTheEmptyHeaderAndFooterLines) {
    GBOptionsHelper options;
    EXPECT_EQ(helpOf(options), "\n\n");
}

TEST(HelpOutputTest, TwoSeparatorsInARowLeaveOnlyTheSecond) {
    GBOptionsHelper options;
    options.registerSeparator("First");
    options.registerSeparator("Second");
    options.registerOption(0, "a", "A", 2);
    EXPECT_EQ(helpOf(options), "\n\nSecond \n   --a A \n\n");
}

TEST(HelpOutputTest, SeparatorFollowedOnlyByAGroupKeepsBoth) {
    GBOptionsHelper options;
    options.registerSeparator("Sep");
    options.registerGroup("Grp", "desc", [](GBOptionsHelper&) {});
    EXPECT_EQ(helpOf(options), "\n\nSep \n\nGrp desc \n\n");
}

TEST(HelpOutputTest, HiddenOptionIsNotListedAndDoesNotWidenTheNameColumn) {
    GBOptionsHelper options;
    options.registerOption(0, "a-very-long-hidden-name", "hidden", 0x82);
    options.registerOption(0, "ab", "shown", 2);
    options.registerOption(0, "abcd", "also", 2);
    EXPECT_EQ(helpOf(options), "\n   --ab   shown \n   --abcd also \n\n");
}

TEST(HelpOutputTest, HiddenGroupRecordDropsItsTitleButNotItsOptions) {
    GBOptionsHelper options;
    options.registerGroup("Hidden", "group", 0x80,
                          [](GBOptionsHelper& o) { o.registerOption('x', "x", "X", 2); });
    ASSERT_EQ(options.registeredOptions()[0]->flags(), 0x90u);
    EXPECT_EQ(helpOf(options), "\n-x --x X \n\n");
}

TEST(HelpOutputTest, HiddenSeparatorIsIgnoredEntirely) {
    GBOptionsHelper options;
    options.registerSeparator("Shown");
    // Were the hidden separator seen, it would replace "Shown" as empty.
    options.registerOption(0, "hidden-sep", "Hidden", 0x88);
    options.registerOption(0, "a", "A", 2);
    EXPECT_EQ(helpOf(options), "\n\nShown \n   --a A \n\n");
}

TEST(HelpOutputTest, GroupWithEmptyDescriptionPrintsItsNameAndOneBlank) {
    GBOptionsHelper options;
    options.registerGroup("Name", "", [](GBOptionsHelper&) {});
    options.registerGroup("Other", std::nullopt, [](GBOptionsHelper&) {});
    EXPECT_EQ(helpOf(options), "\n\nName \n\nOther \n\n");
}

TEST(HelpOutputTest, OptionWithoutDescriptionEndsWithTwoBlanksAfterThePaddedName) {
    GBOptionsHelper options;
    options.registerOption('n', "name", std::nullopt, 2);
    options.registerOption(0, "longer", "x", 2);
    EXPECT_EQ(helpOf(options), "\n-n --name    \n   --longer x \n\n");
}

TEST(HelpOutputTest, MissingOrNonAsciiShortNameShowsTwoBlanks) {
    GBOptionsHelper options;
    options.registerOption(0, "zero", "z", 2);
    options.registerOption(static_cast<std::int8_t>(0xE9), "high", "h", 2);
    options.registerOption(-1, "minus", "m", 2);
    options.registerOption('q', "quiet", "q", 2);
    EXPECT_EQ(helpOf(options), "\n   --zero  z \n   --high  h \n   --minus m \n-q --quiet q \n\n");
}

TEST(HelpOutputTest, RecordWithoutALongNameShowsNullInItsNameColumn) {
    GBOptionsHelper options;
    options.registerOption('x', std::nullopt, "Nameless", 2);
    options.registerOption(0, "a", "A", 0);
    EXPECT_EQ(helpOf(options), "\n-x --(null)    Nameless \n   --a <value> A \n\n");
}

TEST(HelpOutputTest, RequirementThreeHasNoValueMark) {
    GBOptionsHelper options;
    options.registerOption(0, "odd", "o", 3);
    EXPECT_EQ(helpOf(options), "\n   --odd o \n\n");
}

TEST(HelpOutputTest, PaddingCountsUtf16CodeUnits) {
    GBOptionsHelper options;
    // "é" is one unit (two UTF-8 bytes); the party popper is two units.
    options.registerOption(0, "\xC3\xA9\xC3\xA9\xC3\xA9", "three", 2);
    options.registerOption(0, "\xF0\x9F\x8E\x89", "two", 2);
    options.registerOption(0, "a", "one", 2);
    EXPECT_EQ(helpOf(options),
              "\n"
              "   --\xC3\xA9\xC3\xA9\xC3\xA9 three \n"
              "   --\xF0\x9F\x8E\x89  two \n"
              "   --a   one \n"
              "\n");
}

TEST(HelpOutputTest, HeaderAndFooterBlocksFrameTheRows) {
    GBOptionsHelper options;
    options.setPrintHelpHeader([] { return std::string("Usage: tool"); });
    options.setPrintHelpFooter([] { return std::string("Bye"); });
    options.registerOption(0, "a", "A", 2);
    EXPECT_EQ(helpOf(options), "Usage: tool\n   --a A \nBye\n");
}

TEST(VersionOutputTest, NameVersionAndBuildMakeTheVersionLine) {
    GBOptionsHelper options;
    options.setApplicationName([] { return std::string("tool"); });
    options.setApplicationVersion([] { return std::string("1.2"); });
    options.setApplicationBuild([] { return std::string("345"); });
    EXPECT_EQ(captureStdout([&] { options.printVersion(); }), "tool: version 1.2 (build 345)\n");
}

TEST(VersionOutputTest, WithoutBlocksTheVersionLineIsTheProcessName) {
    GBOptionsHelper options;
    EXPECT_EQ(captureStdout([&] { options.printVersion(); }), "cli_tests\n");
    EXPECT_EQ(options.applicationNameFromBlockOrDefault(), "cli_tests");
    EXPECT_FALSE(options.applicationVersionFromBlockOrNil().has_value());
    EXPECT_FALSE(options.applicationBuildFromBlockOrNil().has_value());
}

TEST(VersionOutputTest, BuildWithoutVersionFollowsTheNameDirectly) {
    GBOptionsHelper options;
    options.setApplicationName([] { return std::string("tool"); });
    options.setApplicationBuild([] { return std::string("345"); });
    EXPECT_EQ(captureStdout([&] { options.printVersion(); }), "tool (build 345)\n");
}

TEST(VersionOutputTest, VersionWithoutBuild) {
    GBOptionsHelper options;
    options.setApplicationName([] { return std::string("tool"); });
    options.setApplicationVersion([] { return std::string("1.2"); });
    EXPECT_EQ(captureStdout([&] { options.printVersion(); }), "tool: version 1.2\n");
}

TEST(PlaceholderTest, HeaderPlaceholdersAreReplacedWhenAllBlocksAreSet) {
    GBOptionsHelper options;
    options.setApplicationName([] { return std::string("tool"); });
    options.setApplicationVersion([] { return std::string("1.2"); });
    options.setApplicationBuild([] { return std::string("345"); });
    options.setPrintHelpHeader([] { return std::string("%APPNAME %APPVERSION"); });
    EXPECT_EQ(helpOf(options), "tool 1.2\n\n");
}

TEST(PlaceholderTest, NameStaysUnreplacedWithoutABuildBlock) {
    GBOptionsHelper options;
    options.setApplicationName([] { return std::string("tool"); });
    options.setApplicationVersion([] { return std::string("1.2"); });
    options.setPrintHelpHeader([] { return std::string("%APPNAME %APPVERSION"); });
    EXPECT_EQ(helpOf(options), "%APPNAME 1.2\n\n");
}

TEST(PlaceholderTest, EveryOccurrenceIsReplacedAndBuildFillsItsPlaceholder) {
    GBOptionsHelper options;
    options.setApplicationBuild([] { return std::string("7"); });
    const GBOptionsHelper::StringBlock text = [] {
        return std::string("%APPBUILD-%APPBUILD %APPVERSION");
    };
    EXPECT_EQ(captureStdout([&] { options.replacePlaceholdersAndPrintStringFromBlock(text); }),
              "7-7 %APPVERSION\n");
}

TEST(PlaceholderTest, AbsentBlockPrintsAnEmptyLine) {
    GBOptionsHelper options;
    EXPECT_EQ(captureStdout([&] { options.replacePlaceholdersAndPrintStringFromBlock({}); }), "\n");
}

TEST(PlaceholderTest, EachBlockIsAskedAgainAtEveryUse) {
    GBOptionsHelper options;
    int nameCalls = 0, versionCalls = 0, buildCalls = 0, textCalls = 0;
    options.setApplicationName([&] { return "n" + std::to_string(++nameCalls); });
    options.setApplicationVersion([&] { return "v" + std::to_string(++versionCalls); });
    options.setApplicationBuild([&] { return "b" + std::to_string(++buildCalls); });
    const GBOptionsHelper::StringBlock text = [&] {
        ++textCalls;
        return std::string("%APPNAME %APPVERSION %APPBUILD");
    };
    EXPECT_EQ(captureStdout([&] { options.replacePlaceholdersAndPrintStringFromBlock(text); }),
              "n1 v2 b3\n");
    EXPECT_EQ(textCalls, 1);
    EXPECT_EQ(nameCalls, 1);
    EXPECT_EQ(versionCalls, 2);
    EXPECT_EQ(buildCalls, 3);
}

TEST(PlaceholderTest, SubstitutedNameMayItselfCarryALaterPlaceholder) {
    GBOptionsHelper options;
    options.setApplicationName([] { return std::string("%APPVERSION"); });
    options.setApplicationVersion([] { return std::string("9"); });
    options.setApplicationBuild([] { return std::string("1"); });
    const GBOptionsHelper::StringBlock text = [] { return std::string("%APPNAME"); };
    EXPECT_EQ(captureStdout([&] { options.replacePlaceholdersAndPrintStringFromBlock(text); }),
              "9\n");
}

}  // namespace
}  // namespace cli
