#pragma once

// For fixtures that test the sleep watch: a private bus and, on it, a
// logind stand-in. Call from SetUp: without dbus-daemon the test is skipped
// (a failure under CI=true, where scripts/install-deps has installed it).

#include "tests/logind/LogindStandIn.h"
#include "tests/logind/PrivateBus.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace testlogind {

inline void start(std::unique_ptr<logind::PrivateBus>& bus,
                  std::unique_ptr<logind::LogindStandIn>& standIn, bool withLogind = true) {
    if (!logind::PrivateBus::available()) {
        const char* ci = std::getenv("CI");
        if (ci != nullptr && std::string(ci) == "true") {
            FAIL() << "dbus-daemon is not installed (scripts/install-deps installs it)";
        }
        GTEST_SKIP() << "dbus-daemon is not installed";
    }
    bus = std::make_unique<logind::PrivateBus>();
    std::string error;
    ASSERT_TRUE(bus->start(error)) << error;
    if (withLogind) {
        standIn = std::make_unique<logind::LogindStandIn>(bus->address());
        ASSERT_TRUE(standIn->start(error)) << error;
    }
}

}  // namespace testlogind
