#pragma once

// The system's network services through SystemConfiguration. Objective-C++,
// for the backend's .mm files only.

#include "platform/NEVPN.h"

#include <optional>
#include <vector>

namespace platform::macos {

// Every network service with its name and its interface's BSD name, in the
// system's order, read through preferences opened under the profile's
// name; none when the preferences cannot be opened or the services read.
std::optional<std::vector<NetworkService>> copyNetworkServices();

}  // namespace platform::macos
