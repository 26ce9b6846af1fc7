#pragma once

// A dbus-daemon of the test's own, in place of the system bus: it listens
// on a socket in a temporary folder and lets any client own any name and
// send anything, so a stand-in can take logind's name. Stopped by its PID,
// and its folder removed, when the object goes.

#include <sys/types.h>

#include <string>

namespace logind {

class PrivateBus {
  public:
    PrivateBus() = default;
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // Whether dbus-daemon is installed.
    static bool available();
    // Starts the daemon and waits (at most 5 s) until its socket accepts.
    bool start(std::string& error);
    // The bus's D-Bus address ("unix:path=...").
    std::string address() const { return "unix:path=" + socket_; }

  private:
    std::string directory_;
    std::string socket_;
    pid_t pid_ = -1;
};

}  // namespace logind
