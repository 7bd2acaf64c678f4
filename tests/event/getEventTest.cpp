// Get Backup/Restore Event: which slot wins, what the answer holds, and the
// trace ring it appends to.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "event/eventTestSupport.h"
#include "support/scenario.h"

namespace {

using namespace brask::test;

using States = std::array<INT8U, 12>;
using Response = std::array<INT8U, 8>;
using Bytes = std::vector<INT8U>;

constexpr char kTrace[] = "/conf/brask/BackRest.trs2";
const std::string kDebug = "BRASK_DEBUG  : svfOEMExeRestoreEvent(N) : ";

// The slot table as the command is described: pass 1 takes the first slot in
// index order above ST_GENERATED, pass 2 the first at exactly ST_GENERATED in
// kGeneratedOrder.
constexpr int kIndexOrder[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr int kGeneratedOrder[12] = {0, 1, 2, 3, 4, 5, 8, 9, 10, 11, 6, 7};
const std::string kSlotNames[12] = {
    "Restore.NpM.Efi",        "Restore.NpM.Bmc",       "Restore.SvpConsole.Efi",
    "Restore.SvpConsole.Bmc", "Restore.BmcConsole.Efi", "Restore.BmcConsole.Bmc",
    "Backup.Auto.Efi",        "Backup.Auto.Bmc",       "Backup.SvpConsole.Efi",
    "Backup.SvpConsole.Bmc",  "Backup.BmcConsole.Efi", "Backup.BmcConsole.Bmc"};

struct Answer {
    Response res;
    int length;
    Output printed;
};

// The answer to states s, with the given four bytes reported beside them.
Answer expectedAnswer(const States& s, INT8U addedInfo, const std::array<INT8U, 3>& reserve) {
    Answer e{{0, 0, 0, 0, addedInfo, reserve[0], reserve[1], reserve[2]}, 8, {}};
    std::string line;
    const auto first = [&](const int (&order)[12], bool generated) {
        for (int i : order) {
            if (generated ? s[i] == 1 : s[i] > 1) return i;
        }
        return -1;
    };
    int slot = first(kIndexOrder, false);
    if (slot >= 0) {
        line = kSlotNames[slot] + " > ST_GENERATED";
    } else if ((slot = first(kGeneratedOrder, true)) >= 0) {
        line = slot == 10  ? ".Backup.BmcConsole.Efi == ST_GENERATED"
               : slot == 7 ? "Backup.Auto.Bmc == ST_GENERATEDy"
                           : kSlotNames[slot] + " == ST_GENERATED";
    }
    e.printed.out = kDebug + (slot < 0 ? "Event All NOTHING" : line) + "\n";
    if (slot < 0) {
        e.res[0] = 0x80;
        e.length = 1;
        return e;
    }
    e.res[1] = static_cast<INT8U>((s[slot] & 0x0F) + (slot < 6 ? 0x10 : 0));
    e.res[2] = static_cast<INT8U>(slot % 2);        // FileType, the inverse of brask::slotIndex
    e.res[3] = static_cast<INT8U>((slot % 6) / 2);  // Function
    return e;
}

// Calls the handler, with reqLen bytes of request data.
Answer call(INT8U reqLen = 0) {
    Answer a;
    a.res.fill(0xEE);
    INT8U req[4] = {};
    a.printed = captured(
        [&] { a.length = svfGetBackupRestoreEvent(reqLen ? req : nullptr, reqLen, a.res.data()); });
    return a;
}

// The first 24 bytes of a trace record: states, the four bytes beside them, the answer.
Bytes record(const States& s, std::array<INT8U, 4> info, const Response& res) {
    Bytes r(s.begin(), s.end());
    r.insert(r.end(), info.begin(), info.end());
    r.insert(r.end(), res.begin(), res.end());
    return r;
}

INT32U le32(const Bytes& b, size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (INT32U(b[at + 3]) << 24);
}

TEST(GetEvent, EveryPairOfSlotsAndStatesFollowsTheTwoPassOrders) {
    const INT8U states[] = {0x00, 0x01, 0x02, 0x13, 0x16, 0xF5};
    // i and j stand for (slot i / 6 in state i % 6); j's slot is always after i's.
    for (int i = 0; i < 72; ++i) {
        for (int j = (i / 6 + 1) * 6; j < 72; ++j) {
            States s{};
            s[i / 6] = states[i % 6];
            s[j / 6] = states[j % 6];
            setStates(s, 0x5C, {0xA1, 0xB2, 0xC3});
            const Answer want = expectedAnswer(s, 0x5C, {0xA1, 0xB2, 0xC3});
            const Answer got = call();
            SCOPED_TRACE("slot " + std::to_string(i / 6) + " = " + std::to_string(s[i / 6]) +
                         ", slot " + std::to_string(j / 6) + " = " + std::to_string(s[j / 6]));
            EXPECT_EQ(got.res, want.res);
            EXPECT_EQ(got.length, want.length);
            EXPECT_EQ(got.printed.out, want.printed.out);
            if (HasFailure()) return;  // one broken case says enough
        }
    }
}

// ---- The trace ring --------------------------------------------------------------------

TEST(GetEvent, EveryAnswerIncludingNoEventAppendsARecord) {
    const States s = {0, 0, 0, 0, 0, 0x13, 0, 0, 0x04, 0, 0, 0};
    setStates(s, 0x11, {1, 2, 3});
    const Answer event = call();
    setStates({}, 0x22, {4, 5, 6});
    const Answer none = call();
    ASSERT_EQ(event.length, 8);
    ASSERT_EQ(none.res[0], 0x80);

    const Bytes file = readBytes(kTrace);
    ASSERT_EQ(file.size(), 6416u);
    Bytes header(16, 0);
    header[0] = 2;
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 16), header);
    EXPECT_EQ(Bytes(file.begin() + 16, file.begin() + 40), record(s, {0x11, 1, 2, 3}, event.res));
    EXPECT_EQ(Bytes(file.begin() + 48, file.begin() + 72), record({}, {0x22, 4, 5, 6}, none.res));
    // Time stamps are checked by TwoProcessesLeaveWellFormedRecords.
    EXPECT_EQ(Bytes(file.begin() + 80, file.end()), Bytes(6416 - 80, 0));
}

