#include "os/File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>

namespace os {

FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = other.release();
    }
    return *this;
}

int FileDescriptor::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

FileDescriptor openForReading(const std::string& path, FinalLink link) {
    int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
    if (link == FinalLink::refuse) flags |= O_NOFOLLOW;
    return FileDescriptor(::open(path.c_str(), flags));
}

int readBounded(int fd, std::size_t limit, std::string& bytes) {
    bytes.clear();
    struct stat info {};
    if (::fstat(fd, &info) != 0) return errno;
    if (S_ISDIR(info.st_mode)) return EISDIR;
    if (S_ISREG(info.st_mode) && info.st_size > 0) {
        if (static_cast<std::uintmax_t>(info.st_size) > limit) return EFBIG;
        bytes.reserve(static_cast<std::size_t>(info.st_size));
    }
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno;
        if (got == 0) return 0;
        if (static_cast<std::size_t>(got) > limit - bytes.size()) return EFBIG;
        bytes.append(buffer, static_cast<std::size_t>(got));
    }
}

namespace {

struct PathParts {
    std::string folder;
    std::string name;
};

PathParts splitPath(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {".", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

// Six letters that differ between calls and between processes; O_EXCL, not
// the letters, is what keeps two writers apart.
std::string randomSuffix() {
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    static std::atomic<std::uint64_t> counter{0};
    std::uint64_t bits =
        static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
        (static_cast<std::uint64_t>(::getpid()) << 40) ^ (++counter * 0x9E3779B97F4A7C15ull);
    bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9ull;
    bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EBull;
    bits ^= bits >> 31;
    std::string suffix;
    for (int i = 0; i < 6; ++i, bits /= 62) suffix += kLetters[bits % 62];
    return suffix;
}

// A new hidden file in `folder` named after the target; `temporary` gets
// its name.
FileDescriptor createTemporary(int folder, const std::string& name, mode_t bits,
                               std::string& temporary) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        temporary = "." + name + "." + randomSuffix() + ".tmp";
        const int fd = ::openat(folder, temporary.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, bits);
        if (fd >= 0 || errno != EEXIST) return FileDescriptor(fd);
    }
    return FileDescriptor();
}

int writeAll(int fd, std::string_view bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t put = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return errno;
        written += static_cast<std::size_t>(put);
    }
    return 0;
}

}  // namespace

WriteFailure writeFileAtomically(const std::string& path, std::string_view bytes,
                                 NewFileMode mode) {
    const PathParts parts = splitPath(path);
    const FileDescriptor folder(::open(parts.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.valid()) return {WriteFailure::openFolder, errno};

    std::string temporary;
    FileDescriptor file = createTemporary(folder.get(), parts.name, mode.bits, temporary);
    if (!file.valid()) return {WriteFailure::createTemporary, errno};

    int number = 0;
    if (mode.exact && ::fchmod(file.get(), mode.bits) != 0) number = errno;
    if (number == 0) number = writeAll(file.get(), bytes);
    if (number == 0 && ::fsync(file.get()) != 0) number = errno;
    if (::close(file.release()) != 0 && number == 0) number = errno;
    if (number == 0 &&
        ::renameat(folder.get(), temporary.c_str(), folder.get(), parts.name.c_str()) != 0) {
        number = errno;
    }
    if (number != 0) {
        ::unlinkat(folder.get(), temporary.c_str(), 0);
        return {WriteFailure::write, number};
    }
    // The rename is on disk only once the folder is.
    ::fsync(folder.get());
    return {};
}

}  // namespace os
