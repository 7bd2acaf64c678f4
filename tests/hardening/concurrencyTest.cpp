// Several firmware processes at once: readers asking for the current event,
// one process making web-console backups and two applying state-machine
// operations to their own status bytes.  Nothing may deadlock, no status
// operation may be lost or overwritten, and the trace ring that every query
// appends to must hold exactly one whole record per query.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <functional>
#include <vector>

#include "common/eventCodes.h"
#include "common/paths.h"
#include "hardeningSupport.h"
#include "support/suite.h"

namespace brask::test {
namespace {

constexpr int kReaders = 4;
constexpr int kQueriesPerReader = 300;
constexpr int kBackups = 4;
constexpr int kCycles = 100;
constexpr int kTraceSlots = 201;

// Counters the children share with the parent (an anonymous shared mapping,
// so it is no file-backed mapping the leak checks count).
struct Shared {
    std::atomic<int> queries, badAnswers, lostOperations, lockFailures;  // zero from construction
    int backupCodes[kBackups] = {};
};

// One state-machine writer: the ordinary life of an event, kCycles times,
// then a tail that leaves a known state.  Before each operation the writer
// checks that its byte still holds what it stored last.
struct Writer {
    unsigned slot;
    std::vector<INT8U> tail;
    INT8U finalState;
};
const std::vector<INT8U> kCycle = {BMC_GENERATE_EVENT, SVP_BACKUP_TRANS_REQ, BMC_START, BMC_COMPLETE_SUCCESS,
                                   SVP_BACKUP_TRANS_SUCCESS};
const Writer kWriters[] = {
    {2, {BMC_GENERATE_EVENT, SVP_RESTORE_PROC_REQ, BMC_START}, ST_PROCESSING},
    {9,
     {BMC_GENERATE_EVENT, SVP_BACKUP_TRANS_REQ, BMC_START, BMC_GENERATE_EVENT, BMC_COMPLETE_INVALID},
     ST_INVALID_DATA_AND_GENERATED},
};

// Records of the trace ring that are not whole: a time outside the run, or
// an answer that is not the one its own status snapshot gives.
int brokenRecords(std::uint32_t notBefore) {
    const std::vector<std::uint8_t> file = readBytes(paths::kTraceFile);
    const auto now = static_cast<std::uint32_t>(std::time(nullptr));
    int broken = 0;
    for (std::size_t at = 16; at + 28 <= file.size(); at += 32) {
        const std::uint8_t* r = &file[at];
        const std::uint8_t* res = r + 16;
        const std::uint32_t when = r[24] | r[25] << 8 | r[26] << 16 | static_cast<std::uint32_t>(r[27]) << 24;
        const bool none = res[0] == 0x80 && std::all_of(r, r + 12, [](std::uint8_t b) { return b == 0; }) &&
                          (res[1] | res[2] | res[3]) == 0;
        const bool event =
            res[0] == 0x00 && res[1] >> 4 <= 1 && res[2] <= 1 && res[3] <= 2 &&
            (r[slotIndex(res[1] >> 4 ? EventKind::Restore : EventKind::Backup, res[3], res[2])] & 0x0F) ==
                (res[1] & 0x0F);
        broken += when < notBefore || when > now || std::memcmp(res + 4, r + 12, 4) != 0 || !(none || event);
    }
    return broken;
}

TEST(Concurrency, QueriesBackupsAndStateOperationsTogether) {
    populateConf({.optionalFiles = true, .backupCopies = true});
    const auto started = static_cast<std::uint32_t>(std::time(nullptr));
    void* mem = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    Shared& shared = *new (mem) Shared;

    // Returns how many children crashed or were stuck: each is ended by an
    // alarm after a deadline that a run under the sanitizers stays far from.
    const Observed o = observe([&] {
        std::vector<pid_t> pids;
        const auto spawn = [&](const std::function<void()>& body) {
            const pid_t pid = ::fork();
            if (pid == 0) ::alarm(30), body(), ::_exit(0);
            pids.push_back(pid);
        };
        for (int r = 0; r < kReaders; ++r) {
            spawn([&] {
                for (int i = 0; i < kQueriesPerReader; ++i) {
                    INT8U res[8] = {};
                    const int len = svfGetBackupRestoreEvent(nullptr, 0, res);
                    shared.queries.fetch_add(1);
                    if (!((res[0] == 0x00 && len == 8) || (res[0] == 0x80 && len == 1)))
                        shared.badAnswers.fetch_add(1);
                }
            });
        }
        spawn([&] {
            for (int b = 0; b < kBackups; ++b) shared.backupCodes[b] = static_cast<int>(setBackup());
        });
        for (const Writer& w : kWriters) {
            spawn([&] {
                std::vector<INT8U> ops;
                for (int c = 0; c < kCycles; ++c) ops.insert(ops.end(), kCycle.begin(), kCycle.end());
                ops.insert(ops.end(), w.tail.begin(), w.tail.end());
                INT8U last = ST_NOTHING;
                for (const INT8U op : ops) {
                    Mutex_T* mutex = nullptr;
                    hslSemiVolatileMng_T mng{};
                    hslSemiVolatileArea_T* area = nullptr;
                    if (svfGetMutexAndSemiVolatileArea(&mutex, &mng, &area) != 0) {
                        shared.lockFailures.fetch_add(1);
                        continue;
                    }
                    INT8U& byte = area->svf.svfStatusList[w.slot];
                    if (byte != last) shared.lostOperations.fetch_add(1);
                    (void)svfSetSvfEvent(&byte, op);
                    last = byte;
                    (void)hslFreeSemiVolatileArea(&mng);
                    (void)hslReleaseMutex(mutex);
                    (void)hslDestroyMutex(mutex);
                }
            });
        }
        long bad = 0;
        for (const pid_t pid : pids) {
            int status = 0;
            bad += ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
        }
        return bad;
    });
    ASSERT_EQ(o.result, 0) << "children crashed or stuck";
    expectNothingHeld(o);
    EXPECT_EQ(shared.badAnswers.load(), 0);
    EXPECT_EQ(shared.lostOperations.load(), 0);
    EXPECT_EQ(shared.lockFailures.load(), 0);

    // Every byte of the area but the writers' slots is as it started: zero.
    hslSemiVolatileArea_T area{};
    ASSERT_EQ(hostSemiVolRead(&area), 0);
    hslSemiVolatileArea_T expected{};
    for (const Writer& w : kWriters) expected.svf.svfStatusList[w.slot] = w.finalState;
    EXPECT_EQ(std::memcmp(&area, &expected, sizeof area), 0) << "the status area holds a lost or stray write";

    // Each backup either ran or found another event active; the SEL holds
    // the matching pair of each, in order.
    std::vector<std::uint8_t> sel;
    for (const int code : shared.backupCodes) {
        EXPECT_TRUE(code == 0x00 || code == 0xD5) << "backup answered " << code;
        sel.insert(sel.end(), {0x0B, static_cast<std::uint8_t>(code == 0x00 ? 0x2B : 0x4B)});
    }
    EXPECT_EQ(o.sel, sel);

    // One record per query, the readers' and the one inside each backup: the
    // ring has wrapped, every slot holds a whole record and the header points
    // past the last.
    const int queries = shared.queries.load() + kBackups;
    ASSERT_GT(queries, kTraceSlots);
    const std::vector<std::uint8_t> trace = readBytes(paths::kTraceFile);
    ASSERT_EQ(trace.size(), 16u + kTraceSlots * 32u - 4u);
    EXPECT_EQ(trace[0], queries % kTraceSlots);
    EXPECT_TRUE(std::all_of(trace.begin() + 1, trace.begin() + 16, [](std::uint8_t b) { return b == 0; }));
    EXPECT_EQ(brokenRecords(started), 0);
    ::munmap(mem, sizeof(Shared));
}

}  // namespace
}  // namespace brask::test
