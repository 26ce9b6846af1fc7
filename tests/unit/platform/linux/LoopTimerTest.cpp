#include "platform/linux/LoopTimer.h"

#include "tests/unit/double/VirtualTimeScope.h"

#include <gtest/gtest.h>
#include <asio/error.hpp>

#include <memory>
#include <string>
#include <vector>

using platform::LoopClock;
using platform::LoopTimer;
using platform::VirtualTime;
using namespace std::chrono_literals;

namespace {

class LoopTimerTest : public ::testing::Test {
  protected:
    LoopTimer::Handler record(const std::string& name) {
        return [this, name](const std::error_code& error) {
            outcomes.push_back(name + (error == asio::error::operation_aborted ? " aborted"
                                       : error                                 ? " failed"
                                                                               : " expired"));
        };
    }
    // Runs what is ready on the io_context, without waiting.
    void runReady() {
        io.restart();
        io.poll();
    }

    testing_support::VirtualTimeScope virtualTime;
    asio::io_context io;
    std::vector<std::string> outcomes;
};

}  // namespace

TEST_F(LoopTimerTest, ExpiresWhenTheClockReachesItsExpiryAndRunsOnTheIoContext) {
    LoopTimer timer(io);
    timer.expires_after(150ms);
    timer.async_wait(record("timer"));
    VirtualTime::advance(149ms);
    runReady();
    EXPECT_TRUE(outcomes.empty());
    VirtualTime::advance(1ms);
    EXPECT_TRUE(outcomes.empty()) << "the handler runs on the io_context, not in the advance";
    runReady();
    EXPECT_EQ(outcomes, std::vector<std::string>{"timer expired"});
}

TEST_F(LoopTimerTest, CancelAbortsThePendingWait) {
    LoopTimer timer(io);
    timer.expires_after(10ms);
    timer.async_wait(record("timer"));
    EXPECT_EQ(timer.cancel(), 1u);
    EXPECT_EQ(timer.cancel(), 0u);
    VirtualTime::advance(1s);
    runReady();
    EXPECT_EQ(outcomes, std::vector<std::string>{"timer aborted"});
}

TEST_F(LoopTimerTest, NewExpiryAbortsThePendingWaitAndCountsFromNow) {
    LoopTimer timer(io);
    timer.expires_after(50ms);
    timer.async_wait(record("first"));
    VirtualTime::advance(40ms);
    timer.expires_after(50ms);
    timer.async_wait(record("second"));
    VirtualTime::advance(49ms);
    runReady();
    EXPECT_EQ(outcomes, std::vector<std::string>{"first aborted"});
    VirtualTime::advance(1ms);
    runReady();
    EXPECT_EQ(outcomes, (std::vector<std::string>{"first aborted", "second expired"}));
}

TEST_F(LoopTimerTest, DestroyingTheTimerAbortsItsWait) {
    {
        LoopTimer timer(io);
        timer.expires_after(10ms);
        timer.async_wait(record("timer"));
    }
    VirtualTime::advance(1s);
    runReady();
    EXPECT_EQ(outcomes, std::vector<std::string>{"timer aborted"});
}

TEST_F(LoopTimerTest, AHandlerMayKeepItsOwnTimerAlive) {
    auto timer = std::make_shared<LoopTimer>(io);
    std::weak_ptr<LoopTimer> watch = timer;
    timer->expires_after(10ms);
    timer->async_wait([this, timer](const std::error_code& error) {
        outcomes.push_back(error ? "failed" : "expired");
    });
    timer.reset();
    EXPECT_FALSE(watch.expired()) << "the pending wait holds it";
    VirtualTime::advance(10ms);
    runReady();
    EXPECT_EQ(outcomes, std::vector<std::string>{"expired"});
    EXPECT_TRUE(watch.expired());
}

TEST_F(LoopTimerTest, OnTheSteadyClockItIsAnAsioTimer) {
    VirtualTime::stop();
    LoopTimer timer(io);
    const auto start = LoopClock::now();
    timer.expires_after(1ms);
    timer.async_wait(record("timer"));
    io.run();
    EXPECT_EQ(outcomes, std::vector<std::string>{"timer expired"});
    EXPECT_GE(LoopClock::now() - start, 1ms);
    timer.expires_after(1h);
    timer.async_wait(record("long"));
    EXPECT_EQ(timer.cancel(), 1u);
    io.restart();
    io.run();
    EXPECT_EQ(outcomes, (std::vector<std::string>{"timer expired", "long aborted"}));
}
