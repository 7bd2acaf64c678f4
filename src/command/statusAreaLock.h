// The status-area lock: the named mutex "/var/GenSemiVolMutex" held and the
// shared semi-volatile area mapped.  Every user takes it in the same order
// (create handle, acquire without time limit, map) and gives it back in the
// reverse order (unmap, release, destroy); this object does both, so a
// failed step leaves exactly the earlier steps to undo.
//
// A failure is reported with reportFailure, in the caller's unit and tag;
// the caller picks its own result or completion code from failedStep().
// Report before the object goes out of scope, so the message precedes the
// undo as the firmware expects.
//
//     brask::StatusAreaLock lock;
//     if (!lock.held()) {
//         lock.reportFailure(kUnit, __LINE__, brask::diag::error);
//         return ...;                       // destructor undoes what was taken
//     }
//     lock.area()->svf.svfStatusList[i] = ...;
#pragma once

#include "BraskSvf/svfTypes.h"

namespace brask {

class StatusAreaLock {
public:
    enum class Step : unsigned char {
        None,          // nothing failed: the lock is held
        CreateMutex,   // hslCreateMutex failed; nothing is held
        AcquireMutex,  // hslAcquireMutex failed; the handle is destroyed on undo
        MapArea,       // hslGetSemiVolatileArea gave null; release and destroy on undo
    };

    // Takes the lock with a handle and management record of its own.
    StatusAreaLock();
    // Takes the lock storing the handle and the record where the caller says
    // (the platform is handed these very addresses).  Both must outlive the object.
    StatusAreaLock(Mutex_T** handle, hslSemiVolatileMng_T* mng);
    ~StatusAreaLock() { unlock(); }

    StatusAreaLock(const StatusAreaLock&) = delete;
    StatusAreaLock& operator=(const StatusAreaLock&) = delete;
    StatusAreaLock(StatusAreaLock&&) = delete;
    StatusAreaLock& operator=(StatusAreaLock&&) = delete;

    bool held() const { return failed_ == Step::None && area_ != nullptr; }
    Step failedStep() const { return failed_; }
    // errno right after the failed step (0 when nothing failed).
    int error() const { return errno_; }

    // Writes an error line of the caller's: diag::error, or diag::error4
    // for the unit that carries the four-blank tag.
    using ErrorWriter = void (*)(const char* unit, int line, const char* fmt, ...);
    // "failed to get mutex(%d)\n" when the mutex was not had,
    // "failed to get SemiVolatile(%d)\n" when the area was not mapped, with
    // error(); nothing when the lock is held.
    void reportFailure(const char* unit, int line, ErrorWriter write) const;

    // The mapped area; null unless held().
    hslSemiVolatileArea_T* area() const { return area_; }

    // Gives back what was achieved: unmap, release, destroy.  Safe to repeat.
    void unlock();
    // Hands everything achieved over to the caller, who gives it back itself;
    // the object then undoes nothing.
    void dismiss() { mapped_ = acquired_ = created_ = false; }

private:
    Mutex_T* ownHandle_ = nullptr;
    hslSemiVolatileMng_T ownMng_{};
    Mutex_T** handle_;
    hslSemiVolatileMng_T* mng_;
    hslSemiVolatileArea_T* area_ = nullptr;
    bool created_ = false;
    bool acquired_ = false;
    bool mapped_ = false;
    Step failed_ = Step::None;
    int errno_ = 0;
};

}  // namespace brask
