#include "tool/Tool.h"

#include "log/DDLog.h"
#include "platform/RunLoop.h"

#include <chrono>

int main(int argc, char** argv) {
    tool::make_standard_descriptors_valid();
    tool::watch_controller();
    DDLog::addTTYLogger();

    // Every way out of the process below goes through finishProcess.
    const cli::GBSettingsRef settings = parse_args(argc, argv, finishProcess);
    if (settings->boolForKey("verbose")) {
        ddLogLevel = DDLogLevelVerbose;
    }
    if (settings->boolForKey("remove")) {
        tool::run_remove_mode(finishProcess);
    }
    register_signal_handlers();

    const tool::RunMode mode = tool::run_mode(*settings);
    connector = tool::build_connector(*settings, mode, finishProcess);
    connector->setFinish(finishProcess);
    connector->setCheckOnly(mode.checkOnly);
    connector->setCreateOnly(mode.createOnly);
    connector->connect();

    // A signal taken while connect ran is acted on here, before any other
    // work of the run loop, so that the wait loop below does not start.
    auto& loop = platform::RunLoop::main();
    loop.deliverPendingSignals();
    while (!terminated) {
        loop.runUntil(platform::RunLoop::Clock::now() + tool::kRunLoopSlice);
        tool::tend_controller();
    }
    return 0;
}
