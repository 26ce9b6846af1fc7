#include "platform/strongswan/ProfileLock.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace ss = platform::strongswan;
namespace fs = std::filesystem;

namespace {

class ProfileLockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/profilelock.XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root = pattern;
        path = (root / "orvane-ikev2.lock").string();
    }
    void TearDown() override { fs::remove_all(root); }

    fs::path root;
    std::string path;
};

TEST_F(ProfileLockTest, SecondHolderIsRefusedAndToldTheFirstOnesPid) {
    ss::ProfileLock first(path);
    ASSERT_TRUE(first.acquire());
    EXPECT_TRUE(first.held());
    EXPECT_TRUE(first.acquire()) << "taking it again is fine";
    ss::ProfileLock second(path);
    auto refused = second.acquire();
    ASSERT_FALSE(refused);
    EXPECT_FALSE(second.held());
    EXPECT_EQ(refused.error().text, "the profile is in use by another orvane-ikev2 (pid " +
                                        std::to_string(::getpid()) + ")");
}

TEST_F(ProfileLockTest, LockIsFreeOnceTheHolderIsGone) {
    auto first = std::make_unique<ss::ProfileLock>(path);
    ASSERT_TRUE(first->acquire());
    first.reset();
    ss::ProfileLock second(path);
    EXPECT_TRUE(second.acquire());
}

TEST_F(ProfileLockTest, LockInAFolderThatIsNotThereIsAnError) {
    ss::ProfileLock lock((root / "missing" / "orvane-ikev2.lock").string());
    auto refused = lock.acquire();
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().text.find("cannot open the lock"), std::string::npos)
        << refused.error().text;
}

}  // namespace
