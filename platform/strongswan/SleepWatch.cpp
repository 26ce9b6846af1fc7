#include "platform/strongswan/SleepWatch.h"

#include "platform/strongswan/SdBus.h"

#include "log/DDLog.h"
#include "platform/linux/LoopTimer.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>

namespace platform::strongswan {

namespace {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kLogindPath = "/org/freedesktop/login1";
constexpr const char* kLogindManager = "org.freedesktop.login1.Manager";

std::string errnoText(int negativeErrno) {
    return std::strerror(-negativeErrno);
}

// The connection, started: authentication and Hello go on asynchronously.
int openBus(const SdBus& sd, const std::string& address, sd_bus** bus) {
    if (address == kSystemBus) {
        return sd.open_system(bus);
    }
    int r = sd.new_bus(bus);
    if (r < 0) {
        return r;
    }
    if ((r = sd.set_address(*bus, address.c_str())) < 0 || (r = sd.set_bus_client(*bus, 1)) < 0 ||
        (r = sd.start(*bus)) < 0) {
        *bus = sd.unref(*bus);
    }
    return r;
}

}  // namespace

// One bus connection with its subscription, its Inhibit call and the lock.
// sd-bus calls back from inside sd_bus_process; those callbacks only record
// and post, so nothing is torn down under sd-bus's feet.
struct SleepWatch::Connection : std::enable_shared_from_this<Connection> {
    Connection(asio::io_context& context, const SdBus& functions)
        : sd(functions), socket(context), timer(context), releaseTimer(context) {}

    ~Connection() {
        asio::error_code ignored;
        socket.close(ignored);
        sd.slot_unref(sleepSignal);
        sd.slot_unref(inhibitCall);
        sd.close_unref(bus);
        if (lockFd >= 0) {
            ::close(lockFd);
            DDLogDebug("IKEv2 sleep lock released");
        }
    }

    // Lets sd-bus read, write and dispatch what it can, then waits for what
    // it asks for next. False when the connection is broken.
    bool pump() {
        int r;
        while ((r = sd.process(bus, nullptr)) > 0) {
        }
        if (r < 0) {
            DDLogDebug("IKEv2 system bus connection lost: {}", errnoText(r));
            return false;
        }
        int events = sd.get_events(bus);
        if (events < 0) {
            DDLogDebug("IKEv2 system bus connection lost: {}", errnoText(events));
            return false;
        }
        if ((events & POLLIN) != 0 && !readArmed) {
            readArmed = true;
            wait(asio::posix::stream_descriptor::wait_read, readArmed);
        }
        if ((events & POLLOUT) != 0 && !writeArmed) {
            writeArmed = true;
            wait(asio::posix::stream_descriptor::wait_write, writeArmed);
        }
        std::uint64_t usec = 0;
        if (sd.get_timeout(bus, &usec) >= 0 && usec != UINT64_MAX) {
            // CLOCK_MONOTONIC microseconds, the steady clock's own epoch.
            timer.expires_at(asio::steady_timer::time_point(std::chrono::microseconds(usec)));
            std::weak_ptr<Connection> weak = weak_from_this();
            timer.async_wait([weak](const asio::error_code& error) {
                if (auto self = weak.lock(); self && !error) {
                    self->pumpOrEnd();
                }
            });
        } else {
            timer.cancel();
        }
        return true;
    }

    void wait(asio::posix::stream_descriptor::wait_type type, bool& armed) {
        std::weak_ptr<Connection> weak = weak_from_this();
        socket.async_wait(type, [weak, &armed](const asio::error_code& error) {
            auto self = weak.lock();
            if (!self) {
                return;
            }
            armed = false;
            if (!error) {
                self->pumpOrEnd();
            }
        });
    }

    void pumpOrEnd() {
        if (!pump()) {
            owner->end();
        }
    }

    static int onInhibitReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto* self = static_cast<Connection*>(userdata);
        if (self->sd.message_is_method_error(reply, nullptr)) {
            const sd_bus_error* error = self->sd.message_get_error(reply);
            DDLogDebug("IKEv2 no sleep lock from logind, sleep is not watched: {}: {}",
                       error->name ? error->name : "?", error->message ? error->message : "");
            self->post([](SleepWatch& watch) { watch.end(); });
            return 0;
        }
        int fd = -1;
        int r = self->sd.message_read(reply, "h", &fd);
        if (r < 0 || (self->lockFd = ::fcntl(fd, F_DUPFD_CLOEXEC, 3)) < 0) {
            DDLogDebug("IKEv2 unreadable sleep lock from logind: {}",
                       errnoText(r < 0 ? r : -errno));
            self->post([](SleepWatch& watch) { watch.end(); });
            return 0;
        }
        DDLogDebug("IKEv2 holding logind's sleep delay lock");
        return 0;
    }

