// The timing claims of the run loop and the VICI client, on the steady
// clock (the unit tests check the same behaviour on virtual time): how late
// a timer, the end of a slice, a stop and a signal wake-up come, and how far
// past their bound the VICI client's timeouts and bounded waits and the
// terminal writer's flush end. Each iteration's figure is the lateness
// itself (manual time).

#include "log/TerminalWriter.h"
#include "platform/RunLoop.h"
#include "platform/strongswan/ViciClient.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <asio/io_context.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using platform::RunLoop;
using Clock = RunLoop::Clock;
namespace ss = platform::strongswan;
using namespace std::chrono_literals;

// Each iteration's lateness, as the iteration's time; the median and the
// largest as counters, in milliseconds.
class Lateness {
  public:
    explicit Lateness(benchmark::State& state) : state_(state) {}
    ~Lateness() {
        if (seen_.empty()) {
            return;
        }
        std::sort(seen_.begin(), seen_.end());
        state_.counters["median_ms"] = seen_[seen_.size() / 2] * 1e3;
        state_.counters["max_ms"] = seen_.back() * 1e3;
        state_.counters["min_ms"] = seen_.front() * 1e3;
    }
    Lateness(const Lateness&) = delete;
    Lateness& operator=(const Lateness&) = delete;

    void add(Clock::duration lateness) {
        const double seconds = std::chrono::duration<double>(lateness).count();
        state_.SetIterationTime(seconds);
        seen_.push_back(seconds);
    }

  private:
    benchmark::State& state_;
    std::vector<double> seen_;
};

// A VICI socket whose connections are accepted and never read: requests
// are never answered, as by a daemon that hangs.
class SilentDaemon {
  public:
    SilentDaemon() {
        char pattern[] = "/tmp/orvane-bench-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) {
            throw std::runtime_error("mkdtemp");
        }
        dir_ = pattern;
        path_ = dir_ + "/charon.vici";
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(fd_, 64) != 0) {
            throw std::runtime_error("cannot listen on " + path_);
        }
        acceptor_ = std::thread([this] {
            for (;;) {
                const int connection = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
                if (connection < 0) {
                    return;
                }
                std::lock_guard lock(mutex_);
                connections_.push_back(connection);
            }
        });
    }
    ~SilentDaemon() {
        ::shutdown(fd_, SHUT_RDWR);
        acceptor_.join();
        ::close(fd_);
        for (int connection : connections_) {
            ::close(connection);
        }
        ::unlink(path_.c_str());
        ::rmdir(dir_.c_str());
    }
    SilentDaemon(const SilentDaemon&) = delete;
    SilentDaemon& operator=(const SilentDaemon&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string dir_;
    std::string path_;
    int fd_ = -1;
    std::thread acceptor_;
    std::mutex mutex_;
    std::vector<int> connections_;
};

// dispatchAfter(10 ms): from the due time to the block running.
void TimerLateness(benchmark::State& state) {
    auto& loop = RunLoop::main();
    Lateness lateness(state);
    for (auto _ : state) {
        const Clock::time_point due = Clock::now() + 10ms;
        Clock::time_point ran;
        loop.dispatchAfter(10ms, [&] {
            ran = Clock::now();
            loop.stop();
        });
        loop.runUntil(due + 1s);
        lateness.add(ran - due);
    }
}

// A 10 ms slice with nothing queued: from its deadline to its return.
void SliceOverrun(benchmark::State& state) {
    auto& loop = RunLoop::main();
    Lateness lateness(state);
    for (auto _ : state) {
        const Clock::time_point deadline = Clock::now() + 10ms;
        loop.runUntil(deadline);
        lateness.add(Clock::now() - deadline);
    }
}

// stop() from a handler: from the call to the slice's return.
void StopToReturn(benchmark::State& state) {
    auto& loop = RunLoop::main();
    Lateness lateness(state);
    for (auto _ : state) {
        Clock::time_point stopped;
        loop.dispatchAfter(1ms, [&] {
            stopped = Clock::now();
            loop.stop();
        });
        loop.runUntil(Clock::now() + 1s);
        lateness.add(Clock::now() - stopped);
    }
}

void wakeLoop(int signo) {
    RunLoop::wakeForSignal(signo);
}

