#include "platform/macos/FrameworkValues.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

using namespace platform;
using platform::macos::enumFromFramework;
using platform::macos::enumToFramework;
using platform::macos::errorFromFramework;

namespace {

// Each value crosses to the framework's number and back unchanged.
template <class Enum>
void expectRoundTrips(const std::vector<std::pair<Enum, std::int64_t>>& values) {
    for (const auto& [value, number] : values) {
        EXPECT_EQ(enumToFramework(value), number);
        EXPECT_EQ(enumFromFramework<Enum>(number), value);
    }
}

}  // namespace

TEST(FrameworkValues, StatusesAreTheFrameworksNumbers) {
    expectRoundTrips<NEVPNStatus>({{NEVPNStatusInvalid, 0},
                                   {NEVPNStatusDisconnected, 1},
                                   {NEVPNStatusConnecting, 2},
                                   {NEVPNStatusConnected, 3},
                                   {NEVPNStatusReasserting, 4},
                                   {NEVPNStatusDisconnecting, 5}});
}

TEST(FrameworkValues, UnknownStatusSurvivesTheCrossing) {
    const NEVPNStatus status = enumFromFramework<NEVPNStatus>(7);
    EXPECT_EQ(enumToFramework(status), 7);
    EXPECT_NE(status, NEVPNStatusInvalid);
}

TEST(FrameworkValues, ProfileValuesAreTheFrameworksNumbers) {
    expectRoundTrips<NEVPNIKEAuthenticationMethod>({{NEVPNIKEAuthenticationMethodNone, 0},
                                                    {NEVPNIKEAuthenticationMethodCertificate, 1},
                                                    {NEVPNIKEAuthenticationMethodSharedSecret, 2}});
    expectRoundTrips<NEVPNIKEv2EncryptionAlgorithm>(
        {{NEVPNIKEv2EncryptionAlgorithmDES, 1},
         {NEVPNIKEv2EncryptionAlgorithm3DES, 2},
         {NEVPNIKEv2EncryptionAlgorithmAES128, 3},
         {NEVPNIKEv2EncryptionAlgorithmAES256, 4},
         {NEVPNIKEv2EncryptionAlgorithmAES128GCM, 5},
         {NEVPNIKEv2EncryptionAlgorithmAES256GCM, 6},
         {NEVPNIKEv2EncryptionAlgorithmChaCha20Poly1305, 7}});
    expectRoundTrips<NEVPNIKEv2IntegrityAlgorithm>({{NEVPNIKEv2IntegrityAlgorithmSHA96, 1},
                                                    {NEVPNIKEv2IntegrityAlgorithmSHA160, 2},
                                                    {NEVPNIKEv2IntegrityAlgorithmSHA256, 3},
                                                    {NEVPNIKEv2IntegrityAlgorithmSHA384, 4},
                                                    {NEVPNIKEv2IntegrityAlgorithmSHA512, 5}});
    expectRoundTrips<NEVPNIKEv2DiffieHellmanGroup>({{NEVPNIKEv2DiffieHellmanGroupInvalid, 0},
                                                    {NEVPNIKEv2DiffieHellmanGroup1, 1},
                                                    {NEVPNIKEv2DiffieHellmanGroup2, 2},
                                                    {NEVPNIKEv2DiffieHellmanGroup5, 5},
                                                    {NEVPNIKEv2DiffieHellmanGroup14, 14},
                                                    {NEVPNIKEv2DiffieHellmanGroup19, 19},
                                                    {NEVPNIKEv2DiffieHellmanGroup21, 21},
                                                    {NEVPNIKEv2DiffieHellmanGroup31, 31},
                                                    {NEVPNIKEv2DiffieHellmanGroup32, 32}});
    expectRoundTrips<NEVPNIKEv2DeadPeerDetectionRate>({{NEVPNIKEv2DeadPeerDetectionRateNone, 0},
                                                       {NEVPNIKEv2DeadPeerDetectionRateLow, 1},
                                                       {NEVPNIKEv2DeadPeerDetectionRateMedium, 2},
                                                       {NEVPNIKEv2DeadPeerDetectionRateHigh, 3}});
}

TEST(FrameworkValues, AlgorithmOfANewerSystemSurvivesTheCrossing) {
    const auto group = enumFromFramework<NEVPNIKEv2DiffieHellmanGroup>(33);
    EXPECT_EQ(enumToFramework(group), 33);
    const auto encryption = enumFromFramework<NEVPNIKEv2EncryptionAlgorithm>(8);
    EXPECT_EQ(enumToFramework(encryption), 8);
}

TEST(FrameworkValues, ErrorKeepsItsCodeAndDescription) {
    const NSError error = errorFromFramework(
        5, std::string("Error Domain=NEVPNErrorDomain Code=5 \"permission denied\" "
                       "UserInfo={NSLocalizedDescription=permission denied}"));
    EXPECT_EQ(error.code, 5);
    EXPECT_EQ(error.description,
              "Error Domain=NEVPNErrorDomain Code=5 \"permission denied\" "
              "UserInfo={NSLocalizedDescription=permission denied}");
}

TEST(FrameworkValues, ErrorWithoutDescriptionPrintsNull) {
    EXPECT_EQ(errorFromFramework(1, std::nullopt).description, "(null)");
}

TEST(FrameworkValues, ErrorCodeIsKeptWhole) {
    // The connector exits with the code; the system keeps its low 8 bits.
    EXPECT_EQ(errorFromFramework(-1, "x").code, -1);
    EXPECT_EQ(errorFromFramework(261, "x").code, 261);
    EXPECT_EQ(errorFromFramework(std::numeric_limits<std::int64_t>::max(), "x").code,
              std::numeric_limits<std::int64_t>::max());
}

TEST(FrameworkValues, EmptyDescriptionStaysEmpty) {
    EXPECT_EQ(errorFromFramework(2, std::string()).description, "");
}
