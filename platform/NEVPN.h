#pragma once

// The slice of the system VPN framework that the connector uses, in the
// framework's own terms: an IKEv2 protocol object with its two
// security-association parameter sets, a manager that loads, saves and
// removes the tool's profile, and the profile's connection that starts and
// stops the tunnel and reports its status. A backend implements the
// abstract classes and the free functions at the bottom; the tool links
// exactly one backend, the tests link the scripted double.
//
// Threading: every completion callback and every status notification runs
// on the main run loop (RunLoop::main()), never from inside the call that
// asked for it.

#include "platform/Secret.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace platform {

// The profile's name: its localized description, the name of the network
// service that carries it, and charon's connection name on Linux.
inline constexpr const char* kVPNProfileName = "Orvane IKEv2";
// The tunnel's interface when no network service carries the profile's
// name (with kernel-libipsec on Linux, its TUN device).
inline constexpr const char* kDefaultTunnelInterface = "ipsec0";

enum NEVPNStatus : std::int64_t {
    NEVPNStatusInvalid = 0,
    NEVPNStatusDisconnected = 1,
    NEVPNStatusConnecting = 2,
    NEVPNStatusConnected = 3,
    NEVPNStatusReasserting = 4,
    NEVPNStatusDisconnecting = 5,
};

enum NEVPNIKEAuthenticationMethod : std::int64_t {
    NEVPNIKEAuthenticationMethodNone = 0,
    NEVPNIKEAuthenticationMethodCertificate = 1,
    NEVPNIKEAuthenticationMethodSharedSecret = 2,
};

enum NEVPNIKEv2EncryptionAlgorithm : std::int64_t {
    NEVPNIKEv2EncryptionAlgorithmDES = 1,
    NEVPNIKEv2EncryptionAlgorithm3DES = 2,
    NEVPNIKEv2EncryptionAlgorithmAES128 = 3,
    NEVPNIKEv2EncryptionAlgorithmAES256 = 4,
    NEVPNIKEv2EncryptionAlgorithmAES128GCM = 5,
    NEVPNIKEv2EncryptionAlgorithmAES256GCM = 6,
    NEVPNIKEv2EncryptionAlgorithmChaCha20Poly1305 = 7,
};

enum NEVPNIKEv2IntegrityAlgorithm : std::int64_t {
    NEVPNIKEv2IntegrityAlgorithmSHA96 = 1,
    NEVPNIKEv2IntegrityAlgorithmSHA160 = 2,
    NEVPNIKEv2IntegrityAlgorithmSHA256 = 3,
    NEVPNIKEv2IntegrityAlgorithmSHA384 = 4,
    NEVPNIKEv2IntegrityAlgorithmSHA512 = 5,
};

enum NEVPNIKEv2DiffieHellmanGroup : std::int64_t {
    NEVPNIKEv2DiffieHellmanGroupInvalid = 0,
    NEVPNIKEv2DiffieHellmanGroup1 = 1,
    NEVPNIKEv2DiffieHellmanGroup2 = 2,
    NEVPNIKEv2DiffieHellmanGroup5 = 5,
    NEVPNIKEv2DiffieHellmanGroup14 = 14,
    NEVPNIKEv2DiffieHellmanGroup15 = 15,
    NEVPNIKEv2DiffieHellmanGroup16 = 16,
    NEVPNIKEv2DiffieHellmanGroup17 = 17,
    NEVPNIKEv2DiffieHellmanGroup18 = 18,
    NEVPNIKEv2DiffieHellmanGroup19 = 19,
    NEVPNIKEv2DiffieHellmanGroup20 = 20,
    NEVPNIKEv2DiffieHellmanGroup21 = 21,
    NEVPNIKEv2DiffieHellmanGroup31 = 31,
    NEVPNIKEv2DiffieHellmanGroup32 = 32,
};

enum NEVPNIKEv2DeadPeerDetectionRate : std::int64_t {
    NEVPNIKEv2DeadPeerDetectionRateNone = 0,
    NEVPNIKEv2DeadPeerDetectionRateLow = 1,
    NEVPNIKEv2DeadPeerDetectionRateMedium = 2,
    NEVPNIKEv2DeadPeerDetectionRateHigh = 3,
};

// An error handed to a completion callback: the framework's code and the
// text its `description` gives.
struct NSError {
    std::int64_t code = 0;
    std::string description;
};
using OptionalError = std::optional<NSError>;
using CompletionHandler = std::function<void(const OptionalError& error)>;

