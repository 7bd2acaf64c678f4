// Get Backup/Restore Event: which backup or restore event is current
// (unit svfOEMExeRestoreEvent).  The Set and Execute handlers call it too,
// with no request data, to learn whether some event is active.
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "command/eventSlots.h"
#include "command/eventTrace.h"
#include "command/statusAreaLock.h"
#include "common/diag.h"

static constexpr const char kUnit[] = "svfOEMExeRestoreEvent";

namespace {

constexpr int kNoSlot = -1;

// Pass 1: a running event (state above ST_GENERATED, taken as unsigned).
// Pass 2: an event that waits at ST_GENERATED, automatic backups last.
int chooseSlot(const INT8U (&states)[SVF_EVENT_SLOT_COUNT]) {
    using brask::slots::kEventSlots;
    for (unsigned index : brask::slots::kRunningOrder) {
        if (states[index] > ST_GENERATED) {
            SVF_DEBUG("%s", kEventSlots[index].runningText);
            return static_cast<int>(index);
        }
    }
    for (unsigned index : brask::slots::kGeneratedOrder) {
        if (states[index] == ST_GENERATED) {
            SVF_DEBUG("%s", kEventSlots[index].generatedText);
            return static_cast<int>(index);
        }
    }
    return kNoSlot;
}

}  // namespace

int svfGetBackupRestoreEvent(INT8U* pReq, INT8U ReqLen, INT8U* pRes) {
    (void)pReq;  // the command has no request data
    constexpr size_t kResponseSize = sizeof(OEM_GetBackupRestoreEventRes_T);
    static_assert(kResponseSize == brask::trace::kResponseSize);

    pRes[0] = SVF_CC_NORMAL;
    std::memset(pRes, 0, kResponseSize);

    if (ReqLen != 0) {
        SVF_ERR("Request Length Error(%d)\n", ReqLen);
        pRes[0] = SVF_CC_REQ_INV_LEN;
        return 1;
    }

    brask::StatusAreaLock lock;
    if (!lock.held()) {
        lock.reportFailure(kUnit, __LINE__, brask::diag::error);
        pRes[0] = lock.failedStep() == brask::StatusAreaLock::Step::MapArea ? SVF_CC_SEMIVOL_FAIL
                                                                            : SVF_CC_LOCK_FAIL;
        return 1;  // the lock gives back what it took as it goes out of scope
    }

    const svfSemiVol_T& svf = lock.area()->svf;
    pRes[4] = svf.RestoreAddedInfo;
    std::memcpy(&pRes[5], svf.Reserve, sizeof svf.Reserve);

    const int slot = chooseSlot(svf.svfStatusList);
    if (slot == kNoSlot) {
        SVF_DEBUG("Event All NOTHING");
        pRes[0] = SVF_CC_NO_EVENT_OR_FAIL;
    } else {
        const auto index = static_cast<unsigned>(slot);
        const auto& entry = brask::slots::kEventSlots[index];
        pRes[1] = brask::slots::eventType(svf.svfStatusList[index], index);
        pRes[2] = entry.FileType;
        pRes[3] = entry.Function;
    }

    // The record is written whatever the answer, and never changes it.
    brask::trace::appendEventRecord(svf, pRes);
    lock.unlock();
    return pRes[0] == SVF_CC_NORMAL ? static_cast<int>(kResponseSize) : 1;
}
