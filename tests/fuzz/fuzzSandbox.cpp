// Harness support of the sandboxed fuzz targets: sandbox entry and quiet
// library output.
#include "fuzzSandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "BraskSvf/hostPlatformControl.h"
#include "fuzzCheck.h"
#include "sandbox/sandbox.h"

namespace brask::fuzz {
namespace {

void makeDirs(const std::string& path) {
    for (std::size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
        const std::string prefix = path.substr(0, at);
        if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
            std::fprintf(stderr, "fuzz: cannot make %s: %s\n", prefix.c_str(), std::strerror(errno));
            std::exit(2);
        }
        if (at == std::string::npos) break;
    }
}

}  // namespace

void enterSandbox(int* argc, char*** argv) {
    sandbox::Options options;
    options.readWritePaths = {BRASK_FUZZ_WORK_DIR};
    if (!sandbox::insideSandbox()) makeDirs(BRASK_FUZZ_WORK_DIR);
    sandbox::enterSandbox(*argc, *argv, options);

    // /conf and /var in memory: every input rewrites files there, and on a
    // disk each truncating rewrite costs a flush.
    for (const char* dir : {"/conf", "/var"}) {
        if (::mount("fuzz", dir, "tmpfs", MS_NOSUID | MS_NODEV, "size=256m,mode=0755") != 0) {
            std::fprintf(stderr, "fuzz: cannot mount a tmpfs on %s: %s\n", dir, std::strerror(errno));
            std::exit(2);
        }
    }
    if (!sandbox::resetTree() || hostPlatformInit() != 0) {
        std::fprintf(stderr, "fuzz: cannot lay out the sandbox tree\n");
        std::exit(2);
    }
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devNull < 0 || ::dup2(devNull, STDOUT_FILENO) < 0) std::exit(2);
    ::close(devNull);
}

Quiet::Quiet() : saved_(::dup(STDERR_FILENO)) {
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devNull >= 0) {
        ::dup2(devNull, STDERR_FILENO);
        ::close(devNull);
    }
}

Quiet::~Quiet() {
    if (saved_ >= 0) {
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
    }
}

int openDescriptorCount() {
    DIR* d = ::opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    int count = 0;
    while (const dirent* e = ::readdir(d)) {
        if (e->d_name[0] != '.') ++count;
    }
    ::closedir(d);
    return count - 1;  // the directory stream's own
}

void writeFile(const char* path, const std::uint8_t* data, std::size_t size) {
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    FUZZ_CHECK(fd >= 0);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, data + done, size - done);
        FUZZ_CHECK(n > 0);
        done += static_cast<std::size_t>(n);
    }
    FUZZ_CHECK(::close(fd) == 0);
}

std::vector<std::uint8_t> readFile(const char* path) {
    std::vector<std::uint8_t> bytes;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return bytes;
    std::uint8_t buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) break;
        bytes.insert(bytes.end(), buf, buf + n);
    }
    ::close(fd);
    return bytes;
}

}  // namespace brask::fuzz
