#include "tests/unit/tool/ToolProcess.h"

#include <gtest/gtest.h>

#include <csignal>

using testing_support::ToolProcess;
using Lines = std::vector<std::string>;

namespace {

const char* kConfig = "ip=203.0.113.7\nusername=alice\npassword=Pa55-w0rd!\n";
// The tunnel comes up 50 ms after the start; a stop brings it down.
const char* kConnects = "on-start 10 2\non-start 50 3\non-stop 5 5\non-stop 20 1\n";

int count(const Lines& lines, const std::string& line) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

}  // namespace

TEST(ToolSignalsTest,
     InterruptWhileConnectedAtVerboseLevelLogsReceivedSignal2AndEndsWithStatusZero) {
    ToolProcess tool(kConnects);
    tool.writeFile("client.conf", kConfig);
    tool.start({"--config", "client.conf", "--verbose"});
    ASSERT_TRUE(tool.waitForRecord("status 3"));
    tool.signal(SIGINT);
    EXPECT_EQ(tool.wait(), 0);
    const Lines messages = tool.messages();
    EXPECT_EQ(count(messages, "Received signal 2"), 1) << tool.err();
    EXPECT_EQ(tool.recordCount("stop"), 1);
}

TEST(ToolSignalsTest, SignalLineIsHiddenAtTheDefaultLevel) {
    ToolProcess tool(kConnects);
    tool.writeFile("client.conf", kConfig);
    tool.start({"--config", "client.conf"});
    ASSERT_TRUE(tool.waitForRecord("status 3"));
    tool.signalInAFreshSlice(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.err().find("Received signal"), std::string::npos) << tool.err();
    EXPECT_EQ(tool.recordCount("stop"), 1);
    // The tunnel going down is logged all the same.
    EXPECT_EQ(tool.messages(),
              (Lines{"IKEv2 Connecting", "IKEv2 Interface ipsec0", "IKEv2 Connected",
                     "IKEv2 Disconnecting", "IKEv2 Disconnected"}));
}

TEST(ToolSignalsTest, EachTerminatingSignalWhileConnectedLogsTheTunnelGoingDownThenEndsWithZero) {
    for (int signo : {SIGUSR1, SIGINT, SIGTERM, SIGHUP}) {
        ToolProcess tool(kConnects);
        tool.writeFile("client.conf", kConfig);
        tool.start({"--config", "client.conf", "--verbose"});
        ASSERT_TRUE(tool.waitForRecord("status 3"));
        tool.signalInAFreshSlice(signo);
        EXPECT_EQ(tool.wait(), 0) << signo;
        const Lines messages = tool.messages();
        ASSERT_GE(messages.size(), 4u) << tool.err();
        EXPECT_EQ(Lines(messages.end() - 4, messages.end()),
                  (Lines{"IKEv2 Connected", "Received signal " + std::to_string(signo),
                         "IKEv2 Disconnecting", "IKEv2 Disconnected"}))
            << signo;
        EXPECT_EQ(tool.recordCount("stop"), 1);
    }
}

TEST(ToolSignalsTest, BackendThatNeverReportsDisconnectedStillEndsAfterTheSlice) {
    // The stop is only ever answered with Disconnecting. The tool ends once
    // the slice that took the signal is over (bench/loop times a slice's end).
    ToolProcess tool("on-start 10 2\non-start 50 3\non-stop 5 5\n");
    tool.writeFile("client.conf", kConfig);
    tool.start({"--config", "client.conf"});
    ASSERT_TRUE(tool.waitForRecord("status 3"));
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.messages(), (Lines{"IKEv2 Connecting", "IKEv2 Interface ipsec0",
                                      "IKEv2 Connected", "IKEv2 Disconnecting"}));
    EXPECT_EQ(tool.recordCount("stop"), 1);
}

TEST(ToolSignalsTest, TwoSignalsInARowAreBothLoggedAndDisconnectOnce) {
    ToolProcess tool(kConnects);
    tool.writeFile("client.conf", kConfig);
    tool.start({"--config", "client.conf", "--verbose"});
    ASSERT_TRUE(tool.waitForRecord("status 3"));
    // Both signals are pending when the process resumes, so both are taken
    // before the loop handles either.
    tool.signal(SIGSTOP);
    ASSERT_TRUE(tool.waitUntilStopped());
    tool.signal(SIGUSR1);
    tool.signal(SIGTERM);
    tool.signal(SIGCONT);
    EXPECT_EQ(tool.wait(), 0);
    const Lines messages = tool.messages();
    EXPECT_EQ(count(messages, "Received signal " + std::to_string(SIGUSR1)), 1) << tool.err();
    EXPECT_EQ(count(messages, "Received signal " + std::to_string(SIGTERM)), 1) << tool.err();
    EXPECT_EQ(tool.recordCount("stop"), 1);
}

TEST(ToolSignalsTest, SignalDuringConnectMeansTheWaitLoopNeverRuns) {
    // The signal is taken inside the load request, that is while connect
    // runs; the load's completion is already queued on the run loop.
    ToolProcess tool(std::string(kConnects) + "raise-on-load 15\n");
    tool.writeFile("client.conf", kConfig);
    EXPECT_EQ(tool.run({"--config", "client.conf", "--verbose"}), 0);
    EXPECT_EQ(tool.record(), Lines{"load"});
    EXPECT_EQ(tool.messages(), Lines{"Received signal 15"});
}

TEST(ToolSignalsTest, SignalDuringConnectInCheckModeEndsWithStatusZeroBeforeTheCheck) {
    ToolProcess tool("raise-on-load 2\n");
    EXPECT_EQ(tool.run({"--check"}), 0);
    EXPECT_EQ(tool.record(), Lines{"load"});
    EXPECT_EQ(tool.err(), "");
}

TEST(ToolSignalsTest, SignalWhileTheStartIsPendingEndsWithStatusZeroWithoutAStartOrStop) {
    ToolProcess tool(kConnects);
    tool.writeFile("client.conf", kConfig);
    tool.start({"--config", "client.conf", "--verbose"});
    ASSERT_TRUE(tool.waitForRecord("save "));
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.recordCount("stop"), 0);
    for (const std::string& entry : tool.record()) {
        EXPECT_NE(entry.rfind("start", 0), 0u) << entry;
    }
    EXPECT_EQ(tool.messages(), (Lines{"IKEv2 Configuration saved!", "Received signal 15"}));
}

TEST(ToolSignalsTest, SignalWhileConnectingStopsTheTunnelOnceAndEndsWithStatusZero) {
    ToolProcess tool("on-start 10 2\n");
    tool.writeFile("client.conf", kConfig);
    tool.start({"--config", "client.conf"});
    ASSERT_TRUE(tool.waitForRecord("status 2"));
    tool.signal(SIGUSR1);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.recordCount("stop"), 1);
    EXPECT_EQ(tool.messages(), Lines{"IKEv2 Connecting"});
}

TEST(ToolSignalsTest, SignalWhileTheConfigurationFileBlocksItsOpenStillEndsTheRun) {
    // A FIFO nobody writes to blocks the open; the signal must end it.
    ToolProcess tool("on-start 10 2\n");
    ASSERT_EQ(::mkfifo(tool.path("client.conf").c_str(), 0600), 0);
    tool.start({"--config", "client.conf"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.recordCount("stop"), 0);
    for (const std::string& entry : tool.record()) {
        EXPECT_NE(entry.rfind("start", 0), 0u) << entry;
    }
}
