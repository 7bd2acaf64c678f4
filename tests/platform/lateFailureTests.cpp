// Controls for the hardening sweep: give-back calls that do their work and
// then report failure, and per-command IPMI request counts.
#include <gtest/gtest.h>

#include <cerrno>

#include "platformTestSupport.h"

namespace brask::test {
namespace {

// True when a process other than this one can take the named lock now.
bool freeForOthers(bool mutex, const char* name) {
    const pid_t pid = spawn([mutex, name] {
        hostResetFaults();
        if (mutex) {
            Mutex_T* m = nullptr;
            return hslCreateMutex(&m, name) == 0 && hslAcquireMutex(m, 300) == 0;
        }
        int id = -1;
        return hslAcquireSysvSemaphore(&id, name, 300) == 0;
    });
    return succeeded(pid);
}

TEST(LateFailure, GiveBackIsDoneAndReportedAsFailed) {
    Mutex_T* m = nullptr;
    ASSERT_EQ(hslCreateMutex(&m, "/var/hsl/late-mutex"), 0);
    ASSERT_EQ(hslAcquireMutex(m, -1), 0);
    ASSERT_EQ(hostFailCallLate("hslReleaseMutex", 0, 1, EIO), 0);
    errno = 0;
    EXPECT_NE(hslReleaseMutex(m), 0);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(freeForOthers(true, "/var/hsl/late-mutex"));
    ASSERT_EQ(hostFailCallLate("hslDestroyMutex", 0, 1, EIO), 0);
    EXPECT_NE(hslDestroyMutex(m), 0);  // freed all the same (LeakSanitizer would say)

    int semId = -1;
    ASSERT_EQ(hslAcquireSysvSemaphore(&semId, "/var/hsl/late-sem", -1), 0);
    ASSERT_EQ(hostFailCallLate("hslReleaseSysvSemaphore", 0, 1, EIO), 0);
    EXPECT_NE(hslReleaseSysvSemaphore(semId), 0);
    EXPECT_TRUE(freeForOthers(false, "/var/hsl/late-sem"));

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

TEST(IpmiCounts, CountedPerCommandUntilReset) {
    hostResetCounters();
    (void)storage(0x10, {0});
    (void)storage(0x11, {0, 0, 0, 8});
    (void)storage(0x11, {0, 8, 0, 8});
    (void)storage(0x48, {});
    EXPECT_EQ(hostIpmiCommandCount(0x10), 1);
    EXPECT_EQ(hostIpmiCommandCount(0x11), 2);
    EXPECT_EQ(hostIpmiCommandCount(0x12), 0);
    EXPECT_EQ(hostIpmiCommandCount(0x48), 1);
    EXPECT_EQ(hostIpmiCommandCount(0x20), -1);
    hostResetCounters();
    EXPECT_EQ(hostIpmiCommandCount(0x11), 0);
}

}  // namespace
}  // namespace brask::test
