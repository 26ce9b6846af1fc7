#include "platform/strongswan/ProfileLock.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace platform::strongswan {

namespace {

Error lockError(std::string text) {
    return Error{std::move(text), NEVPNErrorConfigurationReadWriteFailed};
}

}  // namespace

ProfileLock::ProfileLock(std::string path) : path_(std::move(path)) {}

ProfileLock::~ProfileLock() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

Result<void> ProfileLock::acquire() {
    if (fd_ >= 0) {
        return {};
    }
    const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return lockError(fmt::format("cannot open the lock {}: {}", path_, std::strerror(errno)));
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int err = errno;
        char holder[32] = {};
        const ssize_t n = ::pread(fd, holder, sizeof holder - 1, 0);
        ::close(fd);
        if (err != EWOULDBLOCK) {
            return lockError(fmt::format("cannot lock {}: {}", path_, std::strerror(err)));
        }
        std::string pid = n > 0 ? std::string(holder, static_cast<std::size_t>(n)) : "";
        pid = pid.substr(0, pid.find_first_not_of("0123456789"));
        const std::string inUse = "the profile is in use by another orvane-ikev2";
        return lockError(pid.empty() ? inUse : fmt::format("{} (pid {})", inUse, pid));
    }
    // Should this fail, the lock holds all the same; only the name is missing.
    const std::string pid = fmt::format("{}\n", ::getpid());
    [[maybe_unused]] const bool named =
        ::ftruncate(fd, 0) == 0 &&
        ::pwrite(fd, pid.data(), pid.size(), 0) == static_cast<ssize_t>(pid.size());
    fd_ = fd;
    return {};
}

}  // namespace platform::strongswan
