#include "tests/unit/tool/ToolProcess.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

using testing_support::ToolProcess;
using Lines = std::vector<std::string>;

namespace {

const char* kConfig =
    "ip=203.0.113.7\nusername=alice\npassword=Pa55-w0rd!\nremote=gw.example.net\n";

// The record line of a save, up to the server address.
std::string saveOf(const std::string& username, const std::string& server) {
    return fmt::format("save username={} serverAddress={} ", username, server);
}

std::string firstWith(const Lines& lines, const std::string& prefix) {
    for (const std::string& line : lines) {
        if (line.rfind(prefix, 0) == 0) {
            return line;
        }
    }
    return "";
}

}  // namespace

TEST(ToolModesTest, NoOptionsAtAllRefuseToStartEvenWithIkev2OrvnInTheWorkingFolder) {
    ToolProcess tool;
    tool.writeFile("ikev2.orvn", kConfig);
    EXPECT_EQ(tool.run({}), 1);
    EXPECT_EQ(tool.messages(), Lines{"Must provide a config file to start vpn tunnel!"});
    EXPECT_TRUE(tool.record().empty());
}

TEST(ToolModesTest, ConfigNamingAMissingFileEndsWithStatusOneInConnectCheckAndCreateModes) {
    for (const Lines& extra : {Lines{}, Lines{"--check"}, Lines{"--create"}}) {
        ToolProcess tool;
        Lines arguments{"--config", "missing.conf"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        EXPECT_EQ(tool.run(arguments), 1);
        EXPECT_EQ(tool.messages(), Lines{"Config file missing.conf doesn't exist!"});
        EXPECT_TRUE(tool.record().empty());
    }
}

TEST(ToolModesTest, RelativeConfigPathIsTakenFromTheWorkingFolder) {
    ToolProcess tool;
    tool.writeFile("client.conf", kConfig);
    EXPECT_EQ(tool.run({"--create", "-c", "client.conf"}), 0);
    EXPECT_NE(firstWith(tool.record(), saveOf("alice", "203.0.113.7")), "");
}

TEST(ToolModesTest, CreateWithoutConfigSavesPlaceholderCredentials) {
    ToolProcess tool;
    EXPECT_EQ(tool.run({"--create"}), 0);
    const std::string save = firstWith(tool.record(), "save ");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(
        save, m,
        std::regex(R"(^save username=([a-z]{6}) serverAddress=(\d+)\.(\d+)\.(\d+)\.(\d+) )")))
        << save;
    const int first = std::stoi(m[2].str());
    EXPECT_GE(first, 11);
    EXPECT_LE(first, 250);
    EXPECT_EQ(tool.recordCount("load"), 1);
    EXPECT_EQ(firstWith(tool.record(), "start"), "");
}

TEST(ToolModesTest, PlaceholderValuesAreTheSameOnEveryRunAndComeFromTheDefaultSeed) {
    ToolProcess first;
    ToolProcess second;
    EXPECT_EQ(first.run({"--create"}), 0);
    EXPECT_EQ(second.run({"--create"}), 0);
    EXPECT_EQ(firstWith(first.record(), "save "), firstWith(second.record(), "save "));

    std::srand(1);
    const int a = std::rand() % 240 + 11;
    const int b = std::rand() % 256;
    const int c = std::rand() % 256;
    const int d = std::rand() % 256;
    std::string name;
    for (int i = 0; i < 6; ++i) {
        name.push_back(static_cast<char>('a' + std::rand() % 26));
    }
    EXPECT_NE(firstWith(first.record(), saveOf(name, fmt::format("{}.{}.{}.{}", a, b, c, d))), "");
}

TEST(ToolModesTest, CheckWithoutConfigFindsTheProfileWithPlaceholders) {
    ToolProcess tool("profile\n");
    EXPECT_EQ(tool.run({"--check"}), 0);
    EXPECT_EQ(tool.messages(), Lines{"IKEv2 configuration already exists"});
    EXPECT_EQ(tool.record(), Lines{"load"});
}

