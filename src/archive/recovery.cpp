// Puts every active file of the BMC catalogue back from its backup copy.
// Plain "cp": the active file keeps its own owner, and gets fresh times.
#include <cerrno>

#include "BraskSvf/svfApi.h"
#include "common/diag.h"
#include "common/shellCommand.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

int svfRecoverFile(void) {
    SVF_DEBUG("START_svfRecoverFile");
    for (const BackupFileList_T& row : BmcBackupFileList) {
        if (!brask::formatInto(gTmpStr, "cp %s.bak %s", row.FilePass, row.FilePass)) {
            SVF_ERR("Command make fail.(%d)\n", errno);
            return -1;
        }
        if (!brask::runShell(gTmpStr)) SVF_ERR("%s Recover fail\n", row.FilePass);
    }
    return 0;
}
