// The library's members of the shared semi-volatile area: taking its lock
// for other components, and the processing flags that tell the rest of the
// firmware a backup or restore is running.
#include <cerrno>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "command/statusAreaLock.h"
#include "common/diag.h"

static constexpr const char kUnit[] = "svfOEMSetBackupEvent";

// Kept for other modules of the firmware process; nothing in the library uses them.
HSharedMem_T hBMCSharedMem = nullptr;
Mutex_T* hSharedMemMutex = nullptr;

namespace {

struct ProcessingFlag {
    INT8U svfAutoBack_T::*member;
    const char* label;  // the debug line reads "<label>, Set = <value>"
};

// Mode 1 picks the backup flags, anything else the restore flags; FileType 1
// picks the BMC flag, anything else the EFI flag.
ProcessingFlag chooseFlag(INT8U FileType, INT8U Mode) {
    const bool bmc = FileType == BMC_FILE;
    if (Mode == 1) {
        return bmc ? ProcessingFlag{&svfAutoBack_T::BmcBackFlag, "BACKUP , BMC_FILE"}
                   : ProcessingFlag{&svfAutoBack_T::EfiBackFlag, "BACKUP , EFI_FILE"};
    }
    return bmc ? ProcessingFlag{&svfAutoBack_T::BmcRestoreFlag, "REST , BMC_FILE"}
               : ProcessingFlag{&svfAutoBack_T::EfiRestoreFlag, "REST , EFI_FILE"};
}

}  // namespace

int svfGetMutexAndSemiVolatileArea(Mutex_T** l_hMutex, hslSemiVolatileMng_T* l_mng,
                                   hslSemiVolatileArea_T** pSemiVolArea) {
    if (l_hMutex == nullptr || l_mng == nullptr || pSemiVolArea == nullptr) return -1;

    brask::StatusAreaLock lock(l_hMutex, l_mng);
    if (lock.failedStep() == brask::StatusAreaLock::Step::None ||
        lock.failedStep() == brask::StatusAreaLock::Step::MapArea) {
        *pSemiVolArea = lock.area();
    }
    if (!lock.held()) {
        lock.reportFailure(kUnit, __LINE__, brask::diag::error4);
        return -1;  // the lock object undoes the steps that succeeded
    }
    lock.dismiss();  // the caller gives it back: unmap, release, destroy
    return 0;
}

int svfSetChkBkupRestProcessingFlag(INT8U SetFlag, INT8U FileType, INT8U Mode) {
    SVF_DEBUG("svfSetChkBkupRestProcessingFlag");

    brask::StatusAreaLock lock;
    if (!lock.held()) {
        lock.reportFailure(kUnit, __LINE__, brask::diag::error4);
        lock.unlock();
        SVF_ERR4("svfGetMutexAndSemiVolatileArea Fail\n");
        return -1;
    }

    // One byte store under the lock; any byte value is stored as given.
    const ProcessingFlag choice = chooseFlag(FileType, Mode);
    INT8U& flag = lock.area()->svfAutoBack.*choice.member;
    const int RetVal = flag;
    flag = SetFlag;
    SVF_DEBUG("%s, Set = %d\n", choice.label, SetFlag);

    lock.unlock();
    SVF_DEBUG("RetVal = %d\n", RetVal);
    return RetVal;
}
