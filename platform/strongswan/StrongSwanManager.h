#pragma once

// The strongSwan backend of the adapter: the profile lives in a property
// list file and, while charon runs, as the VICI connection "Orvane IKEv2";
// the tunnel is started, followed and stopped over charon's VICI socket.
//
// Two VICI connections serve the tunnel: one that only receives events
// (ike-updown, child-updown, ike-rekey, ike-update, log) and one for
// commands. Calls that must be done before they return (stop, save,
// remove, the service list, the end of the process) use a short-lived
// blocking connection of their own with bounded waits.
//
// What the tool leaves in charon is its own business: the EAP secret stays
// loaded while the process runs (a server may demand re-authentication at
// any time) and is unloaded when it ends (finish()), as is an IKE_SA that
// is still there. One process at a time writes the profile and runs its
// tunnel (ProfileLock); its start first ends what a killed or stuck
// earlier run left in charon.

#include "platform/NEVPN.h"
#include "platform/strongswan/DisconnectLog.h"
#include "platform/strongswan/Liveness.h"
#include "platform/strongswan/ProfileLock.h"
#include "platform/strongswan/ProfileStore.h"
#include "platform/strongswan/SleepWatch.h"
#include "platform/strongswan/StatusTracker.h"
#include "platform/strongswan/SystemTrust.h"
#include "platform/strongswan/ViciClient.h"

#include <asio/io_context.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace platform::strongswan {

struct StrongSwanOptions {
    std::string socketPath = kViciDefaultSocket;
    std::string preferencesPath = kDefaultPreferencesPath;
    // Where to look for the system's trust store (SystemTrust.h).
    std::vector<std::string> trustBundles = defaultTrustBundles();
    std::string lockPath = kDefaultLockPath;
    // Called (on the io_context) after every status change.
    std::function<void()> statusChanged;
    // How often charon is asked whether the tunnel's IKE_SA still exists
    // while it is being set up: a setup that dies silently raises no event.
    std::chrono::milliseconds pollInterval{1000};
    // The same once the tunnel is up. charon then reports every end with an
    // event (or by closing the event socket), so this is a slow safety net
    // that keeps an idle tunnel from waking the tool.
    std::chrono::milliseconds establishedPollInterval{30000};
    // The check that follows a log line announcing a silent end.
    std::chrono::milliseconds silentEndCheck{100};
    // Waiting for log lines that trail the down event.
    std::chrono::milliseconds lateLogLimit{300};
    std::chrono::milliseconds lateLogQuiet{50};
    // Each blocking exchange of the stop path and of the end of the process.
    std::chrono::milliseconds stopTimeout{500};
    // How long the requests of a stop that charon did not answer are kept
    // open for it once this process is gone (ViciSyncClient::
    // leaveOpenUntilAnswered).
    std::chrono::milliseconds frozenRequestsHold{60000};
    // Blocking exchanges of save, remove and the service list, and the
    // requests that prepare a start.
    std::chrono::milliseconds configTimeout{3000};
    // initiate blocks charon's worker while it resolves the server name.
    std::chrono::milliseconds initiateTimeout{30000};
    // Stopping the tunnel before the machine sleeps (profiles that ask for
    // it); no bus by default.
    SleepOptions sleep;
};

class StrongSwanManager;

class StrongSwanConnection final : public NEVPNConnection {
  public:
    StrongSwanConnection(StrongSwanManager& manager, asio::io_context& context,
                         const StrongSwanOptions& options);
    ~StrongSwanConnection() override;

    // Invalid while no profile is known and no tunnel runs, as for a VPN
    // that is not configured.
    NEVPNStatus status() const override;
    OptionalError startVPNTunnel(const NEVPNStartOptions& options) override;
    void stopVPNTunnel() override;

    // After what is already queued on the run loop, starts giving charon the
    // system's trust anchors, so that a start soon after need not wait.
    void prepareTrust();

