#pragma once

// The levelled log: a global mask `ddLogLevel`, five flags, and call-site
// macros that test the flag against the mask before the message is
// formatted. Messages go to the terminal sink (standard error, one line per
// message). Error messages are written before the call returns; the others
// may be queued, but everything queued is written before the process ends
// through `exit` or a return from `main`.
//
//     DDLogInfo("IKEv2 Interface {}", name);

#include <fmt/format.h>

#include <cstdint>
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

// Writes out everything queued so far and waits until it is written.
void flushLog();

}  // namespace DDLog

#define ORVANE_LOG_MAYBE(async, flag, ...)                                                     \
    do {                                                                                       \
        if ((ddLogLevel & (flag)) != 0) {                                                      \
            ::DDLog::log((async), ddLogLevel, (flag), 0, __FILE__, __func__, __LINE__, nullptr, \
                         ::fmt::format(__VA_ARGS__));                                          \
        }                                                                                      \
    } while (0)

#define DDLogError(...) ORVANE_LOG_MAYBE(false, DDLogFlagError, __VA_ARGS__)
#define DDLogWarn(...) ORVANE_LOG_MAYBE(true, DDLogFlagWarning, __VA_ARGS__)
#define DDLogInfo(...) ORVANE_LOG_MAYBE(true, DDLogFlagInfo, __VA_ARGS__)
#define DDLogDebug(...) ORVANE_LOG_MAYBE(true, DDLogFlagDebug, __VA_ARGS__)
#define DDLogVerbose(...) ORVANE_LOG_MAYBE(true, DDLogFlagVerbose, __VA_ARGS__)
