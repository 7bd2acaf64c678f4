// The status-area lock and the processing flags: which bytes change, and
// that every failed lock step gives back exactly what was taken before it.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "event/eventTestSupport.h"

namespace {

using namespace brask::test;

const std::string kDebug = "BRASK_DEBUG  : svfOEMSetBackupEvent(N) : ";
const std::string kErr4 = "BRASK_ERR    : svfOEMSetBackupEvent(N) : ";

bool sameArea(const hslSemiVolatileArea_T& a, const hslSemiVolatileArea_T& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Whether another process can take the lock now (a leaked hold makes it wait forever).
bool lockIsFree() {
    const pid_t pid = fork();
    if (pid == 0) {
        silence();
        alarm(10);
        _exit(withLockedArea([](hslSemiVolatileArea_T&) {}) ? 0 : 2);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(StatusArea, ProcessingFlagChangesOnlyItsByteAndReturnsTheOldValue) {
    const struct {
        INT8U SetFlag, FileType, Mode;
        size_t offset;
        const char* label;
    } cases[] = {
        {1, BMC_FILE, 0, 797, "REST , BMC_FILE"},   {0, EFI_FILE, 1, 794, "BACKUP , EFI_FILE"},
        {0xAB, BMC_FILE, 1, 795, "BACKUP , BMC_FILE"}, {7, EFI_FILE, 0, 796, "REST , EFI_FILE"},
        {1, 2, 0, 796, "REST , EFI_FILE"},          {1, BMC_FILE, 2, 797, "REST , BMC_FILE"},
        {9, 2, 2, 796, "REST , EFI_FILE"},          {3, 0xFF, 1, 794, "BACKUP , EFI_FILE"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label + std::string(" offset ") + std::to_string(c.offset));
        hslSemiVolatileArea_T area{};
        auto* bytes = reinterpret_cast<INT8U*>(&area);
        for (size_t i = 0; i < sizeof area; ++i) bytes[i] = static_cast<INT8U>(i * 7 + 3);
        writeArea(area);
        const int previous = bytes[c.offset];

        const auto before = held();
        int result = 0;
        const std::string out =
            captured([&] { result = svfSetChkBkupRestProcessingFlag(c.SetFlag, c.FileType, c.Mode); }).out;
        EXPECT_EQ(held(), before);
        EXPECT_EQ(result, previous);
        bytes[c.offset] = c.SetFlag;
        EXPECT_TRUE(sameArea(readArea(), area));
        EXPECT_EQ(out, kDebug + "svfSetChkBkupRestProcessingFlag\n" + kDebug + c.label +
                           ", Set = " + std::to_string(c.SetFlag) + "\n" + kDebug + "RetVal = " +
                           std::to_string(previous) + "\n");
    }
    const int n = static_cast<int>(std::size(cases));
    EXPECT_EQ(lockCalls(), (LockCalls{n, n, n, n, n, n}));
}

TEST(StatusArea, EveryFailedLockStepGivesBackExactlyWhatWasTaken) {
    const struct {
        const char* function;
        int err;
        LockCalls calls;       // what the failing entry point called, in total
        std::string message;   // the text after the error tag
        INT8U completionCode;  // Get Backup/Restore Event's answer
    } faults[] = {
        {"hslCreateMutex", ENOMEM, {1, 0, 0, 0, 0, 0}, "failed to get mutex(12)\n", 0x88},
        {"hslAcquireMutex", EINTR, {1, 1, 0, 0, 0, 1}, "failed to get mutex(4)\n", 0x88},
        {"hslGetSemiVolatileArea", ENOENT, {1, 1, 1, 0, 1, 1}, "failed to get SemiVolatile(2)\n", 0x89},
    };
    hslSemiVolatileArea_T area{};
    area.svfAutoBack.BmcRestoreFlag = 0x5A;
    area.svf.svfStatusList[3] = ST_GENERATED;
    writeArea(area);

    for (const auto& f : faults) {
        SCOPED_TRACE(f.function);
        // Each entry point in turn, with the fault armed once: its result,
        // its message, what it called, and nothing left held.
        const auto check = [&](const std::string& wantErr, auto entry) {
            hostResetCounters();
            EXPECT_EQ(hostFailCall(f.function, 0, 1, f.err), 0);
            const auto before = held();
            const Output printed = captured(entry);
            EXPECT_EQ(held(), before);
            EXPECT_EQ(printed.err, wantErr);
            EXPECT_EQ(lockCalls(), f.calls);
            return printed.out;
        };

        // svfGetMutexAndSemiVolatileArea: nothing held, nothing to give back.
        Mutex_T* mutex = nullptr;
        hslSemiVolatileMng_T mng{};
        hslSemiVolatileArea_T* pArea = nullptr;
        check(kErr4 + f.message,
              [&] { EXPECT_EQ(svfGetMutexAndSemiVolatileArea(&mutex, &mng, &pArea), -1); });
        EXPECT_EQ(pArea, nullptr);

        // svfSetChkBkupRestProcessingFlag: -1 and no flag changes.
        check(kErr4 + f.message + kErr4 + "svfGetMutexAndSemiVolatileArea Fail\n",
              [] { EXPECT_EQ(svfSetChkBkupRestProcessingFlag(1, BMC_FILE, 0), -1); });

        // Get Backup/Restore Event: its own codes and tag, nothing printed on
        // stdout, no trace record.
        INT8U res[8];
        std::memset(res, 0xEE, sizeof res);
        EXPECT_EQ(check("BRASK_ERR  : svfOEMExeRestoreEvent(N) : " + f.message,
                        [&] { EXPECT_EQ(svfGetBackupRestoreEvent(nullptr, 0, res), 1); }),
                  "");
        const INT8U want[8] = {f.completionCode, 0, 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(std::memcmp(res, want, 8), 0);
        EXPECT_EQ(access("/conf/brask/BackRest.trs2", F_OK), -1);

        EXPECT_TRUE(lockIsFree());
        EXPECT_TRUE(sameArea(readArea(), area));
    }
}

TEST(StatusArea, HeldLockBelongsToTheCallerUntilItGivesItBack) {
    const auto before = held();
    EXPECT_TRUE(withLockedArea([](hslSemiVolatileArea_T& area) {
        EXPECT_EQ(lockCalls(), (LockCalls{1, 1, 1, 0, 0, 0}));
        area.svf.svfStatusList[11] = ST_STANDBY;
    }));
    EXPECT_EQ(lockCalls(), (LockCalls{1, 1, 1, 1, 1, 1}));
    EXPECT_EQ(held(), before);
    EXPECT_EQ(readArea().svf.svfStatusList[11], ST_STANDBY);
    EXPECT_TRUE(lockIsFree());
}

}  // namespace
