#include "log/DDLog.h"

#include "log/DDTTYLogger.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>

std::int32_t ddLogLevel = DDLogLevelInfo;

namespace {

// Every message is written at the call, on the caller's thread: the same
// bytes in the same order as a queued logger that is drained before exit,
// with nothing to lose when the process ends through exit() from any path.
class TerminalSink final : public spdlog::sinks::base_sink<std::mutex> {
  protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        const std::string line = DDTTYLogger::formatLine(msg);
        const int savedErrno = errno;
        const char* data = line.data();
        std::size_t left = line.size();
        while (left > 0) {
            const ssize_t written = ::write(STDERR_FILENO, data, left);
            if (written < 0) {
                if (errno == EINTR) {
                    continue;
                }
                break;
            }
            data += written;
            left -= static_cast<std::size_t>(written);
        }
        errno = savedErrno;
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
}

}  // namespace DDLog
