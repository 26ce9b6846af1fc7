#include "platform/strongswan/StrongSwanManager.h"

#include "platform/strongswan/InterfaceLookup.h"
#include "platform/strongswan/ViciProfile.h"
#include "tests/unit/double/VirtualTimeScope.h"
#include "tests/unit/platform/strongswan/FakeCharon.h"
#include "tests/unit/platform/strongswan/LogCapture.h"
#include "tests/unit/platform/strongswan/PrivateLogind.h"
#include "tests/unit/platform/strongswan/RunIo.h"
#include "tests/unit/platform/strongswan/ToolProfile.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>

namespace ss = platform::strongswan;
namespace fs = std::filesystem;
using fakecharon::FakeCharon;
using fakecharon::Link;
using fakecharon::logLine;
using fakecharon::updown;
using platform::LoopClock;
using platform::NEVPNStatus;
using platform::Secret;
using platform::VirtualTime;
using ss::ViciEntry;
using ss::ViciPacketType;
using ss::ViciSection;

namespace {

using namespace std::chrono_literals;
using testprofile::readFile;
using testprofile::toolProfile;

const std::string kConn = "Orvane IKEv2";
const std::string kPassword = "Pa55 w0rd!x";

ViciSection success(bool ok = true, const std::string& errmsg = {}) {
    ViciSection s;
    s.add("success", ok ? "yes" : "no");
    if (!errmsg.empty()) {
        s.add("errmsg", errmsg);
    }
    return s;
}

// What the scripted charon holds.
struct CharonState {
    std::mutex mutex;
    // Answers given, by command, for the commands the tests wait on.
    std::map<std::string, std::size_t> answered;
    bool saPresent = false;
    std::vector<std::string> vips;
    std::vector<std::string> conns{"Orvane IKEv2"};
    ViciSection loadConnAnswer = success();
    ViciSection initiateAnswer = success();
};

// Under virtual time: the backend's checks, timeouts and bounded waits
// happen when the test (or the fake charon, sitting on a request) moves the
// clock.
class StrongSwanManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        logcapture::clear();
        char pattern[] = "/tmp/ssmanager.XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root = pattern;
        prefs = root / "orvane-ikev2" / "preferences.plist";
        scriptCharon();
    }
    void TearDown() override {
        manager.reset();
        fs::remove_all(root);
    }

    void scriptCharon() {
        server.on("load-conn", [this](Link& link, const ViciSection&) {
            std::lock_guard lock(state.mutex);
            link.respond(state.loadConnAnswer);
        });
        server.succeed("load-shared");
        server.succeed("unload-shared");
        server.on("unload-conn", [](Link& link, const ViciSection&) {
            link.respond(success(false, "unload: connection 'Orvane IKEv2' not found"));
        });
        server.on("initiate", [this](Link& link, const ViciSection&) {
            std::lock_guard lock(state.mutex);
            if (state.initiateAnswer.get("success") == "yes") {
                state.saPresent = true;
            }
            link.respond(state.initiateAnswer);
            ++state.answered["initiate"];
        });
        server.on("terminate", [this](Link& link, const ViciSection&) {
            std::lock_guard lock(state.mutex);
            state.saPresent = false;
            link.respond(success());
        });
        server.on("list-sas", [this](Link& link, const ViciSection& request) {
            std::lock_guard lock(state.mutex);
            if (state.saPresent && link.registered("list-sa") && request.get("ike") == kConn) {
                ViciSection sa;
                sa.addSection(kConn) = fakecharon::ikeSa("ESTABLISHED", state.vips);
                link.event("list-sa", sa);
            }
            link.respond({});
            ++state.answered["list-sas"];
        });
        server.on("list-conns", [this](Link& link, const ViciSection&) {
            std::lock_guard lock(state.mutex);
            for (const auto& name : state.conns) {
                if (link.registered("list-conn")) {
                    ViciSection conn;
                    conn.addSection(name).add("version", "IKEv2");
                    link.event("list-conn", conn);
                }
            }
            link.respond({});
        });
    }

    ss::StrongSwanManager& make(const std::function<void(ss::StrongSwanOptions&)>& tweak = {}) {
        ss::StrongSwanOptions options;
        options.socketPath = server.path();
        options.preferencesPath = prefs;
        options.lockPath = root / "orvane-ikev2.lock";
        options.pollInterval = 50ms;
        options.silentEndCheck = 20ms;
        options.statusChanged = [this] {
            ++notifications;
            seen.push_back(manager->connection()->status());
        };
        if (tweak) {
            tweak(options);
        }
        manager = std::make_unique<ss::StrongSwanManager>(io, std::move(options));
        return *manager;
    }

    // Turns the io_context until `done`, which waits on the fake daemon's
    // thread; the default limit only keeps a broken backend from hanging the
    // test.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 60s) {
        return testio::runUntil(io, done, limit);
    }

    platform::OptionalError call(
        void (ss::StrongSwanManager::*method)(platform::CompletionHandler)) {
        bool done = false;
        platform::OptionalError result;
        (manager.get()->*method)([&](const platform::OptionalError& error) {
            done = true;
            result = error;
        });
        EXPECT_FALSE(done) << "completion ran inside the call";
        EXPECT_TRUE(runUntil([&] { return done; }));
        return result;
    }

    void saveToolProfile() {
        manager->setProtocolConfiguration(toolProfile());
        manager->setEnabled(true);
        manager->setLocalizedDescription(kConn);
        ASSERT_FALSE(call(&ss::StrongSwanManager::saveToPreferences).has_value());
    }

    platform::NEVPNStatus status() { return manager->connection()->status(); }

    // A save asks charon for its authorities afterwards, in the idle time
    // before a start; the fake charon does not know the command, so the
    // question is all there is of it.
    bool trustAsked() {
        return runUntil([&] { return !server.requests("get-authorities").empty(); });
    }

    // A change is notified in a handler posted after it, so the status can
    // be ahead of the notifications for a moment.
    bool notified(NEVPNStatus expected) const { return !seen.empty() && seen.back() == expected; }

    // A saved profile's tunnel up; returns the time just before its start.
    platform::SystemClock::time_point connectedSince() {
        make();
        saveToolProfile();
        auto since = platform::SystemClock::now();
        startAndConnect();
        return since;
    }

    // Waits until charon has answered `count` requests of `command` in all,
    // then lets the backend take the answers.
    void waitAnswered(const std::string& command, std::size_t count) {
        ASSERT_TRUE(runUntil([&] {
            std::lock_guard lock(state.mutex);
            return state.answered[command] >= count;
        })) << command;
        io.restart();
        io.poll();
    }
    // Moves the clock on, then runs what fell due.
    void advance(LoopClock::duration by) {
        VirtualTime::advance(by);
        io.restart();
        io.poll();
    }

    void startAndConnect() {
        auto error = manager->connection()->startVPNTunnel({"alice", Secret(kPassword)});
        ASSERT_FALSE(error.has_value()) << error->description;
        ASSERT_TRUE(runUntil([&] { return !server.requests("initiate").empty(); }));
        {
            std::lock_guard lock(state.mutex);
            state.vips = {"127.0.0.1"};
        }
        server.emit("ike-updown", updown(kConn, true, "ESTABLISHED", {"127.0.0.1"}));
        server.emit("child-updown", updown(kConn, true, "ESTABLISHED", {"127.0.0.1"}, true));
        ASSERT_TRUE(runUntil([&] { return notified(platform::NEVPNStatusConnected); }));
    }

    testing_support::VirtualTimeScope virtualTime;
    asio::io_context io;
    // Before the server, whose threads write it until they are joined.
    CharonState state;
    FakeCharon server;
    fs::path root;
    fs::path prefs;
    std::unique_ptr<ss::StrongSwanManager> manager;
    int notifications = 0;
    std::vector<NEVPNStatus> seen;
};

