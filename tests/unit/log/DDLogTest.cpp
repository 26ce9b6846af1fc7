#include "log/DDLog.h"
#include "log/DDTTYLogger.h"
#include "tests/unit/double/ChildProcess.h"

#include <gtest/gtest.h>
#include <spdlog/details/log_msg.h>

#include <unistd.h>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <thread>

using testing_support::lines;
using testing_support::messages;
using testing_support::runInChild;

namespace {

class DDLogTest : public ::testing::Test {
  protected:
    void SetUp() override { saved_ = ddLogLevel; }
    void TearDown() override { ddLogLevel = saved_; }
    std::int32_t saved_ = 0;
};

int evaluations = 0;
int countedArgument() {
    ++evaluations;
    return evaluations;
}

const std::regex kLineShape(
    R"(^(\d{4})-(\d{2})-(\d{2}) (\d{2}):(\d{2}):(\d{2}):(\d{3}) log_tests\[(\d+):(\d{1,8})\] (.*)$)");

}  // namespace

TEST_F(DDLogTest, MaskIsTestedBeforeTheMessageIsFormatted) {
    ddLogLevel = DDLogLevelInfo;
    evaluations = 0;
    DDLogDebug("debug {}", countedArgument());
    DDLogVerbose("verbose {}", countedArgument());
    EXPECT_EQ(evaluations, 0);
    DDLogInfo("info {}", countedArgument());
    DDLogError("error {}", countedArgument());
    EXPECT_EQ(evaluations, 2);
    ddLogLevel = DDLogLevelVerbose;
    DDLogVerbose("verbose {}", countedArgument());
    EXPECT_EQ(evaluations, 3);
}

TEST_F(DDLogTest, StartsAtErrorWarningAndInfo) {
    // The value the process starts with, before any test changes it.
    EXPECT_EQ(saved_, 7);
}

TEST_F(DDLogTest, LineHasTimestampProcessPidAndThreadId) {
    const std::time_t before = std::time(nullptr);
    const auto child = runInChild([] {
        DDLog::addTTYLogger();
        DDLogInfo("IKEv2 Interface {}", "ipsec0");
    });
    const std::time_t after = std::time(nullptr);
    ASSERT_EQ(child.exitStatus, 0);
    const auto all = lines(child.err);
    ASSERT_EQ(all.size(), 1u) << child.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_match(all[0], m, kLineShape)) << all[0];
    EXPECT_EQ(m[10].str(), "IKEv2 Interface ipsec0");
    // The main thread's id is the pid.
    EXPECT_EQ(m[9].str(), m[8].str().substr(0, 8));

    std::tm local{};
    local.tm_year = std::stoi(m[1].str()) - 1900;
    local.tm_mon = std::stoi(m[2].str()) - 1;
    local.tm_mday = std::stoi(m[3].str());
    local.tm_hour = std::stoi(m[4].str());
    local.tm_min = std::stoi(m[5].str());
    local.tm_sec = std::stoi(m[6].str());
    local.tm_isdst = -1;
    const std::time_t stamped = std::mktime(&local);
    EXPECT_GE(stamped, before);
    EXPECT_LE(stamped, after);
}

TEST_F(DDLogTest, MillisecondsAreTruncatedAfterAColonAndThreadIdIsCutToEightCharacters) {
    const char* oldTz = std::getenv("TZ");
    const std::string savedTz = oldTz ? oldTz : "";
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    using namespace std::chrono;
    // 2024-05-06 13:45:07.1239 UTC
    const auto when = system_clock::time_point(seconds(1715003107)) + microseconds(123900);
    spdlog::details::log_msg msg(when, spdlog::source_loc{}, "x", spdlog::level::info,
                                 "IKEv2 Connected");
    msg.thread_id = 1234567890;
    const std::string line = DDTTYLogger::formatLine(msg);
    if (oldTz) {
        ::setenv("TZ", savedTz.c_str(), 1);
    } else {
        ::unsetenv("TZ");
    }
    ::tzset();
    EXPECT_EQ(line, "2024-05-06 13:45:07:123 log_tests[" + std::to_string(::getpid()) +
                        ":12345678] IKEv2 Connected\n");
}

