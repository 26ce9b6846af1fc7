#include "tests/unit/connector/ConnectorFixture.h"

using namespace platform;
using testing_support::StderrCapture;
using Lines = std::vector<std::string>;

namespace {

NEVPNProtocolIKEv2 expectedProfile() {
    NEVPNProtocolIKEv2 p;
    p.username = "alice";
    p.serverAddress = "203.0.113.7";
    p.remoteIdentifier = kDefaultRemoteID;
    p.authenticationMethod = NEVPNIKEAuthenticationMethodCertificate;
    p.useExtendedAuthentication = true;
    p.enableRevocationCheck = true;
    p.enablePFS = true;
    p.disconnectOnSleep = true;
    p.deadPeerDetectionRate = NEVPNIKEv2DeadPeerDetectionRateHigh;
    for (auto* sa : {&p.IKESecurityAssociationParameters, &p.childSecurityAssociationParameters}) {
        sa->encryptionAlgorithm = NEVPNIKEv2EncryptionAlgorithmAES256;
        sa->integrityAlgorithm = NEVPNIKEv2IntegrityAlgorithmSHA256;
        sa->diffieHellmanGroup = NEVPNIKEv2DiffieHellmanGroup14;
    }
    return p;
}

}  // namespace

TEST_F(ConnectorTest, CheckOnlyWithAStoredProfileExitsZeroAfterAlreadyExistsAndWritesNothing) {
    platform().setStoredProfile(NEVPNProtocolIKEv2{});
    auto connector = makeConnector();
    connector->setCheckOnly(true);
    connector->connect();
    StderrCapture capture;
    platform().completeLoad();
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{0});
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 configuration already exists"});
    // The run ended before anything else was asked.
    EXPECT_EQ(platform().calls(), Lines{"load"});
}

TEST_F(ConnectorTest, CheckOnlyWithoutAProfileExitsTwoAfterDoesntExist) {
    auto connector = makeConnector();
    connector->setCheckOnly(true);
    connector->connect();
    StderrCapture capture;
    platform().completeLoad();
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{2});
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 configuration doesn't exist"});
    EXPECT_EQ(platform().calls(), Lines{"load"});
}

TEST_F(ConnectorTest, CheckOnlyAsksForALoadOnly) {
    auto connector = makeConnector();
    connector->setCheckOnly(true);
    connector->connect();
    EXPECT_EQ(platform().calls(), Lines{"load"});
    EXPECT_TRUE(platform().loadPending());
    EXPECT_FALSE(platform().savePending());
}

TEST_F(ConnectorTest, LoadFailureLogsAnErrorLineAndExitsOne) {
    auto connector = makeConnector();
    connector->connect();
    StderrCapture capture;
    platform().completeLoad(NSError{13, "permission denied"});
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{1});
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Error loading configurations: permission denied"});
    EXPECT_EQ(platform().calls(), Lines{"load"});
}

TEST_F(ConnectorTest, CreateOnlyWritesTheProfileAndExitsZeroWithoutAStartRequest) {
    ddLogLevel = DDLogLevelVerbose;
    auto connector = makeConnector();
    connector->setCreateOnly(true);
    connector->connect();
    platform().completeLoad();
    EXPECT_EQ(platform().calls(), (Lines{"load", "save"}));
    StderrCapture capture;
    platform().completeSave();
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{0});
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Configuration saved!"});
    // No start is queued: the loop finds nothing to run past the delay.
    runLoopUntil([] { return false; }, std::chrono::milliseconds(700));
    EXPECT_TRUE(platform().startRequests().empty());
    EXPECT_FALSE(connector->connecting());
}

TEST_F(ConnectorTest, ConfigurationSavedLineIsHiddenAtTheDefaultLevel) {
    auto connector = makeConnector();
    connector->setCreateOnly(true);
    connector->connect();
    platform().completeLoad();
    StderrCapture capture;
    platform().completeSave();
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{0});
    EXPECT_EQ(capture.text(), "");
}

TEST_F(ConnectorTest, SaveFailureWithCode5ExitsWithStatus5AfterAnInfoLine) {
    auto connector = makeConnector();
    connector->connect();
    platform().completeLoad();
    StderrCapture capture;
    platform().completeSave(NSError{5, "disk full"});
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{5});
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Error saving configurations: disk full"});
}

TEST_F(ConnectorTest, SaveFailureLineIsAnInfoLineNotAnErrorLine) {
    ddLogLevel = DDLogLevelError;
    auto connector = makeConnector();
    connector->connect();
    platform().completeLoad();
    StderrCapture capture;
    platform().completeSave(NSError{5, "disk full"});
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{5});
    EXPECT_EQ(capture.text(), "");
}

