#include "platform/Secret.h"

#include "os/Memory.h"

#include <cstring>
#include <utility>

namespace platform {

Secret::Secret(std::string_view bytes) {
    if (!bytes.empty()) {
        data_ = new char[bytes.size()];
        std::memcpy(data_, bytes.data(), bytes.size());
        size_ = bytes.size();
    }
}

Secret::Secret(Secret&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

Secret& Secret::operator=(Secret&& other) noexcept {
    if (this != &other) {
        wipe();
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

// Not inlined, so that its frame is where the caller's callees were.
[[gnu::noinline]] void wipeScratch() {
    char room[64 * 1024];
    os::wipeMemory(room, sizeof room);
}

void Secret::wipe() noexcept {
    if (data_ != nullptr) {
        os::wipeMemory(data_, size_);
        delete[] data_;
    }
    data_ = nullptr;
    size_ = 0;
}

}  // namespace platform
