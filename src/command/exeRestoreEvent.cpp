// Execute Restore Event: a web-console restore of the BMC files is checked,
// its backup file validated and split, and the restore deferred to the tick
// (the kill-process countdown) while the KVM servers are stopped.
#include "command/exeRestoreEvent.h"

#include <cerrno>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "command/kvmStopChild.h"
#include "common/diag.h"
#include "common/eventCodes.h"
#include "common/paths.h"
#include "common/scoped.h"
#include "common/shellCommand.h"

static constexpr const char kUnit[] = "svfOEMExeRestoreEvent";

svfRestoreType_T gRestoreType = {};

namespace brask::restore {
namespace {

constexpr INT8U kKillProcessTicks = 10;
constexpr int kResLen = sizeof(OEM_ExeRestoreEventRes_T);

void addSel(const OEM_ExeRestoreEventReq_T& req, unsigned selClass) {
    const unsigned slot = slotIndex(EventKind::Restore, req.Function, req.FileType);
    (void)hslAddSEL(SVF_SEL_ARG1, SVF_SEL_ARG2, selEventCode(slot, selClass));
}

// Answers the requesters whose restores are not this library's to run;
// true for the web console.
bool webConsoleRequest(INT8U Function, INT8U* pRes) {
    switch (Function) {
        case N_P_M:
            SVF_DEBUG("Function == N_P_M");
            SVF_DEBUG_NOEOL("Non Check");
            return false;
        case SVP_CONSOL:
            SVF_DEBUG("Function == SVP_CONSOL");
            SVF_DEBUG_NOEOL("Non Check");
            return false;
        case BMC_WEB_CONSOLE:
            SVF_DEBUG("Function == BMC_WEB_CONSOLE");
            return true;
        default:
            SVF_DEBUG("PARAM_OUT_OF_RANGE");
            pRes[0] = SVF_CC_PARAM_OUT_OF_RANGE;
            return false;
    }
}

bool firmwareUpdateRunning() {
    SVF_DEBUG("extern FwUpdateStateFlag = %x\n", FwUpdateStateFlag);
    if (FwUpdateStateFlag >= 1 && FwUpdateStateFlag <= 8) {
        SVF_ERR("BMC Busy. Running FwUp.\n");
        return true;
    }
    return false;
}

// Moves the web console's backup file to where the reader looks, under the
// file semaphore; the completion code.  The semaphore is given back on
// return, before the caller adds any SEL entry.
INT8U moveWebBackupIntoPlace() {
    SysvSemaphoreLock lock;
    if (lock.acquire(paths::kFileSemaphore) != 0) {
        SVF_ERR("hslAcquireSysvSemaphore fail\n");
        return SVF_CC_LOCK_FAIL;
    }
    char cmd[SVF_TMPSTR_SIZE];
    if (!formatInto(cmd, "mv %s %s", paths::kBmcWebBackupFile, paths::kBmcBackupFile)) {
        SVF_ERR("Command make fail.(%d)\n", errno);
        return SVF_CC_NO_EVENT_OR_FAIL;
    }
    SVF_DEBUG("%s", cmd);
    if (!runShell(cmd)) {
        SVF_ERR("system cmd fail(%d)\n", errno);
        return SVF_CC_NO_EVENT_OR_FAIL;
    }
    return SVF_CC_NORMAL;
}

// Validates and splits the moved backup file, records the pending restore,
// has the KVM servers stopped and starts the kill-process countdown; the
// completion code.
INT8U deferRestore(const OEM_ExeRestoreEventReq_T& req) {
    INT8U NumOfBlock = 0;
    const int rc = svfExtractBraskBackupFile(req.FileType, req.Function, &NumOfBlock);
    SVF_DEBUG("svfExtractBraskBackupFile = %ld\n", static_cast<long>(rc));
    SVF_DEBUG("NumOfBlock = %d\n", NumOfBlock);
    if (rc != 0) return completionCodeForExtraction(rc);

    gRestoreType.FileType = req.FileType;
    gRestoreType.Function = req.Function;
    gRestoreType.NumOfBlock = NumOfBlock;

    if (startKvmServersStop() < 0) return SVF_CC_NO_EVENT_OR_FAIL;
    SVF_DEBUG("Set gKillProcessAfterFileChkTimer = 10");
    gKillProcessAfterFileChkTimer = kKillProcessTicks;
    return SVF_CC_NORMAL;
}

}  // namespace
}  // namespace brask::restore

int svfOEMExeRestoreEvent(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst) {
    (void)BMCInst;
    using namespace brask::restore;

    SVF_DEBUG("START");
    reapKvmServersStop();  // children of earlier restores that have ended
    pRes[0] = SVF_CC_NORMAL;
    if (ReqLen != sizeof(OEM_ExeRestoreEventReq_T)) {
        SVF_ERR("Request Length Error(%d)\n", ReqLen);
        pRes[0] = SVF_CC_REQ_INV_LEN;
        return kResLen;
    }
    OEM_ExeRestoreEventReq_T req;
    std::memcpy(&req, pReq, sizeof req);
    if (req.FileType == EFI_FILE) return kResLen;
    // Set Backup Event refuses the same field the same way; past this point
    // a third file type would get an event code outside the restore slots.
    if (req.FileType > BMC_FILE) {
        SVF_DEBUG("PARAM_OUT_OF_RANGE");
        pRes[0] = SVF_CC_PARAM_OUT_OF_RANGE;
        return kResLen;
    }

    if (gRebootAfterRestoreTimer != 0 || gKillProcessAfterFileChkTimer != 0) {
        SVF_ERR("gRebootAfterRestoreTimer != 0\n");
        pRes[0] = SVF_CC_NOT_IN_PRESENT_STATE;
        if (req.Function == BMC_WEB_CONSOLE) {
            addSel(req, SEL_CLASS_GENERATED);
            addSel(req, SEL_CLASS_FAIL);
        }
        return kResLen;
    }

    INT8U event[sizeof(OEM_GetBackupRestoreEventRes_T)] = {};
    (void)svfGetBackupRestoreEvent(nullptr, 0, event);
    if (event[0] != SVF_CC_NORMAL && event[0] != SVF_CC_NO_EVENT_OR_FAIL) {
        SVF_ERR("svfGetBackupRestoreEvent fail\n");
        pRes[0] = SVF_CC_NO_EVENT_OR_FAIL;
        return kResLen;
    }
    if (!webConsoleRequest(req.Function, pRes)) return kResLen;

    addSel(req, SEL_CLASS_GENERATED);
    INT8U completionCode = SVF_CC_NORMAL;
    if (event[0] == SVF_CC_NORMAL) {
        SVF_ERR("handle others\n");
        completionCode = SVF_CC_NOT_IN_PRESENT_STATE;
    } else if (firmwareUpdateRunning()) {
        // The one refusal after the request's entry that adds no failure entry.
        pRes[0] = SVF_CC_NO_EVENT_OR_FAIL;
        return kResLen;
    } else {
        completionCode = moveWebBackupIntoPlace();
        if (completionCode == SVF_CC_NORMAL) completionCode = deferRestore(req);
    }
    pRes[0] = completionCode;
    if (completionCode != SVF_CC_NORMAL) addSel(req, SEL_CLASS_FAIL);
    return kResLen;
}
