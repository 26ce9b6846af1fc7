// The main run loop on macOS: the main CFRunLoop, which also drains the main
// dispatch queue, where NetworkExtension delivers its completion handlers
// and status notifications. Turned only from the main thread.

#include "platform/RunLoop.h"

#import <Foundation/Foundation.h>

#include <memory>
#include <thread>

namespace platform {

namespace {

// Set by stop(), cleared when a run or slice starts. CFRunLoopStop alone
// would not do: it is ignored while the loop is not inside
// CFRunLoopRunInMode, and a stop asked for by a signal delivered at the start
// of a slice comes exactly then.
bool stopRequested = false;

// The signal pipe's readiness source; kept for the life of the process.
dispatch_source_t signalSource = nil;

// Runs a queued block unless the current run was stopped: the main queue
// hands its blocks over in batches, and a block queued behind the one that
// called stop() waits for the next run, as it would on the other loops.
void runQueued(const std::shared_ptr<std::function<void()>>& block) {
    if (stopRequested) {
        dispatch_async(dispatch_get_main_queue(), ^{
          runQueued(block);
        });
        return;
    }
    (*block)();
}

}  // namespace

RunLoop& RunLoop::main() {
    static RunLoop* loop = new RunLoop;
    return *loop;
}

void RunLoop::runUntil(Clock::time_point deadline) {
    stopRequested = false;
    deliverPendingSignals();
    if (VirtualTime::active()) {
        runVirtualUntil(deadline);
        return;
    }
    while (!stopRequested) {
        const Clock::duration left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
            return;
        }
        // Returns at the timeout, at CFRunLoopStop, or at once when the mode
        // has nothing to wait for (never on the main thread, whose default
        // mode always serves the main queue).
        const CFRunLoopRunResult result = CFRunLoopRunInMode(
            kCFRunLoopDefaultMode, std::chrono::duration<double>(left).count(), false);
        if (result == kCFRunLoopRunFinished) {
            std::this_thread::sleep_for(left);
        }
    }
}

void RunLoop::run() {
    runUntil(Clock::time_point::max());
}

bool RunLoop::runReady() {
    // A zero timeout serves what is ready, the main queue included, once per
    // call; blocks queued meanwhile need another.
    while (!stopRequested &&
           CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, true) == kCFRunLoopRunHandledSource) {
    }
    return !stopRequested;
}

void RunLoop::stop() {
    stopRequested = true;
    CFRunLoopStop(CFRunLoopGetMain());
}

void RunLoop::dispatchAfter(std::chrono::nanoseconds delay, std::function<void()> block) {
    auto queued = std::make_shared<std::function<void()>>(std::move(block));
    if (VirtualTime::active()) {
        VirtualTime::schedule(Clock::now() + std::chrono::duration_cast<Clock::duration>(delay),
                              [queued](bool expired) {
                                  if (expired) {
                                      dispatch_async(dispatch_get_main_queue(), ^{
                                        runQueued(queued);
                                      });
                                  }
                              });
        return;
    }
    dispatch_after(dispatch_time(DISPATCH_TIME_NOW, delay.count()), dispatch_get_main_queue(), ^{
      runQueued(queued);
    });
}

void RunLoop::post(std::function<void()> block) {
    auto queued = std::make_shared<std::function<void()>>(std::move(block));
    dispatch_async(dispatch_get_main_queue(), ^{
      runQueued(queued);
    });
}

// Core Foundation and libdispatch cannot be used in a forked child that has
// not called exec, so there is nothing to prepare: such a child must not turn
// this loop.
void RunLoop::notifyFork(ForkEvent) {}

void RunLoop::watchReadable(int fd) {
    signalSource = dispatch_source_create(DISPATCH_SOURCE_TYPE_READ, static_cast<uintptr_t>(fd), 0,
                                          dispatch_get_main_queue());
    dispatch_source_set_event_handler(signalSource, ^{
      RunLoop::main().deliverPendingSignals();
    });
    dispatch_resume(signalSource);
}

}  // namespace platform
