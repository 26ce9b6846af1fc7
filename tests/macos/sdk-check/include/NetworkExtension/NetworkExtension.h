/*
 * macos-check: NetworkExtension SUBSET (personal VPN / IKEv2 part only),
 * declarations only, for clang -fsyntax-only on Linux.
 *
 * Written from Apple's public API documentation: class, property, method,
 * enum and constant names, their types, enum values and the macOS version
 * each appeared in are facts of the public API. This is not Apple's header;
 * nothing is ever linked against it. Shape follows the macOS 14/15 SDK
 * (NEVPNManager.h, NEVPNConnection.h, NEVPNProtocol.h, NEVPNProtocolIPSec.h,
 * NEVPNProtocolIKEv2.h). Left out on purpose: tunnel providers, on-demand
 * rule classes (only forward-declared), NEProxySettings (forward-declared),
 * NEVPNIKEv2PPKConfiguration (macOS 15), NETunnelProviderManager.
 *
 * Availability attributes only take effect with an Apple target triple
 * (-target x86_64-apple-macos11); on the Linux triple clang ignores them.
 */
#ifndef MACOS_CHECK_NETWORKEXTENSION_H
#define MACOS_CHECK_NETWORKEXTENSION_H

#import <Foundation/Foundation.h>
#include <Security/Security.h>

#if defined(__cplusplus)
#  define NEVPN_EXPORT extern "C"
#else
#  define NEVPN_EXPORT extern
#endif

#define MC_NE_MACOS(v) __attribute__((availability(macos, introduced = v)))
#define MC_NE_MACOS_DEPRECATED(v, d, msg) \
  __attribute__((availability(macos, introduced = v, deprecated = d, message = msg)))

NS_ASSUME_NONNULL_BEGIN

@class NEVPNManager;
@class NEVPNConnection;
@class NEVPNProtocol;
@class NEOnDemandRule;
@class NEProxySettings;

/* ---------------------------------------------------------------- NEVPNManager.h */

typedef NS_ENUM(NSInteger, NEVPNError) {
  NEVPNErrorConfigurationInvalid = 1,
  NEVPNErrorConfigurationDisabled = 2,
  NEVPNErrorConnectionFailed = 3,
  NEVPNErrorConfigurationStale = 4,
  NEVPNErrorConfigurationReadWriteFailed = 5,
  NEVPNErrorConfigurationUnknown = 6,
} MC_NE_MACOS(10.11);

NEVPN_EXPORT NSString * const NEVPNErrorDomain MC_NE_MACOS(10.11);
NEVPN_EXPORT NSString * const NEVPNConfigurationChangeNotification MC_NE_MACOS(10.11);

MC_NE_MACOS(10.11)
@interface NEVPNManager : NSObject
+ (NEVPNManager *)sharedManager MC_NE_MACOS(10.11);
- (void)loadFromPreferencesWithCompletionHandler:(void (^)(NSError * _Nullable error))completionHandler MC_NE_MACOS(10.11);
- (void)removeFromPreferencesWithCompletionHandler:(nullable void (^)(NSError * _Nullable error))completionHandler MC_NE_MACOS(10.11);
- (void)saveToPreferencesWithCompletionHandler:(nullable void (^)(NSError * _Nullable error))completionHandler MC_NE_MACOS(10.11);
- (void)setAuthorization:(AuthorizationRef)authorization MC_NE_MACOS(10.11);
@property (copy, nullable) NSArray<NEOnDemandRule *> *onDemandRules MC_NE_MACOS(10.11);
@property (getter=isOnDemandEnabled) BOOL onDemandEnabled MC_NE_MACOS(10.11);
@property (copy, nullable) NSString *localizedDescription MC_NE_MACOS(10.11);
@property (strong, nullable) NEVPNProtocol *protocol
    MC_NE_MACOS_DEPRECATED(10.11, 10.11, "Use protocolConfiguration instead");
@property (strong, nullable) NEVPNProtocol *protocolConfiguration MC_NE_MACOS(10.11);
@property (readonly) NEVPNConnection *connection MC_NE_MACOS(10.11);
@property (getter=isEnabled) BOOL enabled MC_NE_MACOS(10.11);
@end

/* ------------------------------------------------------------- NEVPNConnection.h */

