// A deferred restore cut short: by a power cut just before each write-like
// call it makes under /conf, and by a /conf that runs out of room.  Every
// path is left as it was before or as a complete restore leaves it (content,
// mode and owner), never torn, and the next restore finishes the job
// without a temporary left behind.
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "hardeningSupport.h"
#include "support/suite.h"
#include "support/tinyMount.h"

namespace brask::test {
namespace {

// The paths of `now` that are neither as in `before` nor as in `after`;
// temporaries of an interrupted restore are left to the next one.
std::string tornPaths(const Tree& before, const Tree& after, const Tree& now) {
    std::string torn;
    for (const std::string& path : changedPaths(before, now)) {
        const auto a = after.find(path);
        const auto n = now.find(path);
        if (!path.ends_with(".svf-new") &&
            !(a == after.end() ? n == now.end() : n != now.end() && n->second == a->second))
            torn += " " + path;
    }
    return torn;
}

TEST(InterruptedRestore, EveryCrashPointLeavesOldOrNewFiles) {
    preparePendingRestore();
    const Tree start = snapshotTree();
    // A complete run, counted: the crash points.  No rename may publish a
    // temporary whose data are not flushed yet.
    int points = 0;
    {
        WriteLikeCounter counter("/conf");
        EXPECT_EQ(observe(restoreConfigFile).sel, std::vector<std::uint8_t>{0x25});
        points = counter.count();
        EXPECT_EQ(counter.violations(), std::vector<Violation>{});
    }
    const Tree done = snapshotTree();
    ASSERT_NE(diffTrees(start, done), "");
    ASSERT_GT(points, 20);

    int tornRuns = 0;
    for (int k = 1; k <= points; ++k) {
        preparePendingRestore();
        std::fflush(nullptr);
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            (void)std::freopen("/dev/null", "w", stdout);
            (void)std::freopen("/dev/null", "w", stderr);
            crashBefore(k, "/conf");
            svfRestoreConfigFile();
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == kCrashStatus) << "crash point " << k;
        const std::string torn = tornPaths(start, done, snapshotTree());
        if (!torn.empty() && ++tornRuns <= 5) ADD_FAILURE() << "crash before call " << k << " tore:" << torn;
        // The next restore completes and removes what the cut one left.
        (void)captureOutput([] { restoreConfigFile(); });
        const std::string rest = diffTrees(done, snapshotTree());
        if (!rest.empty()) ADD_FAILURE() << "the restore after crash point " << k << " left:\n" << rest;
    }
    EXPECT_EQ(tornRuns, 0) << "of " << points << " crash points";

    // /conf on a small mount, filled up so that the restore runs out of room
    // at some file: it fails as a failed extraction does, the web console
    // still reboots, and no file is torn.
    TinyMount mount("/conf", "4m");
    if (!mount.mounted()) GTEST_SKIP() << mount.reason();
    for (const unsigned long leaveFree : {0ul, 4096ul}) {
        SCOPED_TRACE(leaveFree);
        preparePendingRestore();
        struct statvfs fs {};
        ASSERT_EQ(::statvfs("/conf", &fs), 0);
        const unsigned long avail = fs.f_bavail * fs.f_bsize;
        if (avail > leaveFree) writeFile("/conf/filler", std::string(avail - leaveFree, 'f'));
        const Observed got = observe(restoreConfigFile);
        ASSERT_EQ(std::remove("/conf/filler"), 0);
        EXPECT_EQ(got.result, 1);
        EXPECT_EQ(got.sel, std::vector<std::uint8_t>{0x35});
        EXPECT_EQ(linesInOrder(got.err,
                               {"BRASK_ERR  : svfBraskArchiver(#) : fwrite fail(28)",
                                "BRASK_ERR  : svfIntervalAutoBackup(#) : svfExtractBraskArchiveblock fail"}),
                  "");
        EXPECT_EQ(tornPaths(start, done, snapshotTree()), "");
    }
}

}  // namespace
}  // namespace brask::test
