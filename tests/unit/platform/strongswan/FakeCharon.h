#pragma once

// A small in-process VICI server on a temporary Unix socket: real socket,
// real frames. It answers like charon (event registration, unknown
// commands, one answer per request in order) and lets each test script the
// commands it cares about, emit events and send raw bytes. Every packet it
// receives is recorded.

#include "platform/strongswan/ViciMessage.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace fakecharon {

using platform::strongswan::ViciPacket;
using platform::strongswan::ViciPacketType;
using platform::strongswan::ViciSection;

class FakeCharon;

// One accepted client connection, as a command handler sees it.
class Link {
  public:
    int index() const { return index_; }
    void respond(const ViciSection& message);
    void unknown();
    // Sends an EVENT on this connection (as charon streams list-sa).
    void event(const std::string& name, const ViciSection& message);
    void raw(const std::string& bytes);
    bool registered(const std::string& event);
    // Closes the connection from the server side (EOF for the client).
    void hangUp();

  private:
    friend class FakeCharon;
    int fd_ = -1;
    int index_ = 0;
    std::mutex mutex_;
    std::set<std::string> events_;
    std::thread reader_;
};

struct Received {
    int connection = 0;
    ViciPacket packet;
};

class FakeCharon {
  public:
    using Command = std::function<void(Link& link, const ViciSection& request)>;

    FakeCharon();
    ~FakeCharon();
    FakeCharon(const FakeCharon&) = delete;
    FakeCharon& operator=(const FakeCharon&) = delete;

    const std::string& path() const { return path_; }
    const std::string& directory() const { return directory_; }

    // Scripts a command; commands without a script answer CMD_UNKNOWN.
    void on(const std::string& command, Command handler);
    // A command that answers `success = yes`.
    void succeed(const std::string& command);
    // Event names the server knows (registering others answers EVENT_UNKNOWN).
    void knowEvents(std::set<std::string> events);

    // Sends an EVENT to every connection registered for `name`.
    void emit(const std::string& name, const ViciSection& message);
    void hangUpAll();
    // Stops listening and removes the socket: the daemon is gone.
    void shutdown();

    std::vector<Received> received();
    std::vector<ViciPacket> requests(const std::string& command);
    int connections();
    // Waits (in real time, without turning any io_context) for `done`.
    bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit);

  private:
    void acceptLoop();
    void readLoop(Link* link);
    void dispatch(Link& link, const ViciPacket& packet);

    std::string directory_;
    std::string path_;
    int listenFd_ = -1;
    std::thread acceptor_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Command> commands_;
    std::set<std::string> knownEvents_;
    std::vector<std::unique_ptr<Link>> links_;
    std::vector<Received> received_;
    bool stopping_ = false;
};

// Builders for the event payloads charon sends.
ViciSection ikeSa(const std::string& state, const std::vector<std::string>& localVips = {});
ViciSection updown(const std::string& conn, bool up, const std::string& state,
                   const std::vector<std::string>& localVips = {}, bool withChild = false);
ViciSection logLine(const std::string& msg, const std::string& ikesa = "Orvane IKEv2",
                    const std::string& group = "IKE");

}  // namespace fakecharon
