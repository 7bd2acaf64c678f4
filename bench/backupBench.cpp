// A full web-console backup (Set Backup Event) of the realistic catalogue
// against `tar -cf` of the same backup copies, interleaved in every iteration
// so both see the same load; the ratio is a counter.  Also a first backup (no
// copies yet) and the start-up time of one /bin/sh, the unit the backup's
// shell commands cost.  `--one-shot` (or `--one-shot-first`) runs one backup
// between two marker shells instead, for counting processes under strace
// (bench/countBackupProcesses.sh).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "benchSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace {

using brask::bench::Quiet;
using Clock = std::chrono::steady_clock;

constexpr char kTarFile[] = "/var/brask/x.tar";
constexpr char kTarList[] = "/var/brask/x.list";

// Set Backup Event from the web console; its completion code.
INT8U webConsoleBackup() {
    INT8U req[6] = {1 /*BMC_FILE*/, 2 /*BMC_WEB_CONSOLE*/, 0, 0, 0, 0};
    INT8U res[8] = {0xEE};
    Quiet quiet;
    (void)svfOEMSetBackupEvent(req, 6, res, 0);
    return res[0];
}

bool tarBackupCopies() {
    return brask::bench::run({"/usr/bin/tar", "-cf", kTarFile, "-C", "/", "-T", kTarList});
}

// One shell start alone (`true` is built in) and a shell running one small
// external command, the shape of every command the backup runs.
bool shellTrue() { return brask::bench::run({"/bin/sh", "-c", "true"}); }
bool shellCat() { return brask::bench::run({"/bin/sh", "-c", "cat /dev/null >> /dev/null"}); }

void removeBackupCopies() {
    for (const std::string& p : brask::bench::backupCopies()) std::remove(p.c_str());
}

// The steady state the firmware sees: the catalogue unchanged since the last
// backup, so only the FRU backup file's copy is refreshed.
void BM_webConsoleBackupVsTar(benchmark::State& state) {
    if (webConsoleBackup() != 0x00) {
        state.SkipWithError("the warm-up backup did not answer 0x00");
        return;
    }
    if (!brask::bench::writeList(kTarList, brask::bench::backupCopies())) {
        state.SkipWithError("no backup copies to tar");
        return;
    }
    double backup = 0, tar = 0, sh = 0, shCat = 0, inShell = 0;
    unsigned long commands = 0;
    for (auto _ : state) {
        const unsigned long before = brask::bench::shellCommandCount();
        const double shellBefore = brask::bench::shellSeconds();
        const auto t0 = Clock::now();
        const INT8U cc = webConsoleBackup();
        const auto t1 = Clock::now();
        commands += brask::bench::shellCommandCount() - before;
        inShell += brask::bench::shellSeconds() - shellBefore;
        const bool tarOk = tarBackupCopies();
        const auto t2 = Clock::now();
        const bool shOk = shellTrue();
        const auto t3 = Clock::now();
        const bool catOk = shellCat();
        shCat += brask::bench::secondsOf(Clock::now() - t3);
        if (cc != 0x00 || !tarOk || !shOk || !catOk) {
            state.SkipWithError(cc != 0x00 ? "the backup did not answer 0x00" : "tar or sh failed");
            return;
        }
        const double b = brask::bench::secondsOf(t1 - t0);
        state.SetIterationTime(b);
        backup += b;
        tar += brask::bench::secondsOf(t2 - t1);
        sh += brask::bench::secondsOf(t3 - t2);
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["backup_ms"] = 1e3 * backup / n;
    state.counters["tar_ms"] = 1e3 * tar / n;
    state.counters["ratio"] = backup / tar;  // target <= 3
    state.counters["sh_true_ms"] = 1e3 * sh / n;
    state.counters["sh_cat_ms"] = 1e3 * shCat / n;
    state.counters["shell_cmds"] = static_cast<double>(commands) / n;
    state.counters["in_shell_ms"] = 1e3 * inShell / n;         // inside system()
    state.counters["in_library_ms"] = 1e3 * (backup - inShell) / n;
    state.counters["files"] = static_cast<double>(brask::bench::backupCopies().size());
    state.SetLabel("ratio = backup / tar -cf of the .bak copies (target <= 3)");
}

// Every copy missing: one `cp -p` per catalogued file.
void BM_firstWebConsoleBackup(benchmark::State& state) {
    unsigned long commands = 0;
    double inShell = 0;
    for (auto _ : state) {
        state.PauseTiming();
        removeBackupCopies();
        const unsigned long before = brask::bench::shellCommandCount();
        const double shellBefore = brask::bench::shellSeconds();
        state.ResumeTiming();
        if (webConsoleBackup() != 0x00) {
            state.SkipWithError("the backup did not answer 0x00");
            return;
        }
        commands += brask::bench::shellCommandCount() - before;
        inShell += brask::bench::shellSeconds() - shellBefore;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["shell_cmds"] = static_cast<double>(commands) / n;
    state.counters["in_shell_ms"] = 1e3 * inShell / n;
}

BENCHMARK(BM_webConsoleBackupVsTar)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_firstWebConsoleBackup)->Unit(benchmark::kMillisecond)->Iterations(5);

// One backup between two marker shells (`: brask-bench-begin` / `-end`), so
// an strace log of the whole run can be cut to the backup's own processes.
int oneShot(bool first) {
    if (webConsoleBackup() != 0x00) return 1;  // the steady state
    if (first) removeBackupCopies();
    (void)brask::bench::run({"/bin/sh", "-c", ": brask-bench-begin"});
    const unsigned long before = brask::bench::shellCommandCount();
    const INT8U cc = webConsoleBackup();
    const unsigned long commands = brask::bench::shellCommandCount() - before;
    (void)brask::bench::run({"/bin/sh", "-c", ": brask-bench-end"});
    std::printf("backup completion code 0x%02X, %lu shell commands\n", cc, commands);
    return cc == 0x00 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    brask::test::enterSandbox(argc, argv);
    brask::test::resetState();
    svfIniTimer();
    brask::test::populateConf({.optionalFiles = true, .backupCopies = false, .scale = 1});
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--one-shot") == 0) return oneShot(false);
        if (std::strcmp(argv[i], "--one-shot-first") == 0) return oneShot(true);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
