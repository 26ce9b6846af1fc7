#include "platform/strongswan/DisconnectLog.h"

#include <re2/re2.h>

#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace platform::strongswan {

namespace {

struct Rule {
    const char* pattern;
    const char* reason;  // empty: the pattern's first group, prefixed below
    // The line shows the server's certificate chain was not trusted; when
    // one came first, a later "no trusted public key" line is about trust,
    // not about the identity, and the earlier line says why (not trusted,
    // or revoked).
    bool trustFailure = false;
};

// First match wins within a line, so specific patterns come before the
// generic ones. Texts are charon 5.9's (sa/ikev2/tasks, eap plugins,
// credential manager, ike_sa.c, controller).
constexpr Rule kRules[] = {
    // Our credentials refused.
    {R"(EAP-MS-CHAPv2 failed)", "authentication failed"},
    {R"(EAP_\w+ method failed)", "authentication failed"},
    {R"(received EAP_FAILURE)", "authentication failed"},
    {R"(received AUTHENTICATION_FAILED notify error)", "authentication failed"},
    {R"(verification of AUTH payload with(out)? EAP MSK failed)", "authentication failed"},
    {R"(no EAP key found for)", "authentication failed"},
    {R"(local authentication failed)", "authentication failed"},
    // The server's certificate or identity.
    {R"(constraint check failed: identity '.*' required)", "server identity mismatch"},
    {R"(constraint check failed: peer not authenticated by CA)", "server certificate not trusted",
     true},
    {R"(constraint check failed: RULE_(CRL|OCSP)_VALIDATION)",
     "server certificate revocation check failed"},
    {R"(certificate was revoked)", "server certificate revoked", true},
    {R"(no issuer certificate found for)", "server certificate not trusted", true},
    // Without a trust failure before it, a trusted certificate simply does
    // not hold the identity asked for (see lastReason).
    {R"(no trusted \w+ public key found for)", "server identity mismatch"},
    // Negotiation.
    {R"(received NO_PROPOSAL_CHOSEN notify error)", "no proposal chosen"},
    {R"(received proposals? .*unacceptable|no acceptable proposal found)", "no proposal chosen"},
    {R"(received TS_UNACCEPTABLE notify error)", "traffic selectors unacceptable"},
    {R"(received (INTERNAL_ADDRESS_FAILURE|FAILED_CP_REQUIRED) notify error)",
     "no virtual address assigned"},
    {R"(key derivation failed)", "key derivation failed"},
    // Reachability.
    {R"(peer not responding)", "peer not responding"},
    {R"(giving up after \d+ retransmits)", "peer not responding"},
    {R"(unable to resolve .*, initiate aborted)", "server address not resolved"},
    {R"(resolving '.*' failed)", "server address not resolved"},
    // Ended by the server.
    {R"(received DELETE for IKE_SA)", "deleted by peer"},
    // Our own note when charon went away under the tunnel.
    {R"(^charon closed the control connection$)", "VPN service stopped"},
    // Our own note when the tunnel was stopped because the machine sleeps.
    {R"(^logind: system going to sleep$)", "system going to sleep"},
    // Any other error notify the server sent while setting up.
    {R"(received ([A-Z0-9_]+) notify error)", ""},

    // The VPN service itself: stopped, not there, not answering. Our own
    // notes are whole lines; charon's shutdown line has no IKE_SA.
    {R"(SIG[A-Z]+ received, shutting down)", "VPN service stopped"},
    {R"(^charon is not running$)", "VPN service not running"},
    {R"(^charon is not reachable$)", "VPN service not reachable"},
    {R"(^charon did not answer$)", "VPN service not answering"},
    {R"(^charon refused the profile$)", "VPN service refused the profile"},
    // The IKE_SA came up but the tunnel (its CHILD_SA) was refused.
    {R"(received NO_PROPOSAL_CHOSEN notify, no CHILD_SA built)", "no proposal chosen"},
    {R"(received TS_UNACCEPTABLE notify, no CHILD_SA built)", "traffic selectors unacceptable"},
    {R"(received ([A-Z0-9_]+) notify, no CHILD_SA built)", ""},
    {R"(^charon built no tunnel$)", "tunnel not established"},
};

constexpr const char* kSilentEnds[] = {
    R"(establishing IKE_SA failed, peer not responding)",
    R"(giving up after \d+ retransmits)",
    R"(key derivation failed)",
    R"(unable to resolve .*, initiate aborted)",
    R"(establishing CHILD_SA .* failed)",
};

constexpr const char* kTrustReason = "server certificate not trusted";
constexpr const char* kIdentityReason = "server identity mismatch";

// A missing public key with no certificate received before it: the server
// sent none (it waits to be asked, and the tool asks for none).
constexpr const char* kNoPublicKey = R"(no trusted \w+ public key found for)";
constexpr const char* kCertificateReceived = R"(received end entity cert)";
constexpr const char* kNoCertificateReason = "server sent no certificate";

const RE2& trustFailure() {
    static const RE2 compiled([] {
        std::string alternatives;
        for (const Rule& rule : kRules) {
            if (rule.trustFailure) {
                alternatives += (alternatives.empty() ? "" : "|") + std::string(rule.pattern);
            }
        }
        return alternatives;
    }());
    return compiled;
}

struct CompiledRule {
    std::unique_ptr<RE2> regex;
    std::string reason;
};

const std::vector<CompiledRule>& rules() {
    static const std::vector<CompiledRule> compiled = [] {
        std::vector<CompiledRule> out;
        for (const Rule& rule : kRules) {
            out.push_back({std::make_unique<RE2>(rule.pattern), rule.reason});
        }
        return out;
    }();
    return compiled;
}

const std::vector<std::unique_ptr<RE2>>& silentEnds() {
    static const std::vector<std::unique_ptr<RE2>> compiled = [] {
        std::vector<std::unique_ptr<RE2>> out;
        for (const char* pattern : kSilentEnds) {
            out.push_back(std::make_unique<RE2>(pattern));
        }
        return out;
    }();
    return compiled;
}

}  // namespace

