#pragma once

// charon's `log` events for the tool's connection, kept from the event
// stream since the tunnel start, and the short reason texts the most recent
// decisive line gives ("authentication failed", "peer not responding", ...).

#include "platform/strongswan/ViciMessage.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

namespace platform::strongswan {

// The reason a single charon log line gives, or none when the line is not
// a decisive failure line.
std::optional<std::string> disconnectReasonForLine(const std::string& message);

// Whether a line says the IKE_SA has gone although charon raises no down
// event for it (setup timeout, DNS failure, key derivation failure).
bool lineEndsSetupSilently(const std::string& message);

// Whether a line says the IKE_SA is up but charon gave up on the tunnel
// (its CHILD_SA) and keeps the IKE_SA without it.
bool lineKeepsIkeSaWithoutTunnel(const std::string& message);

// The backend's own notes (DisconnectLog::note), each with its reason.
inline constexpr const char* kNoteCharonClosed = "charon closed the control connection";
inline constexpr const char* kNoteCharonNotRunning = "charon is not running";
inline constexpr const char* kNoteCharonNotReachable = "charon is not reachable";
inline constexpr const char* kNoteCharonSilent = "charon did not answer";
inline constexpr const char* kNoteCharonRefused = "charon refused the profile";
inline constexpr const char* kNoteNoTunnel = "charon built no tunnel";

class DisconnectLog {
  public:
    using Clock = std::chrono::system_clock;
    static constexpr std::size_t kMaxLines = 512;

    explicit DisconnectLog(std::string connection);

    // Keeps a `log` event when it belongs to the connection (or to no IKE_SA
    // at all, as DNS failures do). Returns whether it was kept.
    bool add(const ViciSection& event, Clock::time_point when = Clock::now());
    // A line of the backend's own (for instance the daemon going away).
    void note(const std::string& message, Clock::time_point when = Clock::now());
    void clear();
    std::size_t size() const { return lines_.size(); }

    // The reason of the most recent decisive line at or after `since`, or
    // the empty string.
    std::string lastReason(std::optional<Clock::time_point> since) const;

  private:
    struct Line {
        Clock::time_point when;
        std::string message;
    };
    std::string connection_;
    std::deque<Line> lines_;
};

}  // namespace platform::strongswan
