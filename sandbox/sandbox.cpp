// The sandbox: test binaries and svfsim re-execute themselves inside
// bubblewrap so that the library's fixed paths (/conf, /var, /etc/init.d,
// /proc/ractrends, reboot) land in a private tree instead of on the host.
#include "sandbox/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/scoped.h"
#include "sandboxConfig.h"

namespace brask::sandbox {
namespace {

constexpr char kInsideEnv[] = "BRASK_SANDBOX";
constexpr char kKeepEnv[] = "BRASK_KEEP_SANDBOX";
constexpr char kRunDir[] = "/run/brask";
constexpr char kFwInfoReal[] = "/run/brask/ractrends/Helper/FwInfo";
constexpr char kSandboxPath[] = "/sandbox/bin:/usr/sbin:/usr/bin:/sbin:/bin";

// What root inside may do: own files for other ids (chown tests), mount a
// small tmpfs over a state folder (disk-full tests), signal and trace its own
// children (LeakSanitizer).  Rebooting, loading modules, raw I/O, time and
// network administration stay out of reach.
constexpr const char* kCapabilities[] = {
    "CAP_CHOWN",  "CAP_DAC_OVERRIDE", "CAP_DAC_READ_SEARCH", "CAP_FOWNER",    "CAP_FSETID",    "CAP_KILL",
    "CAP_SETGID", "CAP_SETUID",       "CAP_IPC_OWNER",       "CAP_SYS_ADMIN", "CAP_SYS_PTRACE"};

// What sanitizers, gtest and the tests read from procfs; the rest of /proc
// is the stub tree.
constexpr const char* kProcEntries[] = {"self", "thread-self", "meminfo",     "cpuinfo", "stat",
                                        "sys",  "mounts",      "filesystems", "uptime",  "loadavg"};

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "sandbox: %s: %s\n", what, std::strerror(errno));
    std::_Exit(70);
}

bool isDir(const std::string& p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void makeDirs(const std::string& path) {
    std::string cur;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '/')) {
        if (part.empty()) continue;
        cur += "/" + part;
        if (::mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) die(cur.c_str());
    }
}

// Removes everything below the open directory `dir`.  A test may leave a
// folder at mode 0000 or a tmpfs mounted inside, so a folder's mode is widened
// before it is entered and a mount is detached rather than descended into.
// Symbolic links are removed, never followed.
void clearDirectoryAt(int dir, const std::string& path, dev_t dev) {
    std::vector<std::string> names;
    {
        ScopedFd listFd(::dup(dir));
        DIR* d = listFd ? ::fdopendir(listFd.get()) : nullptr;
        if (d == nullptr) return;
        (void)listFd.release();
        while (dirent* e = ::readdir(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                names.emplace_back(e->d_name);
        }
        (void)::closedir(d);
    }
    for (const std::string& name : names) {
        const std::string child = path + "/" + name;
        struct stat st {};
        if (::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (st.st_dev != dev) {
            if (::umount2(child.c_str(), MNT_DETACH) != 0 ||
                ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_dev != dev) {
                std::fprintf(stderr, "sandbox: cannot detach the mount at %s\n", child.c_str());
                continue;
            }
        }
        if (S_ISDIR(st.st_mode)) {
            (void)::fchmodat(dir, name.c_str(), 0700, 0);
            ScopedFd sub(::openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (sub) clearDirectoryAt(sub.get(), child, dev);
            (void)::unlinkat(dir, name.c_str(), AT_REMOVEDIR);
        } else {
            (void)::unlinkat(dir, name.c_str(), 0);
        }
    }
}

// Empties a directory without removing it (it may be a mount point).
void emptyDir(const std::string& dir) {
    ScopedFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) return;
    clearDirectoryAt(fd.get(), dir, st.st_dev);
}

void removeTree(const std::string& dir) {
    emptyDir(dir);
    if (::rmdir(dir.c_str()) != 0)
        std::fprintf(stderr, "sandbox: cannot remove %s: %s\n", dir.c_str(), std::strerror(errno));
}

// System V objects outlive the test case that made them; a semaphore left
// taken would block the next case whose key happens to match.
void removeIpcObjects() {
    semid_ds semInfo{};
    const int maxSem = ::semctl(0, 0, SEM_INFO, &semInfo);
    for (int i = 0; i <= maxSem; ++i) {
        const int id = ::semctl(i, 0, SEM_STAT, &semInfo);
        if (id >= 0) (void)::semctl(id, 0, IPC_RMID);
    }
    shmid_ds shmInfo{};
    const int maxShm = ::shmctl(0, SHM_INFO, &shmInfo);
    for (int i = 0; i <= maxShm; ++i) {
        const int id = ::shmctl(i, SHM_STAT, &shmInfo);
        if (id >= 0) (void)::shmctl(id, IPC_RMID, nullptr);
    }
}

std::string hostLink(const char* path) {
    char buf[256];
    ssize_t n = ::readlink(path, buf, sizeof buf - 1);
    if (n <= 0) return {};
    buf[n] = '\0';
    return buf;
}

void writeText(const char* path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string makeTemporaryDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/brask-sandbox.XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) == nullptr) die("mkdtemp");
    return buf.data();
}

