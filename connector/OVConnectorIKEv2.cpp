#include "connector/OVConnectorIKEv2.h"

#include "log/DDLog.h"
#include "platform/NilText.h"
#include "platform/RunLoop.h"

using namespace platform;

std::string NSStringFromNEVPNStatus(NEVPNStatus status) {
    switch (status) {
        case NEVPNStatusInvalid:
            return "IKEv2 Invalid Status";
        case NEVPNStatusDisconnected:
            return "IKEv2 Disconnected";
        case NEVPNStatusConnecting:
            return "IKEv2 Connecting";
        case NEVPNStatusConnected:
            return "IKEv2 Connected";
        case NEVPNStatusReasserting:
            return "IKEv2 Reconnecting";
        case NEVPNStatusDisconnecting:
            return "IKEv2 Disconnecting";
    }
    return "IKEv2 Unknown Status";
}

OVConnectorIKEv2::OVConnectorIKEv2(OptionalString server, OptionalString username,
                                   OptionalSecret password)
    : password_(std::move(password)),
      username_(std::move(username)),
      server_(std::move(server)),
      remoteID_(kDefaultRemoteID),
      lastDisconnectError_("") {}

std::shared_ptr<OVConnectorIKEv2> OVConnectorIKEv2::initWithServer(OptionalString server,
                                                                   OptionalString username,
                                                                   OptionalSecret password) {
    return std::shared_ptr<OVConnectorIKEv2>(
        new OVConnectorIKEv2(std::move(server), std::move(username), std::move(password)));
}

std::shared_ptr<OVConnectorIKEv2> OVConnectorIKEv2::initWithConfigFile(const std::string& path) {
    return initWithConfigFile(path, OpenConfigFile(path));
}

std::shared_ptr<OVConnectorIKEv2> OVConnectorIKEv2::initWithConfigFile(const std::string& path,
                                                                       ConfigFile file) {
    auto config = ParseConfig(std::move(file), path);
    const auto find = [&config](std::string_view key) -> Secret* {
        if (!config) {
            return nullptr;
        }
        const auto found = config->find(key);
        return found == config->end() ? nullptr : &found->second;
    };
    const auto lookup = [&find](std::string_view key) -> OptionalString {
        const Secret* value = find(key);
        return value ? OptionalString(value->view()) : std::nullopt;
    };
    OptionalSecret password;
    if (Secret* value = find("password")) {
        password = std::move(*value);
    }
    auto connector = initWithServer(lookup("ip"), lookup("username"), std::move(password));
    const OptionalString remote = lookup("remote");
    if (remote && !remote->empty()) {
        connector->setRemoteID(remote);
    }
    return connector;
}

void OVConnectorIKEv2::connect() {
    auto self = shared_from_this();
    addStatusObserver([self] { self->vpnStatusChanged(); });
    createConnection();
}

void OVConnectorIKEv2::createConnection() {
    vpnManager_ = &NEVPNManager::sharedManager();
    auto self = shared_from_this();
    vpnManager_->loadFromPreferences(
        [self](const OptionalError& error) { self->loadCompleted(error); });
}

void OVConnectorIKEv2::loadCompleted(const OptionalError& error) {
    if (error) {
        DDLogError("IKEv2 Error loading configurations: {}", error->description);
        finish_(1);
        return;
    }
    if (checkOnly_) {
        if (vpnManager_->protocolConfiguration()) {
            DDLogInfo("IKEv2 configuration already exists");
            finish_(0);
            return;
        }
        DDLogInfo("IKEv2 configuration doesn't exist");
        finish_(2);
        return;
    }

    NEVPNProtocolIKEv2 protocol;
    protocol.username = username_;
    protocol.serverAddress = server_;
    protocol.remoteIdentifier = remoteID_;
    protocol.authenticationMethod = NEVPNIKEAuthenticationMethodCertificate;
    protocol.useExtendedAuthentication = true;
    protocol.enableRevocationCheck = true;
    protocol.enablePFS = true;
    protocol.disconnectOnSleep = true;
    protocol.deadPeerDetectionRate = NEVPNIKEv2DeadPeerDetectionRateHigh;
    protocol.IKESecurityAssociationParameters.encryptionAlgorithm =
        NEVPNIKEv2EncryptionAlgorithmAES256;
    protocol.IKESecurityAssociationParameters.integrityAlgorithm =
        NEVPNIKEv2IntegrityAlgorithmSHA256;
    protocol.IKESecurityAssociationParameters.diffieHellmanGroup = NEVPNIKEv2DiffieHellmanGroup14;
    protocol.childSecurityAssociationParameters.encryptionAlgorithm =
        NEVPNIKEv2EncryptionAlgorithmAES256;
    protocol.childSecurityAssociationParameters.integrityAlgorithm =
        NEVPNIKEv2IntegrityAlgorithmSHA256;
    protocol.childSecurityAssociationParameters.diffieHellmanGroup = NEVPNIKEv2DiffieHellmanGroup14;

    vpnManager_->setProtocolConfiguration(std::move(protocol));
    vpnManager_->setEnabled(true);
    vpnManager_->setLocalizedDescription(std::string(kVPNProfileName));
    auto self = shared_from_this();
    vpnManager_->saveToPreferences(
        [self](const OptionalError& saveError) { self->saveCompleted(saveError); });
}

void OVConnectorIKEv2::saveCompleted(const OptionalError& error) {
    if (error) {
        DDLogInfo("IKEv2 Error saving configurations: {}", error->description);
        finish_(static_cast<int>(error->code));
        return;
    }
    DDLogDebug("IKEv2 Configuration saved!");
    if (createOnly_) {
        finish_(0);
        return;
    }
    auto self = shared_from_this();
    RunLoop::main().dispatchAfter(kTunnelStartDelay, [self, error] { self->startTunnel(error); });
}

void OVConnectorIKEv2::startTunnel(const OptionalError& saveError) {
    connecting_ = true;
    connectingDate_ = SystemClock::now();
    if (!username_ || !password_) {
        DDLogError("IKEv2 Missing user name or password");
        finish_(1);
        return;
    }
    OptionalError startError;
    {
        // The options take the password over and wipe it at the end of this
        // block, whatever the outcome.
        const NEVPNStartOptions options{*username_, std::move(*password_)};
        password_.reset();
        NEVPNConnection* connection = vpnManager_ ? vpnManager_->connection() : nullptr;
        // With no connection the request cannot go out; that is a refused start.
        startError = connection ? connection->startVPNTunnel(options)
                                : OptionalError(NSError{0, "no connection"});
    }
    // What the backend's copying left on the stack and in the registers.
    wipeScratch();
    if (startError) {
        DDLogDebug("IKEv2 Start refused: {}", startError->description);
        // Deliberately the save handler's error, not the start error.
        DDLogInfo("IKEv2 Error starting vpn tunnel: {}",
                  saveError ? std::string_view(saveError->description) : kNilText);
        finish_(1);
    }
}

void OVConnectorIKEv2::disconnect() {
    disconnectWithError(std::nullopt);
}

void OVConnectorIKEv2::disconnectWithError(const OptionalString& error) {
    if (!connecting_ && !connected_) {
        return;
    }
    connecting_ = false;
    if (!error || error->empty()) {
        connected_ = false;
    } else {
        lastDisconnectError_ = error;
    }
    if (vpnManager_ != nullptr) {
        if (NEVPNConnection* connection = vpnManager_->connection()) {
            connection->stopVPNTunnel();
        }
    }
}
