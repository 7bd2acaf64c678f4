// Set Backup Event: the web console's request for a backup of the BMC files.
// Change detection refreshes the backup copies, the backup file is written,
// then moved under the file semaphore to the web console's backup file.
#include <cerrno>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "archive/fileReplace.h"
#include "common/diag.h"
#include "common/eventCodes.h"
#include "common/paths.h"
#include "common/scoped.h"
#include "common/shellCommand.h"

namespace {

static constexpr const char kUnit[] = "svfOEMSetBackupEvent";

constexpr INT8U kMaxFunction = 5;

// The request's entry, then the outcome's, both on the request's backup slot.
void addSelPair(const OEM_SetBackupEventReq_T& req, unsigned outcomeClass) {
    const unsigned slot = brask::slotIndex(brask::EventKind::Backup, req.Function, req.FileType);
    (void)hslAddSEL(SVF_SEL_ARG1, SVF_SEL_ARG2, brask::selEventCode(slot, SEL_CLASS_GENERATED));
    (void)hslAddSEL(SVF_SEL_ARG1, SVF_SEL_ARG2, brask::selEventCode(slot, outcomeClass));
}

// Steps from change detection to the rename; the completion code on failure.
INT8U makeWebConsoleBackup() {
    const int diff = svfChkBackupFileDiff(BMC_FILE);
    SVF_DEBUG("svfChkBackupFileDiff(BMC_FILE) = %d\n", diff);
    if (diff < 0) {
        SVF_ERR4("svfChkBackupFileDiff fail\n");
        return SVF_CC_NO_EVENT_OR_FAIL;
    }

    const int created = svfCreateBraskBackupFile(BMC_FILE);
    SVF_DEBUG("svfCreateBraskBackupFile(BMC_FILE) = %d\n", created);
    if (created != 0) {
        SVF_ERR4("svfCreateBraskBackupFile fail\n");
        return SVF_CC_NO_EVENT_OR_FAIL;
    }

    brask::SysvSemaphoreLock semaphore;
    if (semaphore.acquire(brask::paths::kFileSemaphore, -1) != 0) {
        SVF_ERR4("hslAcquireSysvSemaphore fail\n");
        return SVF_CC_LOCK_FAIL;
    }
    char command[SVF_TMPSTR_SIZE];
    if (!brask::formatInto(command, "mv %s %s", brask::paths::kBmcBackupFile,
                           brask::paths::kBmcWebBackupFile)) {
        SVF_ERR4("Command make fail.(%d)\n", errno);
        return SVF_CC_NO_EVENT_OR_FAIL;
    }
    const bool moved = brask::runShell(command);
    SVF_DEBUG("%s", command);
    if (!moved) {
        SVF_DEBUG("mv fail");
        return SVF_CC_NO_EVENT_OR_FAIL;  // the semaphore is given back on the way out
    }
    // The rename reaches the disk too.  The backup is in place whatever this
    // says, so a failure changes nothing of the answer.
    (void)brask::replace::syncDirectory(brask::paths::kBackupDir);
    return SVF_CC_NORMAL;
}

}  // namespace

int svfOEMSetBackupEvent(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst) {
    (void)BMCInst;
    auto* res = reinterpret_cast<OEM_SetBackupEventRes_T*>(pRes);
    res->CompletionCode = SVF_CC_NORMAL;
    constexpr int kResLen = sizeof(OEM_SetBackupEventRes_T);

    SVF_DEBUG("START");
    if (ReqLen != sizeof(OEM_SetBackupEventReq_T)) {
        SVF_ERR4("REQ_INV_LEN\n");
        res->CompletionCode = SVF_CC_REQ_INV_LEN;
        return kResLen;
    }
    OEM_SetBackupEventReq_T req;
    std::memcpy(&req, pReq, sizeof req);
    if (req.FileType > BMC_FILE || req.Function > kMaxFunction) {
        SVF_ERR4("PARAM_OUT_OF_RANGE\n");
        res->CompletionCode = SVF_CC_PARAM_OUT_OF_RANGE;
        return kResLen;
    }
    // Only the web console's BMC backups are this library's to make.
    if (req.FileType == EFI_FILE || req.Function != BMC_WEB_CONSOLE) return kResLen;

    if (gRebootAfterRestoreTimer != 0 || gKillProcessAfterFileChkTimer != 0) {
        SVF_ERR4("gRebootAfterRestoreTimer != 0\n");
        res->CompletionCode = SVF_CC_NOT_IN_PRESENT_STATE;
        return kResLen;
    }

    res->CompletionCode = SVF_CC_NORMAL;
    SVF_DEBUG("pSetBackupEventReq->FileType = %x\n", req.FileType);
    SVF_DEBUG("pSetBackupEventReq->Function = %x\n", req.Function);

    INT8U event[sizeof(OEM_GetBackupRestoreEventRes_T)] = {};
    (void)svfGetBackupRestoreEvent(nullptr, 0, event);
    if (event[0] != SVF_CC_NORMAL && event[0] != SVF_CC_NO_EVENT_OR_FAIL) {
        SVF_ERR4("efiGetBackupRestoreEvent fail\n");
        res->CompletionCode = SVF_CC_NO_EVENT_OR_FAIL;
        return kResLen;
    }
    SVF_DEBUG("BMC BACKUP");
    if (event[0] == SVF_CC_NORMAL) {
        SVF_ERR4("Other BACKUP_RESTORE_EVENT Running\n");
        res->CompletionCode = SVF_CC_NOT_IN_PRESENT_STATE;
        addSelPair(req, SEL_CLASS_OTHER_RUNNING);
        return kResLen;
    }

    res->CompletionCode = makeWebConsoleBackup();
    addSelPair(req, res->CompletionCode == SVF_CC_NORMAL ? SEL_CLASS_SUCCESS : SEL_CLASS_FAIL);
    return kResLen;
}
