#include "platform/strongswan/ViciClient.h"

#include "tests/unit/double/VirtualTimeScope.h"
#include "tests/unit/platform/strongswan/FakeCharon.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace ss = platform::strongswan;
using fakecharon::FakeCharon;
using fakecharon::Link;
using platform::LoopClock;
using platform::VirtualTime;
using ss::ViciPacketType;
using ss::ViciReply;
using ss::ViciSection;

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

// Turns the io_context until `done`, which waits on the fake daemon's
// thread; the default limit only keeps a broken client from hanging the
// test.
bool runUntil(asio::io_context& io, const std::function<bool()>& done,
              std::chrono::milliseconds limit = 60s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        io.restart();
        io.run_for(5ms);
    }
    return done();
}

ViciSection kv(const std::string& key, const std::string& value) {
    ViciSection s;
    s.add(key, value);
    return s;
}

std::string frameOf(ViciPacketType type, const std::string& name = {},
                    const ViciSection* message = nullptr) {
    std::string out;
    EXPECT_TRUE(ss::encodeViciFrame(type, name, message, out));
    return out;
}

// Under virtual time: timeouts and deadlines pass only when the test (or
// the fake daemon, sitting on a request) moves the clock.
class ViciClientTest : public ::testing::Test {
  protected:
    std::shared_ptr<ss::ViciClient> connectClient() {
        auto client = ss::ViciClient::create(io, server.path());
        EXPECT_TRUE(client->connect());
        client->setEventHandler([this](const std::string& name, const ViciSection& event) {
            events.emplace_back(name, event);
            order.push_back("event:" + name);
        });
        client->setClosedHandler([this](const std::string& reason) { closedReason = reason; });
        return client;
    }

    testing_support::VirtualTimeScope virtualTime;
    asio::io_context io;
    FakeCharon server;
    std::vector<std::pair<std::string, ViciSection>> events;
    std::vector<std::string> order;
    std::string closedReason;
};

TEST_F(ViciClientTest, ConnectFailsWhenNoDaemonListens) {
    auto client = ss::ViciClient::create(io, server.directory() + "/missing.vici");
    auto connected = client->connect();
    ASSERT_FALSE(connected);
    EXPECT_NE(connected.error().text.find("missing.vici"), std::string::npos);
    EXPECT_EQ(connected.error().cause.value(), ENOENT);
    bool answered = false;
    client->request("version", {}, [&](ViciReply reply) {
        answered = true;
        EXPECT_EQ(reply.status, ViciReply::Status::Failed);
    });
    EXPECT_FALSE(answered) << "handlers never run inside the call";
    EXPECT_TRUE(runUntil(io, [&] { return answered; }));
}

TEST_F(ViciClientTest, ScriptedExchangesAnswerInOrderOneAtATime) {
    server.on("version", [](Link& link, const ViciSection&) {
        ViciSection s;
        s.add("daemon", "charon").add("version", "5.9.8");
        link.respond(s);
    });
    server.on("echo", [](Link& link, const ViciSection& request) {
        ViciSection s;
        s.add("success", "yes").add("got", request.get("v"));
        link.respond(s);
    });
    struct Case {
        std::string command;
        ViciSection message;
        ViciReply::Status status;
        std::string key;
        std::string value;
    };
    std::vector<Case> cases = {
        {"version", {}, ViciReply::Status::Ok, "version", "5.9.8"},
        {"echo", kv("v", "one"), ViciReply::Status::Ok, "got", "one"},
        {"nonsense", {}, ViciReply::Status::Unknown, "", ""},
        {"echo", kv("v", "two"), ViciReply::Status::Ok, "got", "two"},
    };
    auto client = connectClient();
    std::vector<ViciReply> replies;
    for (const auto& c : cases) {
        client->request(c.command, c.message,
                        [&](ViciReply r) { replies.push_back(std::move(r)); });
    }
    ASSERT_TRUE(runUntil(io, [&] { return replies.size() == cases.size(); }));
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(replies[i].status, cases[i].status) << i;
        if (!cases[i].key.empty()) {
            EXPECT_EQ(replies[i].message.get(cases[i].key), cases[i].value) << i;
        }
    }
    EXPECT_TRUE(replies[1].succeeded());
    EXPECT_FALSE(replies[0].succeeded());
    // The server saw every request exactly once, in order.
    auto got = server.received();
    ASSERT_EQ(got.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(got[i].packet.name, cases[i].command);
        EXPECT_EQ(got[i].packet.message, cases[i].message);
    }
}

