#include "tests/logind/LogindStandIn.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace logind {

namespace {

constexpr const char* kName = "org.freedesktop.login1";
constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";

std::string errnoText(int negativeErrno) {
    return std::strerror(-negativeErrno);
}

}  // namespace

LogindStandIn::LogindStandIn(std::string address, Listener listener)
    : address_(std::move(address)), listener_(std::move(listener)) {}

LogindStandIn::~LogindStandIn() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    if (wakeFd_ >= 0) {
        std::uint64_t one = 1;
        (void)::write(wakeFd_, &one, sizeof one);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    sd_bus_slot_unref(object_);
    sd_bus_flush_close_unref(bus_);
    for (int fd : lockFds_) {
        ::close(fd);
    }
    if (wakeFd_ >= 0) {
        ::close(wakeFd_);
    }
}

bool LogindStandIn::start(std::string& error) {
    int r;
    if (address_.empty()) {
        r = sd_bus_open_system(&bus_);
    } else if ((r = sd_bus_new(&bus_)) >= 0 &&
               (r = sd_bus_set_address(bus_, address_.c_str())) >= 0 &&
               (r = sd_bus_set_bus_client(bus_, 1)) >= 0) {
        r = sd_bus_start(bus_);
    }
    if (r < 0) {
        error = "connecting to the bus: " + errnoText(r);
        return false;
    }
    if ((r = sd_bus_request_name(bus_, kName, 0)) < 0) {
        error = std::string("taking the name ") + kName + ": " + errnoText(r);
        return false;
    }
    if ((r = sd_bus_add_object(bus_, &object_, kPath, &LogindStandIn::onCall, this)) < 0) {
        error = "exporting the manager: " + errnoText(r);
        return false;
    }
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        error = std::string("eventfd: ") + std::strerror(errno);
        return false;
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

int LogindStandIn::onCall(sd_bus_message* call, void* userdata, sd_bus_error*) {
    auto* self = static_cast<LogindStandIn*>(userdata);
    if (!sd_bus_message_is_method_call(call, kManager, "Inhibit")) {
        return 0;  // sd-bus answers that there is no such method
    }
    const char* fields[4] = {};
    int r = sd_bus_message_read(call, "ssss", &fields[0], &fields[1], &fields[2], &fields[3]);
    if (r < 0) {
        return r;
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) < 0) {
        return -errno;
    }
    r = sd_bus_reply_method_return(call, "h", ends[1]);  // sd-bus sends a copy
    ::close(ends[1]);
    if (r < 0) {
        ::close(ends[0]);
        return r;
    }
    Inhibitor inhibitor{fields[0], fields[1], fields[2], fields[3]};
    {
        std::lock_guard lock(self->mutex_);
        self->inhibitors_.push_back(inhibitor);
        self->lockFds_.push_back(ends[0]);
    }
    self->event("inhibit what=" + inhibitor.what + " who=" + inhibitor.who +
                " why=" + inhibitor.why + " mode=" + inhibitor.mode);
    return 1;
}

void LogindStandIn::prepareForSleep(bool start) {
    {
        std::lock_guard lock(mutex_);
        pendingSignals_.push_back(start);
    }
    std::uint64_t one = 1;
    (void)::write(wakeFd_, &one, sizeof one);
}

void LogindStandIn::emitPending() {
    std::vector<bool> signals;
    {
        std::lock_guard lock(mutex_);
        signals.swap(pendingSignals_);
    }
    for (bool start : signals) {
        sd_bus_emit_signal(bus_, kPath, kManager, "PrepareForSleep", "b", static_cast<int>(start));
        event(std::string("prepare-for-sleep ") + (start ? "true" : "false"));
    }
}

// A lock's read end that reports end of file has lost every writer.
void LogindStandIn::watchLocks(std::vector<int>& fds) {
    std::vector<int> gone;
    for (int fd : fds) {
        char byte;
        if (::read(fd, &byte, 1) == 0) {
            gone.push_back(fd);
        }
    }
    if (gone.empty()) {
        return;
    }
    {
        std::lock_guard lock(mutex_);
        for (int fd : gone) {
            std::erase(lockFds_, fd);
            ::close(fd);
            ++released_;
        }
    }
    for (std::size_t i = 0; i < gone.size(); ++i) {
        event("released");
    }
}

void LogindStandIn::run() {
    for (;;) {
        while (sd_bus_process(bus_, nullptr) > 0) {
        }
        sd_bus_flush(bus_);
        // A bus that went away leaves only the locks to watch.
        int busFd = sd_bus_get_fd(bus_);
        int busEvents = sd_bus_get_events(bus_);
        std::vector<pollfd> fds;
        fds.push_back({busEvents < 0 ? -1 : busFd, static_cast<short>(std::max(busEvents, 0)), 0});
        fds.push_back({wakeFd_, POLLIN, 0});
        {
            std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            for (int fd : lockFds_) {
                fds.push_back({fd, POLLIN, 0});
            }
        }
        int timeoutMs = 100;
        std::uint64_t usec = 0;
        if (sd_bus_get_timeout(bus_, &usec) >= 0 && usec != UINT64_MAX) {
            timespec now{};
            ::clock_gettime(CLOCK_MONOTONIC, &now);
            std::uint64_t nowUsec = static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
                                    static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
            timeoutMs =
                usec <= nowUsec
                    ? 0
                    : static_cast<int>(std::min<std::uint64_t>((usec - nowUsec + 999) / 1000, 100));
        }
        if (::poll(fds.data(), fds.size(), timeoutMs) < 0 && errno != EINTR) {
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            std::uint64_t count;
            (void)::read(wakeFd_, &count, sizeof count);
            emitPending();
        }
        std::vector<int> ready;
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents != 0) {
                ready.push_back(fds[i].fd);
            }
        }
        watchLocks(ready);
    }
}

void LogindStandIn::event(const std::string& line) {
    if (listener_) {
        listener_(line);
    }
}

std::vector<Inhibitor> LogindStandIn::inhibitors() {
    std::lock_guard lock(mutex_);
    return inhibitors_;
}

int LogindStandIn::held() {
    std::lock_guard lock(mutex_);
    return static_cast<int>(lockFds_.size());
}

int LogindStandIn::released() {
    std::lock_guard lock(mutex_);
    return released_;
}

bool LogindStandIn::waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace logind
