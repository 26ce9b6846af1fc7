#include "platform/ServiceChoice.h"

namespace platform {

std::optional<std::string> chooseServiceInterface(
    const std::optional<std::vector<NetworkService>>& services, std::string_view serviceName,
    const std::function<void(const std::optional<std::string>& name)>& visit) {
    if (services) {
        for (const NetworkService& service : *services) {
            visit(service.name);
            if (service.name == serviceName) {
                return service.interfaceName;
            }
        }
    }
    return std::string(kDefaultTunnelInterface);
}

}  // namespace platform