TEST_F(ViciClientTest, SendsTheNextRequestOnlyAfterTheAnswer) {
    Link* held = nullptr;
    std::mutex m;
    server.on("slow", [&](Link& link, const ViciSection&) {
        std::lock_guard lock(m);
        held = &link;  // answered later by the test
    });
    server.succeed("fast");
    auto client = connectClient();
    int done = 0;
    client->request("slow", {}, [&](ViciReply) { ++done; });
    client->request("fast", {}, [&](ViciReply) { ++done; });
    runUntil(
        io, [] { return false; }, 100ms);
    EXPECT_EQ(server.received().size(), 1u) << "second request must wait in the queue";
    {
        std::lock_guard lock(m);
        ASSERT_NE(held, nullptr);
        held->respond(kv("success", "yes"));
    }
    ASSERT_TRUE(runUntil(io, [&] { return done == 2; }));
    EXPECT_EQ(server.received().size(), 2u);
}

TEST_F(ViciClientTest, DispatchesEventsThatArriveBetweenRequestAndAnswer) {
    server.on("list-sas", [](Link& link, const ViciSection&) {
        for (const char* name : {"a", "b"}) {
            ViciSection sa;
            sa.addSection(name).add("state", "ESTABLISHED");
            link.event("list-sa", sa);
        }
        link.respond({});
    });
    auto client = connectClient();
    bool registered = false;
    bool listed = false;
    client->registerEvent("list-sa", [&](ViciReply r) {
        registered = r.ok();
        order.push_back("registered");
    });
    client->request("list-sas", {}, [&](ViciReply r) {
        listed = r.ok();
        order.push_back("listed");
    });
    ASSERT_TRUE(runUntil(io, [&] { return listed; }));
    EXPECT_TRUE(registered);
    EXPECT_EQ(order,
              (std::vector<std::string>{"registered", "event:list-sa", "event:list-sa", "listed"}));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_NE(events[1].second.section("b"), nullptr);
}

TEST_F(ViciClientTest, EventRegistrationConfirmsKnownAndRefusesUnknownEvents) {
    auto client = connectClient();
    std::vector<ViciReply::Status> got;
    for (const char* name : {"ike-updown", "alert", "log"}) {
        client->registerEvent(name, [&](ViciReply r) { got.push_back(r.status); });
    }
    client->unregisterEvent("log", [&](ViciReply r) { got.push_back(r.status); });
    client->unregisterEvent("child-updown", [&](ViciReply r) { got.push_back(r.status); });
    ASSERT_TRUE(runUntil(io, [&] { return got.size() == 5; }));
    EXPECT_EQ(got, (std::vector<ViciReply::Status>{
                       ViciReply::Status::Ok, ViciReply::Status::Unknown, ViciReply::Status::Ok,
                       ViciReply::Status::Ok, ViciReply::Status::Unknown}));
    auto received = server.received();
    ASSERT_EQ(received.size(), 5u);
    EXPECT_EQ(received[0].packet.type, ViciPacketType::EventRegister);
    EXPECT_EQ(received[3].packet.type, ViciPacketType::EventUnregister);
}

