#pragma once

// Writes the log's lines to standard error without ever blocking the caller.
//
// The process that reads standard error (the controller) may be slow, may
// stop reading, or may be gone. A line the terminal cannot take at once
// waits in memory, in order and up to a bound, until a later write or
// writePending() finds the terminal writable again. A write that finds the
// reader gone (EPIPE) drops what waits and reports it once. Lines of up to
// PIPE_BUF bytes go out in one write(2) each.

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

class TerminalWriter {
  public:
    // What waits is bounded; lines beyond it are dropped.
    static constexpr std::size_t kPendingLimit = 1024 * 1024;

    explicit TerminalWriter(int fd);

    // Writes what the terminal takes now and keeps the rest.
    void write(std::string_view line);
    // Goes on with what waits; true when nothing is left.
    bool writePending();
    // Waits until everything is written, the reader is gone, or `limit` has
    // passed.
    void flush(std::chrono::milliseconds limit);

    // Called once when the reader is found gone; at once if it already is.
    void setReaderGoneHandler(std::function<void()> handler);
    bool readerGone() const;

  private:
    enum class Progress { Done, Blocked, Gone };
    // Writes from the front of what waits; called with the lock held.
    Progress drain();
    // The reader-gone handler, once, when a drain found the reader gone; it
    // runs after the lock is released.
    std::function<void()> goneHandlerFor(Progress progress);

    const int fd_;
    mutable std::mutex mutex_;
    std::string pending_;
    bool gone_ = false;
    bool goneReported_ = false;
    std::function<void()> readerGoneHandler_;
};
