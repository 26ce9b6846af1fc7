#pragma once

// The ordered registry of the tool's command-line options. From this one
// list come the parser's registrations, the help text, the version line and
// the report of effective settings values, all in registration order.

#include "cli/OptionDefinition.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace cli {

class GBCommandLineParser;
class GBSettings;

// One entry of a definitions run for registerOptionsFromDefinitions; a run
// ends at the first entry whose long name and description are both absent.
struct OptionDefinitionEntry {
    std::int8_t shortOption = 0;
    std::optional<std::string> longOption;
    std::optional<std::string> description;
    GBOptionFlags flags = 0;
};

class GBOptionsHelper {
  public:
    // A text supplier, asked each time its text is needed; empty = absent.
    using StringBlock = std::function<std::string()>;
    using OptionDefinitionRef = std::shared_ptr<OptionDefinition>;

    GBOptionsHelper() = default;

    // The records in registration order, separators and group records
    // included.
    std::vector<OptionDefinitionRef>& registeredOptions() { return registeredOptions_; }
    const std::vector<OptionDefinitionRef>& registeredOptions() const { return registeredOptions_; }
    void setRegisteredOptions(std::vector<OptionDefinitionRef> options) {
        registeredOptions_ = std::move(options);
    }

    const StringBlock& applicationName() const { return applicationName_; }
    void setApplicationName(StringBlock block) { applicationName_ = std::move(block); }
    const StringBlock& applicationVersion() const { return applicationVersion_; }
    void setApplicationVersion(StringBlock block) { applicationVersion_ = std::move(block); }
    const StringBlock& applicationBuild() const { return applicationBuild_; }
    void setApplicationBuild(StringBlock block) { applicationBuild_ = std::move(block); }
    const StringBlock& printValuesHeader() const { return printValuesHeader_; }
    void setPrintValuesHeader(StringBlock block) { printValuesHeader_ = std::move(block); }
    const StringBlock& printValuesArgumentsHeader() const { return printValuesArgumentsHeader_; }
    void setPrintValuesArgumentsHeader(StringBlock block) {
        printValuesArgumentsHeader_ = std::move(block);
    }
    const StringBlock& printValuesOptionsHeader() const { return printValuesOptionsHeader_; }
    void setPrintValuesOptionsHeader(StringBlock block) {
        printValuesOptionsHeader_ = std::move(block);
    }
    const StringBlock& printValuesFooter() const { return printValuesFooter_; }
    void setPrintValuesFooter(StringBlock block) { printValuesFooter_ = std::move(block); }
    const StringBlock& printHelpHeader() const { return printHelpHeader_; }
    void setPrintHelpHeader(StringBlock block) { printHelpHeader_ = std::move(block); }
    const StringBlock& printHelpFooter() const { return printHelpFooter_; }
    void setPrintHelpFooter(StringBlock block) { printHelpFooter_ = std::move(block); }

    // Registration: each call appends; nothing is validated.
    void registerOption(std::int8_t shortOption, std::optional<std::string> longOption,
                        std::optional<std::string> description, GBOptionFlags flags);
    // A separator record: no names, the title as description, flags 0x8.
    void registerSeparator(std::optional<std::string> title);
    // A group record (flags | 0x10), whatever `optionsBlock` registers, then
    // an end record whose flags are exactly 0x400.
    void registerGroup(std::optional<std::string> name, std::optional<std::string> description,
                       const std::function<void(GBOptionsHelper&)>& optionsBlock);
    void registerGroup(std::optional<std::string> name, std::optional<std::string> description,
                       GBOptionFlags flags,
                       const std::function<void(GBOptionsHelper&)>& optionsBlock);
    // Registers each entry from `definitions` on up to, not including, the
    // first entry whose long name and description are both absent.
    void registerOptionsFromDefinitions(const OptionDefinitionEntry* definitions);

    // Pure functions of one record's flags.
    std::uint64_t requirements(const OptionDefinition& option) const;
    bool isSeparator(const OptionDefinition& option) const;
    bool isOptionGroup(const OptionDefinition& option) const;
    bool isOptionGroupEnd(const OptionDefinition& option) const;
    bool isCmdLine(const OptionDefinition& option) const;
    bool isPrint(const OptionDefinition& option) const;
    bool isHelp(const OptionDefinition& option) const;

    // Calls `handler` for every record in order until it sets *stop.
    void enumerateOptions(const std::function<void(OptionDefinition& option, bool* stop)>& handler);

    // Hands options, group starts and group ends to the parser. A record
    // without a long name is not handed over: its help row shows, but no
    // argument selects it.
    void registerOptionsToCommandLineParser(GBCommandLineParser& parser);

    // Help and version output, on standard output.
    void printHelp();
    void printVersion();
    std::string applicationNameFromBlockOrDefault() const;
    std::optional<std::string> applicationVersionFromBlockOrNil() const;
    std::optional<std::string> applicationBuildFromBlockOrNil() const;
    // Prints the block's text with %APPNAME, %APPVERSION and %APPBUILD
    // replaced; an absent block prints an empty line.
    void replacePlaceholdersAndPrintStringFromBlock(const StringBlock& block) const;

    // The table of every printable option's value at each level of the
    // chain starting at `settings`, preceded by the positional arguments.
    void printValuesFromSettings(GBSettings& settings);

  private:
    std::vector<OptionDefinitionRef> registeredOptions_;
    StringBlock applicationName_;
    StringBlock applicationVersion_;
    StringBlock applicationBuild_;
    StringBlock printValuesHeader_;
    StringBlock printValuesArgumentsHeader_;
    StringBlock printValuesOptionsHeader_;
    StringBlock printValuesFooter_;
    StringBlock printHelpHeader_;
    StringBlock printHelpFooter_;
};

}  // namespace cli
