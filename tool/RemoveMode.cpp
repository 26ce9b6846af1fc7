#include "tool/Tool.h"

#include "log/DDLog.h"
#include "platform/NEVPN.h"
#include "platform/RunLoop.h"

#include <cstdlib>

using namespace platform;

void run_remove_mode() {
    NEVPNManager& manager = NEVPNManager::sharedManager();
    manager.loadFromPreferences([&manager](const OptionalError& loadError) {
        if (loadError) {
            DDLogError("IKEv2 Error loading configurations: {}", loadError->description);
            std::exit(1);
        }
        if (!manager.protocolConfiguration()) {
            std::exit(0);
        }
        manager.removeFromPreferences([](const OptionalError& removeError) {
            if (!removeError) {
                std::exit(0);
            }
            DDLogError("IKEv2 Error removing configurations: {}", removeError->description);
            std::exit(1);
        });
    });
    RunLoop::main().run();
}
