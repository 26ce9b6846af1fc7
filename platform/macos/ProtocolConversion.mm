#import "platform/macos/ProtocolConversion.h"

#import "platform/macos/FoundationBridge.h"

#include "platform/macos/FrameworkValues.h"

#include <cstdint>

NS_ASSUME_NONNULL_BEGIN

namespace platform::macos {

namespace {

// The adapter names each value by the framework's own number.
#define ORVANE_SAME_VALUE(name) \
    static_assert(platform::name == static_cast<std::int64_t>(::name), #name)
ORVANE_SAME_VALUE(NEVPNIKEAuthenticationMethodNone);
ORVANE_SAME_VALUE(NEVPNIKEAuthenticationMethodCertificate);
ORVANE_SAME_VALUE(NEVPNIKEAuthenticationMethodSharedSecret);
ORVANE_SAME_VALUE(NEVPNIKEv2EncryptionAlgorithmAES256);
ORVANE_SAME_VALUE(NEVPNIKEv2EncryptionAlgorithmAES256GCM);
ORVANE_SAME_VALUE(NEVPNIKEv2EncryptionAlgorithmChaCha20Poly1305);
ORVANE_SAME_VALUE(NEVPNIKEv2IntegrityAlgorithmSHA256);
ORVANE_SAME_VALUE(NEVPNIKEv2IntegrityAlgorithmSHA384);
ORVANE_SAME_VALUE(NEVPNIKEv2IntegrityAlgorithmSHA512);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroupInvalid);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroup14);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroup15);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroup16);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroup17);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroup18);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroup19);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroup20);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroup21);
ORVANE_SAME_VALUE(NEVPNIKEv2DiffieHellmanGroup31);
ORVANE_SAME_VALUE(NEVPNIKEv2DeadPeerDetectionRateNone);
ORVANE_SAME_VALUE(NEVPNIKEv2DeadPeerDetectionRateLow);
ORVANE_SAME_VALUE(NEVPNIKEv2DeadPeerDetectionRateMedium);
ORVANE_SAME_VALUE(NEVPNIKEv2DeadPeerDetectionRateHigh);
ORVANE_SAME_VALUE(NEVPNStatusInvalid);
ORVANE_SAME_VALUE(NEVPNStatusDisconnected);
ORVANE_SAME_VALUE(NEVPNStatusConnecting);
ORVANE_SAME_VALUE(NEVPNStatusConnected);
ORVANE_SAME_VALUE(NEVPNStatusReasserting);
ORVANE_SAME_VALUE(NEVPNStatusDisconnecting);
#undef ORVANE_SAME_VALUE

// One overload per enum, so that a value can only land in a property of
// its own type.
::NEVPNIKEAuthenticationMethod toFramework(platform::NEVPNIKEAuthenticationMethod value) {
    return static_cast<::NEVPNIKEAuthenticationMethod>(enumToFramework(value));
}
::NEVPNIKEv2EncryptionAlgorithm toFramework(platform::NEVPNIKEv2EncryptionAlgorithm value) {
    return static_cast<::NEVPNIKEv2EncryptionAlgorithm>(enumToFramework(value));
}
::NEVPNIKEv2IntegrityAlgorithm toFramework(platform::NEVPNIKEv2IntegrityAlgorithm value) {
    return static_cast<::NEVPNIKEv2IntegrityAlgorithm>(enumToFramework(value));
}
::NEVPNIKEv2DiffieHellmanGroup toFramework(platform::NEVPNIKEv2DiffieHellmanGroup value) {
    return static_cast<::NEVPNIKEv2DiffieHellmanGroup>(enumToFramework(value));
}
::NEVPNIKEv2DeadPeerDetectionRate toFramework(platform::NEVPNIKEv2DeadPeerDetectionRate value) {
    return static_cast<::NEVPNIKEv2DeadPeerDetectionRate>(enumToFramework(value));
}

platform::NEVPNIKEAuthenticationMethod fromFramework(::NEVPNIKEAuthenticationMethod value) {
    return enumFromFramework<platform::NEVPNIKEAuthenticationMethod>(value);
}
platform::NEVPNIKEv2EncryptionAlgorithm fromFramework(::NEVPNIKEv2EncryptionAlgorithm value) {
    return enumFromFramework<platform::NEVPNIKEv2EncryptionAlgorithm>(value);
}
platform::NEVPNIKEv2IntegrityAlgorithm fromFramework(::NEVPNIKEv2IntegrityAlgorithm value) {
    return enumFromFramework<platform::NEVPNIKEv2IntegrityAlgorithm>(value);
}
platform::NEVPNIKEv2DiffieHellmanGroup fromFramework(::NEVPNIKEv2DiffieHellmanGroup value) {
    return enumFromFramework<platform::NEVPNIKEv2DiffieHellmanGroup>(value);
}
platform::NEVPNIKEv2DeadPeerDetectionRate fromFramework(::NEVPNIKEv2DeadPeerDetectionRate value) {
    return enumFromFramework<platform::NEVPNIKEv2DeadPeerDetectionRate>(value);
}

