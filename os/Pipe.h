#pragma once

// A pipe made for waking a loop: both ends close-on-exec and non-blocking,
// so a writer in a signal handler never blocks and no child inherits it.

namespace os {

// Fills `fds` with the read end and the write end; false (errno set) when
// the pipe cannot be made.
bool openWakePipe(int fds[2]);

}  // namespace os
