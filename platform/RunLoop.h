#pragma once

// The main run loop: one thread turns it, and VPN completions, status
// notifications, timers and the signal wake-up all run there. One
// implementation per OS, chosen by the build: Asio on Linux (the backend
// reaches its io_context through platform/linux/IoContext.h), the main
// CFRunLoop and the main dispatch queue on macOS. This header shows neither.
// Time is the loop's clock (platform/LoopClock.h), virtual in tests that
// set it going.

#include "platform/LoopClock.h"

#include <chrono>
#include <functional>

namespace platform {

class RunLoop {
  public:
    using Clock = LoopClock;

    // The process's main run loop.
    static RunLoop& main();

    // Runs handlers until `deadline` has passed or `stop()` was called,
    // whichever comes first (NSRunLoop's runUntilDate:). Under virtual time
    // a run takes no real time: whenever nothing is ready, the clock moves on
    // to the next timer or to the deadline.
    void runUntil(Clock::time_point deadline);
    // Runs handlers until `stop()` is called (NSRunLoop's run).
    void run();
    // Ends the current run or slice as soon as the running handler returns.
    void stop();

    // Queues `block` to run on the loop after `delay` (dispatch_after on the
    // main queue).
    void dispatchAfter(std::chrono::nanoseconds delay, std::function<void()> block);
    // Queues `block` to run on the loop as soon as possible; may be called
    // from any thread.
    void post(std::function<void()> block);

    // Signal wake-up. After `watchSignals(handler)`, a call of
    // `wakeForSignal(signo)` from a signal handler (async-signal-safe: one
    // write to a pipe) makes the loop call `handler(signo)` on its own
    // thread, at once rather than at the end of the current slice.
    void watchSignals(std::function<void(int signo)> handler);
    static void wakeForSignal(int signo) noexcept;
    // Calls the watch handler, on the calling (loop) thread, for every
    // signal woken so far and not yet handled. Each slice starts with it;
    // main also calls it between `connect` and its wait loop so that a
    // signal taken during `connect` is acted on before any other handler.
    void deliverPendingSignals();

    // Around a fork() after which the child turns its copy of the loop:
    // call with `prepare` before the fork, then `child` in the child and
    // `parent` in the parent.
    enum class ForkEvent { prepare, child, parent };
    void notifyFork(ForkEvent event);

  private:
    RunLoop() = default;
    // Makes the loop call deliverPendingSignals whenever `fd` is readable.
    void watchReadable(int fd);
    // Runs the handlers that are ready, without waiting; false once the
    // loop has been stopped.
    bool runReady();
    // A run under virtual time, after the per-OS start of runUntil.
    void runVirtualUntil(Clock::time_point deadline);
};

}  // namespace platform
