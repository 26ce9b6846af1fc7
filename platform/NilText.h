#pragma once

// What the platform prints for a nil object through a `%@` format.

#include <optional>
#include <string>
#include <string_view>

namespace platform {

inline constexpr std::string_view kNilText = "(null)";

// Optional text as a format argument: its text, or kNilText when absent.
inline std::string_view orNull(const std::optional<std::string>& text) {
    return text ? std::string_view(*text) : kNilText;
}

}  // namespace platform
