// The process-wide entry points of the strongSwan backend: one manager on
// the main run loop, with charon's default socket and the default
// preferences file, notifying the status observers and watching for sleep
// on the system bus.

#include "platform/NEVPN.h"
#include "platform/linux/IoContext.h"
#include "platform/strongswan/StrongSwanManager.h"

#include <cstdlib>

namespace platform {

namespace {

strongswan::StrongSwanManager& shared();

void finishAtExit() {
    shared().finish();
}

strongswan::StrongSwanManager& shared() {
    // Never destroyed: the process may exit from inside a run-loop handler,
    // and the manager's sockets live on that loop. Whatever way the process
    // ends through exit(), what it left in charon goes first.
    static auto* manager = [] {
        strongswan::StrongSwanOptions options;
        options.statusChanged = [] { postStatusDidChange(); };
        options.sleep.bus = strongswan::kSystemBus;
        auto* created = new strongswan::StrongSwanManager(mainIoContext(), std::move(options));
        std::atexit(finishAtExit);
        return created;
    }();
    return *manager;
}

}  // namespace

NEVPNManager& NEVPNManager::sharedManager() {
    return shared();
}

std::string fetchLastDisconnectError(std::optional<SystemClock::time_point> since) {
    return shared().lastDisconnectError(since);
}

std::optional<std::vector<NetworkService>> copyAllNetworkServices() {
    return shared().networkServices();
}

}  // namespace platform
