#pragma once

// How values cross between the system VPN framework and the adapter, in
// plain C++ so that the tests run everywhere. The framework's enums are
// NSInteger with the numbers NEVPN.h gives them, so a value crosses
// unchanged, also one this code has no name for (a status or an algorithm
// of a newer system): a status 7 still reads as "unknown", a profile saved
// by a newer system still reads back as present.

#include "platform/NEVPN.h"

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace platform::macos {

template <class Enum>
concept AdapterEnum =
    std::is_enum_v<Enum> && std::is_same_v<std::underlying_type_t<Enum>, std::int64_t>;

template <AdapterEnum Enum>
Enum enumFromFramework(std::int64_t value) {
    return static_cast<Enum>(value);
}

template <AdapterEnum Enum>
std::int64_t enumToFramework(Enum value) {
    return static_cast<std::int64_t>(value);
}

// An NSError as the connector sees it: the error's code, and the text `%@`
// prints for it (its description), "(null)" when that is nil.
NSError errorFromFramework(std::int64_t code, const std::optional<std::string>& description);

}  // namespace platform::macos
