#include "platform/linux/LoopTimer.h"

#include <asio/error.hpp>
#include <asio/post.hpp>

namespace platform {

LoopTimer::LoopTimer(asio::io_context& context)
    : context_(context), steady_(context), expiry_(LoopClock::now()) {}

LoopTimer::~LoopTimer() {
    cancelVirtualWaits();
}

void LoopTimer::expires_after(LoopClock::duration delay) {
    cancelVirtualWaits();
    expiry_ = LoopClock::now() + delay;
    steady_.expires_after(delay);
}

void LoopTimer::async_wait(Handler handler) {
    if (!VirtualTime::active()) {
        steady_.async_wait(std::move(handler));
        return;
    }
    virtualWaits_.push_back(VirtualTime::schedule(
        expiry_, [&context = context_, handler = std::move(handler)](bool expired) {
            asio::post(context, [handler, expired] {
                handler(expired ? std::error_code() : asio::error::operation_aborted);
            });
        }));
}

std::size_t LoopTimer::cancel() {
    return steady_.cancel() + cancelVirtualWaits();
}

std::size_t LoopTimer::cancelVirtualWaits() {
    std::size_t cancelled = 0;
    for (VirtualTime::TimerId id : virtualWaits_) {
        cancelled += VirtualTime::cancel(id) ? 1 : 0;
    }
    virtualWaits_.clear();
    return cancelled;
}

}  // namespace platform
