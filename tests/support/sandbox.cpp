// The test sandbox: every test binary re-executes itself inside bubblewrap
// so that the library's fixed paths (/conf, /var, /etc/init.d, /proc/ractrends,
// reboot) land in a private, throw-away tree instead of on the host.
#include "support/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"

namespace brask::test {
namespace {

constexpr char kInsideEnv[] = "BRASK_SANDBOX";
constexpr char kRunDir[] = "/run/brask";
constexpr char kFwInfoReal[] = "/run/brask/ractrends/Helper/FwInfo";
constexpr char kDefaultFwInfo[] = "FW_VERSION=2.17\n";

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "sandbox: %s: %s\n", what, std::strerror(errno));
    std::_Exit(70);
}

bool isDir(const std::string& p) {
    struct stat st{};
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

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

// Empties a directory without removing it (it may be a mount point).
void emptyDir(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) return;
    std::vector<std::string> names;
    while (dirent* e = ::readdir(d)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
            names.emplace_back(dir + "/" + e->d_name);
    }
    ::closedir(d);
    for (const auto& n : names) ::nftw(n.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
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

}  // namespace

bool insideSandbox() {
    const char* v = std::getenv(kInsideEnv);
    return v != nullptr && std::strcmp(v, "1") == 0;
}

void enterSandbox(int argc, char** argv) {
    if (insideSandbox()) return;
    (void)argc;
    const char* bwrap = "/usr/bin/bwrap";
    if (::access(bwrap, X_OK) != 0) {
        std::fprintf(stderr,
                     "sandbox: bubblewrap (%s) is missing; install the Debian package "
                     "'bubblewrap' (scripts/setup does it). Refusing to run outside the sandbox.\n",
                     bwrap);
        std::exit(2);
    }

    const char* tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                       "/brask-sandbox.XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) == nullptr) die("mkdtemp");
    const std::string state = buf.data();
    for (const char* sub : {"/conf", "/var", "/run/ractrends/Helper"}) makeDirs(state + sub);
    writeText((state + "/run/ractrends/Helper/FwInfo").c_str(), kDefaultFwInfo);

    char exe[4096];
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) die("readlink /proc/self/exe");
    exe[n] = '\0';
    std::string exeDir = exe;
    exeDir = exeDir.substr(0, exeDir.rfind('/'));

    std::vector<std::string> a = {bwrap, "--die-with-parent", "--unshare-pid", "--unshare-ipc",
                                  "--unshare-uts", "--hostname", "bmc-sandbox"};
    if (::geteuid() != 0) a.push_back("--unshare-user");
    // Root inside needs these for chown tests and private tmpfs mounts.
    for (const char* cap : {"CAP_CHOWN", "CAP_FOWNER", "CAP_DAC_OVERRIDE", "CAP_SYS_ADMIN",
                            "CAP_KILL", "CAP_SETUID", "CAP_SETGID"}) {
        a.insert(a.end(), {"--cap-add", cap});
    }
    a.insert(a.end(), {"--ro-bind", "/usr", "/usr"});
    for (const char* top : {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"}) {
        std::string target = hostLink(top);
        if (!target.empty()) a.insert(a.end(), {"--symlink", target, top});
        else if (isDir(top)) a.insert(a.end(), {"--ro-bind", top, top});
    }
    a.insert(a.end(), {"--ro-bind", "/etc", "/etc",
                       "--ro-bind", BRASK_TEST_SANDBOX_FILES "/init.d", "/etc/init.d",
                       "--ro-bind", BRASK_TEST_SANDBOX_FILES "/bin", "/sandbox/bin",
                       "--dev", "/dev", "--tmpfs", "/tmp",
                       "--bind", state + "/conf", "/conf",
                       "--bind", state + "/var", "/var",
                       "--bind", state + "/run", kRunDir,
                       "--proc", "/run/realproc",
                       "--tmpfs", "/proc",
                       "--symlink", "/run/brask/ractrends", "/proc/ractrends"});
    // What sanitizers, gtest and the tests read from procfs.
    for (const char* e : {"self", "thread-self", "meminfo", "cpuinfo", "stat", "sys", "mounts",
                          "filesystems", "uptime", "loadavg"}) {
        a.insert(a.end(), {"--symlink", std::string("/run/realproc/") + e,
                           std::string("/proc/") + e});
    }
    // The project itself (binaries, libraries, test data), read-only.
    for (const std::string& dir : {std::string(BRASK_TEST_SOURCE_DIR),
                                   std::string(BRASK_TEST_BINARY_DIR), exeDir}) {
        a.insert(a.end(), {"--ro-bind", dir, dir});
    }
    char cwd[4096];
    std::string where = ::getcwd(cwd, sizeof cwd) != nullptr ? cwd : "/tmp";
    a.insert(a.end(), {"--chdir", where.rfind(BRASK_TEST_BINARY_DIR, 0) == 0 ||
                                          where.rfind(BRASK_TEST_SOURCE_DIR, 0) == 0
                                      ? where
                                      : std::string("/tmp"),
                       "--setenv", kInsideEnv, "1",
                       "--setenv", "PATH", "/sandbox/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                       "--", exe});
    for (int i = 1; argv[i] != nullptr; ++i) a.emplace_back(argv[i]);

    std::vector<char*> args;
    for (auto& s : a) args.push_back(s.data());
    args.push_back(nullptr);

    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid < 0) die("fork");
    if (pid == 0) {
        ::execv(bwrap, args.data());
        std::fprintf(stderr, "sandbox: cannot start %s: %s\n", bwrap, std::strerror(errno));
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    const char* keep = std::getenv("BRASK_KEEP_SANDBOX");
    if (keep == nullptr || *keep == '\0') ::nftw(state.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    else std::fprintf(stderr, "sandbox: state kept in %s\n", state.c_str());
    if (WIFEXITED(status)) std::exit(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "sandbox: test process killed by signal %d\n", WTERMSIG(status));
        std::exit(128 + WTERMSIG(status));
    }
    std::exit(1);
}

void resetState() {
    if (!insideSandbox()) {
        std::fprintf(stderr, "sandbox: resetState() outside the sandbox refused\n");
        std::abort();
    }
    emptyDir("/conf");
    emptyDir("/var");
    for (const char* d : {"/conf/brask", "/conf/BMC1", "/var/brask", "/var/log"}) makeDirs(d);
    setFwInfo(kDefaultFwInfo);
    hostPlatformInit();
}

bool canChown() {
    char path[] = "/tmp/chown-probe.XXXXXX";
    int fd = ::mkstemp(path);
    if (fd < 0) return false;
    bool ok = ::fchown(fd, 12345, 12345) == 0;
    ::close(fd);
    ::unlink(path);
    return ok;
}

void setFwInfo(const std::string& content) {
    makeDirs("/run/brask/ractrends/Helper");
    writeText(kFwInfoReal, content);
}

void removeFwInfo() { ::unlink(kFwInfoReal); }

std::string commandLog() {
    std::ifstream in(kCommandLog, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int openDescriptorCount() {
    DIR* d = ::opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    int count = 0;
    while (dirent* e = ::readdir(d)) {
        if (e->d_name[0] != '.') ++count;
    }
    ::closedir(d);
    return count - 1;  // the directory stream's own descriptor
}

int mappingCount() {
    std::ifstream in("/proc/self/maps");
    std::string line;
    int count = 0;
    while (std::getline(in, line)) ++count;
    return count;
}

}  // namespace brask::test