    static int onPrepareForSleep(sd_bus_message* signal, void* userdata, sd_bus_error*) {
        auto* self = static_cast<Connection*>(userdata);
        int start = 0;
        if (self->sd.message_read(signal, "b", &start) < 0 || !start) {
            return 0;
        }
        self->post([](SleepWatch& watch) { watch.sleepAnnounced(); });
        return 0;
    }

    // Runs `block` on the io_context, if this connection is still the
    // watch's by then.
    void post(std::function<void(SleepWatch&)> block) {
        std::weak_ptr<Connection> weak = weak_from_this();
        asio::post(socket.get_executor(), [weak, block = std::move(block)] {
            if (auto self = weak.lock()) {
                block(*self->owner);
            }
        });
    }

    const SdBus& sd;
    SleepWatch* owner = nullptr;
    sd_bus* bus = nullptr;
    sd_bus_slot* sleepSignal = nullptr;
    sd_bus_slot* inhibitCall = nullptr;
    int lockFd = -1;
    asio::posix::stream_descriptor socket;
    asio::steady_timer timer;
    LoopTimer releaseTimer;
    bool readArmed = false;
    bool writeArmed = false;
};

SleepWatch::SleepWatch(asio::io_context& context, const SleepOptions& options,
                       std::function<void()> onSleep)
    : context_(context), options_(options), onSleep_(std::move(onSleep)) {}

SleepWatch::~SleepWatch() = default;

bool SleepWatch::watching() const {
    return connection_ != nullptr;
}

bool SleepWatch::holdsLock() const {
    return connection_ && connection_->lockFd >= 0;
}

void SleepWatch::begin() {
    if (options_.bus.empty() || connection_) {
        return;
    }
    std::string missing;
    const SdBus* sd = loadSdBus(missing);
    if (sd == nullptr) {
        DDLogDebug("IKEv2 no sd-bus, sleep is not watched: {}", missing);
        return;
    }
    auto connection = std::make_shared<Connection>(context_, *sd);
    connection->owner = this;
    int r = openBus(*sd, options_.bus, &connection->bus);
    if (r < 0) {
        DDLogDebug("IKEv2 no system bus, sleep is not watched: {}", errnoText(r));
        return;
    }
    // Asio watches a copy of the socket, so that closing either side's
    // descriptor leaves the other's alone.
    int fd = sd->get_fd(connection->bus);
    int copy = fd < 0 ? -1 : ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (copy < 0) {
        DDLogDebug("IKEv2 system bus unusable, sleep is not watched: {}",
                   errnoText(fd < 0 ? fd : -errno));
        return;
    }
    connection->socket.assign(copy);
    r = sd->match_signal_async(connection->bus, &connection->sleepSignal, kLogind, kLogindPath,
                               kLogindManager, "PrepareForSleep", &Connection::onPrepareForSleep,
                               nullptr, connection.get());
    if (r >= 0) {
        r = sd->call_method_async(connection->bus, &connection->inhibitCall, kLogind, kLogindPath,
                                  kLogindManager, "Inhibit", &Connection::onInhibitReply,
                                  connection.get(), "ssss", "sleep", "orvane-ikev2",
                                  "Stops the Orvane IKEv2 tunnel before sleep", "delay");
    }
    if (r < 0) {
        DDLogDebug("IKEv2 system bus unusable, sleep is not watched: {}", errnoText(r));
        return;
    }
    connection_ = connection;
    if (!connection->pump()) {
        end();
    }
}

void SleepWatch::end() {
    connection_.reset();
}

void SleepWatch::sleepAnnounced() {
    DDLogDebug("IKEv2 system going to sleep, stopping the tunnel");
    connection_->releaseTimer.expires_after(options_.releaseLimit);
    std::weak_ptr<Connection> weak = connection_;
    connection_->releaseTimer.async_wait([this, weak](const asio::error_code& error) {
        if (weak.lock() && !error) {
            end();
        }
    });
    onSleep_();
}

}  // namespace platform::strongswan
