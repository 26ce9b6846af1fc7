#include "platform/strongswan/InterfaceLookup.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstring>

namespace platform::strongswan {

std::optional<std::string> interfaceForAddress(const std::string& address) {
    in_addr v4{};
    in6_addr v6{};
    bool isV4 = ::inet_pton(AF_INET, address.c_str(), &v4) == 1;
    bool isV6 = !isV4 && ::inet_pton(AF_INET6, address.c_str(), &v6) == 1;
    if (!isV4 && !isV6) {
        return std::nullopt;
    }
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        return std::nullopt;
    }
    std::optional<std::string> found;
    for (ifaddrs* it = list; it != nullptr && !found; it = it->ifa_next) {
        if (it->ifa_addr == nullptr || it->ifa_name == nullptr) {
            continue;
        }
        if (isV4 && it->ifa_addr->sa_family == AF_INET) {
            const auto* sin = reinterpret_cast<const sockaddr_in*>(it->ifa_addr);
            if (sin->sin_addr.s_addr == v4.s_addr) {
                found = it->ifa_name;
            }
        } else if (isV6 && it->ifa_addr->sa_family == AF_INET6) {
            const auto* sin6 = reinterpret_cast<const sockaddr_in6*>(it->ifa_addr);
            if (std::memcmp(&sin6->sin6_addr, &v6, sizeof(v6)) == 0) {
                found = it->ifa_name;
            }
        }
    }
    ::freeifaddrs(list);
    return found;
}

std::optional<std::string> interfaceForAnyAddress(const std::vector<std::string>& addresses) {
    for (const auto& address : addresses) {
        if (auto name = interfaceForAddress(address)) {
            return name;
        }
    }
    return std::nullopt;
}

}  // namespace platform::strongswan
