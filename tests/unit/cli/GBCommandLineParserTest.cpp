#include "cli/GBCommandLineParser.h"

#include "ParseRecorder.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace cli {
namespace {

using test::Args;
using test::Recorder;
using test::texts;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// --- Registration ---

TEST(GBCommandLineParserRegistration, SwitchRegistersPlainAndNegatedLongNames) {
    GBCommandLineParser parser;
    parser.registerSwitch("verbose", 'v');
    const auto& byLong = parser.registeredOptionsByLongNames();
    ASSERT_EQ(byLong.size(), 2u);
    const Value plain = byLong.at("verbose");
    const Value negated = byLong.at("no-verbose");
    EXPECT_EQ(plain.objectForKey("long").stringValue(), "verbose");
    EXPECT_EQ(negated.objectForKey("long").stringValue(), "no-verbose");
    EXPECT_EQ(plain.objectForKey("requirement").integerValue(), 2);
    EXPECT_EQ(negated.objectForKey("requirement").integerValue(), 2);
    EXPECT_EQ(plain.objectForKey("short").integerValue(), 'v');
    EXPECT_TRUE(negated.objectForKey("short").isNil());
    ASSERT_EQ(parser.registeredOptionsByShortNames().size(), 1u);
    EXPECT_TRUE(parser.registeredOptionsByShortNames().at("v").isSameObject(plain));
}

TEST(GBCommandLineParserRegistration, RecordNumbersKeepTheirFactoryTypes) {
    GBCommandLineParser parser;
    parser.registerOption("config", 'c', GBValueRequired);
    const Value record = parser.registeredOptionsByLongNames().at("config");
    EXPECT_TRUE(record.isMutableDictionary());
    EXPECT_EQ(record.objectForKey("requirement").numberType(), Value::NumberType::UnsignedInteger);
    EXPECT_EQ(record.objectForKey("short").numberType(), Value::NumberType::Char);
    EXPECT_EQ(record.count(), 3u);
}

TEST(GBCommandLineParserRegistration, ShortcutZeroLeavesShortNamesUnchanged) {
    GBCommandLineParser parser;
    parser.registerOption("level", 0, GBValueRequired);
    EXPECT_TRUE(parser.registeredOptionsByShortNames().empty());
    const Value record = parser.registeredOptionsByLongNames().at("level");
    EXPECT_TRUE(record.objectForKey("short").isNil());
    EXPECT_EQ(record.count(), 2u);
}

TEST(GBCommandLineParserRegistration, NegativeShortcutByteGivesNoShortcut) {
    GBCommandLineParser parser;
    parser.registerOption("high", static_cast<char>(0xE9), GBValueOptional);
    EXPECT_TRUE(parser.registeredOptionsByShortNames().empty());
    EXPECT_TRUE(parser.registeredOptionsByLongNames().at("high").objectForKey("short").isNil());
}

TEST(GBCommandLineParserRegistration, SameRecordIsReachableByLongAndShortName) {
    GBCommandLineParser parser;
    parser.registerOption("config", 'c', GBValueRequired);
    const Value byLong = parser.optionDataForOption("--config", nullptr);
    const Value byShort = parser.optionDataForOption("-c", nullptr);
    ASSERT_FALSE(byLong.isNil());
    EXPECT_TRUE(byLong.isSameObject(byShort));
}

TEST(GBCommandLineParserRegistration, LaterDuplicateNameOrShortcutWins) {
    GBCommandLineParser parser;
    parser.registerOption("a", 'x', GBValueRequired);
    parser.registerOption("b", 'x', GBValueOptional);
    parser.registerOption("b", GBValueRequired);
    EXPECT_EQ(parser.registeredOptionsByShortNames().at("x").objectForKey("long").stringValue(),
              "b");
    EXPECT_EQ(
        parser.registeredOptionsByLongNames().at("b").objectForKey("requirement").integerValue(),
        0);
}

TEST(GBCommandLineParserRegistration, RequirementThreeGetsNoNegatedTwin) {
    GBCommandLineParser parser;
    parser.registerOption("odd", static_cast<GBOptionRequirement>(3));
    EXPECT_EQ(parser.registeredOptionsByLongNames().count("no-odd"), 0u);
    Recorder recorder;
    EXPECT_TRUE(parser.parseOptionsWithArguments(Args{"--odd"}, "", recorder.block()));
    ASSERT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(recorder.events[0].value.numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(recorder.events[0].value.boolValue());
}

TEST(GBCommandLineParserRegistration, GroupSetAnswersNoForTheNegatedSwitchName) {
    GBCommandLineParser parser;
    parser.beginRegisterOptionGroup("grp");
    parser.registerSwitch("verbose");
    parser.endRegisterOptionGroup();
    const Value set = parser.registeredOptionGroupsByNames().at("grp");
    ASSERT_EQ(set.count(), 2u);
    EXPECT_TRUE(set.containsObject(Value("verbose")));
    EXPECT_FALSE(set.containsObject(Value("no-verbose")));
    EXPECT_TRUE(set.containsObject(parser.registeredOptionsByLongNames().at("no-verbose")));
}

TEST(GBCommandLineParserRegistration, ShortcutsAreNotGroupMembers) {
    GBCommandLineParser parser;
    parser.beginRegisterOptionGroup("grp");
    parser.registerOption("level", 'l', GBValueRequired);
    parser.endRegisterOptionGroup();
    const Value set = parser.registeredOptionGroupsByNames().at("grp");
    EXPECT_EQ(texts(set), std::vector<std::string>{"level"});
}

TEST(GBCommandLineParserRegistration, SecondBeginOfOneGroupPrintsOnceAndJoinsTheFirstSet) {
    GBCommandLineParser parser;
    CaptureStderr();
    parser.beginRegisterOptionGroup("grp");
    parser.registerOption("first", GBValueRequired);
    parser.endRegisterOptionGroup();
    const std::string afterFirst = GetCapturedStderr();
    EXPECT_EQ(afterFirst, "");
    const Value firstSet = parser.registeredOptionGroupsByNames().at("grp");

    CaptureStderr();
    parser.beginRegisterOptionGroup("grp");
    parser.registerOption("second", GBValueRequired);
    parser.endRegisterOptionGroup();
    EXPECT_EQ(GetCapturedStderr(), "Group grp is already registered!");

    ASSERT_EQ(parser.registeredOptionGroupsByNames().size(), 1u);
    EXPECT_TRUE(parser.registeredOptionGroupsByNames().at("grp").isSameObject(firstSet));
    EXPECT_EQ(texts(firstSet), (std::vector<std::string>{"first", "second"}));
}

TEST(GBCommandLineParserRegistration, OptionsAfterEndBelongToNoGroup) {
    GBCommandLineParser parser;
    parser.beginRegisterOptionGroup("grp");
    parser.registerOption("inside", GBValueRequired);
    EXPECT_FALSE(parser.currentOptionsGroupOptions().isNil());
    parser.endRegisterOptionGroup();
    EXPECT_TRUE(parser.currentOptionsGroupOptions().isNil());
    EXPECT_FALSE(parser.currentOptionsGroupName().has_value());
    parser.registerOption("outside", GBValueRequired);
    const Value set = parser.registeredOptionGroupsByNames().at("grp");
    EXPECT_FALSE(set.containsObject(Value("outside")));
    EXPECT_EQ(set.count(), 1u);
}

TEST(GBCommandLineParserRegistration, RegisterSettingsAttachesTheLevel) {
    GBCommandLineParser parser;
    EXPECT_EQ(parser.settings(), nullptr);
    auto level = GBSettings::settingsWithName("Current", nullptr);
    parser.registerSettings(level);
    EXPECT_EQ(parser.settings(), level);
}

// --- Queries ---

TEST(GBCommandLineParserQueries, OptionDataSplitsAtTheLastEquals) {
    GBCommandLineParser parser;
    parser.registerOption("a=b", GBValueRequired);
    Value value;
    const Value record = parser.optionDataForOption("--a=b=c", &value);
    ASSERT_FALSE(record.isNil());
    EXPECT_EQ(record.objectForKey("long").stringValue(), "a=b");
    EXPECT_EQ(value.stringValue(), "c");
}

TEST(GBCommandLineParserQueries, SentinelsAreRecognisedByIdentity) {
    GBCommandLineParser parser;
    parser.beginRegisterOptionGroup("grp");
    parser.endRegisterOptionGroup();
    const Value group = parser.optionDataForOption("grp", nullptr);
    EXPECT_TRUE(group.isSameObject(GBCommandLineParser::optionGroupResult()));
    EXPECT_EQ(parser.currentOptionsGroupName(), "grp");
    const Value word = parser.optionDataForOption("word", nullptr);
    EXPECT_TRUE(word.isSameObject(GBCommandLineParser::notAnOptionResult()));
    // An option literally named "group" answers its record, not the sentinel.
    parser.registerOption("group", GBValueRequired);
    const Value record = parser.optionDataForOption("--group", nullptr);
    EXPECT_FALSE(record.isSameObject(GBCommandLineParser::optionGroupResult()));
    EXPECT_TRUE(record.isDictionary());
}

TEST(GBCommandLineParserQueries, NoBundlingOfShortOptions) {
    GBCommandLineParser parser;
    parser.registerSwitch("a", 'a');
    parser.registerSwitch("b", 'b');
    EXPECT_TRUE(parser.optionDataForOption("-ab", nullptr).isNil());
    EXPECT_FALSE(parser.optionDataForOption("-a", nullptr).isNil());
}

TEST(GBCommandLineParserQueries, OptionNameAndGroupNameTests) {
    GBCommandLineParser parser;
    parser.beginRegisterOptionGroup("grp");
    parser.endRegisterOptionGroup();
    EXPECT_TRUE(parser.isShortOrLongOptionName("--x"));
    EXPECT_TRUE(parser.isShortOrLongOptionName("-"));
    EXPECT_FALSE(parser.isShortOrLongOptionName("x-"));
    EXPECT_FALSE(parser.isShortOrLongOptionName(""));
    EXPECT_TRUE(parser.isOptionGroupName("grp"));
    EXPECT_FALSE(parser.isOptionGroupName("other"));
}

}  // namespace
}  // namespace cli