std::size_t indexOf(const std::vector<fakecharon::Received>& got, ViciPacketType type,
                    const std::string& name) {
    for (std::size_t i = 0; i < got.size(); ++i) {
        if (got[i].packet.type == type && got[i].packet.name == name) {
            return i;
        }
    }
    return got.size();
}

std::size_t lastIndexOf(const std::vector<fakecharon::Received>& got, ViciPacketType type,
                        const std::string& name) {
    std::size_t found = got.size();
    for (std::size_t i = 0; i < got.size(); ++i) {
        if (got[i].packet.type == type && got[i].packet.name == name) {
            found = i;
        }
    }
    return found;
}

TEST_F(StrongSwanManagerTest, SaveWritesThePrivateFileAndLoadsTheTypedConnection) {
    make();
    saveToolProfile();
    struct stat st {};
    ASSERT_EQ(::stat(prefs.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    auto loads = server.requests("load-conn");
    ASSERT_EQ(loads.size(), 1u);
    auto expected = ss::buildLoadConn(toolProfile());
    ASSERT_TRUE(expected);
    EXPECT_EQ(loads[0].message, *expected);
    const ViciSection* conn = loads[0].message.section(kConn);
    ASSERT_NE(conn, nullptr);
    // Lists stay lists and scalars stay key/values on the wire.
    for (const char* key : {"remote_addrs", "vips", "proposals"}) {
        EXPECT_NE(conn->list(key), nullptr) << key;
        EXPECT_EQ(conn->value(key), nullptr) << key;
    }
    for (const char* key : {"version", "dpd_delay"}) {
        EXPECT_NE(conn->value(key), nullptr) << key;
        EXPECT_EQ(conn->list(key), nullptr) << key;
    }
    EXPECT_EQ(*conn->list("proposals"), std::vector<std::string>{"aes256-sha256-modp2048"});
    EXPECT_EQ(conn->get("dpd_delay"), "60s");
    const ViciSection* child = conn->section("children")->section("orvane");
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(*child->list("esp_proposals"), std::vector<std::string>{"aes256-sha256-modp2048"});
    EXPECT_EQ(*child->list("remote_ts"), std::vector<std::string>{"0.0.0.0/0"});
    EXPECT_EQ(conn->section("remote")->get("revocation"), "relaxed");
    EXPECT_EQ(conn->section("local")->get("eap_id"), "fqdn:alice");
}

TEST_F(StrongSwanManagerTest, SaveWithoutCharonIsNoError) {
    server.shutdown();
    make();
    saveToolProfile();
    EXPECT_TRUE(fs::exists(prefs));
}

TEST_F(StrongSwanManagerTest, ConnectionRefusedByCharonIsASaveError) {
    state.loadConnAnswer = success(false, "invalid value for: proposals, config discarded");
    make();
    manager->setProtocolConfiguration(toolProfile());
    auto error = call(&ss::StrongSwanManager::saveToPreferences);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, ss::NEVPNErrorConfigurationInvalid);
    EXPECT_NE(error->description.find("invalid value for: proposals"), std::string::npos);
}

TEST_F(StrongSwanManagerTest, ValueCharonWouldInterpretIsASaveErrorAndNothingIsSaved) {
    make();
    auto profile = toolProfile();
    profile.serverAddress = "192.0.2.2,192.0.2.3";
    manager->setProtocolConfiguration(profile);
    auto error = call(&ss::StrongSwanManager::saveToPreferences);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, ss::NEVPNErrorConfigurationInvalid);
    EXPECT_EQ(error->description,
              "Error Domain=NEVPNErrorDomain Code=1 \"server address '192.0.2.2,192.0.2.3' is a "
              "list; give one address or DNS name\"");
    EXPECT_FALSE(fs::exists(prefs));
    EXPECT_TRUE(server.requests("load-conn").empty());
}

TEST_F(StrongSwanManagerTest, SaveWithoutAProfileIsAnError) {
    make();
    auto error = call(&ss::StrongSwanManager::saveToPreferences);
    ASSERT_TRUE(error.has_value());
    EXPECT_NE(error->code, 0);
    EXPECT_FALSE(fs::exists(prefs));
}

TEST_F(StrongSwanManagerTest, LoadReadsBackWhatWasSaved) {
    make();
    EXPECT_FALSE(call(&ss::StrongSwanManager::loadFromPreferences).has_value());
    EXPECT_FALSE(manager->protocolConfiguration().has_value());
    saveToolProfile();
    make();  // a later run of the tool
    EXPECT_FALSE(call(&ss::StrongSwanManager::loadFromPreferences).has_value());
    ASSERT_TRUE(manager->protocolConfiguration().has_value());
    EXPECT_EQ(*manager->protocolConfiguration(), toolProfile());
    EXPECT_TRUE(manager->enabled());
    EXPECT_EQ(manager->localizedDescription(), kConn);
}

