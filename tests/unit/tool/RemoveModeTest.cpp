#include "log/DDLog.h"
#include "tests/unit/double/ChildProcess.h"
#include "tests/unit/double/FinishRecorder.h"
#include "tests/unit/double/PlatformDouble.h"
#include "tool/Tool.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing_support::FinishRecorder;
using testing_support::StderrCapture;
using Lines = std::vector<std::string>;

namespace {

class RemoveModeTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { DDLog::addTTYLogger(); }
    void SetUp() override { platform().reset(); }
    void TearDown() override { platform().reset(); }

    static platform_double::ScriptedPlatform& platform() {
        return platform_double::ScriptedPlatform::instance();
    }

    // Runs the remove mode against the double answering as `script` says;
    // the log lines it wrote.
    Lines run(platform_double::Script script) {
        script.autoAnswer = true;
        platform().useScript(std::move(script));
        StderrCapture capture;
        tool::run_remove_mode(finished.finish());
        capture.restore();
        return capture.messages();
    }

    FinishRecorder finished;
};

TEST_F(RemoveModeTest, NoSavedProfileFinishesWithZeroAndLogsNothing) {
    EXPECT_EQ(run({}), Lines{});
    EXPECT_EQ(finished.statuses(), std::vector<int>{0});
    EXPECT_EQ(platform().calls(), Lines{"load"});
}

TEST_F(RemoveModeTest, SavedProfileIsRemovedAndFinishesWithZero) {
    platform_double::Script script;
    script.storedProfile = platform::NEVPNProtocolIKEv2{};
    EXPECT_EQ(run(script), Lines{});
    EXPECT_EQ(finished.statuses(), std::vector<int>{0});
    EXPECT_EQ(platform().calls(), (Lines{"load", "remove"}));
}

TEST_F(RemoveModeTest, LoadFailureLogsTheErrorAndFinishesWithOne) {
    platform_double::Script script;
    script.loadError = platform::NSError{13, "permission denied"};
    EXPECT_EQ(run(script), Lines{"IKEv2 Error loading configurations: permission denied"});
    EXPECT_EQ(finished.statuses(), std::vector<int>{1});
    EXPECT_EQ(platform().calls(), Lines{"load"});
}

TEST_F(RemoveModeTest, RemoveFailureLogsTheErrorAndFinishesWithOne) {
    platform_double::Script script;
    script.storedProfile = platform::NEVPNProtocolIKEv2{};
    script.removeError = platform::NSError{5, "read-only"};
    EXPECT_EQ(run(script), Lines{"IKEv2 Error removing configurations: read-only"});
    EXPECT_EQ(finished.statuses(), std::vector<int>{1});
}

}  // namespace
