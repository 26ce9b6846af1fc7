#pragma once

// The last disconnect reason as the system log holds it. The VPN service
// logs "Last disconnect error ... changed from "<old>" to "<new>"" when a
// tunnel goes down; the log tool is asked for those lines since the tunnel
// start, and the most recent one gives the reason.
//
// Plain C++, so that the Linux tests run it against a fake log tool.

#include "platform/NEVPN.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Where the system keeps its log tool.
inline constexpr const char* kLogToolPath = "/usr/bin/log";

// The log tool's arguments for the lines logged since `since`: "show",
// "--start", "@<Unix seconds>" (truncated toward zero; none gives @0), the
// predicate, and compact style without colour.
std::vector<std::string> lastDisconnectLogArguments(std::optional<SystemClock::time_point> since);

// The reason the log tool's output gives: the value after "to" on the last
// non-empty line that matches, where "none" means no reason. The empty
// string when no line matches or the output is not UTF-8.
std::string lastDisconnectErrorFromLogOutput(std::string_view output);

// Runs the log tool at `toolPath` with those arguments (standard input and
// error inherited), reads its standard output to the end, waits for it and
// returns the reason the output gives. The empty string when there is no
// file at `toolPath` or the tool cannot be started; its exit status is not
// looked at. Blocks until the tool has ended.
std::string fetchLastDisconnectErrorWithLogTool(const std::string& toolPath,
                                                std::optional<SystemClock::time_point> since);

}  // namespace platform
