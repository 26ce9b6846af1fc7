#include "platform/NEVPN.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

TEST(StatusObserversTest, EveryObserverIsCalledInTheOrderAdded) {
    platform::removeAllStatusObservers();
    std::vector<std::string> calls;
    platform::addStatusObserver([&calls] { calls.push_back("first"); });
    platform::addStatusObserver([&calls] { calls.push_back("second"); });
    platform::postStatusDidChange();
    platform::postStatusDidChange();
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "second", "first", "second"}));
    platform::removeAllStatusObservers();
}

TEST(StatusObserversTest, RemovedObserversAreNoLongerCalled) {
    platform::removeAllStatusObservers();
    int calls = 0;
    platform::addStatusObserver([&calls] { ++calls; });
    platform::removeAllStatusObservers();
    platform::postStatusDidChange();
    EXPECT_EQ(calls, 0);
}

TEST(StatusObserversTest, ObserverAddedDuringANotificationWaitsForTheNextOne) {
    platform::removeAllStatusObservers();
    int late = 0;
    bool added = false;
    platform::addStatusObserver([&] {
        if (!added) {
            added = true;
            platform::addStatusObserver([&late] { ++late; });
        }
    });
    platform::postStatusDidChange();
    EXPECT_EQ(late, 0);
    platform::postStatusDidChange();
    EXPECT_EQ(late, 1);
    platform::removeAllStatusObservers();
}
