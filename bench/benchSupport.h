// Helpers shared by the backup and extract benchmarks: silencing the
// library's diagnostics while timing, running a baseline command, the
// realistic catalogue's file lists and a count of shell commands.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "support/scenario.h"

extern char** environ;

namespace brask::bench {

// Standard output and error go to /dev/null while alive, so terminal I/O of
// the diagnostics is not part of the measured time.
class Quiet {
public:
    Quiet() {
        std::fflush(stdout);
        std::fflush(stderr);
        savedOut_ = ::dup(1);
        savedErr_ = ::dup(2);
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(null, 1);
        ::dup2(null, 2);
        ::close(null);
    }
    ~Quiet() {
        std::fflush(stdout);
        std::fflush(stderr);
        ::dup2(savedOut_, 1);
        ::dup2(savedErr_, 2);
        ::close(savedOut_);
        ::close(savedErr_);
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    int savedOut_ = -1;
    int savedErr_ = -1;
};

// Runs argv[0] (an absolute path) directly, without a shell; true on exit 0.
inline bool run(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return false;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

inline double secondsOf(const std::chrono::steady_clock::duration& d) {
    return std::chrono::duration<double>(d).count();
}

// Writes one path per line, relative to / (tar -C / -T list).
inline bool writeList(const std::string& listFile, const std::vector<std::string>& paths) {
    std::string text;
    for (const std::string& p : paths) text += p.substr(1) + "\n";
    test::writeFile(listFile, text);
    return !paths.empty();
}

// Active files of the catalogue present in /conf, in catalogue order.
inline std::vector<std::string> activeFiles() {
    std::vector<std::string> files;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        if (test::exists(row.FilePass)) files.emplace_back(row.FilePass);
    }
    return files;
}

// Their ".bak" copies that exist.
inline std::vector<std::string> backupCopies() {
    std::vector<std::string> files;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        char bak[SVF_FILE_PASS_SIZE] = {};
        if (svfGetBackupFilePass(const_cast<char*>(row.FilePass), bak) == 0 && test::exists(bak)) {
            files.emplace_back(bak);
        }
    }
    return files;
}

// Number of std::system calls made since the start (see shellCount.cpp).
unsigned long shellCommandCount();
// Wall time spent in those calls, in seconds.
double shellSeconds();

}  // namespace brask::bench
