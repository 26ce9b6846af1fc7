#include "platform/RunLoop.h"

// The loop's header is the same on every OS: it must not bring in the Asio
// loop that only the Linux implementation uses.
#ifdef ASIO_DETAIL_CONFIG_HPP
#error "platform/RunLoop.h includes Asio"
#endif

#include "tests/unit/double/ChildProcess.h"
#include "tests/unit/double/VirtualTimeScope.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

using platform::RunLoop;
using namespace std::chrono_literals;

namespace {

// Under virtual time: the loop's timings are exact, and a run takes no real
// time.
class RunLoopTest : public ::testing::Test {
  protected:
    RunLoop::Clock::duration elapsed() const { return RunLoop::Clock::now() - start; }

    testing_support::VirtualTimeScope virtualTime;
    RunLoop& loop = RunLoop::main();
    const RunLoop::Clock::time_point start = RunLoop::Clock::now();
};

void wakeHandler(int signo) {
    RunLoop::wakeForSignal(signo);
}

void installWakeHandler(int signo) {
    struct sigaction action {};
    action.sa_handler = wakeHandler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    ASSERT_EQ(::sigaction(signo, &action, nullptr), 0);
}

// Runs slices of the (real-time) loop until `done`; the limit only keeps a
// broken loop from hanging the test.
template <typename Done>
bool runSlicesUntil(Done done) {
    const auto giveUp = RunLoop::Clock::now() + 60s;
    while (!done() && RunLoop::Clock::now() < giveUp) {
        RunLoop::main().runUntil(RunLoop::Clock::now() + 10ms);
    }
    return done();
}

}  // namespace

TEST_F(RunLoopTest, SliceWithNothingQueuedLastsUntilItsDeadline) {
    loop.runUntil(start + 120ms);
    EXPECT_EQ(elapsed(), 120ms);
}

TEST_F(RunLoopTest, StopEndsTheSliceEarly) {
    loop.dispatchAfter(30ms, [this] { loop.stop(); });
    loop.runUntil(start + 5s);
    EXPECT_EQ(elapsed(), 30ms);
}

TEST_F(RunLoopTest, NextSliceRunsNormallyAfterAStop) {
    loop.post([this] { loop.stop(); });
    loop.runUntil(start + 5s);
    EXPECT_EQ(elapsed(), 0ms);
    RunLoop::Clock::duration ranAt{-1};
    loop.dispatchAfter(10ms, [&] { ranAt = elapsed(); });
    loop.runUntil(start + 100ms);
    EXPECT_EQ(ranAt, 10ms);
    EXPECT_EQ(elapsed(), 100ms);
}

TEST_F(RunLoopTest, DispatchAfterRunsBlocksInOrderOfTheirDueTimes) {
    std::vector<std::pair<std::string, RunLoop::Clock::duration>> order;
    loop.dispatchAfter(60ms, [&] { order.emplace_back("late", elapsed()); });
    loop.dispatchAfter(20ms, [&] { order.emplace_back("early", elapsed()); });
    loop.dispatchAfter(40ms, [&] { order.emplace_back("middle", elapsed()); });
    loop.post([&] { order.emplace_back("posted", elapsed()); });
    loop.runUntil(start + 200ms);
    EXPECT_EQ(order, (std::vector<std::pair<std::string, RunLoop::Clock::duration>>{
                         {"posted", 0ms}, {"early", 20ms}, {"middle", 40ms}, {"late", 60ms}}));
}

TEST_F(RunLoopTest, DispatchAfterRunsOnceItsDelayHasPassedAndNotBefore) {
    RunLoop::Clock::duration ranAt{-1};
    loop.dispatchAfter(500ms, [&] { ranAt = elapsed(); });
    loop.runUntil(start + 499ms);
    EXPECT_EQ(ranAt, RunLoop::Clock::duration{-1});
    loop.runUntil(start + 800ms);
    EXPECT_EQ(ranAt, 500ms);
}

TEST_F(RunLoopTest, RunLastsUntilStop) {
    loop.dispatchAfter(80ms, [this] { loop.stop(); });
    loop.run();
    EXPECT_EQ(elapsed(), 80ms);
}

TEST_F(RunLoopTest, RunWaitsForWorkFromAnotherThreadWhenNoTimerIsSet) {
    std::thread poster([this] {
        std::this_thread::sleep_for(20ms);
        loop.post([this] { loop.stop(); });
    });
    loop.run();
    poster.join();
    EXPECT_EQ(elapsed(), 0ms);
}

