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
#include <sstream>
#include <string>
#include <vector>

#include "common/scoped.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

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

int shell(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(SandboxState, EveryCaseStartsFromTheStartingTree) {
    ASSERT_TRUE(insideSandbox());
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
        writeFile(path, "inside\n");
        EXPECT_EQ(readFile(path), "inside\n") << path;
    }
}

TEST(SandboxState, ResetClearsLockedFoldersMountsAndSemaphoresButFollowsNoLink) {
    writeFile("/conf/deep/a/b/file", "x");
    ASSERT_EQ(::chmod("/conf/deep/a", 0), 0);
    // Outside /conf and /var: a link to it must be removed, not followed.
    const std::string outside = "/tmp/" + token() + "-outside";
    writeFile(outside + "/kept", "kept");
    ASSERT_EQ(::symlink(outside.c_str(), "/var/brask/link"), 0);
    if (::mount("tmpfs", "/var/brask", "tmpfs", 0, "size=8k") == 0) writeFile("/var/brask/on-tmpfs", "x");
    const key_t key = 0x5eed;
    ASSERT_GE(::semget(key, 1, IPC_CREAT | 0600), 0);

    resetState();

    EXPECT_THAT(list("/conf"), ElementsAre("BMC1", "brask"));
    EXPECT_THAT(list("/var/brask"), IsEmpty());
    struct stat varSt{}, brSt{};
    ASSERT_EQ(::stat("/var", &varSt), 0);
    ASSERT_EQ(::stat("/var/brask", &brSt), 0);
    EXPECT_EQ(varSt.st_dev, brSt.st_dev) << "a test's tmpfs stayed mounted";
    EXPECT_EQ(readFile(outside + "/kept"), "kept");
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
    // Each logs its name (an init script's without the folder) and arguments.
    std::string expected;
    for (const std::string c : {"reboot", "/etc/init.d/kvm_servers stop", "/etc/init.d/webgo stop",
                                "/etc/init.d/inetd stop", "/etc/init.d/ssh stop", "/etc/init.d/ssh", "reboot -f now"}) {
        EXPECT_EQ(shell(c), 0) << c;
        expected += c.substr(c.rfind('/') + 1) + "\n";
    }
    EXPECT_EQ(commandLog(), expected);
    EXPECT_THAT(list("/etc/init.d"), ElementsAre("inetd", "kvm_servers", "ssh", "webgo"));
    EXPECT_EQ(shell("test \"$(command -v reboot)\" = /sandbox/bin/reboot"), 0);
}

TEST(SandboxProc, FwInfoReadsBackChangesAndIsRestored) {
    EXPECT_EQ(readFile(kFwInfoFile), "FW_VERSION=2.17\n");
    setFwInfo("FW_VERSION=3.05\n");
    EXPECT_EQ(readFile(kFwInfoFile), "FW_VERSION=3.05\n");
    removeFwInfo();
    errno = 0;
    EXPECT_EQ(::access(kFwInfoFile, F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
    resetState();
    EXPECT_EQ(readFile(kFwInfoFile), "FW_VERSION=2.17\n");
}

TEST(SandboxProc, SelfEntriesShowDescriptorsAndMappings) {
    // A file mapping is looked up by name: sanitizers add mappings of their
    // own at any allocation, so counts are only stable without them.
    const char* file = "/sandbox/bin/reboot";
    const auto mapped = [file] { return readFile("/proc/self/maps").find(file) != std::string::npos; };
    const int fds = openDescriptorCount();
    ASSERT_GT(fds, 2);
    ASSERT_GT(mappingCount(), 0);
    {
        ScopedFd fd(::open(file, O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(fd);
        EXPECT_EQ(openDescriptorCount(), fds + 1);
        void* p = ::mmap(nullptr, 64, PROT_READ, MAP_PRIVATE, fd.get(), 0);
        ASSERT_NE(p, MAP_FAILED);
        EXPECT_TRUE(mapped());
        ::munmap(p, 64);
    }
    EXPECT_EQ(openDescriptorCount(), fds);
    EXPECT_FALSE(mapped());
    char exe[PATH_MAX] = {};
    ASSERT_GT(::readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
    EXPECT_THAT(exe, ::testing::EndsWith("/test_sandbox"));
    // Per-process entries by number (LeakSanitizer reads /proc/<pid>/task).
    EXPECT_EQ(::access(("/proc/" + std::to_string(::getpid()) + "/task").c_str(), R_OK), 0);
}

TEST(SandboxNamespaces, PidsNetworkAndHostNameArePrivate) {
    EXPECT_EQ(readFile("/run/realproc/1/comm"), "bwrap\n");
    std::istringstream dev(readFile("/proc/self/net/dev"));
    std::vector<std::string> interfaces;
    for (std::string line; std::getline(dev, line);) {
        if (const auto colon = line.find(':'); colon != std::string::npos)
            interfaces.push_back(line.substr(0, colon).substr(line.find_first_not_of(' ')));
    }
    EXPECT_THAT(interfaces, ElementsAre("lo"));
    char host[64] = {};
    ASSERT_EQ(::gethostname(host, sizeof host - 1), 0);
    EXPECT_STREQ(host, "bmc-sandbox");
}

TEST(SandboxIds, ChownWorksExactlyWithoutAUserNamespace) {
    // Started as root there is no user namespace: ids map one to one.
    const bool identity = readFile("/proc/self/uid_map").find("4294967295") != std::string::npos;
    EXPECT_EQ(canChown(), identity);
    if (!canChown()) GTEST_SKIP() << "chown to other ids is not possible here (user namespace)";
    writeFile("/conf/owned", "x");
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
    writeFile("/var/" + token(), "probe\n");
    const std::string action = how;
    if (action.rfind("exit:", 0) == 0) std::_Exit(std::atoi(action.c_str() + 5));
    if (action == "abort") std::abort();
    if (action == "sleep") ::sleep(60);
    FAIL() << "unknown probe " << action;
}

}  // namespace
}  // namespace brask::test