// A persistent state directory, made on first use; bubblewrap needs it absolute.
std::string absolutePath(const std::string& dir) {
    std::string path = dir;
    if (path.front() != '/') {
        char cwd[4096];
        if (::getcwd(cwd, sizeof cwd) == nullptr) die("getcwd");
        path = std::string(cwd) + "/" + path;
    }
    makeDirs(path);
    char real[PATH_MAX];
    if (::realpath(path.c_str(), real) == nullptr) die(path.c_str());
    return real;
}

bool startsWithDir(const std::string& path, const std::string& dir) {
    return path.compare(0, dir.size(), dir) == 0 && (path.size() == dir.size() || path[dir.size()] == '/');
}

// The sandbox process, so that a terminating signal sent to us (Ctrl-C, a
// test timeout) takes it down and still lets us remove the state directory.
volatile sig_atomic_t gSandboxPid = 0;
volatile sig_atomic_t gCaughtSignal = 0;

void forwardSignal(int sig) {
    gCaughtSignal = sig;
    if (gSandboxPid > 0) (void)::kill(static_cast<pid_t>(gSandboxPid), SIGKILL);
}

std::vector<std::string> bwrapArguments(const char* bwrap, const std::string& state, const std::string& exe,
                                        char** argv, const Options& options) {
    std::vector<std::string> a = {bwrap,           "--die-with-parent", "--unshare-pid", "--unshare-ipc",
                                  "--unshare-uts", "--unshare-net",     "--hostname",    "bmc-sandbox"};
    // As root no user namespace, so chown to other ids works for real.
    if (::geteuid() != 0) a.push_back("--unshare-user");
    a.insert(a.end(), {"--cap-drop", "ALL"});
    for (const char* cap : kCapabilities) a.insert(a.end(), {"--cap-add", cap});

    a.insert(a.end(), {"--ro-bind", "/usr", "/usr"});
    for (const char* top : {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"}) {
        std::string target = hostLink(top);
        if (!target.empty())
            a.insert(a.end(), {"--symlink", target, top});
        else if (isDir(top))
            a.insert(a.end(), {"--ro-bind", top, top});
    }
    if (isDir("/etc/init.d")) {
        a.insert(a.end(), {"--ro-bind", "/etc", "/etc"});
    } else {
        // No mount point for the stubs in a read-only /etc: rebuild /etc
        // from its entries on a tmpfs instead.
        a.insert(a.end(), {"--tmpfs", "/etc"});
        if (DIR* d = ::opendir("/etc")) {
            while (dirent* e = ::readdir(d)) {
                if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
                const std::string path = std::string("/etc/") + e->d_name;
                const std::string target = hostLink(path.c_str());
                if (!target.empty())
                    a.insert(a.end(), {"--symlink", target, path});
                else
                    a.insert(a.end(), {"--ro-bind-try", path, path});
            }
            (void)::closedir(d);
        }
    }
    a.insert(a.end(), {"--ro-bind",
                       BRASK_SANDBOX_FILES "/init.d",
                       "/etc/init.d",
                       "--remount-ro",
                       "/etc",
                       "--ro-bind",
                       BRASK_SANDBOX_FILES "/bin",
                       "/sandbox/bin",
                       "--dev",
                       "/dev",
                       "--tmpfs",
                       "/tmp",
                       "--bind",
                       state + "/conf",
                       "/conf",
                       "--bind",
                       state + "/var",
                       "/var",
                       "--bind",
                       state + "/run",
                       kRunDir,
                       "--proc",
                       "/run/realproc",
                       "--tmpfs",
                       "/proc",
                       "--symlink",
                       "/run/brask/ractrends",
                       "/proc/ractrends"});
    for (const char* e : kProcEntries) {
        a.insert(a.end(), {"--symlink", std::string("/run/realproc/") + e, std::string("/proc/") + e});
    }

    // The project itself (binaries, libraries, test data), read-only.
    const std::string exeDir = exe.substr(0, exe.rfind('/'));
    for (const std::string& dir :
         {std::string(BRASK_SANDBOX_SOURCE_DIR), std::string(BRASK_SANDBOX_BINARY_DIR), exeDir}) {
        a.insert(a.end(), {"--ro-bind", dir, dir});
    }
    for (const std::string& path : options.readOnlyPaths) {
        a.insert(a.end(), {"--ro-bind", path, path});
    }
    // After the read-only project binds, so a folder inside the build tree
    // is writable on top of them.
    for (const std::string& path : options.readWritePaths) {
        a.insert(a.end(), {"--bind", path, path});
    }
    char cwd[4096];
    const std::string where = ::getcwd(cwd, sizeof cwd) != nullptr ? cwd : "/tmp";
    const bool visible = startsWithDir(where, BRASK_SANDBOX_BINARY_DIR) ||
                         startsWithDir(where, BRASK_SANDBOX_SOURCE_DIR) || startsWithDir(where, exeDir);
    a.insert(a.end(), {"--chdir", visible ? where : std::string("/tmp"), "--setenv", kInsideEnv, "1",
                       "--setenv", "PATH", kSandboxPath, "--"});
    for (const std::string& word : emulatorPrefix()) a.push_back(word);
    a.push_back(exe);
    for (int i = 1; argv[i] != nullptr; ++i) a.emplace_back(argv[i]);
    return a;
}

// Numbered entries cannot appear on demand in the stub /proc (and are too
// many for bwrap's argument limit), so the first process inside links the
// pids the new namespace hands out first, 1 up to pid_max (at most 32768):
// LeakSanitizer reads /proc/<pid>/task, also in forked children.  Then /proc is made
// read-only where the mount allows it (not in a user namespace).
void linkProcessEntries() {
    if (::access("/proc/1", F_OK) == 0) return;
    long pidMax = 32768;
    std::ifstream("/proc/sys/kernel/pid_max") >> pidMax;
    pidMax = std::min(pidMax, 32768L);
    char target[48];
    char link[48];
    for (long pid = 1; pid <= pidMax; ++pid) {
        (void)std::snprintf(target, sizeof target, "/run/realproc/%ld", pid);
        (void)std::snprintf(link, sizeof link, "/proc/%ld", pid);
        if (::symlink(target, link) != 0 && errno != EEXIST) die("linking /proc entries");
    }
    (void)::mount(nullptr, "/proc", nullptr,
                  MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV | MS_RELATIME, nullptr);
}

}  // namespace