TEST_F(StrongSwanManagerTest, CorruptPreferencesStandForAProfileThatASaveReplacesAndKeepsAside) {
    const std::string corrupt = "<plist><dict><key>broken";
    fs::create_directories(prefs.parent_path());
    std::ofstream(prefs) << corrupt;
    make();
    EXPECT_FALSE(call(&ss::StrongSwanManager::loadFromPreferences).has_value());
    EXPECT_TRUE(manager->protocolConfiguration().has_value()) << "a profile is there";
    saveToolProfile();
    EXPECT_EQ(readFile(prefs.string() + ".corrupt"), corrupt);
    make();
    EXPECT_FALSE(call(&ss::StrongSwanManager::loadFromPreferences).has_value());
    EXPECT_EQ(manager->protocolConfiguration(), toolProfile());
}

TEST_F(StrongSwanManagerTest, RemoveClearsCorruptPreferencesAndKeepsThemAside) {
    const std::string corrupt = "not a property list";
    fs::create_directories(prefs.parent_path());
    std::ofstream(prefs) << corrupt;
    make();
    EXPECT_FALSE(call(&ss::StrongSwanManager::loadFromPreferences).has_value());
    ASSERT_TRUE(manager->protocolConfiguration().has_value());
    EXPECT_FALSE(call(&ss::StrongSwanManager::removeFromPreferences).has_value());
    EXPECT_FALSE(fs::exists(prefs));
    EXPECT_EQ(readFile(prefs.string() + ".corrupt"), corrupt);
    EXPECT_FALSE(call(&ss::StrongSwanManager::loadFromPreferences).has_value());
    EXPECT_FALSE(manager->protocolConfiguration().has_value());
}

TEST_F(StrongSwanManagerTest, UnreadablePreferencesAreStillALoadError) {
    fs::create_directories(prefs);  // a folder where the file should be
    make();
    auto error = call(&ss::StrongSwanManager::loadFromPreferences);
    ASSERT_TRUE(error.has_value());
    EXPECT_NE(error->code, 0);
}

TEST_F(StrongSwanManagerTest, RemoveDeletesTheFileAndUnloadsTheConnection) {
    make();
    saveToolProfile();
    EXPECT_FALSE(call(&ss::StrongSwanManager::removeFromPreferences).has_value());
    EXPECT_FALSE(fs::exists(prefs));
    auto unloads = server.requests("unload-conn");
    ASSERT_EQ(unloads.size(), 1u);
    EXPECT_EQ(unloads[0].message.get("name"), kConn);
    EXPECT_FALSE(call(&ss::StrongSwanManager::loadFromPreferences).has_value());
    EXPECT_FALSE(manager->protocolConfiguration().has_value());
    // Removing again, with nothing saved and charon gone, is fine too.
    server.shutdown();
    EXPECT_FALSE(call(&ss::StrongSwanManager::removeFromPreferences).has_value());
}

TEST_F(StrongSwanManagerTest, StartLoadsTheSecretThenInitiatesAndFollowsTheEvents) {
    make();
    saveToolProfile();
    auto error = manager->connection()->startVPNTunnel({"alice", Secret(kPassword)});
    ASSERT_FALSE(error.has_value());
    EXPECT_EQ(status(), platform::NEVPNStatusConnecting);
    EXPECT_EQ(notifications, 0) << "notifications never run inside the call";
    ASSERT_TRUE(runUntil([&] { return !server.requests("initiate").empty(); }));
    EXPECT_EQ(seen, std::vector<NEVPNStatus>{platform::NEVPNStatusConnecting});

    auto got = server.received();
    std::size_t shared = indexOf(got, ViciPacketType::CmdRequest, "load-shared");
    std::size_t initiate = indexOf(got, ViciPacketType::CmdRequest, "initiate");
    ASSERT_LT(shared, got.size());
    ASSERT_LT(initiate, got.size());
    EXPECT_LT(shared, initiate);
    for (const char* event : {"ike-updown", "child-updown", "ike-update", "log"}) {
        std::size_t reg = indexOf(got, ViciPacketType::EventRegister, event);
        ASSERT_LT(reg, got.size()) << event;
        EXPECT_LT(reg, initiate) << event;
        EXPECT_NE(got[reg].connection, got[initiate].connection)
            << "events on their own connection";
    }
    const ViciSection& secret = got[shared].packet.message;
    EXPECT_EQ(secret.get("id"), "orvane-ikev2-eap");
    EXPECT_EQ(secret.get("type"), "EAP");
    EXPECT_EQ(secret.get("data"), kPassword);
    ASSERT_NE(secret.list("owners"), nullptr);
    EXPECT_EQ(*secret.list("owners"), std::vector<std::string>{"fqdn:alice"});
    const ViciSection& init = got[initiate].packet.message;
    EXPECT_EQ(init.get("child"), "orvane");
    EXPECT_EQ(init.get("ike"), kConn);
    EXPECT_EQ(init.get("timeout"), "-1");
    EXPECT_EQ(server.requests("load-conn").size(), 1u) << "only the save loaded the connection";
    EXPECT_LT(indexOf(got, ViciPacketType::CmdRequest, "load-conn"), shared);

    server.emit("ike-updown", updown(kConn, true, "ESTABLISHED", {"127.0.0.1"}));
    server.emit("child-updown", updown(kConn, true, "ESTABLISHED", {"127.0.0.1"}, true));
    ASSERT_TRUE(runUntil([&] { return notified(platform::NEVPNStatusConnected); }));

    // The password is in no log line at any level and not in the file.
    for (const auto& line : logcapture::lines()) {
        EXPECT_EQ(line.find(kPassword), std::string::npos) << line;
    }
    EXPECT_EQ(readFile(prefs).find(kPassword), std::string::npos);
}

TEST_F(StrongSwanManagerTest, StartLoadsTheConnectionWhenTheSaveCouldNot) {
    fs::create_directories(prefs.parent_path());
    ASSERT_TRUE(ss::ProfileStore(prefs).save({toolProfile(), true, kConn}));
    make();
    ASSERT_FALSE(call(&ss::StrongSwanManager::loadFromPreferences).has_value());
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(runUntil([&] { return !server.requests("initiate").empty(); }));
    auto got = server.received();
    std::size_t load = indexOf(got, ViciPacketType::CmdRequest, "load-conn");
    ASSERT_LT(load, got.size());
    EXPECT_LT(load, indexOf(got, ViciPacketType::CmdRequest, "initiate"));
}

