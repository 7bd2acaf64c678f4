// Full file systems: /var/brask and /conf on small tmpfs mounts, filled up to
// a chosen amount of free space.  Backup and restore must fail with their
// codes and SEL entries, never crash, leave nothing open or locked, and a
// failed backup must leave the previous web backup as it was.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <functional>
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

// Grows a filler file in `dir` until only about `leaveFree` bytes are left;
// a fresh /conf first gets the brask folder every BMC has.
void fillUp(const std::string& dir, unsigned long leaveFree) {
    if (dir == "/conf") (void)::mkdir("/conf/brask", 0755);
    struct statvfs fs {};
    ASSERT_EQ(::statvfs(dir.c_str(), &fs), 0);
    const unsigned long avail = fs.f_bavail * fs.f_bsize;
    if (avail > leaveFree) writeFile(dir + "/filler", std::string(avail - leaveFree, 'f'));
}

// Each flow on a folder filled up: it fails with its code and SEL entries
// (or, given room, succeeds) and holds nothing afterwards.
TEST(DiskFull, FlowsOnAFullFolder) {
    // A backup needs room for its block files and then for the backup file;
    // each amount of free space below that stops it at another step, and the
    // previous web backup stays as it was.
    prepareBackupSource();
    ASSERT_EQ(setBackup().code, 0x00);
    const std::vector<std::uint8_t> previous = readBytes(paths::kBmcWebBackupFile);
    const unsigned long size = previous.size();
    ASSERT_GT(size, 0u);
    // What the block files take on a tmpfs (whole pages).
    unsigned long blocks = 0;
    for (unsigned i = 0; exists(blockFile(i)); ++i)
        blocks += (readBytes(blockFile(i)).size() + 4095) / 4096 * 4096;
    ASSERT_GT(blocks, 0u);
    std::vector<std::uint8_t> web;  // a valid web backup, for the restore

    struct Case {
        std::string what;
        std::function<void()> before;  // on the real disk, before the mount
        const char* dir;
        std::function<unsigned long()> fill;  // set-up on the mount; the bytes to leave free
        Outcome (*run)();
        int code;
        SelCodes sel;
        const char* logged;  // the line a failure logs, or ""
        std::function<void(const Outcome&)> check;
    };
    const auto backup = [&](std::string what, unsigned long freeBytes) {
        const bool fits = freeBytes > blocks + size;
        return Case{what,
                    prepareBackupSource,
                    "/var/brask",
                    [&, freeBytes] { return writeBytes(paths::kBmcWebBackupFile, previous), freeBytes; },
                    setBackup,
                    fits ? 0x00 : 0x80,
                    {0x0B, static_cast<std::uint8_t>(fits ? 0x2B : 0x3B)},
                    fits ? "" : "svfCreateBraskBackupFile fail\n",
                    [&, fits](const Outcome&) {
                        const std::vector<std::uint8_t> now = readBytes(paths::kBmcWebBackupFile);
                        if (fits)
                            EXPECT_EQ(now.size(), size);
                        else
                            EXPECT_TRUE(now == previous) << "previous web backup lost";
                    }};
    };
    const Case cases[] = {
        backup("no room", 0),
        backup("room for part of the blocks", blocks / 2),
        backup("room for the blocks only", blocks),
        backup("room for blocks and part of the file", blocks + size / 2),
        backup("room enough", blocks + size + 65536),
        // Before packing, the backup refreshes the backup copies in /conf: with
        // no room for them the change detection fails.
        {"backup with a full /conf",
         [] {},
         "/conf",
         [] { return populateConf(), writeFile(paths::kBmcWebBackupFile, "previous web backup"), 0ul; },
         setBackup,
         0x80,
         {0x0B, 0x3B},
         "svfChkBackupFileDiff fail\n",
         [](const Outcome&) { EXPECT_EQ(readFile(paths::kBmcWebBackupFile), "previous web backup"); }},
        // The query's trace ring cannot be made on a full /conf: the answer
        // does not change.
        {"query with a full /conf",
         [] {},
         "/conf",
         [] { return setStatusByte(5, ST_STANDBY), 0ul; },
         getEvent,
         0x00,
         {},
         "",
         [](const Outcome& got) {
             ASSERT_EQ(got.response.size(), 8u);
             EXPECT_EQ(got.response[1], 0x12);
         }},
        // The restore splits the backup into block files beside it.
        {"restore into a full /var/brask",
         [&] {
             prepareRestoreSource();
             web = readBytes(paths::kBmcWebBackupFile);
             resetState();
             populateConf();
         },
         "/var/brask",
         [&] { return writeBytes(paths::kBmcWebBackupFile, web), web.size() / 2; },
         exeRestore,
         0x80,
         {0x05, 0x35},
         "",
         [](const Outcome&) { EXPECT_EQ(gKillProcessAfterFileChkTimer, 0); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        resetState();
        c.before();
        if (HasFatalFailure()) return;
        TinyMount mount(c.dir, kMountSize);
        if (!mount.mounted()) GTEST_SKIP() << mount.reason();
        fillUp(c.dir, c.fill());

        const Held before = heldNow();
        const Outcome got = c.run();
        EXPECT_EQ(got.code, c.code);
        EXPECT_EQ(got.sel, c.sel);
        EXPECT_NE(got.output.find(c.logged), std::string::npos) << got.output;
        c.check(got);
        expectNothingHeld(before);
    }
}

}  // namespace
}  // namespace brask::test
