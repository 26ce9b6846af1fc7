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

// --- Parsing ---

class GBCommandLineParserParse : public testing::Test {
  protected:
    void SetUp() override {
        parser.registerSwitch("verbose", 'v');
        parser.registerOption("level", 'l', GBValueRequired);
        parser.registerOption("other", GBValueRequired);
        parser.registerOption("opt", GBValueOptional);
        parser.registerSettings(settings);
    }

    bool parse(const Args& args) {
        return parser.parseOptionsWithArguments(args, "tool", recorder.block());
    }

    GBCommandLineParser parser;
    GBSettingsRef settings = GBSettings::settingsWithName("Current", nullptr);
    Recorder recorder;
};

TEST_F(GBCommandLineParserParse, EmptyArgumentListReturnsYesWithNoEvents) {
    EXPECT_TRUE(parse({}));
    EXPECT_TRUE(recorder.events.empty());
    EXPECT_EQ(parser.arguments().count(), 0u);
    EXPECT_FALSE(parser.arguments().isMutableArray());
}

TEST_F(GBCommandLineParserParse, JoinedNoForASwitchGivesNoUnderTheName) {
    EXPECT_TRUE(parse({"--verbose=no"}));
    const Value value = parser.valueForOption("verbose");
    EXPECT_EQ(value.numberType(), Value::NumberType::Bool);
    EXPECT_FALSE(value.boolValue());
    EXPECT_TRUE(value.isEqual(Value::numberWithBool(false)));
}

TEST_F(GBCommandLineParserParse, JoinedNoForANegatedSwitchGivesIntegerOne) {
    EXPECT_TRUE(parse({"--no-verbose=no"}));
    const Value value = parser.valueForOption("no-verbose");
    EXPECT_EQ(value.numberType(), Value::NumberType::Int);
    EXPECT_EQ(value.integerValue(), 1);
    EXPECT_TRUE(parser.valueForOption("verbose").isNil());
    EXPECT_TRUE(parse({"--no-verbose=yes"}));
    EXPECT_EQ(parser.valueForOption("no-verbose").numberType(), Value::NumberType::Int);
    EXPECT_EQ(parser.valueForOption("no-verbose").integerValue(), 0);
}

TEST_F(GBCommandLineParserParse, NegatedSwitchGivesNoUnderTheTwinNameOnly) {
    EXPECT_TRUE(parse({"--no-verbose"}));
    ASSERT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagOption);
    EXPECT_EQ(recorder.events[0].option, "no-verbose");
    const Value value = parser.valueForOption("no-verbose");
    EXPECT_EQ(value.numberType(), Value::NumberType::Bool);
    EXPECT_FALSE(value.boolValue());
    EXPECT_TRUE(parser.valueForOption("verbose").isNil());
}

