#include "log/DDLog.h"
#include "platform/strongswan/LoggedRequest.h"
#include "platform/strongswan/StrongSwanManager.h"
#include "platform/strongswan/ViciProfile.h"

#include <asio/error.hpp>
#include <asio/post.hpp>

#include <cerrno>

namespace platform::strongswan {

namespace {

constexpr const char* kMonitoredEvents[] = {"ike-updown", "child-updown", "ike-rekey", "ike-update",
                                            "log"};

}  // namespace

StrongSwanConnection::StrongSwanConnection(StrongSwanManager& manager, asio::io_context& context,
                                           const StrongSwanOptions& options)
    : manager_(manager),
      context_(context),
      options_(options),
      tracker_(kVPNProfileName, kChildName),
      log_(kVPNProfileName),
      trust_(context, options.trustBundles),
      pollTimer_(context),
      sleep_(context, options.sleep, [this] { stopForSleep(); }) {}

StrongSwanConnection::~StrongSwanConnection() {
    liveness_.end();
    if (events_) {
        events_->close();
    }
    if (commands_) {
        commands_->close();
    }
}

NEVPNStatus StrongSwanConnection::status() const {
    if (!tracker_.active() && !manager_.protocolConfiguration()) {
        return NEVPNStatusInvalid;
    }
    return tracker_.status();
}

void StrongSwanConnection::changed(bool didChange) {
    if (!didChange) {
        return;
    }
    DDLogDebug("IKEv2 charon status {}", static_cast<std::int64_t>(status()));
    if (options_.statusChanged) {
        asio::post(context_, [notify = options_.statusChanged] { notify(); });
    }
    if (tracker_.status() == NEVPNStatusDisconnected) {
        tunnelEnded();
        sleep_.end();
    }
}

Result<void> StrongSwanConnection::openEvents() {
    if (events_ && events_->isOpen()) {
        return {};
    }
    events_ = ViciClient::create(context_, options_.socketPath);
    if (Result<void> connected = events_->connect(); !connected) {
        events_.reset();
        return connected;
    }
    events_->setEventHandler(liveness_.guard(
        [this](const std::string& name, const ViciSection& event) { onEvent(name, event); }));
    events_->setClosedHandler(
        liveness_.guard([this](const std::string& reason) { onEventsClosed(reason); }));
    return {};
}

Result<void> StrongSwanConnection::openCommands() {
    if (commands_ && commands_->isOpen()) {
        return {};
    }
    commands_ = ViciClient::create(context_, options_.socketPath);
    listSaRegistered_ = false;
    if (Result<void> connected = commands_->connect(); !connected) {
        commands_.reset();
        return connected;
    }
    commands_->setEventHandler(
        liveness_.guard([this](const std::string& name, const ViciSection& event) {
            onCommandEvent(name, event);
        }));
    return {};
}

OptionalError StrongSwanConnection::startVPNTunnel(const NEVPNStartOptions& options) {
    if (tracker_.active()) {
        return makeVPNError(NEVPNErrorConnectionFailed, "the tunnel is already started");
    }
    const auto& protocol = manager_.protocolConfiguration();
    if (!protocol) {
        return makeVPNError(NEVPNErrorConfigurationInvalid, "no saved profile");
    }
    if (options.username.empty() || options.password.empty()) {
        return makeVPNError(NEVPNErrorConfigurationInvalid, "user name or password missing");
    }
    Result<ViciSection> conn =
        manager_.connectionLoaded() ? ViciSection{} : buildLoadConn(*protocol);
    if (!conn) {
        return makeVPNError(conn.error());
    }
    Result<ViciSection> secret = buildLoadShared(options.username, options.password);
    if (!secret) {
        return makeVPNError(secret.error());
    }
    bool freshEvents = !(events_ && events_->isOpen());
    std::uint64_t generation = ++generation_;
    log_.clear();
    started_ = true;
    initiated_ = false;
    pendingPrerequisites_ = 0;
    Result<void> opened = openEvents();
    if (opened) {
        opened = openCommands();
    }
    if (!opened) {
        // The start is taken all the same and ends at once with its reason,
        // so that a controller can tell a missing charon from other ends.
        DDLogDebug("IKEv2 charon not reachable: {}", opened.error().text);
        secret->wipe();
        const std::error_code& cause = opened.error().cause;
        bool absent = cause.category() == asio::system_category() &&
                      (cause.value() == ENOENT || cause.value() == ECONNREFUSED);
        changed(tracker_.startRequested());
        asio::post(context_, liveness_.guard([this, generation, absent] {
            if (generation == generation_) {
                failStart(absent ? kNoteCharonNotRunning : kNoteCharonNotReachable);
            }
        }));
        return std::nullopt;
    }

    auto prerequisite = [this, generation](const char* what) {
        ++pendingPrerequisites_;
        return liveness_.guard([this, generation, what](const ViciReply& reply) {
            // "no matching SAs" is the usual answer to the terminate.
            bool ok = reply.ok() && (reply.message.value("success") == nullptr ||
                                     reply.succeeded() || what == std::string("terminate"));
            prerequisiteDone(generation, ok, what, reply);
        });
    };
    // The server's certificate is checked against the system's trust
    // anchors: charon must have them before the exchange.
    if (!trust_.finished()) {
        trust_.sync(commands_, [done = prerequisite("trust anchors")] {
            ViciReply reply;
            reply.status = ViciReply::Status::Ok;
            done(std::move(reply));
        });
    }
    // The events must be registered before charon starts the exchange, or
    // the first lines and a quick failure could be missed.
    if (freshEvents) {
        for (const char* event : kMonitoredEvents) {
            events_->registerEvent(event, prerequisite(event), options_.configTimeout);
        }
    }
    // An IKE_SA a killed or stuck earlier run left would make charon refuse
    // the new tunnel as a duplicate; its secret the load-shared replaces.
    // This goes along with the registrations on the other connection.
    commands_->request("terminate", buildTerminate(), prerequisite("terminate"),
                       options_.configTimeout);
    commands_->request("load-shared", *secret, prerequisite("load-shared"), options_.configTimeout);
    secret->wipe();
    secretLoaded_ = true;
    if (!manager_.connectionLoaded()) {
        commands_->request("load-conn", *conn, prerequisite("load-conn"), options_.configTimeout);
    }
    changed(tracker_.startRequested());
    if (protocol->disconnectOnSleep) {
        sleep_.begin();
    }
    return std::nullopt;
}

void StrongSwanConnection::prepareTrust() {
    asio::post(context_, liveness_.guard([this] {
        if (trust_.finished()) {
            return;
        }
        if (Result<void> opened = openCommands(); !opened) {
            DDLogDebug("IKEv2 charon not reachable for the trust anchors: {}", opened.error().text);
            return;
        }
        trust_.sync(commands_, {});
    }));
}

void StrongSwanConnection::failStart(const char* note) {
    ++generation_;
    log_.note(note);
    changed(tracker_.startFailed());
}

void StrongSwanConnection::prerequisiteDone(std::uint64_t generation, bool ok,
                                            const std::string& what, const ViciReply& reply) {
    if (generation != generation_) {
        return;  // stopped, or started again, meanwhile
    }
    if (!ok) {
        DDLogDebug("IKEv2 {} failed: {}", what, reply.failure());
        // An event charon does not know is no reason to give up; a refused
        // secret or connection is, and so is a charon that does not answer.
        bool optional = reply.status == ViciReply::Status::Unknown &&
                        (what == "ike-update" || what == "ike-rekey");
        if (!optional) {
            failStart(reply.timedOut()                            ? kNoteCharonSilent
                      : reply.status == ViciReply::Status::Failed ? kNoteCharonClosed
                                                                  : kNoteCharonRefused);
            return;
        }
    }
    if (what == "load-conn") {
        manager_.setConnectionLoaded(true);
    }
    if (--pendingPrerequisites_ == 0) {
        sendInitiate(generation);
    }
}

void StrongSwanConnection::sendInitiate(std::uint64_t generation) {
    if (!commands_ || !commands_->isOpen()) {
        DDLogDebug("IKEv2 command connection lost before initiate");
        failStart(kNoteCharonClosed);
        return;
    }
    saMayExist_ = true;
    commands_->request("initiate", buildInitiate(),
                       liveness_.guard([this, generation](const ViciReply& reply) {
                           if (generation != generation_) {
                               return;
                           }
                           if (!reply.succeeded()) {
                               // charon's own log lines tell the reason; its errmsg does not.
                               DDLogDebug("IKEv2 initiate failed: {}", reply.failure());
                               changed(tracker_.startFailed());
                               return;
                           }
                           initiated_ = true;
                           schedulePoll(regularPollInterval());
                       }),
                       options_.initiateTimeout);
}

void StrongSwanConnection::stopVPNTunnel() {
    ++generation_;  // a start still being prepared goes no further
    if (!started_) {
        return;
    }
    releaseCharon(true);
    changed(tracker_.stopRequested());
    if (tracker_.active()) {
        // A forced terminate has destroyed the IKE_SA before it answers, but
        // one that was still being set up goes without an event.
        schedulePoll(std::chrono::milliseconds(0));
    }
}

// The secret first: unloading it never waits for an IKE_SA, while a
// terminate may wait for charon's worker that holds one.
void StrongSwanConnection::releaseCharon(bool terminate) {
    terminate = terminate && saMayExist_;
    if (charonSilent_ || (!secretLoaded_ && !terminate)) {
        return;
    }
    ViciSyncClient vici(options_.socketPath);
    if (Result<void> connected = vici.connect(); !connected) {
        DDLogDebug("IKEv2 charon not reachable to release the tunnel: {}", connected.error().text);
        return;
    }
    auto exchange = [&](const char* command, const ViciSection& message) {
        ViciReply reply = requestLogged(vici, command, message, options_.stopTimeout);
        // A charon that does not answer is not waited for again; the next
        // run of the tool cleans up what is left.
        charonSilent_ = reply.timedOut();
        return reply.ok();
    };
    if (secretLoaded_ && exchange("unload-shared", buildUnloadShared())) {
        secretLoaded_ = false;
    }
    if (!terminate) {
        return;
    }
    if (!charonSilent_) {
        saMayExist_ = !exchange("terminate", buildTerminate());
        return;
    }
    // A frozen charon still takes requests into its socket's queue and
    // carries them out once it runs again, after this process is gone, as
    // long as their connection is still open then.
    ViciSyncClient later(options_.socketPath);
    if (!later.connect()) {
        return;
    }
    auto deadline = ViciSyncClient::Clock::now() + options_.stopTimeout;
    bool unloadSent = secretLoaded_ && later.send("unload-shared", buildUnloadShared(), deadline);
    bool terminateSent = later.send("terminate", buildTerminate(), deadline).ok();
    if (unloadSent || terminateSent) {
        later.leaveOpenUntilAnswered(int{unloadSent} + int{terminateSent},
                                     options_.frozenRequestsHold);
    }
    secretLoaded_ = secretLoaded_ && !unloadSent;
    saMayExist_ = !terminateSent;
}

void StrongSwanConnection::finish() {
    releaseCharon(true);
}

void StrongSwanConnection::abandonSetup() {
    if (log_.lastReason(std::nullopt).empty()) {
        log_.note(kNoteNoTunnel);
    }
    ++generation_;
    releaseCharon(true);
    changed(tracker_.startFailed());
}

void StrongSwanConnection::tunnelEnded() {
    pollTimer_.cancel();
    pollScheduled_ = false;
    initiated_ = false;
    // The secret stays loaded until the process ends (finish).
}

void StrongSwanConnection::onEvent(const std::string& name, const ViciSection& event) {
    if (name == "log") {
        if (!log_.add(event) || !tracker_.active()) {
            return;
        }
        const std::string message = event.get("msg");
        if (tracker_.status() == NEVPNStatusConnecting && lineKeepsIkeSaWithoutTunnel(message)) {
            abandonSetup();
        } else if (initiated_ && lineEndsSetupSilently(message)) {
            schedulePoll(options_.silentEndCheck);
        }
        return;
    }
    changed(tracker_.onEvent(name, event));
}

void StrongSwanConnection::onCommandEvent(const std::string& name, const ViciSection& event) {
    if (name != "list-sa") {
        return;
    }
    if (const ViciSection* sa = event.section(kVPNProfileName)) {
        pollSawTunnel_ = true;
        if (const auto* vips = sa->list("local-vips")) {
            pollVips_ = *vips;
        }
    }
}

void StrongSwanConnection::onEventsClosed(const std::string& reason) {
    DDLogDebug("IKEv2 charon event connection lost: {}", reason);
    // The closed client stays until the next start: lastDisconnectError
    // tells by it that charon went away right after the tunnel.
    // A restarted charon has forgotten the connection loaded over VICI.
    manager_.setConnectionLoaded(false);
    if (tracker_.active()) {
        log_.note(reason == kViciTimeoutError ? kNoteCharonSilent : kNoteCharonClosed);
        changed(tracker_.tunnelGone());
    }
}

void StrongSwanConnection::schedulePoll(std::chrono::milliseconds delay) {
    if (pollInFlight_) {
        return;  // its answer reschedules
    }
    pollScheduled_ = true;
    pollTimer_.expires_after(delay);
    pollTimer_.async_wait(liveness_.guard([this](const std::error_code& ec) {
        if (!ec) {
            pollScheduled_ = false;
            poll();
        }
    }));
}

std::chrono::milliseconds StrongSwanConnection::regularPollInterval() const {
    return tracker_.status() == NEVPNStatusConnected ? options_.establishedPollInterval
                                                     : options_.pollInterval;
}

void StrongSwanConnection::poll() {
    if (!tracker_.active()) {
        return;
    }
    if (Result<void> opened = openCommands(); !opened) {
        DDLogDebug("IKEv2 cannot check the tunnel: {}", opened.error().text);
        schedulePoll(regularPollInterval());
        return;
    }
    pollInFlight_ = true;
    pollSawTunnel_ = false;
    pollVips_.clear();
    if (!listSaRegistered_) {
        commands_->registerEvent("list-sa", liveness_.guard([this](const ViciReply& reply) {
            listSaRegistered_ = reply.ok();
        }));
    }
    ViciSection filter;
    filter.add("ike", kVPNProfileName);
    commands_->request("list-sas", filter, liveness_.guard([this](const ViciReply& reply) {
        pollInFlight_ = false;
        if (!tracker_.active()) {
            return;
        }
        if (reply.ok() && listSaRegistered_) {
            if (!pollSawTunnel_) {
                DDLogDebug("IKEv2 charon no longer lists the tunnel");
                changed(tracker_.tunnelGone());
                return;
            }
            if (!pollVips_.empty()) {
                tracker_.setLocalVips(pollVips_);
            }
        }
        schedulePoll(regularPollInterval());
    }));
}

std::string StrongSwanConnection::lastDisconnectError(
    std::optional<SystemClock::time_point> since) {
    // Log lines can trail the down event: give them a bounded time, and stop
    // early once a reason is known and the stream has gone quiet.
    auto deadline = LoopClock::now() + options_.lateLogLimit;
    while (events_ && events_->isOpen()) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - LoopClock::now());
        if (left.count() <= 0) {
            break;
        }
        events_->drain(left, options_.lateLogQuiet);
        if (!log_.lastReason(since).empty()) {
            break;
        }
    }
    // charon closed the event stream right after the tunnel (often read
    // together with the down event): it is shutting down. Its own line about
    // that is handed to a worker thread that charon stops first, and often
    // never goes out.
    if (events_ && !events_->isOpen() && log_.lastReason(since).empty()) {
        log_.note(kNoteCharonClosed);
    }
    return log_.lastReason(since);
}

void StrongSwanConnection::stopForSleep() {
    if (!tracker_.active()) {
        return;
    }
    log_.note(kSleepNote);
    changed(tracker_.stopRequested());
    // Unlike a stop on request, the server gets a bounded moment to
    // acknowledge the DELETE (charon forces the end after it), so that it
    // knows the tunnel is gone before the machine goes quiet. The ordinary
    // stop follows for the rest.
    ViciSyncClient vici(options_.socketPath);
    if (vici.connect()) {
        ViciSection terminate;
        terminate.add("ike", kVPNProfileName)
            .add("force", "yes")
            .add("timeout", std::to_string(options_.sleep.acknowledgeWait.count()));
        auto deadline =
            ViciSyncClient::Clock::now() + options_.sleep.acknowledgeWait + options_.stopTimeout;
        ViciReply reply = vici.request("terminate", terminate, deadline);
        if (!reply.succeeded()) {
            DDLogDebug("IKEv2 terminate before sleep: {}", reply.failure());
        }
    }
    stopVPNTunnel();
}

}  // namespace platform::strongswan
