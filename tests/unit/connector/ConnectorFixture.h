#pragma once

// Shared set-up of the connector tests: a fresh platform double, no status
// observers, the default log level, the terminal sink added once, virtual
// time, and helpers that drive a connector through load, save and the
// queued start.

#include "connector/OVConnectorIKEv2.h"
#include "log/DDLog.h"
#include "platform/RunLoop.h"
#include "tests/unit/double/ChildProcess.h"
#include "tests/unit/double/PlatformDouble.h"
#include "tests/unit/double/VirtualTimeScope.h"

#include <gtest/gtest.h>

#include <chrono>

class ConnectorTest : public ::testing::Test {
  protected:
    // Returned by a child body that ran to its end without the connector
    // ending the process.
    static constexpr int kNoExit = 42;

    static void SetUpTestSuite() { DDLog::addTTYLogger(); }
    void SetUp() override {
        platform().reset();
        platform::removeAllStatusObservers();
        ddLogLevel = DDLogLevelInfo;
    }
    void TearDown() override {
        platform::removeAllStatusObservers();
        platform().reset();
        ddLogLevel = DDLogLevelInfo;
    }

    static platform_double::ScriptedPlatform& platform() {
        return platform_double::ScriptedPlatform::instance();
    }

    static std::shared_ptr<OVConnectorIKEv2> makeConnector() {
        return OVConnectorIKEv2::initWithServer(std::string("203.0.113.7"), std::string("alice"),
                                                platform::Secret("s3cret-pw"));
    }

    // Runs the loop in short slices until `done` or the (virtual) time is up.
    template <typename Done>
    static bool runLoopUntil(Done done,
                             std::chrono::milliseconds limit = std::chrono::milliseconds(3000)) {
        auto& loop = platform::RunLoop::main();
        const auto end = platform::RunLoop::Clock::now() + limit;
        while (!done()) {
            if (platform::RunLoop::Clock::now() >= end) {
                return false;
            }
            loop.runUntil(platform::RunLoop::Clock::now() + std::chrono::milliseconds(10));
        }
        return true;
    }

    // connect, a successful load and save, then the queued start.
    static void connectAndStart(OVConnectorIKEv2& connector) {
        connector.connect();
        platform().completeLoad();
        platform().completeSave();
        ASSERT_TRUE(runLoopUntil([] { return !platform().startRequests().empty(); }));
    }

    // Runs `body` in a child process whose log lines are captured.
    static testing_support::ChildResult inChild(const std::function<void()>& body) {
        using ForkEvent = platform::RunLoop::ForkEvent;
        auto& loop = platform::RunLoop::main();
        return testing_support::runInChild(
            [&body] {
                body();
                std::exit(kNoExit);
            },
            [&loop] { loop.notifyFork(ForkEvent::prepare); },
            [&loop] { loop.notifyFork(ForkEvent::child); },
            [&loop] { loop.notifyFork(ForkEvent::parent); });
    }

    testing_support::VirtualTimeScope virtualTime;
};
