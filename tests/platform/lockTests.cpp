// The named mutex and the file semaphore: mutual exclusion between processes,
// release by the kernel when a holder dies, time limits, give-back calls that
// do their work and then report failure.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "platformTestSupport.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kLockName[] = "/var/hsl/testLock";
constexpr char kCounterFile[] = "/var/hsl/counter";

// One lock as a process sees it, whichever kind it is.
struct Holder {
    Mutex_T* mutex = nullptr;
    int semId = -1;
};

struct LockKind {
    const char* name;
    const char* giveFunction;
    int (*take)(Holder&, int timeout);
    int (*give)(Holder&);
};

const LockKind kKinds[] = {
    {"NamedMutex", "hslReleaseMutex",
     [](Holder& h, int timeout) {
         if (h.mutex == nullptr && hslCreateMutex(&h.mutex, kLockName) != 0) return -1;
         return hslAcquireMutex(h.mutex, timeout);
     },
     [](Holder& h) { return hslReleaseMutex(h.mutex); }},
    {"FileSemaphore", "hslReleaseSysvSemaphore",
     [](Holder& h, int timeout) { return hslAcquireSysvSemaphore(&h.semId, kLockName, timeout); },
     [](Holder& h) { return hslReleaseSysvSemaphore(h.semId); }},
};

class LockTest : public ::testing::TestWithParam<LockKind> {};

// A read-yield-write increment that loses updates unless the lock excludes.
bool incrementMany(const LockKind& kind, int times) {
    Holder h;
    const int fd = open(kCounterFile, O_RDWR);
    if (fd < 0) return false;
    bool ok = true;
    for (int i = 0; i < times && ok; ++i) {
        int value = 0;
        ok = kind.take(h, -1) == 0 && pread(fd, &value, sizeof value, 0) == sizeof value;
        sched_yield();
        ++value;
        ok = ok && pwrite(fd, &value, sizeof value, 0) == sizeof value;
        ok = kind.give(h) == 0 && ok;
    }
    close(fd);
    return ok;
}

TEST_P(LockTest, TwoProcessesNeverHoldItAtOnce) {
    ASSERT_EQ(hslChkMakeFile(kCounterFile, sizeof(int)), 0);
    constexpr int kTimes = 3000;
    const pid_t a = spawn([this] { return incrementMany(GetParam(), kTimes); });
    const pid_t b = spawn([this] { return incrementMany(GetParam(), kTimes); });
    ASSERT_TRUE(succeeded(a));
    ASSERT_TRUE(succeeded(b));
    const int fd = open(kCounterFile, O_RDONLY);
    int value = 0;
    ASSERT_EQ(pread(fd, &value, sizeof value, 0), static_cast<ssize_t>(sizeof value));
    close(fd);
    EXPECT_EQ(value, 2 * kTimes);
}

TEST_P(LockTest, KilledHolderDoesNotKeepIt) {
    const LockKind kind = GetParam();
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = spawn([&] {
        Holder h;
        if (kind.take(h, -1) != 0) return false;
        (void)write(ready[1], "x", 1);
        pause();
        return true;
    });
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    Holder h;
    EXPECT_NE(kind.take(h, 100), 0) << "taken while another process holds it";
    EXPECT_EQ(errno, EAGAIN);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(kind.take(h, 2000), 0);
    EXPECT_EQ(kind.give(h), 0);
    close(ready[0]);
    close(ready[1]);
    if (h.mutex != nullptr) hslDestroyMutex(h.mutex);
}

TEST_P(LockTest, ReleasingAFreeLockIsRefused) {
    const LockKind kind = GetParam();
    Holder h;
    ASSERT_EQ(kind.take(h, 0), 0);
    EXPECT_NE(kind.take(h, 0), 0) << "a binary lock taken twice";
    ASSERT_EQ(kind.give(h), 0);
    EXPECT_NE(kind.give(h), 0);
    EXPECT_EQ(kind.take(h, 0), 0);  // still exactly one holder's worth
    EXPECT_EQ(kind.give(h), 0);
    if (h.mutex != nullptr) hslDestroyMutex(h.mutex);
}

TEST_P(LockTest, LateFailedGiveBackIsDoneAndReportedAsFailed) {
    const LockKind kind = GetParam();
    Holder h;
    ASSERT_EQ(kind.take(h, -1), 0);
    ASSERT_EQ(hostFailCallLate(kind.giveFunction, 0, 1, EIO), 0);
    errno = 0;
    EXPECT_NE(kind.give(h), 0);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(succeeded(spawn([&] {
        Holder other;
        return kind.take(other, 300) == 0;
    }))) << "still held after the give-back";
    if (h.mutex != nullptr) {
        ASSERT_EQ(hostFailCallLate("hslDestroyMutex", 0, 1, EIO), 0);
        EXPECT_NE(hslDestroyMutex(h.mutex), 0);  // freed all the same (LeakSanitizer would say)
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, LockTest, ::testing::ValuesIn(kKinds),
                         [](const auto& p) { return std::string(p.param.name); });

TEST(NamedMutex, HandleCarriesNameAndSet) {
    Mutex_T* m = nullptr;
    ASSERT_EQ(hslCreateMutex(&m, "/var/hsl/a-mutex-name-longer-than-thirty-one-characters"), 0);
    EXPECT_STREQ(m->MutexName, "/var/hsl/a-mutex-name-longer-th");
    EXPECT_GE(m->SemID, 0);
    EXPECT_EQ(m->OwnerPID, getpid());
    EXPECT_TRUE(exists("/var/hsl/a-mutex-name-longer-than-thirty-one-characters"));
    EXPECT_EQ(hslDestroyMutex(m), 0);
}

TEST(LateFailure, UnmapIsDoneAndReportedAsFailed) {
    hslSemiVolatileMng_T mng{};
    ASSERT_NE(hslGetSemiVolatileArea(&mng), nullptr);
    ASSERT_EQ(hostFailCallLate("hslFreeSemiVolatileArea", 0, 1, EIO), 0);
    EXPECT_NE(hslFreeSemiVolatileArea(&mng), 0);
    EXPECT_EQ(mng.SemiVolatile_ptr, nullptr);
    EXPECT_EQ(mng.fd, -1);
}

TEST(LateFailure, OnlyForGiveBackCalls) {
    for (const char* name : {"hslAcquireMutex", "hslAddSEL", "API_ExecuteCmd", "nothing"}) {
        errno = 0;
        EXPECT_EQ(hostFailCallLate(name, 0, 1, EIO), -1) << name;
        EXPECT_EQ(errno, EINVAL);
    }
}

}  // namespace
}  // namespace brask::test
