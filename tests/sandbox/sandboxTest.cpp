// The sandbox itself: private state folders that every case finds fresh,
// read-only host trees, stub services that only log, the stub /proc.
// hostCheck.sh checks from the host side that nothing written here escapes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/scoped.h"
#include "support/sandbox.h"

namespace {

using brask::ScopedFd;
using brask::test::canChown;
using brask::test::commandLog;
using brask::test::resetState;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

// Names the markers so the host-side check can look for exactly them.
std::string token() {
    const char* t = std::getenv("BRASK_HOST_CHECK_TOKEN");
    return t != nullptr && *t != '\0' ? t : "sandbox-marker";
}

std::vector<std::string> list(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out.flush());
}

int shell(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(SandboxState, EveryCaseStartsFromTheStartingTree) {
    ASSERT_TRUE(brask::test::insideSandbox());
    EXPECT_THAT(list("/conf"), ElementsAre("BMC1", "brask"));
    EXPECT_THAT(list("/var"), IsSupersetOf({"brask", "hsl", "log"}));
    for (const char* dir : {"/conf/brask", "/conf/BMC1", "/var/brask", "/var/log"})
        EXPECT_THAT(list(dir), IsEmpty()) << dir;
    EXPECT_EQ(commandLog(), "");
}

TEST(SandboxState, StateFoldersAreWritable) {
    // hostCheck.sh looks for these names on the host afterwards.
    for (const char* dir : {"/conf", "/var", "/conf/brask", "/var/brask", "/tmp"}) {
        const std::string path = std::string(dir) + "/" + token();
        ASSERT_TRUE(writeText(path, "inside\n")) << path;
        EXPECT_EQ(readText(path), "inside\n") << path;
    }
}

TEST(SandboxState, ResetClearsLockedFoldersMountsAndSemaphoresButFollowsNoLink) {
    std::filesystem::create_directories("/conf/deep/a/b");
    ASSERT_TRUE(writeText("/conf/deep/a/b/file", "x"));
    ASSERT_EQ(::chmod("/conf/deep/a", 0), 0);
    // Outside /conf and /var: a link to it must be removed, not followed.
    const std::string outside = "/tmp/" + token() + "-outside";
    std::filesystem::create_directories(outside);
    ASSERT_TRUE(writeText(outside + "/kept", "kept"));
    ASSERT_EQ(::symlink(outside.c_str(), "/var/brask/link"), 0);
    const bool mounted = ::mount("tmpfs", "/var/brask", "tmpfs", 0, "size=8k") == 0;
    if (mounted) {
        ASSERT_TRUE(writeText("/var/brask/on-tmpfs", "x"));
    }
    const key_t key = 0x5eed;
    ASSERT_GE(::semget(key, 1, IPC_CREAT | 0600), 0);

    resetState();

    EXPECT_THAT(list("/conf"), ElementsAre("BMC1", "brask"));
    EXPECT_THAT(list("/var/brask"), IsEmpty());
    struct stat varSt{}, brSt{};
    ASSERT_EQ(::stat("/var", &varSt), 0);
    ASSERT_EQ(::stat("/var/brask", &brSt), 0);
    EXPECT_EQ(varSt.st_dev, brSt.st_dev) << "a test's tmpfs stayed mounted";
    EXPECT_EQ(readText(outside + "/kept"), "kept");
    errno = 0;
    EXPECT_EQ(::semget(key, 1, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    std::filesystem::remove_all(outside);
}

TEST(SandboxHost, HostTreesAreReadOnly) {
    for (const char* dir : {"/usr", "/etc", "/etc/init.d", "/sandbox/bin",
                            BRASK_TEST_BINARY_DIR, BRASK_TEST_SOURCE_DIR}) {
        const std::string path = std::string(dir) + "/" + token();
        errno = 0;
        ScopedFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        EXPECT_FALSE(fd) << path << " is writable";
        EXPECT_TRUE(errno == EROFS || errno == EACCES) << path << ": " << std::strerror(errno);
    }
}

TEST(SandboxCommands, InitScriptsAndRebootOnlyLogTheirCall) {
    struct Case {
        const char* command;
        const char* logged;
    };
    const Case cases[] = {
        {"reboot", "reboot"},
        {"/etc/init.d/kvm_servers stop", "kvm_servers stop"},
        {"/etc/init.d/webgo stop", "webgo stop"},
        {"/etc/init.d/inetd stop", "inetd stop"},
        {"/etc/init.d/ssh stop", "ssh stop"},
        {"/etc/init.d/ssh", "ssh"},
        {"reboot -f now", "reboot -f now"},
    };
    std::string expected;
    for (const Case& c : cases) {
        EXPECT_EQ(shell(c.command), 0) << c.command;
        expected += std::string(c.logged) + "\n";
    }
    EXPECT_EQ(commandLog(), expected);
    EXPECT_THAT(list("/etc/init.d"), ElementsAre("inetd", "kvm_servers", "ssh", "webgo"));
    EXPECT_EQ(shell("test \"$(command -v reboot)\" = /sandbox/bin/reboot"), 0);
}

TEST(SandboxProc, FwInfoReadsBackChangesAndIsRestored) {
    EXPECT_EQ(readText(brask::test::kFwInfoFile), "FW_VERSION=2.17\n");
    brask::test::setFwInfo("FW_VERSION=3.05\n");
    EXPECT_EQ(readText(brask::test::kFwInfoFile), "FW_VERSION=3.05\n");
    brask::test::removeFwInfo();
    errno = 0;
    EXPECT_EQ(::access(brask::test::kFwInfoFile, F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
    resetState();
    EXPECT_EQ(readText(brask::test::kFwInfoFile), "FW_VERSION=2.17\n");
}

TEST(SandboxProc, SelfEntriesShowDescriptorsAndMappings) {
    // A file mapping is looked up by name: sanitizers add mappings of their
    // own at any allocation, so counts are only stable without them.
    const char* file = "/sandbox/bin/reboot";
    const auto mapped = [file] { return readText("/proc/self/maps").find(file) != std::string::npos; };
    const int fds = brask::test::openDescriptorCount();
    ASSERT_GT(fds, 2);
    ASSERT_GT(brask::test::mappingCount(), 0);
    {
        ScopedFd fd(::open(file, O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(fd);
        EXPECT_EQ(brask::test::openDescriptorCount(), fds + 1);
        void* p = ::mmap(nullptr, 64, PROT_READ, MAP_PRIVATE, fd.get(), 0);
        ASSERT_NE(p, MAP_FAILED);
        EXPECT_TRUE(mapped());
        ::munmap(p, 64);
    }
    EXPECT_EQ(brask::test::openDescriptorCount(), fds);
    EXPECT_FALSE(mapped());
    char exe[PATH_MAX] = {};
    ASSERT_GT(::readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
    EXPECT_THAT(exe, ::testing::EndsWith("/test_sandbox"));
    // Per-process entries by number (LeakSanitizer reads /proc/<pid>/task).
    EXPECT_EQ(::access(("/proc/" + std::to_string(::getpid()) + "/task").c_str(), R_OK), 0);
}

TEST(SandboxNamespaces, PidsNetworkAndHostNameArePrivate) {
    EXPECT_EQ(readText("/run/realproc/1/comm"), "bwrap\n");
    std::istringstream dev(readText("/proc/self/net/dev"));
    std::vector<std::string> interfaces;
    for (std::string line; std::getline(dev, line);) {
        const auto colon = line.find(':');
        if (colon != std::string::npos) {
            std::string name = line.substr(0, colon);
            name.erase(0, name.find_first_not_of(' '));
            interfaces.push_back(name);
        }
    }
    EXPECT_THAT(interfaces, ElementsAre("lo"));
    char host[64] = {};
    ASSERT_EQ(::gethostname(host, sizeof host - 1), 0);
    EXPECT_STREQ(host, "bmc-sandbox");
}

TEST(SandboxIds, ChownWorksExactlyWithoutAUserNamespace) {
    // Started as root there is no user namespace: ids map one to one.
    const bool identity = readText("/proc/self/uid_map").find("4294967295") != std::string::npos;
    EXPECT_EQ(canChown(), identity);
    if (!canChown()) GTEST_SKIP() << "chown to other ids is not possible here (user namespace)";
    ASSERT_TRUE(writeText("/conf/owned", "x"));
    ASSERT_EQ(::chown("/conf/owned", 1234, 4321), 0);
    struct stat st{};
    ASSERT_EQ(::stat("/conf/owned", &st), 0);
    EXPECT_EQ(st.st_uid, 1234u);
    EXPECT_EQ(st.st_gid, 4321u);
}

// Driven by hostCheck.sh only: leaves the sandbox in a given way, after
// leaving a marker in the state directory that must be removed afterwards.
TEST(SandboxProbe, Leave) {
    const char* how = std::getenv("BRASK_SANDBOX_PROBE");
    if (how == nullptr) GTEST_SKIP() << "run by hostCheck.sh";
    ASSERT_TRUE(writeText("/var/" + token(), "probe\n"));
    const std::string action = how;
    if (action.rfind("exit:", 0) == 0) std::_Exit(std::atoi(action.c_str() + 5));
    if (action == "abort") std::abort();
    if (action == "sleep") ::sleep(60);
    FAIL() << "unknown probe " << action;
}

}  // namespace