void parametersToFramework(const platform::NEVPNIKEv2SecurityAssociationParameters& parameters,
                           ::NEVPNIKEv2SecurityAssociationParameters* target) {
    const platform::NEVPNIKEv2SecurityAssociationParameters fresh;
    if (parameters.encryptionAlgorithm != fresh.encryptionAlgorithm) {
        target.encryptionAlgorithm = toFramework(parameters.encryptionAlgorithm);
    }
    if (parameters.integrityAlgorithm != fresh.integrityAlgorithm) {
        target.integrityAlgorithm = toFramework(parameters.integrityAlgorithm);
    }
    if (parameters.diffieHellmanGroup != fresh.diffieHellmanGroup) {
        target.diffieHellmanGroup = toFramework(parameters.diffieHellmanGroup);
    }
    if (parameters.lifetimeMinutes != fresh.lifetimeMinutes) {
        target.lifetimeMinutes = parameters.lifetimeMinutes;
    }
}

platform::NEVPNIKEv2SecurityAssociationParameters parametersFromFramework(
    ::NEVPNIKEv2SecurityAssociationParameters* source) {
    platform::NEVPNIKEv2SecurityAssociationParameters parameters;
    parameters.encryptionAlgorithm = fromFramework(source.encryptionAlgorithm);
    parameters.integrityAlgorithm = fromFramework(source.integrityAlgorithm);
    parameters.diffieHellmanGroup = fromFramework(source.diffieHellmanGroup);
    parameters.lifetimeMinutes = source.lifetimeMinutes;
    return parameters;
}

}  // namespace

::NEVPNProtocolIKEv2* protocolToFramework(const platform::NEVPNProtocolIKEv2& protocol) {
    const platform::NEVPNProtocolIKEv2 fresh;
    ::NEVPNProtocolIKEv2* target = [[::NEVPNProtocolIKEv2 alloc] init];
    if (protocol.username) {
        target.username = toNSString(protocol.username);
    }
    if (protocol.serverAddress) {
        target.serverAddress = toNSString(protocol.serverAddress);
    }
    if (protocol.remoteIdentifier) {
        target.remoteIdentifier = toNSString(protocol.remoteIdentifier);
    }
    if (protocol.localIdentifier) {
        target.localIdentifier = toNSString(protocol.localIdentifier);
    }
    if (protocol.authenticationMethod != fresh.authenticationMethod) {
        target.authenticationMethod = toFramework(protocol.authenticationMethod);
    }
    if (protocol.useExtendedAuthentication != fresh.useExtendedAuthentication) {
        target.useExtendedAuthentication = protocol.useExtendedAuthentication;
    }
    if (protocol.enableRevocationCheck != fresh.enableRevocationCheck) {
        target.enableRevocationCheck = protocol.enableRevocationCheck;
    }
    if (protocol.strictRevocationCheck != fresh.strictRevocationCheck) {
        target.strictRevocationCheck = protocol.strictRevocationCheck;
    }
    if (protocol.enablePFS != fresh.enablePFS) {
        target.enablePFS = protocol.enablePFS;
    }
    if (protocol.disconnectOnSleep != fresh.disconnectOnSleep) {
        target.disconnectOnSleep = protocol.disconnectOnSleep;
    }
    if (protocol.deadPeerDetectionRate != fresh.deadPeerDetectionRate) {
        target.deadPeerDetectionRate = toFramework(protocol.deadPeerDetectionRate);
    }
    parametersToFramework(protocol.IKESecurityAssociationParameters,
                          target.IKESecurityAssociationParameters);
    parametersToFramework(protocol.childSecurityAssociationParameters,
                          target.childSecurityAssociationParameters);
    return target;
}

std::optional<platform::NEVPNProtocolIKEv2> protocolFromFramework(
    ::NEVPNProtocol* _Nullable protocol) {
    if (protocol == nil) {
        return std::nullopt;
    }
    platform::NEVPNProtocolIKEv2 result;
    result.username = fromNSString(protocol.username);
    result.serverAddress = fromNSString(protocol.serverAddress);
    result.disconnectOnSleep = protocol.disconnectOnSleep;
    if ([protocol isKindOfClass:[NEVPNProtocolIPSec class]]) {
        NEVPNProtocolIPSec* ipsec = (NEVPNProtocolIPSec*)protocol;
        result.remoteIdentifier = fromNSString(ipsec.remoteIdentifier);
        result.localIdentifier = fromNSString(ipsec.localIdentifier);
        result.authenticationMethod = fromFramework(ipsec.authenticationMethod);
        result.useExtendedAuthentication = ipsec.useExtendedAuthentication;
    }
    if ([protocol isKindOfClass:[::NEVPNProtocolIKEv2 class]]) {
        ::NEVPNProtocolIKEv2* ikev2 = (::NEVPNProtocolIKEv2*)protocol;
        result.enableRevocationCheck = ikev2.enableRevocationCheck;
        result.strictRevocationCheck = ikev2.strictRevocationCheck;
        result.enablePFS = ikev2.enablePFS;
        result.deadPeerDetectionRate = fromFramework(ikev2.deadPeerDetectionRate);
        result.IKESecurityAssociationParameters =
            parametersFromFramework(ikev2.IKESecurityAssociationParameters);
        result.childSecurityAssociationParameters =
            parametersFromFramework(ikev2.childSecurityAssociationParameters);
    }
    return result;
}

}  // namespace platform::macos

NS_ASSUME_NONNULL_END
