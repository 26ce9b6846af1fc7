#include "platform/strongswan/SystemTrust.h"

#include "tests/unit/platform/strongswan/FakeCharon.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>

namespace ss = platform::strongswan;
namespace fs = std::filesystem;
using fakecharon::FakeCharon;
using fakecharon::Link;
using ss::ViciSection;

namespace {

using namespace std::chrono_literals;

// Certificate blocks: the parser and charon's double only look at the
// text, so any base64 will do.
const std::string kBodyA =
    "QUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFB";
const std::string kNameA =
    "orvane-ikev2-system-ca-"
    "1e9a88470aee1347f382325f2bd0f04a51d8f282de1d7d1de5782cc9153fe0f8";
const std::string kBodyB = "QkJCQg==";
const std::string kNameB =
    "orvane-ikev2-system-ca-"
    "8c66edc28187793d47172b688a2ac4ef7c15a298325bfa9551a1ed71773fdf2d";

std::string block(const std::string& body, std::size_t width = 64) {
    std::string out = "-----BEGIN CERTIFICATE-----\n";
    for (std::size_t at = 0; at < body.size(); at += width) {
        out += body.substr(at, width) + "\n";
    }
    return out + "-----END CERTIFICATE-----\n";
}

ViciSection answer(bool ok, const std::string& errmsg = {}) {
    ViciSection s;
    s.add("success", ok ? "yes" : "no");
    if (!errmsg.empty()) {
        s.add("errmsg", errmsg);
    }
    return s;
}

TEST(SystemTrustTest, BundleCertificatesAreNamedByTheirContent) {
    std::string bundle = "# comment\n" + block(kBodyA) + "junk between\n" + block(kBodyB) +
                         // the same certificate wrapped otherwise
                         block(kBodyA, 16) +
                         "-----BEGIN TRUSTED CERTIFICATE-----\nQ0M=\n"
                         "-----END TRUSTED CERTIFICATE-----\n" +
                         "-----BEGIN CERTIFICATE-----\nRERE\n";  // cut off
    auto anchors = ss::parseTrustBundle(bundle);
    ASSERT_EQ(anchors.size(), 2u);
    EXPECT_EQ(anchors[0].name, kNameA);
    EXPECT_EQ(anchors[0].pem, block(kBodyA));
    EXPECT_EQ(anchors[1].name, kNameB);
    EXPECT_EQ(anchors[1].pem, block(kBodyB));
    EXPECT_TRUE(ss::parseTrustBundle("").empty());
}

TEST(SystemTrustTest, PlanLoadsWhatIsMissingAndUnloadsOnlyOursThatLeftTheStore) {
    auto store = ss::parseTrustBundle(block(kBodyA) + block(kBodyB));
    const std::string stale = std::string(ss::kTrustAnchorPrefix) + "00ff";
    auto changes = ss::planTrustChanges({kNameA, stale, "lab-ca", "corporate"}, store);
    ASSERT_EQ(changes.load.size(), 1u);
    EXPECT_EQ(changes.load[0]->name, kNameB);
    EXPECT_EQ(changes.unload, std::vector<std::string>{stale});

    changes = ss::planTrustChanges({kNameA, kNameB}, store);
    EXPECT_TRUE(changes.load.empty());
    EXPECT_TRUE(changes.unload.empty());
}

class SystemTrustSyncTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/systemtrust.XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root = pattern;
        bundle = root / "ca-certificates.crt";
        std::ofstream(bundle) << block(kBodyA) << block(kBodyB);
        server.on("get-authorities", [this](Link& link, const ViciSection&) {
            ViciSection reply;
            std::lock_guard lock(mutex);
            reply.addList("authorities", loaded);
            link.respond(reply);
        });
        server.on("load-authority", [this](Link& link, const ViciSection& request) {
            std::lock_guard lock(mutex);
            bool refuse = request.section(refusedName) != nullptr;
            link.respond(refuse ? answer(false, "CA certificate missing: x") : answer(true));
        });
        server.succeed("unload-authority");
        server.on("list-certs", [](Link& link, const ViciSection&) { link.respond({}); });
        client = ss::ViciClient::create(io, server.path());
        ASSERT_TRUE(client->connect());
    }
    void TearDown() override { fs::remove_all(root); }

    // Runs a sync to its end; returns how often `done` was called.
    int syncOnce(ss::SystemTrust& trust) {
        int calls = 0;
        trust.sync(client, [&calls] { ++calls; });
        EXPECT_EQ(calls, 0) << "done ran inside the call";
        auto deadline = std::chrono::steady_clock::now() + 3s;
        while (calls == 0 && std::chrono::steady_clock::now() < deadline) {
            io.restart();
            io.run_for(5ms);
        }
        io.restart();
        io.run_for(20ms);
        return calls;
    }

    asio::io_context io;
    FakeCharon server;
    std::shared_ptr<ss::ViciClient> client;
    fs::path root;
    fs::path bundle;
    std::mutex mutex;
    std::vector<std::string> loaded;
    std::string refusedName;
};

