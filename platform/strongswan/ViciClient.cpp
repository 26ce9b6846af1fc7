#include "platform/strongswan/ViciClient.h"

#include "os/Poll.h"

#include <fmt/format.h>
#include <asio/post.hpp>
#include <asio/write.hpp>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>

namespace platform::strongswan {

namespace {

// What a bounded wait on a socket waits for. It matters under virtual time
// only (platform/LoopClock.h).
enum class Until {
    Answer,    // the daemon's answer or its reading: the clock is left to others
    Deadline,  // the end of a span of time: with nothing to read, the clock moves there
};

// poll(2) on one descriptor until `deadline` on the loop's clock.
int pollUntil(pollfd& pfd, LoopClock::time_point deadline, Until until) {
    if (!VirtualTime::active()) {
        return os::pollFor(pfd, deadline - LoopClock::now());
    }
    for (;;) {
        // The clock first: what arrived before it passed the deadline is taken.
        const bool due = LoopClock::now() >= deadline;
        const int ready = ::poll(&pfd, 1, due || until == Until::Deadline ? 0 : 1);
        if (ready != 0 || due) {
            return ready;
        }
        if (until == Until::Deadline) {
            VirtualTime::advanceTo(deadline);
            return 0;
        }
    }
}

// The answer that `packet` gives to a request of type `sent`; none when it
// answers no such request (charon never sends one unasked).
std::optional<ViciReply> replyTo(ViciPacketType sent, ViciPacket& packet) {
    const bool command = sent == ViciPacketType::CmdRequest;
    ViciReply reply;
    switch (packet.type) {
        case ViciPacketType::CmdResponse:
        case ViciPacketType::EventConfirm:
            if (command != (packet.type == ViciPacketType::CmdResponse)) {
                return std::nullopt;
            }
            reply.status = ViciReply::Status::Ok;
            reply.message = std::move(packet.message);
            return reply;
        case ViciPacketType::CmdUnknown:
        case ViciPacketType::EventUnknown:
            if (command != (packet.type == ViciPacketType::CmdUnknown)) {
                return std::nullopt;
            }
            reply.status = ViciReply::Status::Unknown;
            reply.error = command ? "unknown command" : "unknown event";
            return reply;
        default:
            return std::nullopt;
    }
}

std::string unexpectedPacket(const ViciPacket& packet) {
    return fmt::format("unexpected packet of type {}", static_cast<int>(packet.type));
}

}  // namespace

bool ViciReply::succeeded() const {
    return ok() && message.get("success") == "yes";
}

std::string ViciReply::failure() const {
    if (!ok()) {
        return error.empty() ? std::string("no answer") : error;
    }
    std::string message_text = message.get("errmsg");
    return message_text.empty() ? std::string("request failed") : message_text;
}

std::shared_ptr<ViciClient> ViciClient::create(asio::io_context& context, std::string socketPath) {
    return std::shared_ptr<ViciClient>(new ViciClient(context, std::move(socketPath)));
}

ViciClient::ViciClient(asio::io_context& context, std::string socketPath)
    : context_(context), path_(std::move(socketPath)), socket_(context), timer_(context) {}

ViciClient::~ViciClient() {
    std::error_code ignored;
    socket_.close(ignored);
}

Result<void> ViciClient::connect() {
    if (open_) {
        return {};
    }
    std::error_code ec;
    socket_.connect(asio::local::stream_protocol::endpoint(path_), ec);
    if (ec) {
        std::error_code ignored;
        socket_.close(ignored);
        return Error{fmt::format("cannot connect to {}: {}", path_, ec.message()),
                     NEVPNErrorConnectionFailed, ec};
    }
    open_ = true;
    reader_ = ViciFrameReader{};
    readMore();
    return {};
}

void ViciClient::close() {
    fail("closed", false);
}

void ViciClient::post(std::function<void()> block) {
    asio::post(context_, std::move(block));
}

void ViciClient::request(std::string command, const ViciSection& message, ViciReplyHandler handler,
                         std::chrono::milliseconds timeout) {
    enqueue(ViciPacketType::CmdRequest, std::move(command), &message, std::move(handler), timeout);
}

void ViciClient::registerEvent(std::string event, ViciReplyHandler handler,
                               std::chrono::milliseconds timeout) {
    enqueue(ViciPacketType::EventRegister, std::move(event), nullptr, std::move(handler), timeout);
}

void ViciClient::unregisterEvent(std::string event, ViciReplyHandler handler,
                                 std::chrono::milliseconds timeout) {
    enqueue(ViciPacketType::EventUnregister, std::move(event), nullptr, std::move(handler),
            timeout);
}

void ViciClient::enqueue(ViciPacketType type, std::string name, const ViciSection* message,
                         ViciReplyHandler handler, std::chrono::milliseconds timeout) {
    Operation op;
    op.type = type;
    op.handler = std::move(handler);
    op.timeout = timeout;
    op.id = ++nextId_;
    // Encoded straight from the caller's message: its values are not copied.
    Result<void> encoded = encodeViciFrame(type, name, message, op.frame);
    if (!encoded || !open_) {
        ViciReply reply;
        reply.error = encoded ? std::string("not connected") : encoded.error().text;
        auto done = std::move(op.handler);
        post([done = std::move(done), reply = std::move(reply)]() mutable {
            if (done) {
                done(std::move(reply));
            }
        });
        return;
    }
    queue_.push_back(std::move(op));
    startNext();
}

void ViciClient::startNext() {
    if (inFlight_ || queue_.empty() || !open_) {
        return;
    }
    inFlight_ = true;
    Operation& op = queue_.front();
    std::weak_ptr<ViciClient> weak = weak_from_this();
    timer_.expires_after(op.timeout);
    timer_.async_wait([weak](const std::error_code& ec) {
        auto self = weak.lock();
        if (!ec && self) {
            self->fail(kViciTimeoutError, true);
        }
    });
    asio::async_write(socket_, asio::buffer(op.frame),
                      [weak, id = op.id](const std::error_code& ec, std::size_t) {
                          auto self = weak.lock();
                          if (!self) {
                              return;
                          }
                          if (!self->queue_.empty() && self->queue_.front().id == id) {
                              os::wipeString(self->queue_.front().frame);
                          }
                          if (ec && self->open_) {
                              self->fail(fmt::format("write failed: {}", ec.message()), true);
                          }
                      });
}

// The socket is read only by our own non-blocking reads, after a readiness
// wait, never by an asynchronous read into a buffer: `drain` can then read
// on the caller's stack without racing a read that completed but whose
// handler has not run yet.
void ViciClient::readMore() {
    std::weak_ptr<ViciClient> weak = weak_from_this();
    socket_.async_wait(asio::socket_base::wait_read, [weak](const std::error_code& ec) {
        auto self = weak.lock();
        if (!self || !self->open_) {
            return;
        }
        if (ec) {
            self->fail(fmt::format("read failed: {}", ec.message()), true);
            return;
        }
        // A bounded number of reads per wake-up keeps other handlers going.
        for (int i = 0; i < 16 && self->open_ && self->readNow() == ReadResult::Data; ++i) {
        }
        if (self->open_) {
            self->readMore();
        }
    });
}

ViciClient::ReadResult ViciClient::readNow() {
    ssize_t got =
        ::recv(socket_.native_handle(), readBuffer_.data(), readBuffer_.size(), MSG_DONTWAIT);
    if (got > 0) {
        consume(readBuffer_.data(), static_cast<std::size_t>(got));
        return ReadResult::Data;
    }
    if (got == 0) {
        fail("daemon closed the connection", true);
        return ReadResult::Closed;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
        return ReadResult::Nothing;
    }
    fail(fmt::format("read failed: {}", std::strerror(errno)), true);
    return ReadResult::Closed;
}

void ViciClient::consume(const char* data, std::size_t size) {
    auto self = shared_from_this();
    reader_.feed(std::string_view(data, size));
    std::string packet;
    while (open_) {
        Result<ViciFrameReader::Frame> frame = reader_.next(packet);
        if (!frame) {
            fail(fmt::format("malformed frame: {}", frame.error().text), true);
            return;
        }
        if (*frame == ViciFrameReader::Frame::NeedMore) {
            return;
        }
        if (!handlePacket(packet)) {
            return;
        }
    }
}

bool ViciClient::handlePacket(const std::string& bytes) {
    Result<ViciPacket> decoded = decodeViciPacket(bytes);
    if (!decoded) {
        fail(fmt::format("malformed packet: {}", decoded.error().text), true);
        return false;
    }
    ViciPacket& packet = *decoded;
    if (packet.type == ViciPacketType::Event) {
        if (onEvent_) {
            onEvent_(packet.name, packet.message);
        }
        return open_;
    }
    std::optional<ViciReply> reply;
    if (inFlight_ && !queue_.empty()) {
        reply = replyTo(queue_.front().type, packet);
    }
    if (!reply) {
        fail(unexpectedPacket(packet), true);
        return false;
    }
    complete(std::move(*reply));
    return open_;
}

void ViciClient::complete(ViciReply reply) {
    Operation op = std::move(queue_.front());
    queue_.pop_front();
    inFlight_ = false;
    timer_.cancel();
    startNext();
    if (op.handler) {
        op.handler(std::move(reply));
    }
}

void ViciClient::fail(const std::string& reason, bool notifyClosed) {
    bool wasOpen = open_;
    open_ = false;
    inFlight_ = false;
    timer_.cancel();
    std::error_code ignored;
    socket_.close(ignored);
    std::deque<Operation> failed;
    failed.swap(queue_);
    for (auto& op : failed) {
        os::wipeString(op.frame);
        if (op.handler) {
            ViciReply reply;
            reply.error = reason;
            post([done = std::move(op.handler), reply = std::move(reply)]() mutable {
                done(std::move(reply));
            });
        }
    }
    if (wasOpen && notifyClosed && onClosed_) {
        post([closed = onClosed_, reason] { closed(reason); });
    }
}

void ViciClient::drain(std::chrono::milliseconds limit, std::chrono::milliseconds quiet) {
    auto self = shared_from_this();
    auto start = Clock::now();
    auto deadline = start + limit;
    auto lastData = start;
    while (open_) {
        auto until = std::min(deadline, lastData + quiet);
        if (Clock::now() >= until) {
            return;
        }
        pollfd pfd{socket_.native_handle(), POLLIN, 0};
        if (pollUntil(pfd, until, Until::Deadline) <= 0) {
            continue;
        }
        if (readNow() == ReadResult::Data) {
            lastData = Clock::now();
        }
    }
}

// ---------------------------------------------------------------------------

ViciSyncClient::ViciSyncClient(std::string socketPath) : path_(std::move(socketPath)) {}

ViciSyncClient::~ViciSyncClient() {
    closeSocket();
}

void ViciSyncClient::closeSocket() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

Result<void> ViciSyncClient::connect() {
    closeSocket();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof(address.sun_path)) {
        return Error{fmt::format("socket path too long: {}", path_), NEVPNErrorConnectionFailed};
    }
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        const int err = errno;
        return Error{fmt::format("socket: {}", std::strerror(err)), NEVPNErrorConnectionFailed,
                     std::error_code(err, std::system_category())};
    }
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int err = errno;
        closeSocket();
        return Error{fmt::format("cannot connect to {}: {}", path_, std::strerror(err)),
                     NEVPNErrorConnectionFailed, std::error_code(err, std::system_category())};
    }
    reader_ = ViciFrameReader{};
    return {};
}

