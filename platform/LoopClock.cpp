#include "platform/LoopClock.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <utility>

namespace platform {

namespace {

using Key = std::pair<LoopClock::rep, VirtualTime::TimerId>;
using Timers = std::map<Key, std::function<void(bool)>>;

struct VirtualClock {
    std::atomic<bool> active{false};
    std::atomic<LoopClock::rep> now{0};
    std::mutex mutex;
    // Ordered by due time, then by scheduling order.
    Timers timers;
    std::map<VirtualTime::TimerId, LoopClock::rep> dueOf;
    VirtualTime::TimerId lastId = 0;
};

VirtualClock& virtualClock() {
    // Never destroyed: timers may be touched while the process exits.
    static auto* clock = new VirtualClock;
    return *clock;
}

LoopClock::rep steadyNow() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

}  // namespace

LoopClock::time_point LoopClock::now() noexcept {
    VirtualClock& clock = virtualClock();
    const rep ticks = clock.active.load(std::memory_order_acquire)
                          ? clock.now.load(std::memory_order_acquire)
                          : steadyNow();
    return time_point(duration(ticks));
}

void VirtualTime::start() {
    VirtualClock& clock = virtualClock();
    std::lock_guard lock(clock.mutex);
    clock.now.store(steadyNow(), std::memory_order_release);
    clock.active.store(true, std::memory_order_release);
}

void VirtualTime::stop() {
    VirtualClock& clock = virtualClock();
    Timers dropped;
    {
        std::lock_guard lock(clock.mutex);
        clock.active.store(false, std::memory_order_release);
        dropped.swap(clock.timers);
        clock.dueOf.clear();
    }
    // Destroyed unlocked: what they hold may cancel timers of its own.
}

bool VirtualTime::active() noexcept {
    return virtualClock().active.load(std::memory_order_acquire);
}

void VirtualTime::advance(LoopClock::duration by) {
    advanceTo(LoopClock::now() + by);
}

void VirtualTime::advanceTo(LoopClock::time_point when) {
    VirtualClock& clock = virtualClock();
    const LoopClock::rep target = when.time_since_epoch().count();
    for (;;) {
        std::function<void(bool)> done;
        {
            std::lock_guard lock(clock.mutex);
            const LoopClock::rep now = clock.now.load(std::memory_order_relaxed);
            if (clock.timers.empty() || clock.timers.begin()->first.first > target) {
                clock.now.store(std::max(now, target), std::memory_order_release);
                return;
            }
            auto first = clock.timers.begin();
            clock.now.store(std::max(now, first->first.first), std::memory_order_release);
            clock.dueOf.erase(first->first.second);
            done = std::move(first->second);
            clock.timers.erase(first);
        }
        done(true);
    }
}

std::optional<LoopClock::time_point> VirtualTime::nextDue() {
    VirtualClock& clock = virtualClock();
    std::lock_guard lock(clock.mutex);
    if (clock.timers.empty()) {
        return std::nullopt;
    }
    return LoopClock::time_point(LoopClock::duration(clock.timers.begin()->first.first));
}

VirtualTime::TimerId VirtualTime::schedule(LoopClock::time_point due,
                                           std::function<void(bool expired)> done) {
    VirtualClock& clock = virtualClock();
    const LoopClock::rep ticks = due.time_since_epoch().count();
    TimerId id = 0;
    {
        std::lock_guard lock(clock.mutex);
        id = ++clock.lastId;
        if (ticks > clock.now.load(std::memory_order_relaxed)) {
            clock.timers.emplace(Key{ticks, id}, std::move(done));
            clock.dueOf.emplace(id, ticks);
            return id;
        }
    }
    done(true);
    return id;
}

bool VirtualTime::cancel(TimerId id) {
    VirtualClock& clock = virtualClock();
    std::function<void(bool)> done;
    {
        std::lock_guard lock(clock.mutex);
        auto found = clock.dueOf.find(id);
        if (found == clock.dueOf.end()) {
            return false;
        }
        auto timer = clock.timers.find(Key{found->second, id});
        done = std::move(timer->second);
        clock.timers.erase(timer);
        clock.dueOf.erase(found);
    }
    done(false);
    return true;
}

}  // namespace platform
