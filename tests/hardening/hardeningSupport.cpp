#include "hardeningSupport.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "common/paths.h"
#include "support/suite.h"

namespace brask::test {
namespace {

long webRequest(int (*handler)(INT8U*, INT8U, INT8U*, int)) {
    INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
    INT8U res[8] = {0xEE};
    (void)handler(req, sizeof req, res, 0);
    // Reaps the KVM stop child of the Execute Restore Event handler.
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    return res[0];
}

}  // namespace

long getEvent() {
    INT8U res[8] = {0xEE};
    (void)svfGetBackupRestoreEvent(nullptr, 0, res);
    return res[0];
}
long setBackup() { return webRequest(svfOEMSetBackupEvent); }
long exeRestore() { return webRequest(svfOEMExeRestoreEvent); }
long restoreConfigFile() { return svfRestoreConfigFile(), gRebootAfterRestoreTimer; }

void prepareBackupSource() { populateConf({.optionalFiles = true, .backupCopies = true}); }

void prepareRestoreSource() {
    static std::vector<std::uint8_t> bytes;
    if (bytes.empty()) {
        populateConf();
        ASSERT_EQ(observe(setBackup).result, 0x00) << "the backup the restore cases start from failed";
        bytes = readBytes(paths::kBmcWebBackupFile);
        resetState();
    }
    populateConf();
    writeBytes(paths::kBmcWebBackupFile, bytes);
}

void preparePendingRestore() {
    static Tree start;
    static svfRestoreType_T pending{};
    static hslSemiVolatileArea_T area{};
    if (start.empty()) {
        prepareRestoreSource();
        writeFile("/conf/resolv.conf", "nameserver 198.51.100.7\n", 0600);
        (void)::chmod("/conf/hosts", 0600);
        (void)std::remove("/conf/passwd");
        writeFile("/conf/brask/bum_home/bmcuser11/sshpubkey4", "ssh-ed25519 AAAA added-after-backup\n");
        ASSERT_EQ(observe(exeRestore).result, 0x00)
            << "the restore the deferred cases start from was refused";
        pending = gRestoreType;
        start = snapshotTree();
        ASSERT_EQ(hostSemiVolRead(&area), 0);
    }
    ASSERT_TRUE(restoreTree(start, changedPaths(start, snapshotTree())));
    ASSERT_EQ(hostSemiVolWrite(&area), 0);
    gRestoreType = pending;
    gKillProcessAfterFileChkTimer = 0;
    gRebootAfterRestoreTimer = 0;
    (void)hostSelClear();
}

void expectNothingHeld(const Observed& o) {
    EXPECT_EQ(o.leakedDescriptors, 0);
    EXPECT_EQ(o.leakedMappings, 0);
    // Another process must get each lock within a short wait: one left held
    // here would keep it waiting for ever.
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        hostResetFaults();  // the parent's plans are not the probe's
        int bits = 0;
        Mutex_T* handle = nullptr;
        if (hslCreateMutex(&handle, paths::kSemiVolMutex) == 0) {
            if (hslAcquireMutex(handle, 300) == 0) bits |= 1, (void)hslReleaseMutex(handle);
            (void)hslDestroyMutex(handle);
        }
        int semId = -1;
        if (hslAcquireSysvSemaphore(&semId, paths::kFileSemaphore, 300) == 0)
            bits |= 2, (void)hslReleaseSysvSemaphore(semId);
        ::_exit(bits);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) & 1)) << "the status-area mutex is left held";
    EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) & 2)) << "the file semaphore is left held";
}

}  // namespace brask::test