// A signal taken by another thread in the middle of a slice: from raise()
// to its handler on the loop thread.
void SignalWakeUp(benchmark::State& state) {
    auto& loop = RunLoop::main();
    Clock::time_point handled;
    loop.watchSignals([&](int) {
        handled = Clock::now();
        loop.stop();
    });
    struct sigaction action {};
    action.sa_handler = wakeLoop;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGUSR1, &action, nullptr);
    Lateness lateness(state);
    for (auto _ : state) {
        Clock::time_point raised;
        std::thread sender([&raised] {
            std::this_thread::sleep_for(2ms);
            raised = Clock::now();
            std::raise(SIGUSR1);
        });
        loop.runUntil(Clock::now() + 1s);
        sender.join();
        lateness.add(handled - raised);
    }
    ::signal(SIGUSR1, SIG_DFL);
}

// An unanswered request with a 20 ms timeout: from the bound to the reply.
void ViciRequestTimeout(benchmark::State& state) {
    SilentDaemon daemon;
    asio::io_context io;
    Lateness lateness(state);
    for (auto _ : state) {
        auto client = ss::ViciClient::create(io, daemon.path());
        if (auto connected = client->connect(); !connected) {
            state.SkipWithError(connected.error().text.c_str());
            return;
        }
        const Clock::time_point bound = Clock::now() + 20ms;
        Clock::time_point answered;
        client->request(
            "version", {}, [&](ss::ViciReply) { answered = Clock::now(); }, 20ms);
        io.restart();
        while (answered == Clock::time_point{} && Clock::now() < bound + 1s) {
            io.run_one_for(1s);
        }
        lateness.add(answered - bound);
    }
}

// A blocking request with a 20 ms deadline to a daemon that never answers:
// from the deadline to the return.
void ViciSyncDeadline(benchmark::State& state) {
    SilentDaemon daemon;
    Lateness lateness(state);
    for (auto _ : state) {
        ss::ViciSyncClient client(daemon.path());
        if (auto connected = client.connect(); !connected) {
            state.SkipWithError(connected.error().text.c_str());
            return;
        }
        const Clock::time_point deadline = Clock::now() + 20ms;
        client.request("version", {}, deadline);
        lateness.add(Clock::now() - deadline);
    }
}

// Waiting 20 ms for trailing events that never come: from the end of the
// quiet span to the return.
void ViciDrainQuiet(benchmark::State& state) {
    SilentDaemon daemon;
    asio::io_context io;
    auto client = ss::ViciClient::create(io, daemon.path());
    if (auto connected = client->connect(); !connected) {
        state.SkipWithError(connected.error().text.c_str());
        return;
    }
    Lateness lateness(state);
    for (auto _ : state) {
        const Clock::time_point quiet = Clock::now() + 20ms;
        client->drain(1s, 20ms);
        lateness.add(Clock::now() - quiet);
    }
}

// A line for a terminal that reads nothing, flushed with a 20 ms limit: from
// the limit to the return.
void TerminalFlushLimit(benchmark::State& state) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        state.SkipWithError("pipe2");
        return;
    }
    // Full to the last byte, then blocking again, as a controller hands it over.
    ::fcntl(fds[1], F_SETFL, O_NONBLOCK);
    const char byte = '.';
    while (::write(fds[1], &byte, 1) == 1) {
    }
    ::fcntl(fds[1], F_SETFL, 0);
    {
        TerminalWriter writer(fds[1]);
        Lateness lateness(state);
        for (auto _ : state) {
            writer.write("IKEv2 Disconnected\n");
            const Clock::time_point limit = Clock::now() + 20ms;
            writer.flush(20ms);
            lateness.add(Clock::now() - limit);
        }
    }
    ::close(fds[0]);
    ::close(fds[1]);
}

constexpr int kIterations = 100;

BENCHMARK(TimerLateness)->UseManualTime()->Iterations(kIterations)->Unit(benchmark::kMillisecond);
BENCHMARK(SliceOverrun)->UseManualTime()->Iterations(kIterations)->Unit(benchmark::kMillisecond);
BENCHMARK(StopToReturn)->UseManualTime()->Iterations(kIterations)->Unit(benchmark::kMillisecond);
BENCHMARK(SignalWakeUp)->UseManualTime()->Iterations(kIterations)->Unit(benchmark::kMillisecond);
BENCHMARK(ViciRequestTimeout)
    ->UseManualTime()
    ->Iterations(kIterations)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(ViciSyncDeadline)
    ->UseManualTime()
    ->Iterations(kIterations)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(ViciDrainQuiet)->UseManualTime()->Iterations(kIterations)->Unit(benchmark::kMillisecond);
BENCHMARK(TerminalFlushLimit)
    ->UseManualTime()
    ->Iterations(kIterations)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
