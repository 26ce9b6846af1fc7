#include "platform/LoopClock.h"

#include "tests/unit/double/VirtualTimeScope.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using platform::LoopClock;
using platform::VirtualTime;
using namespace std::chrono_literals;

namespace {

class VirtualTimeTest : public ::testing::Test {
  protected:
    // What fired, with the clock at the time.
    std::function<void(bool)> record(const std::string& name) {
        return [this, name](bool expired) {
            fired.emplace_back(expired ? name : name + " cancelled", LoopClock::now() - start);
        };
    }

    testing_support::VirtualTimeScope virtualTime;
    const LoopClock::time_point start = LoopClock::now();
    std::vector<std::pair<std::string, LoopClock::duration>> fired;
};

using Fired = std::vector<std::pair<std::string, LoopClock::duration>>;

}  // namespace

TEST_F(VirtualTimeTest, ClockStandsStillUntilItIsMoved) {
    EXPECT_TRUE(VirtualTime::active());
    std::this_thread::sleep_for(2ms);
    EXPECT_EQ(LoopClock::now(), start);
    VirtualTime::advance(5ms);
    EXPECT_EQ(LoopClock::now() - start, 5ms);
}

TEST_F(VirtualTimeTest, ClockNeverGoesBack) {
    VirtualTime::advance(10ms);
    VirtualTime::advanceTo(start);
    VirtualTime::advance(-3ms);
    EXPECT_EQ(LoopClock::now() - start, 10ms);
}

TEST_F(VirtualTimeTest, TimersFireInDueOrderWithTheClockAtTheirDueTimes) {
    VirtualTime::schedule(start + 30ms, record("late"));
    VirtualTime::schedule(start + 10ms, record("early"));
    VirtualTime::schedule(start + 20ms, record("middle"));
    VirtualTime::schedule(start + 10ms, record("early, set later"));
    EXPECT_EQ(VirtualTime::nextDue(), start + 10ms);
    VirtualTime::advance(25ms);
    EXPECT_EQ(fired, (Fired{{"early", 10ms}, {"early, set later", 10ms}, {"middle", 20ms}}));
    EXPECT_EQ(LoopClock::now() - start, 25ms);
    EXPECT_EQ(VirtualTime::nextDue(), start + 30ms);
    VirtualTime::advance(5ms);
    EXPECT_EQ(fired.back(), (std::pair<std::string, LoopClock::duration>{"late", 30ms}));
    EXPECT_EQ(VirtualTime::nextDue(), std::nullopt);
}

TEST_F(VirtualTimeTest, TimerAlreadyDueFiresWithinTheSchedulingCall) {
    VirtualTime::schedule(start, record("now"));
    VirtualTime::schedule(start - 1s, record("past"));
    EXPECT_EQ(fired, (Fired{{"now", 0ms}, {"past", 0ms}}));
    EXPECT_EQ(VirtualTime::nextDue(), std::nullopt);
}

TEST_F(VirtualTimeTest, CancelledTimerIsToldSoAndNeverFires) {
    const auto id = VirtualTime::schedule(start + 10ms, record("timer"));
    EXPECT_TRUE(VirtualTime::cancel(id));
    EXPECT_FALSE(VirtualTime::cancel(id));
    VirtualTime::advance(1s);
    EXPECT_EQ(fired, (Fired{{"timer cancelled", 0ms}}));
}

TEST_F(VirtualTimeTest, FiredTimerCannotBeCancelled) {
    const auto id = VirtualTime::schedule(start + 10ms, record("timer"));
    VirtualTime::advance(10ms);
    EXPECT_FALSE(VirtualTime::cancel(id));
    EXPECT_EQ(fired, (Fired{{"timer", 10ms}}));
}

TEST_F(VirtualTimeTest, ATimerMaySetAnotherThatFallsDueInTheSameAdvance) {
    VirtualTime::schedule(start + 10ms, [this](bool) {
        VirtualTime::schedule(LoopClock::now() + 10ms, record("second"));
    });
    VirtualTime::advance(50ms);
    EXPECT_EQ(fired, (Fired{{"second", 20ms}}));
}

TEST_F(VirtualTimeTest, StopDropsPendingTimersAndGoesBackToTheSteadyClock) {
    VirtualTime::schedule(start + 10ms, record("timer"));
    VirtualTime::stop();
    EXPECT_FALSE(VirtualTime::active());
    const auto before = std::chrono::steady_clock::now().time_since_epoch();
    const auto now = LoopClock::now().time_since_epoch();
    const auto after = std::chrono::steady_clock::now().time_since_epoch();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
    VirtualTime::start();
    VirtualTime::advance(1h);
    EXPECT_TRUE(fired.empty());
}

TEST_F(VirtualTimeTest, ThreadsMayMoveTheClockAndSetTimersAtOnce) {
    std::atomic<int> expired{0};
    std::atomic<int> cancelled{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                const auto id = VirtualTime::schedule(
                    LoopClock::now() + std::chrono::microseconds(1 + (i + t) % 7),
                    [&](bool done) { ++(done ? expired : cancelled); });
                if (i % 3 == 0) {
                    VirtualTime::cancel(id);
                }
                VirtualTime::advance(std::chrono::microseconds(i % 5));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    VirtualTime::advance(1s);
    EXPECT_EQ(expired + cancelled, 2000);
    EXPECT_EQ(VirtualTime::nextDue(), std::nullopt);
}