TEST_F(DDLogTest, MessageIsWrittenVerbatimAndAlwaysGetsItsOwnNewline) {
    const auto child = runInChild([] {
        DDLog::addTTYLogger();
        DDLogInfo("{}", "braces {} stay");
        DDLogInfo("ends in a newline\n");
    });
    ASSERT_EQ(child.exitStatus, 0);
    const auto msgs = messages(child.err);
    ASSERT_EQ(msgs.size(), 3u) << child.err;
    EXPECT_EQ(msgs[0], "braces {} stay");
    EXPECT_EQ(msgs[1], "ends in a newline");
    EXPECT_EQ(msgs[2], "");
}

TEST_F(DDLogTest, NothingIsWrittenBeforeTheSinkIsAdded) {
    const auto child = runInChild([] {
        DDLogError("too early");
        DDLog::addTTYLogger();
        DDLogError("in time");
    });
    ASSERT_EQ(child.exitStatus, 0);
    const auto msgs = messages(child.err);
    ASSERT_EQ(msgs.size(), 1u) << child.err;
    EXPECT_EQ(msgs[0], "in time");
}

TEST_F(DDLogTest, FlagsOutsideTheMaskAreNotWritten) {
    const auto child = runInChild([] {
        DDLog::addTTYLogger();
        ddLogLevel = DDLogLevelInfo;
        DDLogError("e");
        DDLogWarn("w");
        DDLogInfo("i");
        DDLogDebug("d");
        DDLogVerbose("v");
        ddLogLevel = DDLogLevelVerbose;
        DDLogDebug("d2");
        DDLogVerbose("v2");
    });
    ASSERT_EQ(child.exitStatus, 0);
    EXPECT_EQ(messages(child.err), (std::vector<std::string>{"e", "w", "i", "d2", "v2"}));
}

namespace {
[[noreturn]] void endProcessElsewhere(int status) {
    std::exit(status);
}
}  // namespace

TEST_F(DDLogTest, ErrorLineIsWrittenBeforeTheCallReturns) {
    // _exit skips every atexit handler: only a line already written survives.
    const auto child = runInChild([] {
        DDLog::addTTYLogger();
        DDLogError("IKEv2 Error loading configurations: {}", "denied");
        ::_exit(1);
    });
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(messages(child.err),
              (std::vector<std::string>{"IKEv2 Error loading configurations: denied"}));
}

TEST_F(DDLogTest, ErrorLineSurvivesExitFromAnotherPath) {
    const auto child = runInChild([] {
        DDLog::addTTYLogger();
        DDLogError("Config file {} doesn't exist!", "/nope");
        endProcessElsewhere(1);
    });
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(messages(child.err), (std::vector<std::string>{"Config file /nope doesn't exist!"}));
}

TEST_F(DDLogTest, QueuedLinesAreNotLostAtExitAndKeepTheirOrder) {
    const auto child = runInChild([] {
        DDLog::addTTYLogger();
        for (int i = 0; i < 2000; ++i) {
            if (i % 500 == 0) {
                DDLogError("error {}", i);
            } else {
                DDLogInfo("info {}", i);
            }
        }
        endProcessElsewhere(5);
    });
    EXPECT_EQ(child.exitStatus, 5);
    const auto msgs = messages(child.err);
    ASSERT_EQ(msgs.size(), 2000u);
    for (int i = 0; i < 2000; ++i) {
        EXPECT_EQ(msgs[static_cast<std::size_t>(i)],
                  fmt::format("{} {}", i % 500 == 0 ? "error" : "info", i));
    }
}

TEST_F(DDLogTest, LinesFromAnotherThreadCarryThatThreadsId) {
    const auto child = runInChild([] {
        DDLog::addTTYLogger();
        DDLogInfo("main");
        std::thread([] { DDLogInfo("worker"); }).join();
    });
    ASSERT_EQ(child.exitStatus, 0);
    const auto all = lines(child.err);
    ASSERT_EQ(all.size(), 2u) << child.err;
    std::smatch first;
    std::smatch second;
    ASSERT_TRUE(std::regex_match(all[0], first, kLineShape));
    ASSERT_TRUE(std::regex_match(all[1], second, kLineShape));
    EXPECT_EQ(first[8].str(), second[8].str());
    EXPECT_NE(first[9].str(), second[9].str());
    EXPECT_EQ(second[10].str(), "worker");
}
