#include "tool/Tool.h"

#include "log/DDLog.h"
#include "platform/NEVPN.h"
#include "platform/RunLoop.h"

using namespace platform;

namespace tool {

void run_remove_mode(const Finish& finish) {
    const auto done = [finish](int status) {
        finish(status);
        RunLoop::main().stop();
    };
    NEVPNManager& manager = NEVPNManager::sharedManager();
    manager.loadFromPreferences([&manager, done](const OptionalError& loadError) {
        if (loadError) {
            DDLogError("IKEv2 Error loading configurations: {}", loadError->description);
            done(1);
            return;
        }
        if (!manager.protocolConfiguration()) {
            done(0);
            return;
        }
        manager.removeFromPreferences([done](const OptionalError& removeError) {
            if (removeError) {
                DDLogError("IKEv2 Error removing configurations: {}", removeError->description);
            }
            done(removeError ? 1 : 0);
        });
    });
    RunLoop::main().run();
}

}  // namespace tool
