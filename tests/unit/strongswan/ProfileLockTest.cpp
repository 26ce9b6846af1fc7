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
    std::string error;
    ASSERT_TRUE(first.acquire(error)) << error;
    EXPECT_TRUE(first.held());
    EXPECT_TRUE(first.acquire(error)) << "taking it again is fine";
    ss::ProfileLock second(path);
    EXPECT_FALSE(second.acquire(error));
    EXPECT_FALSE(second.held());
    EXPECT_EQ(error, "the profile is in use by another orvane-ikev2 (pid " +
                         std::to_string(::getpid()) + ")");
}

TEST_F(ProfileLockTest, LockIsFreeOnceTheHolderIsGone) {
    std::string error;
    auto first = std::make_unique<ss::ProfileLock>(path);
    ASSERT_TRUE(first->acquire(error));
    first.reset();
    ss::ProfileLock second(path);
    EXPECT_TRUE(second.acquire(error)) << error;
}

TEST_F(ProfileLockTest, LockInAFolderThatIsNotThereIsAnError) {
    ss::ProfileLock lock((root / "missing" / "orvane-ikev2.lock").string());
    std::string error;
    EXPECT_FALSE(lock.acquire(error));
    EXPECT_NE(error.find("cannot open the lock"), std::string::npos) << error;
}

}  // namespace
