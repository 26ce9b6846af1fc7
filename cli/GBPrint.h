#pragma once

// Console printing for the command-line layer. The formats are fmt's: `{}`
// takes the place of printf's %@ and %s. A Value prints its description
// (nil prints "(null)"), and an optional string prints its text or "(null)".
// Each call builds the whole text first and writes it with one fputs to the
// C stream, so the text stops at an embedded NUL; nothing is flushed.
//
// Formats are checked at compile time; pass a format computed at run time
// through fmt::runtime(text).

#include "cli/Value.h"

#include <fmt/format.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace cli {

// Formats `format` with `args` and writes the UTF-8 text, up to any NUL in
// it, to `stream` in one call; adds no newline of its own. A format that fmt
// rejects is written as it stands.
void gb_printf_worker(std::FILE* stream, fmt::string_view format, fmt::format_args args);

namespace detail {
// The format with a line feed appended, as the line variants use it.
inline std::string withLineFeed(fmt::string_view format) {
    return std::string(format.data(), format.size()) + "\n";
}
}  // namespace detail

// To standard output, no newline.
template <typename... Args>
void gbprint(fmt::format_string<Args...> format, Args&&... args) {
    gb_printf_worker(stdout, fmt::string_view(format), fmt::make_format_args(args...));
}

// To standard output; the format gets a line feed appended.
template <typename... Args>
void gbprintln(fmt::format_string<Args...> format, Args&&... args) {
    const std::string line = detail::withLineFeed(format);
    gb_printf_worker(stdout, line, fmt::make_format_args(args...));
}

// To `stream`, no newline.
template <typename... Args>
void gbfprint(std::FILE* stream, fmt::format_string<Args...> format, Args&&... args) {
    gb_printf_worker(stream, fmt::string_view(format), fmt::make_format_args(args...));
}

// To `stream`; the format gets a line feed appended.
template <typename... Args>
void gbfprintln(std::FILE* stream, fmt::format_string<Args...> format, Args&&... args) {
    const std::string line = detail::withLineFeed(format);
    gb_printf_worker(stream, line, fmt::make_format_args(args...));
}

}  // namespace cli

// `{}` of a Value inserts its description; width and alignment apply to it.
template <>
struct fmt::formatter<cli::Value> : fmt::formatter<std::string_view> {
    template <typename FormatContext>
    auto format(const cli::Value& value, FormatContext& ctx) const {
        const std::string text = value.description();
        return fmt::formatter<std::string_view>::format(text, ctx);
    }
};

// `{}` of an optional string inserts its text, or "(null)" when it has none.
template <>
struct fmt::formatter<std::optional<std::string>> : fmt::formatter<std::string_view> {
    template <typename FormatContext>
    auto format(const std::optional<std::string>& text, FormatContext& ctx) const {
        const std::string shown = cli::describe(text);
        return fmt::formatter<std::string_view>::format(shown, ctx);
    }
};
