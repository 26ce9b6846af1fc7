#include "platform/strongswan/ViciProfile.h"

#include "platform/strongswan/CharonValues.h"

#include <fmt/format.h>

#include <algorithm>

namespace platform::strongswan {

std::optional<std::string> viciEncryption(NEVPNIKEv2EncryptionAlgorithm algorithm) {
    switch (algorithm) {
        case NEVPNIKEv2EncryptionAlgorithmDES:
            return "des";
        case NEVPNIKEv2EncryptionAlgorithm3DES:
            return "3des";
        case NEVPNIKEv2EncryptionAlgorithmAES128:
            return "aes128";
        case NEVPNIKEv2EncryptionAlgorithmAES256:
            return "aes256";
        case NEVPNIKEv2EncryptionAlgorithmAES128GCM:
            return "aes128gcm16";
        case NEVPNIKEv2EncryptionAlgorithmAES256GCM:
            return "aes256gcm16";
        case NEVPNIKEv2EncryptionAlgorithmChaCha20Poly1305:
            return "chacha20poly1305";
    }
    return std::nullopt;
}

bool isAeadEncryption(NEVPNIKEv2EncryptionAlgorithm algorithm) {
    return algorithm == NEVPNIKEv2EncryptionAlgorithmAES128GCM ||
           algorithm == NEVPNIKEv2EncryptionAlgorithmAES256GCM ||
           algorithm == NEVPNIKEv2EncryptionAlgorithmChaCha20Poly1305;
}

std::optional<std::string> viciIntegrity(NEVPNIKEv2IntegrityAlgorithm algorithm) {
    switch (algorithm) {
        case NEVPNIKEv2IntegrityAlgorithmSHA96:
            return "sha1";  // HMAC-SHA1 truncated to 96 bits
        case NEVPNIKEv2IntegrityAlgorithmSHA160:
            return "sha1_160";
        case NEVPNIKEv2IntegrityAlgorithmSHA256:
            return "sha256";
        case NEVPNIKEv2IntegrityAlgorithmSHA384:
            return "sha384";
        case NEVPNIKEv2IntegrityAlgorithmSHA512:
            return "sha512";
    }
    return std::nullopt;
}

std::optional<std::string> viciPrf(NEVPNIKEv2IntegrityAlgorithm algorithm) {
    switch (algorithm) {
        case NEVPNIKEv2IntegrityAlgorithmSHA96:
        case NEVPNIKEv2IntegrityAlgorithmSHA160:
            return "prfsha1";
        case NEVPNIKEv2IntegrityAlgorithmSHA256:
            return "prfsha256";
        case NEVPNIKEv2IntegrityAlgorithmSHA384:
            return "prfsha384";
        case NEVPNIKEv2IntegrityAlgorithmSHA512:
            return "prfsha512";
    }
    return std::nullopt;
}

std::optional<std::string> viciGroup(NEVPNIKEv2DiffieHellmanGroup group) {
    switch (group) {
        case NEVPNIKEv2DiffieHellmanGroupInvalid:
            return std::string();
        case NEVPNIKEv2DiffieHellmanGroup1:
            return "modp768";
        case NEVPNIKEv2DiffieHellmanGroup2:
            return "modp1024";
        case NEVPNIKEv2DiffieHellmanGroup5:
            return "modp1536";
        case NEVPNIKEv2DiffieHellmanGroup14:
            return "modp2048";
        case NEVPNIKEv2DiffieHellmanGroup15:
            return "modp3072";
        case NEVPNIKEv2DiffieHellmanGroup16:
            return "modp4096";
        case NEVPNIKEv2DiffieHellmanGroup17:
            return "modp6144";
        case NEVPNIKEv2DiffieHellmanGroup18:
            return "modp8192";
        case NEVPNIKEv2DiffieHellmanGroup19:
            return "ecp256";
        case NEVPNIKEv2DiffieHellmanGroup20:
            return "ecp384";
        case NEVPNIKEv2DiffieHellmanGroup21:
            return "ecp521";
        case NEVPNIKEv2DiffieHellmanGroup31:
            return "curve25519";
        case NEVPNIKEv2DiffieHellmanGroup32:
            return "curve448";
    }
    return std::nullopt;
}

namespace {

bool parts(const NEVPNIKEv2SecurityAssociationParameters& sa, std::string& encryption,
           std::string& integrity, std::string& prf, std::string& group, std::string& error) {
    auto e = viciEncryption(sa.encryptionAlgorithm);
    auto i = viciIntegrity(sa.integrityAlgorithm);
    auto p = viciPrf(sa.integrityAlgorithm);
    auto g = viciGroup(sa.diffieHellmanGroup);
    if (!e) {
        error = fmt::format("unsupported encryption algorithm {}",
                            static_cast<std::int64_t>(sa.encryptionAlgorithm));
        return false;
    }
    if (!i || !p) {
        error = fmt::format("unsupported integrity algorithm {}",
                            static_cast<std::int64_t>(sa.integrityAlgorithm));
        return false;
    }
    if (!g) {
        error = fmt::format("unsupported Diffie-Hellman group {}",
                            static_cast<std::int64_t>(sa.diffieHellmanGroup));
        return false;
    }
    encryption = *e;
    integrity = *i;
    prf = *p;
    group = *g;
    return true;
}

std::string join(std::initializer_list<const std::string*> items) {
    std::string out;
    for (const std::string* item : items) {
        if (item->empty()) {
            continue;
        }
        if (!out.empty()) {
            out += '-';
        }
        out += *item;
    }
    return out;
}

// Lifetimes. A CHILD_SA is rekeyed at 90 % of its lifetime. The IKE_SA is
// rekeyed a margin before its lifetime ends: charon takes the same margin
// (over_time) as the time it re-authenticates before a server's
// AUTH_LIFETIME runs out, and re-authenticates at once, again and again,
// when the server's lifetime is shorter than it. So the margin is 10 % of
// the lifetime but at most 5 minutes, as the platform's client does it:
// shortly before the server's deadline.
constexpr std::int64_t kMaxIkeMarginSeconds = 300;

void addLifetimes(ViciSection& section, std::int32_t minutes, bool ike) {
    if (minutes <= 0) {
        return;  // charon's defaults
    }
    std::int64_t seconds = std::int64_t{minutes} * 60;
    if (ike) {
        std::int64_t margin = std::min(seconds / 10, kMaxIkeMarginSeconds);
        section.add("rekey_time", fmt::format("{}s", seconds - margin));
        section.add("over_time", fmt::format("{}s", margin));
    } else {
        section.add("rekey_time", fmt::format("{}s", seconds * 9 / 10));
        section.add("life_time", fmt::format("{}s", seconds));
    }
}

}  // namespace

bool ikeProposal(const NEVPNIKEv2SecurityAssociationParameters& sa, std::string& proposal,
                 std::string& error) {
    std::string encryption, integrity, prf, group;
    if (!parts(sa, encryption, integrity, prf, group, error)) {
        return false;
    }
    // An AEAD cipher brings its own integrity; IKE still needs a PRF.
    proposal = isAeadEncryption(sa.encryptionAlgorithm) ? join({&encryption, &prf, &group})
                                                        : join({&encryption, &integrity, &group});
    return true;
}

bool espProposal(const NEVPNIKEv2SecurityAssociationParameters& sa, bool withGroup,
                 std::string& proposal, std::string& error) {
    std::string encryption, integrity, prf, group;
    if (!parts(sa, encryption, integrity, prf, group, error)) {
        return false;
    }
    std::string none;
    const std::string* integ = isAeadEncryption(sa.encryptionAlgorithm) ? &none : &integrity;
    const std::string* dh = withGroup ? &group : &none;
    proposal = join({&encryption, integ, dh});
    return true;
}

std::string viciDpdDelay(NEVPNIKEv2DeadPeerDetectionRate rate) {
    switch (rate) {
        case NEVPNIKEv2DeadPeerDetectionRateHigh:
            return "60s";
        case NEVPNIKEv2DeadPeerDetectionRateMedium:
            return "600s";
        case NEVPNIKEv2DeadPeerDetectionRateLow:
            return "1800s";
        case NEVPNIKEv2DeadPeerDetectionRateNone:
            break;
    }
    return "0s";
}

namespace {

// charon's revocation policy for the platform's two flags: strict wants a
// "good" answer; otherwise only a "revoked" answer fails, and a revocation
// server that cannot be reached does not. charon cannot leave out the check
// for one connection, so without the check the lenient policy stands too.
const char* viciRevocation(const NEVPNProtocolIKEv2& protocol) {
    return protocol.enableRevocationCheck && protocol.strictRevocationCheck ? "strict" : "relaxed";
}

}  // namespace

bool buildLoadConn(const NEVPNProtocolIKEv2& protocol, ViciSection& message, std::string& error) {
    message = ViciSection{};
    std::string server;
    if (!literalServerAddress(protocol.serverAddress.value_or(""), server, error)) {
        return false;
    }
    std::string remoteId;
    if (!literalIdentity(protocol.remoteIdentifier.value_or(""), "remote identifier",
                         kCharonIdentityLimit, remoteId, error)) {
        return false;
    }
    std::string ike;
    std::string esp;
    if (!ikeProposal(protocol.IKESecurityAssociationParameters, ike, error) ||
        !espProposal(protocol.childSecurityAssociationParameters, protocol.enablePFS, esp,
                     error)) {
        return false;
    }
    // The user name is also the owner of the EAP secret.
    std::optional<std::string> user;
    if (protocol.username) {
        user.emplace();
        if (!literalIdentity(*protocol.username, "user name", kCharonOwnerLimit, *user, error)) {
            return false;
        }
    }
    std::optional<std::string> localId = user;
    if (protocol.localIdentifier) {
        localId.emplace();
        if (!literalIdentity(*protocol.localIdentifier, "local identifier", kCharonIdentityLimit,
                             *localId, error)) {
            return false;
        }
    }

    ViciSection& conn = message.addSection(kVPNProfileName);
    conn.add("version", "2");
    conn.addList("remote_addrs", {server});
    conn.addList("vips", {"0.0.0.0"});
    conn.addList("proposals", {ike});
    // Like the platform's client, ask the server for no certificate (servers
    // for it send theirs always): a request lists every trust anchor, with
    // the system's a fragmented message and work on both sides per connect.
    conn.add("send_certreq", "no");
    conn.add("dpd_delay", viciDpdDelay(protocol.deadPeerDetectionRate));
    addLifetimes(conn, protocol.IKESecurityAssociationParameters.lifetimeMinutes, true);

    ViciSection& local = conn.addSection("local");
    if (protocol.useExtendedAuthentication) {
        if (!user) {
            error = "no user name for EAP";
            return false;
        }
        local.add("auth", "eap-mschapv2");
        local.add("id", *localId);
        local.add("eap_id", *user);
    } else {
        switch (protocol.authenticationMethod) {
            case NEVPNIKEAuthenticationMethodCertificate:
                local.add("auth", "pubkey");
                break;
            case NEVPNIKEAuthenticationMethodSharedSecret:
                local.add("auth", "psk");
                break;
            case NEVPNIKEAuthenticationMethodNone:
                error = "no client authentication configured";
                return false;
        }
        if (localId) {
            local.add("id", *localId);
        }
    }

    ViciSection& remote = conn.addSection("remote");
    switch (protocol.authenticationMethod) {
        case NEVPNIKEAuthenticationMethodSharedSecret:
            remote.add("auth", "psk");
            break;
        case NEVPNIKEAuthenticationMethodCertificate:
        case NEVPNIKEAuthenticationMethodNone:
            remote.add("auth", "pubkey");
            break;
    }
    remote.add("id", remoteId);
    remote.add("revocation", viciRevocation(protocol));

    ViciSection& child = conn.addSection("children").addSection(kChildName);
    child.addList("remote_ts", {"0.0.0.0/0"});
    child.addList("esp_proposals", {esp});
    addLifetimes(child, protocol.childSecurityAssociationParameters.lifetimeMinutes, false);
    return true;
}

bool buildLoadShared(std::string_view username, std::string_view password, ViciSection& message,
                     std::string& error) {
    message = ViciSection{};
    std::string owner;
    if (!literalIdentity(username, "user name", kCharonOwnerLimit, owner, error)) {
        return false;
    }
    message.reserve(4);
    message.add("id", kEapSecretId);
    message.add("type", "EAP");
    message.addSecret("data", password);
    message.addList("owners", {owner});
    return true;
}

ViciSection buildInitiate() {
    ViciSection message;
    // -1: return once IKE_SA_INIT is sent; progress comes as events.
    message.add("child", kChildName).add("ike", kVPNProfileName).add("timeout", "-1");
    return message;
}

ViciSection buildTerminate() {
    ViciSection message;
    // force with -1: one DELETE, then the SA is destroyed at once, so a dead
    // server cannot hold the caller.
    message.add("ike", kVPNProfileName).add("force", "yes").add("timeout", "-1");
    return message;
}

ViciSection buildUnloadShared() {
    ViciSection message;
    message.add("id", kEapSecretId);
    return message;
}

ViciSection buildUnloadConn() {
    ViciSection message;
    message.add("name", kVPNProfileName);
    return message;
}

}  // namespace platform::strongswan
