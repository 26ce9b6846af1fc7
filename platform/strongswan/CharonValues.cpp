#include "platform/strongswan/CharonValues.h"

#include <fmt/format.h>

#include <arpa/inet.h>

#include <algorithm>
#include <array>

namespace platform::strongswan {

namespace {

// Longest part of a value quoted in a message.
constexpr std::size_t kQuotedLimit = 80;

bool printableAscii(std::string_view value) {
    return std::all_of(value.begin(), value.end(),
                       [](unsigned char c) { return c >= 0x20 && c < 0x7f; });
}

std::string hex(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        fmt::format_to(std::back_inserter(out), "{:02x}", c);
    }
    return out;
}

// The address in network order when `value` is exactly an IPv4 or IPv6
// address (inet_pton's spelling, as charon's own parser).
std::string ipBytes(std::string_view value, int& family) {
    if (value.find('\0') != std::string_view::npos) {
        return {};
    }
    std::string text(value);
    std::array<unsigned char, 16> address{};
    for (int candidate : {AF_INET, AF_INET6}) {
        if (::inet_pton(candidate, text.c_str(), address.data()) == 1) {
            family = candidate;
            return std::string(reinterpret_cast<const char*>(address.data()),
                               candidate == AF_INET ? 4 : 16);
        }
    }
    return {};
}

std::string_view trimSpaces(std::string_view text) {
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    return text;
}

// "from-to" with an address on each side: charon's address range.
bool isAddressRange(std::string_view value) {
    int family = 0;
    for (std::size_t dash = value.find('-'); dash != std::string_view::npos;
         dash = value.find('-', dash + 1)) {
        if (!ipBytes(trimSpaces(value.substr(0, dash)), family).empty() &&
            !ipBytes(trimSpaces(value.substr(dash + 1)), family).empty()) {
            return true;
        }
    }
    return false;
}

bool isUnspecifiedAddress(std::string_view value) {
    int family = 0;
    std::string bytes = ipBytes(value, family);
    return !bytes.empty() && std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == 0; });
}

}  // namespace

std::string quotedValue(std::string_view value) {
    bool cut = false;
    if (value.size() > kQuotedLimit) {
        std::size_t end = kQuotedLimit;
        // not inside a UTF-8 sequence
        while (end > 0 && (static_cast<unsigned char>(value[end]) & 0xc0) == 0x80) {
            --end;
        }
        value = value.substr(0, end);
        cut = true;
    }
    std::string out = "'";
    for (unsigned char c : value) {
        if (c < 0x20 || c == 0x7f) {
            fmt::format_to(std::back_inserter(out), "\\x{:02x}", c);
        } else {
            out += static_cast<char>(c);
        }
    }
    out += cut ? "...'" : "'";
    return out;
}

Result<std::string> literalServerAddress(std::string_view value) {
    auto refuse = [&](std::string_view why) {
        return Error{fmt::format("server address {} {}; give one address or DNS name",
                                 quotedValue(value), why)};
    };
    if (value.empty()) {
        return Error{"no server address"};
    }
    if (!printableAscii(value)) {
        return refuse(
            "has characters charon does not take (an international name goes in its "
            "xn-- form)");
    }
    if (value.find(',') != std::string_view::npos) {
        return refuse("is a list");
    }
    if (value.find('/') != std::string_view::npos) {
        return refuse("is a subnet");
    }
    if (value.find('%') != std::string_view::npos) {
        return refuse("holds '%', which charon reads as a wildcard or an interface");
    }
    if (isAddressRange(value)) {
        return refuse("is an address range");
    }
    if (isUnspecifiedAddress(value)) {
        return refuse("is the wildcard address");
    }
    return std::string(value);
}

Result<std::string> literalIdentity(std::string_view value, std::string_view what,
                                    std::size_t limit) {
    if (value.empty()) {
        return Error{fmt::format("no {}", what)};
    }
    if (value.front() == '*') {
        return Error{fmt::format("{} {} starts with '*', which charon takes for a wildcard", what,
                                 quotedValue(value))};
    }
    int family = 0;
    std::string address = ipBytes(value, family);
    std::string spelled;
    if (!address.empty()) {
        spelled = (family == AF_INET ? "ipv4:#" : "ipv6:#") + hex(address);
    } else {
        spelled = value.find('@') != std::string_view::npos ? "email:" : "fqdn:";
        // After the prefix charon keeps the rest as it is, unless it starts
        // with '#' (hex) or holds bytes it refuses: those go in hex.
        if (value.front() == '#' || !printableAscii(value)) {
            spelled += "#" + hex(value);
        } else {
            spelled += value;
        }
    }
    if (spelled.size() > limit) {
        return Error{fmt::format("{} {} is too long for charon ({} bytes)", what,
                                 quotedValue(value), value.size())};
    }
    return spelled;
}

}  // namespace platform::strongswan
