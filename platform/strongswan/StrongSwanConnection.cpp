#include "log/DDLog.h"
#include "platform/strongswan/StrongSwanManager.h"
#include "platform/strongswan/ViciProfile.h"

#include <asio/post.hpp>

namespace platform::strongswan {

namespace {

constexpr const char* kMonitoredEvents[] = {"ike-updown", "child-updown", "ike-rekey",
                                            "ike-update", "log"};

}  // namespace

StrongSwanConnection::StrongSwanConnection(StrongSwanManager& manager, asio::io_context& context,
                                           const StrongSwanOptions& options)
    : manager_(manager),
      context_(context),
      options_(options),
      tracker_(kVPNProfileName, kChildName),
      log_(kVPNProfileName),
      pollTimer_(context) {}

StrongSwanConnection::~StrongSwanConnection() {
    *alive_ = false;
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
    }
}

bool StrongSwanConnection::openEvents(std::string& error) {
    if (events_ && events_->isOpen()) {
        return true;
    }
    events_ = ViciClient::create(context_, options_.socketPath);
    if (!events_->connect(error)) {
        events_.reset();
        return false;
    }
    std::weak_ptr<bool> alive = alive_;
    events_->setEventHandler([this, alive](const std::string& name, const ViciSection& event) {
        if (alive.lock()) {
            onEvent(name, event);
        }
    });
    events_->setClosedHandler([this, alive](const std::string& reason) {
        if (alive.lock()) {
            onEventsClosed(reason);
        }
    });
    return true;
}

bool StrongSwanConnection::openCommands(std::string& error) {
    if (commands_ && commands_->isOpen()) {
        return true;
    }
    commands_ = ViciClient::create(context_, options_.socketPath);
    listSaRegistered_ = false;
    if (!commands_->connect(error)) {
        commands_.reset();
        return false;
    }
    std::weak_ptr<bool> alive = alive_;
    commands_->setEventHandler([this, alive](const std::string& name, const ViciSection& event) {
        if (alive.lock()) {
            onCommandEvent(name, event);
        }
    });
    return true;
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
    ViciSection conn;
    std::string error;
    if (!manager_.connectionLoaded() && !buildLoadConn(*protocol, conn, error)) {
        return makeVPNError(NEVPNErrorConfigurationInvalid, error);
    }
    bool freshEvents = !(events_ && events_->isOpen());
    if (!openEvents(error) || !openCommands(error)) {
        return makeVPNError(NEVPNErrorConnectionFailed, "charon not reachable: " + error);
    }

    std::uint64_t generation = ++generation_;
    log_.clear();
    started_ = true;
    initiated_ = false;
    pendingPrerequisites_ = 0;
    std::weak_ptr<bool> alive = alive_;
    auto prerequisite = [this, alive, generation](const char* what) {
        ++pendingPrerequisites_;
        return [this, alive, generation, what](ViciReply reply) {
            if (alive.lock()) {
                bool ok = reply.ok() && (reply.message.value("success") == nullptr ||
                                         reply.succeeded());
                prerequisiteDone(generation, ok, what, reply);
            }
        };
    };
    // The events must be registered before charon starts the exchange, or
    // the first lines and a quick failure could be missed.
    if (freshEvents) {
        for (const char* event : kMonitoredEvents) {
            events_->registerEvent(event, prerequisite(event));
        }
    }
    ViciSection secret;
    buildLoadShared(options.username, options.password, secret);
    commands_->request("load-shared", secret, prerequisite("load-shared"));
    secret.wipe();
    if (!manager_.connectionLoaded()) {
        commands_->request("load-conn", conn, prerequisite("load-conn"));
    }
    changed(tracker_.startRequested());
    return std::nullopt;
}

