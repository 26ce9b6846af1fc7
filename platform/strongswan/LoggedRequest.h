#pragma once

// A blocking request whose refusal only matters to the debug log: what the
// stop path, the end of the process and the profile's removal ask of charon
// (unload the secret, end the IKE_SA, unload the connection).

#include "platform/strongswan/ViciClient.h"

#include <chrono>

namespace platform::strongswan {

// Sends `command` on `vici` and waits at most `timeout` for the answer; a
// refusal or no answer goes to the debug log as "IKEv2 <command>: <why>".
ViciReply requestLogged(ViciSyncClient& vici, const char* command, const ViciSection& message,
                        std::chrono::milliseconds timeout);

}  // namespace platform::strongswan
