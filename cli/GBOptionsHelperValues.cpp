// The report of effective settings values: one column per settings level.

#include "cli/GBOptionsHelper.h"
#include "cli/GBSettings.h"
#include "cli/OptionRows.h"
#include "cli/Value.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace cli {

namespace {

using optionrows::Row;

std::string arrayCellForLevel(GBSettings& level, const std::string& key) {
    std::string cell;
    bool first = true;
    const Value merged = level.objectForKey(key);
    for (const Value& item : merged.elements()) {
        if (level.settingsForArrayValue(item, key) != &level) continue;
        if (!first) cell += ", ";
        cell += item.description();
        first = false;
    }
    return cell;
}

}  // namespace

void GBOptionsHelper::printValuesFromSettings(GBSettings& settings) {
    std::vector<Row> rows;
    std::vector<std::size_t> widths;
    std::size_t settingsHierarchyLevels = 0;
    // Unlike the help text this starts at 0; the header row is always there
    // before any record is seen, so 0 never matches a row count.
    std::uint64_t lastSeparatorIndex = 0;

    Row header{"Option"};
    widths.push_back(utf16Length("Option"));
    settings.enumerateSettings([&](GBSettings& level, bool*) {
        const std::string name = describe(level.name());
        header.push_back(name);
        widths.push_back(utf16Length(name));
        ++settingsHierarchyLevels;
    });
    rows.push_back(header);

    enumerateOptions([&](OptionDefinition& option, bool*) {
        if (!isPrint(option)) return;
        if (isOptionGroupEnd(option)) return;
        if (isSeparator(option)) {
            optionrows::appendSeparator(rows, lastSeparatorIndex, option);
            return;
        }
        if (isOptionGroup(option)) {
            optionrows::appendGroup(rows, option);
            return;
        }
        const std::string key = describe(option.longOption());
        Row row{key};
        widths[0] = std::max(widths[0], utf16Length(key));
        settings.enumerateSettings([&](GBSettings& level, bool*) {
            std::string cell;
            if (level.isKeyPresentAtThisLevel(key)) {
                if (!level.isKeyArray(key)) {
                    cell = level.objectForKey(key).description();
                } else {
                    cell = arrayCellForLevel(level, key);
                }
            }
            const std::size_t column = row.size();
            if (column < widths.size()) {
                widths[column] = std::max(widths[column], utf16Length(cell));
            }
            row.push_back(cell);
        });
        rows.push_back(row);
    });
    optionrows::dropTrailingSeparator(rows, lastSeparatorIndex);

    replacePlaceholdersAndPrintStringFromBlock(printValuesHeader_);
    const Value arguments = settings.arguments();
    if (arguments.count() > 0) {
        replacePlaceholdersAndPrintStringFromBlock(printValuesArgumentsHeader_);
        for (const Value& argument : arguments.elements()) {
            std::printf("- %s", argument.description().c_str());
            if (settingsHierarchyLevels > 1) {
                GBSettings* level = settings.settingsForArgument(argument);
                std::printf(" (%s)", level ? describe(level->name()).c_str() : "(null)");
            }
            std::printf("\n");
        }
        std::printf("\n");
    }
    replacePlaceholdersAndPrintStringFromBlock(printValuesOptionsHeader_);
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            const std::string& cell = row[column];
            line += cell;
            const std::size_t length = utf16Length(cell);
            const std::size_t width = column < widths.size() ? widths[column] : 0;
            // A cell wider than its column (a separator or group title in
            // column 0) gets no padding; every other cell at least one blank.
            if (length <= width) line.append(width - length + 1, ' ');
        }
        std::printf("%s\n", line.c_str());
    }
    replacePlaceholdersAndPrintStringFromBlock(printValuesFooter_);
}

}  // namespace cli
