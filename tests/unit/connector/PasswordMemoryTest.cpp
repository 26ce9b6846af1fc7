// No copy of the password outlives its use: after the configuration file
// is read only the connector holds it, and after the start request not even
// the connector. The process's own memory is searched for any piece of it.

#include "tests/unit/connector/ConnectorFixture.h"
#include "tests/unit/double/PlantedSecret.h"

#include <cstdio>
#include <string>

using testing_support::deepInTheStack;
using testing_support::PlantedSecret;

namespace {

class PasswordMemoryTest : public ConnectorTest {
  protected:
    void SetUp() override {
        ConnectorTest::SetUp();
        char name[] = "/tmp/orvane-password-XXXXXX";
        const int fd = ::mkstemp(name);
        ASSERT_GE(fd, 0);
        ::close(fd);
        path_ = name;
    }
    void TearDown() override {
        std::remove(path_.c_str());
        ConnectorTest::TearDown();
    }

    // A typical configuration file with the planted password.
    void writeConfig(const std::string& after = "\nremote=gw.example.net\n") {
        ASSERT_TRUE(planted_.writeFile(path_, "ip=203.0.113.7\nusername=alice\npassword=", after));
    }

    // No piece of the password in this process's memory.
    void expectNotInMemory() {
        const auto scan = planted_.scan();
        if (!scan.readable) {
            GTEST_SKIP() << "this process's memory cannot be read";
        }
        EXPECT_EQ(scan.hits, 0u) << scan.describe();
    }

    const PlantedSecret planted_;
    std::string path_;
};

}  // namespace

TEST_F(PasswordMemoryTest, ReadingTheFileLeavesNoCopyInTheReadersBuffers) {
    writeConfig();
    deepInTheStack([this] {
        const auto config = ParseConfig(path_);
        ASSERT_TRUE(config.has_value());
        ASSERT_EQ(config->count("password"), 1u);
        EXPECT_TRUE(planted_.is(config->find("password")->second.view()));
    });
    expectNotInMemory();
}

TEST_F(PasswordMemoryTest, LaterPasswordLineLeavesNoCopyOfTheEarlierOne) {
    writeConfig("\npassword=the later one\n");
    std::optional<ConfigDictionary> config;
    deepInTheStack([this, &config] { config = ParseConfig(path_); });
    ASSERT_TRUE(config.has_value());
    EXPECT_EQ(config->find("password")->second, "the later one");
    expectNotInMemory();
}

TEST_F(PasswordMemoryTest, PasswordLineCutAcrossTwoReadsLeavesNoCopyInAKey) {
    // The first read ends 24 bytes into the password; the rest of the line,
    // "<24 bytes>=tail", reads as a line whose key is those 24 bytes.
    const std::string before = "password=" + std::string(255 - 9 - 8, 'x');
    ASSERT_TRUE(planted_.writeFile(path_, before, "=tail\n"));
    deepInTheStack([this] {
        const auto config = ParseConfig(path_);
        ASSERT_TRUE(config.has_value());
        ASSERT_EQ(config->size(), 2u);
        const auto spilled = config->find("password") == config->begin()
                                 ? std::next(config->begin())
                                 : config->begin();
        EXPECT_EQ(spilled->first.size(), 24u);
        EXPECT_EQ(spilled->second, "tail");
    });
    expectNotInMemory();
}

TEST_F(PasswordMemoryTest, ConnectorFromTheFileHoldsTheOnlyCopy) {
    writeConfig();
    std::shared_ptr<OVConnectorIKEv2> connector;
    deepInTheStack([this, &connector] { connector = OVConnectorIKEv2::initWithConfigFile(path_); });
    ASSERT_TRUE(connector->password().has_value());
    EXPECT_TRUE(planted_.is(connector->password()->view()));
    connector->setPassword(std::nullopt);
    expectNotInMemory();
}

TEST_F(PasswordMemoryTest, AfterTheStartRequestTheConnectorHoldsNoPassword) {
    writeConfig();
    auto connector = OVConnectorIKEv2::initWithConfigFile(path_);
    connectAndStart(*connector);
    EXPECT_EQ(connector->password(), std::nullopt);
    ASSERT_EQ(platform().startRequests().size(), 1u);
    EXPECT_TRUE(planted_.is(platform().startRequests()[0].password.view()));
}

TEST_F(PasswordMemoryTest, AfterTheStartRequestNoCopyIsLeftInMemory) {
    writeConfig();
    deepInTheStack([this] {
        auto connector = OVConnectorIKEv2::initWithConfigFile(path_);
        connectAndStart(*connector);
        ASSERT_EQ(platform().startRequests().size(), 1u);
        // What the backend was handed is the double's own copy, not the
        // connector's; a backend keeps none.
        platform().reset();
    });
    expectNotInMemory();
}