TEST(GetEvent, RecordAlwaysLandsInsideTheRing) {
    const Bytes tail = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0xA, 0xB, 0xC, 0xD, 0xE, 0xF};
    auto header = [&](INT8U index) {
        Bytes h{index};
        h.insert(h.end(), tail.begin(), tail.end());
        return h;
    };
    const struct {
        const char* what;
        Bytes header;     // the file's first bytes before the call
        size_t fileSize;  // the file's size before the call (zero-filled past the header)
        size_t recordAt;
        INT8U nextIndex;
        size_t sizeAfter;
    } cases[] = {
        {"index 7", header(7), 6416, 16 + 7 * 32, 8, 6416},
        {"last slot", header(200), 6416, 6416, 0, 6444},
        {"index past the ring", header(250), 6416, 16, 1, 6416},
        {"empty file", {}, 0, 16, 1, 44},
        {"short header", {3, 1, 2}, 3, 16 + 3 * 32, 4, 16 + 3 * 32 + 28},
        {"short header past the ring", {250, 1}, 2, 16, 1, 44},
    };
    const States s = {0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0};
    setStates(s, 0x33);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes before(c.fileSize, 0);
        std::copy(c.header.begin(), c.header.end(), before.begin());
        writeBytes(kTrace, before);

        const Answer got = call();
        ASSERT_EQ(got.length, 8);
        const Bytes file = readBytes(kTrace);
        ASSERT_EQ(file.size(), c.sizeAfter);
        EXPECT_EQ(Bytes(file.begin() + c.recordAt, file.begin() + c.recordAt + 24),
                  record(s, {0x33, 0, 0, 0}, got.res));

        // The new index, the other header bytes as read (missing ones as zero),
        // and nothing else changed beside the record.
        Bytes want(c.sizeAfter, 0);
        std::copy(c.header.begin(), c.header.end(), want.begin());
        want[0] = c.nextIndex;
        std::copy(file.begin() + c.recordAt, file.begin() + c.recordAt + 28, want.begin() + c.recordAt);
        EXPECT_EQ(file, want);
    }
}