typedef NS_ENUM(NSInteger, NEVPNStatus) {
  NEVPNStatusInvalid = 0,
  NEVPNStatusDisconnected = 1,
  NEVPNStatusConnecting = 2,
  NEVPNStatusConnected = 3,
  NEVPNStatusReasserting = 4,
  NEVPNStatusDisconnecting = 5,
} MC_NE_MACOS(10.11);

NEVPN_EXPORT NSString * const NEVPNStatusDidChangeNotification MC_NE_MACOS(10.11);
NEVPN_EXPORT NSString * const NEVPNConnectionStartOptionUsername MC_NE_MACOS(10.11);
NEVPN_EXPORT NSString * const NEVPNConnectionStartOptionPassword MC_NE_MACOS(10.11);

typedef NS_ENUM(NSInteger, NEVPNConnectionError) {
  NEVPNConnectionErrorOverslept = 1,
  NEVPNConnectionErrorNoNetworkAvailable = 2,
  NEVPNConnectionErrorUnrecoverableNetworkChange = 3,
  NEVPNConnectionErrorConfigurationFailed = 4,
  NEVPNConnectionErrorServerAddressResolutionFailed = 5,
  NEVPNConnectionErrorServerNotResponding = 6,
  NEVPNConnectionErrorServerDead = 7,
  NEVPNConnectionErrorAuthenticationFailed = 8,
  NEVPNConnectionErrorClientCertificateInvalid = 9,
  NEVPNConnectionErrorClientCertificateNotYetValid = 10,
  NEVPNConnectionErrorClientCertificateExpired = 11,
  NEVPNConnectionErrorPluginFailed = 12,
  NEVPNConnectionErrorConfigurationNotFound = 13,
  NEVPNConnectionErrorPluginDisabled = 14,
  NEVPNConnectionErrorNegotiationFailed = 15,
  NEVPNConnectionErrorServerDisconnected = 16,
  NEVPNConnectionErrorServerCertificateInvalid = 17,
  NEVPNConnectionErrorServerCertificateNotYetValid = 18,
  NEVPNConnectionErrorServerCertificateExpired = 19,
} MC_NE_MACOS(13.0);

NEVPN_EXPORT NSString * const NEVPNConnectionErrorDomain MC_NE_MACOS(13.0);

MC_NE_MACOS(10.11)
@interface NEVPNConnection : NSObject
- (BOOL)startVPNTunnelAndReturnError:(NSError **)error MC_NE_MACOS(10.11);
- (BOOL)startVPNTunnelWithOptions:(nullable NSDictionary<NSString *, NSObject *> *)options
                   andReturnError:(NSError **)error MC_NE_MACOS(10.11);
- (void)stopVPNTunnel MC_NE_MACOS(10.11);
- (void)fetchLastDisconnectErrorWithCompletionHandler:(void (^)(NSError * _Nullable))handler MC_NE_MACOS(13.0);
@property (readonly) NEVPNStatus status MC_NE_MACOS(10.11);
@property (readonly, nullable) NSDate *connectedDate MC_NE_MACOS(10.11);
@property (readonly) NEVPNManager *manager MC_NE_MACOS(10.12);
@end

/* --------------------------------------------------------------- NEVPNProtocol.h */

MC_NE_MACOS(10.11)
@interface NEVPNProtocol : NSObject <NSCopying, NSSecureCoding>
@property (copy, nullable) NSString *serverAddress MC_NE_MACOS(10.11);
@property (copy, nullable) NSString *username MC_NE_MACOS(10.11);
@property (copy, nullable) NSData *passwordReference MC_NE_MACOS(10.11);
@property (copy, nullable) NSData *identityReference MC_NE_MACOS(10.11);
@property (copy, nullable) NSData *identityData MC_NE_MACOS(10.11);
@property (copy, nullable) NSString *identityDataPassword MC_NE_MACOS(10.11);
@property BOOL disconnectOnSleep MC_NE_MACOS(10.11);
@property (copy, nullable) NEProxySettings *proxySettings MC_NE_MACOS(10.11);
@property BOOL includeAllNetworks MC_NE_MACOS(10.15);
@property BOOL excludeLocalNetworks MC_NE_MACOS(10.15);
@property BOOL excludeCellularServices MC_NE_MACOS(13.3);
@property BOOL excludeAPNs MC_NE_MACOS(13.3);
@property BOOL excludeDeviceCommunication MC_NE_MACOS(14.4);
@property BOOL enforceRoutes MC_NE_MACOS(11.0);
@end