std::optional<std::string> disconnectReasonForLine(const std::string& message) {
    for (const auto& rule : rules()) {
        if (!rule.reason.empty()) {
            if (RE2::PartialMatch(message, *rule.regex)) {
                return rule.reason;
            }
            continue;
        }
        std::string notify;
        if (RE2::PartialMatch(message, *rule.regex, &notify)) {
            return "peer reported " + notify;
        }
    }
    return std::nullopt;
}

bool lineKeepsIkeSaWithoutTunnel(const std::string& message) {
    static const RE2 pattern(R"(failed to establish CHILD_SA, keeping IKE_SA)");
    return RE2::PartialMatch(message, pattern);
}

bool lineEndsSetupSilently(const std::string& message) {
    for (const auto& regex : silentEnds()) {
        if (RE2::PartialMatch(message, *regex)) {
            return true;
        }
    }
    return false;
}

DisconnectLog::DisconnectLog(std::string connection) : connection_(std::move(connection)) {}

bool DisconnectLog::add(const ViciSection& event, Clock::time_point when) {
    const std::string* ikesa = event.value("ikesa-name");
    if (ikesa != nullptr && *ikesa != connection_) {
        return false;
    }
    const std::string* message = event.value("msg");
    if (message == nullptr) {
        return false;
    }
    note(*message, when);
    return true;
}

void DisconnectLog::note(const std::string& message, Clock::time_point when) {
    lines_.push_back({when, message});
    while (lines_.size() > kMaxLines) {
        lines_.pop_front();
    }
}

void DisconnectLog::clear() {
    lines_.clear();
}

std::string DisconnectLog::lastReason(std::optional<Clock::time_point> since) const {
    for (auto it = lines_.rbegin(); it != lines_.rend(); ++it) {
        if (since && it->when < *since) {
            break;
        }
        auto reason = disconnectReasonForLine(it->message);
        if (!reason) {
            continue;
        }
        if (*reason == kIdentityReason) {
            bool certificate = false;
            for (auto earlier = std::next(it); earlier != lines_.rend(); ++earlier) {
                if (since && earlier->when < *since) {
                    break;
                }
                if (RE2::PartialMatch(earlier->message, trustFailure())) {
                    return disconnectReasonForLine(earlier->message).value_or(kTrustReason);
                }
                certificate =
                    certificate || RE2::PartialMatch(earlier->message, kCertificateReceived);
            }
            if (!certificate && RE2::PartialMatch(it->message, kNoPublicKey)) {
                return kNoCertificateReason;
            }
        }
        return *reason;
    }
    return {};
}

}  // namespace platform::strongswan
