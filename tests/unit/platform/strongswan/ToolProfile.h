#pragma once

// What the strongSwan tests share: the profile the tool saves, and reading a
// file whole.

#include "platform/NEVPN.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace testprofile {

// The protocol the connector saves: certificate server, EAP client,
// AES-256/SHA-256/group 14 for IKE and ESP, PFS, high DPD rate.
inline platform::NEVPNProtocolIKEv2 toolProfile(
    const std::string& remoteIdentifier = "vpn.example.net") {
    platform::NEVPNProtocolIKEv2 p;
    p.username = "alice";
    p.serverAddress = "vpn.example.net";
    p.remoteIdentifier = remoteIdentifier;
    p.authenticationMethod = platform::NEVPNIKEAuthenticationMethodCertificate;
    p.useExtendedAuthentication = true;
    p.enableRevocationCheck = true;
    p.enablePFS = true;
    p.disconnectOnSleep = true;
    p.deadPeerDetectionRate = platform::NEVPNIKEv2DeadPeerDetectionRateHigh;
    p.IKESecurityAssociationParameters = {platform::NEVPNIKEv2EncryptionAlgorithmAES256,
                                          platform::NEVPNIKEv2IntegrityAlgorithmSHA256,
                                          platform::NEVPNIKEv2DiffieHellmanGroup14, 1440};
    p.childSecurityAssociationParameters = p.IKESecurityAssociationParameters;
    return p;
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace testprofile
