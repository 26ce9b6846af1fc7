#include "cli/GBOptionsHelper.h"

#include "cli/GBCommandLineParser.h"
#include "cli/GBSettings.h"
#include "cli/OptionRows.h"
#include "cli/Value.h"
#include "os/Process.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

namespace {

// The "not found" index of the platform's collections.
constexpr std::uint64_t kNotFound =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

using optionrows::Row;

// Text as a C string sees it: cut at its first NUL.
std::string_view cText(std::string_view text) {
    return text.substr(0, text.find('\0'));
}

void appendLine(std::string& out, std::string_view line) {
    out += cText(line);
    out += '\n';
}

void writeToStdout(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    std::size_t position = 0;
    while ((position = text.find(from, position)) != std::string::npos) {
        text.replace(position, from.size(), to);
        position += to.size();
    }
    return text;
}

// The rows of a record that is no option: none for a group end, a blank
// and a title row for a separator or a group. False for an option.
bool appendNonOptionRows(const GBOptionsHelper& helper, std::vector<Row>& rows,
                         std::uint64_t& lastSeparatorIndex, const OptionDefinition& option) {
    if (helper.isOptionGroupEnd(option)) return true;
    if (helper.isSeparator(option)) {
        optionrows::appendSeparator(rows, lastSeparatorIndex, option);
        return true;
    }
    if (helper.isOptionGroup(option)) {
        optionrows::appendGroup(rows, option);
        return true;
    }
    return false;
}

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

// --- Registration and queries ---

void GBOptionsHelper::registerOption(std::int8_t shortOption, std::optional<std::string> longOption,
                                     std::optional<std::string> description, GBOptionFlags flags) {
    auto option = std::make_shared<OptionDefinition>();
    option->setShortOption(shortOption);
    option->setLongOption(std::move(longOption));
    option->setDescription(std::move(description));
    option->setFlags(flags);
    registeredOptions_.push_back(std::move(option));
}

void GBOptionsHelper::registerSeparator(std::optional<std::string> title) {
    registerOption(0, std::nullopt, std::move(title), OptionFlagSeparator);
}

void GBOptionsHelper::registerGroup(std::optional<std::string> name,
                                    std::optional<std::string> description,
                                    const std::function<void(GBOptionsHelper&)>& optionsBlock) {
    registerGroup(std::move(name), std::move(description), 0, optionsBlock);
}

void GBOptionsHelper::registerGroup(std::optional<std::string> name,
                                    std::optional<std::string> description, GBOptionFlags flags,
                                    const std::function<void(GBOptionsHelper&)>& optionsBlock) {
    auto group = std::make_shared<OptionDefinition>();
    group->setShortOption(0);
    group->setLongOption(std::move(name));
    group->setDescription(std::move(description));
    group->setFlags(flags | OptionFlagGroup);
    registeredOptions_.push_back(std::move(group));

    optionsBlock(*this);

    // The end record carries the end mark only, not the group's flags.
    auto end = std::make_shared<OptionDefinition>();
    end->setFlags(OptionFlagGroupEnd);
    registeredOptions_.push_back(std::move(end));
}

void GBOptionsHelper::registerOptionsFromDefinitions(const OptionDefinitionEntry* definitions) {
    for (const OptionDefinitionEntry* entry = definitions;
         entry->longOption.has_value() || entry->description.has_value(); ++entry) {
        registerOption(entry->shortOption, entry->longOption, entry->description, entry->flags);
    }
}

std::uint64_t GBOptionsHelper::requirements(const OptionDefinition& option) const {
    return option.flags() & OptionFlagRequirementMask;
}

bool GBOptionsHelper::isSeparator(const OptionDefinition& option) const {
    return (option.flags() & OptionFlagSeparator) != 0;
}

bool GBOptionsHelper::isOptionGroup(const OptionDefinition& option) const {
    return (option.flags() & OptionFlagGroup) != 0;
}

bool GBOptionsHelper::isOptionGroupEnd(const OptionDefinition& option) const {
    return (option.flags() & OptionFlagGroupEnd) != 0;
}

bool GBOptionsHelper::isCmdLine(const OptionDefinition& option) const {
    return (option.flags() & OptionFlagNoCommandLine) == 0;
}

bool GBOptionsHelper::isPrint(const OptionDefinition& option) const {
    return (option.flags() & OptionFlagNoPrint) == 0;
}

bool GBOptionsHelper::isHelp(const OptionDefinition& option) const {
    // The no-help mark is the sign bit of the flags' low byte.
    return static_cast<std::int8_t>(option.flags() & 0xFF) >= 0;
}

void GBOptionsHelper::enumerateOptions(
    const std::function<void(OptionDefinition& option, bool* stop)>& handler) {
    bool stop = false;
    for (std::size_t i = 0; i < registeredOptions_.size(); ++i) {
        // Hold the record so that a handler which registers more options
        // (and so may move the array's storage) cannot pull it away.
        OptionDefinitionRef option = registeredOptions_[i];
        handler(*option, &stop);
        if (stop) break;
    }
}

// --- Hand-over to the parser ---

void GBOptionsHelper::registerOptionsToCommandLineParser(GBCommandLineParser& parser) {
    enumerateOptions([&](OptionDefinition& option, bool*) {
        if (!isCmdLine(option)) return;
        if (isSeparator(option)) return;
        if (isOptionGroup(option)) {
            parser.beginRegisterOptionGroup(option.longOption().value_or(std::string()));
            return;
        }
        // A group opened with the no-command-line mark was skipped above,
        // yet its end record still closes a group in the parser.
        if (isOptionGroupEnd(option)) {
            parser.endRegisterOptionGroup();
            return;
        }
        // A record without a long name is no option the parser could match.
        if (!option.longOption()) return;
        parser.registerOption(*option.longOption(), static_cast<char>(option.shortOption()),
                              static_cast<GBOptionRequirement>(requirements(option)));
    });
}

// --- Help and version ---

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

std::string GBOptionsHelper::replacePlaceholdersInStringFromBlock(const StringBlock& block) const {
    if (!block) return "\n";
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
    std::string line;
    appendLine(line, text);
    return line;
}

void GBOptionsHelper::replacePlaceholdersAndPrintStringFromBlock(const StringBlock& block) const {
    writeToStdout(replacePlaceholdersInStringFromBlock(block));
}

std::string GBOptionsHelper::versionText() {
    std::string text = applicationNameFromBlockOrDefault();
    if (applicationVersionFromBlockOrNil()) {
        text += ": version " + *applicationVersionFromBlockOrNil();
    }
    if (applicationBuildFromBlockOrNil()) {
        text += " (build " + *applicationBuildFromBlockOrNil() + ")";
    }
    std::string line;
    appendLine(line, text);
    return line;
}

void GBOptionsHelper::printVersion() {
    writeToStdout(versionText());
}

std::string GBOptionsHelper::helpText() {
    std::vector<Row> rows;
    std::size_t maxNameTypeLength = 0;
    std::uint64_t lastSeparatorIndex = kNotFound;

    enumerateOptions([&](OptionDefinition& option, bool*) {
        if (!isHelp(option) || appendNonOptionRows(*this, rows, lastSeparatorIndex, option)) return;
        std::string shortColumn = "  ";
        if (option.shortOption() >= 1) {
            shortColumn = std::string("-") + static_cast<char>(option.shortOption());
        }
        std::string valueMark;
        switch (requirements(option)) {
            case GBValueRequired:
                valueMark = " <value>";
                break;
            case GBValueOptional:
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

    std::string text = replacePlaceholdersInStringFromBlock(printHelpHeader_);
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
        appendLine(text, line);
    }
    text += replacePlaceholdersInStringFromBlock(printHelpFooter_);
    return text;
}

void GBOptionsHelper::printHelp() {
    writeToStdout(helpText());
}

// --- Values report ---

std::string GBOptionsHelper::valuesTextFromSettings(GBSettings& settings) {
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
        if (!isPrint(option) || appendNonOptionRows(*this, rows, lastSeparatorIndex, option))
            return;
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

    std::string text = replacePlaceholdersInStringFromBlock(printValuesHeader_);
    const Value arguments = settings.arguments();
    if (arguments.count() > 0) {
        text += replacePlaceholdersInStringFromBlock(printValuesArgumentsHeader_);
        for (const Value& argument : arguments.elements()) {
            text += "- ";
            text += cText(argument.description());
            if (settingsHierarchyLevels > 1) {
                GBSettings* level = settings.settingsForArgument(argument);
                text += " (";
                text += cText(level ? describe(level->name()) : std::string(kNilDescription));
                text += ")";
            }
            text += "\n";
        }
        text += "\n";
    }
    text += replacePlaceholdersInStringFromBlock(printValuesOptionsHeader_);
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
        appendLine(text, line);
    }
    text += replacePlaceholdersInStringFromBlock(printValuesFooter_);
    return text;
}

void GBOptionsHelper::printValuesFromSettings(GBSettings& settings) {
    writeToStdout(valuesTextFromSettings(settings));
}

}  // namespace cli