TEST(GBCommandLineParserNames, SwitchNamedWithANoPrefixIsNotANegation) {
    GBCommandLineParser parser;
    parser.registerSwitch("no-cache");
    Recorder recorder;
    EXPECT_TRUE(parser.parseOptionsWithArguments(Args{"--no-cache"}, "", recorder.block()));
    Value value = parser.valueForOption("no-cache");
    EXPECT_EQ(value.numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(value.boolValue());
    EXPECT_TRUE(parser.parseOptionsWithArguments(Args{"--no-cache=yes"}, "", recorder.block()));
    value = parser.valueForOption("no-cache");
    EXPECT_EQ(value.numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(value.boolValue());
    EXPECT_TRUE(parser.parseOptionsWithArguments(Args{"--no-no-cache"}, "", recorder.block()));
    EXPECT_FALSE(parser.valueForOption("no-no-cache").boolValue());
}

TEST(GBCommandLineParserNames, RequirementThreeNamedWithANoPrefixIsNotANegation) {
    GBCommandLineParser parser;
    parser.registerOption("no-cache", static_cast<GBOptionRequirement>(3));
    Recorder recorder;
    EXPECT_TRUE(parser.parseOptionsWithArguments(Args{"--no-cache"}, "", recorder.block()));
    EXPECT_EQ(parser.valueForOption("no-cache").numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(parser.valueForOption("no-cache").boolValue());
    EXPECT_TRUE(parser.parseOptionsWithArguments(Args{"--no-cache=yes"}, "", recorder.block()));
    EXPECT_EQ(parser.valueForOption("no-cache").numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(parser.valueForOption("no-cache").boolValue());
    EXPECT_TRUE(parser.parseOptionsWithArguments(Args{"--no-cache=no"}, "", recorder.block()));
    EXPECT_EQ(parser.valueForOption("no-cache").numberType(), Value::NumberType::Bool);
    EXPECT_FALSE(parser.valueForOption("no-cache").boolValue());
}

// The value --no-cache parses to after registering two switches in turn.
Value noCacheAfterRegistering(const std::string& first, const std::string& second) {
    GBCommandLineParser parser;
    parser.registerSwitch(first);
    parser.registerSwitch(second);
    Recorder recorder;
    EXPECT_TRUE(parser.parseOptionsWithArguments(Args{"--no-cache"}, "", recorder.block()));
    return parser.valueForOption("no-cache");
}

TEST(GBCommandLineParserNames, LaterOfASwitchAndATwinOfOneNameDecidesTheNegation) {
    EXPECT_TRUE(noCacheAfterRegistering("cache", "no-cache").boolValue());
    EXPECT_FALSE(noCacheAfterRegistering("no-cache", "cache").boolValue());
}

TEST_F(GBCommandLineParserParse, SwitchByShortcutReportsTheLongNameWithYes) {
    EXPECT_TRUE(parse({"-v"}));
    ASSERT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(recorder.events[0].option, "verbose");
    EXPECT_EQ(recorder.events[0].value.numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(recorder.events[0].value.boolValue());
}

TEST_F(GBCommandLineParserParse, RequiredOptionConsumesTheFollowingWord) {
    EXPECT_TRUE(parse({"--level", "3", "rest"}));
    ASSERT_EQ(recorder.events.size(), 2u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagOption);
    EXPECT_EQ(recorder.events[0].option, "level");
    EXPECT_TRUE(recorder.events[0].value.isString());
    EXPECT_EQ(recorder.events[0].value.stringValue(), "3");
    EXPECT_EQ(recorder.events[1].flags, GBParseFlagArgument);
    EXPECT_EQ(texts(parser.arguments()), std::vector<std::string>{"rest"});
}

TEST_F(GBCommandLineParserParse, ShortJoinedValueIsTaken) {
    EXPECT_TRUE(parse({"-l=7"}));
    EXPECT_EQ(parser.valueForOption("level").stringValue(), "7");
}

TEST_F(GBCommandLineParserParse, RequiredOptionBeforeAnOptionReportsMissingValueCarryingIt) {
    EXPECT_TRUE(parse({"--level", "--other", "x"}));
    ASSERT_EQ(recorder.events.size(), 2u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagMissingValue);
    EXPECT_EQ(recorder.events[0].option, "level");
    EXPECT_EQ(recorder.events[0].value.stringValue(), "--other");
    EXPECT_EQ(recorder.events[1].flags, GBParseFlagOption);
    EXPECT_EQ(recorder.events[1].option, "other");
    EXPECT_EQ(recorder.events[1].value.stringValue(), "x");
    EXPECT_EQ(parser.valueForOption("level").stringValue(), "--other");
}

TEST_F(GBCommandLineParserParse, SimplifiedMissingValueWritesNothingToSettings) {
    CaptureStderr();
    const bool result = parser.parseOptionsWithArguments(Args{"--level", "--other", "x"}, "tool");
    EXPECT_EQ(GetCapturedStderr(), "Missing value for command line option level, try --help!\n");
    EXPECT_TRUE(result);  // a missing value alone does not fail the parse
    EXPECT_EQ(parser.valueForOption("level").stringValue(), "--other");
    EXPECT_TRUE(settings->objectForKey("level").isNil());
    EXPECT_EQ(settings->objectForKey("other").stringValue(), "x");
}

TEST_F(GBCommandLineParserParse, RequiredOptionLastReportsMissingValueWithNil) {
    EXPECT_TRUE(parse({"--level"}));
    ASSERT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagMissingValue);
    EXPECT_TRUE(recorder.events[0].value.isNil());
    EXPECT_EQ(parser.parsedOptions().count(), 0u);
}

TEST_F(GBCommandLineParserParse, RequiredOptionBeforeGroupNameReportsMissingValue) {
    parser.beginRegisterOptionGroup("grp");
    parser.endRegisterOptionGroup();
    EXPECT_TRUE(parse({"--level", "grp"}));
    ASSERT_EQ(recorder.events.size(), 2u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagMissingValue);
    EXPECT_EQ(recorder.events[0].value.stringValue(), "grp");
    EXPECT_EQ(recorder.events[1].option, "grp");
}

TEST_F(GBCommandLineParserParse, OptionalOptionConsumesAPositionalWord) {
    EXPECT_TRUE(parse({"--opt", "word"}));
    ASSERT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(recorder.events[0].value.stringValue(), "word");
    EXPECT_EQ(parser.arguments().count(), 0u);
}

TEST_F(GBCommandLineParserParse, OptionalOptionWithoutValueIsYes) {
    EXPECT_TRUE(parse({"--opt", "-v"}));
    ASSERT_EQ(recorder.events.size(), 2u);
    EXPECT_EQ(recorder.events[0].value.numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(recorder.events[0].value.boolValue());
    EXPECT_TRUE(parse({"--opt"}));
    EXPECT_TRUE(parser.valueForOption("opt").boolValue());
    EXPECT_TRUE(parse({"--opt=text"}));
    EXPECT_EQ(parser.valueForOption("opt").stringValue(), "text");
}

TEST_F(GBCommandLineParserParse, FirstPositionalWordEndsOptionProcessing) {
    EXPECT_TRUE(parse({"file1", "--verbose", "-x"}));
    ASSERT_EQ(recorder.events.size(), 3u);
    for (const auto& event : recorder.events) {
        EXPECT_EQ(event.flags, GBParseFlagArgument);
        EXPECT_FALSE(event.option.has_value());
    }
    EXPECT_EQ(texts(parser.arguments()), (std::vector<std::string>{"file1", "--verbose", "-x"}));
    EXPECT_EQ(parser.parsedOptions().count(), 0u);
}

TEST_F(GBCommandLineParserParse, UnknownJoinedOptionReportsArgumentAndValue) {
    EXPECT_FALSE(parse({"--unknown=5"}));
    ASSERT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagUnknownOption);
    EXPECT_EQ(recorder.events[0].option, "--unknown=5");
    EXPECT_TRUE(recorder.events[0].value.isString());
    EXPECT_EQ(recorder.events[0].value.stringValue(), "5");
    EXPECT_EQ(parser.parsedOptions().objectForKey("--unknown=5").stringValue(), "5");
}

TEST_F(GBCommandLineParserParse, LoneDashesAreUnknownOptions) {
    EXPECT_FALSE(parse({"-"}));
    ASSERT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagUnknownOption);
    EXPECT_EQ(recorder.events[0].option, "-");
    recorder.events.clear();
    EXPECT_FALSE(parse({"--"}));
    ASSERT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagUnknownOption);
    EXPECT_EQ(recorder.events[0].option, "--");
    EXPECT_TRUE(recorder.events[0].value.isNil());
}

TEST(GBCommandLineParserNames, NamelessRegistrationsLeaveLoneDashesUnknown) {
    GBCommandLineParser parser;
    parser.registerSwitch("", 'x');
    parser.registerOption("", GBValueRequired);
    parser.registerOption("", GBValueOptional);
    EXPECT_TRUE(parser.registeredOptionsByLongNames().empty());
    EXPECT_TRUE(parser.registeredOptionsByShortNames().empty());
    Recorder recorder;
    EXPECT_FALSE(parser.parseOptionsWithArguments(Args{"--", "-", "--no-", "--=1", "-x"}, "",
                                                  recorder.block()));
    ASSERT_EQ(recorder.events.size(), 5u);
    for (const auto& event : recorder.events) {
        EXPECT_EQ(event.flags, GBParseFlagUnknownOption) << *event.option;
    }
}

TEST_F(GBCommandLineParserParse, UnknownOptionDoesNotTakeTheNextWord) {
    EXPECT_FALSE(parse({"--nope", "word"}));
    ASSERT_EQ(recorder.events.size(), 2u);
    EXPECT_EQ(recorder.events[1].flags, GBParseFlagArgument);
    EXPECT_TRUE(parser.parsedOptions().objectForKey("--nope").isNil());
}

class GBCommandLineParserGroups : public GBCommandLineParserParse {
  protected:
    void SetUp() override {
        GBCommandLineParserParse::SetUp();
        parser.beginRegisterOptionGroup("build");
        parser.registerOption("target", 't', GBValueRequired);
        parser.registerSwitch("fast");
        parser.endRegisterOptionGroup();
        parser.beginRegisterOptionGroup("clean");
        parser.registerSwitch("all");
        parser.endRegisterOptionGroup();
    }
};

TEST_F(GBCommandLineParserGroups, GroupNameThenItsOptionGivesTwoOptionEvents) {
    EXPECT_TRUE(parse({"build", "--target", "x"}));
    ASSERT_EQ(recorder.events.size(), 2u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagOption);
    EXPECT_EQ(recorder.events[0].option, "build");
    EXPECT_EQ(recorder.events[0].value.numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(recorder.events[0].value.boolValue());
    EXPECT_EQ(recorder.events[1].flags, GBParseFlagOption);
    EXPECT_EQ(recorder.events[1].option, "target");
    EXPECT_TRUE(parser.valueForOption("build").isNil());  // groups are not recorded
    EXPECT_EQ(parser.currentOptionsGroupName(), "build");
}

TEST_F(GBCommandLineParserGroups, OptionOfNoGroupAfterAGroupNameIsRefused) {
    EXPECT_FALSE(parse({"build", "--verbose=yes", "--level", "v"}));
    ASSERT_EQ(recorder.events.size(), 4u);
    EXPECT_EQ(recorder.events[1].flags, GBParseFlagWrongGroup);
    EXPECT_EQ(recorder.events[1].option, "--verbose=yes");
    EXPECT_EQ(recorder.events[1].value.stringValue(), "yes");
    EXPECT_EQ(parser.parsedOptions().objectForKey("--verbose=yes").stringValue(), "yes");
    // No value is taken from the next word for a refused option.
    EXPECT_EQ(recorder.events[2].flags, GBParseFlagWrongGroup);
    EXPECT_EQ(recorder.events[2].option, "--level");
    EXPECT_TRUE(recorder.events[2].value.isNil());
    EXPECT_EQ(recorder.events[3].flags, GBParseFlagArgument);
}

TEST_F(GBCommandLineParserGroups, NegatedSwitchInsideAGroupIsAlwaysRefused) {
    EXPECT_FALSE(parse({"build", "--no-fast"}));
    ASSERT_EQ(recorder.events.size(), 2u);
    EXPECT_EQ(recorder.events[1].flags, GBParseFlagWrongGroup);
    EXPECT_TRUE(parse({"build", "--fast"}));
}

TEST_F(GBCommandLineParserGroups, AnotherGroupNameSwitchesTheSelection) {
    EXPECT_FALSE(parse({"build", "--all", "clean", "--all", "--target=x"}));
    ASSERT_EQ(recorder.events.size(), 5u);
    EXPECT_EQ(recorder.events[1].flags, GBParseFlagWrongGroup);
    EXPECT_EQ(recorder.events[3].flags, GBParseFlagOption);
    EXPECT_EQ(recorder.events[4].flags, GBParseFlagWrongGroup);
}

TEST_F(GBCommandLineParserGroups, NewParseDeselectsTheGroupButKeepsItsName) {
    EXPECT_TRUE(parse({"build"}));
    EXPECT_TRUE(parse({"--verbose"}));
    EXPECT_TRUE(parser.currentOptionsGroupOptions().isNil());
    EXPECT_EQ(parser.currentOptionsGroupName(), "build");
}

TEST_F(GBCommandLineParserGroups, SimplifiedWrongGroupMessageNamesTheGroup) {
    CaptureStderr();
    EXPECT_FALSE(parser.parseOptionsWithArguments(Args{"build", "--verbose", "--fast"}, "tool"));
    EXPECT_EQ(GetCapturedStderr(), "Invalid option --verbose for group build!\n");
    EXPECT_TRUE(settings->boolForKey("build"));
    EXPECT_TRUE(settings->boolForKey("fast"));
    EXPECT_TRUE(settings->objectForKey("verbose").isNil());
}

TEST_F(GBCommandLineParserParse, BlockStoppingAtFirstEventEndsTheParse) {
    recorder.stopAt = 0;
    EXPECT_FALSE(parse({"--verbose", "--level", "3", "arg"}));
    EXPECT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(parser.parsedOptions().count(), 0u);  // nothing recorded for the stopped event
    EXPECT_EQ(parser.arguments().count(), 0u);
}

TEST_F(GBCommandLineParserParse, BlockStoppingAtAnArgumentEndsTheParse) {
    recorder.stopAt = 0;
    EXPECT_FALSE(parse({"a", "b"}));
    EXPECT_EQ(recorder.events.size(), 1u);
    EXPECT_EQ(texts(parser.arguments()), std::vector<std::string>{"a"});
}

TEST_F(GBCommandLineParserGroups, StopDuringAGroupEventIsNoticedAfterTheNextEvent) {
    recorder.stopAt = 0;
    EXPECT_FALSE(parse({"build", "--fast", "--target=x"}));
    ASSERT_EQ(recorder.events.size(), 2u);
    EXPECT_EQ(recorder.events[1].option, "fast");
    EXPECT_EQ(parser.parsedOptions().count(), 0u);
}

TEST_F(GBCommandLineParserGroups, StopDuringAFinalGroupEventKeepsTheResult) {
    recorder.stopAt = 0;
    EXPECT_TRUE(parse({"build"}));
    EXPECT_EQ(recorder.events.size(), 1u);
}

TEST_F(GBCommandLineParserParse, EachParseStartsWithEmptyResults) {
    EXPECT_TRUE(parse({"--level=1", "a"}));
    EXPECT_TRUE(parse({"--verbose"}));
    EXPECT_TRUE(parser.valueForOption("level").isNil());
    EXPECT_EQ(parser.arguments().count(), 0u);
}

TEST_F(GBCommandLineParserParse, ArgumentsIsACopy) {
    EXPECT_TRUE(parse({"a"}));
    const Value copy = parser.arguments();
    EXPECT_TRUE(parse({"b", "c"}));
    EXPECT_EQ(texts(copy), std::vector<std::string>{"a"});
}

TEST_F(GBCommandLineParserParse, EmptyStringsArePositionalOrValues) {
    EXPECT_TRUE(parse({"--level", "", "", "--verbose"}));
    ASSERT_EQ(recorder.events.size(), 3u);
    EXPECT_EQ(recorder.events[0].flags, GBParseFlagOption);
    EXPECT_TRUE(recorder.events[0].value.isString());
    EXPECT_EQ(recorder.events[0].value.stringValue(), "");
    EXPECT_EQ(texts(parser.arguments()), (std::vector<std::string>{"", "--verbose"}));
    EXPECT_TRUE(parse({"--level="}));
    EXPECT_TRUE(parser.valueForOption("level").isString());
    EXPECT_EQ(parser.valueForOption("level").stringValue(), "");
}

TEST_F(GBCommandLineParserParse, InvalidUTF8IsKeptByteForByte) {
    const std::string bad = "\xff\xfe";
    const char* argv[] = {"tool", "--\xc3", "\xff\xfe"};
    CaptureStderr();
    EXPECT_FALSE(parser.parseOptionsWithArguments(argv, 3));
    EXPECT_EQ(GetCapturedStderr(), "Unknown command line option --\xc3, try --help!\n");
    ASSERT_EQ(parser.arguments().count(), 1u);
    EXPECT_EQ(parser.arguments().objectAtIndex(0).stringValue(), bad);
    EXPECT_EQ(settings->arguments().objectAtIndex(0).stringValue(), bad);
    EXPECT_EQ(parser.arguments().description(), "(\n    \"\\Ufffd\\Ufffd\"\n)");
}

TEST_F(GBCommandLineParserParse, ArgvFormSkipsTheProgramName) {
    const char* argv[] = {"/usr/bin/tool", "-v", "file"};
    EXPECT_TRUE(parser.parseOptionsWithArguments(argv, 3, recorder.block()));
    ASSERT_EQ(recorder.events.size(), 2u);
    EXPECT_EQ(recorder.events[0].option, "verbose");
    EXPECT_EQ(texts(parser.arguments()), std::vector<std::string>{"file"});
}

TEST_F(GBCommandLineParserParse, ArgvFormWithCountZeroTouchesNothing) {
    EXPECT_TRUE(parse({"--level=2", "kept"}));
    recorder.events.clear();
    EXPECT_TRUE(parser.parseOptionsWithArguments(nullptr, 0, recorder.block()));
    EXPECT_TRUE(recorder.events.empty());
    EXPECT_EQ(parser.valueForOption("level").stringValue(), "2");
    EXPECT_EQ(texts(parser.arguments()), std::vector<std::string>{"kept"});
}

TEST_F(GBCommandLineParserParse, HundredThousandArgumentsAreParsed) {
    Args args;
    args.reserve(100000);
    for (int i = 0; i < 50000; ++i)
        args.push_back(i % 2 == 0 ? "-v" : "--level=" + std::to_string(i));
    for (int i = 0; i < 50000; ++i) args.push_back("arg" + std::to_string(i));
    EXPECT_TRUE(parser.parseOptionsWithArguments(args, "tool"));
    EXPECT_EQ(parser.valueForOption("level").stringValue(), "49999");
    EXPECT_TRUE(settings->boolForKey("verbose"));
    const Value arguments = parser.arguments();
    ASSERT_EQ(arguments.count(), 50000u);
    EXPECT_EQ(arguments.objectAtIndex(0).stringValue(), "arg0");
    EXPECT_EQ(arguments.objectAtIndex(49999).stringValue(), "arg49999");
    EXPECT_EQ(settings->arguments().count(), 50000u);
}

// --- The simplified block ---

TEST_F(GBCommandLineParserParse, SimplifiedBlockWritesOptionsAndArgumentsToSettings) {
    CaptureStderr();
    EXPECT_TRUE(
        parser.parseOptionsWithArguments(Args{"-v", "--level", "4", "--opt", "a", "b"}, "t"));
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_TRUE(settings->boolForKey("verbose"));
    EXPECT_EQ(settings->integerForKey("level"), 4);
    EXPECT_EQ(settings->objectForKey("opt").stringValue(), "a");
    EXPECT_EQ(texts(settings->arguments()), std::vector<std::string>{"b"});
}

TEST_F(GBCommandLineParserParse, SimplifiedUnknownOptionMessageIsExact) {
    CaptureStderr();
    EXPECT_FALSE(parser.parseOptionsWithArguments(Args{"--unknown=5", "-q"}, "tool"));
    EXPECT_EQ(GetCapturedStderr(),
              "Unknown command line option --unknown=5, try --help!\n"
              "Unknown command line option -q, try --help!\n");
    EXPECT_TRUE(settings->objectForKey("--unknown=5").isNil());
}

TEST(GBCommandLineParserSimplified, WrongGroupWithoutSelectedNamePrintsNull) {
    GBCommandLineParser parser;
    bool stop = false;
    CaptureStderr();
    parser.simplifiedOptionsParserBlock()(GBParseFlagWrongGroup, "--x", Value(), &stop);
    EXPECT_EQ(GetCapturedStderr(), "Invalid option --x for group (null)!\n");
    EXPECT_FALSE(stop);
}

TEST(GBCommandLineParserSimplified, BlockWithoutSettingsDropsValues) {
    GBCommandLineParser parser;
    parser.registerSwitch("verbose");
    CaptureStderr();
    EXPECT_TRUE(parser.parseOptionsWithArguments(Args{"--verbose", "a"}, "tool"));
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_TRUE(parser.valueForOption("verbose").boolValue());
}

TEST(GBCommandLineParserSimplified, BlockWritesToTheLevelRegisteredAtCallTime) {
    GBCommandLineParser parser;
    const GBParseBlock block = parser.simplifiedOptionsParserBlock();
    auto level = GBSettings::settingsWithName("Later", nullptr);
    parser.registerSettings(level);
    bool stop = false;
    block(GBParseFlagOption, "k", Value("v"), &stop);
    EXPECT_EQ(level->objectForKey("k").stringValue(), "v");
}

TEST(GBCommandLineParserSimplified, BlockKeepsASharedParserAlive) {
    auto parser = std::make_shared<GBCommandLineParser>();
    auto level = GBSettings::settingsWithName("Current", nullptr);
    parser->registerSettings(level);
    std::weak_ptr<GBCommandLineParser> weak = parser;
    GBParseBlock block = parser->simplifiedOptionsParserBlock();
    parser.reset();
    EXPECT_FALSE(weak.expired());
    bool stop = false;
    block(GBParseFlagArgument, std::nullopt, Value("x"), &stop);
    EXPECT_EQ(texts(level->arguments()), std::vector<std::string>{"x"});
    block = nullptr;
    EXPECT_TRUE(weak.expired());
}

// --- The process's own arguments ---

TEST(GBCommandLineParserProcess, ProcessArgumentsStartWithThisProgram) {
    const std::vector<std::string> arguments = processArguments();
    ASSERT_FALSE(arguments.empty());
    EXPECT_EQ(processName(), "cli_tests");
    EXPECT_NE(arguments.front().find("cli_tests"), std::string::npos);
}

TEST(GBCommandLineParserProcess, DefaultArgumentsAreTheProcessArgumentsWithoutTheProgram) {
    std::vector<std::string> expected = processArguments();
    ASSERT_FALSE(expected.empty());
    expected.erase(expected.begin());
    GBCommandLineParser parser;
    std::vector<std::string> seen;
    parser.parseOptionsUsingDefaultArgumentsWithBlock(
        [&](GBParseFlags, const std::optional<std::string>& option, const Value&, bool*) {
            seen.push_back(option.value_or(""));
        });
    GBCommandLineParser reference;
    std::vector<std::string> referenceSeen;
    reference.parseOptionsWithArguments(
        expected, "cli_tests",
        [&](GBParseFlags, const std::optional<std::string>& option, const Value&, bool*) {
            referenceSeen.push_back(option.value_or(""));
        });
    EXPECT_EQ(seen.size(), expected.size());
    EXPECT_EQ(seen, referenceSeen);
}

}  // namespace
}  // namespace cli