// The lock failures, which also write no record, are in statusAreaTest.
TEST(GetEvent, RequestWithDataIsRefusedWithoutARecord) {
    setStates({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0});
    Bytes before(6416, 0);
    before[0] = 5;
    writeBytes(kTrace, before);
    const Answer got = call(1);
    EXPECT_EQ(got.res[0], 0xC7);
    EXPECT_EQ(got.length, 1);
    EXPECT_EQ(readBytes(kTrace), before);
}

TEST(GetEvent, UnopenableTraceFileDoesNotChangeTheAnswer) {
    setStates({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3}, 1);
    const Answer want = call();  // with a working trace file

    std::filesystem::remove(kTrace);
    ASSERT_EQ(mkdir(kTrace, 0755), 0);
    const Answer dir = call();
    EXPECT_EQ(dir.printed.err, "BRASK_ERR  : svfOEMExeRestoreEvent(N) : fopen fail\n");
    rmdir(kTrace);

    // A trace file that cannot be made is skipped without a word of ours.
    std::filesystem::remove_all("/conf/brask");
    const Answer gone = call();
    EXPECT_EQ(gone.printed.err.find("BRASK_"), std::string::npos);
    for (const Answer& got : {dir, gone}) {
        EXPECT_EQ(got.res, want.res);
        EXPECT_EQ(got.length, want.length);
    }
}

// ---- Two processes at once -------------------------------------------------------------

// Each child moves its own slot through a few states (under the lock) and asks
// for the event after each move.
[[noreturn]] void hammer(int slot, int calls) {
    silence();
    const INT8U cycle[] = {0x00, 0x01, 0x02, 0x13, 0x16};
    for (int i = 0; i < calls; ++i) {
        if (!withLockedArea([&](hslSemiVolatileArea_T& a) { a.svf.svfStatusList[slot] = cycle[i % 5]; }))
            _exit(2);
        INT8U res[8];
        const int length = svfGetBackupRestoreEvent(nullptr, 0, res);
        if (length != (res[0] == 0 ? 8 : 1) || (res[0] != 0 && res[0] != 0x80)) _exit(3);
    }
    _exit(0);
}

TEST(GetEvent, TwoProcessesLeaveWellFormedRecords) {
    constexpr int kCalls = 1000;
    setStates({}, 0x44, {7, 8, 9});
    const auto t0 = static_cast<INT32U>(std::time(nullptr));
    pid_t pids[2];
    for (int i = 0; i < 2; ++i) {
        if ((pids[i] = fork()) == 0) hammer(i == 0 ? 0 : 11, kCalls);
    }
    for (pid_t pid : pids) {
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }
    const auto t1 = static_cast<INT32U>(std::time(nullptr));

    const Bytes file = readBytes(kTrace);
    ASSERT_EQ(file.size(), 6444u);
    Bytes header(16, 0);
    header[0] = (2 * kCalls) % 201;
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 16), header);
    for (size_t slot = 0; slot <= 200; ++slot) {
        SCOPED_TRACE("record " + std::to_string(slot));
        const size_t at = 16 + 32 * slot;
        States s;
        std::copy(file.begin() + at, file.begin() + at + 12, s.begin());
        EXPECT_EQ(s, (States{s[0], 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, s[11]}));
        EXPECT_EQ(Bytes(file.begin() + at, file.begin() + at + 24),
                  record(s, {0x44, 7, 8, 9}, expectedAnswer(s, 0x44, {7, 8, 9}).res));
        EXPECT_GE(le32(file, at + 24), t0);
        EXPECT_LE(le32(file, at + 24), t1);
        if (slot < 200) {
            EXPECT_EQ(le32(file, at + 28), 0u);  // slot 200 ends the file at byte 28
        }
        if (HasFailure()) return;
    }
}

}  // namespace
