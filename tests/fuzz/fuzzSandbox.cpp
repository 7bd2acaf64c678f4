// Harness support of the sandboxed fuzz targets: sandbox entry, quiet library
// output, and a snapshot/restore of the sandbox tree between inputs.
#include "fuzzSandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

bool sameNode(const Node& a, const Node& b) {
    if ((a.mode & S_IFMT) != (b.mode & S_IFMT) || a.mode != b.mode || a.uid != b.uid ||
        a.gid != b.gid) {
        return false;
    }
    if (S_ISDIR(a.mode)) return true;
    return a.size == b.size && a.mtime.tv_sec == b.mtime.tv_sec &&
           a.mtime.tv_nsec == b.mtime.tv_nsec;
}

// nftw has no context argument.
Tree* gCollecting = nullptr;

int collect(const char* path, const struct stat* st, int, FTW*) {
    (*gCollecting)[path] = Node{st->st_mode, st->st_uid, st->st_gid, st->st_size, st->st_mtim};
    return 0;
}

int removeOne(const char* path, const struct stat*, int type, FTW*) {
    return type == FTW_DP ? ::rmdir(path) : ::unlink(path);
}

void removePath(const std::string& path) {
    struct stat st{};
    if (::lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        ::chmod(path.c_str(), 0700);
        (void)::nftw(path.c_str(), removeOne, 16, FTW_DEPTH | FTW_PHYS);
    } else {
        ::unlink(path.c_str());
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

Tree snapshot(std::initializer_list<const char*> roots) {
    Tree tree;
    gCollecting = &tree;
    // FTW_MOUNT: a checkout under /tmp is mounted there, and is not ours to watch.
    for (const char* root : roots) (void)::nftw(root, collect, 16, FTW_PHYS | FTW_MOUNT);
    gCollecting = nullptr;
    return tree;
}

std::vector<std::string> changedPaths(const Tree& before, const Tree& after) {
    std::vector<std::string> changed;
    auto b = before.begin();
    auto a = after.begin();
    while (b != before.end() || a != after.end()) {
        if (a == after.end() || (b != before.end() && b->first < a->first)) {
            changed.push_back((b++)->first);  // removed
        } else if (b == before.end() || a->first < b->first) {
            changed.push_back((a++)->first);  // created
        } else {
            if (!sameNode(b->second, a->second)) changed.push_back(a->first);
            ++a;
            ++b;
        }
    }
    return changed;
}

Pristine::Pristine(const Tree& tree) {
    for (const auto& [path, node] : tree) {
        Saved s{node, {}};
        if (S_ISREG(node.mode)) s.content = readFile(path.c_str());
        saved_.emplace(path, std::move(s));
    }
}

void Pristine::restore(const std::vector<std::string>& paths) const {
    // Children after their folders when rebuilding, before them when removing.
    for (auto it = paths.rbegin(); it != paths.rend(); ++it) {
        const auto found = saved_.find(*it);
        struct stat st{};
        const bool present = ::lstat(it->c_str(), &st) == 0;
        if (found == saved_.end() ||
            (present && (st.st_mode & S_IFMT) != (found->second.node.mode & S_IFMT))) {
            removePath(*it);
        }
    }
    for (const std::string& path : paths) {
        const auto found = saved_.find(path);
        if (found == saved_.end()) continue;
        const Node& node = found->second.node;
        if (S_ISDIR(node.mode)) {
            if (::mkdir(path.c_str(), 0700) != 0) FUZZ_CHECK(errno == EEXIST);
            FUZZ_CHECK(::lchown(path.c_str(), node.uid, node.gid) == 0);
            FUZZ_CHECK(::chmod(path.c_str(), node.mode & 07777) == 0);
            continue;
        }
        FUZZ_CHECK(S_ISREG(node.mode));  // the trees we lay out hold nothing else
        ::unlink(path.c_str());
        const std::vector<std::uint8_t>& content = found->second.content;
        writeFile(path.c_str(), content.data(), content.size());
        FUZZ_CHECK(::lchown(path.c_str(), node.uid, node.gid) == 0);
        FUZZ_CHECK(::chmod(path.c_str(), node.mode & 07777) == 0);
        const timespec times[2] = {{0, UTIME_OMIT}, node.mtime};
        FUZZ_CHECK(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0);
    }
}

}  // namespace brask::fuzz
