#include "platform/strongswan/ViciProfile.h"
#include "tests/unit/platform/strongswan/ToolProfile.h"

#include <gtest/gtest.h>

namespace ss = platform::strongswan;
using ss::ViciEntry;
using ss::ViciSection;

namespace {

// The message of a build that must succeed; empty (after a failure) when
// it did not.
ViciSection built(const ss::Result<ViciSection>& result) {
    EXPECT_TRUE(result) << (result ? "" : result.error().text);
    return result ? *result : ViciSection{};
}

// The error of a build that must fail.
std::string refusal(const ss::Result<ViciSection>& result) {
    EXPECT_FALSE(result);
    return result ? std::string() : result.error().text;
}

// One expected entry: path of sections, kind, and the value or items.
struct Expect {
    std::vector<std::string> path;
    ViciEntry::Kind kind;
    std::vector<std::string> content;
};

const ViciEntry* find(const ViciSection& root, const std::vector<std::string>& path) {
    const ViciSection* at = &root;
    for (std::size_t i = 0; i + 1 < path.size(); ++i) {
        at = at->section(path[i]);
        if (at == nullptr) {
            return nullptr;
        }
    }
    for (const auto& entry : at->entries()) {
        if (entry.name == path.back()) {
            return &entry;
        }
    }
    return nullptr;
}

std::string joined(const std::vector<std::string>& path) {
    std::string out;
    for (const auto& p : path) {
        out += "/" + p;
    }
    return out;
}

TEST(ViciProfileTest, ToolProfileBecomesTheExpectedTypedConnection) {
    ViciSection message = built(ss::buildLoadConn(testprofile::toolProfile("server.example.net")));
    using K = ViciEntry::Kind;
    const std::string c = "Orvane IKEv2";
    std::vector<Expect> expected = {
        {{c, "version"}, K::Value, {"2"}},
        {{c, "remote_addrs"}, K::List, {"vpn.example.net"}},
        {{c, "vips"}, K::List, {"0.0.0.0"}},
        {{c, "proposals"}, K::List, {"aes256-sha256-modp2048"}},
        {{c, "send_certreq"}, K::Value, {"no"}},
        {{c, "dpd_delay"}, K::Value, {"60s"}},
        {{c, "rekey_time"}, K::Value, {"86100s"}},
        {{c, "over_time"}, K::Value, {"300s"}},
        {{c, "local", "auth"}, K::Value, {"eap-mschapv2"}},
        {{c, "local", "id"}, K::Value, {"fqdn:alice"}},
        {{c, "local", "eap_id"}, K::Value, {"fqdn:alice"}},
        {{c, "remote", "auth"}, K::Value, {"pubkey"}},
        {{c, "remote", "id"}, K::Value, {"fqdn:server.example.net"}},
        {{c, "remote", "revocation"}, K::Value, {"relaxed"}},
        {{c, "children", "orvane", "remote_ts"}, K::List, {"0.0.0.0/0"}},
        {{c, "children", "orvane", "esp_proposals"}, K::List, {"aes256-sha256-modp2048"}},
        {{c, "children", "orvane", "rekey_time"}, K::Value, {"77760s"}},
        {{c, "children", "orvane", "life_time"}, K::Value, {"86400s"}},
    };
    for (const auto& e : expected) {
        const ViciEntry* entry = find(message, e.path);
        ASSERT_NE(entry, nullptr) << joined(e.path);
        EXPECT_EQ(entry->kind, e.kind) << joined(e.path);
        if (e.kind == K::Value) {
            EXPECT_EQ(entry->value, e.content.front()) << joined(e.path);
        } else {
            EXPECT_EQ(entry->items, e.content) << joined(e.path);
        }
    }
    // Nothing else: one connection, and no key beyond the expected ones.
    ASSERT_EQ(message.entries().size(), 1u);
    const ViciSection& conn = *message.section(c);
    EXPECT_EQ(conn.entries().size(), 11u);  // 8 keys + local, remote, children
    EXPECT_EQ(conn.section("local")->entries().size(), 3u);
    EXPECT_EQ(conn.section("remote")->entries().size(), 3u);
    EXPECT_EQ(conn.section("children")->section("orvane")->entries().size(), 4u);
    // The sections come in the order charon reads auth rounds.
    EXPECT_EQ(conn.entries()[8].name, "local");
    EXPECT_EQ(conn.entries()[9].name, "remote");
    EXPECT_EQ(conn.entries()[10].name, "children");
}

TEST(ViciProfileTest, OptionalSettingsChangeOnlyTheirKeys) {
    auto p = testprofile::toolProfile("server.example.net");
    p.enablePFS = false;
    p.enableRevocationCheck = false;
    p.deadPeerDetectionRate = platform::NEVPNIKEv2DeadPeerDetectionRateNone;
    p.localIdentifier = "client.example.net";
    p.IKESecurityAssociationParameters.lifetimeMinutes = 0;
    p.childSecurityAssociationParameters.lifetimeMinutes = 0;
    ViciSection message = built(ss::buildLoadConn(p));
    const ViciSection& conn = *message.section("Orvane IKEv2");
    EXPECT_EQ(*conn.section("children")->section("orvane")->list("esp_proposals"),
              std::vector<std::string>{"aes256-sha256"});
    EXPECT_EQ(conn.section("remote")->get("revocation"), "relaxed");
    EXPECT_EQ(conn.get("dpd_delay"), "0s");
    EXPECT_EQ(conn.section("local")->get("id"), "fqdn:client.example.net");
    EXPECT_EQ(conn.section("local")->get("eap_id"), "fqdn:alice");
    EXPECT_EQ(conn.value("rekey_time"), nullptr);
    EXPECT_EQ(conn.section("children")->section("orvane")->value("life_time"), nullptr);
}

TEST(ViciProfileTest, RevocationAsThePlatformChecksIt) {
    struct Case {
        bool check;
        bool strict;
        const char* policy;
    };
    // Only a strict check needs a "good" answer; otherwise an unreachable
    // revocation server is no failure and only "revoked" is.
    for (const Case& c : {Case{true, true, "strict"}, Case{true, false, "relaxed"},
                          Case{false, false, "relaxed"}, Case{false, true, "relaxed"}}) {
        auto p = testprofile::toolProfile();
        p.enableRevocationCheck = c.check;
        p.strictRevocationCheck = c.strict;
        ViciSection message = built(ss::buildLoadConn(p));
        EXPECT_EQ(message.section("Orvane IKEv2")->section("remote")->get("revocation"), c.policy)
            << c.check << c.strict;
    }
}

TEST(ViciProfileTest, ConfigurationValuesReachCharonLiterally) {
    auto p = testprofile::toolProfile("%any");
    p.username = "@alice";
    p.serverAddress = "192.0.2.2";
    ViciSection message = built(ss::buildLoadConn(p));
    const ViciSection& conn = *message.section("Orvane IKEv2");
    EXPECT_EQ(*conn.list("remote_addrs"), std::vector<std::string>{"192.0.2.2"});
    EXPECT_EQ(conn.section("remote")->get("id"), "fqdn:%any");
    EXPECT_EQ(conn.section("local")->get("id"), "email:@alice");
    EXPECT_EQ(conn.section("local")->get("eap_id"), "email:@alice");

    ViciSection shared = built(ss::buildLoadShared("@alice", platform::Secret("pw")));
    EXPECT_EQ(*shared.list("owners"), std::vector<std::string>{"email:@alice"});
}

TEST(ViciProfileTest, ValuesCharonWouldReadMoreIntoAreRefused) {
    struct Case {
        const char* server;
        const char* remote;
        const char* user;
        const char* error;
    };
    const Case cases[] = {
        {"192.0.2.2,192.0.2.3", "vpn", "alice", "server address '192.0.2.2,192.0.2.3' is a list"},
        {"%any", "vpn", "alice", "server address '%any' holds '%'"},
        {"vpn", "*.example.net", "alice", "remote identifier '*.example.net' starts with '*'"},
        {"vpn", "", "alice", "no remote identifier"},
        {"vpn", "vpn", "*", "user name '*' starts with '*'"},
    };
    for (const Case& c : cases) {
        auto p = testprofile::toolProfile(c.remote);
        p.serverAddress = c.server;
        p.username = c.user;
        const std::string error = refusal(ss::buildLoadConn(p));
        EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
    }
    auto p = testprofile::toolProfile();
    p.remoteIdentifier.reset();
    EXPECT_EQ(refusal(ss::buildLoadConn(p)), "no remote identifier");

    EXPECT_NE(refusal(ss::buildLoadShared(std::string(300, 'a'), platform::Secret("pw")))
                  .find("too long"),
              std::string::npos);
}

TEST(ViciProfileTest, DeadPeerDetectionRates) {
    EXPECT_EQ(ss::viciDpdDelay(platform::NEVPNIKEv2DeadPeerDetectionRateHigh), "60s");
    EXPECT_EQ(ss::viciDpdDelay(platform::NEVPNIKEv2DeadPeerDetectionRateMedium), "600s");
    EXPECT_EQ(ss::viciDpdDelay(platform::NEVPNIKEv2DeadPeerDetectionRateLow), "1800s");
    EXPECT_EQ(ss::viciDpdDelay(platform::NEVPNIKEv2DeadPeerDetectionRateNone), "0s");
}

struct ProposalCase {
    platform::NEVPNIKEv2EncryptionAlgorithm encryption;
    platform::NEVPNIKEv2IntegrityAlgorithm integrity;
    platform::NEVPNIKEv2DiffieHellmanGroup group;
    const char* ike;
    const char* espWithPfs;
    const char* espWithoutPfs;
};

TEST(ViciProfileTest, ProposalsForEveryAlgorithm) {
    using namespace platform;
    std::vector<ProposalCase> cases = {
        {NEVPNIKEv2EncryptionAlgorithmDES, NEVPNIKEv2IntegrityAlgorithmSHA96,
         NEVPNIKEv2DiffieHellmanGroup1, "des-sha1-modp768", "des-sha1-modp768", "des-sha1"},
        {NEVPNIKEv2EncryptionAlgorithm3DES, NEVPNIKEv2IntegrityAlgorithmSHA160,
         NEVPNIKEv2DiffieHellmanGroup2, "3des-sha1_160-modp1024", "3des-sha1_160-modp1024",
         "3des-sha1_160"},
        {NEVPNIKEv2EncryptionAlgorithmAES128, NEVPNIKEv2IntegrityAlgorithmSHA256,
         NEVPNIKEv2DiffieHellmanGroup5, "aes128-sha256-modp1536", "aes128-sha256-modp1536",
         "aes128-sha256"},
        {NEVPNIKEv2EncryptionAlgorithmAES256, NEVPNIKEv2IntegrityAlgorithmSHA384,
         NEVPNIKEv2DiffieHellmanGroup15, "aes256-sha384-modp3072", "aes256-sha384-modp3072",
         "aes256-sha384"},
        {NEVPNIKEv2EncryptionAlgorithmAES256, NEVPNIKEv2IntegrityAlgorithmSHA512,
         NEVPNIKEv2DiffieHellmanGroup16, "aes256-sha512-modp4096", "aes256-sha512-modp4096",
         "aes256-sha512"},
        {NEVPNIKEv2EncryptionAlgorithmAES256, NEVPNIKEv2IntegrityAlgorithmSHA256,
         NEVPNIKEv2DiffieHellmanGroup17, "aes256-sha256-modp6144", "aes256-sha256-modp6144",
         "aes256-sha256"},
        {NEVPNIKEv2EncryptionAlgorithmAES256, NEVPNIKEv2IntegrityAlgorithmSHA256,
         NEVPNIKEv2DiffieHellmanGroup18, "aes256-sha256-modp8192", "aes256-sha256-modp8192",
         "aes256-sha256"},
        {NEVPNIKEv2EncryptionAlgorithmAES128GCM, NEVPNIKEv2IntegrityAlgorithmSHA256,
         NEVPNIKEv2DiffieHellmanGroup19, "aes128gcm16-prfsha256-ecp256", "aes128gcm16-ecp256",
         "aes128gcm16"},
        {NEVPNIKEv2EncryptionAlgorithmAES256GCM, NEVPNIKEv2IntegrityAlgorithmSHA384,
         NEVPNIKEv2DiffieHellmanGroup20, "aes256gcm16-prfsha384-ecp384", "aes256gcm16-ecp384",
         "aes256gcm16"},
        {NEVPNIKEv2EncryptionAlgorithmChaCha20Poly1305, NEVPNIKEv2IntegrityAlgorithmSHA512,
         NEVPNIKEv2DiffieHellmanGroup21, "chacha20poly1305-prfsha512-ecp521",
         "chacha20poly1305-ecp521", "chacha20poly1305"},
        {NEVPNIKEv2EncryptionAlgorithmAES256, NEVPNIKEv2IntegrityAlgorithmSHA256,
         NEVPNIKEv2DiffieHellmanGroup31, "aes256-sha256-curve25519", "aes256-sha256-curve25519",
         "aes256-sha256"},
        {NEVPNIKEv2EncryptionAlgorithmAES256, NEVPNIKEv2IntegrityAlgorithmSHA256,
         NEVPNIKEv2DiffieHellmanGroup32, "aes256-sha256-curve448", "aes256-sha256-curve448",
         "aes256-sha256"},
        {NEVPNIKEv2EncryptionAlgorithmAES256, NEVPNIKEv2IntegrityAlgorithmSHA256,
         NEVPNIKEv2DiffieHellmanGroupInvalid, "aes256-sha256", "aes256-sha256", "aes256-sha256"},
    };
    for (const auto& c : cases) {
        NEVPNIKEv2SecurityAssociationParameters sa;
        sa.encryptionAlgorithm = c.encryption;
        sa.integrityAlgorithm = c.integrity;
        sa.diffieHellmanGroup = c.group;
        auto ike = ss::ikeProposal(sa);
        ASSERT_TRUE(ike) << c.ike << ike.error().text;
        EXPECT_EQ(*ike, c.ike);
        auto withPfs = ss::espProposal(sa, true);
        ASSERT_TRUE(withPfs);
        EXPECT_EQ(*withPfs, c.espWithPfs);
        auto withoutPfs = ss::espProposal(sa, false);
        ASSERT_TRUE(withoutPfs);
        EXPECT_EQ(*withoutPfs, c.espWithoutPfs);
    }
}

TEST(ViciProfileTest, RefusesWhatCharonCouldNotUse) {
    auto p = testprofile::toolProfile("server.example.net");
    p.serverAddress.reset();
    EXPECT_NE(refusal(ss::buildLoadConn(p)).find("server"), std::string::npos);

    p = testprofile::toolProfile("server.example.net");
    p.IKESecurityAssociationParameters.encryptionAlgorithm =
        static_cast<platform::NEVPNIKEv2EncryptionAlgorithm>(42);
    EXPECT_NE(refusal(ss::buildLoadConn(p)).find("42"), std::string::npos);

    p = testprofile::toolProfile("server.example.net");
    p.childSecurityAssociationParameters.diffieHellmanGroup =
        static_cast<platform::NEVPNIKEv2DiffieHellmanGroup>(3);
    refusal(ss::buildLoadConn(p));

    p = testprofile::toolProfile("server.example.net");
    p.username.reset();
    refusal(ss::buildLoadConn(p));
}

TEST(ViciProfileTest, ControlMessages) {
    ViciSection shared = built(ss::buildLoadShared("alice", platform::Secret("s3cret pass")));
    EXPECT_EQ(shared.get("id"), "orvane-ikev2-eap");
    EXPECT_EQ(shared.get("type"), "EAP");
    EXPECT_EQ(shared.get("data"), "s3cret pass");
    ASSERT_NE(shared.list("owners"), nullptr);
    EXPECT_EQ(*shared.list("owners"), std::vector<std::string>{"fqdn:alice"});

    ViciSection initiate = ss::buildInitiate();
    EXPECT_EQ(initiate.get("child"), "orvane");
    EXPECT_EQ(initiate.get("ike"), "Orvane IKEv2");
    EXPECT_EQ(initiate.get("timeout"), "-1");

    ViciSection terminate = ss::buildTerminate();
    EXPECT_EQ(terminate.get("ike"), "Orvane IKEv2");
    EXPECT_EQ(terminate.get("force"), "yes");
    EXPECT_EQ(terminate.get("timeout"), "-1");

    EXPECT_EQ(ss::buildUnloadShared().get("id"), "orvane-ikev2-eap");
    EXPECT_EQ(ss::buildUnloadConn().get("name"), "Orvane IKEv2");
}

}  // namespace

TEST(ViciProfileTest, IkeSaIsRekeyedFiveMinutesBeforeALongLifetimeEnds) {
    // charon re-authenticates this margin before a server's AUTH_LIFETIME
    // ends: an hour-long server lifetime must not look already due.
    ViciSection message = built(ss::buildLoadConn(testprofile::toolProfile()));
    const ViciSection& conn = *message.section("Orvane IKEv2");
    EXPECT_EQ(conn.get("rekey_time"), "86100s");
    EXPECT_EQ(conn.get("over_time"), "300s");
}

TEST(ViciProfileTest, ShortIkeLifetimeKeepsATenPercentMargin) {
    auto p = testprofile::toolProfile();
    p.IKESecurityAssociationParameters.lifetimeMinutes = 10;
    ViciSection message = built(ss::buildLoadConn(p));
    const ViciSection& conn = *message.section("Orvane IKEv2");
    EXPECT_EQ(conn.get("rekey_time"), "540s");
    EXPECT_EQ(conn.get("over_time"), "60s");
}