/* ---------------------------------------------------------- NEVPNProtocolIPSec.h */

typedef NS_ENUM(NSInteger, NEVPNIKEAuthenticationMethod) {
  NEVPNIKEAuthenticationMethodNone = 0,
  NEVPNIKEAuthenticationMethodCertificate = 1,
  NEVPNIKEAuthenticationMethodSharedSecret = 2,
} MC_NE_MACOS(10.11);

MC_NE_MACOS(10.11)
@interface NEVPNProtocolIPSec : NEVPNProtocol
@property NEVPNIKEAuthenticationMethod authenticationMethod MC_NE_MACOS(10.11);
@property BOOL useExtendedAuthentication MC_NE_MACOS(10.11);
@property (copy, nullable) NSData *sharedSecretReference MC_NE_MACOS(10.11);
@property (copy, nullable) NSString *localIdentifier MC_NE_MACOS(10.11);
@property (copy, nullable) NSString *remoteIdentifier MC_NE_MACOS(10.11);
@end

/* ---------------------------------------------------------- NEVPNProtocolIKEv2.h */

#define MC_NE_WEAK_CRYPTO(v) \
  MC_NE_MACOS_DEPRECATED(v, 14.0, "Use an encryption algorithm with 256-bit keys instead")

typedef NS_ENUM(NSInteger, NEVPNIKEv2EncryptionAlgorithm) {
  NEVPNIKEv2EncryptionAlgorithmDES MC_NE_WEAK_CRYPTO(10.11) = 1,
  NEVPNIKEv2EncryptionAlgorithm3DES MC_NE_WEAK_CRYPTO(10.11) = 2,
  NEVPNIKEv2EncryptionAlgorithmAES128 MC_NE_WEAK_CRYPTO(10.11) = 3,
  NEVPNIKEv2EncryptionAlgorithmAES256 = 4,
  NEVPNIKEv2EncryptionAlgorithmAES128GCM MC_NE_WEAK_CRYPTO(10.11) = 5,
  NEVPNIKEv2EncryptionAlgorithmAES256GCM MC_NE_MACOS(10.11) = 6,
  NEVPNIKEv2EncryptionAlgorithmChaCha20Poly1305 MC_NE_MACOS(10.15) = 7,
} MC_NE_MACOS(10.11);

typedef NS_ENUM(NSInteger, NEVPNIKEv2IntegrityAlgorithm) {
  NEVPNIKEv2IntegrityAlgorithmSHA96
      MC_NE_MACOS_DEPRECATED(10.11, 14.0, "Use SHA-2 for integrity protection instead") = 1,
  NEVPNIKEv2IntegrityAlgorithmSHA160
      MC_NE_MACOS_DEPRECATED(10.11, 14.0, "Use SHA-2 for integrity protection instead") = 2,
  NEVPNIKEv2IntegrityAlgorithmSHA256 = 3,
  NEVPNIKEv2IntegrityAlgorithmSHA384 = 4,
  NEVPNIKEv2IntegrityAlgorithmSHA512 = 5,
} MC_NE_MACOS(10.11);

typedef NS_ENUM(NSInteger, NEVPNIKEv2DeadPeerDetectionRate) {
  NEVPNIKEv2DeadPeerDetectionRateNone = 0,
  NEVPNIKEv2DeadPeerDetectionRateLow = 1,
  NEVPNIKEv2DeadPeerDetectionRateMedium = 2,
  NEVPNIKEv2DeadPeerDetectionRateHigh = 3,
} MC_NE_MACOS(10.11);

#define MC_NE_WEAK_DH \
  MC_NE_MACOS_DEPRECATED(10.11, 14.0, "Use Diffie Hellman group 14 or greater instead")

