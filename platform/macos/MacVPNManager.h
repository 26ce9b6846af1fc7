#pragma once

// The adapter's NEVPNManager and NEVPNConnection over the framework's
// shared manager. Objective-C++, for the backend's .mm files only.

#import <NetworkExtension/NetworkExtension.h>

#include "platform/NEVPN.h"

NS_ASSUME_NONNULL_BEGIN

namespace platform::macos {

class MacVPNConnection final : public platform::NEVPNConnection {
  public:
    explicit MacVPNConnection(::NEVPNManager* manager);

    platform::NEVPNStatus status() const override;
    // The password goes to the framework as a string whose characters are
    // wiped when the framework and this call have released it (the
    // autorelease pool of the call drains before it returns). Out of reach:
    // what the framework derives from it (the request to the system's VPN
    // service) and, should Foundation copy the characters, that copy.
    OptionalError startVPNTunnel(const NEVPNStartOptions& options) override;
    void stopVPNTunnel() override;

  private:
    ::NEVPNManager* manager_;
};

// Load reads the profile into the adapter's fields; save writes them to
// the framework's manager first. Completions run on the main queue.
class MacVPNManager final : public platform::NEVPNManager {
  public:
    explicit MacVPNManager(::NEVPNManager* manager);

    void loadFromPreferences(CompletionHandler handler) override;
    void saveToPreferences(CompletionHandler handler) override;
    void removeFromPreferences(CompletionHandler handler) override;
    platform::NEVPNConnection* _Nullable connection() override;

  private:
    void readFromFramework();
    void writeToFramework();

    ::NEVPNManager* manager_;
    MacVPNConnection connection_;
};

}  // namespace platform::macos

NS_ASSUME_NONNULL_END
