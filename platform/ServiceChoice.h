#pragma once

// Which network interface carries the tool's tunnel, chosen among the
// system's network services by the profile's name. Both backends answer
// the same way; they differ only in how they list the services.

#include "platform/NEVPN.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// The interface name of the first service named exactly `serviceName`
// (none when that service's interface has no BSD name), or
// kDefaultTunnelInterface when no service has that name or `services` is
// none. `visit` sees the name of every service walked, up to and including
// the one chosen.
std::optional<std::string> chooseServiceInterface(
    const std::optional<std::vector<NetworkService>>& services, std::string_view serviceName,
    const std::function<void(const std::optional<std::string>& name)>& visit);

}  // namespace platform
