// The process-wide entry points of the NetworkExtension backend: the
// framework's shared manager, its status notifications delivered on the
// main queue, the system log search and the network services.

#import <Foundation/Foundation.h>
#import <NetworkExtension/NetworkExtension.h>

#import "platform/macos/MacVPNManager.h"
#import "platform/macos/NetworkServices.h"

#include "platform/LastDisconnectLog.h"
#include "platform/NEVPN.h"

NS_ASSUME_NONNULL_BEGIN

namespace platform {

namespace {

// NEVPNStatusDidChangeNotification from every VPN connection, as the
// adapter's status notification. Registered once, never removed.
void observeStatusChanges() {
    static id observer =
        [[NSNotificationCenter defaultCenter] addObserverForName:NEVPNStatusDidChangeNotification
                                                          object:nil
                                                           queue:[NSOperationQueue mainQueue]
                                                      usingBlock:^(NSNotification* _Nonnull) {
                                                        postStatusDidChange();
                                                      }];
    (void)observer;
}

}  // namespace

NEVPNManager& NEVPNManager::sharedManager() {
    // Never destroyed: the process may exit from inside a completion.
    static auto* manager = [] {
        observeStatusChanges();
        return new macos::MacVPNManager([::NEVPNManager sharedManager]);
    }();
    return *manager;
}

std::string fetchLastDisconnectError(std::optional<SystemClock::time_point> since) {
    return fetchLastDisconnectErrorWithLogTool(kLogToolPath, since);
}

std::optional<std::vector<NetworkService>> copyAllNetworkServices() {
    return macos::copyNetworkServices();
}

}  // namespace platform

NS_ASSUME_NONNULL_END