TEST_F(ViciClientTest, ReassemblesAnswersWrittenInPieces) {
    server.on("version", [](Link& link, const ViciSection&) {
        ViciSection s;
        s.add("version", "5.9.8");
        ViciSection ev;
        ev.add("msg", "hello");
        std::string bytes = frameOf(ViciPacketType::Event, "log", &ev) +
                            frameOf(ViciPacketType::CmdResponse, {}, &s);
        for (char c : bytes) {
            link.raw(std::string(1, c));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    auto client = connectClient();
    client->registerEvent("log", {});
    std::string version;
    client->request("version", {}, [&](ViciReply r) { version = r.message.get("version"); });
    ASSERT_TRUE(runUntil(io, [&] { return !version.empty(); }));
    EXPECT_EQ(version, "5.9.8");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].second.get("msg"), "hello");
}

struct BadInput {
    const char* what;
    std::string bytes;
};

TEST_F(ViciClientTest, DropsTheConnectionOnMalformedOrOversizedInput) {
    std::string oversized = "\x00\x08\x00\x01"s + std::string(16, '\x01');
    std::string garbage = "\x00\x00\x00\x02\x05\x00"s;         // EVENT_CONFIRM with a trailing byte
    std::string badMessage = "\x00\x00\x00\x03\x01\x02\x02"s;  // unbalanced section end
    std::string stray = "\x00\x00\x00\x01\x05"s;               // confirm for a command
    for (const auto& c : std::vector<BadInput>{{"oversized frame", oversized},
                                               {"trailing garbage", garbage},
                                               {"unbalanced message", badMessage},
                                               {"answer of the wrong kind", stray}}) {
        std::string bytes = c.bytes;
        server.on("poke", [bytes](Link& link, const ViciSection&) { link.raw(bytes); });
        closedReason.clear();
        auto client = connectClient();
        ViciReply reply;
        bool answered = false;
        client->request("poke", {}, [&](ViciReply r) {
            reply = std::move(r);
            answered = true;
        });
        ASSERT_TRUE(runUntil(io, [&] { return answered && !closedReason.empty(); })) << c.what;
        EXPECT_EQ(reply.status, ViciReply::Status::Failed) << c.what;
        EXPECT_FALSE(client->isOpen()) << c.what;
    }
}

TEST_F(ViciClientTest, DaemonGoneFailsPendingRequestsAndReportsClosed) {
    server.on("hang", [](Link& link, const ViciSection&) { link.hangUp(); });
    auto client = connectClient();
    std::vector<ViciReply> replies;
    client->request("hang", {}, [&](ViciReply r) { replies.push_back(std::move(r)); });
    client->request("version", {}, [&](ViciReply r) { replies.push_back(std::move(r)); });
    ASSERT_TRUE(runUntil(io, [&] { return replies.size() == 2 && !closedReason.empty(); }));
    for (const auto& r : replies) {
        EXPECT_EQ(r.status, ViciReply::Status::Failed);
        EXPECT_FALSE(r.error.empty());
    }
    EXPECT_NE(closedReason.find("closed"), std::string::npos);
    EXPECT_FALSE(client->isOpen());
}

TEST_F(ViciClientTest, TimesOutAnUnansweredRequestAndClosesTheConnection) {
    server.on("never", [](Link&, const ViciSection&) {});
    auto client = connectClient();
    ViciReply reply;
    bool answered = false;
    client->request(
        "never", {},
        [&](ViciReply r) {
            reply = std::move(r);
            answered = true;
        },
        150ms);
    ASSERT_TRUE(runUntil(io, [&] { return server.requests("never").size() == 1; }));
    VirtualTime::advance(149ms);
    io.poll();
    EXPECT_FALSE(answered) << "not before the timeout";
    VirtualTime::advance(1ms);
    ASSERT_TRUE(runUntil(io, [&] { return answered; }));
    EXPECT_EQ(reply.status, ViciReply::Status::Failed);
    EXPECT_NE(reply.error.find("timed out"), std::string::npos);
    EXPECT_FALSE(client->isOpen());
}

TEST_F(ViciClientTest, EachRequestHasItsOwnTimeoutFromWhenItGoesOut) {
    Link* held = nullptr;
    std::mutex m;
    server.on("slow", [&](Link& link, const ViciSection&) {
        std::lock_guard lock(m);
        held = &link;
    });
    server.on("never", [](Link&, const ViciSection&) {});
    auto client = connectClient();
    std::vector<std::string> outcomes;
    auto record = [&](ViciReply r) { outcomes.push_back(r.ok() ? "ok" : r.error); };
    client->request("slow", {}, record, 100ms);
    client->request("never", {}, record, 100ms);
    ASSERT_TRUE(runUntil(io, [&] { return server.requests("slow").size() == 1; }));
    VirtualTime::advance(90ms);
    {
        std::lock_guard lock(m);
        held->respond(kv("success", "yes"));
    }
    ASSERT_TRUE(runUntil(io, [&] { return server.requests("never").size() == 1; }));
    // 90 ms after the first went out, but the second has just gone.
    VirtualTime::advance(99ms);
    io.poll();
    EXPECT_EQ(outcomes, std::vector<std::string>{"ok"});
    VirtualTime::advance(1ms);
    ASSERT_TRUE(runUntil(io, [&] { return outcomes.size() == 2; }));
    EXPECT_NE(outcomes[1].find("timed out"), std::string::npos);
}

TEST_F(ViciClientTest, DrainDeliversPendingEventsOnTheCallersStack) {
    auto client = connectClient();
    bool registered = false;
    client->registerEvent("log", [&](ViciReply r) { registered = r.ok(); });
    ASSERT_TRUE(runUntil(io, [&] { return registered; }));
    server.emit("log", fakecharon::logLine("late line"));
    auto start = LoopClock::now();
    client->drain(300ms, 50ms);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].second.get("msg"), "late line");
    EXPECT_EQ(LoopClock::now() - start, 50ms) << "returns once quiet";
    // Nothing more arrives: the limit bounds the wait.
    start = LoopClock::now();
    client->drain(80ms, 1000ms);
    EXPECT_EQ(LoopClock::now() - start, 80ms);
    // The asynchronous reader still works afterwards.
    server.emit("log", fakecharon::logLine("after"));
    ASSERT_TRUE(runUntil(io, [&] { return events.size() == 2; }));
}

