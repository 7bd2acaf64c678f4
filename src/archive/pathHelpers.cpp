// The exported path helpers of the catalogue's naming rule: active file to
// backup copy and back.  Unit svfBraskArchiver.
#include <cerrno>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "common/diag.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

using brask::catalogue::appendBackupSuffix;

int svfGetBackupFilePass(char* ActiveFilePass, char* BackupFilePass) {
    if (!appendBackupSuffix(ActiveFilePass, BackupFilePass)) {
        SVF_ERR("path too long for .bak\n");
        return -1;
    }
    return 0;
}

int svfGetBackupFileName(char* ActiveFilePass, char* BackupFileName) {
    const char* slash = std::strrchr(ActiveFilePass, '/');
    if (slash == nullptr) {
        SVF_ERR("strrchr fail(%d)\n", errno);
        return -1;
    }
    if (!appendBackupSuffix(slash + 1, BackupFileName)) {
        SVF_ERR("path too long for .bak\n");
        return -1;
    }
    return 0;
}

int svfGetActiveFilePass(char* BackupFileName, char* ActiveFilePasss) {
    const std::size_t n = ::strnlen(BackupFileName, SVF_FILE_PASS_SIZE);
    if (n >= SVF_FILE_PASS_SIZE) {
        SVF_ERR("path too long\n");
        return -1;
    }
    std::memcpy(ActiveFilePasss, BackupFileName, n + 1);
    if (!brask::catalogue::cutAtBackupSuffix(ActiveFilePasss)) {
        SVF_ERR(".bak Unmatch\n");
        return -1;
    }
    return 0;
}
