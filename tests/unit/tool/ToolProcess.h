#pragma once

// Runs the test build of the tool (the real main against the scripted
// double) as a child process in a temporary folder: the double's script and
// record files, the tool's standard output and error captured to files, and
// helpers to wait for what it does and to send it real signals.

#include "tests/unit/double/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace testing_support {

// How the tool's standard descriptors are set up: by default standard output
// and error go to files of the tool's folder.
struct ToolStdio {
    // The tool starts with these of its descriptors 0-2 closed.
    std::vector<int> closed;
    // When set, standard error is this descriptor (a pipe, ...).
    int stderrFd = -1;
};

class ToolProcess {
  public:
    using Clock = std::chrono::steady_clock;

    explicit ToolProcess(const std::string& script = "") {
        char folder[] = "/tmp/orvane-tool-XXXXXX";
        dir_ = ::mkdtemp(folder);
        writeFile("script", script);
    }
    ~ToolProcess() {
        if (pid_ > 0 && !exited_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        const std::string command = "rm -rf '" + dir_ + "'";
        [[maybe_unused]] const int ignored = std::system(command.c_str());
    }
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    const std::string& dir() const { return dir_; }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    void writeFile(const std::string& name, const std::string& text) const {
        std::ofstream(path(name), std::ios::binary | std::ios::trunc) << text;
    }

    // Runs in the child just before the tool is executed.
    void setBeforeExec(std::function<void()> prepare) { beforeExec_ = std::move(prepare); }

    using Stdio = ToolStdio;

    void start(const std::vector<std::string>& arguments, const Stdio& stdio = ToolStdio()) {
        std::vector<std::string> argvText{ORVANE_TOOL_TEST_BINARY};
        argvText.insert(argvText.end(), arguments.begin(), arguments.end());
        const std::string scriptPath = path("script");
        const std::string recordPath = path("record");
        const std::string outPath = path("stdout");
        const std::string errPath = path("stderr");
        startedAt_ = Clock::now();
        pid_ = ::fork();
        if (pid_ == 0) {
            if (::chdir(dir_.c_str()) != 0) {
                ::_exit(126);
            }
            ::setenv("ORVANE_DOUBLE_SCRIPT", scriptPath.c_str(), 1);
            ::setenv("ORVANE_DOUBLE_RECORD", recordPath.c_str(), 1);
            const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(out, STDOUT_FILENO);
            ::dup2(stdio.stderrFd >= 0 ? stdio.stderrFd : err, STDERR_FILENO);
            for (int fd : stdio.closed) {
                ::close(fd);
            }
            // The test runner may block or ignore signals; the tool starts
            // with the defaults a shell would give it.
            sigset_t none;
            sigemptyset(&none);
            ::sigprocmask(SIG_SETMASK, &none, nullptr);
            for (int signo : {SIGINT, SIGTERM, SIGUSR1, SIGHUP, SIGPIPE}) {
                ::signal(signo, SIG_DFL);
            }
            if (beforeExec_) {
                beforeExec_();
            }
            std::vector<char*> argv;
            for (std::string& word : argvText) {
                argv.push_back(word.data());
            }
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
    }

    // Runs to the end; the exit status, or -1 after a kill at the time limit.
    int run(const std::vector<std::string>& arguments,
            std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        start(arguments);
        return wait(limit);
    }

    // The exit status, or -1 when the limit passed (the process is killed)
    // or it ended by a signal.
    int wait(std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        const auto end = Clock::now() + limit;
        for (;;) {
            int status = 0;
            const pid_t done = ::waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                exited_ = true;
                exitedAt_ = Clock::now();
                if (WIFEXITED(status)) {
                    return WEXITSTATUS(status);
                }
                termSignal_ = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
                return -1;
            }
            if (Clock::now() >= end) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, nullptr, 0);
                exited_ = true;
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    void signal(int signo) const { ::kill(pid_, signo); }
    pid_t pid() const { return pid_; }
    // Sends `signo` just after the tool went to sleep again, which an idle
    // tool does at the start of each 0.5 s slice of its run loop: what the
    // signal sets off then has the whole slice to be seen.
    void signalInAFreshSlice(int signo) const {
        const long before = sleeps();
        const auto end = Clock::now() + std::chrono::milliseconds(2000);
        while (sleeps() == before && Clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        signal(signo);
    }
    Clock::time_point exitedAt() const { return exitedAt_; }
    int termSignal() const { return termSignal_; }

    std::string read(const std::string& name) const {
        std::ifstream file(path(name), std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }
    std::string out() const { return read("stdout"); }
    std::string err() const { return read("stderr"); }
    std::vector<std::string> messages() const { return testing_support::messages(err()); }
    std::vector<std::string> record() const { return lines(read("record")); }
    int recordCount(const std::string& line) const {
        int count = 0;
        for (const std::string& entry : record()) {
            count += entry == line ? 1 : 0;
        }
        return count;
    }

    // Waits until the record holds a line starting with `prefix`.
    bool waitForRecord(const std::string& prefix,
                       std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) const {
        const auto end = Clock::now() + limit;
        while (Clock::now() < end) {
            for (const std::string& entry : record()) {
                if (entry.rfind(prefix, 0) == 0) {
                    return true;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return false;
    }

  private:
    // How often the tool has gone to sleep (voluntary context switches).
    long sleeps() const {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        std::string key;
        long value = -1;
        while (status >> key) {
            if (key == "voluntary_ctxt_switches:") {
                status >> value;
                break;
            }
        }
        return value;
    }

    std::string dir_;
    pid_t pid_ = -1;
    bool exited_ = false;
    int termSignal_ = 0;
    Clock::time_point startedAt_;
    Clock::time_point exitedAt_;
    std::function<void()> beforeExec_;
};

}  // namespace testing_support
