#include "cli/OptionRows.h"

#include "cli/Value.h"

namespace cli::optionrows {

void dropTrailingSeparator(std::vector<Row>& rows, std::uint64_t lastSeparatorIndex) {
    if (rows.size() == lastSeparatorIndex) {
        rows.pop_back();
        rows.pop_back();
    }
}

void appendSeparator(std::vector<Row>& rows, std::uint64_t& lastSeparatorIndex,
                     const OptionDefinition& separator) {
    dropTrailingSeparator(rows, lastSeparatorIndex);
    rows.push_back({});
    rows.push_back({describe(separator.description())});
    lastSeparatorIndex = rows.size();
}

void appendGroup(std::vector<Row>& rows, const OptionDefinition& group) {
    std::string title = describe(group.longOption());
    if (group.description() && utf16Length(*group.description()) > 0) {
        title += " " + *group.description();
    }
    rows.push_back({});
    rows.push_back({title});
}

}  // namespace cli::optionrows
