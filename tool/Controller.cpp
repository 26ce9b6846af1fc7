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

namespace {

bool readerGone(int fd) {
    pollfd state{fd, POLLOUT, 0};
    return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLERR | POLLHUP)) != 0;
}

// A pipe's write end or a socket reports its reader's end as an error or
// hang-up; waiting for it costs nothing until then.
void watchReaderEnd() {
    RunLoop::main().waitForDescriptor(STDERR_FILENO, RunLoop::Readiness::Readable, [] {
        if (readerGone(STDERR_FILENO)) {
            RunLoop::wakeForSignal(SIGPIPE);
        } else {
            watchReaderEnd();
        }
    });
}

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
    DDLog::setOutputBlockedHandler([](int fd) {
        RunLoop::main().waitForDescriptor(fd, RunLoop::Readiness::Writable,
                                          [] { DDLog::writePending(); });
    });
    struct stat info {};
    if (::fstat(STDERR_FILENO, &info) == 0 && (S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode))) {
        watchReaderEnd();
    }
}
