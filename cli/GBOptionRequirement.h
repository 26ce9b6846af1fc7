#pragma once

// How an option takes its value: the requirement the parser registers an
// option with, and the low two bits of the registry's option flags.

#include <cstdint>

namespace cli {

// Any other number is parsed like a switch but gets no negated twin.
enum GBOptionRequirement : std::uint64_t {
    GBValueRequired = 0,  // joined with "=" or the next argument
    GBValueOptional = 1,  // may have a value; without one its value is YES
    GBValueNone = 2,      // a switch, with a "no-" twin
};

}  // namespace cli
