#include "tool/Tool.h"

#include "log/DDLog.h"
#include "platform/RunLoop.h"

#include <csignal>

std::shared_ptr<OVConnectorIKEv2> connector;
std::atomic<bool> terminated{false};

static_assert(std::atomic<bool>::is_always_lock_free,
              "terminated must be safe to use from a signal handler");

void sig_handler(int signal) {
    platform::RunLoop::wakeForSignal(signal);
}

namespace tool {

namespace {

bool tunnelDown() {
    platform::NEVPNManager* manager = connector ? connector->vpnManager() : nullptr;
    platform::NEVPNConnection* connection = manager ? manager->connection() : nullptr;
    if (connection == nullptr) {
        return true;
    }
    const platform::NEVPNStatus status = connection->status();
    return status == platform::NEVPNStatusDisconnected || status == platform::NEVPNStatusInvalid;
}

void stopOnceTheTunnelIsDown() {
    if (tunnelDown()) {
        platform::RunLoop::main().stop();
    }
}

}  // namespace

void handle_signal(int signal) {
    DDLogDebug("Received signal {}", signal);
    if (terminated) {
        return;
    }
    if (connector) {
        connector->disconnect();
    }
    terminated = true;
    platform::addStatusObserver(stopOnceTheTunnelIsDown);
    stopOnceTheTunnelIsDown();
}

}  // namespace tool

void register_signal_handlers() {
    platform::RunLoop::main().watchSignals(tool::handle_signal);
    struct sigaction action {};
    action.sa_handler = sig_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGUSR1, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A closed terminal is the controller's end too.
    sigaction(SIGHUP, &action, nullptr);
}
