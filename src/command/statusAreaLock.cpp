#include "command/statusAreaLock.h"

#include <cerrno>

#include "BraskSvf/svfPlatform.h"
#include "common/paths.h"

namespace brask {

StatusAreaLock::StatusAreaLock() : StatusAreaLock(&ownHandle_, &ownMng_) {}

StatusAreaLock::StatusAreaLock(Mutex_T** handle, hslSemiVolatileMng_T* mng) : handle_(handle), mng_(mng) {
    if (hslCreateMutex(handle_, paths::kSemiVolMutex) != 0) {
        errno_ = errno;
        failed_ = Step::CreateMutex;
        return;
    }
    created_ = true;

    if (hslAcquireMutex(*handle_, -1) != 0) {
        errno_ = errno;
        failed_ = Step::AcquireMutex;
        return;
    }
    acquired_ = true;

    area_ = hslGetSemiVolatileArea(mng_);
    if (area_ == nullptr) {
        errno_ = errno;
        failed_ = Step::MapArea;
        return;
    }
    mapped_ = true;
}

void StatusAreaLock::reportFailure(const char* unit, int line, ErrorWriter write) const {
    switch (failed_) {
        case Step::CreateMutex:
        case Step::AcquireMutex:
            write(unit, line, "failed to get mutex(%d)\n", errno_);
            break;
        case Step::MapArea:
            write(unit, line, "failed to get SemiVolatile(%d)\n", errno_);
            break;
        case Step::None:
            break;
    }
}

void StatusAreaLock::unlock() {
    // Results of the give-back calls are of no use: there is nothing left to undo.
    if (mapped_) {
        mapped_ = false;
        (void)hslFreeSemiVolatileArea(mng_);
    }
    area_ = nullptr;
    if (acquired_) {
        acquired_ = false;
        (void)hslReleaseMutex(*handle_);
    }
    if (created_) {
        created_ = false;
        (void)hslDestroyMutex(*handle_);
    }
}

}  // namespace brask
