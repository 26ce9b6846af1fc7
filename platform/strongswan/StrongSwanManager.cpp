#include "platform/strongswan/StrongSwanManager.h"

#include "log/DDLog.h"
#include "platform/strongswan/InterfaceLookup.h"
#include "platform/strongswan/LoggedRequest.h"
#include "platform/strongswan/ViciProfile.h"

#include <asio/post.hpp>

namespace platform::strongswan {

namespace {

ViciSyncClient::Clock::time_point after(std::chrono::milliseconds timeout) {
    return ViciSyncClient::Clock::now() + timeout;
}

}  // namespace

StrongSwanManager::StrongSwanManager(asio::io_context& context, StrongSwanOptions options)
    : context_(context),
      options_(std::move(options)),
      store_(options_.preferencesPath),
      lock_(options_.lockPath) {
    connection_ = std::make_unique<StrongSwanConnection>(*this, context_, options_);
}

StrongSwanManager::~StrongSwanManager() = default;

void StrongSwanManager::complete(CompletionHandler handler, OptionalError error) {
    asio::post(context_, [handler = std::move(handler), error = std::move(error)] {
        if (handler) {
            handler(error);
        }
    });
}

void StrongSwanManager::loadFromPreferences(CompletionHandler handler) {
    Result<std::optional<StoredProfile>> loaded = store_.load();
    corrupt_ = !loaded && loaded.error().code == NEVPNErrorConfigurationInvalid;
    std::optional<StoredProfile> profile;
    if (loaded) {
        profile = std::move(*loaded);
    } else if (!corrupt_) {
        complete(std::move(handler), makeVPNError(loaded.error()));
        return;
    } else {
        // The file still stands for the profile, as the platform's
        // preferences would: a save replaces it and a remove clears it.
        DDLogDebug("IKEv2 unreadable profile: {}", makeVPNError(loaded.error()).description);
        profile = StoredProfile{};
    }
    if (profile) {
        protocol_ = profile->protocol;
        enabled_ = profile->enabled;
        localizedDescription_ = profile->localizedDescription;
    } else {
        protocol_.reset();
        enabled_ = false;
        localizedDescription_.reset();
    }
    complete(std::move(handler), std::nullopt);
}

// All or nothing: the file is written only once charon has taken the
// connection (or cannot be reached), and a file that cannot be written
// takes the connection back out of charon.
void StrongSwanManager::saveToPreferences(CompletionHandler handler) {
    if (!protocol_) {
        complete(std::move(handler),
                 makeVPNError(NEVPNErrorConfigurationInvalid, "no protocol configuration"));
        return;
    }
    Result<ViciSection> conn = buildLoadConn(*protocol_);
    if (!conn) {
        complete(std::move(handler), makeVPNError(conn.error()));
        return;
    }
    if (Result<void> locked = lock_.acquire(); !locked) {
        complete(std::move(handler), makeVPNError(locked.error()));
        return;
    }
    connectionLoaded_ = false;
    ViciSyncClient vici(options_.socketPath);
    Result<void> connected = vici.connect();
    if (connected) {
        ViciReply reply = vici.request("load-conn", *conn, after(options_.configTimeout));
        if (reply.status == ViciReply::Status::Failed) {
            // The file is the saved profile; the start loads it into charon.
            DDLogDebug("IKEv2 load-conn got no answer: {}", reply.failure());
        } else if (!reply.succeeded()) {
            complete(std::move(handler),
                     makeVPNError(NEVPNErrorConfigurationInvalid,
                                  "charon refused the connection: " + reply.failure()));
            return;
        } else {
            connectionLoaded_ = true;
        }
    } else {
        DDLogDebug("IKEv2 charon not reachable, connection not loaded: {}", connected.error().text);
    }
    StoredProfile profile{*protocol_, enabled_, localizedDescription_};
    Result<void> saved = corrupt_ ? store_.setAside() : Result<void>();
    if (saved) {
        saved = store_.save(profile);
    }
    if (!saved) {
        if (connectionLoaded_) {
            vici.request("unload-conn", buildUnloadConn(), after(options_.configTimeout));
            connectionLoaded_ = false;
        }
        complete(std::move(handler), makeVPNError(saved.error()));
        return;
    }
    corrupt_ = false;
    complete(std::move(handler), std::nullopt);
    // After the completion, in the idle time before a start: a run that
    // ends in the completion (create only) never loads them.
    connection_->prepareTrust();
}

// Removing the profile also ends its live tunnel, as on the platform; a
// corrupt file is kept aside rather than deleted.
void StrongSwanManager::removeFromPreferences(CompletionHandler handler) {
    if (Result<void> removed = corrupt_ ? store_.setAside() : store_.remove(); !removed) {
        complete(std::move(handler), makeVPNError(removed.error()));
        return;
    }
    protocol_.reset();
    corrupt_ = false;
    connectionLoaded_ = false;
    ViciSyncClient vici(options_.socketPath);
    if (Result<void> connected = vici.connect(); connected) {
        // "not found" only means charon never had it (or lost it on restart).
        for (const auto& [command, message] :
             {std::pair{"terminate", buildTerminate()}, std::pair{"unload-conn", buildUnloadConn()},
              std::pair{"unload-shared", buildUnloadShared()}}) {
            requestLogged(vici, command, message, options_.configTimeout);
        }
    } else {
        DDLogDebug("IKEv2 charon not reachable, nothing to unload: {}", connected.error().text);
    }
    complete(std::move(handler), std::nullopt);
}

std::string StrongSwanManager::lastDisconnectError(std::optional<SystemClock::time_point> since) {
    return connection_->lastDisconnectError(since);
}

void StrongSwanManager::finish() {
    connection_->finish();
}

std::optional<std::vector<NetworkService>> StrongSwanManager::networkServices() {
    ViciSyncClient vici(options_.socketPath);
    if (Result<void> connected = vici.connect(); !connected) {
        DDLogDebug("IKEv2 charon not reachable for the service list: {}", connected.error().text);
        return std::nullopt;
    }
    auto deadline = after(options_.configTimeout);
    std::vector<std::string> names;
    auto collectNames = [&names](const std::string& event, const ViciSection& message) {
        if (event != "list-conn") {
            return;
        }
        for (const auto& entry : message.entries()) {
            if (entry.kind == ViciEntry::Kind::Section) {
                names.push_back(entry.name);
            }
        }
    };
    // list-conns covers every backend's connections; it streams, so the
    // stream event is registered first on the same connection.
    ViciReply reply = vici.registerEvent("list-conn", deadline);
    if (reply.ok()) {
        reply = vici.request("list-conns", {}, deadline, collectNames);
    }
    if (!reply.ok()) {
        DDLogDebug("IKEv2 list-conns: {}", reply.failure());
        return std::nullopt;
    }
    std::vector<NetworkService> services;
    for (const auto& name : names) {
        NetworkService service{name, std::nullopt};
        if (name == kVPNProfileName) {
            std::vector<std::string> vips = connection_->localVips();
            if (vips.empty()) {
                ViciSection filter;
                filter.add("ike", kVPNProfileName);
                auto collectVips = [&vips](const std::string& event, const ViciSection& message) {
                    if (event != "list-sa") {
                        return;
                    }
                    if (const ViciSection* sa = message.section(kVPNProfileName)) {
                        if (const auto* list = sa->list("local-vips")) {
                            vips.insert(vips.end(), list->begin(), list->end());
                        }
                    }
                };
                if (vici.registerEvent("list-sa", deadline).ok()) {
                    vici.request("list-sas", filter, deadline, collectVips);
                }
            }
            service.interfaceName = interfaceForAnyAddress(vips).value_or(kDefaultTunnelInterface);
        }
        services.push_back(std::move(service));
    }
    return services;
}

}  // namespace platform::strongswan
