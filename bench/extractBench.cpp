// Extracting the blocks of a realistic full BMC backup into /conf
// (svfExtractBraskArchiveblock) against `tar -xf` of a tar of the same live
// files into the same places, interleaved in every iteration so both see the
// same load; the ratio is a counter.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "BraskSvf/svfApi.h"
#include "benchSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace {

using brask::bench::Quiet;
using Clock = std::chrono::steady_clock;

constexpr char kTarFile[] = "/var/brask/y.tar";
constexpr char kTarList[] = "/var/brask/y.list";
constexpr INT8U kRestoreMode = 2;

INT8U gBlocks = 0;

// A web-console backup renamed to the BMC backup file and split into its
// block files /var/brask/BMC.bak-<n>, which extraction leaves in place.
bool prepareBlocks() {
    Quiet quiet;
    INT8U req[6] = {1 /*BMC_FILE*/, 2 /*BMC_WEB_CONSOLE*/, 0, 0, 0, 0};
    INT8U res[8] = {0xEE};
    (void)svfOEMSetBackupEvent(req, 6, res, 0);
    if (res[0] != 0x00) return false;
    if (std::rename("/var/brask/BmcWeb.bak", "/var/brask/BMC.bak") != 0) return false;
    return svfExtractBraskBackupFile(BMC_FILE, kRestoreMode, &gBlocks) == 0 && gBlocks > 0;
}

void BM_extractBlocksVsTar(benchmark::State& state) {
    if (!brask::bench::writeList(kTarList, brask::bench::activeFiles()) ||
        !brask::bench::run({"/usr/bin/tar", "-cf", kTarFile, "-C", "/", "-T", kTarList})) {
        state.SkipWithError("cannot make the baseline tar");
        return;
    }
    double extract = 0, tar = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        int rc = 0;
        {
            Quiet quiet;
            rc = svfExtractBraskArchiveblock(BMC_FILE, gBlocks);
        }
        const auto t1 = Clock::now();
        const bool tarOk = brask::bench::run({"/usr/bin/tar", "-xf", kTarFile, "-C", "/"});
        const auto t2 = Clock::now();
        if (rc != 0 || !tarOk) {
            state.SkipWithError(rc != 0 ? "svfExtractBraskArchiveblock failed" : "tar -xf failed");
            return;
        }
        const double e = brask::bench::secondsOf(t1 - t0);
        state.SetIterationTime(e);
        extract += e;
        tar += brask::bench::secondsOf(t2 - t1);
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["extract_ms"] = 1e3 * extract / n;
    state.counters["tar_ms"] = 1e3 * tar / n;
    state.counters["ratio"] = extract / tar;  // target <= 1.5
    state.counters["blocks"] = gBlocks;
    state.counters["files"] = static_cast<double>(brask::bench::activeFiles().size());
    state.SetLabel("ratio = extract / tar -xf of the same files (target <= 1.5)");
}

BENCHMARK(BM_extractBlocksVsTar)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
    brask::test::enterSandbox(argc, argv);
    brask::test::resetState();
    svfIniTimer();
    brask::test::populateConf({.optionalFiles = true, .backupCopies = false, .scale = 1});
    if (!prepareBlocks()) {
        std::fprintf(stderr, "cannot prepare the backup blocks\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
