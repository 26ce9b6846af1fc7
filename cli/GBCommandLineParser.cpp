#include "cli/GBCommandLineParser.h"

#include "cli/GBOptionsHelper.h"
#include "cli/GBPrint.h"
#include "os/Process.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace cli {

namespace {

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

bool GBOptionGroup::contains(const std::string& longName) const {
    return std::find(longNames.begin(), longNames.end(), longName) != longNames.end();
}

bool GBOptionGroup::containsTwin(const std::string& negatedName) const {
    return std::any_of(twins.begin(), twins.end(), [&](const GBOptionDataRef& twin) {
        return twin->longOption == negatedName;
    });
}

GBCommandLineParser::GBCommandLineParser()
    : parsedOptions_(Value::mutableDictionary()), parsedArguments_(Value::mutableArray()) {}

// --- Registration ---

void GBCommandLineParser::registerOption(const std::string& longName, char shortcut,
                                         GBOptionRequirement requirement) {
    // Without a name the record would answer to "--" (and its twin to
    // "--no-"), and its value would have no key to be stored under.
    if (longName.empty()) return;
    const bool hasShortcut = static_cast<std::int8_t>(shortcut) > 0;
    auto record = std::make_shared<GBOptionData>(GBOptionData{
        longName, requirement, hasShortcut ? std::optional<char>(shortcut) : std::nullopt, false});
    registeredOptionsByLongNames_.insert_or_assign(longName, record);
    if (currentOptionsGroupOptions_ && !currentOptionsGroupOptions_->contains(longName)) {
        currentOptionsGroupOptions_->longNames.push_back(longName);
    }

    if (hasShortcut) {
        registeredOptionsByShortNames_.insert_or_assign(std::string(1, shortcut), record);
    }

    if (requirement == GBValueNone) {
        const std::string negated = "no-" + longName;
        auto twin = std::make_shared<GBOptionData>(GBOptionData{negated, GBValueNone, {}, true});
        registeredOptionsByLongNames_.insert_or_assign(negated, twin);
        if (currentOptionsGroupOptions_ && !currentOptionsGroupOptions_->containsTwin(negated)) {
            currentOptionsGroupOptions_->twins.push_back(twin);
        }
    }
}

void GBCommandLineParser::registerOption(const std::string& longName,
                                         GBOptionRequirement requirement) {
    registerOption(longName, 0, requirement);
}

void GBCommandLineParser::registerSwitch(const std::string& longName, char shortcut) {
    registerOption(longName, shortcut, GBValueNone);
}

void GBCommandLineParser::registerSwitch(const std::string& longName) {
    registerSwitch(longName, 0);
}

void GBCommandLineParser::registerSettings(GBSettingsRef settings) {
    settings_ = std::move(settings);
}

void GBCommandLineParser::beginRegisterOptionGroup(const std::string& name) {
    const auto existing = registeredOptionGroupsByNames_.find(name);
    if (existing != registeredOptionGroupsByNames_.end()) {
        currentOptionsGroupOptions_ = existing->second;
        gbfprint(stderr, "Group {} is already registered!", name);
        return;
    }
    currentOptionsGroupOptions_ = std::make_shared<GBOptionGroup>();
    registeredOptionGroupsByNames_.insert_or_assign(name, currentOptionsGroupOptions_);
}

void GBCommandLineParser::endRegisterOptionGroup() {
    currentOptionsGroupName_.reset();
    currentOptionsGroupOptions_.reset();
}

void GBCommandLineParser::registerOptions(GBOptionsHelper& options) {
    options.registerOptionsToCommandLineParser(*this);
}

// --- Queries ---

GBOptionLookup GBCommandLineParser::optionDataForOption(const std::string& argument, Value* value) {
    const std::map<std::string, GBOptionDataRef>* registry = nullptr;
    std::string name;
    if (startsWith(argument, "--")) {
        name = argument.substr(2);
        registry = &registeredOptionsByLongNames_;
    } else if (startsWith(argument, "-")) {
        name = argument.substr(1);
        registry = &registeredOptionsByShortNames_;
    } else {
        const auto group = registeredOptionGroupsByNames_.find(argument);
        if (group == registeredOptionGroupsByNames_.end()) return {GBOptionLookup::notAnOption, {}};
        currentOptionsGroupName_ = argument;
        currentOptionsGroupOptions_ = group->second;
        return {GBOptionLookup::group, {}};
    }
    // Searched from the end: "--a=b=c" names "a=b" with the value "c".
    const std::size_t equals = name.rfind('=');
    if (equals != std::string::npos) {
        if (value) *value = Value(name.substr(equals + 1));
        name.erase(equals);
    }
    const auto found = registry->find(name);
    if (found == registry->end()) return {GBOptionLookup::unknown, {}};
    return {GBOptionLookup::option, found->second};
}

bool GBCommandLineParser::isShortOrLongOptionName(std::string_view text) const {
    return startsWith(text, "--") || startsWith(text, "-");
}

bool GBCommandLineParser::isOptionGroupName(const std::string& name) const {
    return registeredOptionGroupsByNames_.count(name) > 0;
}

Value GBCommandLineParser::valueForOption(const std::string& longName) const {
    return parsedOptions_.objectForKey(longName);
}

Value GBCommandLineParser::arguments() const {
    return Value::array(parsedArguments_.elements());
}

// --- Parsing ---

GBParseFlags GBCommandLineParser::takeValue(const GBOptionData& data,
                                            const std::vector<std::string>& arguments,
                                            std::size_t& index, Value& value) const {
    const GBOptionRequirement requirement = data.requirement;
    if (requirement != GBValueRequired && requirement != GBValueOptional) {
        if (value.isNil()) {
            value = Value::numberWithBool(!data.negated);
        } else if (data.negated) {
            value = Value::numberWithInt(value.boolValue() ? 0 : 1);
        } else {
            value = Value::numberWithBool(value.boolValue());
        }
        return GBParseFlagOption;
    }
    if (value.isNil() && index + 1 < arguments.size()) {
        const std::string& next = arguments[index + 1];
        if (!isShortOrLongOptionName(next) && !isOptionGroupName(next)) {
            value = Value(next);
            ++index;
            return GBParseFlagOption;
        }
        if (requirement == GBValueRequired) {
            value = Value(next);  // refused, not consumed, still reported
            return GBParseFlagMissingValue;
        }
    }
    if (!value.isNil()) return GBParseFlagOption;
    if (requirement == GBValueRequired) return GBParseFlagMissingValue;
    value = Value::numberWithBool(true);
    return GBParseFlagOption;
}

bool GBCommandLineParser::parseOptionsWithArguments(const std::vector<std::string>& arguments,
                                                    const std::string& /*commandLine*/,
                                                    const GBParseBlock& block) {
    currentOptionsGroupOptions_.reset();
    parsedOptions_.removeAllObjects();
    parsedArguments_.removeAllObjects();
    bool stop = false;
    bool result = true;
    std::size_t index = 0;

    while (index < arguments.size()) {
        const std::string& argument = arguments[index];
        Value value;
        const GBOptionLookup found = optionDataForOption(argument, &value);
        if (found.kind == GBOptionLookup::notAnOption) break;
        if (found.kind == GBOptionLookup::group) {
            // The stop flag is deliberately not examined after a group event.
            block(GBParseFlagOption, argument, Value::numberWithBool(true), &stop);
            ++index;
            continue;
        }

        GBParseFlags event = GBParseFlagUnknownOption;
        std::string name = argument;
        if (found.kind == GBOptionLookup::option) {
            if (currentOptionsGroupOptions_ &&
                !currentOptionsGroupOptions_->contains(found.data->longOption)) {
                event = GBParseFlagWrongGroup;
            } else {
                name = found.data->longOption;
                event = takeValue(*found.data, arguments, index, value);
            }
        }
        if (event == GBParseFlagUnknownOption || event == GBParseFlagWrongGroup) result = false;

        block(event, name, value, &stop);
        if (stop) return false;
        if (!value.isNil()) parsedOptions_.setObjectForKey(value, name);
        ++index;
    }

    for (; index < arguments.size(); ++index) {
        const Value word(arguments[index]);
        parsedArguments_.addObject(word);
        block(GBParseFlagArgument, std::nullopt, word, &stop);
        if (stop) return false;
    }
    return result;
}

bool GBCommandLineParser::parseOptionsWithArguments(const char* const* argv, int argc,
                                                    const GBParseBlock& block) {
    if (argc <= 0 || !argv) return true;
    const auto text = [](const char* bytes) { return bytes ? std::string(bytes) : std::string(); };
    std::vector<std::string> arguments;
    arguments.reserve(static_cast<std::size_t>(argc - 1));
    for (int i = 1; i < argc; ++i) arguments.push_back(text(argv[i]));
    return parseOptionsWithArguments(arguments, text(argv[0]), block);
}

bool GBCommandLineParser::parseOptionsUsingDefaultArgumentsWithBlock(const GBParseBlock& block) {
    std::vector<std::string> arguments = os::processArguments();
    if (!arguments.empty()) arguments.erase(arguments.begin());
    return parseOptionsWithArguments(arguments, os::programName(), block);
}

// --- The simplified block ---

GBParseBlock GBCommandLineParser::simplifiedOptionsParserBlock() {
    // Hold the parser strongly when something already owns it that way.
    std::shared_ptr<GBCommandLineParser> keepAlive = weak_from_this().lock();
    GBCommandLineParser* parser = this;
    return [parser, keepAlive](GBParseFlags flags, const std::optional<std::string>& option,
                               const Value& value, bool* /*stop*/) {
        const GBSettingsRef& settings = parser->settings();
        switch (flags) {
            case GBParseFlagOption:
                if (settings && option) settings->setObject(value, *option);
                break;
            case GBParseFlagArgument:
                if (settings) settings->addArgument(value);
                break;
            case GBParseFlagWrongGroup:
                gbfprintln(stderr, "Invalid option {} for group {}!", option,
                           parser->currentOptionsGroupName());
                break;
            case GBParseFlagMissingValue:
                gbfprintln(stderr, "Missing value for command line option {}, try --help!", option);
                break;
            case GBParseFlagUnknownOption:
                gbfprintln(stderr, "Unknown command line option {}, try --help!", option);
                break;
        }
    };
}

bool GBCommandLineParser::parseOptionsUsingDefaultArguments() {
    return parseOptionsUsingDefaultArgumentsWithBlock(simplifiedOptionsParserBlock());
}

bool GBCommandLineParser::parseOptionsWithArguments(const char* const* argv, int argc) {
    return parseOptionsWithArguments(argv, argc, simplifiedOptionsParserBlock());
}

bool GBCommandLineParser::parseOptionsWithArguments(const std::vector<std::string>& arguments,
                                                    const std::string& commandLine) {
    return parseOptionsWithArguments(arguments, commandLine, simplifiedOptionsParserBlock());
}

}  // namespace cli
