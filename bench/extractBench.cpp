// Full extraction of a realistic web-console backup into /conf at 1x, 10x and
// 100x the catalogue's file sizes: validating and splitting the backup file
// (svfExtractBraskBackupFile) and unpacking its blocks
// (svfExtractBraskArchiveblock), against `tar -xf` of a tar of the same live
// files into the same places, and against the same `tar -xf` followed by
// `sync -f` on that file system (the extraction flushes every file to the
// disk before publishing it), interleaved in every iteration so all see the
// same load.  Peak memory of a whole web-console restore (Execute Restore
// Event and the ticks that run it) comes from a child run of this binary
// inside the same sandbox under /usr/bin/time -v (`--rss-restore`).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "benchSupport.h"
#include "support/interpose.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace {

using brask::bench::format;
using brask::bench::mib;
using brask::bench::Quiet;
using Clock = std::chrono::steady_clock;

constexpr char kTarFile[] = "/var/brask/y.tar";
constexpr char kTarList[] = "/var/brask/y.list";
constexpr char kWebBackup[] = "/var/brask/BmcWeb.bak";
constexpr char kBmcBackup[] = "/var/brask/BMC.bak";

// A web-console backup of the realistic catalogue at `scale`.
bool webConsoleBackup(unsigned scale) {
    brask::bench::freshConf(scale);
    Quiet quiet;
    INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
    INT8U res[8] = {0xEE};
    (void)svfOEMSetBackupEvent(req, 6, res, 0);
    return res[0] == 0x00;
}

