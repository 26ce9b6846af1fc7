#include "platform/strongswan/LoggedRequest.h"

#include "log/DDLog.h"

namespace platform::strongswan {

ViciReply requestLogged(ViciSyncClient& vici, const char* command, const ViciSection& message,
                        std::chrono::milliseconds timeout) {
    ViciReply reply = vici.request(command, message, ViciSyncClient::Clock::now() + timeout);
    if (!reply.succeeded()) {
        DDLogDebug("IKEv2 {}: {}", command, reply.failure());
    }
    return reply;
}

}  // namespace platform::strongswan
