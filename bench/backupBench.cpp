// A full web-console backup (Set Backup Event) of the realistic catalogue at
// 1x, 10x and 100x its file sizes against `tar -cf` of the same backup copies,
// interleaved in every iteration so both see the same load; the time inside
// the shell commands the backup must run against the rest.  Change detection
// (svfChkBackupFileDiff) with nothing changed.  Processes started and peak
// memory come from child runs of this binary inside the same sandbox:
//   --traced-backup / --traced-change-detection   one call between markers,
//                                                 under strace -f
//   --rss-backup / --rss-idle                     one backup / nothing, under
//                                                 /usr/bin/time -v
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

using brask::bench::format;
using brask::bench::mib;
using brask::bench::Quiet;
using Clock = std::chrono::steady_clock;

constexpr char kTarFile[] = "/var/brask/x.tar";
constexpr char kTarList[] = "/var/brask/x.list";
constexpr int kCatalogueRows = 109;  // rows change detection walks for BMC_FILE
// What the backup must start: `cp -p` of the FRU backup file (refreshed on
// every backup), `dd` of the header area, `cat` per block (2), the final `mv`.
constexpr int kMandatedCommands = 5;

// Set Backup Event from the web console; its completion code.
INT8U webConsoleBackup() {
    INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
    INT8U res[8] = {0xEE};
    Quiet quiet;
    (void)svfOEMSetBackupEvent(req, 6, res, 0);
    return res[0];
}

bool tarBackupCopies() {
    return brask::bench::run({"/usr/bin/tar", "-cf", kTarFile, "-C", "/", "-T", kTarList});
}

// A shell running one small external command: the shape of every command
// the backup runs, so its cost is the floor each of them adds.
bool shellCat() { return brask::bench::run({"/bin/sh", "-c", "cat /dev/null >> /dev/null"}); }

void removeBackupCopies() {
    for (const std::string& p : brask::bench::backupCopies()) (void)std::remove(p.c_str());
}

// The steady state the firmware sees: the catalogue unchanged since the last
// backup, so only the FRU backup file's copy is refreshed.
void BM_webConsoleBackupVsTar(benchmark::State& state) {
    brask::bench::freshConf(static_cast<unsigned>(state.range(0)));
    if (webConsoleBackup() != 0x00) {
        state.SkipWithError("the warm-up backup did not answer 0x00");
        return;
    }
    if (!brask::bench::writeList(kTarList, brask::bench::backupCopies())) {
        state.SkipWithError("no backup copies to tar");
        return;
    }
    double backup = 0, tar = 0, shCat = 0, inShell = 0;
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
        const bool catOk = shellCat();
        shCat += brask::bench::secondsOf(Clock::now() - t2);
        if (cc != 0x00 || !tarOk || !catOk) {
            state.SkipWithError(cc != 0x00 ? "the backup did not answer 0x00" : "tar or sh failed");
            return;
        }
        const double b = brask::bench::secondsOf(t1 - t0);
        state.SetIterationTime(b);
        backup += b;
        tar += brask::bench::secondsOf(t2 - t1);
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["backup_ms"] = 1e3 * backup / n;
    state.counters["tar_ms"] = 1e3 * tar / n;
    state.counters["ratio"] = backup / tar;
    state.counters["sh_cat_ms"] = 1e3 * shCat / n;
    state.counters["shell_cmds"] = static_cast<double>(commands) / n;
    state.counters["in_shell_ms"] = 1e3 * inShell / n;  // inside system()
    state.counters["files"] = static_cast<double>(brask::bench::backupCopies().size());
    state.counters["bytes"] = static_cast<double>(brask::bench::totalActiveBytes());
}

// Every copy missing: one `cp -p` per catalogued file.
void BM_firstWebConsoleBackup(benchmark::State& state) {
    brask::bench::freshConf(1);
    unsigned long commands = 0;
    for (auto _ : state) {
        state.PauseTiming();
        removeBackupCopies();
        const unsigned long before = brask::bench::shellCommandCount();
        state.ResumeTiming();
        if (webConsoleBackup() != 0x00) {
            state.SkipWithError("the backup did not answer 0x00");
            return;
        }
        commands += brask::bench::shellCommandCount() - before;
    }
    state.counters["shell_cmds"] = static_cast<double>(commands) / static_cast<double>(state.iterations());
}

// Nothing changed since the last backup.
void BM_changeDetection(benchmark::State& state) {
    brask::bench::freshConf(1);
    if (webConsoleBackup() != 0x00) {
        state.SkipWithError("the warm-up backup did not answer 0x00");
        return;
    }
    bool ok = true;
    const double shellBefore = brask::bench::shellSeconds();
    for (auto _ : state) {
        Quiet quiet;
        // 1: the FRU backup file is read afresh and its copy refreshed on every call.
        ok = ok && svfChkBackupFileDiff(BMC_FILE) == 1;
    }
    if (!ok) state.SkipWithError("svfChkBackupFileDiff did not return 1");
    state.counters["files"] = static_cast<double>(brask::bench::activeFiles().size());
    state.counters["in_shell_ms"] =
        1e3 * (brask::bench::shellSeconds() - shellBefore) / static_cast<double>(state.iterations());
}

