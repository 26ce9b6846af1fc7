#include "platform/strongswan/SleepWatch.h"

#include "platform/LoopClock.h"
#include "platform/strongswan/DisconnectLog.h"
#include "tests/unit/double/VirtualTimeScope.h"
#include "tests/unit/platform/strongswan/LogCapture.h"
#include "tests/unit/platform/strongswan/PrivateLogind.h"
#include "tests/unit/platform/strongswan/RunIo.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

namespace ss = platform::strongswan;
using namespace std::chrono_literals;

namespace {

// Sets an environment variable for the life of the object.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            old_ = old;
        }
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (old_) {
            ::setenv(name_, old_->c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

// Every message captured since the last clear was at debug level or below.
::testing::AssertionResult onlyDebugLines() {
    for (const auto& entry : logcapture::entries()) {
        if (entry.flag != DDLogFlagDebug && entry.flag != DDLogFlagVerbose) {
            return ::testing::AssertionFailure()
                   << "\"" << entry.message << "\" logged with flag " << entry.flag;
        }
    }
    return ::testing::AssertionSuccess();
}

bool anyLineContains(const std::string& text) {
    return logcapture::contains(text);
}

class SleepWatchTest : public ::testing::Test {
  protected:
    void SetUp() override { logcapture::clear(); }

    ss::SleepWatch& make(std::function<void()> onSleep = {}) {
        if (!onSleep) {
            onSleep = [this] {
                ++sleeps;
                watch->end();
            };
        }
        watch = std::make_unique<ss::SleepWatch>(io, options, std::move(onSleep));
        return *watch;
    }

    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 3000ms) {
        return testio::runUntil(io, done, limit);
    }

    asio::io_context io;
    ss::SleepOptions options;
    int sleeps = 0;
    std::unique_ptr<ss::SleepWatch> watch;
};

// On a private bus, with a logind stand-in unless the test says otherwise.
class SleepWatchOnBusTest : public SleepWatchTest {
  protected:
    void SetUp() override {
        SleepWatchTest::SetUp();
        testlogind::start(bus, standIn, withLogind);
        if (bus) {
            options.bus = bus->address();
        }
    }
    void TearDown() override { watch.reset(); }

    void takeLock() {
        make().begin();
        ASSERT_TRUE(runUntil([&] { return watch->holdsLock(); }));
        ASSERT_TRUE(standIn->waitFor([&] { return standIn->held() == 1; }, 1000ms));
    }

    bool withLogind = true;
    std::unique_ptr<logind::PrivateBus> bus;
    std::unique_ptr<logind::LogindStandIn> standIn;
};

class SleepWatchWithoutLogindTest : public SleepWatchOnBusTest {
  protected:
    SleepWatchWithoutLogindTest() { withLogind = false; }
};

TEST_F(SleepWatchTest, NoBusConfiguredWatchesNothing) {
    make().begin();
    EXPECT_FALSE(watch->watching());
    EXPECT_TRUE(logcapture::entries().empty());
}

TEST_F(SleepWatchTest, WithoutASystemBusNothingIsWatchedAndOnlyADebugLineSaysSo) {
    char folder[] = "/tmp/nobus.XXXXXX";
    ASSERT_NE(::mkdtemp(folder), nullptr);
    ScopedEnv env("DBUS_SYSTEM_BUS_ADDRESS", std::string("unix:path=") + folder + "/none");
    options.bus = ss::kSystemBus;
    make().begin();
    EXPECT_FALSE(watch->watching());
    EXPECT_FALSE(watch->holdsLock());
    EXPECT_TRUE(anyLineContains("no system bus, sleep is not watched"));
    EXPECT_TRUE(onlyDebugLines());
    std::filesystem::remove_all(folder);
}

TEST_F(SleepWatchWithoutLogindTest, TheWatchGivesUpAndOnlyADebugLineSaysSo) {
    make().begin();
    EXPECT_TRUE(watch->watching());
    ASSERT_TRUE(runUntil([&] { return !watch->watching(); }));
    EXPECT_FALSE(watch->holdsLock());
    EXPECT_TRUE(anyLineContains("no sleep lock from logind, sleep is not watched"));
    EXPECT_TRUE(anyLineContains("org.freedesktop.DBus.Error.ServiceUnknown"));
    EXPECT_TRUE(onlyDebugLines());
}

TEST_F(SleepWatchOnBusTest, TakesADelayLockForSleepFromLogind) {
    takeLock();
    auto inhibitors = standIn->inhibitors();
    ASSERT_EQ(inhibitors.size(), 1u);
    EXPECT_EQ(inhibitors[0].what, "sleep");
    EXPECT_EQ(inhibitors[0].mode, "delay");
    EXPECT_EQ(inhibitors[0].who, "orvane-ikev2");
    EXPECT_FALSE(inhibitors[0].why.empty());
    EXPECT_TRUE(onlyDebugLines());
}

TEST_F(SleepWatchOnBusTest, TheSystemBusIsFoundWhereSdBusLooksForIt) {
    ScopedEnv env("DBUS_SYSTEM_BUS_ADDRESS", options.bus);
    options.bus = ss::kSystemBus;
    takeLock();
}

TEST_F(SleepWatchOnBusTest, BeginningTwiceTakesOneLock) {
    takeLock();
    watch->begin();
    runUntil([] { return false; }, 100ms);
    EXPECT_EQ(standIn->inhibitors().size(), 1u);
    EXPECT_EQ(standIn->held(), 1);
}

TEST_F(SleepWatchOnBusTest, PrepareForSleepCallsTheHandlerWhichReleasesTheLock) {
    takeLock();
    standIn->prepareForSleep(true);
    ASSERT_TRUE(runUntil([&] { return sleeps == 1; }));
    EXPECT_FALSE(watch->watching());
    EXPECT_TRUE(standIn->waitFor([&] { return standIn->released() == 1; }, 1000ms));
    EXPECT_EQ(standIn->held(), 0);
}

TEST_F(SleepWatchOnBusTest, TheLockIsKeptUntilTheHandlerEndsTheWatch) {
    bool announced = false;
    make([&] { announced = true; }).begin();
    ASSERT_TRUE(runUntil([&] { return watch->holdsLock(); }));
    standIn->prepareForSleep(true);
    ASSERT_TRUE(runUntil([&] { return announced; }));
    runUntil([] { return false; }, 100ms);
    EXPECT_EQ(standIn->held(), 1) << "released before the tunnel was down";
    watch->end();
    EXPECT_TRUE(standIn->waitFor([&] { return standIn->released() == 1; }, 1000ms));
}

TEST_F(SleepWatchOnBusTest, ResumeFromSleepIsIgnored) {
    takeLock();
    standIn->prepareForSleep(false);
    runUntil([] { return false; }, 200ms);
    EXPECT_EQ(sleeps, 0);
    EXPECT_TRUE(watch->holdsLock());
}

// The release limit under virtual time: it passes when the test moves the
// clock, however busy the machine.
class SleepWatchReleaseLimitTest : public SleepWatchOnBusTest {
  protected:
    void advance(platform::LoopClock::duration by) {
        platform::VirtualTime::advance(by);
        io.restart();
        io.poll();
    }

    testing_support::VirtualTimeScope virtualTime;
};

TEST_F(SleepWatchReleaseLimitTest, TheLockIsReleasedAtTheLimitWhenTheHandlerDoesNotEnd) {
    options.releaseLimit = 1h;
    int announced = 0;
    make([&] { ++announced; }).begin();
    ASSERT_TRUE(runUntil([&] { return watch->holdsLock(); }));
    standIn->prepareForSleep(true);
    ASSERT_TRUE(runUntil([&] { return announced == 1; }));
    advance(1h - 1ms);
    EXPECT_TRUE(watch->holdsLock());
    advance(1ms);
    EXPECT_FALSE(watch->watching());
    EXPECT_TRUE(standIn->waitFor([&] { return standIn->released() == 1; }, 1000ms));
}

TEST_F(SleepWatchOnBusTest, TheBusGoingAwayReleasesTheLock) {
    takeLock();
    bus.reset();
    ASSERT_TRUE(runUntil([&] { return !watch->watching(); }));
    EXPECT_TRUE(anyLineContains("system bus connection lost"));
    EXPECT_TRUE(standIn->waitFor([&] { return standIn->released() == 1; }, 1000ms));
    EXPECT_TRUE(onlyDebugLines());
}

TEST_F(SleepWatchOnBusTest, EndingBeforeLogindAnswersLeavesNoLockHeld) {
    make().begin();
    watch->end();
    runUntil([] { return false; }, 200ms);
    EXPECT_TRUE(standIn->waitFor([&] { return standIn->held() == 0; }, 1000ms));
}

TEST_F(SleepWatchTest, TheSleepNoteGivesTheSleepReason) {
    EXPECT_EQ(ss::disconnectReasonForLine(ss::kSleepNote), "system going to sleep");
}

}  // namespace
