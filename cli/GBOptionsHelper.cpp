#include "cli/GBOptionsHelper.h"

namespace cli {

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

}  // namespace cli