void StrongSwanConnection::prerequisiteDone(std::uint64_t generation, bool ok,
                                            const std::string& what, const ViciReply& reply) {
    if (generation != generation_) {
        return;  // stopped, or started again, meanwhile
    }
    if (!ok) {
        DDLogDebug("IKEv2 {} failed: {}", what, reply.failure());
        // An event charon does not know is no reason to give up; a refused
        // secret or connection is.
        bool optional = reply.status == ViciReply::Status::Unknown &&
                        (what == "ike-update" || what == "ike-rekey");
        if (!optional) {
            ++generation_;
            changed(tracker_.startFailed());
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
        changed(tracker_.startFailed());
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    commands_->request(
        "initiate", buildInitiate(),
        [this, alive, generation](ViciReply reply) {
            if (!alive.lock() || generation != generation_) {
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
        },
        options_.initiateTimeout);
}

void StrongSwanConnection::stopVPNTunnel() {
    ++generation_;  // a start still being prepared goes no further
    if (!started_) {
        return;
    }
    ViciSyncClient vici(options_.socketPath);
    std::string error;
    if (vici.connect(error)) {
        auto deadline = ViciSyncClient::Clock::now() + options_.stopTimeout;
        ViciReply reply = vici.request("terminate", buildTerminate(), deadline);
        if (!reply.succeeded()) {
            DDLogDebug("IKEv2 terminate: {}", reply.failure());
        }
        deadline = ViciSyncClient::Clock::now() + options_.stopTimeout;
        reply = vici.request("unload-shared", buildUnloadShared(), deadline);
        if (!reply.succeeded()) {
            DDLogDebug("IKEv2 unload-shared: {}", reply.failure());
        }
    } else {
        DDLogDebug("IKEv2 charon not reachable to stop the tunnel: {}", error);
    }
    changed(tracker_.stopRequested());
    if (tracker_.active()) {
        // Terminating a half-open SA raises no event: look for it soon.
        schedulePoll(options_.silentEndCheck);
    }
}

void StrongSwanConnection::tunnelEnded() {
    pollTimer_.cancel();
    pollScheduled_ = false;
    initiated_ = false;
    // Synchronously, like the stop: the status notification that follows
    // may end the process, and the secret must not stay behind in charon.
    ViciSyncClient vici(options_.socketPath);
    std::string error;
    if (!vici.connect(error)) {
        DDLogDebug("IKEv2 charon not reachable to unload the secret: {}", error);
        return;
    }
    ViciReply reply = vici.request("unload-shared", buildUnloadShared(),
                                   ViciSyncClient::Clock::now() + options_.stopTimeout);
    if (!reply.succeeded()) {
        DDLogDebug("IKEv2 unload-shared: {}", reply.failure());
    }
}

void StrongSwanConnection::onEvent(const std::string& name, const ViciSection& event) {
    if (name == "log") {
        if (log_.add(event) && tracker_.active() && initiated_ &&
            lineEndsSetupSilently(event.get("msg"))) {
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
    events_.reset();
    // A restarted charon has forgotten the connection loaded over VICI.
    manager_.setConnectionLoaded(false);
    if (tracker_.active()) {
        log_.note("charon closed the control connection");
        changed(tracker_.tunnelGone());
    }
}

void StrongSwanConnection::schedulePoll(std::chrono::milliseconds delay) {
    if (pollInFlight_) {
        return;  // its answer reschedules
    }
    pollScheduled_ = true;
    pollTimer_.expires_after(delay);
    std::weak_ptr<bool> alive = alive_;
    pollTimer_.async_wait([this, alive](const std::error_code& ec) {
        if (!ec && alive.lock()) {
            pollScheduled_ = false;
            poll();
        }
    });
}

std::chrono::milliseconds StrongSwanConnection::regularPollInterval() const {
    return tracker_.status() == NEVPNStatusConnected ? options_.establishedPollInterval
                                                     : options_.pollInterval;
}

void StrongSwanConnection::poll() {
    if (!tracker_.active()) {
        return;
    }
    std::string error;
    if (!openCommands(error)) {
        DDLogDebug("IKEv2 cannot check the tunnel: {}", error);
        schedulePoll(regularPollInterval());
        return;
    }
    pollInFlight_ = true;
    pollSawTunnel_ = false;
    pollVips_.clear();
    std::weak_ptr<bool> alive = alive_;
    if (!listSaRegistered_) {
        commands_->registerEvent("list-sa", [this, alive](ViciReply reply) {
            if (alive.lock()) {
                listSaRegistered_ = reply.ok();
            }
        });
    }
    ViciSection filter;
    filter.add("ike", kVPNProfileName);
    commands_->request("list-sas", filter, [this, alive](ViciReply reply) {
        if (!alive.lock()) {
            return;
        }
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
    });
}

std::string StrongSwanConnection::lastDisconnectError(
    std::optional<SystemClock::time_point> since) {
    // Log lines can trail the down event: give them a bounded time, and stop
    // early once a reason is known and the stream has gone quiet.
    auto deadline = LoopClock::now() + options_.lateLogLimit;
    while (events_ && events_->isOpen()) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - LoopClock::now());
        if (left.count() <= 0) {
            break;
        }
        events_->drain(left, options_.lateLogQuiet);
        if (!log_.lastReason(since).empty()) {
            break;
        }
    }
    return log_.lastReason(since);
}

}  // namespace platform::strongswan
