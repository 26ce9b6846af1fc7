#include "cli/GBOptionsHelper.h"
#include "tests/unit/cli/CaptureStdout.h"
#include "tests/unit/double/ChildProcess.h"
#include "tests/unit/tool/ToolProcess.h"
#include "tool/Tool.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing_support::runInChild;
using testing_support::ToolProcess;

namespace {

cli::GBSettingsRef parse(std::vector<std::string> words) {
    words.insert(words.begin(), "orvane-ikev2");
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return parse_args(static_cast<int>(words.size()), argv.data());
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
    register_tool_options(options);
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

TEST(ParseArgsTest, ShortHelpPrintsTheHelpAndEndsWithStatusOne) {
    const auto child = runInChild([] { parse({"-h"}); });
    EXPECT_EQ(child.exitStatus, 1);
    expectHelp(child.out);
}

TEST(ParseArgsTest, LongHelpPrintsTheHelpAndEndsWithStatusOne) {
    const auto child = runInChild([] { parse({"--help"}); });
    EXPECT_EQ(child.exitStatus, 1);
    expectHelp(child.out);
}

TEST(ParseArgsTest, UnknownOptionPrintsTheParsersMessageAndTheHelpAndEndsWithStatusOne) {
    const auto child = runInChild([] { parse({"--bogus"}); });
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(child.err, "Unknown command line option --bogus, try --help!\n");
    expectHelp(child.out);
}

TEST(ParseArgsTest, ConfigWithoutAValueIsReportedButDoesNotFailTheParse) {
    const auto child = runInChild([] {
        const auto settings = parse({"--check", "--config"});
        std::printf("config=%s check=%d\n",
                    settings->objectForKey("config").isNil() ? "nil" : "set",
                    settings->boolForKey("check"));
    });
    EXPECT_EQ(child.exitStatus, 0);
    EXPECT_EQ(child.err, "Missing value for command line option config, try --help!\n");
    EXPECT_EQ(child.out, "config=nil check=1\n");
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
