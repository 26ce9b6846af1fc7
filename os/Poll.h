#pragma once

// A bounded wait on one descriptor.

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <climits>

namespace os {

// poll(2) on `descriptor` for at most `left`. poll counts whole
// milliseconds, so the span is rounded up: the wait never ends before its
// time. A span already gone looks without waiting.
inline int pollFor(pollfd& descriptor, std::chrono::steady_clock::duration left) {
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return ::poll(&descriptor, 1, static_cast<int>(std::clamp<decltype(ms)>(ms, 0, INT_MAX)));
}

}  // namespace os
