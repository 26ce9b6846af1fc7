#include "platform/RunLoop.h"

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

RunLoop::Clock::duration elapsedSince(RunLoop::Clock::time_point start) {
    return RunLoop::Clock::now() - start;
}

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

}  // namespace

TEST(RunLoopTest, SliceWithNothingQueuedLastsUntilItsDeadline) {
    const auto start = RunLoop::Clock::now();
    RunLoop::main().runUntil(start + 120ms);
    const auto elapsed = elapsedSince(start);
    EXPECT_GE(elapsed, 120ms);
    EXPECT_LT(elapsed, 600ms);
}

TEST(RunLoopTest, StopEndsTheSliceEarly) {
    auto& loop = RunLoop::main();
    const auto start = RunLoop::Clock::now();
    loop.dispatchAfter(30ms, [&loop] { loop.stop(); });
    loop.runUntil(start + 5s);
    const auto elapsed = elapsedSince(start);
    EXPECT_GE(elapsed, 30ms);
    EXPECT_LT(elapsed, 1s);
}

TEST(RunLoopTest, NextSliceRunsNormallyAfterAStop) {
    auto& loop = RunLoop::main();
    loop.post([&loop] { loop.stop(); });
    loop.runUntil(RunLoop::Clock::now() + 5s);
    bool ran = false;
    loop.dispatchAfter(10ms, [&ran] { ran = true; });
    const auto start = RunLoop::Clock::now();
    loop.runUntil(start + 100ms);
    EXPECT_TRUE(ran);
    EXPECT_GE(elapsedSince(start), 100ms);
}

TEST(RunLoopTest, DispatchAfterRunsBlocksInOrderOfTheirDueTimes) {
    auto& loop = RunLoop::main();
    std::vector<std::string> order;
    loop.dispatchAfter(60ms, [&order] { order.push_back("late"); });
    loop.dispatchAfter(20ms, [&order] { order.push_back("early"); });
    loop.dispatchAfter(40ms, [&order] { order.push_back("middle"); });
    loop.post([&order] { order.push_back("posted"); });
    loop.runUntil(RunLoop::Clock::now() + 200ms);
    EXPECT_EQ(order, (std::vector<std::string>{"posted", "early", "middle", "late"}));
}

TEST(RunLoopTest, DispatchAfterNeverRunsBeforeItsDelay) {
    auto& loop = RunLoop::main();
    const auto start = RunLoop::Clock::now();
    RunLoop::Clock::time_point ranAt{};
    loop.dispatchAfter(500ms, [&ranAt] { ranAt = RunLoop::Clock::now(); });
    loop.runUntil(start + 250ms);
    EXPECT_EQ(ranAt, RunLoop::Clock::time_point{});
    loop.runUntil(start + 800ms);
    ASSERT_NE(ranAt, RunLoop::Clock::time_point{});
    EXPECT_GE(ranAt - start, 500ms);
    EXPECT_LT(ranAt - start, 800ms);
}

TEST(RunLoopTest, RunLastsUntilStop) {
    auto& loop = RunLoop::main();
    const auto start = RunLoop::Clock::now();
    loop.dispatchAfter(80ms, [&loop] { loop.stop(); });
    loop.run();
    EXPECT_GE(elapsedSince(start), 80ms);
}

TEST(RunLoopTest, SignalWakeUpDeliversOnTheLoopThreadAtOnce) {
    auto& loop = RunLoop::main();
    installWakeHandler(SIGUSR1);
    std::vector<int> received;
    std::thread::id handlerThread;
    RunLoop::Clock::time_point deliveredAt{};
    loop.watchSignals([&](int signo) {
        received.push_back(signo);
        handlerThread = std::this_thread::get_id();
        deliveredAt = RunLoop::Clock::now();
        loop.stop();
    });
    RunLoop::Clock::time_point raisedAt{};
    // raise() in another thread: the signal handler runs on that thread,
    // off the loop thread, as a signal taken by any thread of the process.
    std::thread sender([&raisedAt] {
        std::this_thread::sleep_for(100ms);
        raisedAt = RunLoop::Clock::now();
        std::raise(SIGUSR1);
    });
    const auto start = RunLoop::Clock::now();
    loop.runUntil(start + 5s);
    sender.join();
    EXPECT_EQ(received, std::vector<int>{SIGUSR1});
    EXPECT_EQ(handlerThread, std::this_thread::get_id());
    EXPECT_LT(deliveredAt - raisedAt, 250ms);
    EXPECT_LT(elapsedSince(start), 1s);
}

TEST(RunLoopTest, SignalTakenBetweenSlicesIsHandledBeforeAnythingQueued) {
    auto& loop = RunLoop::main();
    installWakeHandler(SIGUSR2);
    std::vector<std::string> order;
    loop.watchSignals([&](int signo) {
        order.push_back("signal " + std::to_string(signo));
        loop.stop();
    });
    loop.post([&order] { order.push_back("posted"); });
    std::raise(SIGUSR2);
    loop.runUntil(RunLoop::Clock::now() + 2s);
    ASSERT_EQ(order, std::vector<std::string>{"signal " + std::to_string(SIGUSR2)});
    loop.runUntil(RunLoop::Clock::now() + 50ms);
    EXPECT_EQ(order.back(), "posted");
}

TEST(RunLoopTest, DeliverPendingSignalsCallsTheHandlerOncePerSignal) {
    auto& loop = RunLoop::main();
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

TEST(RunLoopTest, WakeForSignalKeepsErrno) {
    RunLoop::main().watchSignals([](int) {});
    errno = ERANGE;
    RunLoop::wakeForSignal(SIGUSR1);
    EXPECT_EQ(errno, ERANGE);
    RunLoop::main().deliverPendingSignals();
}
