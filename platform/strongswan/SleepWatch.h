#pragma once

// Disconnect on sleep, the way desktop Linux does it: through
// systemd-logind on the system D-Bus. While the watch runs it holds a
// logind "delay" inhibitor lock for sleep and listens for
// PrepareForSleep; PrepareForSleep(true) calls the sleep handler, which is
// expected to stop the tunnel and then `end()` the watch, so the machine
// sleeps without waiting out logind's delay. Should the handler not end it,
// the lock is released after `releaseLimit` all the same.
//
// The bus connection (sd-bus) runs on the caller's io_context: its socket
// is watched with async_wait and its timeouts run on a steady_timer (the
// release limit on the loop's clock); no thread of its own. Without a system bus or without logind
// (a server, a container) the watch does nothing and says so at debug level only.

#include <asio/io_context.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace platform::strongswan {

// The system bus, found as every sd-bus client finds it.
inline constexpr const char* kSystemBus = "system";

// What the backend notes in its disconnect log when it stops the tunnel for
// sleep; the log turns it into the reason "system going to sleep".
inline constexpr const char* kSleepNote = "logind: system going to sleep";

struct SleepOptions {
    // kSystemBus, another D-Bus address ("unix:path=..."), or empty: sleep
    // is not watched.
    std::string bus;
    // How long the server gets to acknowledge the tunnel's DELETE before
    // charon ends the tunnel without the acknowledgement.
    std::chrono::milliseconds acknowledgeWait{1000};
    // The lock is released at the latest this long after PrepareForSleep.
    std::chrono::milliseconds releaseLimit{3000};
};

class SleepWatch {
  public:
    SleepWatch(asio::io_context& context, const SleepOptions& options,
               std::function<void()> onSleep);
    ~SleepWatch();
    SleepWatch(const SleepWatch&) = delete;
    SleepWatch& operator=(const SleepWatch&) = delete;

    // Connects to the bus, subscribes to PrepareForSleep and asks logind for
    // the lock, all without blocking. Nothing when already watching or when
    // no bus is configured.
    void begin();
    // Releases the lock and closes the bus connection.
    void end();

    // A bus connection is open (the lock may still be on its way).
    bool watching() const;
    // logind granted the lock and it is still held.
    bool holdsLock() const;

  private:
    struct Connection;
    void sleepAnnounced();

    asio::io_context& context_;
    const SleepOptions& options_;
    std::function<void()> onSleep_;
    std::shared_ptr<Connection> connection_;
};

}  // namespace platform::strongswan
