#pragma once

// The adapter's NEVPNProtocolIKEv2 as the framework's object and back.
// Objective-C++, for the backend's .mm files only.

#import <NetworkExtension/NetworkExtension.h>

#include "platform/NEVPN.h"

#include <optional>

NS_ASSUME_NONNULL_BEGIN

namespace platform::macos {

// A new framework object with every field of `protocol` that differs from a
// fresh adapter value; the rest keep the framework's own defaults.
::NEVPNProtocolIKEv2* protocolToFramework(const platform::NEVPNProtocolIKEv2& protocol);

// The fields of a loaded profile; none for nil. A profile of the IPsec
// family that is not IKEv2 gives its common and IPsec fields, the rest at
// their defaults.
std::optional<platform::NEVPNProtocolIKEv2> protocolFromFramework(
    ::NEVPNProtocol* _Nullable protocol);

}  // namespace platform::macos

NS_ASSUME_NONNULL_END
