#include "cli/GBSettings.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace cli {
namespace {

std::vector<std::string> texts(const Value& array) {
    std::vector<std::string> out;
    for (const auto& element : array.elements()) out.push_back(element.description());
    return out;
}

using Texts = std::vector<std::string>;

TEST(GBSettings, FreshLevelHasEmptyArgumentsAndZeroValues) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    const Value arguments = level->arguments();
    ASSERT_TRUE(arguments.isArray());
    EXPECT_EQ(arguments.count(), 0u);
    EXPECT_TRUE(level->objectForKey("k").isNil());
    EXPECT_FALSE(level->boolForKey("k"));
    EXPECT_EQ(level->integerForKey("k"), 0);
    EXPECT_EQ(level->unsignedIntegerForKey("k"), 0u);
    EXPECT_EQ(level->floatForKey("k"), 0.0);
    EXPECT_EQ(level->name(), "Level");
    EXPECT_TRUE(level->isKeyArray(GBSettingsArgumentsKey));
    EXPECT_TRUE(level->storage().isMutableDictionary());
}

TEST(GBSettings, ChildReadsParentValueWhenItHasNone) {
    auto parent = GBSettings::settingsWithName("Parent", nullptr);
    auto child = GBSettings::settingsWithName("Child", parent);
    parent->setObject("1", "k");
    const Value found = child->objectForKey("k");
    EXPECT_TRUE(found.isString());
    EXPECT_EQ(found.stringValue(), "1");
    EXPECT_EQ(child->settingsForKey("k"), parent.get());
    EXPECT_FALSE(child->isKeyPresentAtThisLevel("k"));
    EXPECT_TRUE(parent->isKeyPresentAtThisLevel("k"));
    EXPECT_EQ(child->settingsForKey("missing"), nullptr);
}

TEST(GBSettings, ChildValueHidesParentValue) {
    auto parent = GBSettings::settingsWithName("Parent", nullptr);
    auto child = GBSettings::settingsWithName("Child", parent);
    parent->setObject("parent", "k");
    child->setObject("child", "k");
    EXPECT_EQ(child->objectForKey("k").stringValue(), "child");
    EXPECT_EQ(parent->objectForKey("k").stringValue(), "parent");
    EXPECT_EQ(child->settingsForKey("k"), child.get());
}

TEST(GBSettings, ValueSetOnParentAfterChildIsCreatedIsSeenAtOnce) {
    auto parent = GBSettings::settingsWithName("Parent", nullptr);
    auto child = GBSettings::settingsWithName("Child", parent);
    EXPECT_TRUE(child->objectForKey("late").isNil());
    parent->setInteger(9, "late");
    EXPECT_EQ(child->integerForKey("late"), 9);
}

TEST(GBSettings, PlainKeyWriteReplacesThePreviousValue) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    level->setObject("a", "k");
    level->setObject(Value::array({"b"}), "k");
    const Value stored = level->objectForLocalKey("k");
    EXPECT_TRUE(stored.isArray());
    EXPECT_FALSE(stored.isMutableArray());
    EXPECT_EQ(texts(stored), Texts({"b"}));
}

TEST(GBSettings, ArgumentsMergeNearestFirstAndSettingsForArgumentFindsTheSupplier) {
    auto parent = GBSettings::settingsWithName("Parent", nullptr);
    auto child = GBSettings::settingsWithName("Child", parent);
    parent->addArgument("a");
    child->addArgument("b");
    child->addArgument("c");
    EXPECT_EQ(texts(child->arguments()), Texts({"b", "c", "a"}));
    EXPECT_EQ(texts(parent->arguments()), Texts({"a"}));
    EXPECT_EQ(child->settingsForArgument("a"), parent.get());
    EXPECT_EQ(child->settingsForArgument("b"), child.get());
    EXPECT_EQ(child->settingsForArgument("nowhere"), nullptr);
}

TEST(GBSettings, AddArgumentWithAnArrayAppendsEachElement) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    level->addArgument(Value::array({"x", "y"}));
    level->addArgument("z");
    EXPECT_EQ(texts(level->arguments()), Texts({"x", "y", "z"}));
    EXPECT_TRUE(level->objectForLocalKey(GBSettingsArgumentsKey).isMutableArray());
}

TEST(GBSettings, SetArgumentsAppendsInsteadOfReplacing) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    level->setArguments(Value::array({"a"}));
    level->setArguments(Value::array({"x"}));
    EXPECT_EQ(texts(level->arguments()), Texts({"a", "x"}));
}

TEST(GBSettings, ArrayKeyHoldingImmutableArrayNestsItOnTheNextWrite) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    level->setObjectForLocalKey(Value::array({"c"}), GBSettingsArgumentsKey);
    level->setObject(Value::array({"a", "b"}), GBSettingsArgumentsKey);
    const Value local = level->objectForLocalKey(GBSettingsArgumentsKey);
    ASSERT_TRUE(local.isMutableArray());
    ASSERT_EQ(local.count(), 3u);
    EXPECT_TRUE(local.objectAtIndex(0).isEqual(Value::array({"c"})));
    EXPECT_EQ(local.objectAtIndex(1).stringValue(), "a");
    EXPECT_EQ(local.objectAtIndex(2).stringValue(), "b");
}

TEST(GBSettings, ArrayKeyHoldingPlainValueKeepsItAsFirstElement) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    level->setObject("old", "list");
    level->registerArrayForKey("list");
    level->setObject("new", "list");
    EXPECT_EQ(texts(level->objectForKey("list")), Texts({"old", "new"}));
}

