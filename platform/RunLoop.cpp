// What the run loop does the same on every OS: the signal wake-up (a pipe
// written from the signal handler and read on the loop thread) and runs
// under virtual time. The per-OS files (platform/linux/, platform/macos/)
// turn the loop and watch the pipe.

#include "platform/RunLoop.h"

#include "os/Pipe.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <thread>

namespace platform {

namespace {

// The write end of the signal pipe, read by wakeForSignal from signal
// context; -1 until watchSignals has made the pipe.
volatile int signalWriteFd = -1;

struct SignalWatch {
    int readFd = -1;
    std::function<void(int)> handler;
};

SignalWatch& signalWatch() {
    static SignalWatch* watch = new SignalWatch;
    return *watch;
}

}  // namespace

void RunLoop::watchSignals(std::function<void(int signo)> handler) {
    SignalWatch& watch = signalWatch();
    watch.handler = std::move(handler);
    if (watch.readFd >= 0) {
        return;
    }
    int fds[2];
    if (!os::openWakePipe(fds)) {
        return;
    }
    watch.readFd = fds[0];
    watchReadable(fds[0]);
    signalWriteFd = fds[1];
}

void RunLoop::deliverPendingSignals() {
    SignalWatch& watch = signalWatch();
    if (watch.readFd < 0) {
        return;
    }
    unsigned char signals[64];
    for (;;) {
        const ssize_t n = ::read(watch.readFd, signals, sizeof signals);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        for (ssize_t i = 0; i < n; ++i) {
            if (watch.handler) {
                watch.handler(signals[i]);
            }
        }
    }
}

void RunLoop::runVirtualUntil(Clock::time_point deadline) {
    while (runReady() && Clock::now() < deadline) {
        if (const auto next = VirtualTime::nextDue()) {
            VirtualTime::advanceTo(std::min(*next, deadline));
        } else if (deadline != Clock::time_point::max()) {
            VirtualTime::advanceTo(deadline);
        } else {
            // Nothing will fall due: only another thread or a descriptor can
            // bring work, and that takes real time.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void RunLoop::wakeForSignal(int signo) noexcept {
    const int fd = signalWriteFd;
    if (fd < 0) {
        return;
    }
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signo);
    [[maybe_unused]] const ssize_t written = ::write(fd, &byte, 1);
    errno = savedErrno;
}

}  // namespace platform