Result<void> ViciSyncClient::writeAll(const std::string& frame, Clock::time_point deadline) {
    std::size_t written = 0;
    while (written < frame.size()) {
        pollfd pfd{fd_, POLLOUT, 0};
        int ready = pollUntil(pfd, deadline, Until::Answer);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return Error{ready == 0 ? std::string(kViciTimeoutError)
                                    : fmt::format("poll: {}", std::strerror(errno))};
        }
        ssize_t n = ::send(fd_, frame.data() + written, frame.size() - written,
                           MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                continue;
            }
            return Error{fmt::format("write failed: {}", std::strerror(errno))};
        }
        written += static_cast<std::size_t>(n);
    }
    return {};
}

Result<void> ViciSyncClient::write(ViciPacketType type, const std::string& name,
                                   const ViciSection* message, Clock::time_point deadline) {
    if (fd_ < 0) {
        return Error{"not connected", NEVPNErrorConnectionFailed};
    }
    std::string frame;
    Result<void> written = encodeViciFrame(type, name, message, frame);
    if (written) {
        written = writeAll(frame, deadline);
    }
    os::wipeString(frame);
    if (!written) {
        closeSocket();
        return Error{written.error().text, NEVPNErrorConnectionFailed};
    }
    return {};
}

Result<void> ViciSyncClient::send(const std::string& command, const ViciSection& message,
                                  Clock::time_point deadline) {
    return write(ViciPacketType::CmdRequest, command, &message, deadline);
}

