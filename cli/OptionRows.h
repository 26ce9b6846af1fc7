#pragma once

// The rows that help and the values report build alike from separator and
// group records: a blank row and a title row each.

#include "cli/OptionDefinition.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cli::optionrows {

using Row = std::vector<std::string>;

// Removes the last separator's two rows when nothing was added after them.
void dropTrailingSeparator(std::vector<Row>& rows, std::uint64_t lastSeparatorIndex);

// Appends a separator's rows (after dropping an empty previous separator)
// and moves `lastSeparatorIndex` to the new row count.
void appendSeparator(std::vector<Row>& rows, std::uint64_t& lastSeparatorIndex,
                     const OptionDefinition& separator);

// Appends a group's rows: its name, and its description when it has one.
// A group is not content after a separator: `lastSeparatorIndex` stays.
void appendGroup(std::vector<Row>& rows, const OptionDefinition& group);

}  // namespace cli::optionrows