// A trust store of two (text-only) certificates, and a charon that holds
// no authorities yet.
void trustStoreOfTwo(FakeCharon& server, const fs::path& bundle) {
    std::ofstream(bundle) << "-----BEGIN CERTIFICATE-----\nQUFB\n-----END CERTIFICATE-----\n"
                          << "-----BEGIN CERTIFICATE-----\nQkJC\n-----END CERTIFICATE-----\n";
    server.on("get-authorities", [](Link& link, const ViciSection&) {
        ViciSection reply;
        reply.addList("authorities", {});
        link.respond(reply);
    });
    server.succeed("load-authority");
}

TEST_F(StrongSwanManagerTest, SaveGivesCharonTheSystemTrustAnchorsAfterItsCompletion) {
    trustStoreOfTwo(server, root / "bundle.pem");
    make([&](ss::StrongSwanOptions& o) { o.trustBundles = {(root / "bundle.pem").string()}; });
    manager->setProtocolConfiguration(toolProfile());
    bool done = false;
    std::size_t asked = 1;
    manager->saveToPreferences([&](const platform::OptionalError& error) {
        EXPECT_FALSE(error.has_value());
        done = true;
        // A run that ends here (create only) has not started on them.
        asked = server.requests("get-authorities").size();
    });
    ASSERT_TRUE(runUntil([&] { return server.requests("load-authority").size() == 2; }));
    EXPECT_TRUE(done);
    EXPECT_EQ(asked, 0u);
    auto got = server.received();
    EXPECT_LT(indexOf(got, ViciPacketType::CmdRequest, "load-conn"),
              indexOf(got, ViciPacketType::CmdRequest, "get-authorities"));
}

TEST_F(StrongSwanManagerTest, StartWaitsForTheSystemTrustAnchors) {
    // charon was away at the save: the start gives it the anchors before
    // the exchange.
    trustStoreOfTwo(server, root / "bundle.pem");
    fs::create_directories(prefs.parent_path());
    ASSERT_TRUE(ss::ProfileStore(prefs).save({toolProfile(), true, kConn}));
    make([&](ss::StrongSwanOptions& o) { o.trustBundles = {(root / "bundle.pem").string()}; });
    ASSERT_FALSE(call(&ss::StrongSwanManager::loadFromPreferences).has_value());
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(runUntil([&] { return !server.requests("initiate").empty(); }));
    auto got = server.received();
    std::size_t initiate = indexOf(got, ViciPacketType::CmdRequest, "initiate");
    std::size_t loads = 0;
    for (std::size_t i = 0; i < got.size(); ++i) {
        if (got[i].packet.name == "load-authority") {
            ++loads;
            EXPECT_LT(i, initiate);
        }
    }
    EXPECT_EQ(loads, 2u);
}

TEST_F(StrongSwanManagerTest, StartIsRefusedWithoutCredentials) {
    make();
    saveToolProfile();
    EXPECT_TRUE(manager->connection()->startVPNTunnel({"alice", Secret("")}).has_value());
    EXPECT_TRUE(manager->connection()->startVPNTunnel({"", Secret(kPassword)}).has_value());
    EXPECT_EQ(status(), platform::NEVPNStatusDisconnected);
}

TEST_F(StrongSwanManagerTest, StartWithoutCharonEndsWithTheReasonThatItIsNotRunning) {
    make();
    saveToolProfile();
    server.shutdown();
    auto since = platform::SystemClock::now();
    EXPECT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    EXPECT_EQ(status(), platform::NEVPNStatusConnecting);
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_EQ(manager->lastDisconnectError(since), "VPN service not running");
}

TEST_F(StrongSwanManagerTest, CharonThatDoesNotAnswerEndsTheStartWithThatReason) {
    server.on("load-shared", [](Link&, const ViciSection&) { VirtualTime::advance(100ms); });
    make([](ss::StrongSwanOptions& o) { o.configTimeout = 100ms; });
    saveToolProfile();
    auto since = platform::SystemClock::now();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_EQ(manager->lastDisconnectError(since), "VPN service not answering");
    EXPECT_TRUE(server.requests("initiate").empty());
}

TEST_F(StrongSwanManagerTest, RefusedSecretEndsTheStartWithoutInitiating) {
    server.on("load-shared", [](Link& link, const ViciSection&) {
        link.respond(success(false, "shared key data missing"));
    });
    make();
    saveToolProfile();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_TRUE(server.requests("initiate").empty());
    EXPECT_TRUE(logcapture::contains("shared key data missing"));
}

TEST_F(StrongSwanManagerTest, DownEventEndsTheTunnelAndLateLogLinesGiveTheReason) {
    make();
    saveToolProfile();
    auto since = platform::SystemClock::now();
    startAndConnect();
    server.emit("ike-updown", updown(kConn, false, "DELETING"));
    server.emit("child-updown", updown(kConn, false, "DELETING", {}, true));
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    // The secret stays while the process runs, and goes when it ends.
    std::size_t unloads = server.requests("unload-shared").size();
    manager->finish();
    ASSERT_EQ(server.requests("unload-shared").size(), unloads + 1);
    EXPECT_EQ(server.requests("unload-shared").back().message.get("id"), "orvane-ikev2-eap");
    // charon's log lines for it come after the down event.
    server.emit("log", logLine("received DELETE for IKE_SA Orvane IKEv2[1]"));
    server.emit("log", logLine("IKE_SA deleted"));
    const auto asked = LoopClock::now();
    EXPECT_EQ(manager->lastDisconnectError(since), "deleted by peer");
    EXPECT_EQ(LoopClock::now() - asked, 50ms) << "a reason is known: the wait ends once quiet";
}

TEST_F(StrongSwanManagerTest, WithoutAReasonLateLogLinesAreWaitedForUpToTheirLimit) {
    make();
    saveToolProfile();
    auto since = platform::SystemClock::now();
    startAndConnect();
    server.emit("ike-updown", updown(kConn, false, "DELETING"));
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    const auto asked = LoopClock::now();
    EXPECT_EQ(manager->lastDisconnectError(since), "");
    EXPECT_EQ(LoopClock::now() - asked, 300ms);
}

