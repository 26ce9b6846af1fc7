#include "cli/GBOptionsHelper.h"
#include "cli/GBSettings.h"
#include "tests/unit/cli/CaptureStdout.h"

#include <gtest/gtest.h>

#include <string>

namespace cli {
namespace {

using test::captureStdout;

std::string reportOf(GBOptionsHelper& options, GBSettings& settings) {
    return options.valuesTextFromSettings(settings);
}

struct TwoLevels {
    GBSettingsRef factory = GBSettings::settingsWithName("Factory", nullptr);
    GBSettingsRef current = GBSettings::settingsWithName("Current", factory);
};

TEST(ValuesReportTest, TableShowsEachLevelsValueAndWhereEachArgumentCameFrom) {
    GBOptionsHelper options;
    options.registerOption('c', "config", "Read configurations from file", 0);
    options.registerOption(0, "verbose", "Print verbose logs", 2);
    TwoLevels levels;
    levels.current->setObject("a.conf", "config");
    levels.factory->setObject("b.conf", "config");
    levels.factory->setBool(false, "verbose");
    levels.current->addArgument("x");
    EXPECT_EQ(reportOf(options, *levels.current),
              "\n"
              "\n"
              "- x (Current)\n"
              "\n"
              "\n"
              "Option  Current Factory \n"
              "config  a.conf  b.conf  \n"
              "verbose         0       \n"
              "\n");
}

TEST(ValuesReportTest, WithOneLevelArgumentsCarryNoLevelName) {
    GBOptionsHelper options;
    options.registerOption('c', "config", "", 0);
    GBSettingsRef only = GBSettings::settingsWithName("Only", nullptr);
    only->setObject("a.conf", "config");
    only->addArgument("x");
    only->addArgument("y");
    EXPECT_EQ(reportOf(options, *only), "\n\n- x\n- y\n\n\nOption Only   \nconfig a.conf \n\n");
}

TEST(ValuesReportTest, ArgumentFromTheParentIsAttributedToTheParent) {
    GBOptionsHelper options;
    TwoLevels levels;
    levels.factory->addArgument("from-factory");
    levels.current->addArgument("from-current");
    EXPECT_EQ(reportOf(options, *levels.current),
              "\n\n- from-current (Current)\n- from-factory (Factory)\n\n\n"
              "Option Current Factory \n\n");
}

TEST(ValuesReportTest, LevelWithoutValuesStillHasAPaddedColumn) {
    GBOptionsHelper options;
    options.registerOption(0, "name", "", 0);
    TwoLevels levels;
    levels.factory->setObject("value", "name");
    EXPECT_EQ(reportOf(options, *levels.current),
              "\n\nOption Current Factory \nname           value   \n\n");
}

TEST(ValuesReportTest, NoPrintOptionIsLeftOutAndNoHelpOptionIsKept) {
    GBOptionsHelper options;
    options.registerOption(0, "secret", "not printed", 0x42);
    options.registerOption(0, "internal", "not in help", 0x80);
    GBSettingsRef only = GBSettings::settingsWithName("L", nullptr);
    only->setObject("s", "secret");
    only->setObject("i", "internal");
    EXPECT_EQ(reportOf(options, *only), "\n\nOption   L \ninternal i \n\n");
    const std::string help = options.helpText();
    EXPECT_NE(help.find("--secret"), std::string::npos);
    EXPECT_EQ(help.find("--internal"), std::string::npos);
}

TEST(ValuesReportTest, ArrayOptionShowsOnlyEachLevelsOwnItems) {
    GBOptionsHelper options;
    options.registerOption('i', "include", "", 0);
    TwoLevels levels;
    levels.current->registerArrayForKey("include");
    levels.factory->registerArrayForKey("include");
    levels.current->setObject("a", "include");
    levels.current->setObject("b", "include");
    levels.factory->setObject("c", "include");
    EXPECT_EQ(reportOf(options, *levels.current),
              "\n\nOption  Current Factory \ninclude a, b    c       \n\n");
}

TEST(ValuesReportTest, EmptyArgumentsListPrintsNeitherItsHeaderNorItsBlankLine) {
    GBOptionsHelper options;
    options.setPrintValuesHeader([] { return std::string("VALUES"); });
    options.setPrintValuesArgumentsHeader([] { return std::string("ARGUMENTS"); });
    options.setPrintValuesOptionsHeader([] { return std::string("OPTIONS"); });
    options.setPrintValuesFooter([] { return std::string("END"); });
    GBSettingsRef only = GBSettings::settingsWithName("L", nullptr);
    EXPECT_EQ(reportOf(options, *only), "VALUES\nOPTIONS\nOption L \nEND\n");
    only->addArgument("x");
    EXPECT_EQ(reportOf(options, *only), "VALUES\nARGUMENTS\n- x\n\nOPTIONS\nOption L \nEND\n");
}

TEST(ValuesReportTest, HeaderBlocksGetPlaceholdersReplaced) {
    GBOptionsHelper options;
    options.setApplicationName([] { return std::string("tool"); });
    options.setApplicationBuild([] { return std::string("9"); });
    options.setPrintValuesHeader([] { return std::string("%APPNAME build %APPBUILD"); });
    GBSettingsRef only = GBSettings::settingsWithName("L", nullptr);
    EXPECT_EQ(reportOf(options, *only), "tool build 9\n\nOption L \n\n");
}

TEST(ValuesReportTest, TrailingSeparatorIsDroppedWithItsBlankRow) {
    GBOptionsHelper options;
    options.registerOption(0, "a", "", 0);
    options.registerSeparator("Trailing");
    GBSettingsRef only = GBSettings::settingsWithName("L", nullptr);
    EXPECT_EQ(reportOf(options, *only), "\n\nOption L \na        \n\n");
}

TEST(ValuesReportTest, TwoSeparatorsInARowLeaveOnlyTheSecond) {
    GBOptionsHelper options;
    options.registerSeparator("First");
    options.registerSeparator("Second");
    options.registerOption(0, "a", "", 0);
    GBSettingsRef only = GBSettings::settingsWithName("L", nullptr);
    EXPECT_EQ(reportOf(options, *only), "\n\nOption L \n\nSecond \na        \n\n");
}

TEST(ValuesReportTest, GroupTitlesAreNotPaddedAndLongTitlesGetNoBlank) {
    GBOptionsHelper options;
    options.registerGroup("Network", "server options",
                          [](GBOptionsHelper& o) { o.registerOption(0, "host", "", 0); });
    options.registerGroup("G", "", [](GBOptionsHelper&) {});
    GBSettingsRef only = GBSettings::settingsWithName("L", nullptr);
    only->setObject("example.org", "host");
    // "Network server options" is wider than column 0 and gets no blank;
    // "G" fits and is padded to the column's width plus one.
    EXPECT_EQ(reportOf(options, *only),
              "\n\nOption L           \n\nNetwork server options\n"
              "host   example.org \n\nG      \n\n");
}

TEST(ValuesReportTest, CellsUseTheValuesTextFormAndUtf16Widths) {
    GBOptionsHelper options;
    options.registerOption(0, "n", "", 0);
    options.registerOption(0, "s", "", 0);
    GBSettingsRef only = GBSettings::settingsWithName("\xC3\xA9t\xC3\xA9", nullptr);
    only->setInteger(42, "n");
    only->setObject("\xF0\x9F\x8E\x89", "s");
    // The level name is three units wide; the emoji is two.
    EXPECT_EQ(reportOf(options, *only),
              "\n\nOption \xC3\xA9t\xC3\xA9 \nn      42  \ns      \xF0\x9F\x8E\x89  \n\n");
}

TEST(ValuesReportTest, ColumnsFollowTheChainOutwardFromTheGivenLevel) {
    GBOptionsHelper options;
    options.registerOption(0, "k", "", 0);
    GBSettingsRef base = GBSettings::settingsWithName("Base", nullptr);
    GBSettingsRef middle = GBSettings::settingsWithName("Middle", base);
    GBSettingsRef top = GBSettings::settingsWithName("Top", middle);
    base->setObject("1", "k");
    top->setObject("3", "k");
    EXPECT_EQ(reportOf(options, *middle), "\n\nOption Middle Base \nk             1    \n\n");
    EXPECT_EQ(reportOf(options, *top), "\n\nOption Top Middle Base \nk      3          1    \n\n");
}

TEST(ValuesReportTest, PrintValuesWritesTheReportToStandardOutput) {
    GBOptionsHelper options;
    options.registerOption('c', "config", "", 0);
    GBSettingsRef only = GBSettings::settingsWithName("Only", nullptr);
    only->setObject("a.conf", "config");
    const std::string text = options.valuesTextFromSettings(*only);
    EXPECT_EQ(text, "\n\nOption Only   \nconfig a.conf \n\n");
    EXPECT_EQ(captureStdout([&] { options.printValuesFromSettings(*only); }), text);
}

TEST(ValuesReportTest, ArgumentWithANulIsCutThereButItsLevelIsStillNamed) {
    GBOptionsHelper options;
    TwoLevels levels;
    levels.current->addArgument(std::string("a\0b", 3));
    EXPECT_EQ(options.valuesTextFromSettings(*levels.current),
              "\n\n- a (Current)\n\n\nOption Current Factory \n\n");
}

}  // namespace
}  // namespace cli
