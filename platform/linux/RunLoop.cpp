// The main run loop on Linux: an Asio io_context.

#include "platform/RunLoop.h"

#include "platform/linux/IoContext.h"
#include "platform/linux/LoopTimer.h"

#include <asio/executor_work_guard.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>

#include <fcntl.h>
#include <memory>

namespace platform {

namespace {

// The readiness watch of the signal pipe. It waits on a duplicate of the
// read end and reads nothing itself: the bytes are read by
// deliverPendingSignals, which main also calls between slices.
asio::posix::stream_descriptor*& signalDescriptor() {
    static asio::posix::stream_descriptor* descriptor = nullptr;
    return descriptor;
}

void armSignalWait(RunLoop& loop) {
    signalDescriptor()->async_wait(asio::posix::stream_descriptor::wait_read,
                                   [&loop](const asio::error_code& error) {
                                       if (error) {
                                           return;
                                       }
                                       loop.deliverPendingSignals();
                                       armSignalWait(loop);
                                   });
}

}  // namespace

asio::io_context& mainIoContext() {
    // Never destroyed: exit() may be called from inside one of its handlers.
    static auto* context = new asio::io_context;
    // Keeps the loop waiting for the end of a slice even when nothing is
    // queued, so that slices last as long as they were asked to.
    [[maybe_unused]] static auto* keepWaiting =
        new asio::executor_work_guard<asio::io_context::executor_type>(
            asio::make_work_guard(*context));
    return *context;
}

RunLoop& RunLoop::main() {
    static RunLoop* loop = new RunLoop;
    return *loop;
}

void RunLoop::runUntil(Clock::time_point deadline) {
    asio::io_context& context = mainIoContext();
    context.restart();
    deliverPendingSignals();
    if (context.stopped()) {
        return;
    }
    if (VirtualTime::active()) {
        runVirtualUntil(deadline);
        return;
    }
    if (deadline == Clock::time_point::max()) {
        context.run();
    } else {
        context.run_until(deadline);
    }
}

void RunLoop::run() {
    runUntil(Clock::time_point::max());
}

bool RunLoop::runReady() {
    asio::io_context& context = mainIoContext();
    context.poll();
    return !context.stopped();
}

void RunLoop::stop() {
    mainIoContext().stop();
}

void RunLoop::dispatchAfter(std::chrono::nanoseconds delay, std::function<void()> block) {
    auto timer = std::make_shared<LoopTimer>(mainIoContext());
    timer->expires_after(std::chrono::duration_cast<Clock::duration>(delay));
    timer->async_wait([timer, block = std::move(block)](const asio::error_code& error) {
        if (!error) {
            block();
        }
    });
}

void RunLoop::post(std::function<void()> block) {
    asio::post(mainIoContext(), std::move(block));
}

void RunLoop::notifyFork(ForkEvent event) {
    switch (event) {
        case ForkEvent::prepare:
            mainIoContext().notify_fork(asio::io_context::fork_prepare);
            break;
        case ForkEvent::child:
            mainIoContext().notify_fork(asio::io_context::fork_child);
            break;
        case ForkEvent::parent:
            mainIoContext().notify_fork(asio::io_context::fork_parent);
            break;
    }
}

void RunLoop::watchReadable(int fd) {
    signalDescriptor() =
        new asio::posix::stream_descriptor(mainIoContext(), ::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    armSignalWait(*this);
}

}  // namespace platform
