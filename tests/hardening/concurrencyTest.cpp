// Several firmware processes at once: readers asking for the current event,
// one process making web-console backups and two applying state-machine
// operations to their own status bytes.  Nothing may deadlock, no status
// operation may be lost or overwritten, and the trace ring that every query
// appends to must stay well formed and hold exactly one record per query.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <thread>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "common/paths.h"
#include "hardeningSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr int kReaders = 4;
constexpr int kQueriesPerReader = 300;
constexpr int kBackups = 4;
constexpr int kCycles = 100;
// A child that has not finished by then is stuck: with these counts a run
// takes a few seconds, also under the sanitizers.
constexpr auto kDeadline = std::chrono::seconds(30);

// Counters the children share with the parent (an anonymous shared mapping,
// so it is no file-backed mapping the other suites count).
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

// Forks a child that runs `body` with its output discarded.
pid_t spawn(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int devnull = ::open("/dev/null", O_WRONLY);
        ::dup2(devnull, STDOUT_FILENO);
        ::dup2(devnull, STDERR_FILENO);
        body();
        ::_exit(0);
    }
    return pid;
}

// Waits for every child until the deadline; kills the rest then.  Returns
// how many did not finish in time or did not exit cleanly.
int awaitAll(std::vector<pid_t> pids) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    int bad = 0;
    while (!pids.empty() && std::chrono::steady_clock::now() <= deadline) {
        std::erase_if(pids, [&](pid_t pid) {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) != pid) return false;
            bad += !WIFEXITED(status) || WEXITSTATUS(status) != 0;
            return true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    for (pid_t pid : pids) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
    if (!pids.empty()) ADD_FAILURE() << pids.size() << " process(es) still running after the deadline";
    return bad + static_cast<int>(pids.size());
}

TEST(Concurrency, QueriesBackupsAndStateOperationsTogether) {
    populateConf({.optionalFiles = true, .backupCopies = true});
    const auto started = static_cast<std::uint32_t>(std::time(nullptr));

    void* mem = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    Shared& shared = *new (mem) Shared;
    const Held before = heldNow();

    std::vector<pid_t> pids;
    for (int r = 0; r < kReaders; ++r) {
        pids.push_back(spawn([&] {
            for (int i = 0; i < kQueriesPerReader; ++i) {
                INT8U res[8] = {};
                const int len = svfGetBackupRestoreEvent(nullptr, 0, res);
                shared.queries.fetch_add(1);
                if (!((res[0] == 0x00 && len == 8) || (res[0] == 0x80 && len == 1)))
                    shared.badAnswers.fetch_add(1);
            }
        }));
    }
    pids.push_back(spawn([&] {
        for (int b = 0; b < kBackups; ++b) {
            INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
            INT8U res[1] = {0xEE};
            (void)svfOEMSetBackupEvent(req, sizeof req, res, 0);
            shared.backupCodes[b] = res[0];
        }
    }));
    for (const Writer& w : kWriters) {
        pids.push_back(spawn([&] {
            std::vector<INT8U> ops;
            for (int c = 0; c < kCycles; ++c) ops.insert(ops.end(), kCycle.begin(), kCycle.end());
            ops.insert(ops.end(), w.tail.begin(), w.tail.end());
            INT8U last = ST_NOTHING;
            for (INT8U op : ops) {
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
        }));
    }
    ASSERT_EQ(awaitAll(pids), 0);

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
    SelCodes sel;
    for (int code : shared.backupCodes) {
        EXPECT_TRUE(code == 0x00 || code == 0xD5) << "backup answered " << code;
        sel.insert(sel.end(), {0x0B, static_cast<std::uint8_t>(code == 0x00 ? 0x2B : 0x4B)});
    }
    EXPECT_EQ(selEvents(), sel);

    // One record per query: the readers' and the one inside each backup.
    const int queries = shared.queries.load() + kBackups;
    int records = 0;
    ASSERT_EQ(checkTraceRing(started, records), "");
    EXPECT_EQ(readBytes(paths::kTraceFile)[0], queries % 201);
    EXPECT_EQ(records, std::min(queries, 201));

    expectNothingHeld(before);
    ::munmap(mem, sizeof(Shared));
}

}  // namespace
}  // namespace brask::test