TEST_F(StrongSwanManagerTest, AuthenticationFailureGivesItsReason) {
    make();
    saveToolProfile();
    auto since = platform::SystemClock::now();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(runUntil([&] { return !server.requests("initiate").empty(); }));
    server.emit("log",
                logLine("EAP-MS-CHAPv2 failed with error ERROR_AUTHENTICATION_FAILURE: '(null)'"));
    server.emit("log", logLine("EAP_MSCHAPV2 method failed"));
    server.emit("log", logLine("received EAP_FAILURE, EAP authentication failed", "another conn"));
    server.emit("ike-updown", updown(kConn, false, "CONNECTING"));
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_EQ(manager->lastDisconnectError(since), "authentication failed");
    EXPECT_EQ(manager->lastDisconnectError(platform::SystemClock::now() + 1h), "");
}

TEST_F(StrongSwanManagerTest, TunnelThatVanishesWithoutAnEventIsDetected) {
    make();
    saveToolProfile();
    auto since = platform::SystemClock::now();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    waitAnswered("initiate", 1);
    advance(50ms);
    waitAnswered("list-sas", 1);
    EXPECT_EQ(status(), platform::NEVPNStatusConnecting) << "still listed";
    server.emit("log", logLine("retransmit 2 of request with message ID 0"));
    server.emit("log", logLine("giving up after 2 retransmits"));
    {
        std::lock_guard lock(state.mutex);
        state.saPresent = false;
    }
    server.emit("log", logLine("establishing IKE_SA failed, peer not responding"));
    // That line asks for a check at once, not at the next regular one.
    io.poll();
    advance(20ms);
    waitAnswered("list-sas", 2);
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_EQ(manager->lastDisconnectError(since), "peer not responding");
    // Each change is notified once, from the loop.
    EXPECT_TRUE(runUntil([&] { return seen.size() >= 2; }));
    runUntil([] { return false; }, 50ms);
    EXPECT_EQ(seen, (std::vector<NEVPNStatus>{platform::NEVPNStatusConnecting,
                                              platform::NEVPNStatusDisconnected}));
}

TEST_F(StrongSwanManagerTest, SetupIsCheckedOftenButAConnectedTunnelOnlyAtTheSlowInterval) {
    make([](ss::StrongSwanOptions& options) { options.establishedPollInterval = 1h; });
    saveToolProfile();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    waitAnswered("initiate", 1);
    // While connecting, a setup that dies silently is looked for every 50 ms.
    for (std::size_t check = 1; check <= 3; ++check) {
        advance(49ms);
        EXPECT_EQ(server.requests("list-sas").size(), check - 1);
        advance(1ms);
        waitAnswered("list-sas", check);
    }
    {
        std::lock_guard lock(state.mutex);
        state.vips = {"127.0.0.1"};
    }
    server.emit("ike-updown", updown(kConn, true, "ESTABLISHED", {"127.0.0.1"}));
    server.emit("child-updown", updown(kConn, true, "ESTABLISHED", {"127.0.0.1"}, true));
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusConnected; }));
    // The check set while connecting still comes; the next waits an hour.
    advance(50ms);
    waitAnswered("list-sas", 4);
    advance(59min);
    runUntil([] { return false; }, 50ms);
    EXPECT_EQ(server.requests("list-sas").size(), 4u) << "an idle tunnel wakes nobody";
    advance(1min);
    waitAnswered("list-sas", 5);
    EXPECT_EQ(status(), platform::NEVPNStatusConnected);
}

TEST_F(StrongSwanManagerTest, ConnectedTunnelThatVanishesIsFoundByTheSlowCheck) {
    make([](ss::StrongSwanOptions& options) { options.establishedPollInterval = 100ms; });
    saveToolProfile();
    startAndConnect();
    // The first check comes 50 ms after charon's answer to initiate if that
    // answer came while connecting, 100 ms after it if the tunnel was up by
    // then; at 100 ms it has come either way, and the next is due 100 ms
    // after the first is answered.
    waitAnswered("initiate", 1);
    advance(100ms);
    waitAnswered("list-sas", 1);
    {
        std::lock_guard lock(state.mutex);
        state.saPresent = false;
    }
    advance(99ms);
    EXPECT_EQ(status(), platform::NEVPNStatusConnected);
    advance(1ms);
    waitAnswered("list-sas", 2);
    EXPECT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
}

TEST_F(StrongSwanManagerTest, FailedInitiateEndsTheStart) {
    state.initiateAnswer = success(false, "establishing CHILD_SA 'orvane' failed");
    server.on("initiate", [this](Link& link, const ViciSection&) {
        server.emit(
            "log",
            logLine("resolving 'vpn.example.net' failed: Temporary failure in name resolution", "",
                    "LIB"));
        server.emit("log", logLine("unable to resolve vpn.example.net, initiate aborted"));
        link.respond(state.initiateAnswer);
    });
    make();
    saveToolProfile();
    auto since = platform::SystemClock::now();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_EQ(manager->lastDisconnectError(since), "server address not resolved");
    EXPECT_TRUE(logcapture::contains("establishing CHILD_SA 'orvane' failed"));
}

TEST_F(StrongSwanManagerTest, StopTerminatesBeforeItReturns) {
    make();
    saveToolProfile();
    startAndConnect();
    std::size_t before = server.requests("unload-shared").size();
    std::size_t terminatesBefore = server.requests("terminate").size();
    manager->connection()->stopVPNTunnel();
    // Without turning the loop: the requests are already with charon.
    auto terminates = server.requests("terminate");
    ASSERT_EQ(terminates.size(), terminatesBefore + 1);
    EXPECT_EQ(terminates.back().message.get("ike"), kConn);
    EXPECT_EQ(terminates.back().message.get("force"), "yes");
    EXPECT_EQ(terminates.back().message.get("timeout"), "-1");
    EXPECT_EQ(server.requests("unload-shared").size(), before + 1);
    EXPECT_EQ(server.requests("unload-shared").back().message.get("id"), "orvane-ikev2-eap");
    auto got = server.received();
    EXPECT_LT(lastIndexOf(got, ViciPacketType::CmdRequest, "unload-shared"),
              lastIndexOf(got, ViciPacketType::CmdRequest, "terminate"))
        << "the secret goes first";
    EXPECT_EQ(status(), platform::NEVPNStatusDisconnecting);
    server.emit("ike-updown", updown(kConn, false, "DELETING"));
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
}