TEST(GBSettings, ArrayKeyThatNoLevelHoldsReadsAsEmptyArray) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    level->registerArrayForKey("list");
    const Value list = level->objectForKey("list");
    ASSERT_FALSE(list.isNil());
    EXPECT_TRUE(list.isArray());
    EXPECT_EQ(list.count(), 0u);
}

TEST(GBSettings, ArrayKeyRegisteredOnChildOnlyMergesThroughChildOnly) {
    auto parent = GBSettings::settingsWithName("Parent", nullptr);
    auto child = GBSettings::settingsWithName("Child", parent);
    const Value parentList = Value::array({"p1", "p2"});
    parent->setObject(parentList, "k");
    child->registerArrayForKey("k");
    child->setObject("c1", "k");
    EXPECT_TRUE(child->isKeyArray("k"));
    EXPECT_FALSE(parent->isKeyArray("k"));
    EXPECT_EQ(texts(child->objectForKey("k")), Texts({"c1", "p1", "p2"}));
    EXPECT_TRUE(parent->objectForKey("k").isSameObject(parentList));
}

TEST(GBSettings, SettingsForArrayValueFindsNearestLevelHoldingTheItem) {
    auto root = GBSettings::settingsWithName("Root", nullptr);
    auto middle = GBSettings::settingsWithName("Middle", root);
    auto leaf = GBSettings::settingsWithName("Leaf", middle);
    root->addArgument("x");
    middle->addArgument("x");
    EXPECT_EQ(leaf->settingsForArrayValue("x", GBSettingsArgumentsKey), middle.get());
    EXPECT_EQ(root->settingsForArrayValue("x", GBSettingsArgumentsKey), root.get());
    EXPECT_EQ(leaf->settingsForArrayValue("x", "other"), nullptr);
}

TEST(GBSettings, TypedAccessorsConvertBetweenIntegerAndBool) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    level->setInteger(5, "n");
    EXPECT_TRUE(level->boolForKey("n"));
    level->setBool(false, "b");
    EXPECT_EQ(level->integerForKey("b"), 0);
    EXPECT_EQ(level->objectForKey("b").numberType(), Value::NumberType::Bool);
    level->setFloat(2.75, "f");
    EXPECT_EQ(level->floatForKey("f"), 2.75);
    EXPECT_EQ(level->integerForKey("f"), 2);
    level->setUnsignedInteger(7, "u");
    EXPECT_EQ(level->objectForKey("u").numberType(), Value::NumberType::UnsignedInteger);
    EXPECT_EQ(level->unsignedIntegerForKey("u"), 7u);
}

TEST(GBSettings, StringsStoredByTheParserReadBackAsNumbersAndFlags) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    level->setObject("42", "n");
    level->setObject("yes", "b");
    level->setObject("2.5", "f");
    EXPECT_EQ(level->integerForKey("n"), 42);
    EXPECT_TRUE(level->boolForKey("b"));
    EXPECT_EQ(level->floatForKey("f"), 2.5);
}

TEST(GBSettings, UnsignedIntegerOfMinusOneStringIsAllOnes) {
    auto level = GBSettings::settingsWithName("Level", nullptr);
    level->setObject("-1", "k");
    EXPECT_EQ(level->unsignedIntegerForKey("k"), std::numeric_limits<std::uint64_t>::max());
}

TEST(GBSettings, EnumerateVisitsNearestFirstUpToTheRoot) {
    auto root = GBSettings::settingsWithName("Root", nullptr);
    auto leaf = GBSettings::settingsWithName("Leaf", root);
    std::vector<std::string> names;
    leaf->enumerateSettings([&](GBSettings& level, bool*) { names.push_back(*level.name()); });
    EXPECT_EQ(names, Texts({"Leaf", "Root"}));
}

TEST(GBSettings, EnumerateStopsAtReceiverWhenBlockStopsAtOnce) {
    auto root = GBSettings::settingsWithName("Root", nullptr);
    auto leaf = GBSettings::settingsWithName("Leaf", root);
    std::vector<GBSettings*> visited;
    leaf->enumerateSettings([&](GBSettings& level, bool* stop) {
        EXPECT_FALSE(*stop);
        visited.push_back(&level);
        *stop = true;
    });
    ASSERT_EQ(visited.size(), 1u);
    EXPECT_EQ(visited[0], leaf.get());
}

TEST(GBSettings, StorageLessLevelLosesWritesAndChildBehavesAsRoot) {
    auto bare = std::make_shared<GBSettings>();
    bare->setBool(true, "flag");
    bare->setObject("v", "k");
    bare->addArgument("arg");
    bare->registerArrayForKey("list");
    EXPECT_TRUE(bare->storage().isNil());
    EXPECT_FALSE(bare->name().has_value());
    EXPECT_TRUE(bare->objectForKey("k").isNil());
    EXPECT_FALSE(bare->boolForKey("flag"));
    EXPECT_FALSE(bare->isKeyPresentAtThisLevel("k"));
    EXPECT_FALSE(bare->isKeyArray("list"));
    EXPECT_TRUE(bare->arguments().isNil());
    EXPECT_EQ(bare->settingsForKey("k"), nullptr);

    auto child = GBSettings::settingsWithName("Current", bare);
    child->addArgument("a");
    EXPECT_EQ(texts(child->arguments()), Texts({"a"}));
    EXPECT_TRUE(child->objectForKey("flag").isNil());
    EXPECT_EQ(child->settingsForKey("k"), nullptr);
    EXPECT_EQ(child->settingsForArgument("arg"), nullptr);
    child->setObject("mine", "k");
    EXPECT_EQ(child->objectForKey("k").stringValue(), "mine");
    int levels = 0;
    child->enumerateSettings([&](GBSettings&, bool*) { ++levels; });
    EXPECT_EQ(levels, 2);
}

}  // namespace
}  // namespace cli
