#pragma once

// The terminal sink: one line per message on standard error, in the shape
//
//     2024-05-06 13:45:07:123 orvane-ikev2[4242:1234567] IKEv2 Connected
//
// local time with a colon before the truncated milliseconds, the process
// name, the pid, the thread id (decimal, at most 8 characters) and the
// message. Each line (up to PIPE_BUF bytes) goes out in a single write(2),
// so it never mixes with the stdio output of the command-line layer.

#include <spdlog/common.h>

#include <string>

namespace spdlog::details {
struct log_msg;
}

class DDTTYLogger {
  public:
    // Formats one message as the line written to the terminal, newline included.
    static std::string formatLine(const spdlog::details::log_msg& msg);
    // The process name shown on every line.
    static std::string processName();
};
