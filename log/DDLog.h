#pragma once

// The levelled log: a global mask `ddLogLevel`, five flags, and call-site
// macros that test the flag against the mask before the message is
// formatted. Messages go to the terminal sink (standard error, one line per
// message). Every message is written before the call returns, unless the
// reader of standard error has stopped reading (see writePending); what
// waits then is written before the process ends through `exit` or a return
// from `main`, for as long as flushLog() waits.
//
//     DDLogInfo("IKEv2 Interface {}", name);

#include <fmt/format.h>

#include <cstdint>
#include <functional>
#include <string_view>

// The mask of enabled flags: 7 (error, warning, info) at start, 31 with
// --verbose.
extern std::int32_t ddLogLevel;

enum DDLogFlag : std::int32_t {
    DDLogFlagError = 1,
    DDLogFlagWarning = 2,
    DDLogFlagInfo = 4,
    DDLogFlagDebug = 8,
    DDLogFlagVerbose = 16,
};

enum DDLogLevel : std::int32_t {
    DDLogLevelOff = 0,
    DDLogLevelError = 1,
    DDLogLevelWarning = 3,
    DDLogLevelInfo = 7,
    DDLogLevelDebug = 15,
    DDLogLevelVerbose = 31,
};

namespace DDLog {

// Adds the terminal sink (DDTTYLogger); until then messages are dropped.
void addTTYLogger();

// The facade's one log call. `message` is already formatted.
void log(bool asynchronous, std::int32_t level, DDLogFlag flag, int context, const char* file,
         const char* function, int line, const char* tag, std::string_view message);

// Writes out everything queued so far and waits until it is written, or
// for at most half a second when the terminal's reader does not read.
void flushLog();

// A controller that reads standard error slowly, or not at all, never holds
// the caller of a log call up: lines it cannot take at once wait in memory
// (in order, bounded) until a later log call, writePending() or flushLog()
// (which runs at exit) finds standard error writable again.
// Writes what waits; true when nothing is left.
bool writePending();
// Called once when a write finds that standard error's reader is gone
// (EPIPE; SIGPIPE must be ignored); at once if that already happened.
void setReaderGoneHandler(std::function<void()> handler);

}  // namespace DDLog

#define ORVANE_LOG_MAYBE(async, flag, ...)                                                      \
    do {                                                                                        \
        if ((ddLogLevel & (flag)) != 0) {                                                       \
            ::DDLog::log((async), ddLogLevel, (flag), 0, __FILE__, __func__, __LINE__, nullptr, \
                         ::fmt::format(__VA_ARGS__));                                           \
        }                                                                                       \
    } while (0)

#define DDLogError(...) ORVANE_LOG_MAYBE(false, DDLogFlagError, __VA_ARGS__)
#define DDLogWarn(...) ORVANE_LOG_MAYBE(true, DDLogFlagWarning, __VA_ARGS__)
#define DDLogInfo(...) ORVANE_LOG_MAYBE(true, DDLogFlagInfo, __VA_ARGS__)
#define DDLogDebug(...) ORVANE_LOG_MAYBE(true, DDLogFlagDebug, __VA_ARGS__)
#define DDLogVerbose(...) ORVANE_LOG_MAYBE(true, DDLogFlagVerbose, __VA_ARGS__)
