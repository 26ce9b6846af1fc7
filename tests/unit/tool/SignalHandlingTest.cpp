#include "log/DDLog.h"
#include "platform/RunLoop.h"
#include "tests/unit/double/ChildProcess.h"
#include "tests/unit/double/PlatformDouble.h"
#include "tests/unit/double/VirtualTimeScope.h"
#include "tool/Tool.h"

#include <gtest/gtest.h>

#include <csignal>

using testing_support::StderrCapture;
using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

namespace {

// Under virtual time: the loop's timings are exact.
class SignalHandlingTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { DDLog::addTTYLogger(); }
    void SetUp() override {
        platform().reset();
        platform::removeAllStatusObservers();
        ddLogLevel = DDLogLevelInfo;
        terminated = false;
        connector.reset();
    }
    void TearDown() override {
        platform::removeAllStatusObservers();
        platform().reset();
        ddLogLevel = DDLogLevelInfo;
        terminated = false;
        connector.reset();
    }
    static platform_double::ScriptedPlatform& platform() {
        return platform_double::ScriptedPlatform::instance();
    }

    // A connector whose tunnel start has gone out.
    static void startConnector() {
        connector = OVConnectorIKEv2::initWithServer(std::string("203.0.113.7"),
                                                     std::string("alice"), platform::Secret("pw"));
        connector->connect();
        platform().completeLoad();
        platform().completeSave();
        // The start goes out half a second after the save.
        platform::RunLoop::main().runUntil(platform::RunLoop::Clock::now() + 500ms);
        ASSERT_EQ(platform().startRequests().size(), 1u);
    }

    testing_support::VirtualTimeScope virtualTime;
};

}  // namespace

TEST_F(SignalHandlingTest, FirstSignalDisconnectsAndMarksTheToolTerminated) {
    startConnector();
    tool::handle_signal(SIGTERM);
    EXPECT_TRUE(terminated);
    EXPECT_EQ(platform().stopCount(), 1);
    EXPECT_FALSE(connector->connecting());
}

TEST_F(SignalHandlingTest, LaterSignalsAreOnlyLoggedAtVerboseLevel) {
    startConnector();
    ddLogLevel = DDLogLevelVerbose;
    StderrCapture capture;
    tool::handle_signal(SIGUSR1);
    tool::handle_signal(SIGINT);
    capture.restore();
    EXPECT_EQ(capture.messages(),
              (Lines{"Received signal " + std::to_string(SIGUSR1), "Received signal 2"}));
    EXPECT_EQ(platform().stopCount(), 1);
}

TEST_F(SignalHandlingTest, ReceivedSignalLineIsHiddenAtTheDefaultLevel) {
    startConnector();
    StderrCapture capture;
    tool::handle_signal(SIGINT);
    capture.restore();
    EXPECT_EQ(capture.text(), "");
    EXPECT_TRUE(terminated);
}

TEST_F(SignalHandlingTest, SignalWithoutAConnectorOnlyMarksTheToolTerminated) {
    tool::handle_signal(SIGTERM);
    EXPECT_TRUE(terminated);
    EXPECT_TRUE(platform().calls().empty());
}

TEST_F(SignalHandlingTest, SignalHandlerWakesTheLoopWhichEndsTheSliceAtOnce) {
    register_signal_handlers();
    startConnector();
    auto& loop = platform::RunLoop::main();
    loop.dispatchAfter(50ms, [] { std::raise(SIGUSR1); });
    const auto start = platform::RunLoop::Clock::now();
    loop.runUntil(start + 5s);
    EXPECT_EQ(platform::RunLoop::Clock::now() - start, 50ms);
    EXPECT_TRUE(terminated);
    EXPECT_EQ(platform().stopCount(), 1);
    for (int signo : {SIGUSR1, SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction installed {};
        ASSERT_EQ(::sigaction(signo, nullptr, &installed), 0);
        EXPECT_EQ(installed.sa_handler, &sig_handler) << signo;
        EXPECT_TRUE(sigisemptyset(&installed.sa_mask)) << signo;
        EXPECT_EQ(installed.sa_flags & (SA_RESTART | SA_RESETHAND | SA_SIGINFO | SA_NODEFER), 0)
            << signo;
    }
    for (int signo : {SIGUSR1, SIGINT, SIGTERM, SIGHUP}) {
        ::signal(signo, SIG_DFL);
    }
}

TEST_F(SignalHandlingTest, SliceKeepsTurningAfterTheSignalUntilTheTunnelReportsDisconnected) {
    startConnector();
    platform().fireStatus(platform::NEVPNStatusConnected);
    auto& loop = platform::RunLoop::main();
    bool downSeen = false;
    platform::addStatusObserver(
        [&downSeen] { downSeen = platform().status() == platform::NEVPNStatusDisconnected; });
    loop.post([] { tool::handle_signal(SIGTERM); });
    loop.dispatchAfter(20ms, [] { platform().fireStatus(platform::NEVPNStatusDisconnecting); });
    loop.dispatchAfter(40ms, [] { platform().fireStatus(platform::NEVPNStatusDisconnected); });
    const auto start = platform::RunLoop::Clock::now();
    loop.runUntil(start + 5s);
    EXPECT_LT(platform::RunLoop::Clock::now() - start, 1s);
    EXPECT_TRUE(downSeen);
    EXPECT_EQ(platform().stopCount(), 1);
}

TEST_F(SignalHandlingTest, SliceEndsAtItsDeadlineWhenTheTunnelNeverReportsDisconnected) {
    startConnector();
    platform().fireStatus(platform::NEVPNStatusConnected);
    auto& loop = platform::RunLoop::main();
    loop.post([] { tool::handle_signal(SIGTERM); });
    loop.dispatchAfter(20ms, [] { platform().fireStatus(platform::NEVPNStatusDisconnecting); });
    const auto start = platform::RunLoop::Clock::now();
    loop.runUntil(start + 200ms);
    EXPECT_GE(platform::RunLoop::Clock::now() - start, 200ms);
    EXPECT_TRUE(terminated);
}

TEST_F(SignalHandlingTest, SignalWithNoTunnelUpEndsTheSliceAtOnce) {
    startConnector();
    auto& loop = platform::RunLoop::main();
    loop.post([] { tool::handle_signal(SIGINT); });
    const auto start = platform::RunLoop::Clock::now();
    loop.runUntil(start + 5s);
    EXPECT_LT(platform::RunLoop::Clock::now() - start, 1s);
}
