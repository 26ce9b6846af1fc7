#include "log/TerminalWriter.h"

#include "os/Poll.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

TerminalWriter::TerminalWriter(int fd) : fd_(fd) {}

TerminalWriter::Progress TerminalWriter::drain() {
    while (!pending_.empty() && !gone_) {
        // A pipe that is not full takes a write of up to PIPE_BUF bytes
        // whole, so a blocking descriptor does not block here.
        pollfd ready{fd_, POLLOUT, 0};
        const int polled = ::poll(&ready, 1, 0);
        if (polled < 0 && errno == EINTR) {
            continue;
        }
        if (polled == 0) {
            return Progress::Blocked;
        }
        if (polled < 0 || (ready.revents & POLLNVAL) != 0) {
            pending_.clear();  // nowhere to write
            break;
        }
        const std::size_t chunk = std::min<std::size_t>(pending_.size(), PIPE_BUF);
        const ssize_t written = ::write(fd_, pending_.data(), chunk);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                return Progress::Blocked;
            }
            if (errno == EPIPE) {
                gone_ = true;
            }
            pending_.clear();
            break;
        }
        pending_.erase(0, static_cast<std::size_t>(written));
    }
    return gone_ ? Progress::Gone : Progress::Done;
}

std::function<void()> TerminalWriter::goneHandlerFor(Progress progress) {
    if (progress != Progress::Gone || goneReported_ || !readerGoneHandler_) {
        return {};
    }
    goneReported_ = true;
    return readerGoneHandler_;
}

void TerminalWriter::write(std::string_view line) {
    const int savedErrno = errno;
    std::function<void()> then;
    {
        std::lock_guard lock(mutex_);
        if (gone_ || pending_.size() + line.size() > kPendingLimit) {
            errno = savedErrno;
            return;
        }
        pending_.append(line);
        then = goneHandlerFor(drain());
    }
    if (then) {
        then();
    }
    errno = savedErrno;
}

bool TerminalWriter::writePending() {
    std::function<void()> then;
    bool empty = false;
    {
        std::lock_guard lock(mutex_);
        then = goneHandlerFor(drain());
        empty = pending_.empty();
    }
    if (then) {
        then();
    }
    return empty;
}

void TerminalWriter::flush(std::chrono::milliseconds limit) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + limit;
    std::lock_guard lock(mutex_);
    while (drain() == Progress::Blocked) {
        const auto now = Clock::now();
        if (now >= deadline) {
            return;
        }
        pollfd ready{fd_, POLLOUT, 0};
        os::pollFor(ready, deadline - now);
    }
}

void TerminalWriter::setReaderGoneHandler(std::function<void()> handler) {
    std::function<void()> then;
    {
        std::lock_guard lock(mutex_);
        readerGoneHandler_ = std::move(handler);
        if (gone_) {
            then = goneHandlerFor(Progress::Gone);
        }
    }
    if (then) {
        then();
    }
}

bool TerminalWriter::readerGone() const {
    std::lock_guard lock(mutex_);
    return gone_;
}
