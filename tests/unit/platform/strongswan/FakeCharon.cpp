#include "tests/unit/platform/strongswan/FakeCharon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace fakecharon {

namespace ss = platform::strongswan;

namespace {

void writeAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

std::string frame(ViciPacketType type, const std::string& name, const ViciSection* message) {
    std::string out;
    if (auto encoded = ss::encodeViciFrame(type, name, message, out); !encoded) {
        throw std::runtime_error(encoded.error().text);
    }
    return out;
}

}  // namespace

void Link::respond(const ViciSection& message) {
    raw(frame(ViciPacketType::CmdResponse, {}, &message));
}

void Link::unknown() {
    raw(frame(ViciPacketType::CmdUnknown, {}, nullptr));
}

void Link::event(const std::string& name, const ViciSection& message) {
    raw(frame(ViciPacketType::Event, name, &message));
}

void Link::raw(const std::string& bytes) {
    std::lock_guard lock(mutex_);
    if (fd_ >= 0) {
        writeAll(fd_, bytes);
    }
}

bool Link::registered(const std::string& event) {
    std::lock_guard lock(mutex_);
    return events_.count(event) != 0;
}

void Link::hangUp() {
    std::lock_guard lock(mutex_);
    if (fd_ >= 0) {
        ::shutdown(fd_, SHUT_RDWR);
    }
}

FakeCharon::FakeCharon() {
    char pattern[] = "/tmp/fakecharon.XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    directory_ = pattern;
    path_ = directory_ + "/charon.vici";
    knownEvents_ = {"ike-updown", "child-updown", "ike-update", "ike-rekey", "child-rekey",
                    "log",        "control-log",  "list-sa",    "list-conn"};
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
    if (listenFd_ < 0 ||
        ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listenFd_, 16) != 0) {
        throw std::runtime_error("cannot listen on " + path_);
    }
    acceptor_ = std::thread([this] { acceptLoop(); });
}

FakeCharon::~FakeCharon() {
    shutdown();
    std::vector<std::unique_ptr<Link>> links;
    {
        std::lock_guard lock(mutex_);
        links.swap(links_);
    }
    for (auto& link : links) {
        {
            std::lock_guard lock(link->mutex_);
            if (link->fd_ >= 0) {
                ::shutdown(link->fd_, SHUT_RDWR);
            }
        }
        if (link->reader_.joinable()) {
            link->reader_.join();
        }
        std::lock_guard lock(link->mutex_);
        if (link->fd_ >= 0) {
            ::close(link->fd_);
            link->fd_ = -1;
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void FakeCharon::shutdown() {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return;
        }
        stopping_ = true;
    }
    ::shutdown(listenFd_, SHUT_RDWR);
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    ::close(listenFd_);
    ::unlink(path_.c_str());
}

void FakeCharon::acceptLoop() {
    while (true) {
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            std::lock_guard lock(mutex_);
            if (stopping_ || (errno != EINTR && errno != ECONNABORTED)) {
                return;
            }
            continue;
        }
        std::lock_guard lock(mutex_);
        auto link = std::make_unique<Link>();
        link->fd_ = fd;
        link->index_ = static_cast<int>(links_.size());
        Link* raw = link.get();
        links_.push_back(std::move(link));
        raw->reader_ = std::thread([this, raw] { readLoop(raw); });
        changed_.notify_all();
    }
}

void FakeCharon::readLoop(Link* link) {
    ss::ViciFrameReader reader;
    char buffer[8192];
    while (true) {
        ssize_t n = ::recv(link->fd_, buffer, sizeof(buffer), 0);
        if (n <= 0) {
            return;
        }
        reader.feed(std::string_view(buffer, static_cast<std::size_t>(n)));
        std::string body;
        while (true) {
            auto frame = reader.next(body);
            if (!frame) {
                // charon logs and drops such a client.
                link->hangUp();
                return;
            }
            if (*frame == ss::ViciFrameReader::Frame::NeedMore) {
                break;
            }
            auto decoded = ss::decodeViciPacket(body);
            if (!decoded) {
                link->hangUp();
                return;
            }
            ViciPacket& packet = *decoded;
            {
                std::lock_guard lock(mutex_);
                received_.push_back({link->index_, packet});
                changed_.notify_all();
            }
            dispatch(*link, packet);
        }
    }
}