struct NEVPNIKEv2SecurityAssociationParameters {
    NEVPNIKEv2EncryptionAlgorithm encryptionAlgorithm = NEVPNIKEv2EncryptionAlgorithm3DES;
    NEVPNIKEv2IntegrityAlgorithm integrityAlgorithm = NEVPNIKEv2IntegrityAlgorithmSHA96;
    NEVPNIKEv2DiffieHellmanGroup diffieHellmanGroup = NEVPNIKEv2DiffieHellmanGroup2;
    std::int32_t lifetimeMinutes = 1440;

    bool operator==(const NEVPNIKEv2SecurityAssociationParameters&) const = default;
};

// A fresh object carries the framework's defaults; the connector sets what
// it needs. There is deliberately no password field: the password reaches
// the system only as a start option.
struct NEVPNProtocolIKEv2 {
    std::optional<std::string> username;
    std::optional<std::string> serverAddress;
    std::optional<std::string> remoteIdentifier;
    std::optional<std::string> localIdentifier;
    NEVPNIKEAuthenticationMethod authenticationMethod = NEVPNIKEAuthenticationMethodNone;
    bool useExtendedAuthentication = false;
    bool enableRevocationCheck = false;
    bool strictRevocationCheck = false;
    bool enablePFS = false;
    bool disconnectOnSleep = false;
    NEVPNIKEv2DeadPeerDetectionRate deadPeerDetectionRate = NEVPNIKEv2DeadPeerDetectionRateMedium;
    NEVPNIKEv2SecurityAssociationParameters IKESecurityAssociationParameters;
    NEVPNIKEv2SecurityAssociationParameters childSecurityAssociationParameters;

    bool operator==(const NEVPNProtocolIKEv2&) const = default;
};

// The two start options: NEVPNConnectionStartOptionUsername and
// NEVPNConnectionStartOptionPassword. Moved, never copied: the password is
// wiped when the options go.
struct NEVPNStartOptions {
    std::string username;
    Secret password;
};

class NEVPNConnection {
  public:
    virtual ~NEVPNConnection() = default;
    virtual NEVPNStatus status() const = 0;
    // Asks the system to start the tunnel. Returns an error when the request
    // was refused at once; progress arrives as status notifications. The
    // caller wipes the options when this returns; a backend keeps no copy of
    // the password beyond handing it to the system (an asynchronous write
    // of it is wiped once done).
    virtual OptionalError startVPNTunnel(const NEVPNStartOptions& options) = 0;
    // Asks the system to stop the tunnel. Not waited on by the caller, but
    // the request has gone out when this returns: the process may end right
    // after it.
    virtual void stopVPNTunnel() = 0;
};

class NEVPNManager {
  public:
    virtual ~NEVPNManager() = default;

    // The backend's one manager for this tool's profile.
    static NEVPNManager& sharedManager();

    virtual void loadFromPreferences(CompletionHandler handler) = 0;
    virtual void saveToPreferences(CompletionHandler handler) = 0;
    virtual void removeFromPreferences(CompletionHandler handler) = 0;

    // What the last load found, or what the caller set for the next save;
    // none when no profile is saved for this tool.
    const std::optional<NEVPNProtocolIKEv2>& protocolConfiguration() const { return protocol_; }
    void setProtocolConfiguration(std::optional<NEVPNProtocolIKEv2> protocol) {
        protocol_ = std::move(protocol);
    }
    bool enabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }
    const std::optional<std::string>& localizedDescription() const { return localizedDescription_; }
    void setLocalizedDescription(std::optional<std::string> text) {
        localizedDescription_ = std::move(text);
    }

    // The profile's connection; none when the backend has none to offer.
    virtual NEVPNConnection* connection() = 0;

  protected:
    std::optional<NEVPNProtocolIKEv2> protocol_;
    bool enabled_ = false;
    std::optional<std::string> localizedDescription_;
};

// Status notifications (NEVPNStatusDidChangeNotification). Observers are
// called on the main run loop whenever the status of a VPN connection may
// have changed; they read the status afresh from the connection.
using StatusObserver = std::function<void()>;
void addStatusObserver(StatusObserver observer);
// Called by backends (and the double) to notify every observer, in the
// order they were added.
void postStatusDidChange();
// Forgets every observer (tests only).
void removeAllStatusObservers();

// The most recent reason the VPN service gave for a disconnect of the
// tool's tunnel since `since` (the tunnel start), or the empty string when
// none is known. Blocks the caller until the answer is known.
using SystemClock = std::chrono::system_clock;
std::string fetchLastDisconnectError(std::optional<SystemClock::time_point> since);

// One network service of the system's network configuration.
struct NetworkService {
    // None when the service has no name.
    std::optional<std::string> name;
    // The BSD name of the service's interface; none when it has none.
    std::optional<std::string> interfaceName;
};
// Every network service, in the system's order; none when the network
// configuration cannot be read.
std::optional<std::vector<NetworkService>> copyAllNetworkServices();

}  // namespace platform
