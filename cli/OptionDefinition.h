#pragma once

// One record of the option registry: an option, a separator (a titled break
// in the help text), the opening of an option group or the end of one. The
// kind is told by the flags word.

#include <cstdint>
#include <optional>
#include <string>

namespace cli {

using GBOptionFlags = std::uint64_t;

// Bits 0-1: the value requirement handed to the parser (0 required,
// 1 optional, 2 none). The other named bits are the registry's own marks;
// bits 2, 8, 9 and those above 10 mean nothing.
inline constexpr GBOptionFlags OptionFlagRequirementMask = 0x3;
inline constexpr GBOptionFlags OptionFlagSeparator = 0x8;
inline constexpr GBOptionFlags OptionFlagGroup = 0x10;
inline constexpr GBOptionFlags OptionFlagNoCommandLine = 0x20;
inline constexpr GBOptionFlags OptionFlagNoPrint = 0x40;
inline constexpr GBOptionFlags OptionFlagNoHelp = 0x80;
inline constexpr GBOptionFlags OptionFlagGroupEnd = 0x400;

class OptionDefinition {
  public:
    // One-letter short name; 0 (or anything below 1) for none.
    std::int8_t shortOption() const { return shortOption_; }
    void setShortOption(std::int8_t value) { shortOption_ = value; }

    // Long name without dashes; the group's name for a group record;
    // absent for separators and group ends.
    const std::optional<std::string>& longOption() const { return longOption_; }
    void setLongOption(std::optional<std::string> value) { longOption_ = std::move(value); }

    // Help text; the title of a separator; the description of a group.
    const std::optional<std::string>& description() const { return description_; }
    void setDescription(std::optional<std::string> value) { description_ = std::move(value); }

    GBOptionFlags flags() const { return flags_; }
    void setFlags(GBOptionFlags value) { flags_ = value; }

  private:
    std::int8_t shortOption_ = 0;
    std::optional<std::string> longOption_;
    std::optional<std::string> description_;
    GBOptionFlags flags_ = 0;
};

}  // namespace cli
