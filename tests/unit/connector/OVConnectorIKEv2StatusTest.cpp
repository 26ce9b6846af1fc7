#include "tests/unit/connector/ConnectorFixture.h"

using namespace platform;
using testing_support::StderrCapture;
using Lines = std::vector<std::string>;

namespace {

std::vector<NetworkService> servicesWithTheProfileOn(const char* interfaceName) {
    return {{"Wi-Fi", std::string("en0")}, {"Orvane IKEv2", std::string(interfaceName)}};
}

}  // namespace

TEST_F(ConnectorTest, ConnectingThenConnectedLogsTheInterfaceThenConnected) {
    platform().setServices(servicesWithTheProfileOn("ipsec3"));
    auto connector = makeConnector();
    connectAndStart(*connector);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusConnecting);
    platform().fireStatus(NEVPNStatusConnected);
    capture.restore();
    EXPECT_EQ(capture.messages(),
              (Lines{"IKEv2 Connecting", "IKEv2 Interface ipsec3", "IKEv2 Connected"}));
    EXPECT_FALSE(connector->connecting());
    EXPECT_TRUE(connector->connected());
    EXPECT_EQ(connector->lastDisconnectError(), std::optional<std::string>(""));
}

TEST_F(ConnectorTest, ConnectedTwiceOnlyLogsConnectedTheSecondTime) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    platform().fireStatus(NEVPNStatusConnected);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusConnected);
    capture.restore();
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Connected"});
    EXPECT_EQ(platform().serviceLookups(), 1);
}

TEST_F(ConnectorTest, ConnectedClearsAKnownReason) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    connector->setLastDisconnectError(std::string("old reason"));
    platform().fireStatus(NEVPNStatusConnected);
    EXPECT_EQ(connector->lastDisconnectError(), std::optional<std::string>(""));
}

TEST_F(ConnectorTest,
       ReassertingWhileConnectedStopsTheTunnelAndTheNextDisconnectedExitsOneWithoutALogSearch) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusConnected);
    platform().fireStatus(NEVPNStatusReasserting);
    EXPECT_EQ(platform().stopCount(), 1);
    EXPECT_FALSE(connector->connecting());
    EXPECT_TRUE(connector->connected());
    EXPECT_EQ(connector->lastDisconnectError(), "Reconnect needed");
    EXPECT_FALSE(finished().finished());
    platform().fireStatus(NEVPNStatusDisconnected);
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{1});
    EXPECT_TRUE(platform().fetchRequests().empty());
    EXPECT_EQ(capture.messages(),
              (Lines{"IKEv2 Interface ipsec0", "IKEv2 Connected", "IKEv2 Reconnecting",
                     "IKEv2 Last disconnect error: Reconnect needed"}));
}

TEST_F(ConnectorTest, ReassertingWhileConnectedAsksNoLogSearch) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    platform().fireStatus(NEVPNStatusConnected);
    platform().fireStatus(NEVPNStatusReasserting);
    EXPECT_TRUE(platform().fetchRequests().empty());
    EXPECT_EQ(connector->lastDisconnectError(), "Reconnect needed");
}

TEST_F(ConnectorTest, DisconnectedWhileConnectingWithNoReasonFoundExitsZeroSilently) {
    platform().setLastDisconnectError("");
    auto connector = makeConnector();
    connectAndStart(*connector);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusDisconnected);
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{0});
    EXPECT_EQ(platform().fetchRequests().size(), 1u);
    EXPECT_EQ(capture.text(), "");
}

TEST_F(ConnectorTest, DisconnectedWhileConnectedWithAReasonFromTheLogExitsOne) {
    platform().setLastDisconnectError("authentication failed");
    auto connector = makeConnector();
    connectAndStart(*connector);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusConnected);
    platform().fireStatus(NEVPNStatusDisconnected);
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{1});
    EXPECT_EQ(capture.messages(), (Lines{"IKEv2 Interface ipsec0", "IKEv2 Connected",
                                         "IKEv2 Last disconnect error: authentication failed"}));
}

TEST_F(ConnectorTest, LogSearchStartsAtTheConnectingDate) {
    platform().setLastDisconnectError("peer not responding");
    auto connector = makeConnector();
    connectAndStart(*connector);
    EXPECT_EQ(connector->fetchLastDisconnectError(), "peer not responding");
    ASSERT_EQ(platform().fetchRequests().size(), 1u);
    EXPECT_EQ(platform().fetchRequests()[0], connector->connectingDate());
}

