// The event side: Get Backup/Restore Event and its trace ring, the state
// machine applied to a status byte, the processing flags and the status-area
// lock handed to other components.

#include <cstring>
#include <ctime>
#include <tuple>

#include "support/suite.h"

namespace brask::test {
namespace {

using std::tuple;
using Answer = std::array<INT8U, 8>;
constexpr Answer kUnset = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};  // what no call wrote
constexpr char kTrace[] = "/conf/brask/BackRest.trs2";
const std::string kGet = "BRASK_DEBUG  : svfOEMExeRestoreEvent(#) : ";
const std::string kGetErr = "BRASK_ERR  : svfOEMExeRestoreEvent(#) : ";

hslSemiVolatileArea_T area() {
    hslSemiVolatileArea_T a{};
    EXPECT_EQ(hostSemiVolRead(&a), 0);
    return a;
}

struct GetCase {
    const char* name;
    std::vector<std::pair<int, INT8U>> slots;  // every other slot holds 0
    std::array<INT8U, 4> answer;               // completion code, EventType, FileType, Function
    int length;
    std::string line;  // the debug line naming the choice
    // The trace before: none (made of 6416 zeros), or `size` bytes of 0x77;
    // where the record goes and the trace's size after; the header index
    // before and the one written back.
    std::size_t size = 0, at = 16, sizeAfter = 6416;
    INT8U index = 0, next = 1;
};

// Pass 1 (a state above ST_GENERATED, in index order) beats pass 2 (exactly
// ST_GENERATED, automatic backups last); the two pass-2 lines that have always
// been irregular are kept as they are.  The ring's last slot is 200: an index
// past it starts over at 0, and a header cut short reads as zeros (the
// record's last 4 bytes are never written).
// clang-format off
const GetCase kGetCases[] = {
    {"nothing", {}, {0x80, 0, 0, 0}, 1, "Event All NOTHING"},
    {"running beats waiting", {{3, 1}, {6, 2}}, {0, 0x02, 0, 0}, 8, "Backup.Auto.Efi > ST_GENERATED", 6416, 16 + 199 * 32, 6416, 199, 200},
    {"index order in pass 1", {{11, 4}, {2, 0x16}}, {0, 0x16, 0, 1}, 8, "Restore.SvpConsole.Efi > ST_GENERATED", 6416, 6416, 6444, 200, 0},
    {"state taken unsigned", {{9, 0xF3}}, {0, 0x03, 1, 1}, 8, "Backup.SvpConsole.Bmc > ST_GENERATED", 6416, 16, 6416, 201},
    {"restore adds 0x10", {{5, 0x13}}, {0, 0x13, 1, 2}, 8, "Restore.BmcConsole.Bmc > ST_GENERATED", 3, 16, 16 + 28},
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
        hslSemiVolatileArea_T before = area();
        for (auto [slot, state] : c.slots) before.svf.svfStatusList[slot] = state;
        before.svf.RestoreAddedInfo = 0x5C, before.svf.Reserve[0] = 0xA1, before.svf.Reserve[2] = 0xA3;
        ASSERT_EQ(hostSemiVolWrite(&before), 0);
        Bytes trace(c.size, 0x77);
        if (c.size) trace[0] = c.index, writeBytes(kTrace, trace);
        Answer res = kUnset;
        const Observed o = observe([&] { return svfGetBackupRestoreEvent(nullptr, 0, res.data()); });
        const auto [cc, type, file, function] = c.answer;
        const Answer want = {cc, type, file, function, 0x5C, 0xA1, 0, 0xA3};
        EXPECT_EQ(tuple(o.result, res, o.out, o.leakedMappings + o.leakedDescriptors),
                  tuple(c.length, want, kGet + c.line + "\n", 0));
        const hslSemiVolatileArea_T after = area();
        EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0) << "the area is only read";

        // The record: the status bytes as read, the answer, the time; the
        // rest of the header written back as it was.
        const Bytes now = readBytes(kTrace);
        ASSERT_EQ(now.size(), c.sizeAfter);
        trace.resize(16), trace[0] = c.next;
        EXPECT_TRUE(std::equal(trace.begin(), trace.end(), now.begin()));
        EXPECT_EQ(std::memcmp(&before.svf, &now[c.at], sizeof before.svf), 0);
        EXPECT_TRUE(std::equal(want.begin(), want.end(), now.begin() + c.at + 16));
        const std::uint32_t when =
            now[c.at + 24] | now[c.at + 25] << 8 | now[c.at + 26] << 16 | std::uint32_t(now[c.at + 27]) << 24;
        EXPECT_NEAR(double(when), double(std::time(nullptr)), 5.0);
    }
}

// ---- The state machine on a status byte ----------------------------------------

// The state and the operation; the byte and the result after, the error
// lines after "BRASK_ERR  : svfModSvfEvent(#) : ", the transition line(s)
// after the debug tag.
using SetCase = tuple<INT8U, INT8U, INT8U, INT32S, std::vector<std::string>, std::string>;

