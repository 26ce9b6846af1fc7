#include "cli/GBOptionsHelper.h"
#include "tests/unit/cli/CaptureStdout.h"
#include "tests/unit/double/ChildProcess.h"
#include "tests/unit/double/FinishRecorder.h"
#include "tests/unit/tool/ToolProcess.h"
#include "tool/Tool.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing_support::FinishRecorder;
using testing_support::StderrCapture;
using testing_support::ToolProcess;

namespace {

cli::GBSettingsRef parse(std::vector<std::string> words, const Finish& finish = finishProcess) {
    words.insert(words.begin(), "orvane-ikev2");
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return parse_args(static_cast<int>(words.size()), argv.data(), finish);
}

// The tool's help, byte for byte: every option line ends in a blank.
const char kToolHelp[] =
    "\n"
    "-c --config <value> Read configurations from file \n"
    "   --check          Check configurations and exit \n"
    "   --create         Create configurations and exit \n"
    "   --remove         Remove configurations and exit \n"
    "   --verbose        Print verbose logs \n"
    "-h --help           Print help and exit \n"
    "\n";

void expectHelp(const std::string& out) {
    EXPECT_EQ(out, kToolHelp);
}

}  // namespace

TEST(ParseArgsTest, HelpOfTheToolsOptionTableIsAlignedOnTheConfigColumn) {
    cli::GBOptionsHelper options;
    tool::register_tool_options(options);
    expectHelp(cli::test::captureStdout([&] { options.printHelp(); }));
}

TEST(ParseArgsTest, NoArgumentsGiveALevelWithoutConfigAndWithEverySwitchFalse) {
    const auto settings = parse({});
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->name(), std::optional<std::string>("Current"));
    EXPECT_TRUE(settings->objectForKey("config").isNil());
    for (const char* key : {"check", "create", "remove", "verbose", "help"}) {
        EXPECT_FALSE(settings->boolForKey(key)) << key;
    }
}

TEST(ParseArgsTest, DefaultsLevelKeepsNoneOfItsValues) {
    const auto settings = parse({});
    ASSERT_TRUE(settings->parent());
    EXPECT_TRUE(settings->parent()->objectForKey("config").isNil());
    EXPECT_TRUE(settings->parent()->objectForKey("verbose").isNil());
    EXPECT_TRUE(settings->parent()->storage().isNil());
}

TEST(ParseArgsTest, ShortAndLongConfigOptionsStoreThePath) {
    EXPECT_EQ(parse({"-c", "path"})->objectForKey("config").description(), "path");
    EXPECT_EQ(parse({"--config", "path"})->objectForKey("config").description(), "path");
    EXPECT_EQ(parse({"--config=other/path"})->objectForKey("config").description(), "other/path");
}

TEST(ParseArgsTest, SwitchesReadTrue) {
    const auto settings = parse({"--check", "--create", "--remove", "--verbose"});
    for (const char* key : {"check", "create", "remove", "verbose"}) {
        EXPECT_TRUE(settings->boolForKey(key)) << key;
    }
    EXPECT_FALSE(settings->boolForKey("help"));
}

TEST(ParseArgsTest, OptionGivenTwiceKeepsTheLaterValue) {
    EXPECT_EQ(parse({"--config", "first.conf", "-c", "second.conf"})
                  ->objectForKey("config")
                  .description(),
              "second.conf");
}

TEST(ParseArgsTest, ShortAndLongHelpPrintTheHelpAndEndWithStatusOne) {
    for (const char* option : {"-h", "--help"}) {
        FinishRecorder finished;
        cli::GBSettingsRef settings;
        const std::string out =
            cli::test::captureStdout([&] { settings = parse({option}, finished.finish()); });
        EXPECT_EQ(finished.statuses(), std::vector<int>{1}) << option;
        EXPECT_FALSE(settings) << option;
        expectHelp(out);
    }
}

TEST(ParseArgsTest, UnknownOptionPrintsTheParsersMessageAndTheHelpAndEndsWithStatusOne) {
    FinishRecorder finished;
    StderrCapture err;
    const std::string out =
        cli::test::captureStdout([&] { parse({"--bogus"}, finished.finish()); });
    err.restore();
    EXPECT_EQ(finished.statuses(), std::vector<int>{1});
    EXPECT_EQ(err.text(), "Unknown command line option --bogus, try --help!\n");
    expectHelp(out);
}

TEST(ParseArgsTest, ConfigWithoutAValueIsReportedButDoesNotFailTheParse) {
    FinishRecorder finished;
    StderrCapture err;
    cli::GBSettingsRef settings;
    const std::string out = cli::test::captureStdout([&] {
        settings = parse({"--check", "--config"}, finished.finish());
    });
    err.restore();
    EXPECT_FALSE(finished.finished());
    ASSERT_TRUE(settings);
    EXPECT_TRUE(settings->objectForKey("config").isNil());
    EXPECT_TRUE(settings->boolForKey("check"));
    EXPECT_EQ(err.text(), "Missing value for command line option config, try --help!\n");
    EXPECT_EQ(out, "");
}

TEST(ToolOptionsProcessTest, HelpFromTheCommandLineEndsWithStatusOne) {
    for (const char* option : {"-h", "--help"}) {
        ToolProcess tool;
        EXPECT_EQ(tool.run({option}), 1) << option;
        expectHelp(tool.out());
        EXPECT_TRUE(tool.record().empty());
    }
}

TEST(ToolOptionsProcessTest, ConfigWithoutAValueInConnectModeEndsWithStatusOne) {
    ToolProcess tool;
    EXPECT_EQ(tool.run({"--config"}), 1);
    EXPECT_EQ(tool.messages(),
              (std::vector<std::string>{"Missing value for command line option config, try --help!",
                                        "Must provide a config file to start vpn tunnel!"}));
    EXPECT_TRUE(tool.record().empty());
}

TEST(ToolOptionsProcessTest, ConfigWithoutAValueInCheckModeGoesOnWithPlaceholders) {
    ToolProcess tool;
    EXPECT_EQ(tool.run({"--check", "--config"}), 2);
    EXPECT_EQ(tool.messages(),
              (std::vector<std::string>{"Missing value for command line option config, try --help!",
                                        "IKEv2 configuration doesn't exist"}));
}
