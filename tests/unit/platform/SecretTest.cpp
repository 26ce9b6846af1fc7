#include "platform/Secret.h"
#include "tests/unit/double/PlantedSecret.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <type_traits>
#include <utility>

using platform::Secret;
using testing_support::deepInTheStack;
using testing_support::PlantedSecret;

namespace {

// The memory of this process, searched for the planted password; skips the
// test where that memory cannot be read.
#define EXPECT_NOT_IN_MEMORY(planted)                                                        \
    do {                                                                                     \
        if (const char* why = testing_support::ownMemoryUnsearchable()) GTEST_SKIP() << why; \
        const auto scan = (planted).scan();                                                  \
        if (!scan.readable) GTEST_SKIP() << "this process's memory cannot be read";          \
        EXPECT_EQ(scan.hits, 0u) << scan.describe();                                         \
    } while (0)

}  // namespace

static_assert(!std::is_copy_constructible_v<Secret> && !std::is_copy_assignable_v<Secret>,
              "a secret is moved, never copied");
static_assert(std::is_nothrow_move_constructible_v<Secret> &&
                  std::is_nothrow_move_assignable_v<Secret>,
              "a secret can move inside containers without a copy");

TEST(SecretTest, HoldsACopyOfTheBytesItWasMadeFrom) {
    std::string text = "p=ss word";
    const Secret secret(text);
    text.assign(text.size(), 'x');
    EXPECT_EQ(secret.view(), "p=ss word");
    EXPECT_EQ(secret.size(), 9u);
    EXPECT_FALSE(secret.empty());
}

TEST(SecretTest, EmptySecretHoldsNothing) {
    EXPECT_TRUE(Secret().empty());
    EXPECT_TRUE(Secret("").empty());
    EXPECT_EQ(Secret("").view(), "");
}

TEST(SecretTest, MoveHandsTheBytesOverAndLeavesTheSourceEmpty) {
    Secret source("hunter2");
    const char* bytes = source.view().data();
    const Secret target(std::move(source));
    EXPECT_EQ(target.view().data(), bytes);
    EXPECT_EQ(target.view(), "hunter2");
    EXPECT_TRUE(source.empty());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(source.view().data(), nullptr);
}

TEST(SecretTest, WipeEmptiesIt) {
    Secret secret("hunter2");
    secret.wipe();
    EXPECT_TRUE(secret.empty());
    EXPECT_EQ(secret, "");
}

TEST(SecretTest, ComparesWithTextAndOrdersByBytes) {
    EXPECT_EQ(Secret("ip"), "ip");
    EXPECT_EQ("ip", Secret("ip"));
    EXPECT_NE(Secret("ip"), "IP");
    EXPECT_TRUE(Secret("a") < Secret("b"));
    EXPECT_TRUE(Secret("a") < std::string_view("ab"));
    EXPECT_TRUE(std::string_view("B") < Secret("a"));
    std::map<Secret, int, std::less<>> keyed;
    keyed.emplace(Secret("remote"), 1);
    keyed.emplace(Secret("ip"), 2);
    ASSERT_NE(keyed.find("ip"), keyed.end());
    EXPECT_EQ(keyed.find("ip")->second, 2);
    EXPECT_EQ(keyed.find("password"), keyed.end());
}

TEST(SecretTest, DestroyedSecretLeavesNoCopyInMemory) {
    const PlantedSecret planted;
    deepInTheStack([&planted] {
        auto secret = std::make_unique<Secret>(planted.secret());
        ASSERT_TRUE(planted.is(secret->view()));
    });
    EXPECT_NOT_IN_MEMORY(planted);
}

TEST(SecretTest, SecretAssignedOverLeavesNoCopyOfItsOldBytes) {
    const PlantedSecret planted;
    Secret secret;
    deepInTheStack([&planted, &secret] {
        secret = planted.secret();
        secret = Secret("something else entirely");
    });
    EXPECT_NOT_IN_MEMORY(planted);
    EXPECT_EQ(secret, "something else entirely");
}

TEST(SecretTest, SearchFindsAPasswordThatIsStillHeld) {
#if defined(ORVANE_SANITIZED)
    GTEST_SKIP() << testing_support::ownMemoryUnsearchable();
#endif
    const PlantedSecret planted;
    const Secret secret = planted.secret();
    const auto scan = planted.scan();
    if (!scan.readable) GTEST_SKIP() << "this process's memory cannot be read";
    EXPECT_GE(scan.hits, 1u) << scan.describe();
}
