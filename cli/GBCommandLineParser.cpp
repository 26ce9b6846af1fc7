#include "cli/GBCommandLineParser.h"

#include <cstdio>
#include <utility>

namespace cli {

namespace {

const char* const kLongKey = "long";
const char* const kRequirementKey = "requirement";
const char* const kShortKey = "short";

// Group sets are arrays of distinct values, distinct by isEqual.
void addToSet(Value& set, const Value& member) {
    if (!set.isNil() && !set.containsObject(member)) set.addObject(member);
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

GBCommandLineParser::GBCommandLineParser()
    : parsedOptions_(Value::mutableDictionary()), parsedArguments_(Value::mutableArray()) {}

// --- Registration ---

void GBCommandLineParser::registerOption(const std::string& longName, char shortcut,
                                         GBOptionRequirement requirement) {
    // Without a name the record would answer to "--" (and its twin to
    // "--no-"), and its value would have no key to be stored under.
    if (longName.empty()) return;
    Value record = Value::mutableDictionary(
        {{kLongKey, Value(longName)},
         {kRequirementKey, Value::numberWithUnsignedInteger(requirement)}});
    registeredOptionsByLongNames_.insert_or_assign(longName, record);
    addToSet(currentOptionsGroupOptions_, Value(longName));

    const auto signedShortcut = static_cast<std::int8_t>(shortcut);
    if (signedShortcut > 0) {
        record.setObjectForKey(Value::numberWithChar(signedShortcut), kShortKey);
        registeredOptionsByShortNames_.insert_or_assign(std::string(1, shortcut), record);
    }

    if (requirement == GBValueNone) {
        const std::string negated = "no-" + longName;
        Value twin = Value::mutableDictionary(
            {{kLongKey, Value(negated)},
             {kRequirementKey, Value::numberWithUnsignedInteger(GBValueNone)}});
        registeredOptionsByLongNames_.insert_or_assign(negated, twin);
        negatedTwins_.insert_or_assign(negated, twin);
        // The group receives the twin's record, not its name, so the negated
        // form never tests as a member of the group.
        addToSet(currentOptionsGroupOptions_, twin);
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
        std::fprintf(stderr, "Group %s is already registered!", name.c_str());
        return;
    }
    currentOptionsGroupOptions_ = Value::mutableArray();
    registeredOptionGroupsByNames_.insert_or_assign(name, currentOptionsGroupOptions_);
}

void GBCommandLineParser::endRegisterOptionGroup() {
    currentOptionsGroupName_.reset();
    currentOptionsGroupOptions_ = Value();
}

// --- Queries ---

const Value& GBCommandLineParser::optionGroupResult() {
    static const Value group("group");
    return group;
}

const Value& GBCommandLineParser::notAnOptionResult() {
    static const Value notAnOption("not-an-option");
    return notAnOption;
}

Value GBCommandLineParser::optionDataForOption(const std::string& argument, Value* value) {
    const std::map<std::string, Value>* registry = nullptr;
    std::string name;
    if (startsWith(argument, "--")) {
        name = argument.substr(2);
        registry = &registeredOptionsByLongNames_;
    } else if (startsWith(argument, "-")) {
        name = argument.substr(1);
        registry = &registeredOptionsByShortNames_;
    } else {
        const auto group = registeredOptionGroupsByNames_.find(argument);
        if (group == registeredOptionGroupsByNames_.end()) return notAnOptionResult();
        currentOptionsGroupName_ = argument;
        currentOptionsGroupOptions_ = group->second;
        return optionGroupResult();
    }
    // Searched from the end: "--a=b=c" names "a=b" with the value "c".
    const std::size_t equals = name.rfind('=');
    if (equals != std::string::npos) {
        if (value) *value = Value(name.substr(equals + 1));
        name.erase(equals);
    }
    const auto found = registry->find(name);
    return found == registry->end() ? Value() : found->second;
}

bool GBCommandLineParser::isNegatedTwin(const Value& record) const {
    const auto twin = negatedTwins_.find(record.objectForKey(kLongKey).stringValue());
    return twin != negatedTwins_.end() && twin->second.isSameObject(record);
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

bool GBCommandLineParser::parseOptionsWithArguments(const std::vector<std::string>& arguments,
                                                    const std::string& /*commandLine*/,
                                                    const GBParseBlock& block) {
    currentOptionsGroupOptions_ = Value();
    parsedOptions_.removeAllObjects();
    parsedArguments_.removeAllObjects();
    bool stop = false;
    bool result = true;
    std::size_t index = 0;

    while (index < arguments.size()) {
        const std::string& argument = arguments[index];
        Value value;
        const Value data = optionDataForOption(argument, &value);
        if (data.isSameObject(notAnOptionResult())) break;
        if (data.isSameObject(optionGroupResult())) {
            // The stop flag is deliberately not examined after a group event.
            block(GBParseFlagOption, argument, Value::numberWithBool(true), &stop);
            ++index;
            continue;
        }

        GBParseFlags event = GBParseFlagOption;
        std::string name;
        if (data.isNil()) {
            event = GBParseFlagUnknownOption;
            name = argument;
            result = false;
        } else {
            const std::string longName = data.objectForKey(kLongKey).stringValue();
            if (!currentOptionsGroupOptions_.isNil() &&
                !currentOptionsGroupOptions_.containsObject(Value(longName))) {
                event = GBParseFlagWrongGroup;
                name = argument;
                result = false;
            } else {
                name = longName;
                const auto requirement =
                    static_cast<std::uint64_t>(data.objectForKey(kRequirementKey).integerValue());
                if (requirement == GBValueRequired || requirement == GBValueOptional) {
                    if (value.isNil() && index + 1 < arguments.size()) {
                        const std::string& next = arguments[index + 1];
                        if (!isShortOrLongOptionName(next) && !isOptionGroupName(next)) {
                            value = Value(next);
                            ++index;
                        } else if (requirement == GBValueRequired) {
                            value = Value(next);  // refused, not consumed, still reported
                            event = GBParseFlagMissingValue;
                        }
                    } else if (value.isNil() && requirement == GBValueRequired) {
                        event = GBParseFlagMissingValue;
                    }
                    if (value.isNil() && requirement == GBValueOptional) {
                        value = Value::numberWithBool(true);
                    }
                } else {
                    const bool negated = isNegatedTwin(data);
                    if (value.isNil()) {
                        value = Value::numberWithBool(!negated);
                    } else if (negated) {
                        value = Value::numberWithInt(value.boolValue() ? 0 : 1);
                    } else {
                        value = Value::numberWithBool(value.boolValue());
                    }
                }
            }
        }

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
    std::vector<std::string> arguments = processArguments();
    if (!arguments.empty()) arguments.erase(arguments.begin());
    return parseOptionsWithArguments(arguments, processName(), block);
}

}  // namespace cli
