// Self-checks of the test core (support/interpose.h, transcript.h, tree.h):
// only what would let a library test pass wrongly if the core broke.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>

#include "BraskSvf/svfApi.h"
#include "support/interpose.h"
#include "support/scenario.h"
#include "support/transcript.h"
#include "support/tree.h"

namespace brask::test {

void PrintTo(const Violation& v, std::ostream* out) { *out << v.from << " -> " << v.to; }

namespace {

// The library's own calls fail as armed, with the errno, also on a stream
// opened before arming.
TEST(TestCore, FailCallReachesTheLibrarysCalls) {
    writeFile("/conf/BMCCapability.dat", std::string(64, 'c'));
    FILE* fp = std::fopen("/conf/BMCCapability.dat", "rb");
    ASSERT_NE(fp, nullptr);
    INI_BMC_CAPABILITY_T cap{};
    char src[] = "/conf/BMCCapability.dat", dst[] = "/conf/copy";
    const struct {
        Call call;
        int err;
        const char* prefix;
        std::function<int()> run;
        const char* transcript;
    } cases[] = {
        {Call::Fseek, ESPIPE, "/conf/", [&] { return svfGetFileSize(fp); },
         "BRASK_ERR  : svfBraskArchiver(#) : fseek fail(29)\n"},
        {Call::Fopen, EACCES, "/conf/BMCCapability.dat", [&] { return svfReadBMCCapability(&cap); },
         "BRASK_DEBUG  : svfBraskArchiver(#) : svfReadBMCCapability fopen fail\n"},
        {Call::System, ECHILD, "cp -p /conf/", [&] { return svfExeCopyCmd(src, dst); },
         "BRASK_DEBUG  : svfBraskArchiver(#) : cp /conf/BMCCapability.dat /conf/copy\n"
         "BRASK_ERR  : svfBraskArchiver(#) : system cmd fail(10)\n"},
    };
    for (const auto& c : cases) {
        FailCall fail(c.call, c.err, c.prefix);
        int result = 0;
        const Transcript t = captureOutput([&] { result = c.run(); });
        EXPECT_EQ(result, -1) << callName(c.call);
        EXPECT_EQ(maskLineNumbers(t.out + t.err), c.transcript);
    }
    std::fclose(fp);
    EXPECT_FALSE(exists("/conf/copy"));
}

TEST(TestCore, FailCallFiresOnTheNthMatchingCallOnly) {
    for (const char* path : {"/conf/a", "/conf/b"}) writeFile(path, "x");
    FailCall fail(Call::Fopen, EIO, "/conf/a", 2);
    std::string opened;
    for (const char* path : {"/conf/b", "/conf/a", "/conf/b", "/conf/a", "/conf/a"}) {
        FILE* fp = std::fopen(path, "r");
        opened += fp != nullptr ? "+" : errno == EIO ? "EIO" : "?";
        if (fp != nullptr) std::fclose(fp);
    }
    EXPECT_EQ(opened, "+++EIO+");
    EXPECT_EQ(fail.matched(), 3);
}

// Ended before the k-th write-like call, not after it: before the first the
// file does not exist, before the second it is still empty.
TEST(TestCore, CrashPointEndsAChildBeforeTheCall) {
    for (int k : {1, 2}) {
        std::remove("/conf/crash");
        const pid_t pid = ::fork();
        if (pid == 0) {
            crashBefore(k, "/conf/");
            const int fd = ::open("/conf/crash", O_WRONLY | O_CREAT, 0644);
            ::_exit(::write(fd, "data", 4) == 4 ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == kCrashStatus) << k;
        EXPECT_EQ(exists("/conf/crash"), k == 2);
        EXPECT_EQ(readFile("/conf/crash"), "");
    }
}

TEST(TestCore, CounterLogsExactlyTheWriteLikeCallsUnderItsPrefix) {
    WriteLikeCounter counter("/conf/");
    const int fd = ::open("/conf/t.tmp", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    EXPECT_EQ(::write(fd, "x", 1), 1);
    ::fsync(fd);
    ::close(fd);
    ::close(::open("/conf/t.tmp", O_RDONLY));
    ::close(::open("/var/brask/outside", O_WRONLY | O_CREAT, 0600));
    ::rename("/conf/t.tmp", "/conf/t");
    const int conf = ::open("/conf", O_RDONLY | O_DIRECTORY);
    ::fsync(conf);
    ::close(conf);
    FILE* fp = std::fopen("/conf/s", "w");
    std::fputs("s", fp);
    std::fclose(fp);
    ::chmod("/conf/s", 0600);
    ::unlink("/conf/t");
    std::string log;
    for (const WriteLike& e : counter.log()) log += callName(e.call) + (" " + e.path + " " + e.to) + "\n";
    EXPECT_EQ(log,
              "open /conf/t.tmp \nwrite /conf/t.tmp \nfsync /conf/t.tmp \nrename /conf/t.tmp /conf/t\n"
              "fsync /conf \nfopen /conf/s \nfwrite /conf/s \nfclose /conf/s \nchmod /conf/s \nunlink /conf/t \n");
    EXPECT_EQ(counter.count(), 10);
}

// One byte into /conf/new.tmp, then `flush` of its descriptor, if any.
void written(int (*flush)(int)) {
    const int fd = ::open("/conf/new.tmp", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    EXPECT_EQ(::write(fd, "x", 1), 1);
    if (flush != nullptr) flush(fd);
    ::close(fd);
}

// The same through a stream, fsync'ed with or without an fflush first.
void streamed(bool fflushFirst) {
    FILE* fp = std::fopen("/conf/new.tmp", "w");
    std::fputs("x", fp);
    if (fflushFirst) std::fflush(fp);
    ::fsync(::fileno(fp));
    std::fclose(fp);  // without the fflush, this hands the byte to the kernel after the fsync
}

TEST(TestCore, RenameOfUnflushedDataIsAViolation) {
    const struct { const char* what; void (*write)(); bool violation; } cases[] = {
        {"write", [] { written(nullptr); }, true},
        {"write, fdatasync", [] { written(::fdatasync); }, false},
        {"write, syncfs", [] { written(::syncfs); }, false},
        {"fputs, fsync, fclose", [] { streamed(false); }, true},
        {"fputs, fflush, fsync", [] { streamed(true); }, false},
    };
    for (const auto& c : cases) {
        WriteLikeCounter counter("/conf/");
        c.write();
        ASSERT_EQ(std::rename("/conf/new.tmp", "/conf/new"), 0);
        const std::vector<Violation> expected{{"/conf/new.tmp", "/conf/new"}};
        EXPECT_EQ(counter.violations(), c.violation ? expected : std::vector<Violation>{}) << c.what;
    }
}

TEST(TestCore, SnapshotSeesEachChangeAndPutsItBack) {
    for (const char* path : {"/conf/same", "/conf/mode", "/conf/gone"}) writeFile(path, "abc");
    const Tree before = snapshotTree();
    writeFile("/conf/same", "abd");
    ::chmod("/conf/mode", 0600);
    std::remove("/conf/gone");
    writeFile("/conf/brask/new", "n");
    const std::string owner = std::to_string(::getuid()) + ":" + std::to_string(::getgid());
    EXPECT_EQ(diffTrees(before, snapshotTree()),
              "created /conf/brask/new (file 0644 " + owner + ", 1 bytes)\nremoved /conf/gone\n"
              "changed /conf/mode: mode 0644 -> 0600\n"
              "changed /conf/same: content 3 -> 3 bytes, first difference at byte 2\n");
    EXPECT_TRUE(restoreTree(before, changedPaths(before, snapshotTree())));
    EXPECT_EQ(diffTrees(before, snapshotTree()), "");
}

TEST(TestCore, TranscriptMasksTheLineOfEachTagAndKeepsAnUnendedLastLine) {
    EXPECT_EQ(lines(maskLineNumbers("BRASK_DEBUG  : u(12) : a (1)\nBRASK_ERR  : u(3) : b\n"
                                    "BRASK_ERR    : u(456) : c\nBRASK_MSG[7] : u(78) : f() : d\n"
                                    "e BRASK_DEBUG  : u(9) : Non Check")),
              (std::vector<std::string>{"BRASK_DEBUG  : u(#) : a (1)", "BRASK_ERR  : u(#) : b",
                                        "BRASK_ERR    : u(#) : c", "BRASK_MSG[7] : u(#) : f() : d",
                                        "e BRASK_DEBUG  : u(#) : Non Check"}));
}

}  // namespace
}  // namespace brask::test
