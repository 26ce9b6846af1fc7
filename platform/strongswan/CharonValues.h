#pragma once

// Values from the tool's configuration written so that charon takes each
// for the one literal thing it names. charon reads more into some strings
// than the system VPN client does: `remote_addrs` is split into lists,
// subnets and ranges, and "%any" in it is any address; an identity string
// may carry a type prefix ("fqdn:", "email:", "@", "#..."), "%any" or "*"
// matches every identity, a leading '*' is a wildcard, '=' makes it a
// distinguished name and ':' a key id. Values that have a literal spelling
// are written in it; the rest are refused with a message that quotes them.

#include "platform/strongswan/Result.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace platform::strongswan {

// Longest identity charon keeps whole: load-conn identities are cut at 511
// bytes, the owners of a shared secret at 255.
inline constexpr std::size_t kCharonIdentityLimit = 511;
inline constexpr std::size_t kCharonOwnerLimit = 255;

// The server address as one `remote_addrs` item: one address or DNS name.
// Lists, subnets, ranges, wildcards and characters charon refuses are
// errors.
Result<std::string> literalServerAddress(std::string_view value);

// An identity with its type spelled out: an IP address as that address,
// a value holding '@' as an e-mail address, anything else as a DNS name,
// always with exactly the value's bytes. `what` names the value in the
// error ("remote identifier", "user name"); `limit` is the longest
// spelling charon keeps. A leading '*' (a wildcard to charon) and an empty
// value are errors.
Result<std::string> literalIdentity(std::string_view value, std::string_view what,
                                    std::size_t limit);

// `value` in single quotes for a message, control characters as \xNN.
std::string quotedValue(std::string_view value);

}  // namespace platform::strongswan
