// svfGetFileSum over a 64 MiB page-cached file against a plain in-memory
// 32-bit word sum of the same bytes, measured in the same run; the ratio
// (in-memory time / file time) is printed at the end.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "support/sandbox.h"

namespace {

constexpr std::size_t kFileSize = 64u << 20;
// In the sandbox /var lies on the host's disk file system (page cache) and
// /tmp on tmpfs; both are measured.
constexpr const char* kPaths[] = {"/var/checksum-bench.bin", "/tmp/checksum-bench.bin"};

std::vector<std::uint8_t>& content() {
    static std::vector<std::uint8_t> bytes = [] {
        std::vector<std::uint8_t> b(kFileSize);
        std::mt19937 rng(7);
        for (std::size_t i = 0; i < b.size(); i += 4) {
            const auto w = static_cast<std::uint32_t>(rng());
            std::memcpy(&b[i], &w, 4);
        }
        return b;
    }();
    return bytes;
}

bool writeContent(const char* path) {
    std::FILE* fp = std::fopen(path, "wb");
    if (fp == nullptr) return false;
    const bool ok = std::fwrite(content().data(), 1, kFileSize, fp) == kFileSize;
    return std::fclose(fp) == 0 && ok;
}

void BM_svfGetFileSum(benchmark::State& state) {
    std::FILE* fp = std::fopen(kPaths[state.range(0)], "rb");
    if (fp == nullptr) {
        state.SkipWithError("cannot open the benchmark file");
        return;
    }
    (void)svfGetFileSum(fp, 0);  // warm the page cache
    for (auto _ : state) {
        INT32U sum = svfGetFileSum(fp, 0);
        benchmark::DoNotOptimize(sum);
    }
    std::fclose(fp);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kFileSize));
}

void BM_inMemoryWordSum(benchmark::State& state) {
    const std::uint8_t* p = content().data();
    for (auto _ : state) {
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < kFileSize; i += 4) {
            std::uint32_t w;
            std::memcpy(&w, p + i, 4);
            sum += w;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kFileSize));
}

BENCHMARK(BM_svfGetFileSum)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_inMemoryWordSum)->Unit(benchmark::kMillisecond)->MinTime(1.0);

// Console output as usual, plus the time per iteration of each benchmark.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration) continue;
            // Keyed by name and argument, without "/min_time:...".
            const std::string name = r.benchmark_name();
            times[name.substr(0, name.find("/min_time"))] = r.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
    brask::test::enterSandbox(argc, argv);
    benchmark::Initialize(&argc, argv);
    for (const char* path : kPaths) {
        if (!writeContent(path)) {
            std::fprintf(stderr, "cannot write %s\n", path);
            return 1;
        }
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto memory = reporter.times.find("BM_inMemoryWordSum");
    for (int i = 0; i < 2; ++i) {
        const auto file = reporter.times.find("BM_svfGetFileSum/" + std::to_string(i));
        if (file != reporter.times.end() && memory != reporter.times.end() && file->second > 0) {
            std::printf("%s: ratio in-memory / svfGetFileSum = %.2f (target >= 0.50)\n", kPaths[i],
                        memory->second / file->second);
        }
        std::remove(kPaths[i]);
    }
    benchmark::Shutdown();
    return 0;
}
