#include "platform/strongswan/CharonValues.h"

#include <gtest/gtest.h>

namespace ss = platform::strongswan;

namespace {

std::string valueOf(const ss::Result<std::string>& result, const std::string& value) {
    EXPECT_TRUE(result) << value << ": " << (result ? "" : result.error().text);
    return result ? *result : std::string();
}

std::string errorOf(const ss::Result<std::string>& result, const std::string& value) {
    EXPECT_FALSE(result) << value;
    return result ? std::string() : result.error().text;
}

std::string server(const std::string& value) {
    return valueOf(ss::literalServerAddress(value), value);
}

// The error for a refused server address.
std::string serverError(const std::string& value) {
    return errorOf(ss::literalServerAddress(value), value);
}

std::string identity(const std::string& value, std::size_t limit = ss::kCharonIdentityLimit) {
    return valueOf(ss::literalIdentity(value, "remote identifier", limit), value);
}

std::string identityError(const std::string& value, std::size_t limit = ss::kCharonIdentityLimit) {
    return errorOf(ss::literalIdentity(value, "remote identifier", limit), value);
}

TEST(CharonValuesTest, OneServerAddressOrNameIsPassedAsTyped) {
    EXPECT_EQ(server("192.0.2.2"), "192.0.2.2");
    EXPECT_EQ(server("2001:db8::1"), "2001:db8::1");
    EXPECT_EQ(server("vpn.example.net"), "vpn.example.net");
    // A dash between names is no range.
    EXPECT_EQ(server("vpn-eu-1.example.net"), "vpn-eu-1.example.net");
    EXPECT_EQ(server("10.0.0.1-gw.example.net"), "10.0.0.1-gw.example.net");
}

TEST(CharonValuesTest, ServerAddressListIsRefused) {
    EXPECT_EQ(serverError("192.0.2.2,192.0.2.3"),
              "server address '192.0.2.2,192.0.2.3' is a list; give one address or DNS name");
    EXPECT_NE(serverError("a.example.net, b.example.net").find("is a list"), std::string::npos);
}

TEST(CharonValuesTest, ServerAddressSubnetIsRefused) {
    EXPECT_EQ(serverError("192.0.2.0/24"),
              "server address '192.0.2.0/24' is a subnet; give one address or DNS name");
    EXPECT_NE(serverError("2001:db8::/64").find("is a subnet"), std::string::npos);
}

TEST(CharonValuesTest, ServerAddressRangeIsRefused) {
    EXPECT_EQ(serverError("192.0.2.2-192.0.2.9"),
              "server address '192.0.2.2-192.0.2.9' is an address range; give one address or DNS "
              "name");
    EXPECT_NE(serverError("192.0.2.2 - 192.0.2.9").find("range"), std::string::npos);
    EXPECT_NE(serverError("2001:db8::1-2001:db8::9").find("range"), std::string::npos);
}

TEST(CharonValuesTest, ServerAddressWildcardsAreRefused) {
    for (const char* value : {"%any", "%any4", "%any6", "fe80::1%eth0"}) {
        EXPECT_NE(serverError(value).find("holds '%'"), std::string::npos) << value;
    }
    for (const char* value : {"0.0.0.0", "::", "0::0"}) {
        EXPECT_NE(serverError(value).find("is the wildcard address"), std::string::npos) << value;
    }
}

TEST(CharonValuesTest, ServerAddressWithCharactersCharonRefusesIsRefused) {
    EXPECT_NE(serverError("b\xc3\xbc"
                          "cher.example")
                  .find("xn--"),
              std::string::npos);
    EXPECT_EQ(serverError("192.0.2.2\r"),
              "server address '192.0.2.2\\x0d' has characters charon does not take (an "
              "international name goes in its xn-- form); give one address or DNS name");
    EXPECT_EQ(serverError(""), "no server address");
}

TEST(CharonValuesTest, IdentityTypeIsSpelledOut) {
    EXPECT_EQ(identity("vpn.example.net"), "fqdn:vpn.example.net");
    EXPECT_EQ(identity("alice"), "fqdn:alice");
    EXPECT_EQ(identity("alice@example.net"), "email:alice@example.net");
    EXPECT_EQ(identity("192.0.2.2"), "ipv4:#c0000202");
    EXPECT_EQ(identity("2001:db8::1"), "ipv6:#20010db8000000000000000000000001");
}

TEST(CharonValuesTest, WhatCharonWouldParseIsKeptAsTheValueItself) {
    // Type prefixes, "%any" and its relatives, '@' forms, distinguished
    // names, numeric types and key ids: each stays the plain text it is.
    EXPECT_EQ(identity("%any"), "fqdn:%any");
    EXPECT_EQ(identity("%any6"), "fqdn:%any6");
    EXPECT_EQ(identity("fqdn:vpn.example.net"), "fqdn:fqdn:vpn.example.net");
    EXPECT_EQ(identity("email:x"), "fqdn:email:x");
    EXPECT_EQ(identity("asn1dn:#3000"), "fqdn:asn1dn:#3000");
    EXPECT_EQ(identity("{11}:key"), "fqdn:{11}:key");
    EXPECT_EQ(identity("@vpn.example.net"), "email:@vpn.example.net");
    EXPECT_EQ(identity("@#0102"), "email:@#0102");
    EXPECT_EQ(identity("C=ZZ, O=Orvane, CN=vpn"), "fqdn:C=ZZ, O=Orvane, CN=vpn");
    EXPECT_EQ(identity("DOMAIN:alice"), "fqdn:DOMAIN:alice");
    // The unspecified address is an address, not "any".
    EXPECT_EQ(identity("0.0.0.0"), "ipv4:#00000000");
    EXPECT_EQ(identity("::"), "ipv6:#00000000000000000000000000000000");
}

TEST(CharonValuesTest, IdentityStartingWithHashOrHoldingOtherBytesGoesInHex) {
    EXPECT_EQ(identity("#0102"), "fqdn:#2330313032");
    EXPECT_EQ(identity("j\xc3\xbcrgen"), "fqdn:#6ac3bc7267656e");
    EXPECT_EQ(identity("j\xc3\xbcrgen@example.net"),
              "email:#6ac3bc7267656e406578616d706c652e6e6574");
    EXPECT_EQ(identity("tab\there"), "fqdn:#7461620968657265");
}

TEST(CharonValuesTest, IdentityWildcardIsRefused) {
    EXPECT_EQ(identityError("*.example.net"),
              "remote identifier '*.example.net' starts with '*', which charon takes for a "
              "wildcard");
    EXPECT_NE(identityError("*").find("wildcard"), std::string::npos);
    EXPECT_NE(identityError("*@example.net").find("wildcard"), std::string::npos);
    // Only a leading '*' is a wildcard to charon.
    EXPECT_EQ(identity("vpn*.example.net"), "fqdn:vpn*.example.net");
}

TEST(CharonValuesTest, IdentityCharonWouldCutIsRefused) {
    std::string longest(ss::kCharonOwnerLimit - 5, 'a');  // "fqdn:" + value
    EXPECT_EQ(identity(longest, ss::kCharonOwnerLimit), "fqdn:" + longest);
    EXPECT_EQ(identityError(longest + "a", ss::kCharonOwnerLimit),
              "remote identifier '" + std::string(80, 'a') +
                  "...' is too long for charon (251 "
                  "bytes)");
    // The hex spelling counts.
    std::string wide(ss::kCharonOwnerLimit / 2, '\x01');
    EXPECT_NE(identityError(wide, ss::kCharonOwnerLimit).find("too long"), std::string::npos);
    EXPECT_EQ(identityError(""), "no remote identifier");
}

TEST(CharonValuesTest, QuotedValuesShowControlCharactersAndStayShort) {
    EXPECT_EQ(ss::quotedValue("a\x01\x7f"
                              "b"),
              "'a\\x01\\x7fb'");
    EXPECT_EQ(ss::quotedValue("caf\xc3\xa9"), "'caf\xc3\xa9'");
    // A long value is cut, never inside a UTF-8 sequence.
    std::string value = std::string(79, 'x') + "\xc3\xa9" + "tail";
    EXPECT_EQ(ss::quotedValue(value), "'" + std::string(79, 'x') + "...'");
}

}  // namespace
