// Small file helpers of the host platform's state files.  Each returns 0, or
// -1 with errno set; descriptors never outlive the call.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace hostplat {

// Holds a descriptor and closes it, keeping errno as it was.
class Fd {
public:
    explicit Fd(int fd) noexcept : fd_(fd) {}
    ~Fd();
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const noexcept { return fd_; }
    bool ok() const noexcept { return fd_ >= 0; }
    int release() noexcept {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

// Creates `path` with `size` bytes of `fill` when it does not exist; an
// existing path is left as it is.
int ensureFile(const char* path, size_t size, unsigned char fill) noexcept;
// Replaces the file's contents with `size` bytes.
int replaceFile(const char* path, const void* data, size_t size) noexcept;
// Whole-buffer positional transfers; a short transfer is an error (EIO).
int readAt(int fd, void* buf, size_t size, off_t offset) noexcept;
int writeAt(int fd, const void* buf, size_t size, off_t offset) noexcept;
// Size of the file, or -1.
off_t fileSize(const char* path) noexcept;

}  // namespace hostplat
