// The tool and the process that started it (its controller): standard
// descriptors closed at start, a reader of standard error that goes away or
// stops reading.

#include "tests/unit/tool/ToolProcess.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

using testing_support::ToolProcess;
using namespace std::chrono_literals;

namespace {

const char* kConfig = "ip=203.0.113.7\nusername=alice\npassword=Pa55-w0rd!\n";
const char* kConnects = "on-start 10 2\non-start 50 3\non-stop 5 5\non-stop 20 1\n";

// A pipe for the tool's standard error; the test keeps the read end.
class StderrPipe {
  public:
    explicit StderrPipe(bool full = false) {
        EXPECT_EQ(::pipe2(fds_, O_CLOEXEC), 0);
        if (full) {
            ::fcntl(fds_[1], F_SETPIPE_SZ, 4096);
            const int flags = ::fcntl(fds_[1], F_GETFL);
            ::fcntl(fds_[1], F_SETFL, flags | O_NONBLOCK);
            const std::string filler(512, '.');
            while (::write(fds_[1], filler.data(), filler.size()) > 0) {
            }
            ::fcntl(fds_[1], F_SETFL, flags);
        }
    }
    ~StderrPipe() {
        closeReader();
        closeWriter();
    }
    int writeEnd() const { return fds_[1]; }
    // Once the tool has its copy.
    void closeWriter() {
        if (fds_[1] >= 0) {
            ::close(fds_[1]);
            fds_[1] = -1;
        }
    }
    void closeReader() {
        if (fds_[0] >= 0) {
            ::close(fds_[0]);
            fds_[0] = -1;
        }
    }
    // Reads for `period`, or until the writers are gone.
    std::string readFor(std::chrono::milliseconds period) {
        std::string text;
        const auto end = std::chrono::steady_clock::now() + period;
        char buffer[4096];
        while (std::chrono::steady_clock::now() < end) {
            pollfd ready{fds_[0], POLLIN, 0};
            if (::poll(&ready, 1, 10) <= 0) {
                continue;
            }
            const ssize_t n = ::read(fds_[0], buffer, sizeof buffer);
            if (n <= 0) {
                break;
            }
            text.append(buffer, static_cast<std::size_t>(n));
        }
        return text;
    }

  private:
    int fds_[2] = {-1, -1};
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Starts a connecting tool with `pipe` as its standard error.
void startOn(ToolProcess& tool, StderrPipe& pipe, bool verbose) {
    tool.writeFile("client.conf", kConfig);
    ToolProcess::Stdio stdio;
    stdio.stderrFd = pipe.writeEnd();
    std::vector<std::string> arguments{"--config", "client.conf"};
    if (verbose) {
        arguments.push_back("--verbose");
    }
    tool.start(arguments, stdio);
    pipe.closeWriter();
}

}  // namespace

TEST(ToolControllerTest, ClosedStandardDescriptorsAtStartDoNotStopTheTool) {
    // `>&- 2>&-`: nothing the tool opens may take the place of standard error.
    ToolProcess tool(kConnects);
    tool.writeFile("client.conf", kConfig);
    ToolProcess::Stdio stdio;
    stdio.closed = {STDOUT_FILENO, STDERR_FILENO};
    tool.start({"--config", "client.conf", "--verbose"}, stdio);
    ASSERT_TRUE(tool.waitForRecord("status 3"));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(tool.recordCount("stop"), 0) << "the tool stopped by itself";
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.recordCount("stop"), 1);
}

TEST(ToolControllerTest, ReaderOfStandardErrorGoingAwayStopsTheTunnelAsSigtermDoes) {
    ToolProcess tool(kConnects);
    StderrPipe pipe;
    startOn(tool, pipe, false);
    ASSERT_TRUE(tool.waitForRecord("status 3"));
    EXPECT_TRUE(contains(pipe.readFor(100ms), "IKEv2 Connected"));
    pipe.closeReader();
    // Killed by SIGPIPE, wait() would answer -1.
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.termSignal(), 0);
    EXPECT_EQ(tool.recordCount("stop"), 1);
}

TEST(ToolControllerTest, ReaderGoneAtTheFirstLogLineStillStopsTheTunnel) {
    ToolProcess tool(kConnects);
    StderrPipe pipe;
    pipe.closeReader();
    startOn(tool, pipe, true);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.termSignal(), 0);
    int starts = 0;
    for (const std::string& entry : tool.record()) {
        starts += entry.rfind("start ", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(tool.recordCount("stop"), starts) << "a tunnel that was started was stopped";
}

TEST(ToolControllerTest, ControllerThatStopsReadingDoesNotHoldUpTheStop) {
    ToolProcess tool(kConnects);
    StderrPipe pipe(/*full=*/true);
    startOn(tool, pipe, true);
    ASSERT_TRUE(tool.waitForRecord("status 3"));
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.recordCount("stop"), 1);
}

TEST(ToolControllerTest, SlowReaderGetsEveryLineInOrder) {
    ToolProcess tool(kConnects);
    StderrPipe pipe(/*full=*/true);
    startOn(tool, pipe, false);
    ASSERT_TRUE(tool.waitForRecord("status 3"));
    std::this_thread::sleep_for(100ms);
    // Lines that waited follow within a slice of the run loop, not at the exit.
    std::string text = pipe.readFor(1000ms);
    EXPECT_TRUE(contains(text, "IKEv2 Connected")) << text;
    tool.signal(SIGTERM);
    text += pipe.readFor(3000ms);
    EXPECT_EQ(tool.wait(), 0);
    const auto connecting = text.find("IKEv2 Connecting");
    const auto connected = text.find("IKEv2 Connected");
    const auto disconnected = text.find("IKEv2 Disconnected");
    ASSERT_NE(disconnected, std::string::npos) << text;
    EXPECT_LT(connecting, connected);
    EXPECT_LT(connected, disconnected);
}