TEST_F(ConnectorTest, DisconnectedAfterDisconnectOnlyLogsDisconnectedAndDoesNotExit) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    platform().fireStatus(NEVPNStatusConnected);
    connector->disconnect();
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusDisconnected);
    capture.restore();
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Disconnected"});
    EXPECT_TRUE(platform().fetchRequests().empty());
    EXPECT_FALSE(finished().finished());
}

TEST_F(ConnectorTest, ReassertingWhileStillConnectingThenDisconnectedOnlyLogsAndDoesNotExit) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusReasserting);
    EXPECT_FALSE(connector->connecting());
    EXPECT_FALSE(connector->connected());
    EXPECT_EQ(connector->lastDisconnectError(), "Reconnect needed");
    platform().fireStatus(NEVPNStatusDisconnected);
    capture.restore();
    EXPECT_EQ(capture.messages(), (Lines{"IKEv2 Reconnecting", "IKEv2 Disconnected"}));
    EXPECT_EQ(platform().stopCount(), 1);
    EXPECT_FALSE(finished().finished());
}

TEST_F(ConnectorTest, UnknownStatusSevenLogsUnknownStatus) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    StderrCapture capture;
    platform().fireStatus(static_cast<NEVPNStatus>(7));
    capture.restore();
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Unknown Status"});
    EXPECT_TRUE(connector->connecting());
}

TEST_F(ConnectorTest, ConnectingAndDisconnectingAreLoggedAndChangeNothing) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusConnecting);
    platform().fireStatus(NEVPNStatusDisconnecting);
    platform().fireStatus(NEVPNStatusInvalid);
    capture.restore();
    EXPECT_EQ(capture.messages(),
              (Lines{"IKEv2 Connecting", "IKEv2 Disconnecting", "IKEv2 Invalid Status"}));
    EXPECT_TRUE(connector->connecting());
    EXPECT_FALSE(connector->connected());
    EXPECT_EQ(platform().stopCount(), 0);
}

TEST_F(ConnectorTest, WithoutAConnectionTheStatusReadsInvalid) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    platform().setHasConnection(false);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusConnected);
    capture.restore();
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Invalid Status"});
}

TEST_F(ConnectorTest, NilReasonSkipsTheLogSearchAndExitsOneWithNullText) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    connector->setLastDisconnectError(std::nullopt);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusDisconnected);
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{1});
    EXPECT_TRUE(platform().fetchRequests().empty());
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Last disconnect error: (null)"});
}

TEST_F(ConnectorTest, InterfaceWithoutANameIsLoggedAsNull) {
    platform().setServices(std::vector<NetworkService>{{"Orvane IKEv2", std::nullopt}});
    auto connector = makeConnector();
    connectAndStart(*connector);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusConnected);
    capture.restore();
    EXPECT_EQ(capture.messages(), (Lines{"IKEv2 Interface (null)", "IKEv2 Connected"}));
}

TEST_F(ConnectorTest, EmptyInterfaceNameIsNotLogged) {
    platform().setServices(std::vector<NetworkService>{{"Orvane IKEv2", std::string("")}});
    auto connector = makeConnector();
    connectAndStart(*connector);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusConnected);
    capture.restore();
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Connected"});
}

TEST_F(ConnectorTest, StatusNamesForEveryValue) {
    EXPECT_EQ(NSStringFromNEVPNStatus(NEVPNStatusInvalid), "IKEv2 Invalid Status");
    EXPECT_EQ(NSStringFromNEVPNStatus(NEVPNStatusDisconnected), "IKEv2 Disconnected");
    EXPECT_EQ(NSStringFromNEVPNStatus(NEVPNStatusConnecting), "IKEv2 Connecting");
    EXPECT_EQ(NSStringFromNEVPNStatus(NEVPNStatusConnected), "IKEv2 Connected");
    EXPECT_EQ(NSStringFromNEVPNStatus(NEVPNStatusReasserting), "IKEv2 Reconnecting");
    EXPECT_EQ(NSStringFromNEVPNStatus(NEVPNStatusDisconnecting), "IKEv2 Disconnecting");
    EXPECT_EQ(NSStringFromNEVPNStatus(static_cast<NEVPNStatus>(6)), "IKEv2 Unknown Status");
    EXPECT_EQ(NSStringFromNEVPNStatus(static_cast<NEVPNStatus>(-1)), "IKEv2 Unknown Status");
}
