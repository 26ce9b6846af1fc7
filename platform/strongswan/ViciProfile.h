#pragma once

// How the tool's IKEv2 profile maps onto charon's VICI messages: the
// connection for load-conn, the EAP secret for load-shared, and the
// requests that start and stop the tunnel.

#include "platform/NEVPN.h"
#include "platform/strongswan/Result.h"
#include "platform/strongswan/ViciMessage.h"

#include <optional>
#include <string>
#include <string_view>

namespace platform::strongswan {

// The one CHILD_SA of the connection: the tunnel.
inline constexpr const char* kChildName = "orvane";
// The id of the EAP secret, so it can be unloaded again.
inline constexpr const char* kEapSecretId = "orvane-ikev2-eap";

// strongSwan's algorithm keywords; none for values it has no keyword for.
std::optional<std::string> viciEncryption(NEVPNIKEv2EncryptionAlgorithm algorithm);
std::optional<std::string> viciIntegrity(NEVPNIKEv2IntegrityAlgorithm algorithm);
// The PRF keyword that goes with an integrity algorithm ("prfsha256").
std::optional<std::string> viciPrf(NEVPNIKEv2IntegrityAlgorithm algorithm);
// Empty for NEVPNIKEv2DiffieHellmanGroupInvalid (no group).
std::optional<std::string> viciGroup(NEVPNIKEv2DiffieHellmanGroup group);
bool isAeadEncryption(NEVPNIKEv2EncryptionAlgorithm algorithm);

// "aes256-sha256-modp2048" style proposals. ESP carries the group only
// when `withGroup` (PFS).
Result<std::string> ikeProposal(const NEVPNIKEv2SecurityAssociationParameters& sa);
Result<std::string> espProposal(const NEVPNIKEv2SecurityAssociationParameters& sa, bool withGroup);

// DPD interval for a rate: High 60s, Medium 600s, Low 1800s, None 0s.
std::string viciDpdDelay(NEVPNIKEv2DeadPeerDetectionRate rate);

// The load-conn message: one section named kVPNProfileName. The server
// address and the identities go in a spelling charon takes literally
// (CharonValues.h); values charon would read more into are errors.
Result<ViciSection> buildLoadConn(const NEVPNProtocolIKEv2& protocol);

// The load-shared message for the EAP secret, owned by the user name. The
// password is copied once into the message; wipe the message after sending
// it. An error for a user name charon cannot take literally.
Result<ViciSection> buildLoadShared(std::string_view username, const Secret& password);

ViciSection buildInitiate();
ViciSection buildTerminate();
ViciSection buildUnloadShared();
ViciSection buildUnloadConn();

}  // namespace platform::strongswan
