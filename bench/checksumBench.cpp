// svfGetFileSum over page-cached files of 4 KiB to 64 MiB against a plain
// in-memory 32-bit word sum of the same bytes (the limit), measured in the
// same run; the summary rows carry ns/byte of both and the ratio
// limit time / library time (target >= 0.5 at 64 MiB).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "benchSupport.h"
#include "support/sandbox.h"

namespace {

using brask::bench::format;

constexpr std::size_t kLargest = 64u << 20;
// /var lies on the host's disk file system (page cache), /tmp on tmpfs.
constexpr char kTmpfsFile[] = "/tmp/checksum-bench.bin";

std::string diskFile(std::size_t size) { return "/var/checksum-" + std::to_string(size) + ".bin"; }

const std::vector<std::uint8_t>& content() {
    static const std::vector<std::uint8_t> bytes = [] {
        std::vector<std::uint8_t> b(kLargest);
        std::mt19937 rng(7);
        for (std::size_t i = 0; i < b.size(); i += 4) {
            const auto w = static_cast<std::uint32_t>(rng());
            std::memcpy(&b[i], &w, 4);
        }
        return b;
    }();
    return bytes;
}

bool writeContent(const std::string& path, std::size_t size) {
    std::FILE* fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr) return false;
    const bool ok = std::fwrite(content().data(), 1, size, fp) == size;
    return std::fclose(fp) == 0 && ok;
}

void sumFile(benchmark::State& state, const std::string& path, std::size_t size) {
    std::FILE* fp = std::fopen(path.c_str(), "rb");
    if (fp == nullptr) {
        state.SkipWithError("cannot open the benchmark file");
        return;
    }
    (void)svfGetFileSum(fp, 0);  // warm the page cache
    for (auto _ : state) {
        INT32U sum = svfGetFileSum(fp, 0);
        benchmark::DoNotOptimize(sum);
    }
    (void)std::fclose(fp);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

void BM_svfGetFileSum(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    sumFile(state, diskFile(size), size);
}

void BM_svfGetFileSumTmpfs(benchmark::State& state) { sumFile(state, kTmpfsFile, kLargest); }

void BM_inMemoryWordSum(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::uint8_t* p = content().data();
    for (auto _ : state) {
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < size; i += 4) {
            std::uint32_t w;
            std::memcpy(&w, p + i, 4);
            sum += w;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

std::string sizeText(std::size_t size) {
    return size >= (1u << 20) ? format("%zu MiB", size >> 20) : format("%zu KiB", size >> 10);
}

}  // namespace

int main(int argc, char** argv) {
    brask::test::enterSandbox(argc, argv);
    const brask::bench::Options options = brask::bench::parseOptions(argc, argv);
    std::vector<std::size_t> sizes;
    for (std::size_t s = 4u << 10; s <= kLargest; s *= options.quick ? 16 : 4) sizes.push_back(s);
    if (sizes.back() != kLargest) sizes.push_back(kLargest);

    for (const std::size_t size : sizes) {
        if (!writeContent(diskFile(size), size)) {
            std::fprintf(stderr, "cannot write %s\n", diskFile(size).c_str());
            return 1;
        }
    }
    if (!writeContent(kTmpfsFile, kLargest)) {
        std::fprintf(stderr, "cannot write %s\n", kTmpfsFile);
        return 1;
    }

    benchmark::Initialize(&argc, argv);
    const double minTime = brask::bench::minTime(options, 0.5);
    for (const std::size_t size : sizes) {
        const auto arg = static_cast<std::int64_t>(size);
        benchmark::RegisterBenchmark("BM_svfGetFileSum", BM_svfGetFileSum)->Arg(arg)->MinTime(minTime);
        benchmark::RegisterBenchmark("BM_inMemoryWordSum", BM_inMemoryWordSum)->Arg(arg)->MinTime(minTime);
    }
    benchmark::RegisterBenchmark("BM_svfGetFileSumTmpfs", BM_svfGetFileSumTmpfs)->MinTime(minTime);
    brask::bench::CollectingReporter reporter;
    (void)benchmark::RunSpecifiedBenchmarks(&reporter);

    // Real time per iteration is in nanoseconds (the default unit).
    auto nsPerByte = [&](const std::string& name, std::size_t size) {
        const auto* r = reporter.find(name);
        return r == nullptr ? 0.0 : r->GetAdjustedRealTime() / static_cast<double>(size);
    };
    const double memLargest = nsPerByte("BM_inMemoryWordSum/" + std::to_string(kLargest), kLargest);
    for (const std::size_t size : sizes) {
        const double lib = nsPerByte("BM_svfGetFileSum/" + std::to_string(size), size);
        const double mem = nsPerByte("BM_inMemoryWordSum/" + std::to_string(size), size);
        const double ratio = lib > 0 ? mem / lib : 0;
        const bool target = size == kLargest;
        brask::bench::tableRow(
            {"svfGetFileSum, page-cached file (ext4)", sizeText(size),
             format("%.3f ns/B (%.1f µs)", lib, lib * static_cast<double>(size) / 1e3),
             format("%.3f ns/B in-memory word sum", mem), format("%.2f", ratio), target ? "≥ 0.5" : "—",
             target ? (ratio >= 0.5 ? "**met**" : "**missed**") : "ratio = limit / library"});
    }
    const double tmpfs = nsPerByte("BM_svfGetFileSumTmpfs", kLargest);
    brask::bench::tableRow({"svfGetFileSum, the same file on tmpfs", sizeText(kLargest),
                            format("%.3f ns/B", tmpfs), format("%.3f ns/B", memLargest),
                            format("%.2f", tmpfs > 0 ? memLargest / tmpfs : 0), "—", "for comparison"});
    for (const std::size_t size : sizes) (void)std::remove(diskFile(size).c_str());
    (void)std::remove(kTmpfsFile);
    benchmark::Shutdown();
    return 0;
}
