#pragma once

// A password that a test plants (in a configuration file or a Secret), and
// a search of a process's memory for any piece of it.
//
// The test must not hold the password itself, or the search of its own
// memory would find the test's copy. So the password is kept masked (every
// byte XORed with a random mask), written to a file one byte at a time and
// compared byte against masked byte: its bytes never stand in a row in this
// process's memory.
//
// A freed heap block loses its first 16 bytes to the allocator's list
// pointers, so the search looks for every run of kWindow bytes of the
// password, not only for the whole of it. It reads /proc/PID/maps and
// /proc/PID/mem (Linux; elsewhere `scan` reports the memory unreadable) into
// buffers of its own from mmap and takes nothing from the heap while it
// reads, so that it cannot reuse, and overwrite, a freed block that still
// holds a copy. Its stack use is small: code run through `deepInTheStack`
// leaves its stack frames below what the search overwrites.

#include "os/Memory.h"
#include "platform/Secret.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace testing_support {

// Why a search of a test build's memory (this process's, or the test tool's)
// cannot tell, or nothing. In an unoptimized build the frames of the test and
// of the code under test keep copies in stack slots that no wipe reaches; a
// sanitizer's shadow and quarantine hold copies of their own and make the
// address space too large to read. The search runs on optimized builds only.
inline const char* ownMemoryUnsearchable() {
#if defined(ORVANE_SANITIZED)
    return "a sanitizer keeps copies in its shadow and quarantine";
#elif defined(__OPTIMIZE__)
    return nullptr;
#else
    return "an unoptimized build keeps copies in stack slots";
#endif
}

// What one search found.
struct MemoryScan {
    // False when the process's memory could not be read at all.
    bool readable = false;
    std::size_t bytesRead = 0;
    // Places where a run of kWindow bytes of the text starts.
    std::size_t hits = 0;
    std::uintptr_t firstHit = 0;
    char firstHitMapping[160] = {};

    std::string describe() const {
        char text[320];
        std::snprintf(text, sizeof text, "%zu piece(s) in %zu bytes read, first at %#lx in %s",
                      hits, bytesRead, static_cast<unsigned long>(firstHit), firstHitMapping);
        return text;
    }
};

namespace detail {

inline constexpr std::size_t kWindow = 8;

// Runs of kWindow bytes of a text given as masked[i] ^ mask.
class WindowSearch {
  public:
    WindowSearch(const unsigned char* masked, std::size_t length, unsigned char mask)
        : masked_(masked), length_(length), mask_(mask) {
        for (std::size_t j = 0; j + kWindow <= length_; ++j) {
            const unsigned pair = ((masked_[j] ^ mask_) << 8) | (masked_[j + 1] ^ mask_);
            pairs_[pair / 64] |= std::uint64_t{1} << (pair % 64);
        }
    }

    // Offsets in `bytes` where a window of the text starts, reported one by
    // one to `found`.
    template <class Found>
    void search(const unsigned char* bytes, std::size_t size, Found&& found) const {
        for (std::size_t i = 0; i + kWindow <= size; ++i) {
            const unsigned pair = (unsigned{bytes[i]} << 8) | bytes[i + 1];
            if ((pairs_[pair / 64] & (std::uint64_t{1} << (pair % 64))) == 0) {
                continue;
            }
            for (std::size_t j = 0; j + kWindow <= length_; ++j) {
                std::size_t k = 0;
                while (k < kWindow && (bytes[i + k] ^ masked_[j + k]) == mask_) {
                    ++k;
                }
                if (k == kWindow) {
                    found(i);
                    break;
                }
            }
        }
    }

  private:
    const unsigned char* masked_;
    std::size_t length_;
    unsigned char mask_;
    std::uint64_t pairs_[65536 / 64] = {};
};

// A buffer straight from mmap, never from the heap.
class MappedBuffer {
  public:
    explicit MappedBuffer(std::size_t size) : size_(size) {
        void* memory =
            ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        data_ = memory == MAP_FAILED ? nullptr : static_cast<unsigned char*>(memory);
    }
    ~MappedBuffer() {
        if (data_ != nullptr) {
            ::munmap(data_, size_);
        }
    }
    MappedBuffer(const MappedBuffer&) = delete;
    MappedBuffer& operator=(const MappedBuffer&) = delete;

    unsigned char* data() const { return data_; }
    std::size_t size() const { return size_; }
    bool holds(std::uintptr_t address) const {
        const auto start = reinterpret_cast<std::uintptr_t>(data_);
        return address >= start && address < start + size_;
    }

  private:
    unsigned char* data_ = nullptr;
    std::size_t size_;
};

inline std::size_t readAllAt(int fd, unsigned char* into, std::size_t size, off_t offset) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, into + done, size - done, offset + static_cast<off_t>(done));
        if (n <= 0) {
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    return done;
}

