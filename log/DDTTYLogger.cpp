#include "log/DDTTYLogger.h"

#include "os/Process.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/formatter.h>

#include <fmt/format.h>

#include <unistd.h>
#include <chrono>
#include <ctime>
#include <iterator>

std::string DDTTYLogger::processName() {
    std::string name = os::programName();
    if (name.empty()) {
        return "<UnnamedApp>";
    }
    return name;
}

std::string DDTTYLogger::formatLine(const spdlog::details::log_msg& msg) {
    using namespace std::chrono;
    const auto sinceEpoch = msg.time.time_since_epoch();
    // Truncated, never rounded; the floor keeps pre-1970 times right too.
    const auto wholeSeconds = floor<std::chrono::seconds>(sinceEpoch);
    const auto seconds = static_cast<std::time_t>(wholeSeconds.count());
    const auto millis = duration_cast<milliseconds>(sinceEpoch - wholeSeconds).count();
    std::tm local{};
    localtime_r(&seconds, &local);

    std::string threadId = fmt::format("{}", msg.thread_id);
    if (threadId.size() > 8) {
        threadId.resize(8);
    }
    static const std::string name = processName();
    // Not cached: a forked child must show its own pid.
    const long pid = static_cast<long>(::getpid());

    fmt::memory_buffer out;
    fmt::format_to(std::back_inserter(out), "{:04}-{:02}-{:02} {:02}:{:02}:{:02}:{:03} {}[{}:{}] ",
                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                   local.tm_min, local.tm_sec, millis, name, pid, threadId);
    out.append(msg.payload.data(), msg.payload.data() + msg.payload.size());
    out.push_back('\n');
    return std::string(out.data(), out.size());
}
