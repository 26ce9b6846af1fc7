#pragma once

// Clients of charon's VICI socket.
//
// ViciClient is asynchronous, on an asio::io_context: one request at a time
// on the connection (charon answers in order and has no request ids, so
// later requests wait in a queue), events dispatched as they arrive, also
// between a request and its answer. Every handler runs on the io_context,
// never inside the call that asked for it.
//
// ViciSyncClient is a blocking connection of its own for the few calls that
// must have gone out (or come back) before the caller returns; every wait
// on it is bounded.
//
// Timeouts and deadlines are on the loop's clock (platform/LoopClock.h).

#include "os/Memory.h"
#include "platform/LoopClock.h"
#include "platform/linux/LoopTimer.h"
#include "platform/strongswan/Result.h"
#include "platform/strongswan/ViciMessage.h"

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>

#include <array>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

namespace platform::strongswan {

// charon's default socket.
inline constexpr const char* kViciDefaultSocket = "/var/run/charon.vici";
// The error of a reply the daemon did not give in time.
inline constexpr const char* kViciTimeoutError = "timed out waiting for the daemon";

struct ViciReply {
    enum class Status {
        Ok,       // CMD_RESPONSE or EVENT_CONFIRM
        Unknown,  // CMD_UNKNOWN or EVENT_UNKNOWN: the daemon has no such command/event
        Failed,   // no answer: not connected, closed, timed out or a protocol error
    };
    Status status = Status::Failed;
    ViciSection message;  // the response message (Ok answers to commands)
    std::string error;    // why, for Unknown and Failed

    bool ok() const { return status == Status::Ok; }
    // Ok and the response says success = yes.
    bool succeeded() const;
    // A one-line description of the failure: the transport error, or the
    // daemon's errmsg.
    std::string failure() const;
    // No answer in time: the daemon is there but does not answer.
    bool timedOut() const { return status == Status::Failed && error == kViciTimeoutError; }
};

using ViciReplyHandler = std::function<void(ViciReply reply)>;
using ViciEventHandler = std::function<void(const std::string& name, const ViciSection& event)>;
using ViciClosedHandler = std::function<void(const std::string& reason)>;

class ViciClient : public std::enable_shared_from_this<ViciClient> {
  public:
    using Clock = LoopClock;
    static constexpr std::chrono::milliseconds kDefaultTimeout{10000};

    static std::shared_ptr<ViciClient> create(asio::io_context& context, std::string socketPath);
    ~ViciClient();
    ViciClient(const ViciClient&) = delete;
    ViciClient& operator=(const ViciClient&) = delete;

    // Connects (a local socket connects at once or not at all) and starts
    // reading. An error, with the socket's error as its cause, when the
    // daemon is not there.
    Result<void> connect();
    bool isOpen() const { return open_; }
    // Closes the connection; queued operations fail with "closed".
    void close();

    // Sends a command after the ones already queued. The message's bytes are
    // wiped from the client's buffers once written. A timeout closes the
    // connection: a late answer could no longer be matched.
    void request(std::string command, const ViciSection& message, ViciReplyHandler handler,
                 std::chrono::milliseconds timeout = kDefaultTimeout);
    void registerEvent(std::string event, ViciReplyHandler handler,
                       std::chrono::milliseconds timeout = kDefaultTimeout);
    void unregisterEvent(std::string event, ViciReplyHandler handler,
                         std::chrono::milliseconds timeout = kDefaultTimeout);

    void setEventHandler(ViciEventHandler handler) { onEvent_ = std::move(handler); }
    // Called once when the connection ends other than through `close`
    // (daemon gone, protocol error, timeout).
    void setClosedHandler(ViciClosedHandler handler) { onClosed_ = std::move(handler); }

    // Reads and dispatches, on the caller's stack, whatever arrives within
    // `limit`, returning early once `quiet` has passed with nothing new. For
    // callers on the io_context's thread that must see pending events before
    // they answer.
    void drain(std::chrono::milliseconds limit, std::chrono::milliseconds quiet);

  private:
    ViciClient(asio::io_context& context, std::string socketPath);

    struct Operation {
        std::uint64_t id = 0;
        ViciPacketType type = ViciPacketType::CmdRequest;
        std::string frame;
        ViciReplyHandler handler;
        std::chrono::milliseconds timeout{};
        ~Operation() { os::wipeString(frame); }
        Operation() = default;
        Operation(Operation&&) = default;
        Operation& operator=(Operation&&) = default;
    };

    void enqueue(ViciPacketType type, std::string name, const ViciSection* message,
                 ViciReplyHandler handler, std::chrono::milliseconds timeout);
    void startNext();
    enum class ReadResult { Data, Nothing, Closed };
    void readMore();
    ReadResult readNow();
    void consume(const char* data, std::size_t size);
    bool handlePacket(const std::string& bytes);
    void complete(ViciReply reply);
    void fail(const std::string& reason, bool notifyClosed);
    void post(std::function<void()> block);

    asio::io_context& context_;
    std::string path_;
    asio::local::stream_protocol::socket socket_;
    LoopTimer timer_;
    std::array<char, 16384> readBuffer_{};
    ViciFrameReader reader_;
    std::deque<Operation> queue_;
    bool inFlight_ = false;
    std::uint64_t nextId_ = 0;
    bool open_ = false;
    ViciEventHandler onEvent_;
    ViciClosedHandler onClosed_;
};

class ViciSyncClient {
  public:
    using Clock = LoopClock;

    explicit ViciSyncClient(std::string socketPath);
    ~ViciSyncClient();
    ViciSyncClient(const ViciSyncClient&) = delete;
    ViciSyncClient& operator=(const ViciSyncClient&) = delete;

    Result<void> connect();
    // Sends one command and waits for its answer until `deadline`; events
    // that come first go to `onEvent`. A timeout closes the connection.
    ViciReply request(const std::string& command, const ViciSection& message,
                      Clock::time_point deadline, const ViciEventHandler& onEvent = {});
    ViciReply registerEvent(const std::string& event, Clock::time_point deadline);
    // Sends one command and returns once it is written, without waiting for
    // the answer.
    Result<void> send(const std::string& command, const ViciSection& message,
                      Clock::time_point deadline);
    // Leaves the connection, with the `answers` requests sent on it, to a
    // process of its own that keeps it open until charon has answered them
    // all or closed it, for at most `limit`, and returns at once. A frozen
    // charon carries out what waits in its socket once it runs again, but
    // drops a request whose connection it finds closed before the request's
    // turn. False, the connection staying here, when no process can start.
    bool leaveOpenUntilAnswered(int answers, std::chrono::milliseconds limit);

  private:
    ViciReply exchange(ViciPacketType type, const std::string& name, const ViciSection* message,
                       Clock::time_point deadline, const ViciEventHandler& onEvent);
    // Encodes and writes one request; on failure closes the connection.
    Result<void> write(ViciPacketType type, const std::string& name, const ViciSection* message,
                       Clock::time_point deadline);
    // Reads the next packet, whatever its type; on failure (including the
    // deadline) closes the connection.
    Result<ViciPacket> readPacket(Clock::time_point deadline);
    Result<void> writeAll(const std::string& frame, Clock::time_point deadline);
    void closeSocket();

    std::string path_;
    int fd_ = -1;
    ViciFrameReader reader_;
};

}  // namespace platform::strongswan