// Searches every readable mapping of `pid` (0: this process).
inline MemoryScan scanMemory(pid_t pid, const WindowSearch& search) {
    MemoryScan result;
    char path[64];
    const char* const self = "self";
    char number[24];
    std::snprintf(number, sizeof number, "%d", static_cast<int>(pid));
    const char* who = pid == 0 ? self : number;

    MappedBuffer maps(8 << 20);
    MappedBuffer chunk(1 << 20);
    if (maps.data() == nullptr || chunk.data() == nullptr) {
        return result;
    }
    std::snprintf(path, sizeof path, "/proc/%s/maps", who);
    const int mapsFd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (mapsFd < 0) {
        return result;
    }
    std::size_t mapsSize = 0;
    for (;;) {
        const ssize_t n = ::read(mapsFd, maps.data() + mapsSize, maps.size() - 1 - mapsSize);
        if (n <= 0) {
            break;
        }
        mapsSize += static_cast<std::size_t>(n);
    }
    ::close(mapsFd);
    maps.data()[mapsSize] = '\0';

    std::snprintf(path, sizeof path, "/proc/%s/mem", who);
    const int memFd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (memFd < 0) {
        return result;
    }
    char* line = reinterpret_cast<char*>(maps.data());
    while (*line != '\0') {
        char* end = std::strchr(line, '\n');
        if (end != nullptr) {
            *end = '\0';
        }
        unsigned long start = 0;
        unsigned long stop = 0;
        char perms[8] = {};
        int nameAt = 0;
        if (std::sscanf(line, "%lx-%lx %7s %*s %*s %*s %n", &start, &stop, perms, &nameAt) >= 3 &&
            perms[0] == 'r' && !maps.holds(start) && !chunk.holds(start) &&
            std::strcmp(line + nameAt, "[vvar]") != 0 &&
            std::strcmp(line + nameAt, "[vsyscall]") != 0) {
            // Chunks overlap by a window less one byte, so that no run is cut.
            for (unsigned long at = start; at < stop;) {
                const std::size_t want =
                    std::min<std::size_t>(chunk.size(), static_cast<std::size_t>(stop - at));
                const std::size_t got =
                    readAllAt(memFd, chunk.data(), want, static_cast<off_t>(at));
                result.bytesRead += got;
                search.search(chunk.data(), got, [&](std::size_t offset) {
                    if (result.hits++ == 0) {
                        result.firstHit = at + offset;
                        std::snprintf(result.firstHitMapping, sizeof result.firstHitMapping, "%s",
                                      line + nameAt);
                    }
                });
                if (got < want) {
                    break;  // the rest of this mapping cannot be read
                }
                at += want;
                if (at < stop) {
                    at -= kWindow - 1;
                }
            }
        }
        if (end == nullptr) {
            break;
        }
        line = end + 1;
    }
    ::close(memFd);
    result.readable = result.bytesRead > 0;
    return result;
}

}  // namespace detail

class PlantedSecret {
  public:
    static constexpr std::size_t kLength = 32;

    // A random password of letters and digits.
    PlantedSecret() {
        static constexpr char kAlphabet[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
        unsigned char random[kLength + 1] = {};
        const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            [[maybe_unused]] const ssize_t n = ::read(fd, random, sizeof random);
            ::close(fd);
        }
        mask_ = static_cast<unsigned char>(random[kLength] | 0x80);
        for (std::size_t i = 0; i < kLength; ++i) {
            masked_[i] = static_cast<unsigned char>(kAlphabet[random[i] % 62] ^ mask_);
        }
    }

    // Writes `before`, the password and `after` to a new file (mode 0600).
    bool writeFile(const std::string& path, std::string_view before, std::string_view after) const {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0) {
            return false;
        }
        bool ok = ::write(fd, before.data(), before.size()) == static_cast<ssize_t>(before.size());
        for (std::size_t i = 0; ok && i < kLength; ++i) {
            const char byte = static_cast<char>(masked_[i] ^ mask_);
            ok = ::write(fd, &byte, 1) == 1;
        }
        ok = ok && ::write(fd, after.data(), after.size()) == static_cast<ssize_t>(after.size());
        return ::close(fd) == 0 && ok;
    }

    // A Secret that holds the password.
    platform::Secret secret() const {
        char plain[kLength];
        for (std::size_t i = 0; i < kLength; ++i) {
            plain[i] = static_cast<char>(masked_[i] ^ mask_);
        }
        platform::Secret secret(std::string_view(plain, kLength));
        os::wipeMemory(plain, sizeof plain);
        return secret;
    }

    // Whether `text` (any text the test holds) is the password.
    bool is(std::string_view text) const {
        if (text.size() != kLength) {
            return false;
        }
        for (std::size_t i = 0; i < kLength; ++i) {
            if ((static_cast<unsigned char>(text[i]) ^ masked_[i]) != mask_) {
                return false;
            }
        }
        return true;
    }

    // Searches the memory of `pid` (0: this process) for pieces of it.
    MemoryScan scan(pid_t pid = 0) const {
        return detail::scanMemory(pid, detail::WindowSearch(masked_, kLength, mask_));
    }

  private:
    unsigned char masked_[kLength] = {};
    unsigned char mask_ = 0;
};

// Searches the memory of `pid` (0: this process) for pieces of a text that
// is no secret, such as a user name the process must still hold: the
// evidence that a search that found no password did read that memory. The
// text needs at least kWindow bytes.
inline MemoryScan scanMemoryForText(pid_t pid, std::string_view text) {
    return detail::scanMemory(
        pid,
        detail::WindowSearch(reinterpret_cast<const unsigned char*>(text.data()), text.size(), 0));
}

// Runs `body` 64 KiB further down the stack than the caller, below anything
// a search started by the caller overwrites: a copy that `body` leaves on
// the stack is still there to be found.
template <class Body>
[[gnu::noinline]] void deepInTheStack(Body&& body) {
    volatile char room[64 * 1024];
    room[0] = 0;
    room[sizeof room - 1] = 0;
    body();
    room[0] = 1;
}

}  // namespace testing_support