void BM_extractVsTar(benchmark::State& state) {
    if (!webConsoleBackup(static_cast<unsigned>(state.range(0))) ||
        std::rename(kWebBackup, kBmcBackup) != 0) {
        state.SkipWithError("cannot make the backup file");
        return;
    }
    if (!brask::bench::writeList(kTarList, brask::bench::activeFiles()) ||
        !brask::bench::run({"/usr/bin/tar", "-cf", kTarFile, "-C", "/", "-T", kTarList})) {
        state.SkipWithError("cannot make the baseline tar");
        return;
    }
    // Extraction writes the FRU backup file's image into the FRU, which then
    // no longer carries this server's identity; the next split would refuse
    // the backup.  The FRU is put back between iterations, untimed.
    std::vector<INT8U> fru(1 << 16);
    const int fruSize = hostFruReadImage(fru.data(), static_cast<INT32U>(fru.size()));
    if (fruSize <= 0) {
        state.SkipWithError("cannot read the FRU image");
        return;
    }
    double split = 0, blocks = 0, tar = 0, flush = 0, unflushed = 0;
    unsigned long commands = 0;
    INT8U numOfBlock = 0;
    for (auto _ : state) {
        (void)hostFruWriteImage(fru.data(), static_cast<INT32U>(fruSize));
        const unsigned long before = brask::bench::shellCommandCount();
        const auto t0 = Clock::now();
        int rcSplit = 0, rcBlocks = 0;
        Clock::time_point t1;
        {
            Quiet quiet;
            rcSplit = svfExtractBraskBackupFile(BMC_FILE, BMC_WEB_CONSOLE, &numOfBlock);
            t1 = Clock::now();
            rcBlocks = svfExtractBraskArchiveblock(BMC_FILE, numOfBlock);
        }
        const auto t2 = Clock::now();
        commands += brask::bench::shellCommandCount() - before;
        const bool tarOk = brask::bench::run({"/usr/bin/tar", "-xf", kTarFile, "-C", "/"});
        const auto t3 = Clock::now();
        const bool syncOk = brask::bench::run({"/usr/bin/sync", "-f", "/conf"});
        const auto t4 = Clock::now();
        // The same extraction once more with its flushes left out: what they cost.
        (void)hostFruWriteImage(fru.data(), static_cast<INT32U>(fruSize));
        Clock::time_point t5, t6;
        {
            Quiet quiet;
            brask::test::FailCall noFlush(brask::test::Call::Syncfs, 0);
            noFlush.returning(0);
            t5 = Clock::now();
            rcSplit |= svfExtractBraskBackupFile(BMC_FILE, BMC_WEB_CONSOLE, &numOfBlock);
            rcBlocks |= svfExtractBraskArchiveblock(BMC_FILE, numOfBlock);
            t6 = Clock::now();
        }
        unflushed += brask::bench::secondsOf(t6 - t5);
        (void)brask::bench::run({"/usr/bin/sync", "-f", "/conf"});  // untimed: the next run starts clean
        if (rcSplit != 0 || rcBlocks != 0 || !tarOk || !syncOk) {
            state.SkipWithError(rcSplit != 0    ? "svfExtractBraskBackupFile failed"
                                : rcBlocks != 0 ? "svfExtractBraskArchiveblock failed"
                                : !tarOk        ? "tar -xf failed"
                                                : "sync -f failed");
            return;
        }
        state.SetIterationTime(brask::bench::secondsOf(t2 - t0));
        split += brask::bench::secondsOf(t1 - t0);
        blocks += brask::bench::secondsOf(t2 - t1);
        tar += brask::bench::secondsOf(t3 - t2);
        flush += brask::bench::secondsOf(t4 - t3);
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["extract_ms"] = 1e3 * (split + blocks) / n;
    state.counters["split_ms"] = 1e3 * split / n;
    state.counters["blocks_ms"] = 1e3 * blocks / n;
    state.counters["tar_ms"] = 1e3 * tar / n;
    state.counters["sync_ms"] = 1e3 * flush / n;
    state.counters["unflushed_ms"] = 1e3 * unflushed / n;
    state.counters["ratio"] = (split + blocks) / tar;
    state.counters["ratio_durable"] = (split + blocks) / (tar + flush);
    state.counters["shell_cmds"] = static_cast<double>(commands) / n;
    state.counters["files"] = static_cast<double>(brask::bench::activeFiles().size());
    state.counters["bytes"] = static_cast<double>(brask::bench::totalActiveBytes());
}

// A whole web-console restore as the firmware drives it: the command, then
// the ticks that run the deferred restore (the stub `reboot` only logs).
int restore() {
    Quiet quiet;
    INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
    INT8U res[8] = {0xEE};
    (void)svfOEMExeRestoreEvent(req, 6, res, 0);
    if (res[0] != 0x00) return 1;
    // The kill-process countdown waits for the `kvm_servers stop` child.
    for (int i = 0; i < 500 && brask::test::commandLog().find("kvm_servers stop") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (int tick = 0; tick < 10; ++tick) svfRestoreTimer();
    return brask::test::commandLog().find("reboot") != std::string::npos ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    brask::test::enterSandbox(argc, argv);
    if (argc == 2 && std::string(argv[1]) == "--rss-restore") return restore();
    if (argc == 2 && std::string(argv[1]) == "--rss-idle") return 0;
    const brask::bench::Options options = brask::bench::parseOptions(argc, argv);
    const std::vector<int> scales = brask::bench::catalogueScales(options);

    benchmark::Initialize(&argc, argv);
    brask::bench::registerPerScale("BM_extractVsTar", BM_extractVsTar, scales, options);
    brask::bench::CollectingReporter reporter;
    (void)benchmark::RunSpecifiedBenchmarks(&reporter);

    for (const int scale : scales) {
        const std::string name = "BM_extractVsTar/" + std::to_string(scale);
        if (reporter.find(name) == nullptr) continue;
        auto c = [&](const char* counter) { return reporter.counter(name, counter); };
        brask::bench::tableRow(
            {"full extraction vs `tar -xf` of the same files",
             format("%dx: %.0f files, %s", scale, c("files"), mib(c("bytes")).c_str()),
             format("%.1f ms (split %.1f, blocks %.1f)", c("extract_ms"), c("split_ms"), c("blocks_ms")),
             format("%.1f ms", c("tar_ms")), format("%.2f", c("ratio")), "≤ 1.5",
             format("%s; blocks alone %.2f × tar; %.0f shell commands",
                    c("ratio") <= 1.5 ? "**met**" : "**missed**", c("blocks_ms") / c("tar_ms"),
                    c("shell_cmds"))});
        brask::bench::tableRow(
            {"durable extraction vs `tar -xf; sync -f` on the same file system", format("%dx", scale),
             format("%.1f ms", c("extract_ms")),
             format("%.1f ms (sync -f %.1f)", c("tar_ms") + c("sync_ms"), c("sync_ms")),
             format("%.2f", c("ratio_durable")), "≤ 1.5",
             format("%s; without its flushes the extraction takes %.1f ms, so they cost %.1f ms; "
                    "sync -f alone %.1f ms",
                    c("ratio_durable") <= 1.5 ? "**met**" : "**missed**", c("unflushed_ms"),
                    c("extract_ms") - c("unflushed_ms"), c("sync_ms"))});
    }

    bool ok = true;
    const long idle = brask::bench::peakRssKiB({"--rss-idle"});
    for (const int scale : options.quick ? std::vector<int>{1} : scales) {
        ok = webConsoleBackup(static_cast<unsigned>(scale)) && ok;
        ok = brask::bench::peakMemoryRow(
                 "peak resident memory, one web-console restore", scale, "--rss-restore", idle,
                 "/usr/bin/time -v; command, then 10 ticks (deferred restore, stub reboot)") &&
             ok;
    }
    benchmark::Shutdown();
    return ok ? 0 : 1;
}
