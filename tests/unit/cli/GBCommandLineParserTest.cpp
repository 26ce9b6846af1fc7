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
    const GBOptionDataRef plain = byLong.at("verbose");
    const GBOptionDataRef negated = byLong.at("no-verbose");
    EXPECT_EQ(plain->longOption, "verbose");
    EXPECT_EQ(negated->longOption, "no-verbose");
    EXPECT_EQ(plain->requirement, GBValueNone);
    EXPECT_EQ(negated->requirement, GBValueNone);
    EXPECT_EQ(plain->shortOption, 'v');
    EXPECT_FALSE(negated->shortOption.has_value());
    EXPECT_FALSE(plain->negated);
    EXPECT_TRUE(negated->negated);
    ASSERT_EQ(parser.registeredOptionsByShortNames().size(), 1u);
    EXPECT_EQ(parser.registeredOptionsByShortNames().at("v"), plain);
}

TEST(GBCommandLineParserRegistration, ShortcutZeroLeavesShortNamesUnchanged) {
    GBCommandLineParser parser;
    parser.registerOption("level", 0, GBValueRequired);
    EXPECT_TRUE(parser.registeredOptionsByShortNames().empty());
    const GBOptionDataRef record = parser.registeredOptionsByLongNames().at("level");
    EXPECT_FALSE(record->shortOption.has_value());
    EXPECT_EQ(record->requirement, GBValueRequired);
}

TEST(GBCommandLineParserRegistration, NegativeShortcutByteGivesNoShortcut) {
    GBCommandLineParser parser;
    parser.registerOption("high", static_cast<char>(0xE9), GBValueOptional);
    EXPECT_TRUE(parser.registeredOptionsByShortNames().empty());
    EXPECT_FALSE(parser.registeredOptionsByLongNames().at("high")->shortOption.has_value());
}

TEST(GBCommandLineParserRegistration, SameRecordIsReachableByLongAndShortName) {
    GBCommandLineParser parser;
    parser.registerOption("config", 'c', GBValueRequired);
    const GBOptionLookup byLong = parser.optionDataForOption("--config", nullptr);
    const GBOptionLookup byShort = parser.optionDataForOption("-c", nullptr);
    ASSERT_EQ(byLong.kind, GBOptionLookup::option);
    ASSERT_NE(byLong.data, nullptr);
    EXPECT_EQ(byLong.data, byShort.data);
}

TEST(GBCommandLineParserRegistration, LaterDuplicateNameOrShortcutWins) {
    GBCommandLineParser parser;
    parser.registerOption("a", 'x', GBValueRequired);
    parser.registerOption("b", 'x', GBValueOptional);
    parser.registerOption("b", GBValueRequired);
    EXPECT_EQ(parser.registeredOptionsByShortNames().at("x")->longOption, "b");
    EXPECT_EQ(parser.registeredOptionsByLongNames().at("b")->requirement, GBValueRequired);
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
    const GBOptionGroup& set = *parser.registeredOptionGroupsByNames().at("grp");
    ASSERT_EQ(set.count(), 2u);
    EXPECT_TRUE(set.contains("verbose"));
    EXPECT_FALSE(set.contains("no-verbose"));
    ASSERT_EQ(set.twins.size(), 1u);
    EXPECT_EQ(set.twins[0], parser.registeredOptionsByLongNames().at("no-verbose"));
}

TEST(GBCommandLineParserRegistration, ShortcutsAreNotGroupMembers) {
    GBCommandLineParser parser;
    parser.beginRegisterOptionGroup("grp");
    parser.registerOption("level", 'l', GBValueRequired);
    parser.endRegisterOptionGroup();
    const GBOptionGroup& set = *parser.registeredOptionGroupsByNames().at("grp");
    EXPECT_EQ(set.longNames, std::vector<std::string>{"level"});
    EXPECT_EQ(set.count(), 1u);
}

TEST(GBCommandLineParserRegistration, SecondBeginOfOneGroupPrintsOnceAndJoinsTheFirstSet) {
    GBCommandLineParser parser;
    CaptureStderr();
    parser.beginRegisterOptionGroup("grp");
    parser.registerOption("first", GBValueRequired);
    parser.endRegisterOptionGroup();
    const std::string afterFirst = GetCapturedStderr();
    EXPECT_EQ(afterFirst, "");
    const GBOptionGroupRef firstSet = parser.registeredOptionGroupsByNames().at("grp");

    CaptureStderr();
    parser.beginRegisterOptionGroup("grp");
    parser.registerOption("second", GBValueRequired);
    parser.endRegisterOptionGroup();
    EXPECT_EQ(GetCapturedStderr(), "Group grp is already registered!");

    ASSERT_EQ(parser.registeredOptionGroupsByNames().size(), 1u);
    EXPECT_EQ(parser.registeredOptionGroupsByNames().at("grp"), firstSet);
    EXPECT_EQ(firstSet->longNames, (std::vector<std::string>{"first", "second"}));
}

TEST(GBCommandLineParserRegistration, OptionsAfterEndBelongToNoGroup) {
    GBCommandLineParser parser;
    parser.beginRegisterOptionGroup("grp");
    parser.registerOption("inside", GBValueRequired);
    EXPECT_NE(parser.currentOptionsGroupOptions(), nullptr);
    parser.endRegisterOptionGroup();
    EXPECT_EQ(parser.currentOptionsGroupOptions(), nullptr);
    EXPECT_FALSE(parser.currentOptionsGroupName().has_value());
    parser.registerOption("outside", GBValueRequired);
    const GBOptionGroup& set = *parser.registeredOptionGroupsByNames().at("grp");
    EXPECT_FALSE(set.contains("outside"));
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
    const GBOptionLookup record = parser.optionDataForOption("--a=b=c", &value);
    ASSERT_EQ(record.kind, GBOptionLookup::option);
    EXPECT_EQ(record.data->longOption, "a=b");
    EXPECT_EQ(value.stringValue(), "c");
}

TEST(GBCommandLineParserQueries, BareWordsAreGroupNamesOrNotOptions) {
    GBCommandLineParser parser;
    parser.beginRegisterOptionGroup("grp");
    parser.endRegisterOptionGroup();
    const GBOptionLookup group = parser.optionDataForOption("grp", nullptr);
    EXPECT_EQ(group.kind, GBOptionLookup::group);
    EXPECT_EQ(parser.currentOptionsGroupName(), "grp");
    EXPECT_EQ(parser.currentOptionsGroupOptions(),
              parser.registeredOptionGroupsByNames().at("grp"));
    const GBOptionLookup word = parser.optionDataForOption("word", nullptr);
    EXPECT_EQ(word.kind, GBOptionLookup::notAnOption);
    EXPECT_EQ(word.data, nullptr);
    // An option literally named "group" answers its record, not a group.
    parser.registerOption("group", GBValueRequired);
    const GBOptionLookup record = parser.optionDataForOption("--group", nullptr);
    EXPECT_EQ(record.kind, GBOptionLookup::option);
    EXPECT_EQ(record.data, parser.registeredOptionsByLongNames().at("group"));
}

TEST(GBCommandLineParserQueries, NoBundlingOfShortOptions) {
    GBCommandLineParser parser;
    parser.registerSwitch("a", 'a');
    parser.registerSwitch("b", 'b');
    EXPECT_EQ(parser.optionDataForOption("-ab", nullptr).kind, GBOptionLookup::unknown);
    EXPECT_EQ(parser.optionDataForOption("-a", nullptr).kind, GBOptionLookup::option);
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
