// Full file systems: /var/brask and /conf on small tmpfs mounts, filled up to
// a chosen amount of free space.  Backup and restore must fail with their
// codes and SEL entries, never crash, leave nothing open or locked, and a
// failed backup must leave the previous web backup as it was.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "common/paths.h"
#include "hardeningSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/tinyMount.h"

namespace brask::test {
namespace {

constexpr char kMountSize[] = "4m";

// Grows a filler file in `dir` until only about `leaveFree` bytes are left.
void fillUp(const std::string& dir, unsigned long leaveFree) {
    struct statvfs fs{};
    ASSERT_EQ(::statvfs(dir.c_str(), &fs), 0);
    const unsigned long avail = fs.f_bavail * fs.f_bsize;
    if (avail <= leaveFree) return;
    writeFile(dir + "/filler", std::string(avail - leaveFree, 'f'));
}

void expectNothingHeld(const Held& before) {
    EXPECT_EQ(heldNow(), before);
    const LockState locks = probeLocks();
    EXPECT_TRUE(locks.mutexFree);
    EXPECT_TRUE(locks.semaphoreFree);
}

class DiskFull : public ::testing::Test {
protected:
    void SetUp() override {
        hostResetFaults();
        svfIniTimer();
    }
};

// A backup needs room for its block files and then for the backup file;
// each amount of free space below that stops it at another step.
TEST_F(DiskFull, BackupIntoAFullBackupFolderKeepsThePreviousWebBackup) {
    prepareBackupSource();
    ASSERT_EQ(setBackup().code, 0x00);
    const std::vector<std::uint8_t> previous = readBytes(paths::kBmcWebBackupFile);
    const unsigned long size = previous.size();
    ASSERT_GT(size, 0u);
    // What the block files take on a tmpfs (whole pages).
    unsigned long blocks = 0;
    for (unsigned i = 0; exists(blockFile(i)); ++i) {
        blocks += (readBytes(blockFile(i)).size() + 4095) / 4096 * 4096;
    }
    ASSERT_GT(blocks, 0u);

    const struct {
        const char* label;
        unsigned long freeBytes;
        int code;
        SelCodes sel;
    } cases[] = {
        {"no room", 0, 0x80, {0x0B, 0x3B}},
        {"room for part of the blocks", blocks / 2, 0x80, {0x0B, 0x3B}},
        {"room for the blocks only", blocks, 0x80, {0x0B, 0x3B}},
        {"room for blocks and part of the file", blocks + size / 2, 0x80, {0x0B, 0x3B}},
        {"room enough", blocks + size + 65536, 0x00, {0x0B, 0x2B}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        resetState();
        prepareBackupSource();
        TinyMount mount("/var/brask", kMountSize);
        if (!mount.mounted()) GTEST_SKIP() << mount.reason();
        writeBytes(paths::kBmcWebBackupFile, previous);
        fillUp("/var/brask", c.freeBytes);

        const Held before = heldNow();
        const Outcome got = setBackup();
        EXPECT_EQ(got.code, c.code);
        EXPECT_EQ(got.sel, c.sel);
        if (c.code != 0x00) {
            EXPECT_NE(got.output.find("svfCreateBraskBackupFile fail\n"), std::string::npos) << got.output;
            EXPECT_TRUE(readBytes(paths::kBmcWebBackupFile) == previous) << "previous web backup lost";
        } else {
            EXPECT_EQ(readBytes(paths::kBmcWebBackupFile).size(), size);
        }
        expectNothingHeld(before);
    }
}

// Before packing, the backup refreshes the backup copies in /conf: with no
// room for them the change detection fails.
TEST_F(DiskFull, BackupWithAFullConfFolder) {
    TinyMount mount("/conf", kMountSize);
    if (!mount.mounted()) GTEST_SKIP() << mount.reason();
    populateConf();
    writeFile(paths::kBmcWebBackupFile, "previous web backup");
    fillUp("/conf", 0);

    const Held before = heldNow();
    const Outcome got = setBackup();
    EXPECT_EQ(got.code, 0x80);
    EXPECT_NE(got.output.find("svfChkBackupFileDiff fail\n"), std::string::npos) << got.output;
    EXPECT_EQ(got.sel, (SelCodes{0x0B, 0x3B}));
    EXPECT_EQ(readFile(paths::kBmcWebBackupFile), "previous web backup");
    expectNothingHeld(before);
}

// The query's trace ring cannot be made on a full /conf: the answer does
// not change.
TEST_F(DiskFull, QueryWithAFullConfFolderStillAnswers) {
    TinyMount mount("/conf", kMountSize);
    if (!mount.mounted()) GTEST_SKIP() << mount.reason();
    ASSERT_EQ(::mkdir("/conf/brask", 0755), 0);
    fillUp("/conf", 0);
    setSlot(5, ST_STANDBY);

    const Held before = heldNow();
    INT8U res[8] = {};
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const int len = svfGetBackupRestoreEvent(nullptr, 0, res);
    (void)::testing::internal::GetCapturedStdout();
    (void)::testing::internal::GetCapturedStderr();
    EXPECT_EQ(len, 8);
    EXPECT_EQ(res[0], 0x00);
    EXPECT_EQ(res[1], 0x12);
    expectNothingHeld(before);
}

// The restore splits the backup into block files beside it.
TEST_F(DiskFull, RestoreCannotSplitIntoAFullBackupFolder) {
    prepareRestoreSource();
    const std::vector<std::uint8_t> web = readBytes(paths::kBmcWebBackupFile);
    resetState();
    populateConf();
    TinyMount mount("/var/brask", kMountSize);
    if (!mount.mounted()) GTEST_SKIP() << mount.reason();
    writeBytes(paths::kBmcWebBackupFile, web);
    fillUp("/var/brask", web.size() / 2);

    const Held before = heldNow();
    const Outcome got = exeRestore();
    EXPECT_EQ(got.code, 0x80);
    EXPECT_EQ(got.sel, (SelCodes{0x05, 0x35}));
    EXPECT_EQ(gKillProcessAfterFileChkTimer, 0);
    expectNothingHeld(before);
}

// The deferred restore writes the live files back: on a /conf with no room
// for them the extraction fails, the failure is logged and the BMC still
// reboots.
TEST_F(DiskFull, DeferredRestoreIntoAFullConfFolder) {
    preparePendingRestore(BMC_WEB_CONSOLE);
    if (HasFatalFailure()) return;
    TinyMount mount("/conf", kMountSize);
    if (!mount.mounted()) GTEST_SKIP() << mount.reason();
    ASSERT_EQ(::mkdir("/conf/brask", 0755), 0);
    fillUp("/conf", 0);

    const Held before = heldNow();
    const Outcome got = restoreConfigFile();
    EXPECT_EQ(got.code, 1);
    EXPECT_NE(got.output.find("svfExtractBraskArchiveblock fail\n"), std::string::npos) << got.output;
    EXPECT_EQ(got.sel, (SelCodes{0x35}));
    EXPECT_EQ(got.restoreFlag, 1) << "the flag stays set after a failed unpacking";
    expectNothingHeld(before);
}

}  // namespace
}  // namespace brask::test
