// Helpers shared by the benchmarks: options, silencing the library's
// diagnostics while timing, running a baseline command, the realistic
// catalogue's file lists, a count of shell commands, the rows of the summary
// table, and measurements of a child run of the same binary inside the same
// sandbox (system calls and processes under strace, peak memory under
// /usr/bin/time).
#pragma once

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "support/scenario.h"

namespace brask::bench {

// Our own option, taken out of argv before Google Benchmark sees it:
//   --quick   short run (a smoke check): fewer sizes, short minimum times
struct Options {
    bool quick = false;
};
Options parseOptions(int& argc, char** argv);

// Minimum time of a benchmark: short in a quick run.
double minTime(const Options& options, double full);

// Catalogue scales a run covers: 1x, 10x, and 100x unless quick (one
// iteration at 100x takes most of a second, and its setup as long).
std::vector<int> catalogueScales(const Options& options);
// Registers `fn` once per scale (its argument), timed by the benchmark itself.
void registerPerScale(const char* name, void (*fn)(benchmark::State&), const std::vector<int>& scales,
                      const Options& options);

// Standard output and error go to /dev/null while alive, so terminal I/O of
// the diagnostics is not part of the measured time.
class Quiet {
public:
    Quiet();
    ~Quiet();
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    int savedOut_ = -1;
    int savedErr_ = -1;
};

// Runs argv[0] (an absolute path) directly, without a shell; true on exit 0.
// With `output`, the child's standard output and error go to that file.
bool run(const std::vector<std::string>& args, const std::string& output = {});

inline double secondsOf(const std::chrono::steady_clock::duration& d) {
    return std::chrono::duration<double>(d).count();
}

// Writes one path per line, relative to / (tar -C / -T list).
bool writeList(const std::string& listFile, const std::vector<std::string>& paths);
// Active files of the catalogue present in /conf, in catalogue order.
std::vector<std::string> activeFiles();
// Their ".bak" copies that exist.
std::vector<std::string> backupCopies();
// Size in bytes of the largest active catalogued file, and the sum of all.
long largestActiveFile();
long totalActiveBytes();

// A fresh sandbox state with the realistic catalogue at `scale`.
void freshConf(unsigned scale);

// Number of std::system calls made since the start (see shellCount.cpp).
unsigned long shellCommandCount();
// Wall time spent in those calls, in seconds.
double shellSeconds();

// The value at fraction q (0..1) of the sorted samples.
double quantile(std::vector<double> samples, double q);

// Console output as usual, and every run kept by name for the summary.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal, so captured output stays plain text.
    CollectingReporter() : ConsoleReporter(::isatty(1) ? OO_ColorTabular : OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override;
    // The run whose name starts with `prefix` (names carry "/min_time:..."
    // and "/manual_time" suffixes); null when it did not run.
    const Run* find(const std::string& prefix) const;
    double counter(const std::string& prefix, const std::string& name) const;

private:
    std::map<std::string, Run> runs_;
};

// One row of the summary table on standard output, a markdown line that
// begins with "| " (scripts/bench collects those): measure, case, library,
// limit, ratio, target, notes.  Printed after the benchmarks, whose own
// lines never begin so.
void tableRow(const std::vector<std::string>& cells);
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Marks the part of a child's strace log that is measured.
void markBegin();
void markEnd();

// What a child run of this binary (`this exe` + `mode` + args) did between
// markBegin() and markEnd(), traced with `strace -f` (every system call of
// the process and of the processes it starts).
struct Trace {
    bool ok = false;
    std::map<std::string, long> syscalls;  // name -> count
    long total = 0;
    long processes = 0;                 // clone/clone3/fork/vfork
    std::vector<std::string> programs;  // execve'd paths, in order
};
Trace traceChild(const std::vector<std::string>& modeAndArgs);

// Peak resident set size in KiB of a child run of this binary, from
// `/usr/bin/time -v` ("Maximum resident set size"); -1 on failure.
long peakRssKiB(const std::vector<std::string>& modeAndArgs);

// One table row: peak memory of a child run (`mode`) at `scale` against an
// idle run and the catalogue's files, as laid out now; false on failure.
bool peakMemoryRow(const char* measure, int scale, const char* mode, long idleKiB, const char* notes);

std::string mib(double bytes);

// "name ×n, ..." of a syscall count map, by decreasing count.
std::string describe(const std::map<std::string, long>& counts, double divisor = 1.0);

}  // namespace brask::bench
