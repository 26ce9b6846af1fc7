#include "tool/Tool.h"

#include "log/DDLog.h"
#include "platform/RunLoop.h"

#include <chrono>

int main(int argc, char** argv) {
    make_standard_descriptors_valid();
    watch_controller();
    DDLog::addTTYLogger();

    const cli::GBSettingsRef settings = parse_args(argc, argv);
    if (settings->boolForKey("verbose")) {
        ddLogLevel = DDLogLevelVerbose;
    }
    if (settings->boolForKey("remove")) {
        run_remove_mode();
    }
    register_signal_handlers();

    const RunMode mode = run_mode(*settings);
    connector = build_connector(*settings, mode);
    connector->setCheckOnly(mode.checkOnly);
    connector->setCreateOnly(mode.createOnly);
    connector->connect();

    // A signal taken while connect ran is acted on here, before any other
    // work of the run loop, so that the wait loop below does not start.
    auto& loop = platform::RunLoop::main();
    loop.deliverPendingSignals();
    while (!terminated) {
        loop.runUntil(platform::RunLoop::Clock::now() + std::chrono::milliseconds(500));
        tend_controller();
    }
    return 0;
}
