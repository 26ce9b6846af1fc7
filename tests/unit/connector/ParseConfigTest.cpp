#include "connector/OVConnectorIKEv2.h"
#include "log/DDLog.h"
#include "tests/unit/double/ChildProcess.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

using Config = std::map<std::string, std::string>;

Config plain(const ConfigDictionary& config) {
    Config text;
    for (const auto& [key, value] : config) {
        text.emplace(key.view(), value.view());
    }
    return text;
}

class ParseConfigTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { DDLog::addTTYLogger(); }
    void SetUp() override {
        ddLogLevel = DDLogLevelInfo;
        char name[] = "/tmp/orvane-config-XXXXXX";
        const int fd = ::mkstemp(name);
        ASSERT_GE(fd, 0);
        ::close(fd);
        path_ = name;
    }
    void TearDown() override { std::remove(path_.c_str()); }

    void write(const std::string& bytes) {
        std::ofstream file(path_, std::ios::binary | std::ios::trunc);
        file << bytes;
    }
    Config parse(const std::string& bytes) {
        write(bytes);
        auto config = ParseConfig(path_);
        EXPECT_TRUE(config.has_value());
        return config ? plain(*config) : Config{};
    }

    std::string path_;
};

}  // namespace

TEST_F(ParseConfigTest, SpacesAroundTheEqualsSignAreTrimmed) {
    EXPECT_EQ(parse("ip = 10.0.0.1\n"), (Config{{"ip", "10.0.0.1"}}));
}

TEST_F(ParseConfigTest, QuotedValueKeepsInnerEqualsSignsAndSpaces) {
    EXPECT_EQ(parse("password='p=ss word'\n"), (Config{{"password", "p=ss word"}}));
}

TEST_F(ParseConfigTest, RemoteWithNothingAfterTheEqualsSignIsIgnoredAndKeepsTheDefaultRemoteID) {
    EXPECT_EQ(parse("remote=\n"), Config{});
    const auto connector = OVConnectorIKEv2::initWithConfigFile(path_);
    EXPECT_EQ(connector->remoteID(), kDefaultRemoteID);
}

TEST_F(ParseConfigTest, RemoteWithOnlyASpaceIsEmptyAndKeepsTheDefaultRemoteID) {
    EXPECT_EQ(parse("remote= \n"), (Config{{"remote", ""}}));
    const auto connector = OVConnectorIKEv2::initWithConfigFile(path_);
    EXPECT_EQ(connector->remoteID(), kDefaultRemoteID);
}

TEST_F(ParseConfigTest, RemoteWithAValueReplacesTheDefault) {
    write("remote=gw.example.net\n");
    EXPECT_EQ(OVConnectorIKEv2::initWithConfigFile(path_)->remoteID(), "gw.example.net");
}

TEST_F(ParseConfigTest, PasswordWithNothingAfterTheEqualsSignStaysNil) {
    EXPECT_EQ(parse("password=\n"), Config{});
    EXPECT_EQ(OVConnectorIKEv2::initWithConfigFile(path_)->password(), std::nullopt);
}

TEST_F(ParseConfigTest, PasswordOfTwoDoubleQuotesIsTheEmptyString) {
    EXPECT_EQ(parse("password=\"\"\n"), (Config{{"password", ""}}));
    EXPECT_EQ(OVConnectorIKEv2::initWithConfigFile(path_)->password(),
              std::optional<std::string>(""));
}

TEST_F(ParseConfigTest, LaterLineForTheSameKeyWins) {
    EXPECT_EQ(parse("ip=1.1.1.1\nip=2.2.2.2\n"), (Config{{"ip", "2.2.2.2"}}));
}

TEST_F(ParseConfigTest, LeadingEqualsSignsAreSkipped) {
    EXPECT_EQ(parse("==ip=1.2.3.4\n"), (Config{{"ip", "1.2.3.4"}}));
}

TEST_F(ParseConfigTest, LineOf300BytesIsReadAsALineOf255BytesAndALineOf45Bytes) {
    // key "a" + "=" + 253 x "b" fill the first read; the rest is "c=" + 42
    // x "d" + line feed, a line of its own.
    const std::string first = "a=" + std::string(253, 'b');
    const std::string second = "c=" + std::string(42, 'd') + "\n";
    ASSERT_EQ(first.size() + second.size(), 300u);
    EXPECT_EQ(parse(first + second),
              (Config{{"a", std::string(253, 'b')}, {"c", std::string(42, 'd')}}));
}