TEST_F(SystemTrustSyncTest, LoadsMissingCertificatesAsAuthoritiesAndUnloadsStaleOnes) {
    const std::string stale = std::string(ss::kTrustAnchorPrefix) + "00ff";
    {
        std::lock_guard lock(mutex);
        loaded = {stale, "lab-ca"};
        refusedName = kNameB;  // as charon refuses a key type it cannot parse
    }
    ss::SystemTrust trust(io, {(root / "missing.pem").string(), bundle.string()});
    EXPECT_FALSE(trust.finished());
    EXPECT_EQ(syncOnce(trust), 1);
    EXPECT_TRUE(trust.finished());
    auto loads = server.requests("load-authority");
    ASSERT_EQ(loads.size(), 2u);
    ASSERT_NE(loads[0].message.section(kNameA), nullptr);
    EXPECT_EQ(loads[0].message.section(kNameA)->get("cacert"), block(kBodyA));
    ASSERT_NE(loads[1].message.section(kNameB), nullptr);
    auto unloads = server.requests("unload-authority");
    ASSERT_EQ(unloads.size(), 1u);
    EXPECT_EQ(unloads[0].message.get("name"), stale);
    // Then a lookup that makes charon work out the new certificates' key
    // ids now rather than in the first exchange.
    auto lookups = server.requests("list-certs");
    ASSERT_EQ(lookups.size(), 1u);
    EXPECT_EQ(lookups[0].message.get("type"), "X509");
    EXPECT_EQ(lookups[0].message.get("subject"), "keyid:#00");
    auto got = server.received();
    EXPECT_EQ(got.back().packet.name, "list-certs");

    // Once done, later calls only hear that it is.
    EXPECT_EQ(syncOnce(trust), 1);
    EXPECT_EQ(server.requests("get-authorities").size(), 1u);
    EXPECT_EQ(server.requests("load-authority").size(), 2u);
}

TEST_F(SystemTrustSyncTest, WhatCharonHoldsAlreadyIsOnlyListed) {
    {
        std::lock_guard lock(mutex);
        loaded = {kNameB, kNameA};
    }
    ss::SystemTrust trust(io, {bundle.string()});
    EXPECT_EQ(syncOnce(trust), 1);
    EXPECT_EQ(server.requests("get-authorities").size(), 1u);
    EXPECT_TRUE(server.requests("load-authority").empty());
    EXPECT_TRUE(server.requests("unload-authority").empty());
    EXPECT_TRUE(server.requests("list-certs").empty());
}

TEST_F(SystemTrustSyncTest, NoStoreOnTheSystemMeansNoneOfOursStays) {
    {
        std::lock_guard lock(mutex);
        loaded = {kNameA, "lab-ca"};
    }
    ss::SystemTrust trust(io, {(root / "missing.pem").string()});
    EXPECT_EQ(syncOnce(trust), 1);
    EXPECT_TRUE(server.requests("load-authority").empty());
    auto unloads = server.requests("unload-authority");
    ASSERT_EQ(unloads.size(), 1u);
    EXPECT_EQ(unloads[0].message.get("name"), kNameA);
}

TEST_F(SystemTrustSyncTest, UnreadableStoreLeavesCharonAsItIs) {
    fs::create_directories(root / "folder.pem");
    ss::SystemTrust trust(io, {(root / "folder.pem").string(), bundle.string()});
    EXPECT_EQ(syncOnce(trust), 1);
    EXPECT_TRUE(trust.finished());
    EXPECT_TRUE(server.requests("get-authorities").empty());
}

TEST_F(SystemTrustSyncTest, CharonGoingAwayInTheMiddleEndsIt) {
    server.on("load-authority", [](Link& link, const ViciSection&) { link.hangUp(); });
    ss::SystemTrust trust(io, {bundle.string()});
    EXPECT_EQ(syncOnce(trust), 1);
    EXPECT_TRUE(trust.finished());
    EXPECT_EQ(server.requests("load-authority").size(), 1u);
}

TEST_F(SystemTrustSyncTest, CharonWithoutAuthoritiesIsNoError) {
    FakeCharon bare;
    client = ss::ViciClient::create(io, bare.path());
    ASSERT_TRUE(client->connect());
    ss::SystemTrust trust(io, {bundle.string()});
    EXPECT_EQ(syncOnce(trust), 1);
    EXPECT_TRUE(bare.requests("load-authority").empty());

    // Nor is a charon that is not there.
    ss::SystemTrust alone(io, {bundle.string()});
    client.reset();
    EXPECT_EQ(syncOnce(alone), 1);
}

}  // namespace
