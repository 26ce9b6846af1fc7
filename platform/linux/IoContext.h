#pragma once

// Linux only: the Asio io_context that is the main run loop, for the
// backend's sockets and timers. Portable code uses platform/RunLoop.h.

#include <asio/io_context.hpp>

namespace platform {

// The io_context that RunLoop::main() turns.
asio::io_context& mainIoContext();

}  // namespace platform
