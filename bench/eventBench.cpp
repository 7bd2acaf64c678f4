// svfGetBackupRestoreEvent with the trace file present and no event active
// (the answer the firmware's pollers and the two other handlers see most):
// median and p99 latency of single calls, and the system calls one call makes,
// counted with `strace -f` on a child run of this binary inside the same
// sandbox (`--event-calls N`: N calls between two marker calls), against the
// minimum the command needs: take the lock, map the area, read the trace
// header, write the record and the header.  The same count over the
// platform's lock and map calls alone (`--lock-map-calls N`, the sequence the
// command makes) splits the total between the host platform and the library.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "benchSupport.h"
#include "common/paths.h"
#include "support/sandbox.h"

namespace {

using brask::bench::format;
using Clock = std::chrono::steady_clock;

constexpr int kTracedCalls = 100;

// What the command must do, as system calls: lock create/take/give (semget,
// semop ×2), map the area (open, mmap, munmap, close), the trace record
// (open, read of the header, write of the record, write of the header,
// close), and the one debug line it must print.
constexpr int kMinimumLockMap = 3 + 4;
constexpr int kMinimumSyscalls = kMinimumLockMap + 5 + 1;
constexpr char kMinimumText[] =
    "lock semget, semop ×2; map open, mmap, munmap, close; trace open, read, "
    "pwrite ×2 (record, header), close; 1 write of the mandated debug line";

INT8U callOnce() {
    INT8U res[8] = {};
    (void)svfGetBackupRestoreEvent(nullptr, 0, res);
    return res[0];
}

void BM_getBackupRestoreEvent(benchmark::State& state) {
    std::vector<double> samples;
    samples.reserve(1 << 16);
    bool ok = true;
    {
        brask::bench::Quiet quiet;
        for (auto _ : state) {
            const auto t0 = Clock::now();
            const INT8U cc = callOnce();
            const auto t1 = Clock::now();
            ok = ok && cc == 0x80;
            samples.push_back(1e6 * brask::bench::secondsOf(t1 - t0));
        }
    }
    if (!ok) {
        state.SkipWithError("the call did not answer 0x80 (no event)");
        return;
    }
    state.counters["median_us"] = brask::bench::quantile(samples, 0.5);
    state.counters["p99_us"] = brask::bench::quantile(samples, 0.99);
    state.counters["samples"] = static_cast<double>(samples.size());
}

int tracedCalls(int n) {
    brask::bench::Quiet quiet;
    brask::bench::markBegin();
    for (int i = 0; i < n; ++i) (void)callOnce();
    brask::bench::markEnd();
    return 0;
}

// The platform calls one command makes to lock and map the status area.
int tracedLockMap(int n) {
    bool ok = true;
    brask::bench::markBegin();
    for (int i = 0; i < n; ++i) {
        Mutex_T* mutex = nullptr;
        hslSemiVolatileMng_T mng{};
        ok = hslCreateMutex(&mutex, brask::paths::kSemiVolMutex) == 0 && ok;
        ok = hslAcquireMutex(mutex, -1) == 0 && ok;
        ok = hslGetSemiVolatileArea(&mng) != nullptr && ok;
        ok = hslFreeSemiVolatileArea(&mng) == 0 && ok;
        ok = hslReleaseMutex(mutex) == 0 && ok;
        ok = hslDestroyMutex(mutex) == 0 && ok;
    }
    brask::bench::markEnd();
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    brask::test::enterSandbox(argc, argv);
    if (argc == 3 && std::strcmp(argv[1], "--event-calls") == 0) return tracedCalls(std::atoi(argv[2]));
    if (argc == 3 && std::strcmp(argv[1], "--lock-map-calls") == 0) return tracedLockMap(std::atoi(argv[2]));
    const brask::bench::Options options = brask::bench::parseOptions(argc, argv);
    brask::test::resetState();
    svfIniTimer();
    (void)callOnce();  // makes the trace file
    if (!brask::test::exists("/conf/brask/BackRest.trs2")) {
        std::fprintf(stderr, "the trace file was not made\n");
        return 1;
    }

    benchmark::Initialize(&argc, argv);
    benchmark::RegisterBenchmark("BM_getBackupRestoreEvent", BM_getBackupRestoreEvent)
        ->MinTime(brask::bench::minTime(options, 2.0))
        ->Unit(benchmark::kMicrosecond);
    brask::bench::CollectingReporter reporter;
    (void)benchmark::RunSpecifiedBenchmarks(&reporter);

    const double median = reporter.counter("BM_getBackupRestoreEvent", "median_us");
    const double p99 = reporter.counter("BM_getBackupRestoreEvent", "p99_us");
    const brask::bench::Trace trace =
        brask::bench::traceChild({"--event-calls", std::to_string(kTracedCalls)});
    const brask::bench::Trace lockMap =
        brask::bench::traceChild({"--lock-map-calls", std::to_string(kTracedCalls)});
    const double perCall = static_cast<double>(trace.total) / kTracedCalls;
    const double platform = static_cast<double>(lockMap.total) / kTracedCalls;
    std::map<std::string, long> own = trace.syscalls;
    for (const auto& [name, n] : lockMap.syscalls) own[name] -= n;
    std::erase_if(own, [](const auto& e) { return e.second <= 0; });
    brask::bench::tableRow(
        {"svfGetBackupRestoreEvent, trace file present, no event", "one call",
         format("median %.1f µs, p99 %.1f µs", median, p99),
         format("minimum %d system calls (%s)", kMinimumSyscalls, kMinimumText),
         trace.ok ? format("%.1f system calls / %d", perCall, kMinimumSyscalls) : "strace failed", "—",
         trace.ok && lockMap.ok
             ? format("strace -f, per call: host platform's lock and map %.1f (minimum %d): ", platform,
                      kMinimumLockMap) +
                   brask::bench::describe(lockMap.syscalls, kTracedCalls) +
                   format("; the library's own %.1f (minimum %d): ", perCall - platform,
                          kMinimumSyscalls - kMinimumLockMap) +
                   brask::bench::describe(own, kTracedCalls)
             : "strace failed"});
    benchmark::Shutdown();
    return trace.ok && lockMap.ok ? 0 : 1;
}
