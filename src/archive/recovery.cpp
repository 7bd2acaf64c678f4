// Puts every active file of the BMC catalogue back from its backup copy.
// Plain "cp": the active file keeps its own owner, and gets fresh times.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "common/diag.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

int svfRecoverFile(void) {
    SVF_DEBUG("START_svfRecoverFile");
    for (const BackupFileList_T& row : BmcBackupFileList) {
        std::memset(gTmpStr, 0, sizeof gTmpStr);
        const int n = std::snprintf(gTmpStr, sizeof gTmpStr, "cp %s.bak %s", row.FilePass,
                                    row.FilePass);
        if (n < 0 || static_cast<std::size_t>(n) >= sizeof gTmpStr) {
            if (n >= 0) errno = ENAMETOOLONG;  // never run a cut-off command
            SVF_ERR("Command make fail.(%d)\n", errno);
            return -1;
        }
        if (std::system(gTmpStr) != 0) SVF_ERR("%s Recover fail\n", row.FilePass);
    }
    return 0;
}
