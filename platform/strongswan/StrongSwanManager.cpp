#include "platform/strongswan/StrongSwanManager.h"

#include "log/DDLog.h"
#include "platform/strongswan/InterfaceLookup.h"
#include "platform/strongswan/ViciProfile.h"

#include <asio/post.hpp>

namespace platform::strongswan {

namespace {

// The interface reported for the tool's service when its virtual IP is on
// no interface (with kernel-libipsec the TUN device is ipsec0).
constexpr const char* kFallbackInterface = "ipsec0";

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
    std::optional<StoredProfile> profile;
    NSError error;
    if (!store_.load(profile, error, &corrupt_)) {
        if (!corrupt_) {
            complete(std::move(handler), error);
            return;
        }
        // The file still stands for the profile, as the platform's
        // preferences would: a save replaces it and a remove clears it.
        DDLogDebug("IKEv2 unreadable profile: {}", error.description);
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
    ViciSection conn;
    std::string why;
    if (!buildLoadConn(*protocol_, conn, why)) {
        complete(std::move(handler), makeVPNError(NEVPNErrorConfigurationInvalid, why));
        return;
    }
    if (!lock_.acquire(why)) {
        complete(std::move(handler), makeVPNError(NEVPNErrorConfigurationReadWriteFailed, why));
        return;
    }
    connectionLoaded_ = false;
    ViciSyncClient vici(options_.socketPath);
    if (vici.connect(why)) {
        ViciReply reply = vici.request("load-conn", conn, after(options_.configTimeout));
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
        DDLogDebug("IKEv2 charon not reachable, connection not loaded: {}", why);
    }
    NSError error;
    StoredProfile profile{*protocol_, enabled_, localizedDescription_};
    if ((corrupt_ && !store_.setAside(error)) || !store_.save(profile, error)) {
        if (connectionLoaded_) {
            vici.request("unload-conn", buildUnloadConn(), after(options_.configTimeout));
            connectionLoaded_ = false;
        }
        complete(std::move(handler), error);
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
    NSError error;
    if (!(corrupt_ ? store_.setAside(error) : store_.remove(error))) {
        complete(std::move(handler), error);
        return;
    }
    protocol_.reset();
    corrupt_ = false;
    connectionLoaded_ = false;
    ViciSyncClient vici(options_.socketPath);
    std::string why;
    if (vici.connect(why)) {
        // "not found" only means charon never had it (or lost it on restart).
        for (const auto& [command, message] :
             {std::pair{"terminate", buildTerminate()}, std::pair{"unload-conn", buildUnloadConn()},
              std::pair{"unload-shared", buildUnloadShared()}}) {
            ViciReply reply = vici.request(command, message, after(options_.configTimeout));
            if (!reply.succeeded()) {
                DDLogDebug("IKEv2 {}: {}", command, reply.failure());
            }
        }
    } else {
        DDLogDebug("IKEv2 charon not reachable, nothing to unload: {}", why);
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
    std::string why;
    if (!vici.connect(why)) {
        DDLogDebug("IKEv2 charon not reachable for the service list: {}", why);
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
            service.interfaceName = interfaceForAnyAddress(vips).value_or(kFallbackInterface);
        }
        services.push_back(std::move(service));
    }
    return services;
}

}  // namespace platform::strongswan
