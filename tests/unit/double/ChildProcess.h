#pragma once

// Runs a piece of test code in a forked child with its standard error (and
// standard output) captured, so that tests can watch a path that ends the
// process with exit() and read exactly what it wrote.

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace testing_support {

struct ChildResult {
    // The exit status, or -1 when the child did not exit normally.
    int exitStatus = -1;
    int termSignal = 0;
    std::string err;
    std::string out;
};

inline std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            text.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            break;
        }
    }
    return text;
}

// Calls `body` in a child process. A body that returns makes the child exit
// with status 0 (through exit(), so atexit handlers run). `beforeFork` and
// `inChild` let callers prepare state that does not survive a fork.
inline ChildResult runInChild(const std::function<void()>& body,
                              const std::function<void()>& beforeFork = {},
                              const std::function<void()>& inChild = {},
                              const std::function<void()>& afterFork = {}) {
    int errPipe[2];
    int outPipe[2];
    if (::pipe(errPipe) != 0 || ::pipe(outPipe) != 0) {
        std::abort();
    }
    std::fflush(nullptr);
    if (beforeFork) {
        beforeFork();
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(errPipe[1], STDERR_FILENO);
        ::dup2(outPipe[1], STDOUT_FILENO);
        ::close(errPipe[0]);
        ::close(errPipe[1]);
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        if (inChild) {
            inChild();
        }
        body();
        std::exit(0);
    }
    if (afterFork) {
        afterFork();
    }
    ::close(errPipe[1]);
    ::close(outPipe[1]);
    ChildResult result;
    // Standard output of these children is small; drain stderr first.
    result.err = readAll(errPipe[0]);
    result.out = readAll(outPipe[0]);
    ::close(errPipe[0]);
    ::close(outPipe[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.termSignal = WTERMSIG(status);
    }
    return result;
}

// Splits text into lines without their line feeds; a trailing line feed
// does not make an empty last line.
inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            result.push_back(text.substr(start));
            break;
        }
        result.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return result;
}

// The message part of log lines (after "name[pid:tid] "); lines that are
// not log lines are kept whole.
inline std::vector<std::string> messages(const std::string& text) {
    std::vector<std::string> result;
    for (const std::string& line : lines(text)) {
        const std::size_t close = line.find("] ");
        const bool logLine =
            line.size() > 24 && line[4] == '-' && line[19] == ':' && close != std::string::npos;
        result.push_back(logLine ? line.substr(close + 2) : line);
    }
    return result;
}

}  // namespace testing_support

namespace testing_support {

// Sends everything written to file descriptor 2 to a temporary file until
// text() is called, so in-process tests can read the log lines.
class StderrCapture {
  public:
    StderrCapture() {
        std::fflush(stderr);
        saved_ = ::dup(STDERR_FILENO);
        std::FILE* file = std::tmpfile();
        fd_ = ::dup(::fileno(file));
        std::fclose(file);
        ::dup2(fd_, STDERR_FILENO);
    }
    ~StderrCapture() {
        restore();
        ::close(fd_);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // What was written so far; keeps capturing.
    std::string text() const {
        std::string content;
        char buffer[4096];
        off_t offset = 0;
        for (;;) {
            const ssize_t n = ::pread(fd_, buffer, sizeof buffer, offset);
            if (n <= 0) {
                break;
            }
            content.append(buffer, static_cast<std::size_t>(n));
            offset += n;
        }
        return content;
    }
    std::vector<std::string> messages() const { return testing_support::messages(text()); }

    void restore() {
        if (saved_ >= 0) {
            std::fflush(stderr);
            ::dup2(saved_, STDERR_FILENO);
            ::close(saved_);
            saved_ = -1;
        }
    }

  private:
    int saved_ = -1;
    int fd_ = -1;
};

}  // namespace testing_support
