// RAII owners for the resources the library takes: each destructor undoes
// exactly what was achieved, so every return path releases what it opened.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <utility>

#include "BraskSvf/svfPlatform.h"

namespace brask {

// An open stdio stream; closed on destruction unless released.
class ScopedFile {
public:
    ScopedFile() = default;
    explicit ScopedFile(FILE* fp) : fp_(fp) {}
    ScopedFile(const char* path, const char* mode) : fp_(std::fopen(path, mode)) {}
    ~ScopedFile() { reset(); }
    ScopedFile(ScopedFile&& o) noexcept : fp_(std::exchange(o.fp_, nullptr)) {}
    ScopedFile& operator=(ScopedFile&& o) noexcept {
        if (this != &o) {
            reset();
            fp_ = std::exchange(o.fp_, nullptr);
        }
        return *this;
    }
    ScopedFile(const ScopedFile&) = delete;
    ScopedFile& operator=(const ScopedFile&) = delete;

    FILE* get() const { return fp_; }
    explicit operator bool() const { return fp_ != nullptr; }
    // Closes now; returns fclose's result (0 when nothing was open).
    int close() {
        if (fp_ == nullptr) return 0;
        return std::fclose(std::exchange(fp_, nullptr));
    }
    void reset(FILE* fp = nullptr) {
        if (fp_ != nullptr) (void)std::fclose(fp_);
        fp_ = fp;
    }
    FILE* release() { return std::exchange(fp_, nullptr); }

private:
    FILE* fp_ = nullptr;
};

// An open file descriptor.
class ScopedFd {
public:
    ScopedFd() = default;
    explicit ScopedFd(int fd) : fd_(fd) {}
    ~ScopedFd() { reset(); }
    ScopedFd(ScopedFd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    ScopedFd& operator=(ScopedFd&& o) noexcept {
        if (this != &o) {
            reset();
            fd_ = std::exchange(o.fd_, -1);
        }
        return *this;
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset(int fd = -1) {
        if (fd_ >= 0) (void)::close(fd_);
        fd_ = fd;
    }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

// A memory mapping of a whole file or a part of one.
class ScopedMapping {
public:
    ScopedMapping() = default;
    // Maps `length` bytes of `fd` from offset 0; check ok() afterwards.
    // A zero length maps nothing and counts as a valid, empty view.
    // The callers read their views through (a comparison may stop at the
    // first difference), so the pages are populated up front: one call
    // instead of a fault per page, which cost two thirds of a large restore
    // on a virtualised machine.
    ScopedMapping(int fd, size_t length, int prot = PROT_READ, int flags = MAP_PRIVATE | MAP_POPULATE)
        : length_(length) {
        if (length == 0) return;
        void* p = ::mmap(nullptr, length, prot, flags, fd, 0);
        if (p == MAP_FAILED) {
            failed_ = true;
            length_ = 0;
        } else {
            addr_ = p;
        }
    }
    ~ScopedMapping() { reset(); }
    ScopedMapping(ScopedMapping&& o) noexcept
        : addr_(std::exchange(o.addr_, nullptr)),
          length_(std::exchange(o.length_, 0)),
          failed_(std::exchange(o.failed_, false)) {}
    ScopedMapping& operator=(ScopedMapping&& o) noexcept {
        if (this != &o) {
            reset();
            addr_ = std::exchange(o.addr_, nullptr);
            length_ = std::exchange(o.length_, 0);
            failed_ = std::exchange(o.failed_, false);
        }
        return *this;
    }
    ScopedMapping(const ScopedMapping&) = delete;
    ScopedMapping& operator=(const ScopedMapping&) = delete;

    bool ok() const { return !failed_; }
    const unsigned char* data() const { return static_cast<const unsigned char*>(addr_); }
    unsigned char* mutableData() const { return static_cast<unsigned char*>(addr_); }
    size_t size() const { return length_; }
    void reset() {
        if (addr_ != nullptr) (void)::munmap(addr_, length_);
        addr_ = nullptr;
        length_ = 0;
        failed_ = false;
    }

private:
    void* addr_ = nullptr;
    size_t length_ = 0;
    bool failed_ = false;
};

// The platform's named System V semaphore (the file semaphore), held for
// the lifetime of the object once acquire() succeeded.
class SysvSemaphoreLock {
public:
    SysvSemaphoreLock() = default;
    ~SysvSemaphoreLock() { (void)release(); }
    SysvSemaphoreLock(const SysvSemaphoreLock&) = delete;
    SysvSemaphoreLock& operator=(const SysvSemaphoreLock&) = delete;

    // 0 when held; the platform's result otherwise.
    int acquire(const char* name, int timeout = -1) {
        int rc = hslAcquireSysvSemaphore(&semId_, name, timeout);
        held_ = (rc == 0);
        return rc;
    }
    // Gives the semaphore back now; the platform's result (0 if not held).
    int release() {
        if (!held_) return 0;
        held_ = false;
        return hslReleaseSysvSemaphore(semId_);
    }
    bool held() const { return held_; }

private:
    int semId_ = 0;
    bool held_ = false;
};

}  // namespace brask
