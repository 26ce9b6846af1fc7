#pragma once

// The connector: the one object that owns the tool's IKEv2 profile and its
// tunnel. `connect` writes the profile through the platform's VPN manager
// and starts the tunnel with the credentials as start options; status
// notifications then drive it until the tunnel goes down. Every failure,
// and the end of the check, create and tunnel runs, hands the status the
// tool's controller expects to the connector's Finish.

#include "connector/Finish.h"
#include "os/File.h"
#include "platform/NEVPN.h"
#include "platform/Secret.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// The service's default remote identifier, used when the configuration
// names none.
inline constexpr const char* kDefaultRemoteID = "vpn.orvane.net";

// The tunnel start is queued this long after the profile is saved.
inline constexpr std::chrono::nanoseconds kTunnelStartDelay{500000000};

// Configuration files larger than this are refused (1 MiB).
inline constexpr std::size_t kMaxConfigFileSize = 1024 * 1024;

// What a configuration file says. The reader cannot tell which bytes are a
// secret (a password line longer than a read even spills into a key), so
// keys and values alike are wiped when the dictionary goes.
using ConfigDictionary = std::map<platform::Secret, platform::Secret, std::less<>>;

// A configuration file opened for reading, or the errno of the open that
// failed. The open blocks as any open does (a FIFO's until it has a
// writer).
struct ConfigFile {
    os::FileDescriptor descriptor;
    int openError = 0;
};
ConfigFile OpenConfigFile(const std::string& path);

// Reads a key=value configuration file. Nil when the file cannot be opened
// or is larger than kMaxConfigFileSize (after an error line naming `path`).
// Every buffer the file's bytes pass through is wiped before it returns.
std::optional<ConfigDictionary> ParseConfig(ConfigFile file, const std::string& path);
std::optional<ConfigDictionary> ParseConfig(const std::string& path);

// The lines of a configuration file: lines that do not match, or whose key
// or value is not valid UTF-8, are skipped.
ConfigDictionary ParseConfigText(std::string_view text);

// The log text of a status ("IKEv2 Connected", ...).
std::string NSStringFromNEVPNStatus(platform::NEVPNStatus status);

class OVConnectorIKEv2 : public std::enable_shared_from_this<OVConnectorIKEv2> {
  public:
    using OptionalString = std::optional<std::string>;
    using OptionalSecret = std::optional<platform::Secret>;
    using TimePoint = platform::SystemClock::time_point;

    // initWithServer:username:password: and initWithConfigFile:.
    static std::shared_ptr<OVConnectorIKEv2> initWithServer(OptionalString server,
                                                            OptionalString username,
                                                            OptionalSecret password);
    static std::shared_ptr<OVConnectorIKEv2> initWithConfigFile(const std::string& path);
    // From a file already opened (and so known to exist), read once.
    static std::shared_ptr<OVConnectorIKEv2> initWithConfigFile(const std::string& path,
                                                                ConfigFile file);

    // Handles a status notification: reads the connection's status afresh.
    void vpnStatusChanged();
    // The BSD name of the tunnel's interface; "ipsec0" when the lookup fails,
    // nil when the service has an interface without a name.
    OptionalString adapterId();
    // The reason of the last disconnect since the start, or "".
    std::string fetchLastDisconnectError();
    void createConnection();
    void connect();
    void disconnect();
    void disconnectWithError(const OptionalString& error);

    bool connecting() const { return connecting_; }
    void setConnecting(bool value) { connecting_ = value; }
    bool connected() const { return connected_; }
    void setConnected(bool value) { connected_ = value; }
    bool checkOnly() const { return checkOnly_; }
    void setCheckOnly(bool value) { checkOnly_ = value; }
    bool createOnly() const { return createOnly_; }
    void setCreateOnly(bool value) { createOnly_ = value; }
    // The password is held from construction until the start step, which
    // moves it into the start options: from then on it is nil, and the
    // options wipe it once the backend has handed it to the system.
    const OptionalSecret& password() const { return password_; }
    void setPassword(OptionalSecret value) { password_ = std::move(value); }
    const OptionalString& username() const { return username_; }
    void setUsername(OptionalString value) { username_ = std::move(value); }
    const OptionalString& server() const { return server_; }
    void setServer(OptionalString value) { server_ = std::move(value); }
    const OptionalString& remoteID() const { return remoteID_; }
    void setRemoteID(OptionalString value) { remoteID_ = std::move(value); }
    platform::NEVPNManager* vpnManager() const { return vpnManager_; }
    void setVpnManager(platform::NEVPNManager* value) { vpnManager_ = value; }
    const std::optional<TimePoint>& connectingDate() const { return connectingDate_; }
    void setConnectingDate(std::optional<TimePoint> value) { connectingDate_ = value; }
    const OptionalString& lastDisconnectError() const { return lastDisconnectError_; }
    void setLastDisconnectError(OptionalString value) { lastDisconnectError_ = std::move(value); }

    // Where the run ends (finishProcess unless set); nothing more is asked
    // of the platform after it is called.
    void setFinish(Finish finish) { finish_ = std::move(finish); }

  private:
    OVConnectorIKEv2(OptionalString server, OptionalString username, OptionalSecret password);

    void loadCompleted(const platform::OptionalError& error);
    void saveCompleted(const platform::OptionalError& error);
    // The queued start step. `saveError` is the save handler's error value,
    // which the start failure line prints (it is always nil there).
    void startTunnel(const platform::OptionalError& saveError);

    bool connecting_ = false;
    bool connected_ = false;
    bool checkOnly_ = false;
    bool createOnly_ = false;
    OptionalSecret password_;
    OptionalString username_;
    OptionalString server_;
    OptionalString remoteID_;
    platform::NEVPNManager* vpnManager_ = nullptr;
    std::optional<TimePoint> connectingDate_;
    OptionalString lastDisconnectError_;
    Finish finish_ = finishProcess;
};
