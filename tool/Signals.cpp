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

void handle_signal(int signal) {
    DDLogDebug("Received signal {}", signal);
    if (terminated) {
        return;
    }
    if (connector) {
        connector->disconnect();
    }
    terminated = true;
    platform::RunLoop::main().stop();
}

void register_signal_handlers() {
    platform::RunLoop::main().watchSignals(handle_signal);
    struct sigaction action {};
    action.sa_handler = sig_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGUSR1, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}