TEST_F(ViciClientTest, SyncClientExchangesAndBoundsItsWait) {
    server.on("terminate", [](Link& link, const ViciSection& request) {
        ViciSection ev;
        ev.add("msg", "deleting IKE_SA");
        link.event("control-log", ev);
        ViciSection s;
        s.add("success", "yes").add("ike", request.get("ike"));
        link.respond(s);
    });
    server.on("never", [](Link&, const ViciSection&) { VirtualTime::advance(100ms); });
    server.on("late", [](Link& link, const ViciSection&) {
        VirtualTime::advance(99ms);
        link.respond(kv("success", "yes"));
    });
    ss::ViciSyncClient sync(server.path());
    ASSERT_TRUE(sync.connect());
    std::vector<std::string> seen;
    auto deadline = ss::ViciSyncClient::Clock::now() + 1000ms;
    EXPECT_TRUE(sync.request("late", {}, LoopClock::now() + 100ms).succeeded())
        << "an answer 99 ms into a 100 ms wait is taken";
    ViciReply reply =
        sync.request("terminate", kv("ike", "Orvane IKEv2"), deadline,
                     [&](const std::string& name, const ViciSection&) { seen.push_back(name); });
    EXPECT_TRUE(reply.succeeded()) << reply.failure();
    EXPECT_EQ(reply.message.get("ike"), "Orvane IKEv2");
    EXPECT_EQ(seen, std::vector<std::string>{"control-log"});
    EXPECT_EQ(sync.registerEvent("alert", deadline).status, ViciReply::Status::Unknown);

    // charon sits on the request while 100 ms pass: the wait ends there.
    auto start = LoopClock::now();
    reply = sync.request("never", {}, start + 100ms);
    EXPECT_EQ(reply.status, ViciReply::Status::Failed);
    EXPECT_NE(reply.error.find("timed out"), std::string::npos);
    EXPECT_EQ(LoopClock::now() - start, 100ms);
    EXPECT_EQ(sync.request("terminate", {}, start + 1s).error, "not connected")
        << "a timeout closes the connection";

    ss::ViciSyncClient absent(server.directory() + "/none");
    EXPECT_FALSE(absent.connect());
}

TEST_F(ViciClientTest, SyncSendReturnsOnceWritten) {
    ss::ViciSyncClient sync(server.path());
    ASSERT_TRUE(sync.connect());
    server.on("terminate", [](Link&, const ViciSection&) {});
    ASSERT_TRUE(sync.send("terminate", kv("ike", "x"), ss::ViciSyncClient::Clock::now() + 500ms));
    EXPECT_TRUE(server.waitFor([&] { return server.requests("terminate").size() == 1; }, 60s));
}

