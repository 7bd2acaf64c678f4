// Change detection: before a backup, bring every catalogued file's backup
// copy in line with its active file, and say whether any copy had to change.
// The file semaphore is taken once per catalogue row, never across rows, so
// other users of the configuration files are held up for one file at most.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "common/diag.h"
#include "common/paths.h"
#include "common/scoped.h"
#include "common/shellCommand.h"

namespace {

static constexpr const char kUnit[] = "svfBraskArchiver";
// The FRU lines carry the name of the exported operation they belong to.
static constexpr const char kFunc[] = "svfChkBackupFileDiff";

using brask::ScopedFile;
using brask::ScopedMapping;

enum class RowOutcome { Unchanged, Changed, Error };

// A copy failure in the whole-file branches fails the row.
RowOutcome copyOver(const BackupFileList_T& row, char* BackupFilePass) {
    const int rc = svfExeCopyCmd(const_cast<char*>(row.FilePass), BackupFilePass);
    if (rc != 0) {
        SVF_ERR("svfExeCopyCmd fail.(%d)\n", rc);
        SVF_DEBUG("goto ERROR");
        return RowOutcome::Error;
    }
    return RowOutcome::Changed;
}

RowOutcome removeBackupCopy(const char* BackupFilePass) {
    if (!brask::formatInto(gTmpStr, "rm %s\n", BackupFilePass)) {
        SVF_ERR("Command make fail.(%d)\n", errno);
        SVF_DEBUG("goto ERROR");
        return RowOutcome::Error;
    }
    if (!brask::runShell(gTmpStr)) {
        SVF_ERR("system cmd fail(%d)\n", errno);
        SVF_DEBUG("goto ERROR");
        return RowOutcome::Error;
    }
    SVF_DEBUG("Set DiffFlag = 1");
    return RowOutcome::Changed;
}

// Files whose backup copy is judged by a comparer of their own.  Both handles
// are closed before the copy is refreshed.
RowOutcome compareSpecial(const BackupFileList_T& row, unsigned i, ScopedFile ActFp, ScopedFile BakFp,
                          char* BackupFilePass) {
    int RetVal = 0;
    if (std::strcmp(row.FilePass, brask::paths::kBiosConfigFile) == 0) {
        SVF_DEBUG("i = %d\n", static_cast<int>(i));
        SVF_DEBUG("CALL svfChkBIOSConfFileDiff");
        RetVal = svfChkBIOSConfFileDiff(ActFp.get(), BakFp.get());
        SVF_DEBUG("RetVal = %d\n", RetVal);
    } else if (std::strcmp(row.FilePass, brask::paths::kBmcUserInfoFile) == 0) {
        (void)ActFp.close();  // the comparer reads the active file by its path
        SVF_DEBUG("i = %d\n", static_cast<int>(i));
        SVF_DEBUG("CALL svfChkBmcUserInfoDiff");
        RetVal = svfChkBmcUserInfoDiff(BakFp.get());
        SVF_DEBUG("RetVal = %d\n", RetVal);
    } else {
        // The FRU is read afresh into the active file on every call, so this
        // row counts as changed whenever the read succeeds.
        brask::diag::message(6, kUnit, __LINE__, kFunc, "svfChkBackupFileDiff() : i = %d\n",
                             static_cast<int>(i));
        RetVal = svfBackupFRU();
        brask::diag::message(7, kUnit, __LINE__, kFunc, "RetVal = %d\n", RetVal);
    }
    (void)ActFp.close();
    (void)BakFp.close();

    if (RetVal < 0) return RowOutcome::Error;
    if (RetVal == 0) return RowOutcome::Unchanged;
    // The copy reports its own failure; the file has changed either way.
    (void)svfExeCopyCmd(const_cast<char*>(row.FilePass), BackupFilePass);
    return RowOutcome::Changed;
}

bool isSpecial(const char* FilePass) {
    return std::strcmp(FilePass, brask::paths::kBiosConfigFile) == 0 ||
           std::strcmp(FilePass, brask::paths::kBmcUserInfoFile) == 0 ||
           std::strcmp(FilePass, brask::paths::kFruBackupFile) == 0;
}

RowOutcome compareWhole(const BackupFileList_T& row, ScopedFile ActFp, ScopedFile BakFp,
                        char* BackupFilePass) {
    const INT32S ActSize = svfGetFileSize(ActFp.get());
    const INT32S BakSize = svfGetFileSize(BakFp.get());
    if (ActSize < 0 || BakSize < 0) return RowOutcome::Error;
    if (ActSize != BakSize) {
        SVF_DEBUG("Size Diff");
        (void)ActFp.close();
        (void)BakFp.close();
        const RowOutcome copied = copyOver(row, BackupFilePass);
        if (copied == RowOutcome::Changed) SVF_DEBUG("Set DiffFlag = 1");
        return copied;
    }
    if (ActSize == 0) {
        SVF_DEBUG("FileSize == 0");
        return RowOutcome::Unchanged;
    }

    bool differ = false;
    {
        const auto size = static_cast<size_t>(ActSize);
        ScopedMapping act(fileno(ActFp.get()), size);
        if (!act.ok()) {
            SVF_DEBUG("goto ERROR");
            return RowOutcome::Error;
        }
        ScopedMapping bak(fileno(BakFp.get()), size);
        if (!bak.ok()) {
            SVF_DEBUG("goto ERROR");
            return RowOutcome::Error;
        }
        differ = std::memcmp(act.data(), bak.data(), size) != 0;
    }
    (void)ActFp.close();
    (void)BakFp.close();
    if (!differ) return RowOutcome::Unchanged;
    const RowOutcome copied = copyOver(row, BackupFilePass);
    if (copied == RowOutcome::Changed) SVF_DEBUG("Set DiffFlag = 1");
    return copied;
}

// One catalogue row under the file semaphore; every handle is closed when it
// returns.
RowOutcome handleRow(const BackupFileList_T& row, unsigned i, ScopedFile BakFp, char* BackupFilePass) {
    errno = 0;
    ScopedFile ActFp(row.FilePass, "rb");
    if (!ActFp && errno != ENOENT) {
        SVF_DEBUG("%s open fail\n", row.FilePass);
        return RowOutcome::Error;
    }

    if (!ActFp) {
        if (row.ExistencType == STATIC) {
            SVF_DEBUG("ActFp == NULL, STATIC");
            SVF_DEBUG("goto ERROR");
            return RowOutcome::Error;
        }
        if (!BakFp) return RowOutcome::Unchanged;
        SVF_DEBUG("ActFp == NULL, DYNAMIC, BakFp != NULL");
        (void)BakFp.close();
        return removeBackupCopy(BackupFilePass);
    }
    if (!BakFp) {
        (void)ActFp.close();
        return copyOver(row, BackupFilePass);
    }
    if (isSpecial(row.FilePass)) {
        return compareSpecial(row, i, std::move(ActFp), std::move(BakFp), BackupFilePass);
    }
    if (row.TargetPart != WHOLE) {
        SVF_DEBUG("TargetPart == PART");
        return RowOutcome::Unchanged;
    }
    return compareWhole(row, std::move(ActFp), std::move(BakFp), BackupFilePass);
}

}  // namespace

