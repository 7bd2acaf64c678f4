#include "console.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace svfsim {
namespace {

long fileSize(const char* path) {
    struct stat st {};
    return ::stat(path, &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

std::FILE* duplicate(int fd) {
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (copy < 0) return nullptr;
    std::FILE* fp = ::fdopen(copy, "w");
    if (fp == nullptr) {
        (void)::close(copy);
        return nullptr;
    }
    std::setvbuf(fp, nullptr, _IOLBF, 0);
    return fp;
}

std::string readFrom(long offset) {
    std::ifstream in(kLogFile, std::ios::binary);
    in.seekg(offset);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

Console& console() {
    static Console c;
    return c;
}

bool Console::begin(bool verbose, std::string& error) {
    (void)::mkdir("/var/log", 0755);
    const int log = ::open(kLogFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log < 0) {
        error = std::string("cannot open ") + kLogFile + ": " + std::strerror(errno);
        return false;
    }
    (void)std::fflush(nullptr);
    out_ = duplicate(1);
    err_ = duplicate(2);
    savedOut_ = out_ != nullptr ? ::fileno(out_) : -1;
    savedErr_ = err_ != nullptr ? ::fileno(err_) : -1;
    (void)::dup2(log, 1);
    (void)::dup2(log, 2);
    (void)::close(log);
    verbose_ = verbose;
    startOffset_ = shownOffset_ = fileSize(kLogFile);
    if (verbose_) {
        follower_ = std::thread([this] {
            while (!stop_.load()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                sync();
            }
        });
    }
    return true;
}

void Console::reopen() {
    if (out_ == nullptr) return;
    (void)::mkdir("/var/log", 0755);
    const int log = ::open(kLogFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log < 0) return;
    const std::lock_guard<std::mutex> lock(showing_);
    (void)::dup2(log, 1);
    (void)::dup2(log, 2);
    (void)::close(log);
    startOffset_ = shownOffset_ = fileSize(kLogFile);
}

void Console::sync() {
    if (!verbose_ || err_ == nullptr) return;
    const std::lock_guard<std::mutex> lock(showing_);
    const std::string added = readFrom(shownOffset_);
    // Whole lines only; a line still being written waits for the next call.
    const std::size_t end = added.rfind('\n');
    if (end == std::string::npos) return;
    (void)std::fwrite(added.data(), 1, end + 1, err_);
    (void)std::fflush(err_);
    shownOffset_ += static_cast<long>(end + 1);
}

void Console::end() {
    if (out_ == nullptr && err_ == nullptr) return;
    stop_ = true;
    if (follower_.joinable()) follower_.join();
    sync();
    (void)std::fflush(nullptr);
    if (savedOut_ >= 0) ::dup2(savedOut_, 1);
    if (savedErr_ >= 0) ::dup2(savedErr_, 2);
    if (out_ != nullptr) (void)std::fclose(out_);
    if (err_ != nullptr) (void)std::fclose(err_);
    out_ = err_ = nullptr;
}

std::string Console::lastErrorLine() const {
    const std::string added = readFrom(startOffset_);
    std::string last;
    std::size_t pos = 0;
    while (pos < added.size()) {
        std::size_t eol = added.find('\n', pos);
        if (eol == std::string::npos) eol = added.size();
        const std::string_view line(added.data() + pos, eol - pos);
        if (line.starts_with("BRASK_ERR") || line.starts_with("BRASK_MSG[2]") ||
            line.starts_with("BRASK_MSG[3]"))
            last = line;
        pos = eol + 1;
    }
    return last;
}

void say(const char* format, ...) {
    std::FILE* out = console().out();
    va_list args;
    va_start(args, format);
    std::vfprintf(out, format, args);
    va_end(args);
    std::fputc('\n', out);
}

int fail(const std::string& reason) {
    Console& c = console();
    (void)std::fflush(c.out());
    std::fprintf(c.err(), "svfsim: %s\n", reason.c_str());
    const std::string line = c.lastErrorLine();
    // The host's path to the log when the state directory outlives this run.
    const char* root = std::getenv("BRASK_SVFSIM_HOST_ROOT");
    const std::string where = root != nullptr && *root != '\0' ? std::string(root) + kLogFile
                                                               : std::string(kLogFile) + " (in the sandbox)";
    std::fprintf(c.err(), "svfsim: library log: %s\n", where.c_str());
    if (!line.empty()) std::fprintf(c.err(), "svfsim: last error: %s\n", line.c_str());
    return 1;
}

}  // namespace svfsim
