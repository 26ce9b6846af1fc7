#pragma once

// Turning a test's io_context until something has happened.

#include <asio/io_context.hpp>

#include <chrono>
#include <functional>

namespace testio {

// Runs `io` in short slices until `done` holds or `limit` has passed, and
// returns `done()`.
inline bool runUntil(asio::io_context& io, const std::function<bool()>& done,
                     std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        io.restart();
        io.run_for(std::chrono::milliseconds(5));
    }
    return done();
}

}  // namespace testio
