// The semi-volatile area: a file of the area's size mapped shared, so every
// process that maps it sees the others' writes at once.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "BraskSvf/svfPlatform.h"
#include "controls.h"
#include "hostFiles.h"

namespace {

constexpr size_t kAreaSize = sizeof(hslSemiVolatileArea_T);

// Opens the backing file, made (zeroed) or grown to the area's size.
int openArea() noexcept {
    if (hostplat::ensureFile(HOST_SEMIVOL_FILE, kAreaSize, 0) != 0) return -1;
    hostplat::Fd fd(::open(HOST_SEMIVOL_FILE, O_RDWR | O_CLOEXEC));
    if (!fd.ok()) return -1;
    const off_t size = ::lseek(fd.get(), 0, SEEK_END);
    if (size < 0) return -1;
    if (static_cast<size_t>(size) < kAreaSize && ::ftruncate(fd.get(), static_cast<off_t>(kAreaSize)) != 0) {
        return -1;
    }
    return fd.release();
}

}  // namespace

extern "C" {

hslSemiVolatileArea_T* hslGetSemiVolatileArea(hslSemiVolatileMng_T* pMng) {
    if (hostplat::enterCall(hostplat::Fn::GetSemiVolatileArea)) return nullptr;
    if (pMng == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    hostplat::Fd fd(openArea());
    if (!fd.ok()) return nullptr;
    void* p = ::mmap(nullptr, kAreaSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (p == MAP_FAILED) return nullptr;
    pMng->SemiVolatile_ptr = static_cast<hslSemiVolatileArea_T*>(p);
    pMng->fd = fd.release();
    return pMng->SemiVolatile_ptr;
}

int hslFreeSemiVolatileArea(hslSemiVolatileMng_T* pMng) {
    if (hostplat::enterCall(hostplat::Fn::FreeSemiVolatileArea)) return -1;
    if (pMng == nullptr || pMng->SemiVolatile_ptr == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int rc = ::munmap(pMng->SemiVolatile_ptr, kAreaSize);
    pMng->SemiVolatile_ptr = nullptr;
    if (pMng->fd >= 0 && ::close(pMng->fd) != 0) rc = -1;
    pMng->fd = -1;
    if (hostplat::failsLate(hostplat::Fn::FreeSemiVolatileArea)) return -1;
    return rc == 0 ? 0 : -1;
}

int hostSemiVolRead(hslSemiVolatileArea_T* out) {
    if (out == nullptr) {
        errno = EINVAL;
        return -1;
    }
    hostplat::Fd fd(openArea());
    if (!fd.ok()) return -1;
    return hostplat::readAt(fd.get(), out, kAreaSize, 0);
}

int hostSemiVolWrite(const hslSemiVolatileArea_T* in) {
    if (in == nullptr) {
        errno = EINVAL;
        return -1;
    }
    hostplat::Fd fd(openArea());
    if (!fd.ok()) return -1;
    return hostplat::writeAt(fd.get(), in, kAreaSize, 0);
}

}  // extern "C"