TEST_F(ParseConfigTest, CRLFLineEndsLeaveACarriageReturnAtTheEndOfEveryValue) {
    EXPECT_EQ(parse("ip=10.0.0.1\r\nusername=alice\r\n"),
              (Config{{"ip", "10.0.0.1\r"}, {"username", "alice\r"}}));
}

TEST_F(ParseConfigTest, LastLineWithoutALineFeedIsReadLikeAnyOther) {
    EXPECT_EQ(parse("ip=10.0.0.1\nusername=alice"),
              (Config{{"ip", "10.0.0.1"}, {"username", "alice"}}));
}

TEST_F(ParseConfigTest, EmptyFileGivesAnEmptyDictionaryAndAConnectorWithNilCredentials) {
    EXPECT_EQ(parse(""), Config{});
    const auto connector = OVConnectorIKEv2::initWithConfigFile(path_);
    EXPECT_EQ(connector->server(), std::nullopt);
    EXPECT_EQ(connector->username(), std::nullopt);
    EXPECT_EQ(connector->password(), std::nullopt);
    EXPECT_EQ(connector->remoteID(), kDefaultRemoteID);
    EXPECT_EQ(connector->lastDisconnectError(), std::optional<std::string>(""));
}

TEST_F(ParseConfigTest, TypicalFileFillsTheConnector) {
    write("ip=203.0.113.7\nusername=alice\npassword=s3cret\nremote=gw.example.net\n");
    const auto connector = OVConnectorIKEv2::initWithConfigFile(path_);
    EXPECT_EQ(connector->server(), "203.0.113.7");
    EXPECT_EQ(connector->username(), "alice");
    EXPECT_EQ(connector->password(), "s3cret");
    EXPECT_EQ(connector->remoteID(), "gw.example.net");
    EXPECT_FALSE(connector->checkOnly());
    EXPECT_FALSE(connector->createOnly());
    EXPECT_FALSE(connector->connecting());
    EXPECT_FALSE(connector->connected());
    EXPECT_EQ(connector->vpnManager(), nullptr);
    EXPECT_EQ(connector->connectingDate(), std::nullopt);
}

TEST_F(ParseConfigTest, LinesWithoutAnEqualsSignAndBlankLinesAreIgnored) {
    EXPECT_EQ(parse("just words\n\n   \nip=1.2.3.4\n"), (Config{{"ip", "1.2.3.4"}}));
}

TEST_F(ParseConfigTest, HashLineIsAnOrdinaryKey) {
    EXPECT_EQ(parse("#ip=10.0.0.1\n"), (Config{{"#ip", "10.0.0.1"}}));
}

TEST_F(ParseConfigTest, QuotesAndTabsAreTrimmedOneByOneNotAsPairs) {
    EXPECT_EQ(parse("\t'\"user\"name'\"=\"'al ice\"\t\n"), (Config{{"user\"name", "al ice"}}));
    EXPECT_EQ(parse("k=\"half\n"), (Config{{"k", "half"}}));
}

TEST_F(ParseConfigTest, KeysAreCaseSensitive) {
    EXPECT_EQ(parse("IP=1.1.1.1\nip=2.2.2.2\n"), (Config{{"IP", "1.1.1.1"}, {"ip", "2.2.2.2"}}));
}

TEST_F(ParseConfigTest, LineWhoseKeyOrValueIsNotUTF8IsSkipped) {
    EXPECT_EQ(parse("ip=1.1.1.1\nuser\xffname=x\npassword=\xc3\x28\nremote=\xed\xa0\x80\nusername="
                    "b\xc3\xa9\n"),
              (Config{{"ip", "1.1.1.1"}, {"username", "b\xc3\xa9"}}));
}

TEST_F(ParseConfigTest, FileThatCannotBeOpenedGivesNilAndAnErrorLine) {
    testing_support::StderrCapture capture;
    const auto config = ParseConfig("/nonexistent/orvane.conf");
    capture.restore();
    EXPECT_EQ(config, std::nullopt);
    EXPECT_EQ(capture.messages(),
              std::vector<std::string>{
                  "parse_config /nonexistent/orvane.conf: No such file or directory"});
}

TEST_F(ParseConfigTest, UnopenableFileLineIsNotShownWithoutTheErrorBit) {
    ddLogLevel = DDLogLevelOff;
    testing_support::StderrCapture capture;
    EXPECT_EQ(ParseConfig("/nonexistent/orvane.conf"), std::nullopt);
    capture.restore();
    EXPECT_EQ(capture.text(), "");
}

