#pragma once

// Callbacks that outlive their owner. An object whose handlers may still be
// queued on the io_context after it is gone (timers, VICI replies, events)
// wraps them with its Liveness: a wrapped handler does nothing once the
// object, and with it the Liveness, has been destroyed or ended.

#include <memory>
#include <utility>

namespace platform::strongswan {

class Liveness {
  public:
    // `handler`, called with whatever arguments it is given, while the owner
    // lives.
    template <typename Handler>
    auto guard(Handler handler) const {
        return [alive = std::weak_ptr<const int>(token_),
                handler = std::move(handler)](auto&&... arguments) {
            if (alive.lock()) {
                handler(std::forward<decltype(arguments)>(arguments)...);
            }
        };
    }
    // From now on no guarded handler runs.
    void end() { token_.reset(); }

  private:
    std::shared_ptr<const int> token_ = std::make_shared<const int>(0);
};

}  // namespace platform::strongswan