int svfChkBackupFileDiff(INT8U FileType) {
    SVF_DEBUG("sizeof(BackupFileList_T) = %d\n", static_cast<int>(sizeof(BackupFileList_T)));
    SVF_DEBUG("sizeof(BmcBackupFileList[1]) = %d\n", static_cast<int>(sizeof(BmcBackupFileList[1])));
    SVF_DEBUG("sizeof(BmcBackupFileList) = %d\n", static_cast<int>(sizeof(BmcBackupFileList)));

    // Unlike the archive writer, change detection refuses any type but the two.
    if (FileType == EFI_FILE) {
        SVF_DEBUG("FileType == EFI");
    } else if (FileType == BMC_FILE) {
        SVF_DEBUG("FileType == BMC");
    } else {
        SVF_DEBUG("Unknown FileType");
        return -1;
    }
    const brask::catalogue::Selection catalogue = brask::catalogue::select(FileType);
    const auto NumOfFiles = static_cast<INT8U>(catalogue.count);
    SVF_DEBUG("NumOfFiles = %d\n", NumOfFiles);

    INT8U DiffFlag = 0;
    for (INT8U i = 0; i < NumOfFiles; ++i) {
        const BackupFileList_T& row = catalogue.rows[i];
        char BackupFilePass[SVF_FILE_PASS_SIZE] = {};
        (void)svfGetBackupFilePass(const_cast<char*>(row.FilePass), BackupFilePass);

        errno = 0;
        ScopedFile BakFp(BackupFilePass, "rb+");
        if (!BakFp && errno != ENOENT) {
            SVF_DEBUG("%s open fail\n", BackupFilePass);
            return -1;
        }
        brask::SysvSemaphoreLock SemId;
        if (SemId.acquire(brask::paths::kFileSemaphore, -1) != 0) return -1;

        const RowOutcome outcome = handleRow(row, i, std::move(BakFp), BackupFilePass);
        const INT8U ErrorFlag = outcome == RowOutcome::Error ? 1 : 0;
        if (outcome == RowOutcome::Changed) DiffFlag = 1;

        if (SemId.release() != 0) return -1;
        if (ErrorFlag != 0) return -1;
    }

    if (DiffFlag == 1) {
        SVF_DEBUG("End_FileDiff_DiffFlag == 1");
        return 1;
    }
    SVF_DEBUG("End_FileDiff_DiffFlag == 0");
    return 0;
}