TEST_F(StrongSwanManagerTest, AHungCharonHoldsTheStopOnlyBriefly) {
    make([](ss::StrongSwanOptions& o) { o.stopTimeout = 100ms; });
    saveToolProfile();
    startAndConnect();
    // charon sits on every request; the first one's wait runs out meanwhile.
    auto waitedOut = std::make_shared<std::atomic<bool>>(false);
    server.on("terminate", [](Link&, const ViciSection&) {});
    server.on("unload-shared", [waitedOut](Link&, const ViciSection&) {
        if (!waitedOut->exchange(true)) {
            VirtualTime::advance(100ms);
        }
    });
    std::size_t unloads = server.requests("unload-shared").size();
    std::size_t terminates = server.requests("terminate").size();
    auto start = LoopClock::now();
    manager->connection()->stopVPNTunnel();
    EXPECT_EQ(LoopClock::now() - start, 100ms);
    // Both go out again on a connection left open for charon to answer.
    EXPECT_TRUE(server.waitFor(
        [&] {
            return server.requests("unload-shared").size() == unloads + 2 &&
                   server.requests("terminate").size() == terminates + 1;
        },
        1000ms));
    EXPECT_EQ(status(), platform::NEVPNStatusDisconnecting);
    // A charon known not to answer is not waited for again at the end.
    start = LoopClock::now();
    manager->finish();
    EXPECT_EQ(LoopClock::now() - start, 0ms);
}

TEST_F(StrongSwanManagerTest, TerminateThatHangsDoesNotKeepTheSecretLoaded) {
    make([](ss::StrongSwanOptions& o) { o.stopTimeout = 100ms; });
    saveToolProfile();
    startAndConnect();
    server.on("terminate", [](Link&, const ViciSection&) { VirtualTime::advance(100ms); });
    std::size_t unloads = server.requests("unload-shared").size();
    manager->connection()->stopVPNTunnel();
    EXPECT_EQ(server.requests("unload-shared").size(), unloads + 1);
    manager->finish();
    EXPECT_EQ(server.requests("unload-shared").size(), unloads + 1) << "unloaded once";
}

TEST_F(StrongSwanManagerTest, UnansweredLoadConnIsNoSaveError) {
    server.on("load-conn", [](Link&, const ViciSection&) { VirtualTime::advance(100ms); });
    make([](ss::StrongSwanOptions& o) { o.configTimeout = 100ms; });
    saveToolProfile();
    EXPECT_FALSE(manager->connectionLoaded());
    EXPECT_TRUE(fs::exists(prefs));
}

TEST_F(StrongSwanManagerTest, StopWhileConnectingEndsWithoutADownEvent) {
    make();
    saveToolProfile();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    waitAnswered("initiate", 1);
    manager->connection()->stopVPNTunnel();
    EXPECT_EQ(status(), platform::NEVPNStatusDisconnecting);
    // A half-open IKE_SA ends without an event: it is looked for soon.
    advance(20ms);
    waitAnswered("list-sas", 1);
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
}

TEST_F(StrongSwanManagerTest, StopBeforeStartSendsNothing) {
    make();
    ASSERT_NE(manager->connection(), nullptr);
    EXPECT_EQ(status(), platform::NEVPNStatusInvalid) << "nothing configured yet";
    manager->connection()->stopVPNTunnel();
    EXPECT_TRUE(server.requests("terminate").empty());
    saveToolProfile();
    EXPECT_EQ(status(), platform::NEVPNStatusDisconnected);
    ASSERT_TRUE(trustAsked());
    std::size_t afterSave = server.received().size();
    manager->connection()->stopVPNTunnel();
    manager->finish();
    EXPECT_EQ(server.received().size(), afterSave);
}

TEST_F(StrongSwanManagerTest, ARestartedCharonGetsTheConnectionAgain) {
    make();
    saveToolProfile();
    startAndConnect();
    server.hangUpAll();
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_FALSE(manager->connectionLoaded());
    std::size_t loads = server.requests("load-conn").size();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(runUntil([&] { return server.requests("initiate").size() == 2; }));
    EXPECT_EQ(server.requests("load-conn").size(), loads + 1);
}

TEST_F(StrongSwanManagerTest, EndpointChangeWhileConnectedReasserts) {
    make();
    saveToolProfile();
    startAndConnect();
    ViciSection update = updown(kConn, false, "ESTABLISHED");
    update.add("local-host", "10.0.0.9");
    server.emit("ike-update", update);
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusReasserting; }));
}

TEST_F(StrongSwanManagerTest, CharonGoingAwayEndsTheTunnel) {
    auto since = connectedSince();
    server.hangUpAll();
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_EQ(manager->lastDisconnectError(since), "VPN service stopped");
}

TEST_F(StrongSwanManagerTest, ServicesNameCharonsConnectionsAndTheTunnelInterface) {
    state.conns = {"site-to-site", kConn};
    make();
    saveToolProfile();
    startAndConnect();
    auto services = manager->networkServices();
    ASSERT_TRUE(services.has_value());
    ASSERT_EQ(services->size(), 2u);
    EXPECT_EQ((*services)[0].name, "site-to-site");
    EXPECT_FALSE((*services)[0].interfaceName.has_value());
    EXPECT_EQ((*services)[1].name, kConn);
    // The virtual IP of this fake tunnel is the loopback address.
    EXPECT_EQ((*services)[1].interfaceName, ss::interfaceForAddress("127.0.0.1"));
}

TEST_F(StrongSwanManagerTest, ServicesFallBackToIpsec0AndToNoneWithoutCharon) {
    make();
    {
        std::lock_guard lock(state.mutex);
        state.saPresent = true;
        state.vips = {"192.0.2.201"};
    }
    auto services = manager->networkServices();
    ASSERT_TRUE(services.has_value());
    ASSERT_EQ(services->size(), 1u);
    EXPECT_EQ((*services)[0].interfaceName, "ipsec0");
    server.shutdown();
    EXPECT_FALSE(manager->networkServices().has_value());
}

