// The deferred restore, run by the tick when the kill-process countdown ends:
// stop the services whose files change, unpack the blocks with the restore
// flag raised, apply time settings and schedule, report, and start the
// reboot countdown (also after a failure, so the BMC comes back consistent).
#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "command/statusAreaLock.h"
#include "common/diag.h"
#include "common/eventCodes.h"
#include "common/shellCommand.h"

static constexpr const char kUnit[] = "svfIntervalAutoBackup";

namespace {

constexpr const char* kStopCommands[] = {
    "/etc/init.d/webgo stop",
    "/etc/init.d/inetd stop",
    "/etc/init.d/ssh stop",
};
constexpr INT8U kRestoreFlags = 0;  // Mode of svfSetChkBkupRestProcessingFlag
constexpr INT8U kWebConsoleRebootTicks = 1;
constexpr INT8U kSvpConsoleRebootTicks = 30;

// The entry carries the file type as recorded, BMC or not.
void addSel(unsigned selClass, INT8U function, INT8U fileType) {
    const unsigned slot = brask::slotIndex(brask::EventKind::Restore, function, fileType);
    (void)hslAddSEL(SVF_SEL_ARG1, SVF_SEL_ARG2, brask::selEventCode(slot, selClass));
}

// Only a BMC-file restore reboots: at once for the web console, after 30
// ticks for the SVP console, never for N+M.
void startRebootCountdown(INT8U fileType, INT8U function) {
    if (fileType != BMC_FILE) return;
    INT8U ticks = 0;
    if (function == BMC_WEB_CONSOLE) ticks = kWebConsoleRebootTicks;
    if (function == SVP_CONSOL) ticks = kSvpConsoleRebootTicks;
    if (ticks == 0) return;
    SVF_DEBUG("Set gRebootAfterRestoreCounte");
    gRebootAfterRestoreTimer = ticks;
}

bool setRestoreFlag(INT8U value, INT8U fileType) {
    const long RetVal = svfSetChkBkupRestProcessingFlag(value, fileType, kRestoreFlags);
    SVF_DEBUG("svfSetChkBkupRestProcessingFlag = %ld\n", RetVal);
    if (RetVal < 0) {
        SVF_ERR("svfSetChkBkupRestProcessingFlag fail\n");
        return false;
    }
    return true;
}

// Moves the requester's restore slot to completion; false when the lock
// could not be taken (reported here).
bool reportCompletion(INT8U function, INT8U fileType) {
    brask::StatusAreaLock lock;
    if (!lock.held()) {
        lock.reportFailure(kUnit, __LINE__, brask::diag::error);
        return false;
    }
    // A file type other than BMC counts as EFI here.
    const unsigned index =
        brask::slotIndex(brask::EventKind::Restore, function, fileType == BMC_FILE ? BMC_FILE : EFI_FILE);
    // Any index inside the twelve status bytes is updated as computed; only
    // a requester beyond them has no byte to update.
    if (index >= SVF_EVENT_SLOT_COUNT ||
        svfSetSvfEvent(&lock.area()->svf.svfStatusList[index], BMC_COMPLETE_SUCCESS) == SVF_EVENT_REJECTED) {
        SVF_DEBUG("Status Modify Fail");
    }
    return true;
}

// Each step that can fail; the failure path is shared.
bool restore(INT8U fileType, INT8U function, INT8U numOfBlock) {
    if (!setRestoreFlag(1, fileType)) return false;

    const long RetVal = svfExtractBraskArchiveblock(fileType, numOfBlock);
    SVF_DEBUG("svfExtractBraskArchiveblock = %ld\n", RetVal);
    if (RetVal < 0) {
        SVF_ERR("svfExtractBraskArchiveblock fail\n");
        return false;  // the restore flag stays raised
    }
    if (!setRestoreFlag(0, fileType)) return false;

    (void)svfApplyTimeInfo();
    (void)Svp_update_next_schedule(m_prev_sch_ut_time);

    // The web console follows its restore through the SEL, not the status table.
    if (function != BMC_WEB_CONSOLE && !reportCompletion(function, fileType)) return false;
    return true;
}

}  // namespace

void svfRestoreConfigFile(void) {
    const INT8U FT = gRestoreType.FileType;
    const INT8U F = gRestoreType.Function;
    const INT8U N = gRestoreType.NumOfBlock;

    if (F != N_P_M && FT == BMC_FILE) {
        SVF_DEBUG("kill process");
        for (const char* cmd : kStopCommands) {
            (void)brask::runShell(cmd);
        }
    }
    if (!restore(FT, F, N)) {
        SVF_DEBUG("svfRestoreConfigFile Fail");
        if (F == BMC_WEB_CONSOLE) {
            addSel(SEL_CLASS_FAIL, F, FT);
        }
        startRebootCountdown(FT, F);
        return;
    }
    addSel(SEL_CLASS_SUCCESS, F, FT);
    startRebootCountdown(FT, F);
}