    // The reason of the last disconnect since `since`, after giving late
    // log lines a short bounded time to arrive.
    std::string lastDisconnectError(std::optional<SystemClock::time_point> since);
    const std::vector<std::string>& localVips() const { return tracker_.localVips(); }

    // The end of the process: unloads the secret and ends an IKE_SA this
    // process started, unless charon is known not to answer.
    void finish();

  private:
    Result<void> openEvents();
    Result<void> openCommands();
    // A start that cannot go ahead ends as a tunnel that went down, with
    // `note` in the log for its reason.
    void failStart(const char* note);
    // Unloads the secret, then (when `terminate`) ends the connection's
    // IKE_SAs: each exchange bounded, nothing more once charon is silent.
    void releaseCharon(bool terminate);
    // The IKE_SA is up but charon gave up on the tunnel.
    void abandonSetup();
    void onEvent(const std::string& name, const ViciSection& event);
    void onCommandEvent(const std::string& name, const ViciSection& event);
    void onEventsClosed(const std::string& reason);
    void prerequisiteDone(std::uint64_t generation, bool ok, const std::string& what,
                          const ViciReply& reply);
    void sendInitiate(std::uint64_t generation);
    void changed(bool didChange);
    void tunnelEnded();
    void schedulePoll(std::chrono::milliseconds delay);
    // The interval to the next regular check, by the tunnel's status.
    std::chrono::milliseconds regularPollInterval() const;
    void poll();
    void stopForSleep();

    StrongSwanManager& manager_;
    asio::io_context& context_;
    const StrongSwanOptions& options_;
    std::shared_ptr<ViciClient> events_;
    std::shared_ptr<ViciClient> commands_;
    bool listSaRegistered_ = false;
    StatusTracker tracker_;
    DisconnectLog log_;
    SystemTrust trust_;
    LoopTimer pollTimer_;
    bool pollScheduled_ = false;
    bool pollInFlight_ = false;
    bool pollSawTunnel_ = false;
    std::vector<std::string> pollVips_;
    bool initiated_ = false;
    bool started_ = false;
    bool secretLoaded_ = false;
    bool saMayExist_ = false;
    bool charonSilent_ = false;
    int pendingPrerequisites_ = 0;
    std::uint64_t generation_ = 0;
    Liveness liveness_;
    SleepWatch sleep_;
};

class StrongSwanManager final : public NEVPNManager {
  public:
    StrongSwanManager(asio::io_context& context, StrongSwanOptions options = {});
    ~StrongSwanManager() override;

    void loadFromPreferences(CompletionHandler handler) override;
    void saveToPreferences(CompletionHandler handler) override;
    void removeFromPreferences(CompletionHandler handler) override;
    NEVPNConnection* connection() override { return connection_.get(); }

    // Backs platform::fetchLastDisconnectError.
    std::string lastDisconnectError(std::optional<SystemClock::time_point> since);
    // Called when the process ends (see StrongSwanConnection::finish).
    void finish();
    // Backs platform::copyAllNetworkServices: the connections charon has
    // loaded; the tool's own carries the interface of its virtual IP
    // ("ipsec0" when none is found). None when charon cannot be reached.
    std::optional<std::vector<NetworkService>> networkServices();

    const StrongSwanOptions& options() const { return options_; }
    // Whether charon has the connection from this process's save or start.
    bool connectionLoaded() const { return connectionLoaded_; }
    void setConnectionLoaded(bool loaded) { connectionLoaded_ = loaded; }

  private:
    friend class StrongSwanConnection;
    void complete(CompletionHandler handler, OptionalError error);

    asio::io_context& context_;
    StrongSwanOptions options_;
    ProfileStore store_;
    ProfileLock lock_;
    // The preferences file is there but holds no profile: saving or
    // removing the profile keeps it aside.
    bool corrupt_ = false;
    bool connectionLoaded_ = false;
    std::unique_ptr<StrongSwanConnection> connection_;
};

}  // namespace platform::strongswan