const std::vector<std::string> kForced = {"UNJUST_OPERATION", "TargetStatus = BMC_FORCE_FAIL"};
// clang-format off
const SetCase kSetCases[] = {
    {ST_NOTHING, BMC_GENERATE_EVENT, ST_GENERATED, ST_GENERATED, {}, "(NowEvent == ST_NOTHING) && (Operation== BMC_GENERATE_EVENT) > ST_GENERATED"},
    {ST_PROCESSING, BMC_COMPLETE_SUCCESS, ST_COMPLETION, ST_COMPLETION, {}, "(NowEvent == ST_PROCESSING) && (Operation== BMC_COMPLETE_SUCCESS) > ST_COMPLETION"},
    {ST_FAIL_AND_GENERATED, BMC_GENERATE_EVENT, ST_FAIL_AND_GENERATED, ST_FAIL_AND_GENERATED, {}, "(NowEvent == ST_FAIL_AND_GENERATED) && (Operation== BMC_GENERATE_EVENT > ST_FAIL_AND_GENERATED"},
    {ST_COMPLETION_AND_GENERATED, SVP_RESTORE_SUCCESS_OK, ST_GENERATED, ST_GENERATED, {}, "(NowEvent == ST_COMPLETION_AND_GENERATED) && (Operation== SVP_RESTORE_SUCCESS_OK) > ST_GENERATED"},
    {ST_STANDBY, BMC_START, ST_PROCESSING, ST_PROCESSING, {}, "(NowEvent == ST_STANDBY) && (Operation== BMC_START) > ST_PROCESSING"},
    {0x42, BMC_FORCE_CLEAR, ST_NOTHING, ST_NOTHING, {}, "Operation == BMC_FORCE_CLEAR > ST_NOTHING"},
    {ST_GENERATED, BMC_FORCE_FAIL, ST_FAIL, ST_FAIL, {}, "peration == BMC_FORCE_FAIL > ST_FAIL"},
    // Rejected while processing: failed, the generated bit kept.
    {ST_PROCESSING, SVP_BACKUP_TRANS_SUCCESS, ST_FAIL, ST_FAIL, {"UNJUST_OPERATION"}, "(NowEvent == ST_PROCESSING) && (Operation== BMC_COMPLETE_FAIL) > ST_FAIL"},
    {ST_PROCESSING_AND_GENERATED, BMC_START, ST_FAIL_AND_GENERATED, ST_FAIL_AND_GENERATED, {"UNJUST_OPERATION"}, "(NowEvent == ST_PROCESSING_AND_GENERATED) && (Operation== BMC_COMPLETE_FAIL) > ST_FAIL_AND_GENERATED"},
    // Rejected anywhere else: forced to ST_FAIL, told by 0xFF.
    {ST_NOTHING, SVP_BACKUP_TRANS_REQ, ST_FAIL, 0xFF, kForced, "peration == BMC_FORCE_FAIL > ST_FAIL"},
    {ST_COMPLETION_AND_GENERATED, SVP_RESTORE_FAIL_OK, ST_FAIL, 0xFF, kForced, "peration == BMC_FORCE_FAIL > ST_FAIL"},
    {ST_GENERATED, BMC_START, ST_FAIL, 0xFF, kForced, "peration == BMC_FORCE_FAIL > ST_FAIL"},
    {0x42, BMC_GENERATE_EVENT, ST_FAIL, 0xFF, kForced, "peration == BMC_FORCE_FAIL > ST_FAIL"},
    {ST_NOTHING, 0, ST_FAIL, 0xFF, kForced, "peration == BMC_FORCE_FAIL > ST_FAIL"},  // no operation code
};
// clang-format on

TEST(SetSvfEvent, StoresTheNextStateOrDrivesTheByteToFailure) {
    for (const auto& [now, operation, stored, result, errors, out] : kSetCases) {
        SCOPED_TRACE(testing::Message() << std::hex << int(now) << " op " << int(operation));
        INT8U byte = now;
        const Observed o = observe([&] { return svfSetSvfEvent(&byte, operation); });
        std::string err;
        for (const std::string& e : errors) err += "BRASK_ERR  : svfModSvfEvent(#) : " + e + "\n";
        EXPECT_EQ(tuple(byte, o.result, o.err, o.out),
                  tuple(stored, result, err, "BRASK_DEBUG  : svfModSvfEvent(#) : " + out + "\n"));
    }
    // Every operation is accepted from every state the lifecycle of an event
    // generated twice reaches, and leads where the acknowledgement rules say.
    INT8U byte = ST_NOTHING;
    // clang-format off
    const std::pair<INT8U, INT8U> steps[] = {
        {BMC_GENERATE_EVENT, ST_GENERATED}, {BMC_GENERATE_EVENT, ST_GENERATED}, {SVP_RESTORE_PROC_REQ, ST_STANDBY}, {SVP_BACKUP_TRANS_REQ, ST_STANDBY},
        {BMC_GENERATE_EVENT, ST_GENERATED}, {SVP_BACKUP_TRANS_REQ, ST_STANDBY}, {BMC_START, ST_PROCESSING}, {SVP_RESTORE_PROC_REQ, ST_PROCESSING},
        {BMC_GENERATE_EVENT, 0x13}, {SVP_BACKUP_TRANS_REQ, 0x13}, {BMC_COMPLETE_INVALID, 0x16}, {BMC_GENERATE_EVENT, 0x16},
        {SVP_RESTORE_FAIL_OK, ST_GENERATED}, {SVP_BACKUP_TRANS_REQ, ST_STANDBY}, {BMC_START, ST_PROCESSING}, {BMC_COMPLETE_INVALID, ST_INVALID_DATA},
        {SVP_BACKUP_TRANS_FAIL, ST_NOTHING},
    };
    // clang-format on
    for (auto [operation, next] : steps) {
        SCOPED_TRACE(int(operation));
        captureOutput([&] { EXPECT_EQ(svfSetSvfEvent(&byte, operation), next); });
        EXPECT_EQ(byte, next);
    }
}

