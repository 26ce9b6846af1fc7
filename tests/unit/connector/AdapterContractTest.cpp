#include "tests/unit/cli/CaptureStdout.h"
#include "tests/unit/connector/ConnectorFixture.h"

using namespace platform;
using testing_support::StderrCapture;
using Lines = std::vector<std::string>;

TEST_F(ConnectorTest, LastDisconnectErrorReturnsTheReasonTheServiceGave) {
    platform().setLastDisconnectError("authentication failed");
    auto connector = makeConnector();
    const auto since = SystemClock::now();
    connector->setConnectingDate(since);
    EXPECT_EQ(connector->fetchLastDisconnectError(), "authentication failed");
    ASSERT_EQ(platform().fetchRequests().size(), 1u);
    EXPECT_EQ(platform().fetchRequests()[0], since);
}

TEST_F(ConnectorTest, LastDisconnectErrorIsEmptyWhenNoneIsKnown) {
    auto connector = makeConnector();
    EXPECT_EQ(connector->fetchLastDisconnectError(), "");
    ASSERT_EQ(platform().fetchRequests().size(), 1u);
    EXPECT_EQ(platform().fetchRequests()[0], std::nullopt);
}

TEST_F(ConnectorTest,
       NoServiceNamedLikeTheProfileGivesIpsec0AndOneServiceLinePerServiceAtVerboseLevel) {
    ddLogLevel = DDLogLevelVerbose;
    platform().setServices(
        std::vector<NetworkService>{{"Wi-Fi", std::string("en0")},
                                    {"Ethernet", std::string("eth0")},
                                    {"Orvane IKEv2 (old)", std::string("ipsec5")}});
    auto connector = makeConnector();
    StderrCapture capture;
    const auto result = connector->adapterId();
    capture.restore();
    EXPECT_EQ(result, "ipsec0");
    EXPECT_EQ(capture.messages(),
              (Lines{"Service: Wi-Fi", "Service: Ethernet", "Service: Orvane IKEv2 (old)"}));
}

TEST_F(ConnectorTest, ServiceLinesAreHiddenAtTheDefaultLevel) {
    platform().setServices(std::vector<NetworkService>{{"Wi-Fi", std::string("en0")}});
    auto connector = makeConnector();
    StderrCapture capture;
    EXPECT_EQ(connector->adapterId(), "ipsec0");
    capture.restore();
    EXPECT_EQ(capture.text(), "");
}

TEST_F(ConnectorTest, FirstOfTwoServicesWithTheProfileNameWins) {
    ddLogLevel = DDLogLevelVerbose;
    platform().setServices(std::vector<NetworkService>{{"Wi-Fi", std::string("en0")},
                                                       {"Orvane IKEv2", std::string("ipsec2")},
                                                       {"Orvane IKEv2", std::string("ipsec7")}});
    auto connector = makeConnector();
    StderrCapture capture;
    const auto result = connector->adapterId();
    capture.restore();
    EXPECT_EQ(result, "ipsec2");
    // The walk stops at the match.
    EXPECT_EQ(capture.messages(), (Lines{"Service: Wi-Fi", "Service: Orvane IKEv2"}));
}

TEST_F(ConnectorTest, ServiceFoundOnIpsec1GivesIpsec1) {
    platform().setServices(std::vector<NetworkService>{{"Orvane IKEv2", std::string("ipsec1")}});
    EXPECT_EQ(makeConnector()->adapterId(), "ipsec1");
}

TEST_F(ConnectorTest, UnreadableNetworkConfigurationGivesIpsec0WithoutServiceLines) {
    ddLogLevel = DDLogLevelVerbose;
    platform().setServices(std::nullopt);
    auto connector = makeConnector();
    StderrCapture capture;
    EXPECT_EQ(connector->adapterId(), "ipsec0");
    capture.restore();
    EXPECT_EQ(capture.text(), "");
}

TEST_F(ConnectorTest, ServiceWithoutANameIsLoggedAsNull) {
    ddLogLevel = DDLogLevelVerbose;
    platform().setServices(std::vector<NetworkService>{{std::nullopt, std::string("en0")},
                                                       {"Orvane IKEv2", std::string("ipsec1")}});
    auto connector = makeConnector();
    StderrCapture capture;
    const auto result = connector->adapterId();
    capture.restore();
    EXPECT_EQ(result, "ipsec1");
    EXPECT_EQ(capture.messages(), (Lines{"Service: (null)", "Service: Orvane IKEv2"}));
}

TEST_F(ConnectorTest, ServiceNameMustMatchExactly) {
    platform().setServices(std::vector<NetworkService>{{"orvane ikev2", std::string("ipsec4")},
                                                       {"Orvane IKEv2 ", std::string("ipsec5")}});
    EXPECT_EQ(makeConnector()->adapterId(), "ipsec0");
}

TEST_F(ConnectorTest, WholeConnectAtVerboseLevelNeverLogsThePassword) {
    ddLogLevel = DDLogLevelVerbose;
    platform().setServices(std::vector<NetworkService>{{"Orvane IKEv2", std::string("ipsec0")}});
    platform().setLastDisconnectError("authentication failed");
    StderrCapture capture;
    auto connector = makeConnector();
    const std::string out = cli::test::captureStdout([&connector] {
        connectAndStart(*connector);
        platform().fireStatus(NEVPNStatusConnecting);
        platform().fireStatus(NEVPNStatusConnected);
        platform().fireStatus(NEVPNStatusReasserting);
        platform().fireStatus(NEVPNStatusDisconnected);
    });
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{1});
    const auto all = testing_support::lines(capture.text());
    ASSERT_GE(all.size(), 5u) << capture.text();
    for (const std::string& line : all) {
        EXPECT_EQ(line.find("s3cret-pw"), std::string::npos) << line;
    }
    EXPECT_EQ(out.find("s3cret-pw"), std::string::npos);
}
