#include "platform/LastDisconnectLog.h"

#include "platform/Utf8.h"

#include <re2/re2.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>

extern char** environ;

namespace platform {

namespace {

constexpr const char* kPredicate =
    R"(subsystem == "com.apple.networkextension" and eventMessage contains "Last disconnect error")";

// "changed from "(.*)" to "(.*)"", greedy, with `.` spelled out: the
// system's regular expressions stop `.` at every line terminator (LF, VT,
// FF, CR, NEL, LS, PS), RE2's only at LF.
constexpr const char* kChangedPattern =
    R"re(changed from "([^\n\x{0B}\x{0C}\r\x{85}\x{2028}\x{2029}]*)" to )re"
    R"re("([^\n\x{0B}\x{0C}\r\x{85}\x{2028}\x{2029}]*)")re";

std::string startTime(std::optional<SystemClock::time_point> since) {
    std::int64_t seconds = 0;
    if (since) {
        seconds =
            std::chrono::duration_cast<std::chrono::seconds>(since->time_since_epoch()).count();
    }
    // A 32-bit signed number of seconds, saturated rather than wrapped.
    constexpr std::int64_t kMin = std::numeric_limits<std::int32_t>::min();
    constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
    seconds = seconds < kMin ? kMin : seconds > kMax ? kMax : seconds;
    return "@" + std::to_string(seconds);
}

bool closeOnExec(int fd) {
    return ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

// Reads `fd` to its end; a read error ends the output where it happened.
std::string readToEnd(int fd) {
    std::string output;
    std::array<char, 16384> buffer;
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n > 0) {
            output.append(buffer.data(), static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            return output;
        }
    }
}

}  // namespace

std::vector<std::string> lastDisconnectLogArguments(std::optional<SystemClock::time_point> since) {
    return {"show",    "--start", startTime(since), "--predicate", kPredicate,
            "--style", "compact", "--color",        "none"};
}

std::string lastDisconnectErrorFromLogOutput(std::string_view output) {
    if (!isValidUTF8(output)) {
        return "";
    }
    static const RE2 pattern(kChangedPattern);
    std::size_t end = output.size();
    for (;;) {
        const std::size_t newline = end == 0 ? std::string_view::npos : output.rfind('\n', end - 1);
        const std::size_t begin = newline == std::string_view::npos ? 0 : newline + 1;
        const std::string_view line = output.substr(begin, end - begin);
        re2::StringPiece reason;
        if (!line.empty() && RE2::PartialMatch(re2::StringPiece(line.data(), line.size()), pattern,
                                               nullptr, &reason)) {
            return reason == "none" ? "" : std::string(reason.data(), reason.size());
        }
        if (newline == std::string_view::npos) {
            return "";
        }
        end = newline;
    }
}

std::string fetchLastDisconnectErrorWithLogTool(const std::string& toolPath,
                                                std::optional<SystemClock::time_point> since) {
    struct stat info {};
    if (::stat(toolPath.c_str(), &info) != 0) {
        return "";
    }
    std::vector<std::string> arguments = lastDisconnectLogArguments(since);
    arguments.insert(arguments.begin(), toolPath);
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    int fds[2];
    if (::pipe(fds) != 0) {
        return "";
    }
    const int readEnd = fds[0];
    const int writeEnd = fds[1];
    // Neither end may leak into other children; the child gets the write end
    // as its standard output, which dup2 leaves open across exec.
    posix_spawn_file_actions_t actions;
    pid_t pid = -1;
    int spawned = -1;
    if (closeOnExec(readEnd) && closeOnExec(writeEnd) &&
        ::posix_spawn_file_actions_init(&actions) == 0) {
        if (::posix_spawn_file_actions_adddup2(&actions, writeEnd, STDOUT_FILENO) == 0) {
            spawned =
                ::posix_spawn(&pid, toolPath.c_str(), &actions, nullptr, argv.data(), environ);
        }
        ::posix_spawn_file_actions_destroy(&actions);
    }
    ::close(writeEnd);
    if (spawned != 0) {
        ::close(readEnd);
        return "";
    }
    // Read before waiting: a tool that writes more than the pipe holds would
    // otherwise never end.
    const std::string output = readToEnd(readEnd);
    ::close(readEnd);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return lastDisconnectErrorFromLogOutput(output);
}

}  // namespace platform
