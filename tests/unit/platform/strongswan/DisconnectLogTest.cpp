#include "platform/strongswan/DisconnectLog.h"

#include "tests/unit/platform/strongswan/FakeCharon.h"

#include <gtest/gtest.h>

namespace ss = platform::strongswan;
using fakecharon::logLine;

namespace {

struct LineCase {
    const char* line;
    const char* reason;  // empty: not decisive
};

// Lines as charon 5.9.8 writes them (from the lab runs where noted in the
// backend's notes), and what each means.
const LineCase kLines[] = {
    {"EAP-MS-CHAPv2 failed with error ERROR_AUTHENTICATION_FAILURE: '(null)'",
     "authentication failed"},
    {"EAP_MSCHAPV2 method failed", "authentication failed"},
    {"received EAP_FAILURE, EAP authentication failed", "authentication failed"},
    {"received AUTHENTICATION_FAILED notify error", "authentication failed"},
    {"verification of AUTH payload with EAP MSK failed", "authentication failed"},
    {"no issuer certificate found for \"CN=vpn.example.net\"", "server certificate not trusted"},
    {"no trusted RSA public key found for 'vpn.example.net'", "server identity mismatch"},
    {"constraint check failed: peer not authenticated by CA 'CN=Orvane CA'",
     "server certificate not trusted"},
    {"constraint check failed: identity 'vpn.other.net' required", "server identity mismatch"},
    {"constraint check failed: RULE_CRL_VALIDATION is SKIPPED, but requires at least GOOD",
     "server certificate revocation check failed"},
    {"received NO_PROPOSAL_CHOSEN notify error", "no proposal chosen"},
    {"received TS_UNACCEPTABLE notify error", "traffic selectors unacceptable"},
    {"received INTERNAL_ADDRESS_FAILURE notify error", "no virtual address assigned"},
    {"received INVALID_SYNTAX notify error", "peer reported INVALID_SYNTAX"},
    {"key derivation failed", "key derivation failed"},
    {"giving up after 2 retransmits", "peer not responding"},
    {"establishing IKE_SA failed, peer not responding", "peer not responding"},
    {"rekeying IKE_SA failed, peer not responding", "peer not responding"},
    {"resolving 'nowhere.invalid' failed: Temporary failure in name resolution",
     "server address not resolved"},
    {"unable to resolve nowhere.invalid, initiate aborted", "server address not resolved"},
    {"received DELETE for IKE_SA Orvane IKEv2[3]", "deleted by peer"},
    // Not decisive on their own.
    {"retransmit 1 of request with message ID 0", ""},
    {"selected peer config 'Orvane IKEv2' unacceptable: constraint checking failed", ""},
    {"no alternative config found", ""},
    {"certificate status is not available", ""},
    {"IKE_SA Orvane IKEv2[1] established between 10.0.0.2[alice]...10.0.0.1[vpn]", ""},
    {"deleting IKE_SA Orvane IKEv2[1] between 10.0.0.2[alice]...10.0.0.1[vpn]", ""},
    {"IKE_SA deleted", ""},
    {"sending DPD request", ""},
};

TEST(DisconnectLogTest, MapsEachDecisiveLineToItsReason) {
    for (const auto& c : kLines) {
        auto reason = ss::disconnectReasonForLine(c.line);
        if (*c.reason == '\0') {
            EXPECT_FALSE(reason.has_value()) << c.line << " -> " << reason.value_or("");
        } else {
            ASSERT_TRUE(reason.has_value()) << c.line;
            EXPECT_EQ(*reason, c.reason) << c.line;
        }
    }
}

struct SequenceCase {
    const char* what;
    std::vector<std::string> lines;
    const char* reason;
};

TEST(DisconnectLogTest, ObservedFailureSequencesGiveTheirReason) {
    std::vector<SequenceCase> cases = {
        {"wrong password",
         {"authentication of 'alice' (myself) with EAP successful",
          "EAP-MS-CHAPv2 failed with error ERROR_AUTHENTICATION_FAILURE: '(null)'",
          "EAP_MSCHAPV2 method failed", "generating INFORMATIONAL request 2 [ N(AUTH_FAILED) ]"},
         "authentication failed"},
        {"untrusted server certificate",
         {"received end entity cert \"CN=vpn\"", "no issuer certificate found for \"CN=vpn\"",
          "  issuer is \"CN=Other CA\"", "no trusted RSA public key found for 'vpn'"},
         "server certificate not trusted"},
        {"trusted certificate without the identity asked for",
         {"received end entity cert \"CN=vpn.orvane.test\"",
          "no trusted RSA public key found for 'wrong.orvane.test'"},
         "server identity mismatch"},
        {"certificate from a CA that is not the pinned one",
         {"constraint check failed: peer not authenticated by CA 'CN=Other'",
          "no trusted RSA public key found for 'vpn'"},
         "server certificate not trusted"},
        {"server identity differs",
         {"constraint check failed: identity 'other' required",
          "selected peer config 'Orvane IKEv2' unacceptable: constraint checking failed",
          "no alternative config found"},
         "server identity mismatch"},
        {"unreachable",
         {"retransmit 1 of request with message ID 0", "retransmit 2 of request with message ID 0",
          "giving up after 2 retransmits", "establishing IKE_SA failed, peer not responding"},
         "peer not responding"},
        {"deleted by the server",
         {"IKE_SA Orvane IKEv2[1] established between a...b",
          "received DELETE for IKE_SA Orvane IKEv2[1]",
          "deleting IKE_SA Orvane IKEv2[1] between a...b", "IKE_SA deleted"},
         "deleted by peer"},
        {"a good connection", {"IKE_SA Orvane IKEv2[1] established between a...b"}, ""},
    };
    for (const auto& c : cases) {
        ss::DisconnectLog log("Orvane IKEv2");
        for (const auto& line : c.lines) {
            log.add(logLine(line));
        }
        EXPECT_EQ(log.lastReason(std::nullopt), c.reason) << c.what;
    }
}

TEST(DisconnectLogTest, KeepsOnlyTheConnectionsLinesAndThoseWithoutAnIkeSa) {
    ss::DisconnectLog log("Orvane IKEv2");
    EXPECT_TRUE(log.add(logLine("giving up after 2 retransmits")));
    EXPECT_FALSE(log.add(logLine("received EAP_FAILURE, EAP authentication failed", "other")));
    EXPECT_EQ(log.lastReason(std::nullopt), "peer not responding");
    EXPECT_TRUE(log.add(logLine("resolving 'x' failed: no address", "", "LIB")));
    EXPECT_EQ(log.lastReason(std::nullopt), "server address not resolved");
    ss::ViciSection noMessage;
    noMessage.add("group", "IKE");
    EXPECT_FALSE(log.add(noMessage));
    EXPECT_EQ(log.size(), 2u);
}

TEST(DisconnectLogTest, MostRecentDecisiveLineSinceTheStartWins) {
    using namespace std::chrono_literals;
    ss::DisconnectLog log("Orvane IKEv2");
    auto t0 = ss::DisconnectLog::Clock::now();
    log.add(logLine("received AUTHENTICATION_FAILED notify error"), t0 - 10s);
    log.add(logLine("received NO_PROPOSAL_CHOSEN notify error"), t0 + 1s);
    log.add(logLine("IKE_SA deleted"), t0 + 2s);
    EXPECT_EQ(log.lastReason(t0), "no proposal chosen");
    EXPECT_EQ(log.lastReason(t0 + 3s), "");
    log.clear();
    EXPECT_EQ(log.lastReason(std::nullopt), "");
}

TEST(DisconnectLogTest, OnlyTrustFailuresSinceTheStartTurnAMissingKeyIntoATrustProblem) {
    using namespace std::chrono_literals;
    ss::DisconnectLog log("Orvane IKEv2");
    auto t0 = ss::DisconnectLog::Clock::now();
    log.add(logLine("no issuer certificate found for \"CN=vpn\""), t0 - 10s);
    log.add(logLine("received end entity cert \"CN=vpn\""), t0 + 1s);
    log.add(logLine("no trusted RSA public key found for 'vpn'"), t0 + 1s);
    EXPECT_EQ(log.lastReason(t0), "server identity mismatch");
    EXPECT_EQ(log.lastReason(std::nullopt), "server certificate not trusted");
}

TEST(DisconnectLogTest, RevokedServerCertificateIsNamedAsRevoked) {
    // The later "no trusted public key" line must not hide why the chain
    // failed.
    ss::DisconnectLog log("Orvane IKEv2");
    for (const char* line : {
             "received end entity cert \"C=ZZ, O=Orvane Lab, CN=revoked.orvane.test\"",
             "  fetching crl from 'http://192.0.2.2:8080/lab.crl' ...",
             "  using trusted certificate \"C=ZZ, O=Orvane Lab, CN=Orvane Lab CA\"",
             "  crl correctly signed by \"C=ZZ, O=Orvane Lab, CN=Orvane Lab CA\"",
             "certificate was revoked on Nov 23 02:30:00 UTC 2026, reason: key compromise",
             "no trusted RSA public key found for 'revoked.orvane.test'",
         }) {
        log.add(logLine(line));
    }
    EXPECT_EQ(log.lastReason(std::nullopt), "server certificate revoked");
    EXPECT_EQ(ss::disconnectReasonForLine(
                  "certificate was revoked on Nov 23 02:30:00 UTC 2026, reason: superseded"),
              "server certificate revoked");
    // A revocation server that could not be asked only fails a strict check.
    EXPECT_EQ(ss::disconnectReasonForLine("constraint check failed: RULE_CRL_VALIDATION is "
                                          "FAILED, but requires at least GOOD"),
              "server certificate revocation check failed");
}

TEST(DisconnectLogTest, ServerThatSentNoCertificateIsNamedSo) {
    // A server that waits to be asked for its certificate sends none to a
    // client that asks for none.
    ss::DisconnectLog log("Orvane IKEv2");
    log.add(logLine("parsed IKE_AUTH response 1 [ IDr AUTH EAP/REQ/ID ]", "Orvane IKEv2", "ENC"));
    log.add(logLine("no trusted RSA public key found for 'vpn.orvane.test'"));
    EXPECT_EQ(log.lastReason(std::nullopt), "server sent no certificate");
    // With a certificate received, the same line is about the identity.
    log.clear();
    log.add(logLine("received end entity cert \"C=ZZ, O=Orvane Lab, CN=vpn.orvane.test\""));
    log.add(logLine("no trusted RSA public key found for 'wrong.orvane.test'"));
    EXPECT_EQ(log.lastReason(std::nullopt), "server identity mismatch");
    // An identity constraint is no missing certificate.
    log.clear();
    log.add(logLine("constraint check failed: identity 'other' required"));
    EXPECT_EQ(log.lastReason(std::nullopt), "server identity mismatch");
}

TEST(DisconnectLogTest, BoundsWhatItKeeps) {
    ss::DisconnectLog log("Orvane IKEv2");
    log.add(logLine("received DELETE for IKE_SA Orvane IKEv2[1]"));
    for (std::size_t i = 0; i < ss::DisconnectLog::kMaxLines; ++i) {
        log.add(logLine("noise"));
    }
    EXPECT_EQ(log.size(), ss::DisconnectLog::kMaxLines);
    EXPECT_EQ(log.lastReason(std::nullopt), "");
}

TEST(DisconnectLogTest, RecognisesEndsWithoutADownEvent) {
    EXPECT_TRUE(ss::lineEndsSetupSilently("establishing IKE_SA failed, peer not responding"));
    EXPECT_TRUE(ss::lineEndsSetupSilently("giving up after 5 retransmits"));
    EXPECT_TRUE(ss::lineEndsSetupSilently("key derivation failed"));
    EXPECT_TRUE(ss::lineEndsSetupSilently("unable to resolve vpn.invalid, initiate aborted"));
    EXPECT_FALSE(ss::lineEndsSetupSilently("retransmit 1 of request with message ID 0"));
    EXPECT_FALSE(ss::lineEndsSetupSilently("IKE_SA deleted"));
}

// The VPN service itself, and a tunnel refused under an established IKE_SA
// (charon 5.9.8's lines, from the lab, and the backend's own notes).
const LineCase kServiceAndTunnelLines[] = {
    {"SIGTERM received, shutting down", "VPN service stopped"},
    {"SIGINT received, shutting down", "VPN service stopped"},
    {ss::kNoteCharonClosed, "VPN service stopped"},
    {ss::kNoteCharonNotRunning, "VPN service not running"},
    {ss::kNoteCharonNotReachable, "VPN service not reachable"},
    {ss::kNoteCharonSilent, "VPN service not answering"},
    {ss::kNoteCharonRefused, "VPN service refused the profile"},
    {"received NO_PROPOSAL_CHOSEN notify, no CHILD_SA built", "no proposal chosen"},
    {"received TS_UNACCEPTABLE notify, no CHILD_SA built", "traffic selectors unacceptable"},
    {"received SINGLE_PAIR_REQUIRED notify, no CHILD_SA built",
     "peer reported SINGLE_PAIR_REQUIRED"},
    {ss::kNoteNoTunnel, "tunnel not established"},
    {"failed to establish CHILD_SA, keeping IKE_SA", ""},
    {"a line that merely mentions charon is not running", ""},
};

TEST(DisconnectLogTest, VpnServiceAndRefusedTunnelLinesGiveTheirReason) {
    for (const auto& c : kServiceAndTunnelLines) {
        auto reason = ss::disconnectReasonForLine(c.line);
        EXPECT_EQ(reason.value_or(""), c.reason) << c.line;
    }
}

TEST(DisconnectLogTest, RecognisesAnIkeSaKeptWithoutTheTunnel) {
    EXPECT_TRUE(ss::lineKeepsIkeSaWithoutTunnel("failed to establish CHILD_SA, keeping IKE_SA"));
    EXPECT_FALSE(
        ss::lineKeepsIkeSaWithoutTunnel("received NO_PROPOSAL_CHOSEN notify, no CHILD_SA built"));
}

}  // namespace
