#include "tests/logind/PrivateBus.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

extern char** environ;

namespace logind {

namespace {

constexpr const char* kDaemon = "dbus-daemon";

// The bus's configuration, from the template beside this file.
bool writeConfig(const std::string& path, const std::string& listen, std::string& error) {
    std::ifstream in(ORVANE_SYSTEM_BUS_CONF);
    std::string text(std::istreambuf_iterator<char>(in), {});
    auto at = text.find("@LISTEN@");
    if (at == std::string::npos) {
        error = std::string("no @LISTEN@ in ") + ORVANE_SYSTEM_BUS_CONF;
        return false;
    }
    text.replace(at, std::strlen("@LISTEN@"), listen);
    std::ofstream out(path);
    out << text;
    if (!out.flush()) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

bool accepts(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

bool PrivateBus::available() {
    for (const char* folder : {"/usr/bin", "/bin", "/usr/local/bin"}) {
        if (::access((std::string(folder) + "/" + kDaemon).c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

bool PrivateBus::start(std::string& error) {
    char pattern[] = "/tmp/orvane-bus.XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        error = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    directory_ = pattern;
    socket_ = directory_ + "/bus";
    std::string config = directory_ + "/bus.conf";
    if (!writeConfig(config, "unix:path=" + socket_, error)) {
        return false;
    }
    std::string configArgument = "--config-file=" + config;
    std::vector<char*> argv = {const_cast<char*>(kDaemon), const_cast<char*>("--nofork"),
                               const_cast<char*>("--nopidfile"), configArgument.data(), nullptr};
    // Its complaints (it may not raise its file limit as a system bus
    // would) go to a file, shown only when it does not start.
    std::string log = directory_ + "/dbus-daemon.log";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    int r = ::posix_spawnp(&pid_, kDaemon, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    auto logText = [&log] {
        std::ifstream in(log);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    if (r != 0) {
        pid_ = -1;
        error = std::string("starting dbus-daemon: ") + std::strerror(r);
        return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!accepts(socket_)) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            error = "dbus-daemon ended at once: " + logText();
            return false;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            error = "dbus-daemon did not open its socket within 5 s: " + logText();
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

PrivateBus::~PrivateBus() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
    if (!directory_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
}

}  // namespace logind
