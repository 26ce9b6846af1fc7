#pragma once

// Virtual time for the life of a test fixture: the loop's clock stands still
// from construction until something moves it, and is the steady clock again
// after destruction (platform/LoopClock.h).

#include "platform/LoopClock.h"

namespace testing_support {

class VirtualTimeScope {
  public:
    VirtualTimeScope() { platform::VirtualTime::start(); }
    ~VirtualTimeScope() { platform::VirtualTime::stop(); }
    VirtualTimeScope(const VirtualTimeScope&) = delete;
    VirtualTimeScope& operator=(const VirtualTimeScope&) = delete;
};

}  // namespace testing_support
