#pragma once

// A one-shot timer on an io_context that keeps the loop's clock
// (platform/LoopClock.h): an Asio steady timer, or under virtual time a
// timer of the virtual clock whose handler is posted to the io_context when
// the clock reaches it. It offers the part of asio::steady_timer's
// interface that the run loop and the strongSwan backend use, under the
// same names and with the same semantics.

#include "platform/LoopClock.h"

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include <cstddef>
#include <functional>
#include <system_error>
#include <vector>

namespace platform {

class LoopTimer {
  public:
    using Handler = std::function<void(const std::error_code& error)>;

    explicit LoopTimer(asio::io_context& context);
    // Cancels a pending wait, as Asio's timer does.
    ~LoopTimer();
    LoopTimer(const LoopTimer&) = delete;
    LoopTimer& operator=(const LoopTimer&) = delete;

    // Sets the expiry `delay` from now; a pending wait is cancelled.
    void expires_after(LoopClock::duration delay);
    // Calls `handler` on the io_context once the expiry is reached (no
    // error), or with asio::error::operation_aborted when the wait is
    // cancelled first.
    void async_wait(Handler handler);
    // Cancels the pending waits; how many there were.
    std::size_t cancel();

  private:
    std::size_t cancelVirtualWaits();

    asio::io_context& context_;
    asio::steady_timer steady_;
    LoopClock::time_point expiry_;
    std::vector<VirtualTime::TimerId> virtualWaits_;
};

}  // namespace platform
