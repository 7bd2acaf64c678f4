// One tick of the deferred restore: the kill-process countdown runs the
// restore, then the reboot countdown (already counting a value the restore
// just set, so 1 reboots in the very tick that restored).
#include "BraskSvf/svfApi.h"
#include "command/kvmStopChild.h"
#include "common/diag.h"
#include "common/shellCommand.h"

static constexpr const char kUnit[] = "svfIntervalAutoBackup";

void svfRestoreTimer(void) {
    brask::restore::reapKvmServersStop();

    if (gKillProcessAfterFileChkTimer != 0) {
        SVF_DEBUG("gKillProcessAfterFileChkTimer = %d\n", gKillProcessAfterFileChkTimer);
        --gKillProcessAfterFileChkTimer;
        if (gKillProcessAfterFileChkTimer == 0) svfRestoreConfigFile();
    }
    if (gRebootAfterRestoreTimer != 0) {
        SVF_DEBUG("gRebootAfterRestoreTimer = %d\n", gRebootAfterRestoreTimer);
        --gRebootAfterRestoreTimer;
        if (gRebootAfterRestoreTimer == 0) {
            SVF_DEBUG("Reboot After Restore");
            (void)brask::runShell("reboot");
        }
    }
}