TEST_F(ConnectorTest, SavedProfileCarriesExactlyTheFixedValues) {
    NEVPNProtocolIKEv2 old;
    old.localIdentifier = "left-over";
    old.username = "bob";
    platform().setStoredProfile(old);
    auto connector = makeConnector();
    connector->connect();
    platform().completeLoad();
    ASSERT_EQ(platform().saved().size(), 1u);
    const auto& saved = platform().saved()[0];
    EXPECT_EQ(saved.protocol, expectedProfile());
    EXPECT_EQ(saved.protocol.localIdentifier, std::nullopt);
    EXPECT_EQ(saved.protocol.IKESecurityAssociationParameters.lifetimeMinutes,
              NEVPNIKEv2SecurityAssociationParameters{}.lifetimeMinutes);
    EXPECT_TRUE(saved.enabled);
    EXPECT_EQ(saved.localizedDescription, "Orvane IKEv2");
    EXPECT_EQ(connector->vpnManager(), &NEVPNManager::sharedManager());
    EXPECT_EQ(platform().calls(), (Lines{"load", "save"}));
    EXPECT_EQ(
        platform_double::describeProfile(saved),
        "username=alice serverAddress=203.0.113.7 remoteIdentifier=vpn.orvane.net "
        "localIdentifier=(null) "
        "authenticationMethod=1 useExtendedAuthentication=1 enableRevocationCheck=1 enablePFS=1 "
        "disconnectOnSleep=1 deadPeerDetectionRate=3 ike=4/3/14/1440 child=4/3/14/1440 enabled=1 "
        "localizedDescription=Orvane IKEv2");
}

TEST_F(ConnectorTest, StartRequestGoesOutHalfASecondAfterTheSave) {
    auto connector = makeConnector();
    connector->connect();
    platform().completeLoad();
    const auto savedAt = RunLoop::Clock::now();
    platform().completeSave();
    EXPECT_FALSE(connector->connecting());
    RunLoop::main().runUntil(savedAt + std::chrono::milliseconds(499));
    EXPECT_TRUE(platform().startRequests().empty());
    RunLoop::main().runUntil(savedAt + std::chrono::milliseconds(500));
    EXPECT_EQ(platform().startRequests().size(), 1u);
    EXPECT_EQ(platform().calls(), (Lines{"load", "save", "start"}));
}

TEST_F(ConnectorTest, StartOptionsCarryTheUserNameAndPasswordAndMarkTheConnectorConnecting) {
    auto connector = makeConnector();
    const auto before = SystemClock::now();
    connectAndStart(*connector);
    ASSERT_EQ(platform().startRequests().size(), 1u);
    EXPECT_EQ(platform().startRequests()[0].username, "alice");
    EXPECT_EQ(platform().startRequests()[0].password, "s3cret-pw");
    EXPECT_TRUE(connector->connecting());
    EXPECT_FALSE(connector->connected());
    ASSERT_TRUE(connector->connectingDate().has_value());
    EXPECT_GE(*connector->connectingDate(), before);
    EXPECT_LE(*connector->connectingDate(), SystemClock::now());
}

TEST_F(ConnectorTest, StartFailureLogsTheNilTextAndExitsOne) {
    platform().setStartError(NSError{7, "start refused"});
    auto connector = makeConnector();
    StderrCapture capture;
    connectAndStart(*connector);
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{1});
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Error starting vpn tunnel: (null)"});
}

TEST_F(ConnectorTest, MissingPasswordAtTheStartExitsNonZeroBeforeAnyStartRequest) {
    auto connector = recording(OVConnectorIKEv2::initWithServer(
        std::string("203.0.113.7"), std::string("alice"), std::nullopt));
    connector->connect();
    platform().completeLoad();
    StderrCapture capture;
    platform().completeSave();
    ASSERT_TRUE(runLoopUntil([] { return finished().finished(); }));
    capture.restore();
    ASSERT_EQ(finished().statuses().size(), 1u);
    EXPECT_NE(finished().statuses()[0], 0);
    EXPECT_TRUE(platform().startRequests().empty());
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Missing user name or password"});
}

TEST_F(ConnectorTest, MissingUserNameAtTheStartExitsNonZeroBeforeAnyStartRequest) {
    auto connector = recording(OVConnectorIKEv2::initWithServer(
        std::string("203.0.113.7"), std::nullopt, platform::Secret("pw")));
    connector->connect();
    platform().completeLoad();
    StderrCapture capture;
    platform().completeSave();
    ASSERT_TRUE(runLoopUntil([] { return finished().finished(); }));
    capture.restore();
    ASSERT_EQ(finished().statuses().size(), 1u);
    EXPECT_NE(finished().statuses()[0], 0);
    EXPECT_TRUE(platform().startRequests().empty());
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Missing user name or password"});
}

