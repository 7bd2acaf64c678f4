// Get Backup/Restore Event: which slot wins, what the answer holds, and the
// trace ring it appends to.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "event/eventTestSupport.h"
#include "support/scenario.h"

namespace {

using brask::test::readBytes;
using brask::test::setStates;
using brask::test::withoutLineNumbers;
using brask::test::writeBytes;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

using States = std::array<INT8U, 12>;
using Response = std::array<INT8U, 8>;

constexpr char kTrace[] = "/conf/brask/BackRest.trs2";
const std::string kDebug = "BRASK_DEBUG  : svfOEMExeRestoreEvent(N) : ";

// The slot table as the command is described: rank in pass 1 (a state above
// ST_GENERATED) and in pass 2 (exactly ST_GENERATED); 1 is chosen first.
constexpr int kRunningRank[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
constexpr int kGeneratedRank[12] = {1, 2, 3, 4, 5, 6, 11, 12, 7, 8, 9, 10};
const char* const kSlotNames[12] = {
    "Restore.NpM.Efi",        "Restore.NpM.Bmc",       "Restore.SvpConsole.Efi",
    "Restore.SvpConsole.Bmc", "Restore.BmcConsole.Efi", "Restore.BmcConsole.Bmc",
    "Backup.Auto.Efi",        "Backup.Auto.Bmc",       "Backup.SvpConsole.Efi",
    "Backup.SvpConsole.Bmc",  "Backup.BmcConsole.Efi", "Backup.BmcConsole.Bmc"};

struct Expected {
    Response res;
    int length;
    std::string debugLine;
};

int bestSlot(const States& s, bool (*matches)(INT8U), const int (&rank)[12]) {
    int best = -1;
    for (int i = 0; i < 12; ++i) {
        if (matches(s[i]) && (best < 0 || rank[i] < rank[best])) best = i;
    }
    return best;
}

Expected expectedAnswer(const States& s, INT8U addedInfo, const std::array<INT8U, 3>& reserve) {
    Expected e{{0, 0, 0, 0, addedInfo, reserve[0], reserve[1], reserve[2]}, 8, ""};
    int slot = bestSlot(s, [](INT8U v) { return v > 1; }, kRunningRank);
    if (slot >= 0) {
        e.debugLine = std::string(kSlotNames[slot]) + " > ST_GENERATED";
    } else {
        slot = bestSlot(s, [](INT8U v) { return v == 1; }, kGeneratedRank);
        if (slot == 10) {
            e.debugLine = ".Backup.BmcConsole.Efi == ST_GENERATED";
        } else if (slot == 7) {
            e.debugLine = "Backup.Auto.Bmc == ST_GENERATEDy";
        } else if (slot >= 0) {
            e.debugLine = std::string(kSlotNames[slot]) + " == ST_GENERATED";
        }
    }
    if (slot < 0) {
        e.res[0] = 0x80;
        e.length = 1;
        e.debugLine = "Event All NOTHING";
        return e;
    }
    e.res[1] = static_cast<INT8U>((s[slot] & 0x0F) + (slot < 6 ? 0x10 : 0));
    e.res[2] = static_cast<INT8U>(slot % 2);        // FileType: index = Function*2 + FileType
    e.res[3] = static_cast<INT8U>((slot % 6) / 2);  // Function
    return e;
}

class GetEvent : public ::testing::Test {
protected:
    void SetUp() override {
        hostResetFaults();
        hostResetCounters();
    }
    void TearDown() override { hostResetFaults(); }

    // Calls the handler with no request data; returns the answer and its length.
    static std::pair<Response, int> call(std::string* out = nullptr, INT8U reqLen = 0) {
        Response res;
        res.fill(0xEE);
        INT8U req[4] = {};
        CaptureStdout();
        const int length = svfGetBackupRestoreEvent(reqLen ? req : nullptr, reqLen, res.data());
        const std::string text = GetCapturedStdout();
        if (out) *out = withoutLineNumbers(text);
        return {res, length};
    }
};

// ---- Which event is reported -----------------------------------------------------------

TEST_F(GetEvent, EveryPairOfSlotsAndStatesFollowsTheTwoPassOrders) {
    const std::vector<INT8U> states = {0x00, 0x01, 0x02, 0x13, 0x16, 0xF5};
    const std::array<INT8U, 3> reserve = {0xA1, 0xB2, 0xC3};
    for (int a = 0; a < 12; ++a) {
        for (int b = a + 1; b < 12; ++b) {
            for (INT8U sa : states) {
                for (INT8U sb : states) {
                    States s{};
                    s[a] = sa;
                    s[b] = sb;
                    setStates(s, 0x5C, reserve);
                    const Expected want = expectedAnswer(s, 0x5C, reserve);
                    std::string out;
                    const auto [res, length] = call(&out);
                    SCOPED_TRACE("slot " + std::to_string(a) + " = " + std::to_string(sa) +
                                 ", slot " + std::to_string(b) + " = " + std::to_string(sb));
                    EXPECT_EQ(res, want.res);
                    EXPECT_EQ(length, want.length);
                    EXPECT_EQ(out, kDebug + want.debugLine + "\n");
                    if (HasFailure()) return;  // one broken case says enough
                }
            }
        }
    }
}

// ---- The trace ring --------------------------------------------------------------------

std::vector<INT8U> zeros(size_t n) { return std::vector<INT8U>(n, 0); }

INT32U le32(const std::vector<INT8U>& b, size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (INT32U(b[at + 3]) << 24);
}

TEST_F(GetEvent, FirstCallMakesTheTraceFileAndWritesTheRecordLayout) {
    const States s = {0, 0, 0, 0, 0, 0x13, 0, 0, 0x04, 0, 0, 0};
    setStates(s, 0x11, {1, 2, 3});
    const auto t0 = static_cast<INT32U>(std::time(nullptr));
    const auto [res, length] = call();
    const auto t1 = static_cast<INT32U>(std::time(nullptr));
    ASSERT_EQ(length, 8);

    const auto file = readBytes(kTrace);
    ASSERT_EQ(file.size(), 6416u);
    EXPECT_EQ(std::vector<INT8U>(file.begin(), file.begin() + 16),
              (std::vector<INT8U>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    const std::vector<INT8U> record(file.begin() + 16, file.begin() + 48);
    std::vector<INT8U> want(s.begin(), s.end());
    want.insert(want.end(), {0x11, 1, 2, 3});
    want.insert(want.end(), res.begin(), res.end());
    EXPECT_EQ(std::vector<INT8U>(record.begin(), record.begin() + 24), want);
    EXPECT_GE(le32(record, 24), t0);
    EXPECT_LE(le32(record, 24), t1);
    EXPECT_EQ(le32(record, 28), 0u);
    EXPECT_EQ(std::vector<INT8U>(file.begin() + 48, file.end()), zeros(6416 - 48));
}

TEST_F(GetEvent, NoEventStillLeavesARecord) {
    setStates({}, 0x22, {4, 5, 6});
    const auto [res, length] = call();
    EXPECT_EQ(length, 1);
    EXPECT_EQ(res, (Response{0x80, 0, 0, 0, 0x22, 4, 5, 6}));
    const auto file = readBytes(kTrace);
    ASSERT_GE(file.size(), 48u);
    EXPECT_EQ(std::vector<INT8U>(file.begin() + 32, file.begin() + 40),
              (std::vector<INT8U>{0x80, 0, 0, 0, 0x22, 4, 5, 6}));
}

struct RingCase {
    const char* what;
    std::vector<INT8U> header;  // the file's first bytes before the call
    size_t fileSize;            // the file's size before the call (zero-filled past the header)
    size_t recordAt;
    INT8U nextIndex;
    size_t sizeAfter;
};

TEST_F(GetEvent, RecordAlwaysLandsInsideTheRing) {
    const std::vector<INT8U> tail = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0xA, 0xB, 0xC, 0xD, 0xE, 0xF};
    auto header = [&](INT8U index) {
        std::vector<INT8U> h{index};
        h.insert(h.end(), tail.begin(), tail.end());
        return h;
    };
    const std::vector<RingCase> cases = {
        {"index 7", header(7), 6416, 16 + 7 * 32, 8, 6416},
        {"last slot", header(200), 6416, 6416, 0, 6444},
        {"index past the ring", header(250), 6416, 16, 1, 6416},
        {"empty file", {}, 0, 16, 1, 44},
        {"short header", {3, 1, 2}, 3, 16 + 3 * 32, 4, 16 + 3 * 32 + 28},
        {"short header past the ring", {250, 1}, 2, 16, 1, 44},
    };
    setStates({0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0}, 0x33);
    for (const RingCase& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<INT8U> before = zeros(c.fileSize);
        std::copy(c.header.begin(), c.header.end(), before.begin());
        writeBytes(kTrace, before);

        const auto [res, length] = call();
        ASSERT_EQ(length, 8);
        const auto file = readBytes(kTrace);
        ASSERT_EQ(file.size(), c.sizeAfter);

        // Header: the new index, the other bytes as read (missing ones as zero).
        std::vector<INT8U> wantHeader = zeros(16);
        std::copy(c.header.begin(), c.header.end(), wantHeader.begin());
        wantHeader[0] = c.nextIndex;
        EXPECT_EQ(std::vector<INT8U>(file.begin(), file.begin() + 16), wantHeader);
        EXPECT_EQ(file[c.recordAt + 9], 2);
        EXPECT_EQ(file[c.recordAt + 12], 0x33);
        EXPECT_EQ(std::vector<INT8U>(file.begin() + c.recordAt + 16, file.begin() + c.recordAt + 24),
                  std::vector<INT8U>(res.begin(), res.end()));
        // Nothing else in the file changed.
        std::vector<INT8U> rest(file.begin() + 16, file.end());
        std::fill(rest.begin() + (c.recordAt - 16), rest.begin() + (c.recordAt - 16 + 28), 0);
        std::vector<INT8U> restBefore = zeros(c.sizeAfter - 16);
        EXPECT_EQ(rest, restBefore);
    }
}

TEST_F(GetEvent, RefusedOrFailedCallsWriteNoRecord) {
    setStates({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0});
    std::vector<INT8U> before = zeros(6416);
    before[0] = 5;
    writeBytes(kTrace, before);

    struct Case {
        const char* fault;  // platform function made to fail, or null
        INT8U reqLen;
        INT8U code;
    };
    for (const Case& c : {Case{nullptr, 1, 0xC7}, Case{"hslCreateMutex", 0, 0x88},
                          Case{"hslAcquireMutex", 0, 0x88},
                          Case{"hslGetSemiVolatileArea", 0, 0x89}}) {
        SCOPED_TRACE(c.fault ? c.fault : "request length");
        if (c.fault) {
            ASSERT_EQ(hostFailCall(c.fault, 0, 1, EIO), 0);
        }
        CaptureStderr();
        const auto [res, length] = call(nullptr, c.reqLen);
        (void)GetCapturedStderr();
        EXPECT_EQ(res[0], c.code);
        EXPECT_EQ(length, 1);
        EXPECT_EQ(readBytes(kTrace), before);
    }
}

TEST_F(GetEvent, UnopenableTraceFileDoesNotChangeTheAnswer) {
    setStates({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3}, 1);
    const auto [wantRes, wantLength] = call();  // with a working trace file

    std::filesystem::remove(kTrace);
    ASSERT_EQ(mkdir(kTrace, 0755), 0);
    CaptureStderr();
    const auto [res, length] = call();
    EXPECT_EQ(withoutLineNumbers(GetCapturedStderr()),
              "BRASK_ERR  : svfOEMExeRestoreEvent(N) : fopen fail\n");
    EXPECT_EQ(res, wantRes);
    EXPECT_EQ(length, wantLength);
    rmdir(kTrace);

    // A trace file that cannot be made is skipped without a word of ours.
    std::filesystem::remove_all("/conf/brask");
    CaptureStderr();
    const auto [res2, length2] = call();
    EXPECT_EQ(GetCapturedStderr().find("BRASK_"), std::string::npos);
    EXPECT_EQ(res2, wantRes);
    EXPECT_EQ(length2, wantLength);
}

// ---- Two processes at once -------------------------------------------------------------

// Each child moves its own slot through a few states (under the lock) and asks
// for the event after each move.
[[noreturn]] void hammer(int slot, int calls) {
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDOUT_FILENO);
    dup2(devnull, STDERR_FILENO);
    const INT8U cycle[] = {0x00, 0x01, 0x02, 0x13, 0x16};
    for (int i = 0; i < calls; ++i) {
        Mutex_T* l_hMutex = nullptr;
        hslSemiVolatileMng_T l_mng{};
        hslSemiVolatileArea_T* area = nullptr;
        if (svfGetMutexAndSemiVolatileArea(&l_hMutex, &l_mng, &area) != 0) _exit(2);
        area->svf.svfStatusList[slot] = cycle[i % 5];
        hslFreeSemiVolatileArea(&l_mng);
        hslReleaseMutex(l_hMutex);
        hslDestroyMutex(l_hMutex);

        INT8U res[8];
        const int length = svfGetBackupRestoreEvent(nullptr, 0, res);
        if (length != (res[0] == 0 ? 8 : 1) || (res[0] != 0 && res[0] != 0x80)) _exit(3);
    }
    _exit(0);
}

TEST_F(GetEvent, TwoProcessesLeaveWellFormedRecords) {
    constexpr int kCalls = 1000;
    setStates({}, 0x44, {7, 8, 9});
    const auto t0 = static_cast<INT32U>(std::time(nullptr));
    pid_t pids[2];
    const int slots[2] = {0, 11};
    for (int i = 0; i < 2; ++i) {
        pids[i] = fork();
        ASSERT_GE(pids[i], 0);
        if (pids[i] == 0) hammer(slots[i], kCalls);
    }
    for (pid_t pid : pids) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }
    const auto t1 = static_cast<INT32U>(std::time(nullptr));

    const auto file = readBytes(kTrace);
    ASSERT_EQ(file.size(), 6444u);
    EXPECT_EQ(file[0], (2 * kCalls) % 201);
    for (size_t i = 1; i < 16; ++i) EXPECT_EQ(file[i], 0);
    for (size_t slot = 0; slot <= 200; ++slot) {
        SCOPED_TRACE("record " + std::to_string(slot));
        const size_t at = 16 + 32 * slot;
        States s;
        std::copy(file.begin() + at, file.begin() + at + 12, s.begin());
        for (int i = 1; i < 11; ++i) EXPECT_EQ(s[i], 0);
        const Expected want = expectedAnswer(s, 0x44, {7, 8, 9});
        EXPECT_EQ(std::vector<INT8U>(file.begin() + at + 12, file.begin() + at + 16),
                  (std::vector<INT8U>{0x44, 7, 8, 9}));
        EXPECT_EQ(std::vector<INT8U>(file.begin() + at + 16, file.begin() + at + 24),
                  std::vector<INT8U>(want.res.begin(), want.res.end()));
        EXPECT_GE(le32(file, at + 24), t0);
        EXPECT_LE(le32(file, at + 24), t1);
        if (slot < 200) {
            EXPECT_EQ(le32(file, at + 28), 0u);  // slot 200 ends the file at byte 28
        }
        if (HasFailure()) return;
    }
}

}  // namespace