// A charon that is frozen: its socket listens, nobody accepts or reads yet.
class FrozenCharon {
  public:
    FrozenCharon() {
        char dir[] = "/tmp/orvane-frozen-XXXXXX";
        dir_ = ::mkdtemp(dir);
        path_ = dir_ + "/charon.vici";
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path_.c_str());
        EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(listener_, 3), 0);
    }
    ~FrozenCharon() {
        ::close(listener_);
        ::unlink(path_.c_str());
        ::rmdir(dir_.c_str());
    }
    const std::string& path() const { return path_; }
    // Runs again: takes the waiting connection.
    int resume() { return ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); }

  private:
    std::string dir_;
    std::string path_;
    int listener_ = -1;
};

// Whether `fd` becomes readable within `limit`.
bool readableWithin(int fd, std::chrono::milliseconds limit) {
    pollfd pfd{fd, POLLIN, 0};
    return ::poll(&pfd, 1, static_cast<int>(limit.count())) == 1;
}

// The names of the next `count` requests on `fd`, each awaited for `limit`.
std::vector<std::string> readRequests(int fd, std::size_t count, std::chrono::milliseconds limit) {
    std::vector<std::string> names;
    ss::ViciFrameReader reader;
    std::string body;
    char buffer[4096];
    while (names.size() < count) {
        if (auto frame = reader.next(body); frame && *frame == ss::ViciFrameReader::Frame::Packet) {
            auto packet = ss::decodeViciPacket(body);
            EXPECT_TRUE(packet) << (packet ? "" : packet.error().text);
            names.push_back(packet ? packet->name : std::string());
            continue;
        }
        if (!readableWithin(fd, limit)) {
            break;
        }
        ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) {
            break;
        }
        reader.feed(std::string_view(buffer, static_cast<std::size_t>(got)));
    }
    return names;
}

void answer(int fd) {
    ViciSection ok = kv("success", "yes");
    std::string frame = frameOf(ViciPacketType::CmdResponse, {}, &ok);
    ASSERT_EQ(::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(frame.size()));
}

// The other end has closed: readable, and nothing more to read.
bool closedWithin(int fd, std::chrono::milliseconds limit) {
    char byte;
    return readableWithin(fd, limit) && ::recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
}

void leaveTwoRequests(const std::string& path, std::chrono::milliseconds limit) {
    ss::ViciSyncClient sync(path);
    ASSERT_TRUE(sync.connect());
    auto deadline = ss::ViciSyncClient::Clock::now() + 500ms;
    ASSERT_TRUE(sync.send("unload-shared", kv("id", "x"), deadline));
    ASSERT_TRUE(sync.send("terminate", kv("ike", "x"), deadline));
    ASSERT_TRUE(sync.leaveOpenUntilAnswered(2, limit));
}

TEST_F(ViciClientTest, RequestsLeftToAFrozenCharonKeepTheirConnectionUntilAnswered) {
    FrozenCharon charon;
    int output[2];
    ASSERT_EQ(::pipe(output), 0);
    leaveTwoRequests(charon.path(), 10s);
    // The caller's own descriptors are not held by what keeps the connection.
    ::close(output[1]);
    char byte;
    EXPECT_TRUE(readableWithin(output[0], 5000ms) && ::read(output[0], &byte, 1) == 0);
    ::close(output[0]);

    int link = charon.resume();
    ASSERT_GE(link, 0);
    EXPECT_EQ(readRequests(link, 2, 5000ms),
              (std::vector<std::string>{"unload-shared", "terminate"}));
    EXPECT_FALSE(closedWithin(link, 200ms)) << "closed before the first answer";
    answer(link);
    EXPECT_FALSE(closedWithin(link, 200ms)) << "closed before the second answer";
    answer(link);
    EXPECT_TRUE(closedWithin(link, 5000ms)) << "still held once both were answered";
    ::close(link);
}

TEST_F(ViciClientTest, RequestsLeftToACharonThatNeverAnswersAreLetGoAfterTheLimit) {
    FrozenCharon charon;
    leaveTwoRequests(charon.path(), 300ms);
    int link = charon.resume();
    ASSERT_GE(link, 0);
    EXPECT_EQ(readRequests(link, 2, 5000ms).size(), 2u);
    EXPECT_TRUE(closedWithin(link, 5000ms));
    ::close(link);
}

}  // namespace