namespace {

// In a child of a possibly threaded process: system calls only, no
// allocation. Counts the frames charon sends until `answers` are complete,
// the connection ends, or `limit` passes.
[[noreturn]] void holdUntilAnswered(int fd, int answers, std::chrono::milliseconds limit) {
    for (int signo : {SIGHUP, SIGINT, SIGTERM, SIGUSR1}) {
        ::signal(signo, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // Nothing of the caller's stays open here, above all not its output.
    if (fd > 0) {
        ::close_range(0, static_cast<unsigned>(fd) - 1, 0);
    }
    ::close_range(static_cast<unsigned>(fd) + 1, ~0U, 0);
    timespec start{};
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    unsigned char header[4];
    std::size_t headerHave = 0;
    std::uint64_t bodyLeft = 0;
    char buffer[4096];
    while (answers > 0) {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        long long spent =
            (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000LL;
        if (spent >= limit.count()) {
            break;
        }
        pollfd pfd{fd, POLLIN, 0};
        int ready = ::poll(&pfd, 1, static_cast<int>(limit.count() - spent));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            break;
        }
        ssize_t got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        for (ssize_t i = 0; i < got;) {
            if (bodyLeft > 0) {
                auto take = std::min<std::uint64_t>(bodyLeft, static_cast<std::uint64_t>(got - i));
                bodyLeft -= take;
                i += static_cast<ssize_t>(take);
            } else {
                header[headerHave++] = static_cast<unsigned char>(buffer[i++]);
                if (headerHave < sizeof header) {
                    continue;
                }
                headerHave = 0;
                bodyLeft = (std::uint64_t{header[0]} << 24) | (std::uint64_t{header[1]} << 16) |
                           (std::uint64_t{header[2]} << 8) | header[3];
            }
            if (bodyLeft == 0 && headerHave == 0) {
                --answers;
            }
        }
    }
    ::_exit(0);
}

}  // namespace

bool ViciSyncClient::leaveOpenUntilAnswered(int answers, std::chrono::milliseconds limit) {
    if (fd_ < 0) {
        return false;
    }
    // Twice, so that the holder belongs to nobody who would have to wait
    // for it.
    pid_t child = ::fork();
    if (child < 0) {
        return false;
    }
    if (child == 0) {
        if (::fork() == 0) {
            holdUntilAnswered(fd_, answers, limit);
        }
        ::_exit(0);
    }
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    closeSocket();
    return true;
}

ViciReply ViciSyncClient::request(const std::string& command, const ViciSection& message,
                                  Clock::time_point deadline, const ViciEventHandler& onEvent) {
    return exchange(ViciPacketType::CmdRequest, command, &message, deadline, onEvent);
}

ViciReply ViciSyncClient::registerEvent(const std::string& event, Clock::time_point deadline) {
    return exchange(ViciPacketType::EventRegister, event, nullptr, deadline, {});
}

ViciReply ViciSyncClient::exchange(ViciPacketType type, const std::string& name,
                                   const ViciSection* message, Clock::time_point deadline,
                                   const ViciEventHandler& onEvent) {
    ViciReply reply;
    if (Result<void> written = write(type, name, message, deadline); !written) {
        reply.error = written.error().text;
        return reply;
    }
    for (;;) {
        Result<ViciPacket> packet = readPacket(deadline);
        if (!packet) {
            reply.error = packet.error().text;
            return reply;
        }
        if (packet->type == ViciPacketType::Event) {
            if (onEvent) {
                onEvent(packet->name, packet->message);
            }
            continue;
        }
        if (std::optional<ViciReply> answer = replyTo(type, *packet)) {
            return std::move(*answer);
        }
        reply.error = unexpectedPacket(*packet);
        closeSocket();
        return reply;
    }
}

Result<ViciPacket> ViciSyncClient::readPacket(Clock::time_point deadline) {
    auto failed = [this](std::string why) -> Result<ViciPacket> {
        closeSocket();
        return Error{std::move(why), NEVPNErrorConnectionFailed};
    };
    std::array<char, 16384> buffer{};
    while (true) {
        std::string body;
        Result<ViciFrameReader::Frame> frame = reader_.next(body);
        if (!frame) {
            return failed(fmt::format("malformed frame: {}", frame.error().text));
        }
        if (*frame == ViciFrameReader::Frame::Packet) {
            Result<ViciPacket> decoded = decodeViciPacket(body);
            if (!decoded) {
                return failed(fmt::format("malformed packet: {}", decoded.error().text));
            }
            return decoded;
        }
        pollfd pfd{fd_, POLLIN, 0};
        int ready = pollUntil(pfd, deadline, Until::Answer);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return failed(ready == 0 ? std::string(kViciTimeoutError)
                                     : fmt::format("poll: {}", std::strerror(errno)));
        }
        ssize_t got = ::recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (got == 0) {
            return failed("daemon closed the connection");
        }
        if (got < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                continue;
            }
            return failed(fmt::format("read failed: {}", std::strerror(errno)));
        }
        reader_.feed(std::string_view(buffer.data(), static_cast<std::size_t>(got)));
    }
}

}  // namespace platform::strongswan