TEST_F(StrongSwanManagerTest, WithoutASystemBusTheTunnelRunsAsUsual) {
    make([](ss::StrongSwanOptions& o) { o.sleep.bus = "unix:path=/nonexistent/bus_socket"; });
    saveToolProfile();
    startAndConnect();
    EXPECT_TRUE(logcapture::contains("no system bus, sleep is not watched"));
    for (const auto& entry : logcapture::entries()) {
        EXPECT_EQ(entry.flag, DDLogFlagDebug) << entry.message;
    }
}

// The backend watching for sleep on a private bus with a logind stand-in.
class StrongSwanSleepTest : public StrongSwanManagerTest {
  protected:
    void SetUp() override {
        StrongSwanManagerTest::SetUp();
        testlogind::start(bus, standIn);
    }

    ss::StrongSwanManager& makeWatching() {
        return make([this](ss::StrongSwanOptions& o) {
            o.sleep.bus = bus->address();
            o.sleep.acknowledgeWait = 200ms;
        });
    }

    bool lockHeld() {
        return runUntil([&] { return standIn->held() == 1; });
    }
    bool lockReleased() {
        return runUntil([&] { return standIn->held() == 0 && standIn->released() == 1; });
    }

    std::unique_ptr<logind::PrivateBus> bus;
    std::unique_ptr<logind::LogindStandIn> standIn;
};

TEST_F(StrongSwanSleepTest, SleepStopsTheTunnelWithTheSleepReasonAndThenReleasesTheLock) {
    makeWatching();
    saveToolProfile();
    auto since = platform::SystemClock::now();
    startAndConnect();
    ASSERT_TRUE(lockHeld());
    seen.clear();
    std::size_t before = server.requests("terminate").size();
    standIn->prepareForSleep(true);
    ASSERT_TRUE(runUntil([&] { return notified(platform::NEVPNStatusDisconnected); }));
    // The server first gets a bounded moment to acknowledge the DELETE,
    // then the ordinary stop follows.
    auto terminates = server.requests("terminate");
    ASSERT_EQ(terminates.size(), before + 2);
    EXPECT_EQ(terminates[before].message.get("ike"), kConn);
    EXPECT_EQ(terminates[before].message.get("force"), "yes");
    EXPECT_EQ(terminates[before].message.get("timeout"), "200");
    EXPECT_EQ(terminates[before + 1].message.get("timeout"), "-1");
    EXPECT_TRUE(lockReleased());
    EXPECT_EQ(seen, (std::vector<NEVPNStatus>{platform::NEVPNStatusDisconnecting,
                                              platform::NEVPNStatusDisconnected}));
    EXPECT_EQ(manager->lastDisconnectError(since), "system going to sleep");
}

TEST_F(StrongSwanSleepTest, SleepWhileConnectingEndsTheStartWithTheSleepReason) {
    makeWatching();
    saveToolProfile();
    auto since = platform::SystemClock::now();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(lockHeld());
    standIn->prepareForSleep(true);
    ASSERT_TRUE(runUntil([&] { return notified(platform::NEVPNStatusDisconnected); }));
    EXPECT_TRUE(lockReleased());
    EXPECT_EQ(manager->lastDisconnectError(since), "system going to sleep");
}

TEST_F(StrongSwanSleepTest, TheLockIsReleasedWhenTheTunnelEndsForAnotherReason) {
    makeWatching();
    saveToolProfile();
    auto since = platform::SystemClock::now();
    startAndConnect();
    ASSERT_TRUE(lockHeld());
    server.emit("ike-updown", updown(kConn, false, "DELETING"));
    server.emit("log", logLine("received DELETE for IKE_SA Orvane IKEv2[1]"));
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_TRUE(lockReleased());
    EXPECT_EQ(manager->lastDisconnectError(since), "deleted by peer");
}

TEST_F(StrongSwanSleepTest, AProfileThatStaysUpInSleepTakesNoLock) {
    makeWatching();
    auto profile = toolProfile();
    profile.disconnectOnSleep = false;
    manager->setProtocolConfiguration(profile);
    ASSERT_FALSE(call(&ss::StrongSwanManager::saveToPreferences).has_value());
    startAndConnect();
    runUntil([] { return false; }, 200ms);
    EXPECT_TRUE(standIn->inhibitors().empty());
}

TEST_F(StrongSwanManagerTest, StartFirstEndsTheIkeSaAnEarlierRunLeftInCharon) {
    make();
    saveToolProfile();
    EXPECT_TRUE(server.requests("terminate").empty()) << "the save leaves charon's SAs alone";
    {
        std::lock_guard lock(state.mutex);
        state.saPresent = true;  // left by a killed run
    }
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(runUntil([&] { return !server.requests("initiate").empty(); }));
    auto got = server.received();
    std::size_t terminate = indexOf(got, ViciPacketType::CmdRequest, "terminate");
    ASSERT_LT(terminate, got.size());
    EXPECT_EQ(got[terminate].packet.message.get("ike"), kConn);
    EXPECT_EQ(got[terminate].packet.message.get("force"), "yes");
    EXPECT_LT(terminate, indexOf(got, ViciPacketType::CmdRequest, "initiate"));
    EXPECT_EQ(got[terminate].connection,
              got[indexOf(got, ViciPacketType::CmdRequest, "load-shared")].connection);
}

TEST_F(StrongSwanManagerTest, StartGoesOnWhenNothingWasLeftToEnd) {
    server.on("terminate", [](Link& link, const ViciSection&) {
        link.respond(success(false, "no matching SAs to terminate found"));
    });
    make();
    saveToolProfile();
    startAndConnect();
}

TEST_F(StrongSwanManagerTest, SecondInstanceCannotSaveAndLeavesTheFirstAlone) {
    make();
    saveToolProfile();
    const std::string saved = readFile(prefs);
    ASSERT_TRUE(trustAsked());
    asio::io_context otherIo;
    ss::StrongSwanOptions options = manager->options();
    ss::StrongSwanManager second(otherIo, options);
    std::size_t requests = server.received().size();
    second.setProtocolConfiguration(toolProfile("other.example.net"));
    std::optional<platform::OptionalError> result;
    second.saveToPreferences([&](const platform::OptionalError& error) { result = error; });
    otherIo.run();
    ASSERT_TRUE(result.has_value());
    ASSERT_TRUE(result->has_value());
    EXPECT_EQ((*result)->code, ss::NEVPNErrorConfigurationReadWriteFailed);
    EXPECT_NE((*result)->description.find("in use by another orvane-ikev2 (pid " +
                                          std::to_string(::getpid()) + ")"),
              std::string::npos)
        << (*result)->description;
    EXPECT_EQ(server.received().size(), requests) << "charon untouched";
    EXPECT_EQ(readFile(prefs), saved) << "profile untouched";
}

