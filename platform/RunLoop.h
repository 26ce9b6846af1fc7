#pragma once

// The main run loop: one thread turns it, and VPN completions, status
// notifications, timers and the signal wake-up all run there. Built on
// standalone Asio; backends put their sockets on `context()`.

#include <asio/io_context.hpp>

#include <chrono>
#include <functional>

namespace platform {

class RunLoop {
public:
    using Clock = std::chrono::steady_clock;

    // The process's main run loop.
    static RunLoop& main();

    asio::io_context& context() { return context_; }

    // Runs handlers until `deadline` has passed or `stop()` was called,
    // whichever comes first (NSRunLoop's runUntilDate:).
    void runUntil(Clock::time_point deadline);
    // Runs handlers until `stop()` is called (NSRunLoop's run).
    void run();
    // Ends the current run or slice as soon as the running handler returns.
    void stop();

    // Queues `block` to run on the loop after `delay` (dispatch_after on the
    // main queue).
    void dispatchAfter(std::chrono::nanoseconds delay, std::function<void()> block);
    // Queues `block` to run on the loop as soon as possible.
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

private:
    RunLoop();
    asio::io_context context_;
};

}  // namespace platform
