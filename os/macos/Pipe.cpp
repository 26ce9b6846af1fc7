#include "os/Pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace os {

namespace {

bool addFlags(int fd) {
    const int descriptorFlags = ::fcntl(fd, F_GETFD);
    const int statusFlags = ::fcntl(fd, F_GETFL);
    return descriptorFlags >= 0 && statusFlags >= 0 &&
           ::fcntl(fd, F_SETFD, descriptorFlags | FD_CLOEXEC) == 0 &&
           ::fcntl(fd, F_SETFL, statusFlags | O_NONBLOCK) == 0;
}

}  // namespace

// macOS has no pipe2: the flags are set right after the pipe is made.
bool openWakePipe(int fds[2]) {
    if (::pipe(fds) != 0) return false;
    if (addFlags(fds[0]) && addFlags(fds[1])) return true;
    const int savedErrno = errno;
    ::close(fds[0]);
    ::close(fds[1]);
    errno = savedErrno;
    return false;
}

}  // namespace os
