#pragma once

// Whole files read and written with care. A read takes everything from one
// open descriptor, up to a bound; a write goes to a new file beside the
// target and is renamed over it, so a reader sees the old file or the new
// one, whole, and a failed write leaves no temporary file behind. POSIX
// code: one implementation serves every OS.

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace os {

// Owns one file descriptor and closes it.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor();
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Gives the descriptor up without closing it.
    int release();

  private:
    int fd_ = -1;
};

// Whether opening follows a symbolic link in the last component of a path.
enum class FinalLink { follow, refuse };

// Opens an existing file read-only and close-on-exec, without blocking on a
// FIFO. With FinalLink::refuse a symbolic link fails with ELOOP. An invalid
// descriptor, errno set, on failure.
FileDescriptor openForReading(const std::string& path, FinalLink link);

// Reads what is left of `fd` into `bytes` (replacing its contents). Returns
// 0, EISDIR for a folder, EFBIG as soon as more than `limit` bytes have
// come, or the errno of the read that failed.
int readBounded(int fd, std::size_t limit, std::string& bytes);

// The permission bits of a file that an atomic write creates: `bits` as
// given when `exact`, otherwise narrowed by the process's umask like any
// new file's.
struct NewFileMode {
    mode_t bits = 0666;
    bool exact = false;
};

// The step at which an atomic write failed, and errno there.
struct WriteFailure {
    enum Step { none, openFolder, createTemporary, write };
    Step step = none;
    int number = 0;
    explicit operator bool() const { return step != none; }
};

// Writes `bytes` to a new file in the target's folder (created with
// O_EXCL and O_NOFOLLOW, so no existing file or link is ever opened),
// flushes it to disk, renames it over `path` and flushes the folder. A
// symbolic link at `path` is replaced, not followed. On failure the target
// is untouched and the temporary file removed.
WriteFailure writeFileAtomically(const std::string& path, std::string_view bytes,
                                 NewFileMode mode = {});

}  // namespace os
