#import "platform/macos/MacVPNManager.h"

#import "platform/macos/FoundationBridge.h"
#import "platform/macos/ProtocolConversion.h"

#include "platform/macos/FrameworkValues.h"

#include <utility>

NS_ASSUME_NONNULL_BEGIN

namespace platform::macos {

namespace {

using FrameworkCompletion = void (^)(::NSError* _Nullable error);

// The framework calls back on the main thread; queuing the rest on the
// main queue keeps the adapter's promise that a completion never runs
// inside the call that asked for it. `before` runs first, on the main queue.
FrameworkCompletion onMainQueue(CompletionHandler handler, void (^_Nullable before)(void)) {
    return ^(::NSError* _Nullable error) {
      OptionalError converted = errorFromNSError(error);
      dispatch_async(dispatch_get_main_queue(), ^{
        if (before != nil && !converted) {
            before();
        }
        handler(converted);
      });
    };
}

}  // namespace

MacVPNConnection::MacVPNConnection(::NEVPNManager* manager) : manager_(manager) {}

platform::NEVPNStatus MacVPNConnection::status() const {
    return enumFromFramework<platform::NEVPNStatus>(manager_.connection.status);
}

OptionalError MacVPNConnection::startVPNTunnel(const NEVPNStartOptions& options) {
    @autoreleasepool {
        NSString* username = toNSString(std::string_view(options.username));
        NSString* password = toNSString(options.password);
        if (username == nil || password == nil) {
            return platform::NSError{NEVPNErrorConfigurationInvalid,
                                     "the user name or password is not UTF-8"};
        }
        NSDictionary<NSString*, NSObject*>* startOptions = @{
            NEVPNConnectionStartOptionUsername : username,
            NEVPNConnectionStartOptionPassword : password,
        };
        ::NSError* error = nil;
        if ([manager_.connection startVPNTunnelWithOptions:startOptions andReturnError:&error]) {
            return std::nullopt;
        }
        if (OptionalError converted = errorFromNSError(error)) {
            return converted;
        }
        return platform::NSError{NEVPNErrorConnectionFailed, "the tunnel did not start"};
    }
}

void MacVPNConnection::stopVPNTunnel() {
    [manager_.connection stopVPNTunnel];
}

MacVPNManager::MacVPNManager(::NEVPNManager* manager) : manager_(manager), connection_(manager) {}

void MacVPNManager::loadFromPreferences(CompletionHandler handler) {
    [manager_ loadFromPreferencesWithCompletionHandler:onMainQueue(std::move(handler), ^{
                readFromFramework();
              })];
}

void MacVPNManager::saveToPreferences(CompletionHandler handler) {
    writeToFramework();
    [manager_ saveToPreferencesWithCompletionHandler:onMainQueue(std::move(handler), nil)];
}

void MacVPNManager::removeFromPreferences(CompletionHandler handler) {
    [manager_ removeFromPreferencesWithCompletionHandler:onMainQueue(std::move(handler), nil)];
}

platform::NEVPNConnection* _Nullable MacVPNManager::connection() {
    return manager_.connection != nil ? &connection_ : nullptr;
}

void MacVPNManager::readFromFramework() {
    protocol_ = protocolFromFramework(manager_.protocolConfiguration);
    enabled_ = manager_.enabled;
    localizedDescription_ = fromNSString(manager_.localizedDescription);
}

void MacVPNManager::writeToFramework() {
    manager_.protocolConfiguration = protocol_ ? protocolToFramework(*protocol_) : nil;
    manager_.enabled = enabled_;
    manager_.localizedDescription = toNSString(localizedDescription_);
}

}  // namespace platform::macos

NS_ASSUME_NONNULL_END