std::vector<std::string> emulatorPrefix() {
    std::vector<std::string> words;
    std::stringstream ss(BRASK_SANDBOX_EMULATOR);
    std::string word;
    while (std::getline(ss, word, ';')) {
        if (!word.empty()) words.push_back(word);
    }
    return words;
}

bool insideSandbox() {
    // The variable alone could leak into a host shell; the stub /proc (a
    // tmpfs, never so on a host) cannot.
    const char* v = std::getenv(kInsideEnv);
    if (v == nullptr || std::strcmp(v, "1") != 0) return false;
    struct statfs fs {};
    return ::statfs("/proc", &fs) == 0 && fs.f_type == TMPFS_MAGIC;
}

void enterSandbox(int argc, char** argv, const Options& options) {
    (void)argc;
    if (insideSandbox()) {
        linkProcessEntries();
        return;
    }
    const char* bwrap = "/usr/bin/bwrap";
    if (::access(bwrap, X_OK) != 0) {
        std::fprintf(stderr,
                     "sandbox: bubblewrap (%s) is missing; install the Debian package "
                     "'bubblewrap' (scripts/setup does it). Refusing to run outside the sandbox.\n",
                     bwrap);
        std::exit(2);
    }

    const bool temporary = options.stateDir.empty();
    const std::string state = temporary ? makeTemporaryDir() : absolutePath(options.stateDir);
    for (const char* sub : {"/conf", "/var", "/run/ractrends/Helper"}) makeDirs(state + sub);
    const std::string fwInfo = state + "/run/ractrends/Helper/FwInfo";
    if (temporary || ::access(fwInfo.c_str(), F_OK) != 0) writeText(fwInfo.c_str(), kDefaultFwInfo);

    char exe[4096];
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) die("readlink /proc/self/exe");
    exe[n] = '\0';

    std::vector<std::string> a = bwrapArguments(bwrap, state, exe, argv, options);
    std::vector<char*> args;
    for (auto& s : a) args.push_back(s.data());
    args.push_back(nullptr);

    struct sigaction forward {};
    forward.sa_handler = forwardSignal;
    (void)sigemptyset(&forward.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) (void)::sigaction(sig, &forward, nullptr);

    (void)std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid < 0) die("fork");
    if (pid == 0) {
        ::execv(bwrap, args.data());
        std::fprintf(stderr, "sandbox: cannot start %s: %s\n", bwrap, std::strerror(errno));
        ::_exit(127);
    }
    gSandboxPid = pid;
    if (gCaughtSignal != 0) (void)::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    const char* keep = std::getenv(kKeepEnv);
    if (temporary) {
        if (keep == nullptr || *keep == '\0')
            removeTree(state);
        else
            std::fprintf(stderr, "sandbox: state kept in %s\n", state.c_str());
    }

    if (gCaughtSignal != 0) {
        const int sig = gCaughtSignal;
        (void)std::signal(sig, SIG_DFL);
        (void)::raise(sig);
        std::exit(128 + sig);
    }
    if (WIFEXITED(status)) std::exit(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "sandbox: process killed by signal %d\n", WTERMSIG(status));
        std::exit(128 + WTERMSIG(status));
    }
    std::exit(1);
}

bool resetTree() {
    if (!insideSandbox()) return false;
    emptyDir("/conf");
    emptyDir("/var");
    for (const char* d : {"/conf/brask", "/conf/BMC1", "/var/brask", "/var/log"}) makeDirs(d);
    setFwInfo(kDefaultFwInfo);
    removeIpcObjects();
    return true;
}

bool canChown() {
    char path[] = "/tmp/chown-probe.XXXXXX";
    int fd = ::mkstemp(path);
    if (fd < 0) return false;
    bool ok = ::fchown(fd, 12345, 12345) == 0;
    (void)::close(fd);
    (void)::unlink(path);
    return ok;
}

void setFwInfo(const std::string& content) {
    makeDirs("/run/brask/ractrends/Helper");
    writeText(kFwInfoReal, content);
}

void removeFwInfo() { (void)::unlink(kFwInfoReal); }

std::string commandLog() {
    std::ifstream in(kCommandLog, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace brask::sandbox
