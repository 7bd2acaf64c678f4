// The library hosted by ipmi_sim, run inside the test's sandbox and driven
// only through ipmitool over RMCP+ on the loopback address.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BraskSvf/ipmiSimCommands.h"
#include "BraskSvf/svfTypes.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

using namespace std::chrono_literals;
constexpr char kWebBackup[] = "/var/brask/BmcWeb.bak";
const std::vector<int> kWebBmc = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};

class Ipmi : public ::testing::Test {
protected:
    void SetUp() override {
        std::ifstream in(BRASK_IPMI_ENV_FILE);
        for (std::string line; std::getline(in, line);) {
            if (const auto eq = line.find('='); eq != std::string::npos)
                env_[line.substr(0, eq)] = line.substr(eq + 1);
        }
        if (env_.empty() ||
            std::system("command -v ipmi_sim >/dev/null && command -v ipmitool >/dev/null") != 0) {
            GTEST_SKIP()
                << "needs ipmi_sim and ipmitool (Debian packages openipmi, ipmitool) and the module, "
                   "built when libopenipmi-dev was there at configure time (not in a cross build)";
        }
        // A sanitizer build's module needs the sanitizer runtimes loaded first.
        const std::string conf = env_["BRASK_IPMI_CONF_DIR"];
        const std::string sim = "mkdir -p /var/ipmi_sim; exec env LD_PRELOAD='" + env_["BRASK_IPMI_PRELOAD"] +
                                "' ASAN_OPTIONS=detect_leaks=0 ipmi_sim -c " + conf + "/lan.conf -f " + conf +
                                "/bmc.emu -s /var/ipmi_sim -n </dev/null >>/var/log/ipmi_sim.log 2>&1";
        if ((pid_ = ::fork()) == 0) _exit(::execl("/bin/sh", "sh", "-c", sim.c_str(), nullptr));
        int down = 1;
        for (int i = 0; i < 50 && (down = ipmitool("-N 1 -R 1 mc info").first) != 0; ++i)
            std::this_thread::sleep_for(100ms);
        ASSERT_EQ(down, 0) << readFile("/var/log/ipmi_sim.log");
    }
    void TearDown() override {
        if (pid_ <= 0) return;
        int status = 0, i = ::kill(pid_, SIGTERM);
        while (::waitpid(pid_, &status, WNOHANG) == 0 && ++i < 100) std::this_thread::sleep_for(50ms);
        EXPECT_TRUE(i < 100 && (WIFSIGNALED(status) ? WTERMSIG(status) == SIGTERM : WEXITSTATUS(status) == 0))
            << "ipmi_sim did not stop on SIGTERM";
        if (i == 100) ::kill(pid_, SIGKILL), ::waitpid(pid_, &status, 0);
        if (HasFailure()) std::cerr << "---- ipmi_sim output ----\n" << readFile("/var/log/ipmi_sim.log");
    }
    // One attempt with a long time-out: the OEM handlers are not idempotent,
    // and a retry after a short time-out would run a slow backup twice.
    std::pair<int, std::string> ipmitool(const std::string& args) {
        const std::string cmd = "ipmitool -I lanplus -C 3 -N 60 -R 1 -H 127.0.0.1 -p " +
                                env_["BRASK_IPMI_PORT"] + " -U " + env_["BRASK_IPMI_USER"] + " -P " +
                                env_["BRASK_IPMI_PASSWORD"] + " " + args + " 2>&1";
        FILE* p = ::popen(cmd.c_str(), "r");
        std::string text;
        for (int c; p != nullptr && (c = std::fgetc(p)) != EOF;) text += static_cast<char>(c);
        const int status = p != nullptr ? ::pclose(p) : -1;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
    }
    // The completion code of a raw request.
    int raw(int netfn, int cmd, const std::vector<int>& data) {
        std::string args = "raw " + std::to_string(netfn) + " " + std::to_string(cmd);
        for (int b : data) args += " " + std::to_string(b);
        const auto [status, text] = ipmitool(args);
        return status == 0 ? 0 : std::stoi(text.substr(text.find("rsp=0x") + 6, 2), nullptr, 16);
    }
    // Event data 2 of every SEL record: the library's event codes.
    std::vector<int> selCodes() {
        std::istringstream in(ipmitool("-v sel list").second);
        std::vector<int> codes;
        for (std::string line; std::getline(in, line);) {
            if (line.find("Event Data") != std::string::npos)
                codes.push_back(std::stoi(line.substr(line.find(':') + 4, 2), nullptr, 16));
        }
        return codes;
    }
    int oem(int cmd, const std::vector<int>& data) { return raw(BRASK_IPMI_NETFN_OEM, cmd, data); }
    std::map<std::string, std::string> env_;
    pid_t pid_ = -1;
};

