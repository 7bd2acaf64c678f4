#include "hostFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace hostplat {

Fd::~Fd() {
    if (fd_ >= 0) {
        const int saved = errno;
        (void)::close(fd_);
        errno = saved;
    }
}

int readAt(int fd, void* buf, size_t size, off_t offset) noexcept {
    auto* p = static_cast<unsigned char*>(buf);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, p + done, size - done, offset + static_cast<off_t>(done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {
            errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

int writeAt(int fd, const void* buf, size_t size, off_t offset) noexcept {
    const auto* p = static_cast<const unsigned char*>(buf);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pwrite(fd, p + done, size - done, offset + static_cast<off_t>(done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {
            errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

int ensureFile(const char* path, size_t size, unsigned char fill) noexcept {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct stat st;
    if (::lstat(path, &st) == 0) return 0;
    if (errno != ENOENT) return -1;
    Fd fd(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!fd.ok()) return errno == EEXIST ? 0 : -1;  // made by someone else meanwhile
    if (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) return -1;
    if (fill != 0) {
        unsigned char chunk[4096];
        std::memset(chunk, fill, sizeof chunk);
        for (size_t at = 0; at < size; at += sizeof chunk) {
            const size_t n = size - at < sizeof chunk ? size - at : sizeof chunk;
            if (writeAt(fd.get(), chunk, n, static_cast<off_t>(at)) != 0) return -1;
        }
    }
    return 0;
}

int replaceFile(const char* path, const void* data, size_t size) noexcept {
    Fd fd(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd.ok()) return -1;
    return writeAt(fd.get(), data, size, 0);
}

off_t fileSize(const char* path) noexcept {
    struct stat st;
    if (::stat(path, &st) != 0) return -1;
    return st.st_size;
}

}  // namespace hostplat
