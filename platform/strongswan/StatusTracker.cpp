#include "platform/strongswan/StatusTracker.h"

#include <algorithm>

namespace platform::strongswan {

StatusTracker::StatusTracker(std::string connection, std::string child)
    : connection_(std::move(connection)), child_(std::move(child)) {}

bool StatusTracker::active() const {
    return status_ == NEVPNStatusConnecting || status_ == NEVPNStatusConnected ||
           status_ == NEVPNStatusReasserting || status_ == NEVPNStatusDisconnecting;
}

bool StatusTracker::moveTo(NEVPNStatus status) {
    if (status_ == status) {
        return false;
    }
    status_ = status;
    return true;
}

bool StatusTracker::end() {
    if (!active()) {
        return false;
    }
    ikeId_.clear();
    return moveTo(NEVPNStatusDisconnected);
}

bool StatusTracker::startRequested() {
    ikeId_.clear();
    localVips_.clear();
    return moveTo(NEVPNStatusConnecting);
}

bool StatusTracker::stopRequested() {
    if (!active()) {
        return false;
    }
    return moveTo(NEVPNStatusDisconnecting);
}

bool StatusTracker::startFailed() {
    return end();
}

bool StatusTracker::tunnelGone() {
    return end();
}

const ViciSection* StatusTracker::ours(const ViciSection& event) const {
    return event.section(connection_);
}

const ViciSection* StatusTracker::ourChild(const ViciSection& sa) const {
    const ViciSection* children = sa.section("child-sas");
    if (children == nullptr) {
        return nullptr;
    }
    for (const auto& entry : children->entries()) {
        if (entry.kind != ViciEntry::Kind::Section) {
            continue;
        }
        // Keys are "<name>-<uniqueid>"; the name itself is inside.
        const std::string* name = entry.section.value("name");
        if ((name != nullptr && *name == child_) || entry.name == child_) {
            return &entry.section;
        }
    }
    return nullptr;
}

// A down event of the IKE_SA that carries the tunnel while charon
// re-authenticates it (the server's AUTH_LIFETIME, or its own reauth_time):
// a new IKE_SA of the connection takes the tunnel over.
bool StatusTracker::reauthenticating(const ViciSection& sa) const {
    const std::vector<std::string>* tasks = sa.list("tasks-active");
    if (tasks == nullptr || status_ != NEVPNStatusConnected) {
        return false;
    }
    return std::any_of(tasks->begin(), tasks->end(), [](const std::string& task) {
        return task == "IKE_REAUTH" || task == "IKE_REAUTH_COMPLETE";
    });
}

// An event about an IKE_SA of our connection other than the one carrying
// the tunnel (for instance the old SA of a rekeying).
bool StatusTracker::tracksOther(const ViciSection& sa) const {
    const std::string* id = sa.value("uniqueid");
    return !ikeId_.empty() && id != nullptr && *id != ikeId_;
}

// A down event, while the tunnel is still being set up, of an IKE_SA that
// had been up: one an earlier run left, which the start ends. The new one
// has not been up yet, or its up event would have named it.
bool StatusTracker::leftByAnEarlierRun(const ViciSection& sa) const {
    const std::string state = sa.get("state");
    return status_ == NEVPNStatusConnecting && ikeId_.empty() && state != "CONNECTING" &&
           state != "CREATED";
}

bool StatusTracker::onEvent(const std::string& name, const ViciSection& event) {
    const ViciSection* sa = ours(event);
    if (sa == nullptr || !active()) {
        return false;
    }
    bool up = event.get("up") == "yes";
    if (name == "ike-updown") {
        if (up) {
            if (ikeId_.empty()) {
                ikeId_ = sa->get("uniqueid");
            }
            if (const auto* vips = sa->list("local-vips")) {
                localVips_ = *vips;
            }
            return false;
        }
        if (tracksOther(*sa) || leftByAnEarlierRun(*sa) || sa->get("state") == "REKEYED") {
            return false;
        }
        if (reauthenticating(*sa)) {
            ikeId_.clear();  // the next IKE_SA that comes up carries it
            return false;
        }
        return end();
    }
    if (name == "child-updown") {
        const ViciSection* child = ourChild(*sa);
        if (child == nullptr || tracksOther(*sa)) {
            return false;
        }
        if (up) {
            ikeId_ = sa->get("uniqueid");
            if (const auto* vips = sa->list("local-vips")) {
                localVips_ = *vips;
            }
            if (status_ == NEVPNStatusConnecting || status_ == NEVPNStatusReasserting) {
                return moveTo(NEVPNStatusConnected);
            }
            return false;
        }
        if (child->get("state") == "REKEYED" || leftByAnEarlierRun(*sa)) {
            return false;
        }
        if (reauthenticating(*sa)) {
            ikeId_.clear();
            return false;
        }
        return end();
    }
    if (name == "ike-rekey") {
        const ViciSection* old = sa->section("old");
        const ViciSection* fresh = sa->section("new");
        if (old != nullptr && fresh != nullptr && old->get("uniqueid") == ikeId_) {
            ikeId_ = fresh->get("uniqueid");
        }
        return false;
    }
    if (name == "ike-update") {
        // The endpoints moved under an established tunnel.
        if (status_ == NEVPNStatusConnected && !tracksOther(*sa)) {
            return moveTo(NEVPNStatusReasserting);
        }
        return false;
    }
    return false;
}

}  // namespace platform::strongswan