TEST_F(StrongSwanManagerTest, ProfileCharonRefusesLeavesTheSavedFileUnchanged) {
    make();
    saveToolProfile();
    const std::string saved = readFile(prefs);
    state.loadConnAnswer = success(false, "invalid value for: remote_addrs, config discarded");
    manager->setProtocolConfiguration(toolProfile("other.example.net"));
    auto error = call(&ss::StrongSwanManager::saveToPreferences);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(readFile(prefs), saved);
}

TEST_F(StrongSwanManagerTest, ProfileCharonRefusesIsNotWrittenWhenNoneWasSaved) {
    state.loadConnAnswer = success(false, "invalid value for: remote_addrs, config discarded");
    make();
    manager->setProtocolConfiguration(toolProfile());
    ASSERT_TRUE(call(&ss::StrongSwanManager::saveToPreferences).has_value());
    EXPECT_FALSE(fs::exists(prefs));
}

TEST_F(StrongSwanManagerTest, FileThatCannotBeWrittenTakesTheConnectionBackOutOfCharon) {
    fs::create_directories(prefs);  // a folder where the file should be
    make();
    manager->setProtocolConfiguration(toolProfile());
    ASSERT_TRUE(call(&ss::StrongSwanManager::saveToPreferences).has_value());
    auto got = server.received();
    EXPECT_LT(indexOf(got, ViciPacketType::CmdRequest, "load-conn"),
              indexOf(got, ViciPacketType::CmdRequest, "unload-conn"));
    EXPECT_LT(indexOf(got, ViciPacketType::CmdRequest, "unload-conn"), got.size());
    EXPECT_FALSE(manager->connectionLoaded());
}

TEST_F(StrongSwanManagerTest, RemoveEndsALiveTunnelOfTheProfile) {
    make();
    saveToolProfile();
    std::size_t terminates = server.requests("terminate").size();
    EXPECT_FALSE(call(&ss::StrongSwanManager::removeFromPreferences).has_value());
    auto got = server.received();
    ASSERT_EQ(server.requests("terminate").size(), terminates + 1);
    EXPECT_EQ(server.requests("terminate").back().message.get("ike"), kConn);
    EXPECT_LT(lastIndexOf(got, ViciPacketType::CmdRequest, "terminate"),
              lastIndexOf(got, ViciPacketType::CmdRequest, "unload-conn"));
}

TEST_F(StrongSwanManagerTest, ReauthenticationKeepsTheTunnelAndTheSecret) {
    make();
    saveToolProfile();
    startAndConnect();
    int before = notifications;
    std::size_t unloads = server.requests("unload-shared").size();
    auto reauth = [](ViciSection event) {
        for (auto& entry : event.entries()) {
            if (entry.name == kConn) {
                entry.section.addList("tasks-active", {"IKE_REAUTH"});
            }
        }
        return event;
    };
    server.emit("ike-updown", reauth(updown(kConn, false, "DELETING")));
    server.emit("child-updown", reauth(updown(kConn, false, "DELETING", {}, true)));
    server.emit("ike-updown", updown(kConn, true, "ESTABLISHED", {"127.0.0.1"}));
    server.emit("child-updown", updown(kConn, true, "ESTABLISHED", {"127.0.0.1"}, true));
    runUntil([] { return false; }, 100ms);
    EXPECT_EQ(status(), platform::NEVPNStatusConnected);
    EXPECT_EQ(notifications, before) << "no status change";
    EXPECT_EQ(server.requests("unload-shared").size(), unloads);
}

TEST_F(StrongSwanManagerTest, TunnelRefusedUnderAnEstablishedIkeSaEndsTheStartWithTheReason) {
    make();
    saveToolProfile();
    auto since = platform::SystemClock::now();
    ASSERT_FALSE(manager->connection()->startVPNTunnel({"alice", Secret(kPassword)}).has_value());
    ASSERT_TRUE(runUntil([&] { return !server.requests("initiate").empty(); }));
    std::size_t terminates = server.requests("terminate").size();
    server.emit("ike-updown", updown(kConn, true, "ESTABLISHED", {"127.0.0.1"}));
    server.emit("log", logLine("received NO_PROPOSAL_CHOSEN notify, no CHILD_SA built"));
    server.emit("log", logLine("failed to establish CHILD_SA, keeping IKE_SA"));
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_EQ(server.requests("terminate").size(), terminates + 1) << "charon keeps no IKE_SA";
    EXPECT_EQ(manager->lastDisconnectError(since), "no proposal chosen");
}

TEST_F(StrongSwanManagerTest, CharonShuttingDownUnderTheTunnelGivesTheReason) {
    auto since = connectedSince();
    server.emit("log", logLine("SIGTERM received, shutting down", "", "DMN"));
    server.emit("ike-updown", updown(kConn, false, "DELETING"));
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    EXPECT_EQ(manager->lastDisconnectError(since), "VPN service stopped");
}

TEST_F(StrongSwanManagerTest, CharonClosingRightAfterTheTunnelWentDownGivesTheReason) {
    // Shutting down, charon deletes the IKE_SA and closes its socket; its
    // own log line about it may be lost on the way.
    auto since = connectedSince();
    server.emit("ike-updown", updown(kConn, false, "DELETING"));
    ASSERT_TRUE(runUntil([&] { return status() == platform::NEVPNStatusDisconnected; }));
    server.hangUpAll();
    EXPECT_EQ(manager->lastDisconnectError(since), "VPN service stopped");
}

TEST_F(StrongSwanManagerTest, CharonClosingTogetherWithTheDownEventGivesTheReason) {
    // The down event and the end of the stream are read at once, so the
    // stream is gone before the reason is asked for.
    auto since = connectedSince();
    server.emit("ike-updown", updown(kConn, false, "DELETING"));
    server.hangUpAll();
    ASSERT_TRUE(runUntil([&] {
        return status() == platform::NEVPNStatusDisconnected &&
               logcapture::contains("IKEv2 charon event connection lost");
    }));
    EXPECT_EQ(manager->lastDisconnectError(since), "VPN service stopped");
}

}  // namespace
