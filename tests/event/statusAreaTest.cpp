// The status-area lock and the processing flags: which bytes change, and
// that every failed lock step gives back exactly what was taken before it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "event/eventTestSupport.h"

namespace {

using brask::test::held;
using brask::test::lockCalls;
using brask::test::LockCalls;
using brask::test::withoutLineNumbers;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

const std::string kDebug = "BRASK_DEBUG  : svfOEMSetBackupEvent(N) : ";
const std::string kErr4 = "BRASK_ERR    : svfOEMSetBackupEvent(N) : ";

class StatusArea : public ::testing::Test {
protected:
    void SetUp() override {
        hostResetFaults();
        hostResetCounters();
    }
    void TearDown() override { hostResetFaults(); }
};

// Whether another process can take the lock now (a leaked hold makes it wait forever).
bool lockIsFree() {
    const pid_t pid = fork();
    if (pid == 0) {
        const int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, STDOUT_FILENO);
        dup2(devnull, STDERR_FILENO);
        alarm(10);
        Mutex_T* l_hMutex = nullptr;
        hslSemiVolatileMng_T l_mng{};
        hslSemiVolatileArea_T* area = nullptr;
        if (svfGetMutexAndSemiVolatileArea(&l_hMutex, &l_mng, &area) != 0) _exit(2);
        hslFreeSemiVolatileArea(&l_mng);
        hslReleaseMutex(l_hMutex);
        hslDestroyMutex(l_hMutex);
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// ---- Processing flags ------------------------------------------------------------

struct FlagCase {
    INT8U SetFlag, FileType, Mode;
    size_t offset;
    const char* label;
};

TEST_F(StatusArea, ProcessingFlagChangesOnlyItsByteAndReturnsTheOldValue) {
    const std::vector<FlagCase> cases = {
        {1, BMC_FILE, 0, 797, "REST , BMC_FILE"},   {0, EFI_FILE, 1, 794, "BACKUP , EFI_FILE"},
        {0xAB, BMC_FILE, 1, 795, "BACKUP , BMC_FILE"}, {7, EFI_FILE, 0, 796, "REST , EFI_FILE"},
        {1, 2, 0, 796, "REST , EFI_FILE"},          {1, BMC_FILE, 2, 797, "REST , BMC_FILE"},
        {9, 2, 2, 796, "REST , EFI_FILE"},          {3, 0xFF, 1, 794, "BACKUP , EFI_FILE"},
    };
    for (const FlagCase& c : cases) {
        SCOPED_TRACE(c.label + std::string(" offset ") + std::to_string(c.offset));
        hslSemiVolatileArea_T area{};
        auto* bytes = reinterpret_cast<INT8U*>(&area);
        for (size_t i = 0; i < sizeof area; ++i) bytes[i] = static_cast<INT8U>(i * 7 + 3);
        brask::test::writeArea(area);
        const int previous = bytes[c.offset];

        const auto before = held();
        CaptureStdout();
        const int result = svfSetChkBkupRestProcessingFlag(c.SetFlag, c.FileType, c.Mode);
        const std::string out = GetCapturedStdout();
        EXPECT_EQ(held(), before);

        EXPECT_EQ(result, previous);
        hslSemiVolatileArea_T after = brask::test::readArea();
        bytes[c.offset] = c.SetFlag;
        EXPECT_EQ(std::memcmp(&after, &area, sizeof area), 0);
        EXPECT_EQ(withoutLineNumbers(out),
                  kDebug + "svfSetChkBkupRestProcessingFlag\n" + kDebug + c.label +
                      ", Set = " + std::to_string(c.SetFlag) + "\n" + kDebug + "RetVal = " +
                      std::to_string(previous) + "\n");
    }
    const int n = static_cast<int>(cases.size());
    EXPECT_EQ(lockCalls(), (LockCalls{n, n, n, n, n, n}));
}

// ---- Lock failures -------------------------------------------------------------------

struct LockFault {
    const char* function;
    int err;
    LockCalls calls;      // what the failing entry point called, in total
    std::string message;  // the text after the error tag
    INT8U completionCode; // Get Backup/Restore Event's answer
};

const std::vector<LockFault> kLockFaults = {
    {"hslCreateMutex", ENOMEM, {1, 0, 0, 0, 0, 0}, "failed to get mutex(12)\n", 0x88},
    {"hslAcquireMutex", EINTR, {1, 1, 0, 0, 0, 1}, "failed to get mutex(4)\n", 0x88},
    {"hslGetSemiVolatileArea", ENOENT, {1, 1, 1, 0, 1, 1}, "failed to get SemiVolatile(2)\n", 0x89},
};

TEST_F(StatusArea, EveryFailedLockStepGivesBackExactlyWhatWasTaken) {
    hslSemiVolatileArea_T area{};
    area.svfAutoBack.BmcRestoreFlag = 0x5A;
    area.svf.svfStatusList[3] = ST_GENERATED;
    brask::test::writeArea(area);

    for (const LockFault& f : kLockFaults) {
        SCOPED_TRACE(f.function);

        // svfGetMutexAndSemiVolatileArea: nothing held, nothing to give back.
        {
            hostResetCounters();
            ASSERT_EQ(hostFailCall(f.function, 0, 1, f.err), 0);
            Mutex_T* l_hMutex = nullptr;
            hslSemiVolatileMng_T l_mng{};
            hslSemiVolatileArea_T* pArea = nullptr;
            CaptureStderr();
            const auto before = held();
            EXPECT_EQ(svfGetMutexAndSemiVolatileArea(&l_hMutex, &l_mng, &pArea), -1);
            EXPECT_EQ(held(), before);
            EXPECT_EQ(withoutLineNumbers(GetCapturedStderr()), kErr4 + f.message);
            EXPECT_EQ(lockCalls(), f.calls);
            EXPECT_EQ(pArea, nullptr);
        }

        // svfSetChkBkupRestProcessingFlag: -1 and no flag changes.
        {
            hostResetCounters();
            ASSERT_EQ(hostFailCall(f.function, 0, 1, f.err), 0);
            CaptureStdout();
            CaptureStderr();
            const auto before = held();
            EXPECT_EQ(svfSetChkBkupRestProcessingFlag(1, BMC_FILE, 0), -1);
            EXPECT_EQ(held(), before);
            EXPECT_EQ(withoutLineNumbers(GetCapturedStderr()),
                      kErr4 + f.message + kErr4 + "svfGetMutexAndSemiVolatileArea Fail\n");
            (void)GetCapturedStdout();
            EXPECT_EQ(lockCalls(), f.calls);
        }

        // Get Backup/Restore Event: its own codes and tag, no trace record.
        {
            hostResetCounters();
            ASSERT_EQ(hostFailCall(f.function, 0, 1, f.err), 0);
            INT8U res[8];
            std::memset(res, 0xEE, sizeof res);
            CaptureStdout();
            CaptureStderr();
            const auto before = held();
            EXPECT_EQ(svfGetBackupRestoreEvent(nullptr, 0, res), 1);
            EXPECT_EQ(held(), before);
            EXPECT_EQ(withoutLineNumbers(GetCapturedStderr()),
                      "BRASK_ERR  : svfOEMExeRestoreEvent(N) : " + f.message);
            EXPECT_EQ(GetCapturedStdout(), "");
            EXPECT_EQ(lockCalls(), f.calls);
            const INT8U want[8] = {f.completionCode, 0, 0, 0, 0, 0, 0, 0};
            EXPECT_EQ(std::memcmp(res, want, 8), 0);
            EXPECT_EQ(access("/conf/brask/BackRest.trs2", F_OK), -1);
        }

        EXPECT_TRUE(lockIsFree());
        const hslSemiVolatileArea_T after = brask::test::readArea();
        EXPECT_EQ(std::memcmp(&after, &area, sizeof area), 0);
    }
}

TEST_F(StatusArea, HeldLockBelongsToTheCallerUntilItGivesItBack) {
    Mutex_T* l_hMutex = nullptr;
    hslSemiVolatileMng_T l_mng{};
    hslSemiVolatileArea_T* pArea = nullptr;
    const auto before = held();

    ASSERT_EQ(svfGetMutexAndSemiVolatileArea(&l_hMutex, &l_mng, &pArea), 0);
    ASSERT_NE(pArea, nullptr);
    EXPECT_NE(l_hMutex, nullptr);
    EXPECT_EQ(l_mng.SemiVolatile_ptr, pArea);
    EXPECT_EQ(lockCalls(), (LockCalls{1, 1, 1, 0, 0, 0}));

    pArea->svf.svfStatusList[11] = ST_STANDBY;
    hslFreeSemiVolatileArea(&l_mng);
    hslReleaseMutex(l_hMutex);
    hslDestroyMutex(l_hMutex);

    EXPECT_EQ(held(), before);
    EXPECT_EQ(brask::test::readArea().svf.svfStatusList[11], ST_STANDBY);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(StatusArea, SharedHandlesStartAtZero) {
    EXPECT_EQ(hBMCSharedMem, nullptr);
    EXPECT_EQ(hSharedMemMutex, nullptr);
}

}  // namespace
