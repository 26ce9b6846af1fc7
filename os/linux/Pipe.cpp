#include "os/Pipe.h"

#include <fcntl.h>
#include <unistd.h>

namespace os {

bool openWakePipe(int fds[2]) {
    return ::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0;
}

}  // namespace os