void FakeCharon::dispatch(Link& link, const ViciPacket& packet) {
    switch (packet.type) {
        case ViciPacketType::EventRegister:
        case ViciPacketType::EventUnregister: {
            bool known = false;
            {
                std::lock_guard lock(mutex_);
                known = knownEvents_.count(packet.name) != 0;
            }
            bool confirm = false;
            {
                std::lock_guard lock(link.mutex_);
                if (packet.type == ViciPacketType::EventRegister) {
                    confirm = known;
                    if (known) {
                        link.events_.insert(packet.name);
                    }
                } else {
                    confirm = link.events_.erase(packet.name) != 0;
                }
            }
            link.raw(frame(confirm ? ViciPacketType::EventConfirm : ViciPacketType::EventUnknown,
                           {}, nullptr));
            return;
        }
        case ViciPacketType::CmdRequest: {
            Command handler;
            {
                std::lock_guard lock(mutex_);
                auto found = commands_.find(packet.name);
                if (found != commands_.end()) {
                    handler = found->second;
                }
            }
            if (handler) {
                handler(link, packet.message);
            } else {
                link.unknown();
            }
            return;
        }
        default:
            return;  // charon ignores other packet types from clients
    }
}

void FakeCharon::on(const std::string& command, Command handler) {
    std::lock_guard lock(mutex_);
    commands_[command] = std::move(handler);
}

void FakeCharon::succeed(const std::string& command) {
    on(command, [](Link& link, const ViciSection&) {
        ViciSection ok;
        ok.add("success", "yes");
        link.respond(ok);
    });
}

void FakeCharon::knowEvents(std::set<std::string> events) {
    std::lock_guard lock(mutex_);
    knownEvents_ = std::move(events);
}

void FakeCharon::emit(const std::string& name, const ViciSection& message) {
    std::vector<Link*> targets;
    {
        std::lock_guard lock(mutex_);
        for (auto& link : links_) {
            targets.push_back(link.get());
        }
    }
    for (Link* link : targets) {
        if (link->registered(name)) {
            link->event(name, message);
        }
    }
}

void FakeCharon::hangUpAll() {
    std::lock_guard lock(mutex_);
    for (auto& link : links_) {
        link->hangUp();
    }
}

std::vector<Received> FakeCharon::received() {
    std::lock_guard lock(mutex_);
    return received_;
}

std::vector<ViciPacket> FakeCharon::requests(const std::string& command) {
    std::vector<ViciPacket> out;
    for (auto& r : received()) {
        if (r.packet.type == ViciPacketType::CmdRequest && r.packet.name == command) {
            out.push_back(r.packet);
        }
    }
    return out;
}

int FakeCharon::connections() {
    std::lock_guard lock(mutex_);
    return static_cast<int>(links_.size());
}

bool FakeCharon::waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return done();
}

ViciSection ikeSa(const std::string& state, const std::vector<std::string>& localVips) {
    ViciSection sa;
    sa.add("uniqueid", "1").add("version", "2").add("state", state);
    sa.add("local-host", "10.0.0.2").add("remote-host", "10.0.0.1");
    if (!localVips.empty()) {
        sa.addList("local-vips", localVips);
    }
    return sa;
}

ViciSection updown(const std::string& conn, bool up, const std::string& state,
                   const std::vector<std::string>& localVips, bool withChild) {
    ViciSection event;
    if (up) {
        event.add("up", "yes");
    }
    ViciSection& sa = event.addSection(conn);
    sa = ikeSa(state, localVips);
    if (withChild) {
        ViciSection& child = sa.addSection("child-sas").addSection("orvane-1");
        child.add("name", "orvane").add("uniqueid", "1").add("state", "INSTALLED");
    }
    return event;
}

ViciSection logLine(const std::string& msg, const std::string& ikesa, const std::string& group) {
    ViciSection event;
    event.add("group", group).add("level", "1").add("thread", "7");
    if (!ikesa.empty()) {
        event.add("ikesa-name", ikesa).add("ikesa-uniqueid", "1");
    }
    event.add("msg", msg);
    return event;
}

}  // namespace fakecharon
