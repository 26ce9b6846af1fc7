#pragma once

// The scripted platform double: a stand-in backend that records what the
// code under test asked of the VPN framework and answers as a test tells it.
//
// In-process tests drive it through ScriptedPlatform::instance(): calls are
// recorded, completions wait until the test delivers them (completeLoad(),
// ...), and status changes are fired with fireStatus().
//
// The test build of the tool (orvane-ikev2-test) is driven from outside:
// when the environment names a script (ORVANE_DOUBLE_SCRIPT, read by this
// double only), the double answers every call by itself on the main run
// loop, as the script says, and appends one line per call and per status
// change to the file named by ORVANE_DOUBLE_RECORD. Script lines:
//
//     profile                        a profile is already saved
//     load-error <code> <text>       the load fails with that error
//     save-error <code> <text>
//     remove-error <code> <text>
//     start-error <code> <text>      the start request is refused
//     no-connection                  the manager has no connection
//     on-start <ms> <status>         after a start request, the status
//                                    becomes <status> <ms> later (repeatable)
//     on-stop <ms> <status>          the same after a stop request
//     last-disconnect-error <text>   the answer of fetchLastDisconnectError
//     service <name>|<interface>     one network service ("-": no interface)
//     no-services                    the network configuration is unreadable
//     raise-on-load <signal>         the process takes that signal inside
//                                    the load request (during connect)
//
// Record lines: "load", "save <profile fields>", "remove", "start
// username=<name> password-length=<n>", "stop", "status <n>",
// "fetch-last-disconnect-error since=<unix seconds or none>",
// "copy-all-network-services". The password itself is never recorded.

#include "platform/NEVPN.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace platform_double {

using namespace platform;

struct SavedProfile {
    NEVPNProtocolIKEv2 protocol;
    bool enabled = false;
    std::optional<std::string> localizedDescription;
};

struct Script {
    bool autoAnswer = false;
    std::optional<NEVPNProtocolIKEv2> storedProfile;
    OptionalError loadError;
    OptionalError saveError;
    OptionalError removeError;
    OptionalError startError;
    bool hasConnection = true;
    std::vector<std::pair<int, NEVPNStatus>> onStart;
    std::vector<std::pair<int, NEVPNStatus>> onStop;
    std::string lastDisconnectError;
    std::optional<std::vector<NetworkService>> services = std::vector<NetworkService>{};
    int raiseOnLoad = 0;
};

// Parses the script format above; unknown lines are an error (nullopt).
std::optional<Script> parseScript(const std::string& text);
// One line of the record for a saved profile, without the "save " prefix.
std::string describeProfile(const SavedProfile& profile);

class ScriptedPlatform {
  public:
    static ScriptedPlatform& instance();

    // Back to a fresh double: no records, nothing pending, no profile, status
    // Invalid, a connection, no services, an empty disconnect reason.
    void reset();
    void useScript(Script script);

    // What was asked, in order: "load", "save", "remove", "start", "stop".
    const std::vector<std::string>& calls() const { return calls_; }
    const std::vector<SavedProfile>& saved() const { return saved_; }
    // Copies of the start options (none in script mode); reset() wipes them.
    const std::vector<NEVPNStartOptions>& startRequests() const { return startRequests_; }
    int stopCount() const { return stopCount_; }
    const std::vector<std::optional<SystemClock::time_point>>& fetchRequests() const {
        return fetchRequests_;
    }
    int serviceLookups() const { return serviceLookups_; }

    // Pending completions. The test delivers them itself, standing in for
    // the main run loop; each runs the handler the code gave.
    bool loadPending() const { return static_cast<bool>(pendingLoad_); }
    bool savePending() const { return static_cast<bool>(pendingSave_); }
    bool removePending() const { return static_cast<bool>(pendingRemove_); }
    void completeLoad(OptionalError error = std::nullopt);
    void completeSave(OptionalError error = std::nullopt);
    void completeRemove(OptionalError error = std::nullopt);

    // The profile kept in the system's preferences.
    void setStoredProfile(std::optional<NEVPNProtocolIKEv2> profile) {
        script_.storedProfile = std::move(profile);
    }
    const std::optional<NEVPNProtocolIKEv2>& storedProfile() const { return script_.storedProfile; }

    void setStartError(OptionalError error) { script_.startError = std::move(error); }
    void setHasConnection(bool has) { script_.hasConnection = has; }
    bool hasConnection() const { return script_.hasConnection; }
    void setLastDisconnectError(std::string text) { script_.lastDisconnectError = std::move(text); }
    void setServices(std::optional<std::vector<NetworkService>> services) {
        script_.services = std::move(services);
    }

    NEVPNStatus status() const { return status_; }
    void setStatus(NEVPNStatus status);
    // Sets the status and notifies every observer, as the system does.
    void fireStatus(NEVPNStatus status);

    // Entry points of the adapter, called by the double's manager and
    // connection and by the free functions.
    void requestLoad(CompletionHandler handler);
    void requestSave(CompletionHandler handler);
    void requestRemove(CompletionHandler handler);
    OptionalError requestStart(const NEVPNStartOptions& options);
    void requestStop();
    std::string answerLastDisconnectError(std::optional<SystemClock::time_point> since);
    std::optional<std::vector<NetworkService>> answerServices();

  private:
    ScriptedPlatform();
    void record(const std::string& line);
    void schedule(const std::vector<std::pair<int, NEVPNStatus>>& changes);

    Script script_;
    int recordFd_ = -1;
    std::vector<std::string> calls_;
    std::vector<SavedProfile> saved_;
    std::vector<NEVPNStartOptions> startRequests_;
    int stopCount_ = 0;
    std::vector<std::optional<SystemClock::time_point>> fetchRequests_;
    int serviceLookups_ = 0;
    CompletionHandler pendingLoad_;
    CompletionHandler pendingSave_;
    CompletionHandler pendingRemove_;
    NEVPNStatus status_ = NEVPNStatusInvalid;
};

}  // namespace platform_double
