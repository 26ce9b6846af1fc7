#pragma once

// Shared set-up of the connector tests: a fresh platform double, no status
// observers, the default log level, the terminal sink added once, virtual
// time, a Finish that records the statuses of the connectors the tests make,
// and helpers that drive a connector through load, save and the queued start.

#include "connector/OVConnectorIKEv2.h"
#include "log/DDLog.h"
#include "platform/RunLoop.h"
#include "tests/unit/double/ChildProcess.h"
#include "tests/unit/double/FinishRecorder.h"
#include "tests/unit/double/PlatformDouble.h"
#include "tests/unit/double/VirtualTimeScope.h"

#include <gtest/gtest.h>

#include <chrono>

class ConnectorTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { DDLog::addTTYLogger(); }
    void SetUp() override {
        finished().clear();
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

    // The statuses the connectors of the current test finished with.
    static testing_support::FinishRecorder& finished() {
        static testing_support::FinishRecorder recorder;
        return recorder;
    }

    // A connector whose run ends in finished().
    static std::shared_ptr<OVConnectorIKEv2> recording(std::shared_ptr<OVConnectorIKEv2> made) {
        made->setFinish(finished().finish());
        return made;
    }

    static std::shared_ptr<OVConnectorIKEv2> makeConnector() {
        return recording(OVConnectorIKEv2::initWithServer(
            std::string("203.0.113.7"), std::string("alice"), platform::Secret("s3cret-pw")));
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

    testing_support::VirtualTimeScope virtualTime;
};
