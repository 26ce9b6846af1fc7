// The tool's process after the start: no piece of the password in its
// memory, and that memory closed to other processes of the same user.

#include "tests/unit/double/PlantedSecret.h"
#include "tests/unit/tool/ToolProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

using testing_support::PlantedSecret;
using testing_support::scanMemoryForText;
using testing_support::ToolProcess;

namespace {

// Long enough to be searched for: the evidence that a search read memory.
const std::string kUser = "alice-in-memory";

void writeConfig(const ToolProcess& tool, const PlantedSecret& planted) {
    ASSERT_TRUE(planted.writeFile(
        tool.path("client.conf"),
        "ip=203.0.113.7\nusername=" + kUser + "\npassword=", "\nremote=gw.example.net\n"));
}

}  // namespace

TEST(ToolPasswordTest, NoPieceOfThePasswordIsLeftInTheToolsMemoryAfterTheStart) {
    // The test tool is built as this test is.
    if (const char* why = testing_support::ownMemoryUnsearchable()) {
        GTEST_SKIP() << why;
    }
    const PlantedSecret planted;
    ToolProcess tool("on-start 10 2\n");
    writeConfig(tool, planted);
    tool.start({"--verbose", "-c", "client.conf"});
    ASSERT_TRUE(tool.waitForRecord("status 2"));
    const auto user = scanMemoryForText(tool.pid(), kUser);
    const auto password = planted.scan(tool.pid());
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);
    if (!user.readable) {
        GTEST_SKIP() << "the tool's memory cannot be read here (it takes CAP_SYS_PTRACE)";
    }
    EXPECT_GE(user.hits, 1u) << "the search missed the user name the tool still holds";
    EXPECT_EQ(password.hits, 0u) << password.describe();
}

#if defined(__linux__)

namespace {

// The tool runs as an unprivileged user, so that whom its /proc files
// belong to tells whether it is dumpable: the kernel gives the files of a
// process that is not to root.
struct Unprivileged {
    uid_t uid = ::geteuid() == 0 ? 65534 : ::geteuid();
    gid_t gid = ::geteuid() == 0 ? 65534 : ::getegid();

    // In the child, before it executes a program.
    void become() const {
        if (::geteuid() == 0 &&
            (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0)) {
            ::_exit(126);
        }
    }
};

uid_t procOwner(pid_t pid) {
    struct stat info {};
    const std::string path = "/proc/" + std::to_string(pid) + "/status";
    return ::stat(path.c_str(), &info) == 0 ? info.st_uid : static_cast<uid_t>(-1);
}

}  // namespace

TEST(ToolPasswordTest, ToolIsNotDumpableOnceItReadsThePassword) {
    const Unprivileged user;
    // A process started the same way that reads no password stays
    // dumpable: its files are its user's.
    const pid_t sleeper = ::fork();
    if (sleeper == 0) {
        user.become();
        ::execlp("sleep", "sleep", "30", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    const PlantedSecret planted;
    ToolProcess tool("on-start 10 2\n");
    writeConfig(tool, planted);
    ASSERT_EQ(::chown(tool.dir().c_str(), user.uid, user.gid), 0);
    ASSERT_EQ(::chown(tool.path("client.conf").c_str(), user.uid, user.gid), 0);
    tool.setBeforeExec([&user] { user.become(); });
    tool.start({"-c", "client.conf"});
    const bool started = tool.waitForRecord("status 2");
    const uid_t sleeperOwner = procOwner(sleeper);
    const uid_t toolOwner = procOwner(tool.pid());
    ::kill(sleeper, SIGKILL);
    ::waitpid(sleeper, nullptr, 0);
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait(), 0) << tool.err();
    ASSERT_TRUE(started) << tool.err();
    ASSERT_NE(user.uid, 0u);
    EXPECT_EQ(sleeperOwner, user.uid);
    EXPECT_EQ(toolOwner, 0u);
}

#endif