typedef NS_ENUM(NSInteger, NEVPNIKEv2DiffieHellmanGroup) {
  NEVPNIKEv2DiffieHellmanGroupInvalid = 0,
  NEVPNIKEv2DiffieHellmanGroup1 MC_NE_WEAK_DH = 1,
  NEVPNIKEv2DiffieHellmanGroup2 MC_NE_WEAK_DH = 2,
  NEVPNIKEv2DiffieHellmanGroup5 MC_NE_WEAK_DH = 5,
  NEVPNIKEv2DiffieHellmanGroup14 = 14,
  NEVPNIKEv2DiffieHellmanGroup15 = 15,
  NEVPNIKEv2DiffieHellmanGroup16 = 16,
  NEVPNIKEv2DiffieHellmanGroup17 = 17,
  NEVPNIKEv2DiffieHellmanGroup18 = 18,
  NEVPNIKEv2DiffieHellmanGroup19 = 19,
  NEVPNIKEv2DiffieHellmanGroup20 = 20,
  NEVPNIKEv2DiffieHellmanGroup21 = 21,
  NEVPNIKEv2DiffieHellmanGroup31 MC_NE_MACOS(10.15) = 31,
  NEVPNIKEv2DiffieHellmanGroup32 MC_NE_MACOS(14.0) = 32,
} MC_NE_MACOS(10.11);

typedef NS_ENUM(NSInteger, NEVPNIKEv2CertificateType) {
  NEVPNIKEv2CertificateTypeRSA = 1,
  NEVPNIKEv2CertificateTypeECDSA256 = 2,
  NEVPNIKEv2CertificateTypeECDSA384 = 3,
  NEVPNIKEv2CertificateTypeECDSA521 = 4,
  NEVPNIKEv2CertificateTypeEd25519 MC_NE_MACOS(10.15) = 5,
  NEVPNIKEv2CertificateTypeRSAPSS MC_NE_MACOS(14.0) = 6,
} MC_NE_MACOS(10.11);

typedef NS_ENUM(NSInteger, NEVPNIKEv2TLSVersion) {
  NEVPNIKEv2TLSVersionDefault = 0,
  NEVPNIKEv2TLSVersion1_0 = 1,
  NEVPNIKEv2TLSVersion1_1 = 2,
  NEVPNIKEv2TLSVersion1_2 = 3,
} MC_NE_MACOS(10.13);

MC_NE_MACOS(10.11)
@interface NEVPNIKEv2SecurityAssociationParameters : NSObject <NSSecureCoding, NSCopying>
@property NEVPNIKEv2EncryptionAlgorithm encryptionAlgorithm MC_NE_MACOS(10.11);
@property NEVPNIKEv2IntegrityAlgorithm integrityAlgorithm MC_NE_MACOS(10.11);
@property NEVPNIKEv2DiffieHellmanGroup diffieHellmanGroup MC_NE_MACOS(10.11);
@property int32_t lifetimeMinutes MC_NE_MACOS(10.11);
@end

MC_NE_MACOS(10.11)
@interface NEVPNProtocolIKEv2 : NEVPNProtocolIPSec
@property NEVPNIKEv2DeadPeerDetectionRate deadPeerDetectionRate MC_NE_MACOS(10.11);
@property (copy, nullable) NSString *serverCertificateIssuerCommonName MC_NE_MACOS(10.11);
@property (copy, nullable) NSString *serverCertificateCommonName MC_NE_MACOS(10.11);
@property NEVPNIKEv2CertificateType certificateType MC_NE_MACOS(10.11);
@property BOOL useConfigurationAttributeInternalIPSubnet MC_NE_MACOS(10.11);
@property (readonly) NEVPNIKEv2SecurityAssociationParameters *IKESecurityAssociationParameters MC_NE_MACOS(10.11);
@property (readonly) NEVPNIKEv2SecurityAssociationParameters *childSecurityAssociationParameters MC_NE_MACOS(10.11);
@property BOOL disableMOBIKE MC_NE_MACOS(10.11);
@property BOOL disableRedirect MC_NE_MACOS(10.11);
@property BOOL enablePFS MC_NE_MACOS(10.11);
@property BOOL enableRevocationCheck MC_NE_MACOS(10.11);
/* developer.apple.com/documentation/networkextension/nevpnprotocolikev2/strictrevocationcheck:
 * Bool, default NO, macOS 10.11. */
@property BOOL strictRevocationCheck MC_NE_MACOS(10.11);
@property NEVPNIKEv2TLSVersion minimumTLSVersion MC_NE_MACOS(10.13);
@property NEVPNIKEv2TLSVersion maximumTLSVersion MC_NE_MACOS(10.13);
@property NSUInteger mtu MC_NE_MACOS(11.0);
@end

NS_ASSUME_NONNULL_END

#endif /* MACOS_CHECK_NETWORKEXTENSION_H */
