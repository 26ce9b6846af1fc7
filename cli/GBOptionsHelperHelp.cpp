// Help text and version line of the option registry.

#include "cli/GBOptionsHelper.h"
#include "cli/OptionRows.h"
#include "cli/Value.h"
#include "os/Process.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

namespace cli {

namespace {

// The "not found" index of the platform's collections.
constexpr std::uint64_t kNotFound =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

using optionrows::Row;

void printLine(const std::string& text) {
    std::puts(text.c_str());
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    std::size_t position = 0;
    while ((position = text.find(from, position)) != std::string::npos) {
        text.replace(position, from.size(), to);
        position += to.size();
    }
    return text;
}

}  // namespace

std::string GBOptionsHelper::applicationNameFromBlockOrDefault() const {
    if (applicationName_) return applicationName_();
    return os::programName();
}

std::optional<std::string> GBOptionsHelper::applicationVersionFromBlockOrNil() const {
    if (applicationVersion_) return applicationVersion_();
    return std::nullopt;
}

std::optional<std::string> GBOptionsHelper::applicationBuildFromBlockOrNil() const {
    if (applicationBuild_) return applicationBuild_();
    return std::nullopt;
}

void GBOptionsHelper::replacePlaceholdersAndPrintStringFromBlock(const StringBlock& block) const {
    if (!block) {
        printLine("");
        return;
    }
    std::string text = block();
    // The name is substituted only when a build is known; every supplier is
    // asked again at each use, as callers may count on fresh answers.
    if (applicationBuildFromBlockOrNil()) {
        text = replaceAll(text, "%APPNAME", applicationNameFromBlockOrDefault());
    }
    if (applicationVersionFromBlockOrNil()) {
        text = replaceAll(text, "%APPVERSION", *applicationVersionFromBlockOrNil());
    }
    if (applicationBuildFromBlockOrNil()) {
        text = replaceAll(text, "%APPBUILD", *applicationBuildFromBlockOrNil());
    }
    printLine(text);
}

void GBOptionsHelper::printVersion() {
    std::string text = applicationNameFromBlockOrDefault();
    if (applicationVersionFromBlockOrNil()) {
        text += ": version " + *applicationVersionFromBlockOrNil();
    }
    if (applicationBuildFromBlockOrNil()) {
        text += " (build " + *applicationBuildFromBlockOrNil() + ")";
    }
    printLine(text);
}

void GBOptionsHelper::printHelp() {
    std::vector<Row> rows;
    std::size_t maxNameTypeLength = 0;
    std::uint64_t lastSeparatorIndex = kNotFound;

    enumerateOptions([&](OptionDefinition& option, bool*) {
        if (!isHelp(option)) return;
        if (isOptionGroupEnd(option)) return;
        if (isSeparator(option)) {
            optionrows::appendSeparator(rows, lastSeparatorIndex, option);
            return;
        }
        if (isOptionGroup(option)) {
            optionrows::appendGroup(rows, option);
            return;
        }
        std::string shortColumn = "  ";
        if (option.shortOption() >= 1) {
            shortColumn = std::string("-") + static_cast<char>(option.shortOption());
        }
        std::string valueMark;
        switch (requirements(option)) {
            case 0:
                valueMark = " <value>";
                break;
            case 1:
                valueMark = " [<value>]";
                break;
            default:
                break;
        }
        std::string nameColumn = "--" + describe(option.longOption()) + valueMark;
        maxNameTypeLength = std::max(maxNameTypeLength, utf16Length(nameColumn));
        rows.push_back({shortColumn, nameColumn, option.description().value_or(std::string())});
    });
    optionrows::dropTrailingSeparator(rows, lastSeparatorIndex);

    replacePlaceholdersAndPrintStringFromBlock(printHelpHeader_);
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column];
            line += ' ';
            if (column == 1) {
                for (std::size_t length = utf16Length(row[column]); length < maxNameTypeLength;
                     ++length) {
                    line += ' ';
                }
            }
        }
        printLine(line);
    }
    replacePlaceholdersAndPrintStringFromBlock(printHelpFooter_);
}

}  // namespace cli
