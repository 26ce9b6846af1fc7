#pragma once

// The command-line parser: options, switches and option groups are
// registered first, then an argument list is walked once, left to right,
// and every finding is reported to a callback block. The built-in
// simplified block writes options and positional arguments into a settings
// level and prints the parse errors on standard error.

#include "cli/GBSettings.h"
#include "cli/Value.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

class GBOptionsHelper;

// How an option takes its value. Any other number is parsed like a switch
// but gets no negated twin.
enum GBOptionRequirement : std::uint64_t {
    GBValueRequired = 0,  // joined with "=" or the next argument
    GBValueOptional = 1,  // may have a value; without one its value is YES
    GBValueNone = 2,      // a switch, with a "no-" twin
};

// The kind of event passed to a parse block.
enum GBParseFlags : std::uint64_t {
    GBParseFlagOption = 0,         // option: long name (or group name) and value
    GBParseFlagArgument = 1,       // positional argument: no name, the word as value
    GBParseFlagWrongGroup = 2,     // option outside the selected group: the argument as given
    GBParseFlagMissingValue = 3,   // required value missing: the long name
    GBParseFlagUnknownOption = 4,  // unknown option: the argument as given
};

// The parse callback: (event, option name or none, value or nil, stop flag).
// Setting *stop ends the parse with the result false as soon as the parser
// looks at it, which it does after every event but a group selection.
using GBParseBlock = std::function<void(
    GBParseFlags flags, const std::optional<std::string>& option, const Value& value, bool* stop)>;

class GBCommandLineParser : public std::enable_shared_from_this<GBCommandLineParser> {
  public:
    GBCommandLineParser();
    virtual ~GBCommandLineParser() = default;
    GBCommandLineParser(const GBCommandLineParser&) = delete;
    GBCommandLineParser& operator=(const GBCommandLineParser&) = delete;

    // --- Registration ---

    // Registers `longName` (without dashes) with a shortcut (0 or a negative
    // byte for none) and a requirement. A switch (GBValueNone) also
    // registers its "no-" twin, which alone parses as a negation: an option
    // registered under a name that merely begins with "no-" parses like any
    // other. A repeated name or shortcut replaces the earlier record
    // silently. An empty name registers nothing, so "--" and "-" stay
    // unknown options.
    void registerOption(const std::string& longName, char shortcut,
                        GBOptionRequirement requirement);
    void registerOption(const std::string& longName, GBOptionRequirement requirement);
    void registerSwitch(const std::string& longName, char shortcut);
    void registerSwitch(const std::string& longName);
    // The level the simplified block writes into.
    void registerSettings(GBSettingsRef settings);
    // Options registered until endRegisterOptionGroup belong to the group. A
    // name already registered prints "Group <name> is already registered!"
    // (no newline) on standard error and reopens that group.
    void beginRegisterOptionGroup(const std::string& name);
    void endRegisterOptionGroup();
    // Registers every option of the registry; defined with the registry.
    void registerOptions(GBOptionsHelper& options);

    // --- Parsing with a block; each answers false when an unknown option or
    // an option outside the selected group was met, or the block stopped ---

    // `arguments` exclude the program name; `commandLine` is not used.
    bool parseOptionsWithArguments(const std::vector<std::string>& arguments,
                                   const std::string& commandLine, const GBParseBlock& block);
    // argv[0] is the command line; argv[1..argc-1] are the arguments, taken
    // byte for byte (text that is not valid UTF-8 is kept as it is; a null
    // entry reads as the empty string). With argc 0 nothing is touched.
    bool parseOptionsWithArguments(const char* const* argv, int argc, const GBParseBlock& block);
    // The process's own arguments without element 0.
    bool parseOptionsUsingDefaultArgumentsWithBlock(const GBParseBlock& block);

    // --- Parsing with the simplified block ---
    bool parseOptionsUsingDefaultArguments();
    bool parseOptionsWithArguments(const char* const* argv, int argc);
    bool parseOptionsWithArguments(const std::vector<std::string>& arguments,
                                   const std::string& commandLine);

    // --- Queries ---

    // The record for an argument ("--name", "-x", with an optional "=value"
    // split at the last "="; the value is stored through `value` when
    // given), or optionGroupResult() after selecting the group a bare group
    // name names, or notAnOptionResult() for any other bare word, or nil.
    Value optionDataForOption(const std::string& argument, Value* value);
    // The two sentinel results of optionDataForOption, recognised by
    // identity (isSameObject), never by equality.
    static const Value& optionGroupResult();
    static const Value& notAnOptionResult();
    // Whether the text begins with "-".
    bool isShortOrLongOptionName(std::string_view text) const;
    bool isOptionGroupName(const std::string& name) const;
    // Whether the record is the "no-" twin that registering a switch made,
    // and that still answers to its name.
    bool isNegatedTwin(const Value& record) const;
    // The value the last parse found for a long name; nil if none.
    Value valueForOption(const std::string& longName) const;
    // An immutable copy of the last parse's positional arguments.
    Value arguments() const;
    // A new block that writes into settings() and prints the parse errors.
    // It keeps the parser alive when the parser is owned by a shared_ptr;
    // otherwise the parser must outlive it.
    GBParseBlock simplifiedOptionsParserBlock();

    // --- Properties ---
    const GBSettingsRef& settings() const { return settings_; }
    // Options found by the last parse: a mutable dictionary, name -> value.
    const Value& parsedOptions() const { return parsedOptions_; }
    // Positional arguments found by the last parse: a mutable array.
    const Value& parsedArguments() const { return parsedArguments_; }
    // Long name (negated twins included) -> option record.
    const std::map<std::string, Value>& registeredOptionsByLongNames() const {
        return registeredOptionsByLongNames_;
    }
    // One-character shortcut -> the same record object as by long name.
    const std::map<std::string, Value>& registeredOptionsByShortNames() const {
        return registeredOptionsByShortNames_;
    }
    // Group name -> its member set: a mutable array of distinct (isEqual)
    // values: long names, and for a switch its twin's record itself.
    const std::map<std::string, Value>& registeredOptionGroupsByNames() const {
        return registeredOptionGroupsByNames_;
    }
    // The group being registered or selected on the command line; nil if none.
    const Value& currentOptionsGroupOptions() const { return currentOptionsGroupOptions_; }
    // The group most recently selected on the command line.
    const std::optional<std::string>& currentOptionsGroupName() const {
        return currentOptionsGroupName_;
    }

  protected:
    // Called by each simplified form with its own name; does nothing here.
    virtual void validateSimplifiedOptionsWithSelector(std::string_view selector);

  private:
    GBSettingsRef settings_;
    Value parsedOptions_;
    Value parsedArguments_;
    std::map<std::string, Value> registeredOptionsByLongNames_;
    std::map<std::string, Value> registeredOptionsByShortNames_;
    std::map<std::string, Value> registeredOptionGroupsByNames_;
    // Negated name -> the twin record made for it, kept to tell the twin
    // from a record registered later under the same name.
    std::map<std::string, Value> negatedTwins_;
    Value currentOptionsGroupOptions_;
    std::optional<std::string> currentOptionsGroupName_;
};

// The process's argument list, element 0 (the program) included, as the
// system recorded it at start; empty when it cannot be read.
std::vector<std::string> processArguments();

// The process's name: the last path component of its program.
std::string processName();

}  // namespace cli
