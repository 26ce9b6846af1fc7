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

// A proposal's keywords.
struct Parts {
    std::string encryption;
    std::string integrity;
    std::string prf;
    std::string group;
};

Result<Parts> parts(const NEVPNIKEv2SecurityAssociationParameters& sa) {
    auto e = viciEncryption(sa.encryptionAlgorithm);
    auto i = viciIntegrity(sa.integrityAlgorithm);
    auto p = viciPrf(sa.integrityAlgorithm);
    auto g = viciGroup(sa.diffieHellmanGroup);
    if (!e) {
        return Error{fmt::format("unsupported encryption algorithm {}",
                                 static_cast<std::int64_t>(sa.encryptionAlgorithm))};
    }
    if (!i || !p) {
        return Error{fmt::format("unsupported integrity algorithm {}",
                                 static_cast<std::int64_t>(sa.integrityAlgorithm))};
    }
    if (!g) {
        return Error{fmt::format("unsupported Diffie-Hellman group {}",
                                 static_cast<std::int64_t>(sa.diffieHellmanGroup))};
    }
    return Parts{*e, *i, *p, *g};
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

Result<std::string> ikeProposal(const NEVPNIKEv2SecurityAssociationParameters& sa) {
    Result<Parts> p = parts(sa);
    if (!p) {
        return p.error();
    }
    // An AEAD cipher brings its own integrity; IKE still needs a PRF.
    return isAeadEncryption(sa.encryptionAlgorithm)
               ? join({&p->encryption, &p->prf, &p->group})
               : join({&p->encryption, &p->integrity, &p->group});
}

Result<std::string> espProposal(const NEVPNIKEv2SecurityAssociationParameters& sa, bool withGroup) {
    Result<Parts> p = parts(sa);
    if (!p) {
        return p.error();
    }
    std::string none;
    const std::string* integ = isAeadEncryption(sa.encryptionAlgorithm) ? &none : &p->integrity;
    const std::string* dh = withGroup ? &p->group : &none;
    return join({&p->encryption, integ, dh});
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

Result<ViciSection> buildLoadConn(const NEVPNProtocolIKEv2& protocol) {
    Result<std::string> server = literalServerAddress(protocol.serverAddress.value_or(""));
    if (!server) {
        return server.error();
    }
    Result<std::string> remoteId = literalIdentity(protocol.remoteIdentifier.value_or(""),
                                                   "remote identifier", kCharonIdentityLimit);
    if (!remoteId) {
        return remoteId.error();
    }
    Result<std::string> ike = ikeProposal(protocol.IKESecurityAssociationParameters);
    if (!ike) {
        return ike.error();
    }
    Result<std::string> esp =
        espProposal(protocol.childSecurityAssociationParameters, protocol.enablePFS);
    if (!esp) {
        return esp.error();
    }
    // The user name is also the owner of the EAP secret.
    std::optional<std::string> user;
    if (protocol.username) {
        Result<std::string> spelled =
            literalIdentity(*protocol.username, "user name", kCharonOwnerLimit);
        if (!spelled) {
            return spelled.error();
        }
        user = std::move(*spelled);
    }
    std::optional<std::string> localId = user;
    if (protocol.localIdentifier) {
        Result<std::string> spelled =
            literalIdentity(*protocol.localIdentifier, "local identifier", kCharonIdentityLimit);
        if (!spelled) {
            return spelled.error();
        }
        localId = std::move(*spelled);
    }

    ViciSection message;
    ViciSection& conn = message.addSection(kVPNProfileName);
    conn.add("version", "2");
    conn.addList("remote_addrs", {*server});
    conn.addList("vips", {"0.0.0.0"});
    conn.addList("proposals", {*ike});
    // Like the platform's client, ask the server for no certificate (servers
    // for it send theirs always): a request lists every trust anchor, with
    // the system's a fragmented message and work on both sides per connect.
    conn.add("send_certreq", "no");
    conn.add("dpd_delay", viciDpdDelay(protocol.deadPeerDetectionRate));
    addLifetimes(conn, protocol.IKESecurityAssociationParameters.lifetimeMinutes, true);

    ViciSection& local = conn.addSection("local");
    if (protocol.useExtendedAuthentication) {
        if (!user) {
            return Error{"no user name for EAP"};
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
                return Error{"no client authentication configured"};
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
    remote.add("id", *remoteId);
    remote.add("revocation", viciRevocation(protocol));

    ViciSection& child = conn.addSection("children").addSection(kChildName);
    child.addList("remote_ts", {"0.0.0.0/0"});
    child.addList("esp_proposals", {*esp});
    addLifetimes(child, protocol.childSecurityAssociationParameters.lifetimeMinutes, false);
    return message;
}

Result<ViciSection> buildLoadShared(std::string_view username, const Secret& password) {
    Result<std::string> owner = literalIdentity(username, "user name", kCharonOwnerLimit);
    if (!owner) {
        return owner.error();
    }
    // Moved, never copied, from here on: the password's bytes stay where
    // addSecret put them until the message is wiped.
    ViciSection message;
    message.reserve(4);
    message.add("id", kEapSecretId);
    message.add("type", "EAP");
    message.addSecret("data", password);
    message.addList("owners", {*owner});
    return Result<ViciSection>(std::move(message));
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