TEST(ToolModesTest, CheckWithoutAProfileEndsWithStatusTwo) {
    ToolProcess tool;
    tool.writeFile("client.conf", kConfig);
    EXPECT_EQ(tool.run({"--check", "--config", "client.conf"}), 2);
    EXPECT_EQ(tool.messages(), Lines{"IKEv2 configuration doesn't exist"});
    EXPECT_EQ(tool.record(), Lines{"load"});
}

TEST(ToolModesTest, CheckAndCreateTogetherRunTheCreateMode) {
    ToolProcess tool("profile\n");
    tool.writeFile("client.conf", kConfig);
    EXPECT_EQ(tool.run({"--check", "--create", "-c", "client.conf"}), 0);
    // A check would have stopped after the load with "already exists".
    EXPECT_EQ(tool.messages(), Lines{});
    EXPECT_NE(firstWith(tool.record(), saveOf("alice", "203.0.113.7")), "");
}

TEST(ToolModesTest, CreateShowsTheSavedLineOnlyWhenVerbose) {
    ToolProcess quiet;
    EXPECT_EQ(quiet.run({"--create"}), 0);
    EXPECT_EQ(quiet.err(), "");
    ToolProcess verbose;
    EXPECT_EQ(verbose.run({"--create", "--verbose"}), 0);
    EXPECT_EQ(verbose.messages(), Lines{"IKEv2 Configuration saved!"});
}

TEST(ToolModesTest, SaveFailureEndsWithTheErrorCode) {
    ToolProcess tool("save-error 5 Input/output error\n");
    EXPECT_EQ(tool.run({"--create"}), 5);
    EXPECT_EQ(tool.messages(), Lines{"IKEv2 Error saving configurations: Input/output error"});
}

TEST(ToolModesTest, RemoveWithCheckRunsTheRemoveModeOnly) {
    ToolProcess tool("profile\n");
    EXPECT_EQ(tool.run({"--remove", "--check"}), 0);
    EXPECT_EQ(tool.record(), (Lines{"load", "remove"}));
    EXPECT_EQ(tool.err(), "");
}

TEST(ToolModesTest, RemoveWinsOverCreateAndConfig) {
    ToolProcess tool("profile\n");
    EXPECT_EQ(tool.run({"--create", "--remove", "--config", "missing.conf"}), 0);
    EXPECT_EQ(tool.record(), (Lines{"load", "remove"}));
    EXPECT_EQ(tool.err(), "");
}

TEST(ToolModesTest, RemoveWithNoSavedProfileEndsWithStatusZeroAndLogsNothing) {
    ToolProcess tool;
    EXPECT_EQ(tool.run({"--remove"}), 0);
    EXPECT_EQ(tool.record(), Lines{"load"});
    EXPECT_EQ(tool.err(), "");
}

TEST(ToolModesTest, RemoveWhenLoadingFailsEndsWithStatusOne) {
    ToolProcess tool("profile\nload-error 1 The operation couldn't be completed\n");
    EXPECT_EQ(tool.run({"--remove"}), 1);
    EXPECT_EQ(tool.messages(),
              Lines{"IKEv2 Error loading configurations: The operation couldn't be completed"});
    EXPECT_EQ(tool.record(), Lines{"load"});
}

TEST(ToolModesTest, RemoveWhenRemovingFailsEndsWithStatusOne) {
    ToolProcess tool("profile\nremove-error 2 permission denied\n");
    EXPECT_EQ(tool.run({"--remove"}), 1);
    EXPECT_EQ(tool.messages(), Lines{"IKEv2 Error removing configurations: permission denied"});
}

TEST(ToolModesTest, RemoveModeKeepsTheDefaultSignalActions) {
    // No handlers are installed before the remove mode: a SIGTERM taken
    // during the load kills the process instead of ending it with status 0.
    ToolProcess tool("profile\nraise-on-load 15\n");
    EXPECT_EQ(tool.run({"--remove"}), -1);
    EXPECT_EQ(tool.termSignal(), SIGTERM);
    EXPECT_EQ(tool.record(), Lines{"load"});
}