TEST_F(ParseConfigTest,
       ConnectorFromAFileThatCannotBeOpenedHasNilCredentialsAndTheDefaultRemoteID) {
    testing_support::StderrCapture capture;
    const auto connector = OVConnectorIKEv2::initWithConfigFile("/nonexistent/orvane.conf");
    capture.restore();
    EXPECT_EQ(connector->server(), std::nullopt);
    EXPECT_EQ(connector->username(), std::nullopt);
    EXPECT_EQ(connector->password(), std::nullopt);
    EXPECT_EQ(connector->remoteID(), kDefaultRemoteID);
}

TEST_F(ParseConfigTest, InitWithServerStoresTheValuesAsGiven) {
    const auto connector = OVConnectorIKEv2::initWithServer(std::string(" 10.0.0.1 "), std::nullopt,
                                                            platform::Secret(""));
    EXPECT_EQ(connector->server(), " 10.0.0.1 ");
    EXPECT_EQ(connector->username(), std::nullopt);
    EXPECT_EQ(connector->password(), std::optional<std::string>(""));
    EXPECT_EQ(connector->remoteID(), kDefaultRemoteID);
    EXPECT_EQ(connector->lastDisconnectError(), std::optional<std::string>(""));
}

TEST_F(ParseConfigTest, FileOfExactlyOneMebibyteIsRead) {
    const std::string first = "ip=10.0.0.1\n";
    std::string bytes = first + std::string(kMaxConfigFileSize - first.size() - 12, '#');
    bytes += "\nuser=alice\n";
    ASSERT_EQ(bytes.size(), kMaxConfigFileSize);
    const Config config = parse(bytes);
    EXPECT_EQ(config.at("ip"), "10.0.0.1");
    EXPECT_EQ(config.at("user"), "alice");
}

TEST_F(ParseConfigTest, FileLargerThanOneMebibyteIsRefusedWithTheParseConfigLine) {
    write("ip=10.0.0.1\n" + std::string(kMaxConfigFileSize, '#'));
    testing_support::StderrCapture capture;
    EXPECT_EQ(ParseConfig(path_), std::nullopt);
    capture.restore();
    EXPECT_EQ(capture.messages(),
              std::vector<std::string>{"parse_config " + path_ + ": File too large"});
}

TEST_F(ParseConfigTest, EndlessFileIsReadOnlyUpToTheBound) {
    testing_support::StderrCapture capture;
    EXPECT_EQ(ParseConfig("/dev/zero"), std::nullopt);
    const auto connector = OVConnectorIKEv2::initWithConfigFile("/dev/zero");
    capture.restore();
    EXPECT_EQ(capture.messages(),
              std::vector<std::string>(2, "parse_config /dev/zero: File too large"));
    EXPECT_EQ(connector->server(), std::nullopt);
    EXPECT_EQ(connector->password(), std::nullopt);
}

TEST_F(ParseConfigTest, TheFileReadIsTheOneOpenedEvenWhenItsNameIsTakenMeanwhile) {
    write("ip=10.0.0.1\nusername=alice\n");
    ConfigFile opened = OpenConfigFile(path_);
    ASSERT_TRUE(opened.descriptor.valid());
    const std::string other = path_ + ".other";
    {
        std::ofstream file(other, std::ios::binary);
        file << "ip=203.0.113.9\nusername=mallory\n";
    }
    ASSERT_EQ(std::rename(other.c_str(), path_.c_str()), 0);
    const auto connector = OVConnectorIKEv2::initWithConfigFile(path_, std::move(opened));
    EXPECT_EQ(connector->server(), "10.0.0.1");
    EXPECT_EQ(connector->username(), "alice");
}

TEST_F(ParseConfigTest, FailedOpenIsReportedWhenTheFileIsRead) {
    ConfigFile missing = OpenConfigFile("/nonexistent/orvane.conf");
    EXPECT_FALSE(missing.descriptor.valid());
    testing_support::StderrCapture capture;
    EXPECT_EQ(ParseConfig(std::move(missing), "/nonexistent/orvane.conf"), std::nullopt);
    capture.restore();
    EXPECT_EQ(capture.messages(),
              std::vector<std::string>{
                  "parse_config /nonexistent/orvane.conf: No such file or directory"});
}

TEST_F(ParseConfigTest, TextReadsAsTheFileWithThatTextDoes) {
    const std::string text = "ip = 10.0.0.1\npassword=\"\"\n\xff=x\nremote=\n";
    EXPECT_EQ(plain(ParseConfigText(text)), parse(text));
}
