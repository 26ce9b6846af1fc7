#pragma once

// Which network interface holds an address: the tunnel's interface is the
// one that carries its virtual IP (with kernel-libipsec, the TUN device).

#include <optional>
#include <string>
#include <vector>

namespace platform::strongswan {

// The name of the first interface with `address` (IPv4 or IPv6 text), or
// none when no interface has it or the text is not an address.
std::optional<std::string> interfaceForAddress(const std::string& address);

// The first interface holding any of `addresses`.
std::optional<std::string> interfaceForAnyAddress(const std::vector<std::string>& addresses);

}  // namespace platform::strongswan
