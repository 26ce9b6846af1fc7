// logind-standin: the logind stand-in as a program, for the end-to-end
// suite. It connects to the system bus (in the lab that is a private bus
// in the initiator's namespaces) or to the address given, and prints one
// line per event, each ending in the local time with milliseconds in the
// form charon's file log uses:
//
//   ready <time>
//   inhibit what=... who=... why=... mode=... <time>
//   prepare-for-sleep true <time>         after SIGUSR1
//   released <time>                       a lock lost its last holder
//
// SIGTERM or SIGINT end it with status 0.
//
//   logind-standin [ADDRESS]

#include "tests/logind/LogindStandIn.h"

#include <signal.h>
#include <time.h>

#include <cstdio>
#include <mutex>

namespace {

std::mutex outputMutex;

void print(const std::string& line) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::lock_guard lock(outputMutex);
    std::printf("%s %s.%03ld\n", line.c_str(), stamp, now.tv_nsec / 1000000);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    // Blocked before the stand-in's thread starts, so only sigwait sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    logind::LogindStandIn standIn(argc > 1 ? argv[1] : "", print);
    std::string error;
    if (!standIn.start(error)) {
        std::fprintf(stderr, "logind-standin: %s\n", error.c_str());
        return 1;
    }
    print("ready");
    for (;;) {
        int signo = 0;
        if (sigwait(&signals, &signo) != 0) {
            return 1;
        }
        if (signo != SIGUSR1) {
            return 0;
        }
        standIn.prepareForSleep(true);
    }
}
