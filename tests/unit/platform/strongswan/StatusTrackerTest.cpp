#include "platform/strongswan/StatusTracker.h"

#include "tests/unit/platform/strongswan/FakeCharon.h"

#include <gtest/gtest.h>

namespace ss = platform::strongswan;
using fakecharon::updown;
using platform::NEVPNStatus;
using ss::ViciSection;

namespace {

const std::string kConn = "Orvane IKEv2";

struct Step {
    std::string input;  // "start", "stop", "failed", "gone" or an event name
    ViciSection event;
    NEVPNStatus expected;
    bool changed;
};

ViciSection rekey(const std::string& oldId, const std::string& newId) {
    ViciSection event;
    ViciSection& sa = event.addSection(kConn);
    sa.addSection("old").add("uniqueid", oldId);
    sa.addSection("new").add("uniqueid", newId);
    return event;
}

ViciSection withId(ViciSection event, const std::string& id) {
    for (auto& entry : event.entries()) {
        if (entry.name == kConn) {
            for (auto& e : entry.section.entries()) {
                if (e.name == "uniqueid") {
                    e.value = id;
                }
            }
        }
    }
    return event;
}

ViciSection childState(ViciSection event, const std::string& state) {
    for (auto& entry : event.entries()) {
        if (entry.name != kConn) {
            continue;
        }
        for (auto& e : entry.section.entries()) {
            if (e.name != "child-sas") {
                continue;
            }
            for (auto& child : e.section.entries()) {
                for (auto& kv : child.section.entries()) {
                    if (kv.name == "state") {
                        kv.value = state;
                    }
                }
            }
        }
    }
    return event;
}

// The event as charon sends it while a task of the IKE_SA is active.
ViciSection withTask(ViciSection event, const std::string& task) {
    for (auto& entry : event.entries()) {
        if (entry.name == kConn) {
            entry.section.addList("tasks-active", {task});
        }
    }
    return event;
}

struct Scenario {
    const char* what;
    std::vector<Step> steps;
};

void run(const Scenario& s) {
    ss::StatusTracker tracker(kConn, "orvane");
    int i = 0;
    for (const auto& step : s.steps) {
        bool changed = false;
        if (step.input == "start") {
            changed = tracker.startRequested();
        } else if (step.input == "stop") {
            changed = tracker.stopRequested();
        } else if (step.input == "failed") {
            changed = tracker.startFailed();
        } else if (step.input == "gone") {
            changed = tracker.tunnelGone();
        } else {
            changed = tracker.onEvent(step.input, step.event);
        }
        EXPECT_EQ(tracker.status(), step.expected) << s.what << ", step " << i;
        EXPECT_EQ(changed, step.changed) << s.what << ", step " << i;
        ++i;
    }
}

TEST(StatusTrackerTest, EventSequencesGiveTheStatuses) {
    using namespace platform;
    const auto ikeUp = updown(kConn, true, "ESTABLISHED", {"10.9.0.2"});
    const auto childUp = updown(kConn, true, "ESTABLISHED", {"10.9.0.2"}, true);
    const auto ikeDown = updown(kConn, false, "DELETING");
    const auto childDown = updown(kConn, false, "DELETING", {}, true);
    const auto other = updown("someone else", false, "DELETING");
    std::vector<Scenario> scenarios = {
        {"good connect",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"ike-updown", ikeUp, NEVPNStatusConnecting, false},
          {"child-updown", childUp, NEVPNStatusConnected, true}}},
        {"auth failure while connecting",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"ike-updown", updown(kConn, false, "CONNECTING"), NEVPNStatusDisconnected, true}}},
        {"deleted after connect, child event after the IKE one",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", childUp, NEVPNStatusConnected, true},
          {"ike-updown", ikeDown, NEVPNStatusDisconnected, true},
          {"child-updown", childDown, NEVPNStatusDisconnected, false}}},
        {"child deleted alone",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", childUp, NEVPNStatusConnected, true},
          {"child-updown", childDown, NEVPNStatusDisconnected, true}}},
        {"other connections do not count",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"ike-updown", other, NEVPNStatusConnecting, false},
          {"child-updown", updown("someone else", true, "ESTABLISHED", {}, true),
           NEVPNStatusConnecting, false}}},
        {"endpoint update while connected reasserts",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", childUp, NEVPNStatusConnected, true},
          {"ike-update", updown(kConn, false, "ESTABLISHED"), NEVPNStatusReasserting, true},
          {"ike-updown", ikeDown, NEVPNStatusDisconnected, true}}},
        {"endpoint update while connecting is ignored",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"ike-update", updown(kConn, false, "CONNECTING"), NEVPNStatusConnecting, false}}},
        {"stop, then down",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", childUp, NEVPNStatusConnected, true},
          {"stop", {}, NEVPNStatusDisconnecting, true},
          {"child-updown", childUp, NEVPNStatusDisconnecting, false},
          {"ike-updown", ikeDown, NEVPNStatusDisconnected, true}}},
        {"stop while connecting, SA vanishes without an event",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"stop", {}, NEVPNStatusDisconnecting, true},
          {"gone", {}, NEVPNStatusDisconnected, true},
          {"gone", {}, NEVPNStatusDisconnected, false}}},
        {"initiate failed",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"failed", {}, NEVPNStatusDisconnected, true}}},
        {"nothing started: events and stops change nothing",
         {{"child-updown", childUp, NEVPNStatusDisconnected, false},
          {"stop", {}, NEVPNStatusDisconnected, false},
          {"gone", {}, NEVPNStatusDisconnected, false}}},
        {"the old SA of an IKE rekey going down keeps the tunnel",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", withId(childUp, "1"), NEVPNStatusConnected, true},
          {"ike-rekey", rekey("1", "2"), NEVPNStatusConnected, false},
          {"ike-updown", withId(ikeDown, "1"), NEVPNStatusConnected, false},
          {"ike-updown", withId(ikeDown, "2"), NEVPNStatusDisconnected, true}}},
        {"a rekeyed child going down keeps the tunnel",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", childUp, NEVPNStatusConnected, true},
          {"child-updown", childState(childDown, "REKEYED"), NEVPNStatusConnected, false}}},
        {"re-authentication: the old IKE_SA goes down, a new one carries the tunnel",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", withId(childUp, "1"), NEVPNStatusConnected, true},
          {"ike-updown", withTask(withId(ikeDown, "1"), "IKE_REAUTH"), NEVPNStatusConnected, false},
          {"child-updown", withTask(withId(childDown, "1"), "IKE_REAUTH"), NEVPNStatusConnected,
           false},
          {"ike-updown", withId(ikeUp, "2"), NEVPNStatusConnected, false},
          {"child-updown", withId(childUp, "2"), NEVPNStatusConnected, false},
          {"ike-updown", withId(ikeDown, "2"), NEVPNStatusDisconnected, true}}},
        {"re-authentication the server refuses ends the tunnel",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", withId(childUp, "1"), NEVPNStatusConnected, true},
          {"ike-updown", withTask(withId(ikeDown, "1"), "IKE_REAUTH"), NEVPNStatusConnected, false},
          {"ike-updown", withId(updown(kConn, false, "CONNECTING"), "2"), NEVPNStatusDisconnected,
           true}}},
        {"a delete while stopping is the end, whatever the tasks",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", childUp, NEVPNStatusConnected, true},
          {"stop", {}, NEVPNStatusDisconnecting, true},
          {"ike-updown", withTask(ikeDown, "IKE_REAUTH"), NEVPNStatusDisconnected, true}}},
        {"an IKE_SA an earlier run left going down while connecting changes nothing",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"ike-updown", withId(ikeDown, "7"), NEVPNStatusConnecting, false},
          {"child-updown", withId(childDown, "7"), NEVPNStatusConnecting, false},
          {"ike-updown", withId(ikeUp, "8"), NEVPNStatusConnecting, false},
          {"child-updown", withId(childUp, "8"), NEVPNStatusConnected, true},
          {"ike-updown", withId(ikeDown, "7"), NEVPNStatusConnected, false}}},
        {"a failed setup while connecting is still the end",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"ike-updown", withId(updown(kConn, false, "CONNECTING"), "8"), NEVPNStatusDisconnected,
           true}}},
        {"a second start after the end",
         {{"start", {}, NEVPNStatusConnecting, true},
          {"failed", {}, NEVPNStatusDisconnected, true},
          {"start", {}, NEVPNStatusConnecting, true},
          {"child-updown", childUp, NEVPNStatusConnected, true}}},
    };
    for (const auto& s : scenarios) {
        run(s);
    }
}

TEST(StatusTrackerTest, RemembersTheVirtualIpOfTheTunnel) {
    ss::StatusTracker tracker(kConn, "orvane");
    tracker.startRequested();
    EXPECT_TRUE(tracker.localVips().empty());
    tracker.onEvent("child-updown", updown(kConn, true, "ESTABLISHED", {"10.9.0.7"}, true));
    EXPECT_EQ(tracker.localVips(), std::vector<std::string>{"10.9.0.7"});
    tracker.startRequested();
    EXPECT_TRUE(tracker.localVips().empty());
}

}  // namespace
