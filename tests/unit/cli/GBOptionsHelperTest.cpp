#include "cli/GBOptionsHelper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace cli {
namespace {

TEST(OptionDefinitionTest, FreshRecordHasNoNamesNoDescriptionAndZeroFlags) {
    OptionDefinition option;
    EXPECT_EQ(option.shortOption(), 0);
    EXPECT_FALSE(option.longOption().has_value());
    EXPECT_FALSE(option.description().has_value());
    EXPECT_EQ(option.flags(), 0u);
}

TEST(GBOptionsHelperTest, FreshRegistryHasNoRecordsAndNoBlocks) {
    GBOptionsHelper options;
    EXPECT_TRUE(options.registeredOptions().empty());
    EXPECT_FALSE(options.applicationName());
    EXPECT_FALSE(options.applicationVersion());
    EXPECT_FALSE(options.applicationBuild());
    EXPECT_FALSE(options.printValuesHeader());
    EXPECT_FALSE(options.printValuesArgumentsHeader());
    EXPECT_FALSE(options.printValuesOptionsHeader());
    EXPECT_FALSE(options.printValuesFooter());
    EXPECT_FALSE(options.printHelpHeader());
    EXPECT_FALSE(options.printHelpFooter());
}

TEST(GBOptionsHelperTest, RegisterOptionAppendsARecordWithTheGivenFieldsInOrder) {
    GBOptionsHelper options;
    options.registerOption('c', "config", "Read configurations from file", 0);
    options.registerOption(0, "check", std::nullopt, 2);
    ASSERT_EQ(options.registeredOptions().size(), 2u);
    const OptionDefinition& first = *options.registeredOptions()[0];
    EXPECT_EQ(first.shortOption(), 'c');
    EXPECT_EQ(first.longOption(), "config");
    EXPECT_EQ(first.description(), "Read configurations from file");
    EXPECT_EQ(first.flags(), 0u);
    const OptionDefinition& second = *options.registeredOptions()[1];
    EXPECT_EQ(second.longOption(), "check");
    EXPECT_FALSE(second.description().has_value());
    EXPECT_EQ(second.flags(), 2u);
}

TEST(GBOptionsHelperTest, DuplicateNamesAndConflictingFlagsAreKeptAsGiven) {
    GBOptionsHelper options;
    options.registerOption('x', "same", "one", 0x18);
    options.registerOption('x', "same", "two", 0xFFFF);
    options.registerOption(0, std::nullopt, std::nullopt, 0);
    ASSERT_EQ(options.registeredOptions().size(), 3u);
    EXPECT_EQ(options.registeredOptions()[1]->flags(), 0xFFFFu);
    EXPECT_FALSE(options.registeredOptions()[2]->longOption().has_value());
}

TEST(GBOptionsHelperTest, SeparatorIsARecordWithTitleAndSeparatorFlagOnly) {
    GBOptionsHelper options;
    options.registerSeparator("Options");
    ASSERT_EQ(options.registeredOptions().size(), 1u);
    const OptionDefinition& separator = *options.registeredOptions()[0];
    EXPECT_EQ(separator.shortOption(), 0);
    EXPECT_FALSE(separator.longOption().has_value());
    EXPECT_EQ(separator.description(), "Options");
    EXPECT_EQ(separator.flags(), 0x8u);
    EXPECT_TRUE(options.isSeparator(separator));
    EXPECT_TRUE(options.isCmdLine(separator));
}

TEST(GBOptionsHelperTest, EmptyGroupYieldsAGroupRecordAndAnEndRecord) {
    GBOptionsHelper options;
    int calls = 0;
    options.registerGroup("Advanced", "rarely needed", [&](GBOptionsHelper&) { ++calls; });
    EXPECT_EQ(calls, 1);
    ASSERT_EQ(options.registeredOptions().size(), 2u);
    const OptionDefinition& group = *options.registeredOptions()[0];
    EXPECT_EQ(group.shortOption(), 0);
    EXPECT_EQ(group.longOption(), "Advanced");
    EXPECT_EQ(group.description(), "rarely needed");
    EXPECT_EQ(group.flags(), 0x10u);
    const OptionDefinition& end = *options.registeredOptions()[1];
    EXPECT_EQ(end.shortOption(), 0);
    EXPECT_FALSE(end.longOption().has_value());
    EXPECT_FALSE(end.description().has_value());
    EXPECT_EQ(end.flags(), 0x400u);
}

TEST(GBOptionsHelperTest, GroupBlockRegistersOnTheSameRegistryBetweenTheGroupRecords) {
    GBOptionsHelper options;
    GBOptionsHelper* seen = nullptr;
    options.registerGroup("Net", "network", 0x20, [&](GBOptionsHelper& inner) {
        seen = &inner;
        inner.registerOption(0, "dry", "Do nothing", 2);
        inner.registerSeparator("inside");
    });
    EXPECT_EQ(seen, &options);
    ASSERT_EQ(options.registeredOptions().size(), 4u);
    EXPECT_EQ(options.registeredOptions()[0]->flags(), 0x30u);
    EXPECT_EQ(options.registeredOptions()[1]->longOption(), "dry");
    EXPECT_EQ(options.registeredOptions()[2]->flags(), 0x8u);
    // The end record does not inherit the group's flags.
    EXPECT_EQ(options.registeredOptions()[3]->flags(), 0x400u);
}

TEST(GBOptionsHelperTest, DefinitionsRunEndsAtTheFirstEntryWithoutLongNameAndDescription) {
    const OptionDefinitionEntry definitions[] = {
        {'c', "config", "Read configurations from file", 0},
        {0, "check", std::nullopt, 2},
        {'z', std::nullopt, std::nullopt, 0x8},
        {'q', "never", "not reached", 0},
    };
    GBOptionsHelper options;
    options.registerOptionsFromDefinitions(definitions);
    ASSERT_EQ(options.registeredOptions().size(), 2u);
    EXPECT_EQ(options.registeredOptions()[0]->shortOption(), 'c');
    EXPECT_EQ(options.registeredOptions()[0]->description(), "Read configurations from file");
    EXPECT_EQ(options.registeredOptions()[1]->longOption(), "check");
    EXPECT_FALSE(options.registeredOptions()[1]->description().has_value());
    EXPECT_EQ(options.registeredOptions()[1]->flags(), 2u);
}

TEST(GBOptionsHelperTest, DefinitionWithOnlyADescriptionIsRegistered) {
    const OptionDefinitionEntry definitions[] = {
        {0, std::nullopt, "Title only", 0x8},
        {},
    };
    GBOptionsHelper options;
    options.registerOptionsFromDefinitions(definitions);
    ASSERT_EQ(options.registeredOptions().size(), 1u);
    EXPECT_EQ(options.registeredOptions()[0]->description(), "Title only");
}

OptionDefinition withFlags(GBOptionFlags flags) {
    OptionDefinition option;
    option.setFlags(flags);
    return option;
}

TEST(GBOptionsHelperTest, RequirementsAreTheLowTwoBitsWithoutValidation) {
    GBOptionsHelper options;
    EXPECT_EQ(options.requirements(withFlags(0)), 0u);
    EXPECT_EQ(options.requirements(withFlags(1)), 1u);
    EXPECT_EQ(options.requirements(withFlags(0x42)), 2u);
    EXPECT_EQ(options.requirements(withFlags(0x43)), 3u);
    EXPECT_EQ(options.requirements(withFlags(0xFFFFFFFFFFFFFFFCull)), 0u);
}

TEST(GBOptionsHelperTest, MarkQueriesTestTheirOwnBitOnly) {
    GBOptionsHelper options;
    const GBOptionFlags meaningless = 0x4 | 0x100 | 0x200 | 0x800 | (1ull << 63);
    const OptionDefinition plain = withFlags(meaningless);
    EXPECT_FALSE(options.isSeparator(plain));
    EXPECT_FALSE(options.isOptionGroup(plain));
    EXPECT_FALSE(options.isOptionGroupEnd(plain));
    EXPECT_TRUE(options.isCmdLine(plain));
    EXPECT_TRUE(options.isPrint(plain));
    EXPECT_TRUE(options.isHelp(plain));

    EXPECT_TRUE(options.isSeparator(withFlags(0x8)));
    EXPECT_TRUE(options.isOptionGroup(withFlags(0x10)));
    EXPECT_TRUE(options.isOptionGroupEnd(withFlags(0x400)));
    EXPECT_FALSE(options.isCmdLine(withFlags(0x20)));
    EXPECT_FALSE(options.isPrint(withFlags(0x40)));
    EXPECT_FALSE(options.isHelp(withFlags(0x80)));
    EXPECT_FALSE(options.isHelp(withFlags(0x82)));
    EXPECT_TRUE(options.isHelp(withFlags(0x7F)));
    EXPECT_TRUE(options.isHelp(withFlags(0x100)));
}

TEST(GBOptionsHelperTest, EnumerationVisitsEveryRecordInRegistrationOrder) {
    GBOptionsHelper options;
    options.registerSeparator("S");
    options.registerGroup("G", "", [](GBOptionsHelper& o) { o.registerOption('a', "a", "", 2); });
    options.registerOption(0, "b", "", 0);
    std::vector<GBOptionFlags> flags;
    options.enumerateOptions(
        [&](OptionDefinition& option, bool*) { flags.push_back(option.flags()); });
    EXPECT_EQ(flags, (std::vector<GBOptionFlags>{0x8, 0x10, 2, 0x400, 0}));
}

TEST(GBOptionsHelperTest, EnumerationEndsAfterTheRecordThatSetsStop) {
    GBOptionsHelper options;
    for (const char* name : {"one", "two", "three"}) options.registerOption(0, name, "", 0);
    std::vector<std::string> seen;
    options.enumerateOptions([&](OptionDefinition& option, bool* stop) {
        seen.push_back(*option.longOption());
        if (seen.size() == 2) *stop = true;
    });
    EXPECT_EQ(seen, (std::vector<std::string>{"one", "two"}));
}

TEST(GBOptionsHelperTest, EnumerationHandsOutTheStoredRecordsThemselves) {
    GBOptionsHelper options;
    options.registerOption(0, "old", "", 0);
    options.enumerateOptions([](OptionDefinition& option, bool*) { option.setLongOption("new"); });
    EXPECT_EQ(options.registeredOptions()[0]->longOption(), "new");
}

}  // namespace
}  // namespace cli
