#include "connector/OVConnectorIKEv2.h"

#include "log/DDLog.h"
#include "platform/NilText.h"
#include "platform/ServiceChoice.h"

using namespace platform;

void OVConnectorIKEv2::vpnStatusChanged() {
    NEVPNConnection* connection = vpnManager_ ? vpnManager_->connection() : nullptr;
    const NEVPNStatus status = connection ? connection->status() : NEVPNStatusInvalid;

    switch (status) {
        case NEVPNStatusDisconnected:
            if (!connecting_ && !connected_) {
                break;
            }
            // A nil reason is not the empty string: it skips the search and is
            // reported as (null).
            if (lastDisconnectError_ && lastDisconnectError_->empty()) {
                lastDisconnectError_ = fetchLastDisconnectError();
            }
            if (lastDisconnectError_ && lastDisconnectError_->empty()) {
                finish_(0);
                return;
            }
            DDLogInfo("IKEv2 Last disconnect error: {}", orNull(lastDisconnectError_));
            finish_(1);
            return;
        case NEVPNStatusReasserting:
            disconnectWithError(std::string("Reconnect needed"));
            break;
        case NEVPNStatusConnected:
            connected_ = true;
            lastDisconnectError_ = "";
            if (connecting_) {
                connecting_ = false;
                const OptionalString interface = adapterId();
                if (!interface || !interface->empty()) {
                    DDLogInfo("IKEv2 Interface {}", orNull(interface));
                }
            }
            break;
        default:
            break;
    }
    DDLogInfo("{}", NSStringFromNEVPNStatus(status));
}

OVConnectorIKEv2::OptionalString OVConnectorIKEv2::adapterId() {
    return chooseServiceInterface(
        copyAllNetworkServices(), kVPNProfileName,
        [](const OptionalString& name) { DDLogVerbose("Service: {}", orNull(name)); });
}

std::string OVConnectorIKEv2::fetchLastDisconnectError() {
    return platform::fetchLastDisconnectError(connectingDate_);
}