// ---- Processing flags and the lock handed out -------------------------------------

TEST(StatusArea, EachFlagIsOneByteAndTheOldValueComesBack) {
    const std::string dbg = "BRASK_DEBUG  : svfOEMSetBackupEvent(#) : ";
    const tuple<INT8U, INT8U, std::size_t, std::string> flags[] = {
        {BMC_FILE, 1, offsetof(svfAutoBack_T, BmcBackFlag), "BACKUP , BMC_FILE"},
        {EFI_FILE, 1, offsetof(svfAutoBack_T, EfiBackFlag), "BACKUP , EFI_FILE"},
        {BMC_FILE, 0, offsetof(svfAutoBack_T, BmcRestoreFlag), "REST , BMC_FILE"},
        {7, 2, offsetof(svfAutoBack_T, EfiRestoreFlag), "REST , EFI_FILE"},
    };
    for (const auto& [fileType, mode, offset, label] : flags) {
        hslSemiVolatileArea_T want = area();
        for (const int set : {0x5A, 0}) {
            INT8U& flag = reinterpret_cast<INT8U*>(&want.svfAutoBack)[offset];
            const int old = std::exchange(flag, INT8U(set));
            const Observed o = observe([&] { return svfSetChkBkupRestProcessingFlag(set, fileType, mode); });
            const hslSemiVolatileArea_T now = area();
            EXPECT_EQ(tuple(o.result, std::memcmp(&want, &now, sizeof want)), tuple(old, 0));
            EXPECT_EQ(o.out, dbg + "svfSetChkBkupRestProcessingFlag\n" + dbg + label + ", Set = " +
                                 std::to_string(set) + "\n" + dbg + "RetVal = " + std::to_string(old) + "\n");
        }
    }
}

// A lock step that fails: Get answers its code and nothing else, the flag and
// the handed-out lock -1; each names the step, and no record is written.
// Whatever was taken is given back (the fault sweep checks that).
TEST(StatusArea, LockStepFailures) {
    const std::string set = "BRASK_ERR    : svfOEMSetBackupEvent(#) : ";
    const tuple<const char*, INT8U, std::string> cases[] = {
        {"hslCreateMutex", 0x88, "failed to get mutex(1)\n"},
        {"hslAcquireMutex", 0x88, "failed to get mutex(1)\n"},
        {"hslGetSemiVolatileArea", 0x89, "failed to get SemiVolatile(1)\n"},
    };
    Mutex_T* mutex = nullptr;
    hslSemiVolatileMng_T mng{};
    hslSemiVolatileArea_T* mapped = nullptr;
    Answer res = kUnset;
    for (const auto& [call, code, line] : cases) {
        SCOPED_TRACE(call);
        hostResetFaults();
        ASSERT_EQ(hostFailCall(call, 0, 3, EPERM), 0);
        res = kUnset;
        const Observed get = observe([&] { return svfGetBackupRestoreEvent(nullptr, 0, res.data()); });
        const Observed flag = observe([] { return svfSetChkBkupRestProcessingFlag(1, BMC_FILE, 1); });
        const Observed lock = observe([&] { return svfGetMutexAndSemiVolatileArea(&mutex, &mng, &mapped); });
        EXPECT_EQ(tuple(get.result, res, get.changes, flag.result, lock.result, lock.leakedMappings),
                  tuple(1, Answer{code}, "", -1, -1, 0));
        EXPECT_EQ(get.err + flag.err + lock.err,
                  kGetErr + line + set + line + set + "svfGetMutexAndSemiVolatileArea Fail\n" + set + line);
    }
    // Request data, or nowhere to put a handle: refused before the lock.
    hostResetFaults();
    INT8U req[1] = {0};
    res = kUnset;
    const Observed o = observe([&] { return svfGetBackupRestoreEvent(req, 1, res.data()); });
    EXPECT_EQ(tuple(o.result, res, o.err, o.changes),
              tuple(1, Answer{0xC7}, kGetErr + "Request Length Error(1)\n", ""));
    EXPECT_EQ(svfGetMutexAndSemiVolatileArea(&mutex, &mng, nullptr), -1);
    EXPECT_EQ(svfGetMutexAndSemiVolatileArea(nullptr, &mng, &mapped), -1);
}

}  // namespace
}  // namespace brask::test
