#include "platform/RunLoop.h"

#include <asio/executor_work_guard.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <memory>
#include <optional>

namespace platform {

namespace {

// The write end of the signal pipe, read by wakeForSignal from signal
// context; -1 until watchSignals has made the pipe.
volatile int signalWriteFd = -1;

struct SignalWatch {
    int readFd = -1;
    std::unique_ptr<asio::posix::stream_descriptor> descriptor;
    std::function<void(int)> handler;
};

SignalWatch& signalWatch() {
    static SignalWatch* watch = new SignalWatch;
    return *watch;
}

// Keeps the loop waiting for the end of a slice even when nothing is queued,
// so that slices last as long as they were asked to.
std::optional<asio::executor_work_guard<asio::io_context::executor_type>>& workGuard() {
    static auto* guard =
        new std::optional<asio::executor_work_guard<asio::io_context::executor_type>>;
    return *guard;
}

void armSignalWait(RunLoop& loop) {
    SignalWatch& watch = signalWatch();
    watch.descriptor->async_wait(asio::posix::stream_descriptor::wait_read,
                                 [&loop](const asio::error_code& error) {
                                     if (error) {
                                         return;
                                     }
                                     loop.deliverPendingSignals();
                                     armSignalWait(loop);
                                 });
}

}  // namespace

RunLoop& RunLoop::main() {
    // Never destroyed: exit() may be called from inside one of its handlers.
    static RunLoop* loop = new RunLoop;
    return *loop;
}

RunLoop::RunLoop() {
    workGuard().emplace(asio::make_work_guard(context_));
}

void RunLoop::runUntil(Clock::time_point deadline) {
    context_.restart();
    deliverPendingSignals();
    if (context_.stopped()) {
        return;
    }
    context_.run_until(deadline);
}

void RunLoop::run() {
    context_.restart();
    deliverPendingSignals();
    if (context_.stopped()) {
        return;
    }
    context_.run();
}

void RunLoop::stop() {
    context_.stop();
}

void RunLoop::dispatchAfter(std::chrono::nanoseconds delay, std::function<void()> block) {
    auto timer = std::make_shared<asio::steady_timer>(context_, delay);
    timer->async_wait([timer, block = std::move(block)](const asio::error_code& error) {
        if (!error) {
            block();
        }
    });
}

void RunLoop::post(std::function<void()> block) {
    asio::post(context_, std::move(block));
}

void RunLoop::watchSignals(std::function<void(int signo)> handler) {
    SignalWatch& watch = signalWatch();
    watch.handler = std::move(handler);
    if (watch.readFd >= 0) {
        return;
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    watch.readFd = fds[0];
    // The descriptor object only waits for readability; the bytes are read
    // by deliverPendingSignals, which main also calls between slices.
    watch.descriptor = std::make_unique<asio::posix::stream_descriptor>(context_, ::dup(fds[0]));
    signalWriteFd = fds[1];
    armSignalWait(*this);
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