TEST_F(ConnectorTest, StartWithoutAConnectionIsAStartFailure) {
    platform().setHasConnection(false);
    auto connector = makeConnector();
    connector->connect();
    platform().completeLoad();
    StderrCapture capture;
    platform().completeSave();
    ASSERT_TRUE(runLoopUntil([] { return finished().finished(); }));
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{1});
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Error starting vpn tunnel: (null)"});
}

TEST_F(ConnectorTest, DisconnectBeforeAnyStartSendsNoStopRequestAndChangesNothing) {
    auto connector = makeConnector();
    connector->connect();
    platform().completeLoad();
    connector->disconnect();
    EXPECT_EQ(platform().stopCount(), 0);
    EXPECT_FALSE(connector->connecting());
    EXPECT_FALSE(connector->connected());
    EXPECT_EQ(connector->lastDisconnectError(), std::optional<std::string>(""));
}

TEST_F(ConnectorTest, DisconnectWhileConnectingClearsTheFlagAndStopsTheTunnel) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    connector->disconnect();
    EXPECT_FALSE(connector->connecting());
    EXPECT_FALSE(connector->connected());
    EXPECT_EQ(platform().stopCount(), 1);
}

TEST_F(ConnectorTest, DisconnectWithReconnectNeededWhileConnectedKeepsConnectedAndStoresTheReason) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    connector->setConnecting(false);
    connector->setConnected(true);
    connector->disconnectWithError(std::string("Reconnect needed"));
    EXPECT_FALSE(connector->connecting());
    EXPECT_TRUE(connector->connected());
    EXPECT_EQ(connector->lastDisconnectError(), "Reconnect needed");
    EXPECT_EQ(platform().stopCount(), 1);
}

TEST_F(ConnectorTest, DisconnectWithTheEmptyStringBehavesLikeDisconnect) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    connector->setConnecting(false);
    connector->setConnected(true);
    connector->disconnectWithError(std::string(""));
    EXPECT_FALSE(connector->connecting());
    EXPECT_FALSE(connector->connected());
    EXPECT_EQ(connector->lastDisconnectError(), std::optional<std::string>(""));
    EXPECT_EQ(platform().stopCount(), 1);
}

TEST_F(ConnectorTest, DisconnectWithoutAConnectionSkipsTheStopSilently) {
    auto connector = makeConnector();
    connectAndStart(*connector);
    platform().setHasConnection(false);
    StderrCapture capture;
    connector->disconnect();
    capture.restore();
    EXPECT_FALSE(connector->connecting());
    EXPECT_EQ(platform().stopCount(), 0);
    EXPECT_EQ(capture.text(), "");
}

TEST_F(ConnectorTest, SecondConnectRegistersASecondObserverAndRewritesTheProfile) {
    auto connector = makeConnector();
    connector->connect();
    platform().completeLoad();
    platform().completeSave();
    connector->connect();
    platform().completeLoad();
    EXPECT_EQ(platform().calls(), (Lines{"load", "save", "load", "save"}));
    EXPECT_EQ(platform().saved().size(), 2u);
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusConnecting);
    capture.restore();
    EXPECT_EQ(capture.messages(), (Lines{"IKEv2 Connecting", "IKEv2 Connecting"}));
    // The first save queued a start; let it run so nothing is left pending.
    runLoopUntil([] { return platform().startRequests().size() == 1; });
}

TEST_F(ConnectorTest, SecondStartFindsThePasswordGoneAndExitsOne) {
    // The first start takes the password; a second one (two connects, which
    // the tool never makes) has none left to send.
    auto connector = makeConnector();
    connector->connect();
    platform().completeLoad();
    platform().completeSave();
    connector->connect();
    platform().completeLoad();
    StderrCapture capture;
    platform().completeSave();
    ASSERT_TRUE(runLoopUntil([] { return finished().finished(); }));
    capture.restore();
    EXPECT_EQ(finished().statuses(), std::vector<int>{1});
    EXPECT_EQ(platform().startRequests().size(), 1u);
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Missing user name or password"});
}

TEST_F(ConnectorTest, ConnectRegistersForStatusChangesBeforeLoading) {
    auto connector = makeConnector();
    connector->connect();
    StderrCapture capture;
    platform().fireStatus(NEVPNStatusDisconnecting);
    capture.restore();
    EXPECT_EQ(capture.messages(), Lines{"IKEv2 Disconnecting"});
}
