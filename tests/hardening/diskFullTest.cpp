// Full file systems: /var/brask or /conf on a small tmpfs, filled up to a
// chosen amount of free space.  Each flow fails with its code, SEL entries
// and error line (or, given room, succeeds), never crashes, holds nothing
// afterwards, starts no countdown, and a failed backup leaves the previous
// web backup as it was.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <string>
#include <vector>

#include "common/paths.h"
#include "hardeningSupport.h"
#include "support/suite.h"
#include "support/tinyMount.h"

namespace brask::test {
namespace {

TEST(DiskFull, FlowsOnAFullFolder) {
    prepareBackupSource();
    ASSERT_EQ(observe(setBackup).result, 0x00);
    static std::vector<std::uint8_t> previous;
    previous = readBytes(paths::kBmcWebBackupFile);
    const unsigned long size = previous.size();
    unsigned long blocks = 0;  // what the block files take on a tmpfs (whole pages)
    for (const auto& [path, node] : snapshotTree({"/var/brask"}))
        if (path.starts_with(paths::kBmcBackupFile + std::string("-")))
            blocks += (node.content.size() + 4095) & ~4095ul;
    ASSERT_GT(blocks, 0u);

    struct Case {
        const char* what;
        const char* dir;
        void (*prepare)();  // on the mount
        unsigned long leaveFree;
        long (*call)();
        long result;
        std::vector<std::uint8_t> sel;
        const char* logged;  // a line of the error stream, or ""
    };
    const auto copies = [] { prepareBackupSource(), writeBytes(paths::kBmcWebBackupFile, previous); };
    const auto plain = [] { populateConf(), writeBytes(paths::kBmcWebBackupFile, previous); };
    const auto standby = [] { setStatusByte(5, ST_STANDBY); };
    const auto query = [] {  // the completion code and the EventType
        INT8U res[8] = {0xEE};
        return svfGetBackupRestoreEvent(nullptr, 0, res), long{res[0] | res[1] << 8};
    };
    // A backup needs room for its block files and then for the backup file:
    // each amount of free space below that stops it at another step.  On a
    // full /conf it cannot refresh the backup copies it compares first, and
    // the query cannot make its trace ring (the answer does not change).  A
    // restore splits the backup into block files beside it.
    // clang-format off
    const Case cases[] = {
        {"no room", "/var/brask", copies, 0, setBackup, 0x80, {0x0B, 0x3B}, "svfCreateBraskBackupFile fail"},
        {"room for part of the blocks", "/var/brask", copies, blocks / 2, setBackup, 0x80, {0x0B, 0x3B}, "svfCreateBraskBackupFile fail"},
        {"room for the blocks only", "/var/brask", copies, blocks, setBackup, 0x80, {0x0B, 0x3B}, "svfCreateBraskBackupFile fail"},
        {"room for blocks and part of the file", "/var/brask", copies, blocks + size / 2, setBackup, 0x80, {0x0B, 0x3B}, "svfCreateBraskBackupFile fail"},
        {"room enough", "/var/brask", copies, blocks + size + 65536, setBackup, 0x00, {0x0B, 0x2B}, ""},
        {"backup with a full /conf", "/conf", plain, 0, setBackup, 0x80, {0x0B, 0x3B}, "svfChkBackupFileDiff fail"},
        {"query with a full /conf", "/conf", standby, 0, query, 0x1200, {}, ""},
        {"restore into a full /var/brask", "/var/brask", plain, size / 2, exeRestore, 0x80, {0x05, 0x35}, ""},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        resetState();
        TinyMount mount(c.dir, "4m");
        if (!mount.mounted()) GTEST_SKIP() << mount.reason();
        c.prepare();
        if (std::string(c.dir) == "/conf") (void)::mkdir("/conf/brask", 0755);
        struct statvfs fs {};
        ASSERT_EQ(::statvfs(c.dir, &fs), 0);
        const unsigned long avail = fs.f_bavail * fs.f_bsize;
        if (avail > c.leaveFree)
            writeFile(std::string(c.dir) + "/filler", std::string(avail - c.leaveFree, 'f'));

        const Observed o = observe(c.call);
        EXPECT_EQ(o.result, c.result);
        EXPECT_EQ(o.sel, c.sel);
        EXPECT_NE(o.err.find(c.logged), std::string::npos) << o.err;
        expectNothingHeld(o);
        EXPECT_EQ(gKillProcessAfterFileChkTimer, 0);
        if (c.call == exeRestore) continue;  // it moves the web backup to split it
        if (o.result == 0x00 && c.call == setBackup)
            EXPECT_EQ(readBytes(paths::kBmcWebBackupFile).size(), size);
        else
            EXPECT_EQ(o.changes.find(paths::kBmcWebBackupFile), std::string::npos) << o.changes;
    }
}

}  // namespace
}  // namespace brask::test
