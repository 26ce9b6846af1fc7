#include "cli/GBCommandLineParser.h"
#include "cli/GBOptionsHelper.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace cli {
namespace {

std::int64_t requirementOf(const GBCommandLineParser& parser, const std::string& name) {
    const auto found = parser.registeredOptionsByLongNames().find(name);
    if (found == parser.registeredOptionsByLongNames().end()) return -1;
    return found->second.objectForKey("requirement").integerValue();
}

bool isRegistered(const GBCommandLineParser& parser, const std::string& name) {
    return parser.registeredOptionsByLongNames().count(name) > 0;
}

TEST(GBOptionsHelperParserTest, ToolOptionsReachTheParserWithShortcutsAndRequirements) {
    GBOptionsHelper options;
    options.registerOption('c', "config", "Read configurations from file", 0);
    options.registerOption(0, "check", "Check configurations and exit", 2);
    options.registerOption('h', "help", "Print help and exit", 2);
    GBCommandLineParser parser;
    parser.registerOptions(options);
    EXPECT_EQ(requirementOf(parser, "config"), 0);
    EXPECT_EQ(requirementOf(parser, "check"), 2);
    EXPECT_EQ(requirementOf(parser, "no-check"), 2);
    EXPECT_EQ(requirementOf(parser, "help"), 2);
    ASSERT_EQ(parser.registeredOptionsByShortNames().size(), 2u);
    EXPECT_TRUE(parser.registeredOptionsByShortNames().at("c").isSameObject(
        parser.registeredOptionsByLongNames().at("config")));
    EXPECT_TRUE(parser.registeredOptionsByShortNames().at("h").isSameObject(
        parser.registeredOptionsByLongNames().at("help")));
}

TEST(GBOptionsHelperParserTest, SeparatorsAndNoCommandLineOptionsAreNotHandedOver) {
    GBOptionsHelper options;
    options.registerSeparator("Options");
    options.registerOption('x', "hidden", "not for the command line", 0x20);
    options.registerOption(0, "shown", "", 1);
    GBCommandLineParser parser;
    parser.registerOptions(options);
    EXPECT_FALSE(isRegistered(parser, "hidden"));
    EXPECT_TRUE(parser.registeredOptionsByShortNames().empty());
    EXPECT_EQ(requirementOf(parser, "shown"), 1);
    // The separator's title is not a name the parser knows.
    EXPECT_EQ(parser.registeredOptionsByLongNames().size(), 1u);
}

TEST(GBOptionsHelperParserTest, EmptyGroupIsOpenedAndClosedAtOnce) {
    GBOptionsHelper options;
    options.registerGroup("Advanced", "rarely needed", [](GBOptionsHelper&) {});
    options.registerOption(0, "after", "", 0);
    GBCommandLineParser parser;
    parser.registerOptions(options);
    ASSERT_EQ(parser.registeredOptionGroupsByNames().count("Advanced"), 1u);
    EXPECT_EQ(parser.registeredOptionGroupsByNames().at("Advanced").count(), 0u);
    EXPECT_TRUE(parser.currentOptionsGroupOptions().isNil());
    EXPECT_TRUE(isRegistered(parser, "after"));
}

TEST(GBOptionsHelperParserTest, GroupMembersAreRegisteredInsideTheGroup) {
    GBOptionsHelper options;
    options.registerGroup("Net", "", [](GBOptionsHelper& o) {
        o.registerOption(0, "host", "", 0);
        o.registerSeparator("ignored");
    });
    options.registerOption(0, "outside", "", 0);
    GBCommandLineParser parser;
    parser.registerOptions(options);
    const Value members = parser.registeredOptionGroupsByNames().at("Net");
    EXPECT_TRUE(members.containsObject("host"));
    EXPECT_FALSE(members.containsObject("outside"));
}

TEST(GBOptionsHelperParserTest, NoCommandLineGroupIsNotOpenedButItsEndStillCloses) {
    GBOptionsHelper options;
    options.registerGroup("Quiet", "", OptionFlagNoCommandLine,
                          [](GBOptionsHelper& o) { o.registerOption(0, "inner", "", 0); });
    ASSERT_EQ(options.registeredOptions()[0]->flags(), 0x30u);
    options.registerOption(0, "later", "", 0);
    GBCommandLineParser parser;
    parser.beginRegisterOptionGroup("Outer");
    parser.registerOptions(options);
    EXPECT_EQ(parser.registeredOptionGroupsByNames().count("Quiet"), 0u);
    const Value outer = parser.registeredOptionGroupsByNames().at("Outer");
    // "inner" still reached the parser, landing in the group that was open;
    // the end record closed that group before "later".
    EXPECT_TRUE(outer.containsObject("inner"));
    EXPECT_FALSE(outer.containsObject("later"));
    EXPECT_TRUE(isRegistered(parser, "later"));
    EXPECT_TRUE(parser.currentOptionsGroupOptions().isNil());
}

TEST(GBOptionsHelperParserTest, NoPrintAndNoHelpMarksDoNotKeepAnOptionFromTheParser) {
    GBOptionsHelper options;
    options.registerOption(0, "quiet", "", 0x42);
    options.registerOption(0, "secret", "", 0x80);
    GBCommandLineParser parser;
    parser.registerOptions(options);
    EXPECT_EQ(requirementOf(parser, "quiet"), 2);
    EXPECT_TRUE(isRegistered(parser, "no-quiet"));
    EXPECT_EQ(requirementOf(parser, "secret"), 0);
}

TEST(GBOptionsHelperParserTest, RequirementThreeIsHandedOverUnchanged) {
    GBOptionsHelper options;
    options.registerOption(0, "odd", "", 0x43);
    GBCommandLineParser parser;
    parser.registerOptions(options);
    EXPECT_EQ(requirementOf(parser, "odd"), 3);
    EXPECT_FALSE(isRegistered(parser, "no-odd"));
}

TEST(GBOptionsHelperParserTest, NonAsciiShortNameGivesNoShortcut) {
    GBOptionsHelper options;
    options.registerOption(static_cast<std::int8_t>(0xE9), "accent", "", 0);
    GBCommandLineParser parser;
    parser.registerOptions(options);
    EXPECT_TRUE(isRegistered(parser, "accent"));
    EXPECT_TRUE(parser.registeredOptionsByShortNames().empty());
}

TEST(GBOptionsHelperParserTest, RecordWithoutALongNameIsNotHandedOver) {
    GBOptionsHelper options;
    options.registerOption('x', std::nullopt, "Nameless switch", 2);
    options.registerOption(0, std::nullopt, "Nameless value", 0);
    options.registerOption(0, "", "Empty name", 1);
    options.registerOption(0, "named", "", 2);
    GBCommandLineParser parser;
    parser.registerOptions(options);
    EXPECT_EQ(parser.registeredOptionsByLongNames().size(), 2u);  // named, no-named
    EXPECT_TRUE(parser.registeredOptionsByShortNames().empty());
    EXPECT_FALSE(parser.parseOptionsWithArguments(std::vector<std::string>{"--", "-", "--no-"}, "",
                                                  [](GBParseFlags flags, auto&, auto&, bool*) {
                                                      EXPECT_EQ(flags, GBParseFlagUnknownOption);
                                                  }));
}

TEST(GBOptionsHelperParserTest, RecordsRegisteredAfterTheHandOverAreUnknownToTheParser) {
    GBOptionsHelper options;
    options.registerOption(0, "first", "", 0);
    GBCommandLineParser parser;
    parser.registerOptions(options);
    options.registerOption(0, "second", "", 0);
    EXPECT_TRUE(isRegistered(parser, "first"));
    EXPECT_FALSE(isRegistered(parser, "second"));
}

}  // namespace
}  // namespace cli
