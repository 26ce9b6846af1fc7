#pragma once

// The monotonic clock that the run loop, the backends' timers and their
// bounded waits keep: the steady clock, or virtual time that a test sets
// going.
//
// Virtual time stands still until something moves it:
// - VirtualTime::advance, called by a test, or by a fake peer for the time
//   that passes while it sits on a request;
// - a wait whose end is a point in time, once there is nothing left to do
//   before it: a slice of the run loop moves the clock to the next timer or
//   to the end of the slice, a wait for trailing events to its end.
// A wait for an answer never moves the clock: it ends when the answer comes,
// or once something else has moved the clock past its deadline. Timers fire
// in the order of their due times as the clock passes them.

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

namespace platform {

struct LoopClock {
    using duration = std::chrono::steady_clock::duration;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<LoopClock>;
    static constexpr bool is_steady = true;

    static time_point now() noexcept;
};

class VirtualTime {
  public:
    // From now on the clock is virtual, starting at the present steady time.
    static void start();
    // Back to the steady clock; timers still pending are dropped unfired.
    static void stop();
    static bool active() noexcept;

    // Moves the clock on (never back), firing each timer due on the way with
    // the clock at its due time. Safe from any thread.
    static void advance(LoopClock::duration by);
    static void advanceTo(LoopClock::time_point when);
    // The due time of the earliest pending timer.
    static std::optional<LoopClock::time_point> nextDue();

    // A timer of the virtual clock. `done(true)` is called once the clock
    // reaches `due` (within the call when it already has), `done(false)` when
    // it is cancelled first; either comes from the thread that moves the
    // clock or cancels, so `done` only hands work over (posts it to a loop).
    using TimerId = std::uint64_t;
    static TimerId schedule(LoopClock::time_point due, std::function<void(bool expired)> done);
    // False when the timer was no longer pending.
    static bool cancel(TimerId id);
};

}  // namespace platform
