#pragma once

// One tool at a time per profile: an exclusive flock(2) on a file under
// /run, held from the first write of the profile until the process ends
// (the kernel releases it then, also after a SIGKILL). The holder writes
// its pid into the file, so a second instance can say whom it yields to.

#include "platform/strongswan/Result.h"

#include <string>

namespace platform::strongswan {

inline constexpr const char* kDefaultLockPath = "/run/orvane-ikev2.lock";

class ProfileLock {
  public:
    explicit ProfileLock(std::string path = kDefaultLockPath);
    ~ProfileLock();
    ProfileLock(const ProfileLock&) = delete;
    ProfileLock& operator=(const ProfileLock&) = delete;

    // Takes the lock without waiting: done when this process holds it, an
    // error naming the holder when another process has it.
    Result<void> acquire();
    bool held() const { return fd_ >= 0; }

  private:
    std::string path_;
    int fd_ = -1;
};

}  // namespace platform::strongswan
