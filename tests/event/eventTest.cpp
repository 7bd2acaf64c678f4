// The event side: Get Backup/Restore Event and its trace ring, the state
// machine applied to a status byte, the processing flags and the status-area
// lock handed to other components.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include <array>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "support/builders.h"
#include "support/interpose.h"
#include "support/observe.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/transcript.h"

namespace brask::test {
namespace {

constexpr char kTrace[] = "/conf/brask/BackRest.trs2";
const std::string kGet = "BRASK_DEBUG  : svfOEMExeRestoreEvent(#) : ";
const std::string kGetErr = "BRASK_ERR  : svfOEMExeRestoreEvent(#) : ";

hslSemiVolatileArea_T area() {
    hslSemiVolatileArea_T a{};
    EXPECT_EQ(hostSemiVolRead(&a), 0);
    return a;
}

void setSlots(const std::vector<std::pair<int, INT8U>>& slots, INT8U addedInfo = 0) {
    hslSemiVolatileArea_T a = area();
    for (auto [slot, state] : slots) a.svf.svfStatusList[slot] = state;
    a.svf.RestoreAddedInfo = addedInfo;
    a.svf.Reserve[0] = 0xA1;
    a.svf.Reserve[2] = 0xA3;
    ASSERT_EQ(hostSemiVolWrite(&a), 0);
}

struct GetCase {
    const char* name;
    std::vector<std::pair<int, INT8U>> slots;  // every other slot holds 0
    std::array<INT8U, 4> answer;               // completion code, EventType, FileType, Function
    int length;
    std::string line;  // the debug line naming the choice
};

// Pass 1 (a state above ST_GENERATED, in index order) beats pass 2 (exactly
// ST_GENERATED, automatic backups last); the two pass-2 lines that have always
// been irregular are kept as they are.
// clang-format off
const GetCase kGetCases[] = {
    {"nothing", {}, {0x80, 0, 0, 0}, 1, "Event All NOTHING"},
    {"running beats waiting", {{3, 1}, {6, 2}}, {0, 0x02, 0, 0}, 8, "Backup.Auto.Efi > ST_GENERATED"},
    {"index order in pass 1", {{11, 4}, {2, 0x16}}, {0, 0x16, 0, 1}, 8, "Restore.SvpConsole.Efi > ST_GENERATED"},
    {"state taken unsigned", {{9, 0xF3}}, {0, 0x03, 1, 1}, 8, "Backup.SvpConsole.Bmc > ST_GENERATED"},
    {"restore adds 0x10", {{5, 0x13}}, {0, 0x13, 1, 2}, 8, "Restore.BmcConsole.Bmc > ST_GENERATED"},
    {"backup state low nibble", {{11, 0x16}}, {0, 0x06, 1, 2}, 8, "Backup.BmcConsole.Bmc > ST_GENERATED"},
    {"auto backups last", {{7, 1}, {8, 1}}, {0, 0x01, 0, 1}, 8, "Backup.SvpConsole.Efi == ST_GENERATED"},
    {"restores first in pass 2", {{10, 1}, {4, 1}}, {0, 0x11, 0, 2}, 8, "Restore.BmcConsole.Efi == ST_GENERATED"},
    {"irregular line of slot 10", {{10, 1}, {7, 1}}, {0, 0x01, 0, 2}, 8, ".Backup.BmcConsole.Efi == ST_GENERATED"},
    {"irregular line of slot 7", {{7, 1}}, {0, 0x01, 1, 0}, 8, "Backup.Auto.Bmc == ST_GENERATEDy"},
    {"slot 6 after the others", {{6, 1}, {7, 1}}, {0, 0x01, 0, 0}, 8, "Backup.Auto.Efi == ST_GENERATED"},
};
// clang-format on

TEST(GetEvent, ChoosesBySlotAndStateAndAppendsOneRecord) {
    for (const GetCase& c : kGetCases) {
        SCOPED_TRACE(c.name);
        resetState();
        setSlots(c.slots, 0x5C);
        const hslSemiVolatileArea_T before = area();
        std::array<INT8U, 8> res;
        res.fill(0xEE);
        const Observed o = observe([&] { return svfGetBackupRestoreEvent(nullptr, 0, res.data()); });
        EXPECT_EQ(o.result, c.length);
        const std::array<INT8U, 8> want = {c.answer[0], c.answer[1], c.answer[2], c.answer[3],
                                           0x5C,        0xA1,        0,           0xA3};
        EXPECT_EQ(res, want);
        EXPECT_EQ(o.out, kGet + c.line + "\n");
        EXPECT_EQ(o.leakedMappings + o.leakedDescriptors, 0);
        // Each lock step taken once and given back once.
        for (const char* call : {"hslCreateMutex", "hslDestroyMutex", "hslAcquireMutex", "hslReleaseMutex",
                                 "hslGetSemiVolatileArea", "hslFreeSemiVolatileArea"}) {
            EXPECT_EQ(hostCallCount(call), 1) << call;
        }
        const hslSemiVolatileArea_T after = area();
        EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0) << "the area is only read";

        // First call: a 6416-byte file of zeros with the record at 16.
        const Bytes trace = readBytes(kTrace);
        ASSERT_EQ(trace.size(), 6416u);
        EXPECT_EQ(trace[0], 1);
        EXPECT_TRUE(std::equal(before.svf.svfStatusList, before.svf.svfStatusList + 12, trace.begin() + 16));
        EXPECT_TRUE(std::equal(want.begin(), want.end(), trace.begin() + 32));
        const std::uint32_t when =
            trace[40] | trace[41] << 8 | trace[42] << 16 | std::uint32_t(trace[43]) << 24;
        EXPECT_NEAR(double(when), double(std::time(nullptr)), 5.0);
    }
}

TEST(GetEvent, TraceRingWrapsAndClamps) {
    // Header index: where the record goes and the index written back.
    const struct {
        INT8U index;
        std::size_t at, size;
        INT8U next;
    } cases[] = {
        {0, 16, 6416, 1},     {7, 16 + 7 * 32, 6416, 8}, {199, 16 + 199 * 32, 6416, 200},
        {200, 6416, 6444, 0}, {201, 16, 6416, 1},        {250, 16, 6416, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(int(c.index));
        Bytes file(6416, 0);
        file[0] = c.index;
        file[5] = 0x77;  // header bytes 1..15 are written back as read
        writeBytes(kTrace, file);
        setSlots({{1, 3}});
        INT8U res[8];
        ASSERT_EQ(svfGetBackupRestoreEvent(nullptr, 0, res), 8);
        const Bytes after = readBytes(kTrace);
        ASSERT_EQ(after.size(), c.size);
        EXPECT_EQ(after[0], c.next);
        EXPECT_EQ(after[5], 0x77);
        EXPECT_EQ(after[c.at + 1], 3) << "record of slot 1's state";
        EXPECT_EQ(after[c.at + 17], 0x13) << "the answer's EventType";
    }
    // A header cut short reads as zeros where it is missing.
    writeBytes(kTrace, Bytes(3, 0));
    INT8U res[8];
    ASSERT_EQ(svfGetBackupRestoreEvent(nullptr, 0, res), 8);
    EXPECT_EQ(readBytes(kTrace).size(), 16u + 28u);  // the record's last 4 bytes are never written
}

// Requests refused before the area is read, and lock steps that fail: each
// with its code and line, no record, nothing left held.
TEST(GetEvent, RefusalsLeaveNoRecordAndHoldNothing) {
    const struct {
        const char* name;
        std::string platformCall;  // made to fail with EPERM, or ""
        int reqLen;
        INT8U code;
        std::string err;
    } cases[] = {
        {"request data", "", 1, 0xC7, kGetErr + "Request Length Error(1)\n"},
        {"mutex not made", "hslCreateMutex", 0, 0x88, kGetErr + "failed to get mutex(1)\n"},
        {"mutex not taken", "hslAcquireMutex", 0, 0x88, kGetErr + "failed to get mutex(1)\n"},
        {"area not mapped", "hslGetSemiVolatileArea", 0, 0x89, kGetErr + "failed to get SemiVolatile(1)\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        hostResetFaults();
        hostResetCounters();
        setSlots({{5, 3}});
        if (!c.platformCall.empty()) {
            ASSERT_EQ(hostFailCall(c.platformCall.c_str(), 0, 1, EPERM), 0);
        }
        INT8U req[1] = {0};
        std::array<INT8U, 8> res;
        res.fill(0xEE);
        const Observed o = observe([&] {
            return svfGetBackupRestoreEvent(c.reqLen ? req : nullptr, static_cast<INT8U>(c.reqLen),
                                            res.data());
        });
        EXPECT_EQ(o.result, 1);
        EXPECT_EQ(res, (std::array<INT8U, 8>{c.code, 0, 0, 0, 0, 0, 0, 0}));
        EXPECT_EQ(o.err, c.err);
        EXPECT_EQ(o.changes, "");
        EXPECT_EQ(o.leakedDescriptors, 0);
        // Whatever was taken is given back: every create has its destroy.
        EXPECT_EQ(hostCallCount("hslCreateMutex"),
                  hostCallCount("hslDestroyMutex") + (c.platformCall == "hslCreateMutex"));
        EXPECT_EQ(hostCallCount("hslAcquireMutex") - (c.platformCall == "hslAcquireMutex"),
                  hostCallCount("hslReleaseMutex"));
    }
}

TEST(GetEvent, TraceThatCannotBeOpenedChangesNothingOfTheAnswer) {
    setSlots({{0, 2}});
    ASSERT_EQ(::mkdir(kTrace, 0755), 0);  // open fails with EISDIR
    INT8U res[8];
    Observed o = observe([&] { return svfGetBackupRestoreEvent(nullptr, 0, res); });
    EXPECT_EQ(o.result, 8);
    EXPECT_EQ(o.err, kGetErr + "fopen fail\n");
    ::rmdir(kTrace);
    // Missing and cannot be made: silence, same answer.
    FailCall noShell(Call::System, 0, "dd ");
    o = observe([&] { return svfGetBackupRestoreEvent(nullptr, 0, res); });
    EXPECT_EQ(o.result, 8);
    EXPECT_EQ(o.err, "");
    EXPECT_EQ(res[1], 0x12);
}

// ---- The state machine on a status byte ----------------------------------------

struct SetCase {
    INT8U now, operation;
    INT8U stored;
    INT32S result;
    std::vector<std::string> err;  // after "BRASK_ERR  : svfModSvfEvent(#) : "
    std::string out;               // the transition line(s), after the debug tag
};

// clang-format off
const SetCase kSetCases[] = {
    {ST_NOTHING, BMC_GENERATE_EVENT, ST_GENERATED, ST_GENERATED, {},
     "(NowEvent == ST_NOTHING) && (Operation== BMC_GENERATE_EVENT) > ST_GENERATED"},
    {ST_PROCESSING, BMC_COMPLETE_SUCCESS, ST_COMPLETION, ST_COMPLETION, {},
     "(NowEvent == ST_PROCESSING) && (Operation== BMC_COMPLETE_SUCCESS) > ST_COMPLETION"},
    {ST_FAIL_AND_GENERATED, BMC_GENERATE_EVENT, ST_FAIL_AND_GENERATED, ST_FAIL_AND_GENERATED, {},
     "(NowEvent == ST_FAIL_AND_GENERATED) && (Operation== BMC_GENERATE_EVENT > ST_FAIL_AND_GENERATED"},
    {ST_COMPLETION_AND_GENERATED, SVP_RESTORE_SUCCESS_OK, ST_GENERATED, ST_GENERATED, {},
     "(NowEvent == ST_COMPLETION_AND_GENERATED) && (Operation== SVP_RESTORE_SUCCESS_OK) > ST_GENERATED"},
    {ST_STANDBY, BMC_START, ST_PROCESSING, ST_PROCESSING, {},
     "(NowEvent == ST_STANDBY) && (Operation== BMC_START) > ST_PROCESSING"},
    {0x42, BMC_FORCE_CLEAR, ST_NOTHING, ST_NOTHING, {}, "Operation == BMC_FORCE_CLEAR > ST_NOTHING"},
    {ST_GENERATED, BMC_FORCE_FAIL, ST_FAIL, ST_FAIL, {}, "peration == BMC_FORCE_FAIL > ST_FAIL"},
    // Rejected while processing: failed, the generated bit kept.
    {ST_PROCESSING, SVP_BACKUP_TRANS_SUCCESS, ST_FAIL, ST_FAIL, {"UNJUST_OPERATION"},
     "(NowEvent == ST_PROCESSING) && (Operation== BMC_COMPLETE_FAIL) > ST_FAIL"},
    {ST_PROCESSING_AND_GENERATED, BMC_START, ST_FAIL_AND_GENERATED, ST_FAIL_AND_GENERATED, {"UNJUST_OPERATION"},
     "(NowEvent == ST_PROCESSING_AND_GENERATED) && (Operation== BMC_COMPLETE_FAIL) > ST_FAIL_AND_GENERATED"},
    // Rejected anywhere else: forced to ST_FAIL, told by 0xFF.
    {ST_NOTHING, SVP_BACKUP_TRANS_REQ, ST_FAIL, 0xFF, {"UNJUST_OPERATION", "TargetStatus = BMC_FORCE_FAIL"},
     "peration == BMC_FORCE_FAIL > ST_FAIL"},
    {ST_COMPLETION_AND_GENERATED, SVP_RESTORE_FAIL_OK, ST_FAIL, 0xFF,
     {"UNJUST_OPERATION", "TargetStatus = BMC_FORCE_FAIL"}, "peration == BMC_FORCE_FAIL > ST_FAIL"},
    {ST_GENERATED, BMC_START, ST_FAIL, 0xFF, {"UNJUST_OPERATION", "TargetStatus = BMC_FORCE_FAIL"},
     "peration == BMC_FORCE_FAIL > ST_FAIL"},
    {0x42, BMC_GENERATE_EVENT, ST_FAIL, 0xFF, {"UNJUST_OPERATION", "TargetStatus = BMC_FORCE_FAIL"},
     "peration == BMC_FORCE_FAIL > ST_FAIL"},
};
// clang-format on

TEST(SetSvfEvent, StoresTheNextStateOrDrivesTheByteToFailure) {
    for (const SetCase& c : kSetCases) {
        SCOPED_TRACE(testing::Message() << std::hex << int(c.now) << " op " << int(c.operation));
        INT8U byte = c.now;
        const Observed o = observe([&] { return svfSetSvfEvent(&byte, c.operation); });
        EXPECT_EQ(byte, c.stored);
        EXPECT_EQ(o.result, c.result);
        std::string err;
        for (const std::string& e : c.err) err += "BRASK_ERR  : svfModSvfEvent(#) : " + e + "\n";
        EXPECT_EQ(o.err, err);
        EXPECT_EQ(o.out, "BRASK_DEBUG  : svfModSvfEvent(#) : " + c.out + "\n");
    }
}

// Every operation is accepted from every state the lifecycle reaches, and
// leads where the acknowledgement rules say.
TEST(SetSvfEvent, LifecycleOfAnEventGeneratedTwice) {
    INT8U byte = ST_NOTHING;
    const std::pair<INT8U, INT8U> steps[] = {
        {BMC_GENERATE_EVENT, ST_GENERATED},  {BMC_GENERATE_EVENT, ST_GENERATED},
        {SVP_RESTORE_PROC_REQ, ST_STANDBY},  {SVP_BACKUP_TRANS_REQ, ST_STANDBY},
        {BMC_GENERATE_EVENT, ST_GENERATED},  {SVP_BACKUP_TRANS_REQ, ST_STANDBY},
        {BMC_START, ST_PROCESSING},          {SVP_RESTORE_PROC_REQ, ST_PROCESSING},
        {BMC_GENERATE_EVENT, 0x13},          {SVP_BACKUP_TRANS_REQ, 0x13},
        {BMC_COMPLETE_INVALID, 0x16},        {BMC_GENERATE_EVENT, 0x16},
        {SVP_RESTORE_FAIL_OK, ST_GENERATED}, {SVP_BACKUP_TRANS_REQ, ST_STANDBY},
        {BMC_START, ST_PROCESSING},          {BMC_COMPLETE_INVALID, ST_INVALID_DATA},
        {SVP_BACKUP_TRANS_FAIL, ST_NOTHING},
    };
    for (auto [operation, next] : steps) {
        SCOPED_TRACE(int(operation));
        captureOutput([&] { EXPECT_EQ(svfSetSvfEvent(&byte, operation), next); });
        EXPECT_EQ(byte, next);
    }
}

// ---- Processing flags and the lock handed out -------------------------------------

TEST(StatusArea, EachFlagIsOneByteAndTheOldValueComesBack) {
    const struct {
        INT8U fileType, mode;
        std::size_t offset;
        const char* label;
    } flags[] = {
        {BMC_FILE, 1, offsetof(svfAutoBack_T, BmcBackFlag), "BACKUP , BMC_FILE"},
        {EFI_FILE, 1, offsetof(svfAutoBack_T, EfiBackFlag), "BACKUP , EFI_FILE"},
        {BMC_FILE, 0, offsetof(svfAutoBack_T, BmcRestoreFlag), "REST , BMC_FILE"},
        {7, 2, offsetof(svfAutoBack_T, EfiRestoreFlag), "REST , EFI_FILE"},
    };
    for (const auto& f : flags) {
        SCOPED_TRACE(f.label);
        const hslSemiVolatileArea_T before = area();
        Observed o = observe([&] { return svfSetChkBkupRestProcessingFlag(0x5A, f.fileType, f.mode); });
        EXPECT_EQ(o.result, 0);
        EXPECT_EQ(o.out,
                  "BRASK_DEBUG  : svfOEMSetBackupEvent(#) : svfSetChkBkupRestProcessingFlag\n"
                  "BRASK_DEBUG  : svfOEMSetBackupEvent(#) : " +
                      std::string(f.label) +
                      ", Set = 90\n"
                      "BRASK_DEBUG  : svfOEMSetBackupEvent(#) : RetVal = 0\n");
        hslSemiVolatileArea_T want = before;
        reinterpret_cast<INT8U*>(&want.svfAutoBack)[f.offset] = 0x5A;
        hslSemiVolatileArea_T now = area();
        EXPECT_EQ(std::memcmp(&want, &now, sizeof want), 0);
        o = observe([&] { return svfSetChkBkupRestProcessingFlag(0, f.fileType, f.mode); });
        EXPECT_EQ(o.result, 0x5A);
        reinterpret_cast<INT8U*>(&want.svfAutoBack)[f.offset] = 0;
        now = area();
        EXPECT_EQ(std::memcmp(&want, &now, sizeof want), 0);
    }
}

TEST(StatusArea, LockFailuresAreReportedWithTheFourBlankTag) {
    const std::string tag = "BRASK_ERR    : svfOEMSetBackupEvent(#) : ";
    const struct {
        const char* call;
        std::string line;
    } cases[] = {
        {"hslCreateMutex", "failed to get mutex(13)"},
        {"hslAcquireMutex", "failed to get mutex(13)"},
        {"hslGetSemiVolatileArea", "failed to get SemiVolatile(13)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.call);
        hostResetFaults();
        ASSERT_EQ(hostFailCall(c.call, 0, 2, EACCES), 0);
        Observed o = observe([] { return svfSetChkBkupRestProcessingFlag(1, BMC_FILE, 1); });
        EXPECT_EQ(o.result, -1);
        EXPECT_EQ(o.err, tag + c.line + "\n" + tag + "svfGetMutexAndSemiVolatileArea Fail\n");
        Mutex_T* mutex = nullptr;
        hslSemiVolatileMng_T mng{};
        hslSemiVolatileArea_T* mapped = nullptr;
        o = observe([&] { return svfGetMutexAndSemiVolatileArea(&mutex, &mng, &mapped); });
        EXPECT_EQ(o.result, -1);
        EXPECT_EQ(o.err, tag + c.line + "\n");
        EXPECT_EQ(o.leakedMappings, 0);
    }
    EXPECT_EQ(svfGetMutexAndSemiVolatileArea(nullptr, nullptr, nullptr), -1);
}

TEST(StatusArea, HandedOutLockIsHeldUntilTheCallerGivesItBack) {
    Mutex_T* mutex = nullptr;
    hslSemiVolatileMng_T mng{};
    hslSemiVolatileArea_T* mapped = nullptr;
    ASSERT_EQ(svfGetMutexAndSemiVolatileArea(&mutex, &mng, &mapped), 0);
    ASSERT_NE(mapped, nullptr);
    mapped->svf.svfStatusList[4] = ST_STANDBY;
    // Another user of the area waits: a Get from a child cannot finish.
    const pid_t child = ::fork();
    if (child == 0) {
        INT8U res[8];
        ::alarm(1);  // ended by SIGALRM while it waits
        (void)captureOutput([&] { svfGetBackupRestoreEvent(nullptr, 0, res); });
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the child got the lock while it was handed out";
    EXPECT_EQ(hslFreeSemiVolatileArea(&mng), 0);
    EXPECT_EQ(hslReleaseMutex(mutex), 0);
    EXPECT_EQ(hslDestroyMutex(mutex), 0);
    EXPECT_EQ(area().svf.svfStatusList[4], ST_STANDBY);
}

}  // namespace
}  // namespace brask::test
