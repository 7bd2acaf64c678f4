// The two restore countdowns.  While either runs, a restore is finishing and
// the command handlers refuse new backups and restores.
#include "BraskSvf/svfApi.h"

INT8U gKillProcessAfterFileChkTimer = 0;
INT8U gRebootAfterRestoreTimer = 0;

void svfIniTimer(void) {
    gRebootAfterRestoreTimer = 0;
    gKillProcessAfterFileChkTimer = 0;
}
