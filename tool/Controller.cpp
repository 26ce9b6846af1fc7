// The controller is the process that started the tool and reads its
// standard error. The tunnel never outlives it: when its end of the pipe
// (or socket) goes away, the tool stops the tunnel as on SIGTERM. A
// controller that merely stops reading never holds the tool up.

#include "tool/Tool.h"

#include "log/DDLog.h"
#include "platform/RunLoop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

using platform::RunLoop;

namespace tool {

namespace {

// Standard error is a pipe or a socket, whose reader can go away.
bool readerCanGo = false;

}  // namespace

void make_standard_descriptors_valid() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            // The lowest free descriptor: this one.
            ::open("/dev/null", O_RDWR);
        }
    }
}

void watch_controller() {
    std::signal(SIGPIPE, SIG_IGN);
    DDLog::setReaderGoneHandler([] { RunLoop::wakeForSignal(SIGPIPE); });
    struct stat info {};
    readerCanGo =
        ::fstat(STDERR_FILENO, &info) == 0 && (S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode));
}

void tend_controller() {
    DDLog::writePending();
    if (!readerCanGo) {
        return;
    }
    // A pipe whose reader is gone, or a socket whose peer closed, reports
    // an error or a hang-up to a writer.
    pollfd state{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&state, 1, 0) == 1 && (state.revents & (POLLERR | POLLHUP)) != 0) {
        RunLoop::wakeForSignal(SIGPIPE);
    }
}

}  // namespace tool
