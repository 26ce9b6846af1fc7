#include "log/DDLog.h"
#include "tests/unit/double/ChildProcess.h"
#include "tests/unit/double/FinishRecorder.h"
#include "tool/Tool.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>

using testing_support::FinishRecorder;
using testing_support::StderrCapture;
using tool::run_mode;
using tool::RunMode;

namespace {

cli::GBSettingsRef settingsWith(std::initializer_list<const char*> switches,
                                const char* config = nullptr) {
    auto settings = cli::GBSettings::settingsWithName(std::string("Current"),
                                                      std::make_shared<cli::GBSettings>());
    for (const char* key : switches) {
        settings->setBool(true, key);
    }
    if (config != nullptr) {
        settings->setObject(cli::Value(config), "config");
    }
    return settings;
}

}  // namespace

TEST(PlaceholdersTest, RandomIpIsFourDottedNumbersWithAFirstOctetFrom11To250) {
    const std::regex shape(R"((\d+)\.(\d+)\.(\d+)\.(\d+))");
    for (int i = 0; i < 2000; ++i) {
        const std::string ip = random_ip();
        std::smatch m;
        ASSERT_TRUE(std::regex_match(ip, m, shape)) << ip;
        const int first = std::stoi(m[1].str());
        EXPECT_GE(first, 11);
        EXPECT_LE(first, 250);
        for (int k = 2; k <= 4; ++k) {
            EXPECT_LE(std::stoi(m[k].str()), 255);
        }
    }
}

TEST(PlaceholdersTest, RandomUsernameIsSixLowerCaseLetters) {
    const std::regex shape("[a-z]{6}");
    for (int i = 0; i < 2000; ++i) {
        const std::string name = random_username();
        EXPECT_TRUE(std::regex_match(name, shape)) << name;
    }
}

TEST(PlaceholdersTest, CheckAndCreateTogetherMeanCreateMode) {
    const RunMode mode = run_mode(*settingsWith({"check", "create"}));
    EXPECT_FALSE(mode.checkOnly);
    EXPECT_TRUE(mode.createOnly);
    EXPECT_TRUE(run_mode(*settingsWith({"check"})).checkOnly);
    EXPECT_FALSE(run_mode(*settingsWith({"check"})).createOnly);
    const RunMode none = run_mode(*settingsWith({}));
    EXPECT_FALSE(none.checkOnly);
    EXPECT_FALSE(none.createOnly);
}

TEST(PlaceholdersTest,
     CheckOrCreateWithoutConfigGetPlaceholderServerAndUserNameAndAnEmptyPassword) {
    for (const char* mode : {"check", "create"}) {
        const auto settings = settingsWith({mode});
        const auto built = tool::build_connector(*settings, run_mode(*settings), finishProcess);
        ASSERT_TRUE(built);
        EXPECT_TRUE(
            std::regex_match(built->server().value_or(""), std::regex(R"(\d+\.\d+\.\d+\.\d+)")));
        EXPECT_TRUE(std::regex_match(built->username().value_or(""), std::regex("[a-z]{6}")));
        EXPECT_EQ(built->password(), std::optional<std::string>(""));
        EXPECT_EQ(built->remoteID(), kDefaultRemoteID);
    }
}

TEST(PlaceholdersTest, ConfigFileIsReadWhenItExists) {
    char name[] = "/tmp/orvane-tool-config-XXXXXX";
    const int fd = ::mkstemp(name);
    ASSERT_GE(fd, 0);
    ::close(fd);
    std::ofstream(name) << "ip=198.51.100.1\nusername=carol\npassword=pw\n";
    const auto settings = settingsWith({"check"}, name);
    const auto built = tool::build_connector(*settings, run_mode(*settings), finishProcess);
    std::remove(name);
    EXPECT_EQ(built->server(), "198.51.100.1");
    EXPECT_EQ(built->username(), "carol");
    EXPECT_EQ(built->password(), "pw");
}

TEST(PlaceholdersTest, MissingConfigFileEndsWithStatusOneInEveryMode) {
    for (auto switches : {std::initializer_list<const char*>{}, {"check"}, {"create"}}) {
        const auto settings = settingsWith(switches, "missing.conf");
        FinishRecorder finished;
        DDLog::addTTYLogger();
        StderrCapture err;
        const auto built = tool::build_connector(*settings, run_mode(*settings), finished.finish());
        err.restore();
        EXPECT_FALSE(built);
        EXPECT_EQ(finished.statuses(), std::vector<int>{1});
        EXPECT_EQ(err.messages(),
                  std::vector<std::string>{"Config file missing.conf doesn't exist!"});
    }
}

TEST(PlaceholdersTest, ConnectModeWithoutConfigEndsWithStatusOne) {
    const auto settings = settingsWith({});
    FinishRecorder finished;
    DDLog::addTTYLogger();
    StderrCapture err;
    const auto built = tool::build_connector(*settings, run_mode(*settings), finished.finish());
    err.restore();
    EXPECT_FALSE(built);
    EXPECT_EQ(finished.statuses(), std::vector<int>{1});
    EXPECT_EQ(err.messages(),
              std::vector<std::string>{"Must provide a config file to start vpn tunnel!"});
}
