#include "benchSupport.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "support/sandbox.h"

extern char** environ;

namespace brask::bench {

namespace {

constexpr char kBeginMarker[] = "/brask-bench-begin";
constexpr char kEndMarker[] = "/brask-bench-end";

std::string selfExe() {
    char exe[4096];
    const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return {};
    exe[n] = '\0';
    return exe;
}

std::vector<std::string> selfRun(const std::vector<std::string>& modeAndArgs) {
    std::vector<std::string> args{selfExe()};
    args.insert(args.end(), modeAndArgs.begin(), modeAndArgs.end());
    return args;
}

// "1234  name(args..." -> name; empty for lines that are not a call
// ("<... x resumed>", "+++ exited", "--- SIGCHLD").
std::string callName(const std::string& line, std::size_t& rest) {
    std::size_t i = 0;
    while (i < line.size() && std::isdigit(static_cast<unsigned char>(line[i]))) ++i;
    while (i < line.size() && line[i] == ' ') ++i;
    const std::size_t start = i;
    while (i < line.size() && (std::isalnum(static_cast<unsigned char>(line[i])) || line[i] == '_')) ++i;
    if (i == start || i >= line.size() || line[i] != '(') return {};
    rest = i + 1;
    return line.substr(start, i - start);
}

// A call line or a "<... resumed>" line whose result is 0.
bool returnedZero(const std::string& line) {
    const std::size_t eq = line.rfind('=');
    return eq != std::string::npos && line.compare(eq, std::string::npos, "= 0") == 0;
}

std::string pidOf(const std::string& line) {
    std::size_t i = 0;
    while (i < line.size() && std::isdigit(static_cast<unsigned char>(line[i]))) ++i;
    return line.substr(0, i);
}

}  // namespace

Options parseOptions(int& argc, char** argv) {
    Options options;
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--quick") {
            options.quick = true;
        } else {
            argv[kept++] = argv[i];
        }
    }
    argv[kept] = nullptr;
    argc = kept;
    return options;
}

double minTime(const Options& options, double full) { return options.quick ? 0.05 : full; }

Quiet::Quiet() {
    (void)std::fflush(stdout);
    (void)std::fflush(stderr);
    savedOut_ = ::dup(1);
    savedErr_ = ::dup(2);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    (void)::dup2(null, 1);
    (void)::dup2(null, 2);
    (void)::close(null);
}

Quiet::~Quiet() {
    (void)std::fflush(stdout);
    (void)std::fflush(stderr);
    (void)::dup2(savedOut_, 1);
    (void)::dup2(savedErr_, 2);
    (void)::close(savedOut_);
    (void)::close(savedErr_);
}

bool run(const std::vector<std::string>& args, const std::string& output) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    (void)::posix_spawn_file_actions_init(&actions);
    if (!output.empty()) {
        (void)::posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                                 0644);
        (void)::posix_spawn_file_actions_adddup2(&actions, 1, 2);
    }
    pid_t pid = 0;
    const int rc = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    (void)::posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return false;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool writeList(const std::string& listFile, const std::vector<std::string>& paths) {
    std::string text;
    for (const std::string& p : paths) text += p.substr(1) + "\n";
    test::writeFile(listFile, text);
    return !paths.empty();
}

std::vector<std::string> activeFiles() {
    std::vector<std::string> files;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        if (test::exists(row.FilePass)) files.emplace_back(row.FilePass);
    }
    return files;
}

std::vector<std::string> backupCopies() {
    std::vector<std::string> files;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        char bak[SVF_FILE_PASS_SIZE] = {};
        if (svfGetBackupFilePass(const_cast<char*>(row.FilePass), bak) == 0 && test::exists(bak)) {
            files.emplace_back(bak);
        }
    }
    return files;
}

long largestActiveFile() {
    long largest = 0;
    for (const std::string& p : activeFiles()) {
        struct stat st {};
        if (::stat(p.c_str(), &st) == 0) largest = std::max(largest, static_cast<long>(st.st_size));
    }
    return largest;
}

long totalActiveBytes() {
    long total = 0;
    for (const std::string& p : activeFiles()) {
        struct stat st {};
        if (::stat(p.c_str(), &st) == 0) total += static_cast<long>(st.st_size);
    }
    return total;
}

void freshConf(unsigned scale) {
    test::resetState();
    svfIniTimer();
    (void)test::populateConf({.optionalFiles = true, .backupCopies = false, .scale = scale});
}

double quantile(std::vector<double> samples, double q) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const auto at = static_cast<std::size_t>(q * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[std::min(at, samples.size() - 1)];
}

void CollectingReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& r : runs) {
        if (r.run_type == Run::RT_Iteration) runs_[r.benchmark_name()] = r;
    }
    ConsoleReporter::ReportRuns(runs);
}

const CollectingReporter::Run* CollectingReporter::find(const std::string& prefix) const {
    for (const auto& [name, r] : runs_) {
        // "BM_x/1" matches "BM_x/1/min_time:0.050", not "BM_x/10".
        if (name == prefix || name.rfind(prefix + "/", 0) == 0) return &r;
    }
    return nullptr;
}