TEST_F(Ipmi, WrongRequestLengthsAnswerC7AndChangeNothing) {
    EXPECT_EQ(oem(BRASK_IPMI_CMD_GET_BACKUP_RESTORE_EVENT, {0}), 0xC7);
    EXPECT_EQ(oem(BRASK_IPMI_CMD_SET_BACKUP_EVENT, {}), 0xC7);
    EXPECT_EQ(oem(BRASK_IPMI_CMD_SET_BACKUP_EVENT, {1, 2, 0, 0, 0, 0, 0}), 0xC7);
    EXPECT_EQ(oem(BRASK_IPMI_CMD_EXE_RESTORE_EVENT, {1, 2, 0, 0, 0}), 0xC7);
    EXPECT_EQ(selCodes(), std::vector<int>{});
    EXPECT_FALSE(exists(kWebBackup));
    EXPECT_EQ(commandLog(), "");
}

TEST_F(Ipmi, BackupTamperedRestoreAndRestore) {
    // Backed up before: the FRU backup file is then read afresh from ipmi_sim's FRU.
    const std::string changed = populateConf({.backupCopies = true}).front(), original = readFile(changed);
    ASSERT_EQ(raw(0x0A, 0x49, {0x1D, 0x2C, 0x3B, 0x6A}), 0);  // Set SEL Time 0x6A3B2C1D
    ASSERT_EQ(oem(BRASK_IPMI_CMD_SET_BACKUP_EVENT, kWebBmc), 0);
    const std::vector<std::uint8_t> backup = readBytes(kWebBackup);
    ASSERT_GT(backup.size(), 86u);
    const std::string model = env_["BRASK_IPMI_FRU_MODEL"], serial = env_["BRASK_IPMI_FRU_SERIAL"];
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&backup[4]), model.size()), model);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&backup[36]), serial.size()), serial);
    // The header carries the SEL clock, not the host's.
    const std::uint32_t stamp = backup[82] << 24 | backup[83] << 16 | backup[84] << 8 | backup[85];
    EXPECT_TRUE(stamp >= 0x6A3B2C1D && stamp <= 0x6A3B2C1D + 60) << stamp;
    EXPECT_EQ(selCodes(), (std::vector<int>{0x0B, 0x2B}));

    // A file, and the FRU's product name (its bytes reordered: the area checksum holds).
    writeFile(changed, original + "changed\n");
    std::vector<int> write = {0, 0x8A, 0};
    for (char ch : std::string("SERVER BRASK")) write.push_back(ch);
    ASSERT_EQ(raw(0x0A, 0x12, write), 0);
    std::vector<std::uint8_t> tampered = backup;
    tampered.back() ^= 0x5A;
    writeBytes(kWebBackup, tampered);
    EXPECT_EQ(oem(BRASK_IPMI_CMD_EXE_RESTORE_EVENT, kWebBmc), 0x81);
    EXPECT_EQ(readFile(changed), original + "changed\n");

    // ipmi_sim's tick carries the restore to the reboot request.
    writeBytes(kWebBackup, backup);
    ASSERT_EQ(oem(BRASK_IPMI_CMD_EXE_RESTORE_EVENT, kWebBmc), 0);
    for (int i = 0; i < 240 && commandLog().find("reboot") == std::string::npos; ++i)
        std::this_thread::sleep_for(250ms);
    EXPECT_EQ(commandLog(), "kvm_servers stop\nwebgo stop\ninetd stop\nssh stop\nreboot\n");
    EXPECT_EQ(readFile(changed), original);
    const std::string fru = ipmitool("fru print 0").second;
    for (const std::string& s : {std::string("BRASK SERVER"), model, serial})
        EXPECT_NE(fru.find(s), std::string::npos) << fru;
    const std::vector<int> codes = selCodes();
    ASSERT_GE(codes.size(), 4u);
    EXPECT_EQ(std::vector<int>(codes.end() - 2, codes.end()), (std::vector<int>{0x05, 0x25}));
}

}  // namespace
}  // namespace brask::test
