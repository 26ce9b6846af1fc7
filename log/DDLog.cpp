#include "log/DDLog.h"

#include "log/DDTTYLogger.h"
#include "log/TerminalWriter.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <unistd.h>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>

std::int32_t ddLogLevel = DDLogLevelInfo;

namespace {

// How long a flush waits for a controller that has stopped reading.
constexpr std::chrono::milliseconds kFlushLimit{500};

TerminalWriter& terminal() {
    // Never destroyed: lines logged from atexit handlers still need it.
    static auto* writer = new TerminalWriter(STDERR_FILENO);
    return *writer;
}

// Every message is handed over at the call, on the caller's thread: the
// same bytes in the same order as a queued logger that is drained before
// exit, with nothing to lose when the process ends through exit() from any
// path. A controller that does not read never holds the caller up.
class TerminalSink final : public spdlog::sinks::base_sink<std::mutex> {
  protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        terminal().write(DDTTYLogger::formatLine(msg));
    }
    void flush_() override {}
};

// Deliberately never destroyed: messages logged from atexit handlers or
// static destructors must still find their sink.
spdlog::logger* ttyLogger = nullptr;

spdlog::level::level_enum levelFor(DDLogFlag flag) {
    switch (flag) {
        case DDLogFlagError:
            return spdlog::level::err;
        case DDLogFlagWarning:
            return spdlog::level::warn;
        case DDLogFlagInfo:
            return spdlog::level::info;
        case DDLogFlagDebug:
            return spdlog::level::debug;
        case DDLogFlagVerbose:
            return spdlog::level::trace;
    }
    return spdlog::level::info;
}

void flushAtExit() {
    DDLog::flushLog();
}

}  // namespace

namespace DDLog {

void addTTYLogger() {
    if (ttyLogger != nullptr) {
        return;
    }
    auto sink = std::make_shared<TerminalSink>();
    ttyLogger = new spdlog::logger(DDTTYLogger::processName(), std::move(sink));
    ttyLogger->set_level(spdlog::level::trace);
    std::atexit(flushAtExit);
}

void log(bool asynchronous, std::int32_t level, DDLogFlag flag, int context, const char* file,
         const char* function, int line, const char* tag, std::string_view message) {
    (void)asynchronous;
    (void)level;
    (void)context;
    (void)tag;
    if (ttyLogger == nullptr) {
        return;
    }
    ttyLogger->log(spdlog::source_loc{file, line, function}, levelFor(flag),
                   spdlog::string_view_t(message.data(), message.size()));
}

void flushLog() {
    if (ttyLogger != nullptr) {
        ttyLogger->flush();
    }
    terminal().flush(kFlushLimit);
}

bool writePending() {
    return terminal().writePending();
}

void setReaderGoneHandler(std::function<void()> handler) {
    terminal().setReaderGoneHandler(std::move(handler));
}

}  // namespace DDLog