double CollectingReporter::counter(const std::string& prefix, const std::string& name) const {
    const Run* r = find(prefix);
    if (r == nullptr) return 0;
    const auto it = r->counters.find(name);
    return it == r->counters.end() ? 0 : static_cast<double>(it->second);
}

std::string format(const char* fmt, ...) {
    char buf[1024];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, args);
    va_end(args);
    return buf;
}

void tableRow(const std::vector<std::string>& cells) {
    std::string line = "|";
    for (const std::string& c : cells) line += " " + c + " |";
    line += "\n";
    std::fputs(line.c_str(), stdout);
    (void)std::fflush(stdout);
}

void markBegin() { (void)::access(kBeginMarker, F_OK); }
void markEnd() { (void)::access(kEndMarker, F_OK); }

Trace traceChild(const std::vector<std::string>& modeAndArgs) {
    const std::string log = "/run/brask/bench-strace.log";
    std::vector<std::string> args = {"/usr/bin/strace", "-f", "-qq", "-o", log, "--"};
    for (const std::string& a : selfRun(modeAndArgs)) args.push_back(a);
    Trace t;
    const bool ran = run(args, "/dev/null");
    std::ifstream in(log);
    std::string line;
    bool on = false;
    std::map<std::string, std::string> pendingExec;  // pid -> path of an unfinished execve
    auto execPath = [](const std::string& l, std::size_t rest) {
        const std::size_t q1 = l.find('"', rest);
        const std::size_t q2 = q1 == std::string::npos ? q1 : l.find('"', q1 + 1);
        return q2 == std::string::npos ? std::string() : l.substr(q1 + 1, q2 - q1 - 1);
    };
    while (std::getline(in, line)) {
        if (line.find(kBeginMarker) != std::string::npos) {
            on = true;
            continue;
        }
        if (line.find(kEndMarker) != std::string::npos) break;
        if (!on) continue;
        const std::string pid = pidOf(line);
        if (line.find("<... execve resumed>") != std::string::npos) {
            if (returnedZero(line)) t.programs.push_back(pendingExec[pid]);
            pendingExec.erase(pid);
            continue;
        }
        std::size_t rest = 0;
        const std::string name = callName(line, rest);
        if (name.empty()) continue;
        ++t.syscalls[name];
        ++t.total;
        if (name == "clone" || name == "clone3" || name == "fork" || name == "vfork") ++t.processes;
        if (name == "execve") {
            if (line.find("<unfinished ...>") != std::string::npos)
                pendingExec[pid] = execPath(line, rest);
            else if (returnedZero(line))
                t.programs.push_back(execPath(line, rest));
        }
    }
    if (std::getenv("BRASK_BENCH_KEEP_TRACE") == nullptr) std::remove(log.c_str());
    t.ok = ran && on;
    return t;
}

long peakRssKiB(const std::vector<std::string>& modeAndArgs) {
    const std::string out = "/var/log/brask-bench-time.txt";
    std::vector<std::string> args = {"/usr/bin/time", "-v", "-o", out};
    for (const std::string& a : selfRun(modeAndArgs)) args.push_back(a);
    if (!run(args, "/dev/null")) return -1;
    std::ifstream in(out);
    std::string line;
    long kib = -1;
    const std::string key = "Maximum resident set size (kbytes):";
    while (std::getline(in, line)) {
        const std::size_t at = line.find(key);
        if (at != std::string::npos) kib = std::stol(line.substr(at + key.size()));
    }
    (void)std::remove(out.c_str());
    return kib;
}

std::string describe(const std::map<std::string, long>& counts, double divisor) {
    std::vector<std::pair<std::string, long>> v(counts.begin(), counts.end());
    std::stable_sort(v.begin(), v.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string s;
    for (const auto& [name, n] : v) {
        if (!s.empty()) s += ", ";
        const double per = static_cast<double>(n) / divisor;
        s += name + (per == 1.0 ? "" : format(" ×%g", per));
    }
    return s;
}

}  // namespace brask::bench

namespace brask::bench {

std::vector<int> catalogueScales(const Options& options) {
    return options.quick ? std::vector<int>{1, 10} : std::vector<int>{1, 10, 100};
}

void registerPerScale(const char* name, void (*fn)(benchmark::State&), const std::vector<int>& scales,
                      const Options& options) {
    for (const int scale : scales) {
        benchmark::RegisterBenchmark(name, fn)
            ->Arg(scale)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->MinTime(minTime(options, scale == 100 ? 5.0 : 2.0));
    }
}

std::string mib(double bytes) { return format("%.1f MiB", bytes / (1 << 20)); }

bool peakMemoryRow(const char* measure, int scale, const char* mode, long idleKiB, const char* notes) {
    const double largest = static_cast<double>(largestActiveFile());
    const double total = static_cast<double>(totalActiveBytes());
    const long peak = peakRssKiB({mode});
    tableRow(
        {measure, format("%dx", scale),
         format("%.1f MiB (idle run of the same binary %.1f MiB)", peak / 1024.0, idleKiB / 1024.0),
         "largest file " + mib(largest) + ", all files " + mib(total),
         format("(peak − idle) / largest = %.2f", (static_cast<double>(peak - idleKiB) * 1024) / largest),
         "—", notes});
    return peak > 0;
}

}  // namespace brask::bench
