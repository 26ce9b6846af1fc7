#include "tests/unit/tool/ToolProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

using testing_support::ToolProcess;
using Lines = std::vector<std::string>;

namespace {

const std::string kPassword = "Pa55-w0rd!";
const std::string kConfig =
    "ip=203.0.113.7\nusername=alice\npassword=" + kPassword + "\nremote=gw.example.net\n";

const std::regex kLogLine(
    R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}:\d{3} orvane-ikev2-test\[(\d+):(\d{1,8})\] .*$)");

}  // namespace

TEST(ToolConnectTest, WholeConnectAtVerboseLevelNeverShowsThePassword) {
    ToolProcess tool(
        "service Wi-Fi|en0\nservice Orvane IKEv2|ipsec1\n"
        "on-start 10 2\non-start 60 3\non-stop 5 5\non-stop 20 1\n");
    tool.writeFile("client.conf", kConfig);
    tool.start({"--verbose", "-c", "client.conf"});
    ASSERT_TRUE(tool.waitForRecord("status 3"));
    tool.signalInAFreshSlice(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);

    EXPECT_EQ(tool.messages(),
              (Lines{"IKEv2 Configuration saved!", "IKEv2 Connecting", "Service: Wi-Fi",
                     "Service: Orvane IKEv2", "IKEv2 Interface ipsec1", "IKEv2 Connected",
                     "Received signal 15", "IKEv2 Disconnecting", "IKEv2 Disconnected"}));
    for (const std::string& line : testing_support::lines(tool.err())) {
        EXPECT_TRUE(std::regex_match(line, kLogLine)) << line;
        EXPECT_EQ(line.find(kPassword), std::string::npos) << line;
    }
    EXPECT_EQ(tool.out().find(kPassword), std::string::npos);
    for (const std::string& entry : tool.record()) {
        EXPECT_EQ(entry.find(kPassword), std::string::npos) << entry;
    }
    EXPECT_EQ(tool.recordCount("start username=alice password-length=" +
                               std::to_string(kPassword.size())),
              1);
}

TEST(ToolConnectTest, ProfileOfAConnectCarriesTheFixedValuesInOrder) {
    ToolProcess tool("on-start 10 2\n");
    tool.writeFile("client.conf", kConfig);
    tool.start({"--config", "client.conf"});
    ASSERT_TRUE(tool.waitForRecord("status 2"));
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);
    const Lines record = tool.record();
    ASSERT_GE(record.size(), 3u);
    EXPECT_EQ(record[0], "load");
    EXPECT_EQ(
        record[1],
        "save username=alice serverAddress=203.0.113.7 remoteIdentifier=gw.example.net "
        "localIdentifier=(null) authenticationMethod=1 useExtendedAuthentication=1 "
        "enableRevocationCheck=1 "
        "enablePFS=1 disconnectOnSleep=1 deadPeerDetectionRate=3 ike=4/3/14/1440 child=4/3/14/1440 "
        "enabled=1 localizedDescription=Orvane IKEv2");
    EXPECT_EQ(record[2], "start username=alice password-length=10");
}

TEST(ToolConnectTest, TunnelDownWithAReasonFromTheServiceEndsWithStatusOne) {
    ToolProcess tool(
        "on-start 10 2\non-start 40 3\non-start 80 1\nlast-disconnect-error authentication "
        "failed\n");
    tool.writeFile("client.conf", kConfig);
    EXPECT_EQ(tool.run({"--config", "client.conf"}), 1);
    EXPECT_EQ(tool.messages(),
              (Lines{"IKEv2 Connecting", "IKEv2 Interface ipsec0", "IKEv2 Connected",
                     "IKEv2 Last disconnect error: authentication failed"}));
    EXPECT_EQ(tool.recordCount("stop"), 0);
}

TEST(ToolConnectTest, TunnelDownWithNoReasonEndsWithStatusZeroSilently) {
    ToolProcess tool("on-start 10 2\non-start 40 1\n");
    tool.writeFile("client.conf", kConfig);
    EXPECT_EQ(tool.run({"--config", "client.conf"}), 0);
    EXPECT_EQ(tool.messages(), Lines{"IKEv2 Connecting"});
    EXPECT_EQ(tool.recordCount("fetch-last-disconnect-error since=none"), 0);
}

TEST(ToolConnectTest, ReassertingWhileConnectedStopsTheTunnelAndEndsWithStatusOne) {
    ToolProcess tool(
        "on-start 10 3\non-start 40 4\non-stop 10 1\nlast-disconnect-error should not be asked\n");
    tool.writeFile("client.conf", kConfig);
    EXPECT_EQ(tool.run({"--config", "client.conf"}), 1);
    EXPECT_EQ(tool.messages(),
              (Lines{"IKEv2 Interface ipsec0", "IKEv2 Connected", "IKEv2 Reconnecting",
                     "IKEv2 Last disconnect error: Reconnect needed"}));
    EXPECT_EQ(tool.recordCount("stop"), 1);
    for (const std::string& entry : tool.record()) {
        EXPECT_NE(entry.rfind("fetch-last-disconnect-error", 0), 0u) << entry;
    }
}

TEST(ToolConnectTest, StartRefusedEndsWithStatusOneAndTheNilText) {
    ToolProcess tool("start-error 3 refused\n");
    tool.writeFile("client.conf", kConfig);
    EXPECT_EQ(tool.run({"--config", "client.conf"}), 1);
    EXPECT_EQ(tool.messages(), Lines{"IKEv2 Error starting vpn tunnel: (null)"});
}

TEST(ToolConnectTest, ConfigWithoutAPasswordEndsNonZeroBeforeAnyStart) {
    ToolProcess tool("on-start 10 2\n");
    tool.writeFile("client.conf", "ip=203.0.113.7\nusername=alice\n");
    const int status = tool.run({"--config", "client.conf"});
    EXPECT_NE(status, 0);
    EXPECT_NE(status, -1);
    EXPECT_EQ(tool.messages(), Lines{"IKEv2 Missing user name or password"});
    for (const std::string& entry : tool.record()) {
        EXPECT_NE(entry.rfind("start", 0), 0u) << entry;
    }
}

TEST(ToolConnectTest, LoadFailureInConnectModeEndsWithStatusOne) {
    ToolProcess tool("load-error 4 preferences unreadable\n");
    tool.writeFile("client.conf", kConfig);
    EXPECT_EQ(tool.run({"--config", "client.conf"}), 1);
    EXPECT_EQ(tool.messages(), Lines{"IKEv2 Error loading configurations: preferences unreadable"});
}

TEST(ToolConnectTest, UnreadableConfigFileStillBuildsAConnector) {
    // A folder exists but holds no lines: the connector has no credentials,
    // so the create mode still writes a profile, without a user name.
    ToolProcess tool;
    EXPECT_EQ(::mkdir(tool.path("folder.conf").c_str(), 0700), 0);
    EXPECT_EQ(tool.run({"--create", "--config", "folder.conf"}), 0);
    ASSERT_GE(tool.record().size(), 2u);
    EXPECT_EQ(tool.record()[1].rfind(
                  "save username=(null) serverAddress=(null) remoteIdentifier=vpn.orvane.net ", 0),
              0u)
        << tool.record()[1];
}
