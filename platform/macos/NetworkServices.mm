#import "platform/macos/NetworkServices.h"

#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>

#import "platform/macos/FoundationBridge.h"

NS_ASSUME_NONNULL_BEGIN

namespace platform::macos {

namespace {

std::optional<std::string> fromCFString(CFStringRef _Nullable text) {
    return fromNSString((__bridge NSString*)text);
}

}  // namespace

std::optional<std::vector<NetworkService>> copyNetworkServices() {
    SCPreferencesRef preferences =
        SCPreferencesCreate(kCFAllocatorDefault, (__bridge CFStringRef) @(kVPNProfileName), NULL);
    if (preferences == NULL) {
        return std::nullopt;
    }
    std::optional<std::vector<NetworkService>> services;
    CFArrayRef all = SCNetworkServiceCopyAll(preferences);
    if (all != NULL) {
        services.emplace();
        const CFIndex count = CFArrayGetCount(all);
        for (CFIndex index = 0; index < count; ++index) {
            const auto service =
                static_cast<SCNetworkServiceRef>(CFArrayGetValueAtIndex(all, index));
            SCNetworkInterfaceRef interface = SCNetworkServiceGetInterface(service);
            CFStringRef bsdName =
                interface != NULL ? SCNetworkInterfaceGetBSDName(interface) : NULL;
            services->push_back(
                {fromCFString(SCNetworkServiceGetName(service)), fromCFString(bsdName)});
        }
        CFRelease(all);
    }
    CFRelease(preferences);
    return services;
}

}  // namespace platform::macos

NS_ASSUME_NONNULL_END
