#pragma once

// The tunnel's NEVPNStatus, driven by what the backend asked for and by
// charon's events for the connection: ike-updown, child-updown, ike-rekey
// and ike-update. Pure state; every input answers whether the status
// changed, so the caller knows when to notify.

#include "platform/NEVPN.h"
#include "platform/strongswan/ViciMessage.h"

#include <string>
#include <vector>

namespace platform::strongswan {

class StatusTracker {
  public:
    StatusTracker(std::string connection, std::string child);

    NEVPNStatus status() const { return status_; }
    // A tunnel is being set up, is up, or is being taken down.
    bool active() const;
    // Virtual IPs of the tunnel, from the last event or listing that had them.
    const std::vector<std::string>& localVips() const { return localVips_; }
    void setLocalVips(std::vector<std::string> vips) { localVips_ = std::move(vips); }

    bool startRequested();
    bool stopRequested();
    // The start did not get going (a refused request, initiate failed).
    bool startFailed();
    // charon no longer lists the IKE_SA, or charon itself went away.
    bool tunnelGone();
    bool onEvent(const std::string& name, const ViciSection& event);

  private:
    bool moveTo(NEVPNStatus status);
    bool end();
    const ViciSection* ours(const ViciSection& event) const;
    const ViciSection* ourChild(const ViciSection& sa) const;
    bool tracksOther(const ViciSection& sa) const;
    bool reauthenticating(const ViciSection& sa) const;
    bool leftByAnEarlierRun(const ViciSection& sa) const;

    std::string connection_;
    std::string child_;
    NEVPNStatus status_ = NEVPNStatusDisconnected;
    std::string ikeId_;  // uniqueid of the IKE_SA that carries the tunnel
    std::vector<std::string> localVips_;
};

}  // namespace platform::strongswan