int traced(bool changeDetection) {
    int rc = 0;
    {
        Quiet quiet;
        brask::bench::markBegin();
        if (changeDetection)
            rc = svfChkBackupFileDiff(BMC_FILE) == 1 ? 0 : 1;
        else
            rc = webConsoleBackup() == 0x00 ? 0 : 1;
        brask::bench::markEnd();
    }
    return rc;
}

std::string programList(const brask::bench::Trace& t) {
    std::map<std::string, long> counts;
    for (const std::string& p : t.programs) ++counts[p];
    return brask::bench::describe(counts);
}

void report(const brask::bench::CollectingReporter& r, const std::vector<int>& scales) {
    using brask::bench::tableRow;
    for (const int scale : scales) {
        const std::string name = "BM_webConsoleBackupVsTar/" + std::to_string(scale);
        if (r.find(name) == nullptr) continue;
        auto c = [&](const char* counter) { return r.counter(name, counter); };
        const double backup = c("backup_ms"), tar = c("tar_ms"), inShell = c("in_shell_ms");
        const double floor = kMandatedCommands * c("sh_cat_ms");
        tableRow({"web-console backup vs `tar -cf` of the same copies",
                  format("%dx: %.0f files, %s", scale, c("files"), mib(c("bytes")).c_str()),
                  format("%.1f ms", backup), format("%.1f ms", tar), format("%.2f", c("ratio")), "≤ 3",
                  format("%s; %.0f shell commands %.1f ms, rest of the library %.1f ms (%.2f × tar); "
                         "%d × (sh + one command) alone = %.1f ms = %.2f × tar",
                         c("ratio") <= 3 ? "**met**" : "**missed**", c("shell_cmds"), inShell,
                         backup - inShell, (backup - inShell) / tar, kMandatedCommands, floor, floor / tar)});
    }
    if (const auto* first = r.find("BM_firstWebConsoleBackup")) {
        tableRow({"web-console backup, every copy missing", "1x",
                  format("%.1f ms", first->GetAdjustedRealTime()), "—", "—", "—",
                  format("%.0f shell commands", r.counter("BM_firstWebConsoleBackup", "shell_cmds"))});
    }
}

}  // namespace

int main(int argc, char** argv) {
    brask::test::enterSandbox(argc, argv);
    if (argc == 2) {
        const std::string mode = argv[1];
        if (mode == "--traced-backup") return traced(false);
        if (mode == "--traced-change-detection") return traced(true);
        if (mode == "--rss-backup") return webConsoleBackup() == 0x00 ? 0 : 1;
        if (mode == "--rss-idle") return 0;
    }
    const brask::bench::Options options = brask::bench::parseOptions(argc, argv);
    const std::vector<int> scales = brask::bench::catalogueScales(options);

    benchmark::Initialize(&argc, argv);
    brask::bench::registerPerScale("BM_webConsoleBackupVsTar", BM_webConsoleBackupVsTar, scales, options);
    benchmark::RegisterBenchmark("BM_changeDetection", BM_changeDetection)
        ->Unit(benchmark::kMillisecond)
        ->MinTime(brask::bench::minTime(options, 2.0));
    if (!options.quick) {
        benchmark::RegisterBenchmark("BM_firstWebConsoleBackup", BM_firstWebConsoleBackup)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(5);
    }
    brask::bench::CollectingReporter reporter;
    (void)benchmark::RunSpecifiedBenchmarks(&reporter);
    report(reporter, scales);

    // Processes: change detection and one backup, both in the steady state.
    bool ok = true;
    brask::bench::freshConf(1);
    ok = webConsoleBackup() == 0x00 && ok;
    const brask::bench::Trace detection = brask::bench::traceChild({"--traced-change-detection"});
    const brask::bench::Trace backup = brask::bench::traceChild({"--traced-backup"});
    if (const auto* cd = reporter.find("BM_changeDetection")) {
        const double ms = cd->GetAdjustedRealTime();
        brask::bench::tableRow(
            {"svfChkBackupFileDiff(BMC_FILE), nothing changed",
             format("1x: %d rows, %.0f files", kCatalogueRows,
                    reporter.counter("BM_changeDetection", "files")),
             format("%.2f ms = %.1f µs per row", ms, 1e3 * ms / kCatalogueRows),
             "1 process tree: `cp -p` of the FRU backup file", format("%ld processes", detection.processes),
             "only the FRU `cp -p`",
             format("%.1f ms of it in the shell command; ",
                    reporter.counter("BM_changeDetection", "in_shell_ms")) +
                 (detection.ok ? "strace -f: programs run: " + programList(detection) : "strace failed")});
    }
    brask::bench::tableRow({"web-console backup, processes", "1x", format("%ld processes", backup.processes),
                            "—", "—", "—",
                            backup.ok ? "strace -f: programs run: " + programList(backup) : "strace failed"});
    ok = ok && detection.ok && backup.ok;

    // Peak memory of one steady-state backup, against the largest catalogued file.
    const long idle = brask::bench::peakRssKiB({"--rss-idle"});
    for (const int scale : options.quick ? std::vector<int>{1} : scales) {
        brask::bench::freshConf(static_cast<unsigned>(scale));
        ok = webConsoleBackup() == 0x00 && ok;
        ok = brask::bench::peakMemoryRow("peak resident memory, one backup", scale, "--rss-backup", idle,
                                         "/usr/bin/time -v, maximum over the process and its children") &&
             ok;
    }
    benchmark::Shutdown();
    return ok ? 0 : 1;
}
