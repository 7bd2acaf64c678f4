// What would let a library test pass wrongly if it broke: isolation from the
// host, locks that exclude between processes, fault controls that fail
// exactly the call they name, and the crash points and write counts tests
// rely on.
#include <fcntl.h>
#include <sys/wait.h>

#include "support/suite.h"

namespace brask::test {
namespace {

// Named so that hostCheck.sh looks for exactly these on the host.
std::string marker(const std::string& dir) {
    const char* t = std::getenv("BRASK_HOST_CHECK_TOKEN");
    return dir + "/" + (t != nullptr ? t : "sandbox-marker");
}

// What is written here never reaches the host (hostCheck.sh looks there),
// the host's trees cannot be written, services and reboot only log, and pids,
// network and host name are the sandbox's own.
TEST(Sandbox, HostTreesAreReadOnlyServicesOnlyLogNamespacesArePrivate) {
    for (const char* dir : {"/conf", "/var", "/conf/brask", "/var/brask", "/tmp"})
        writeFile(marker(dir), "x");
    for (const char* dir :
         {"/usr", "/etc/init.d", "/sandbox/bin", BRASK_TEST_BINARY_DIR, BRASK_TEST_SOURCE_DIR}) {
        const int fd = ::open(marker(dir).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        EXPECT_TRUE(fd == -1 && (errno == EROFS || errno == EACCES)) << dir << ": " << errno;
    }
    EXPECT_EQ(std::system("/etc/init.d/kvm_servers stop && /etc/init.d/ssh && reboot -f now"), 0);
    EXPECT_EQ(commandLog(), "kvm_servers stop\nssh\nreboot -f now\n");
    EXPECT_EQ(readFile("/run/realproc/1/comm") + readFile("/proc/sys/kernel/hostname"),
              "bwrap\nbmc-sandbox\n");
    EXPECT_EQ(lines(readFile("/proc/self/net/dev")).size(), 3u) << "only lo";
    // Owner checks skip without chown: it must work wherever ids map one to one.
    EXPECT_EQ(canChown(), readFile("/proc/self/uid_map").find("4294967295") != std::string::npos);
}

// A child takes the lock and is killed holding it: until then nobody else
// gets it, afterwards the kernel has given it back.
TEST(Sandbox, LocksExcludeOtherProcessesAndDieWithTheirHolder) {
    Mutex_T* m = nullptr;
    ASSERT_EQ(hslCreateMutex(&m, "/var/hsl/l"), 0);
    for (int kind : {0, 1}) {
        const auto take = [&](int t) {
            int id;
            return kind == 0 ? hslAcquireMutex(m, t) : hslAcquireSysvSemaphore(&id, "/var/hsl/s", t);
        };
        int ready[2];
        char c;
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t holder = ::fork();
        if (holder == 0) ::_exit(take(-1) != 0 || ::write(ready[1], "x", 1) != 1 || ::pause());
        ASSERT_EQ(::read(ready[0], &c, 1), 1);
        EXPECT_EQ(take(100) == 0 ? 0 : errno, EAGAIN) << kind;
        ::kill(holder, SIGKILL);
        ::waitpid(holder, nullptr, 0);
        EXPECT_EQ(take(2000), 0) << kind;
    }
    hslDestroyMutex(m);
}

// Uses each platform function that has a fault control once: "name/errno" of
// each call that failed.  `late`: a failed give-back has given back all the same.
std::string useAll(bool late) {
    std::string failed;
    const auto ok = [&](const char* name, bool good) {
        return good || (failed += name + ("/" + std::to_string(errno)) + " ", false);
    };
    Mutex_T* m = nullptr;
    if (ok("hslCreateMutex", hslCreateMutex(&m, "/var/hsl/m") == 0)) {
        if (ok("hslAcquireMutex", hslAcquireMutex(m, 0) == 0)) ok("hslReleaseMutex", hslReleaseMutex(m) == 0);
        if (!ok("hslDestroyMutex", hslDestroyMutex(m) == 0) && !late) std::free(m);
    }
    int id = -1;
    if (ok("hslAcquireSysvSemaphore", hslAcquireSysvSemaphore(&id, "/var/hsl/s", 0) == 0))
        ok("hslReleaseSysvSemaphore", hslReleaseSysvSemaphore(id) == 0);
    hslSemiVolatileMng_T mng{};
    if (ok("hslGetSemiVolatileArea", hslGetSemiVolatileArea(&mng) != nullptr))
        ok("hslFreeSemiVolatileArea", hslFreeSemiVolatileArea(&mng) == 0);
    MsgPkt_T pkt{};  // answered with a completion code, whatever it asks
    INT8U b[2];
    ok("API_ExecuteCmd", API_ExecuteCmd(&pkt, 1) == 0);
    ok("hslAddSEL", hslAddSEL(0, 0x80, 1) == 0);
    ok("hslChkMakeFile", hslChkMakeFile("/var/hsl/made", 1) == 0);
    ok("brask_ReadWriteEEPROM", brask_ReadWriteEEPROM(0, 0, 0, b, 0, 2, 0) == 2);
    return failed;
}

TEST(Sandbox, FaultControlsFailTheCallTheyNameOnly) {
    for (const char* name : {"hslCreateMutex", "hslAcquireMutex", "hslReleaseMutex", "hslDestroyMutex",
                             "hslAcquireSysvSemaphore", "hslReleaseSysvSemaphore", "hslGetSemiVolatileArea",
                             "hslFreeSemiVolatileArea", "API_ExecuteCmd", "hslAddSEL", "hslChkMakeFile",
                             "brask_ReadWriteEEPROM"}) {
        for (const bool late : {false, true}) {
            resetState();
            // Late failures are for give-back calls only.
            if ((late ? hostFailCallLate : hostFailCall)(name, 0, 1, ENOSPC) != 0 && late) continue;
            EXPECT_EQ(useAll(late), name + ("/" + std::to_string(ENOSPC)) + " ") << late;
            EXPECT_EQ(late ? useAll(late) : "", "") << name << " did not give back";
        }
    }
}

// The library's own calls fail as armed, only the nth matching one, with the
// errno, also on a stream opened before arming.
TEST(Sandbox, FailCallFailsTheLibrarysNthMatchingCall) {
    writeFile("/conf/BMCCapability.dat", std::string(64, 'c'));
    FILE* fp = std::fopen("/conf/BMCCapability.dat", "rb");
    FailCall fail(Call::Fseek, ESPIPE, "/conf/", 2);
    std::string results;
    const Transcript t = captureOutput([&] {
        for (int i = 0; i < 3; ++i) results += std::to_string(svfGetFileSize(fp)) + " ";
    });
    EXPECT_EQ(results + maskLineNumbers(t.out + t.err),
              "64 -1 64 BRASK_ERR  : svfBraskArchiver(#) : fseek fail(29)\n");
    std::fclose(fp);
}

// Ended before the k-th write-like call, not after it: before the second
// (the write after the open) the file is there and still empty.  The counter
// sees only the calls under its prefix, and a rename of bytes that reached
// the kernel after the fsync (at fclose) as a violation.
TEST(Sandbox, WriteLikeCallsAreCrashedBeforeAndCounted) {
    if (::fork() == 0) {
        crashBefore(2, "/conf/");
        ::_exit(::write(::open("/conf/crash", O_WRONLY | O_CREAT, 0644), "data", 4) == 4 ? 0 : 1);
    }
    int status = 0;
    ::wait(&status);
    EXPECT_EQ(std::tuple(WIFEXITED(status) ? WEXITSTATUS(status) : -1, exists("/conf/crash"),
                         readFile("/conf/crash")),
              std::tuple(kCrashStatus, true, std::string()));
    WriteLikeCounter counter("/conf/");
    FILE* fp = std::fopen("/conf/s.tmp", "w");
    std::fputs("s", fp);
    ::fsync(::fileno(fp));
    std::fclose(fp);
    ::close(::open("/var/brask/outside", O_WRONLY | O_CREAT, 0600));
    ::rename("/conf/s.tmp", "/conf/s");
    EXPECT_EQ(std::pair(counter.count(), counter.violations()),
              std::pair(5, std::vector<Violation>{{"/conf/s.tmp", "/conf/s"}}));
}

}  // namespace
}  // namespace brask::test
