#pragma once

// The system's trust store as charon's trust anchors. charon reads no
// system trust store by itself, while the platform's own client trusts
// every CA the system trusts. Each CA certificate of the store goes to
// charon as a VICI authority named after the certificate's fingerprint, so
// charon itself remembers what it holds: a later run (until charon
// restarts or an administrator reloads the authorities) only asks for the
// list, loads what is missing and unloads those of ours whose certificate
// left the store. charon's own CA folders are not touched.

#include "platform/strongswan/Liveness.h"
#include "platform/strongswan/ViciClient.h"

#include <asio/io_context.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace platform::strongswan {

// Authorities of ours are named this prefix and the SHA-256 of the
// certificate (hex).
inline constexpr std::string_view kTrustAnchorPrefix = "orvane-ikev2-system-ca-";

// The trust store as one PEM bundle, where Linux distributions keep it; the
// first that exists is the store.
std::vector<std::string> defaultTrustBundles();

struct TrustAnchor {
    std::string name;
    std::string_view pem;  // one "BEGIN CERTIFICATE" block of the bundle
};

// The certificates of a PEM bundle, in order, each once; they refer to
// `bundle`. The name hashes the base64 text without line breaks, so
// wrapping does not change it.
std::vector<TrustAnchor> parseTrustBundle(std::string_view bundle);

struct TrustChanges {
    std::vector<const TrustAnchor*> load;
    std::vector<std::string> unload;
};
// What makes charon's authorities of ours (among `loaded`, every name it
// lists) the store's; authorities of others stay.
TrustChanges planTrustChanges(const std::vector<std::string>& loaded,
                              const std::vector<TrustAnchor>& store);

class SystemTrust {
  public:
    SystemTrust(asio::io_context& context, std::vector<std::string> bundles);
    ~SystemTrust();
    SystemTrust(const SystemTrust&) = delete;
    SystemTrust& operator=(const SystemTrust&) = delete;

    // Brings charon's authorities in step with the store over `client`, once
    // per object; calls while it runs only wait for it. `done` runs on the
    // io_context once it is over, whatever the outcome: a certificate charon
    // refuses (one it cannot parse) is skipped, and a store that cannot be
    // read or a charon that cannot be asked leaves charon as it is.
    void sync(const std::shared_ptr<ViciClient>& client, std::function<void()> done);
    bool finished() const { return state_ == State::Finished; }

  private:
    enum class State { Idle, Running, Finished };
    // Reads the store into bundle_ and store_; false when it cannot be read.
    bool readStore();
    void apply(const std::shared_ptr<ViciClient>& client, const std::vector<std::string>& loaded);
    // Sends the next change, if any is left.
    void sendNext(const std::shared_ptr<ViciClient>& client);
    void answered(const std::weak_ptr<ViciClient>& client, bool refused);
    void warmUp(ViciClient& client);
    void finish();

    asio::io_context& context_;
    std::vector<std::string> bundles_;
    State state_ = State::Idle;
    std::vector<std::function<void()>> waiters_;
    std::string bundle_;
    std::vector<TrustAnchor> store_;
    TrustChanges changes_;
    std::size_t sent_ = 0;
    std::size_t answered_ = 0;
    std::chrono::steady_clock::time_point started_;
    int refused_ = 0;
    Liveness liveness_;
};

}  // namespace platform::strongswan
