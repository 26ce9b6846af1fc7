#pragma once

// A stand-in for systemd-logind on a test's own bus: it owns
// org.freedesktop.login1, answers Manager.Inhibit with the write end of a
// pipe whose read end it watches (so it sees the lock released when every
// copy of that end is closed, as logind does with its FIFO), and emits
// PrepareForSleep on request. It runs on a thread of its own, so the code
// under test can turn its own loop meanwhile.

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace logind {

struct Inhibitor {
    std::string what;
    std::string who;
    std::string why;
    std::string mode;
};

class LogindStandIn {
  public:
    using Clock = std::chrono::system_clock;
    // Every event as one line: "inhibit what=... who=... why=... mode=...",
    // "released", "prepare-for-sleep true|false". Called on the stand-in's
    // thread.
    using Listener = std::function<void(const std::string& line)>;

    // `address`: a D-Bus address, or empty for the system bus.
    explicit LogindStandIn(std::string address, Listener listener = {});
    ~LogindStandIn();
    LogindStandIn(const LogindStandIn&) = delete;
    LogindStandIn& operator=(const LogindStandIn&) = delete;

    // Connects, takes the name and starts answering.
    bool start(std::string& error);
    // Emits PrepareForSleep(`start`); callable from any thread.
    void prepareForSleep(bool start);

    std::vector<Inhibitor> inhibitors();
    // Locks handed out and still held by a client, and locks released.
    int held();
    int released();
    // Waits (in real time, checking every few milliseconds) until `done`
    // holds.
    bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit);

  private:
    void run();
    void emitPending();
    void watchLocks(std::vector<int>& fds);
    void event(const std::string& line);
    static int onCall(sd_bus_message* call, void* userdata, sd_bus_error* error);

    std::string address_;
    Listener listener_;
    sd_bus* bus_ = nullptr;
    sd_bus_slot* object_ = nullptr;
    int wakeFd_ = -1;
    std::thread thread_;
    std::mutex mutex_;
    bool stopping_ = false;
    std::vector<bool> pendingSignals_;
    std::vector<Inhibitor> inhibitors_;
    std::vector<int> lockFds_;  // read ends still watched
    int released_ = 0;
};

}  // namespace logind