TEST_F(RunLoopTest, SignalWakeUpDeliversOnTheLoopThreadAtOnce) {
    installWakeHandler(SIGUSR1);
    std::vector<int> received;
    std::thread::id handlerThread;
    RunLoop::Clock::duration deliveredAt{-1};
    loop.watchSignals([&](int signo) {
        received.push_back(signo);
        handlerThread = std::this_thread::get_id();
        deliveredAt = elapsed();
        loop.stop();
    });
    // raise() in another thread, 100 ms into the slice: the signal handler
    // runs on that thread, off the loop thread, as a signal taken by any
    // thread of the process.
    loop.dispatchAfter(100ms, [] { std::thread([] { std::raise(SIGUSR1); }).join(); });
    loop.runUntil(start + 5s);
    EXPECT_EQ(received, std::vector<int>{SIGUSR1});
    EXPECT_EQ(handlerThread, std::this_thread::get_id());
    EXPECT_EQ(deliveredAt, 100ms);
    EXPECT_EQ(elapsed(), 100ms) << "the slice ends when the handler stops it";
}

TEST_F(RunLoopTest, SignalTakenBetweenSlicesIsHandledBeforeAnythingQueued) {
    installWakeHandler(SIGUSR2);
    std::vector<std::string> order;
    loop.watchSignals([&](int signo) {
        order.push_back("signal " + std::to_string(signo));
        loop.stop();
    });
    loop.post([&order] { order.push_back("posted"); });
    std::raise(SIGUSR2);
    loop.runUntil(start + 2s);
    ASSERT_EQ(order, std::vector<std::string>{"signal " + std::to_string(SIGUSR2)});
    EXPECT_EQ(elapsed(), 0ms);
    loop.runUntil(start + 50ms);
    EXPECT_EQ(order.back(), "posted");
}

TEST_F(RunLoopTest, DeliverPendingSignalsCallsTheHandlerOncePerSignal) {
    installWakeHandler(SIGUSR1);
    installWakeHandler(SIGTERM);
    std::vector<int> received;
    loop.watchSignals([&](int signo) { received.push_back(signo); });
    loop.deliverPendingSignals();
    EXPECT_TRUE(received.empty());
    std::raise(SIGUSR1);
    std::raise(SIGTERM);
    loop.deliverPendingSignals();
    EXPECT_EQ(received, (std::vector<int>{SIGUSR1, SIGTERM}));
    loop.deliverPendingSignals();
    EXPECT_EQ(received.size(), 2u);
    ::signal(SIGTERM, SIG_DFL);
}

TEST_F(RunLoopTest, WakeForSignalKeepsErrno) {
    loop.watchSignals([](int) {});
    errno = ERANGE;
    RunLoop::wakeForSignal(SIGUSR1);
    EXPECT_EQ(errno, ERANGE);
    loop.deliverPendingSignals();
}

TEST_F(RunLoopTest, SignalsWokenInABurstAreAllDelivered) {
    std::vector<int> received;
    loop.watchSignals([&](int signo) { received.push_back(signo); });
    for (int i = 0; i < 1000; ++i) {
        RunLoop::wakeForSignal(i % 2 == 0 ? SIGINT : SIGTERM);
    }
    loop.deliverPendingSignals();
    ASSERT_EQ(received.size(), 1000u);
    EXPECT_EQ(received.front(), SIGINT);
    EXPECT_EQ(received.back(), SIGTERM);
}

TEST_F(RunLoopTest, WakeForSignalNeverBlocksWhenNothingReadsThePipe) {
    std::size_t delivered = 0;
    loop.watchSignals([&delivered](int) { ++delivered; });
    // Far more wake-ups than a pipe holds: the surplus is dropped, and the
    // loop is still woken.
    for (int i = 0; i < 200000; ++i) {
        RunLoop::wakeForSignal(SIGUSR1);
    }
    loop.deliverPendingSignals();
    EXPECT_GT(delivered, 0u);
    EXPECT_LT(delivered, 200000u);
    const std::size_t before = delivered;
    RunLoop::wakeForSignal(SIGUSR1);
    loop.deliverPendingSignals();
    EXPECT_EQ(delivered, before + 1);
}

// On the steady clock: this is about the loop's kernel objects (its epoll
// and timer descriptors), which a forked child must not share.
TEST(RunLoopForkTest, AForkedChildTurnsItsOwnLoopAndTheParentsKeepsWorking) {
    using ForkEvent = RunLoop::ForkEvent;
    auto& loop = RunLoop::main();
    bool parentRan = false;
    loop.dispatchAfter(50ms, [&parentRan] { parentRan = true; });
    // The child runs until the parent's timer has fired too (its copy fires
    // there), so a loop sharing the parent's kernel objects would leave the
    // parent's timer unarmed.
    const auto child = testing_support::runInChild(
        [&loop, &parentRan] {
            bool childRan = false;
            loop.dispatchAfter(20ms, [&childRan] { childRan = true; });
            std::exit(runSlicesUntil([&] { return childRan && parentRan; }) ? 0 : 3);
        },
        [&loop] { loop.notifyFork(ForkEvent::prepare); },
        [&loop] { loop.notifyFork(ForkEvent::child); },
        [&loop] { loop.notifyFork(ForkEvent::parent); });
    EXPECT_EQ(child.exitStatus, 0);
    EXPECT_TRUE(runSlicesUntil([&] { return parentRan; }));
}
