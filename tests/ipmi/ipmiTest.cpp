// The library hosted by ipmi_sim, run inside the test's sandbox and driven
// only through ipmitool over RMCP+ on the loopback address.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "support/suite.h"

namespace brask::test {
namespace {

using namespace std::chrono_literals;
constexpr char kWebBackup[] = "/var/brask/BmcWeb.bak", kLog[] = "/var/log/ipmi_sim.log";
// Raw requests as a caller sends them (OEM function 0x30): Get Backup/Restore
// Event, Set Backup Event, Execute Restore Event; a web console's BMC request.
const std::string kGet = "0x30 0x70", kSet = "0x30 0x71", kExe = "0x30 0x72", kWebBmc = " 1 2 0 0 0 0";

class Ipmi : public ::testing::Test {
protected:
    void SetUp() override {
        std::ifstream in(BRASK_IPMI_ENV_FILE);
        for (std::string l; std::getline(in, l);) env_[l.substr(0, l.find('='))] = l.substr(l.find('=') + 1);
        if (env_.empty() || std::system("command -v ipmi_sim >/dev/null && command -v ipmitool >/dev/null"))
            GTEST_SKIP() << "needs ipmi_sim, ipmitool (packages openipmi, ipmitool) and the module (built "
                            "when libopenipmi-dev is there at configure time, not in a cross build)";
        // A sanitizer build's module needs the sanitizer runtimes loaded first.
        const std::string conf = env_["BRASK_IPMI_CONF_DIR"];
        const std::string sim = "mkdir -p /var/ipmi_sim; exec env LD_PRELOAD='" + env_["BRASK_IPMI_PRELOAD"] +
                                "' ASAN_OPTIONS=detect_leaks=0 ipmi_sim -c " + conf + "/lan.conf -f " + conf +
                                "/bmc.emu -s /var/ipmi_sim -n </dev/null >>" + kLog + " 2>&1";
        if ((pid_ = ::fork()) == 0) _exit(::execl("/bin/sh", "sh", "-c", sim.c_str(), nullptr));
        tool_ = "ipmitool -I lanplus -C 3 -N 60 -R 1 -H 127.0.0.1 -p " + env_["BRASK_IPMI_PORT"] + " -U " +
                env_["BRASK_IPMI_USER"] + " -P " + env_["BRASK_IPMI_PASSWORD"] + " ";
        int down = 1;
        for (int i = 0; i < 50 && (down = ipmitool("-N 1 -R 1 mc info").first); ++i)
            std::this_thread::sleep_for(100ms);
        ASSERT_EQ(down, 0) << readFile(kLog);
    }
    void TearDown() override {
        if (HasFailure()) std::cerr << "---- ipmi_sim output ----\n" << readFile(kLog);
        int status = 0;
        if (pid_ > 0 && ::kill(pid_, SIGTERM) == 0 && ::waitpid(pid_, &status, 0) == pid_)
            EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGTERM : WEXITSTATUS(status) == 0)
                << "stop";
    }
    // One attempt with a long time-out: the OEM handlers are not idempotent,
    // and a retry after a short time-out would run a slow backup twice.
    std::pair<int, std::string> ipmitool(const std::string& args) {
        const int status = std::system((tool_ + args + " >/tmp/ipmitool 2>&1").c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile("/tmp/ipmitool")};
    }
    // The completion code of a raw request.
    int raw(const std::string& request) {
        const auto [status, text] = ipmitool("raw " + request);
        return status == 0 ? 0 : std::stoi(text.substr(text.find("rsp=0x") + 6, 2), nullptr, 16);
    }
    // Event data 2 of every SEL record (the library's event codes), a line each.
    std::string selCodes() {
        return ipmitool("-v sel list | sed -n 's/.*Event Data.*: 80\\(..\\).*/\\1/p'").second;
    }
    std::map<std::string, std::string> env_;
    std::string tool_;
    pid_t pid_ = -1;
};

// Wrong lengths first: answered C7, and nothing happens.
TEST_F(Ipmi, WrongLengthsThenBackupAndRestore) {
    for (const std::string& request : {kGet + " 0", kSet, kSet + kWebBmc + " 0", kExe + " 1 2 0 0 0"})
        EXPECT_EQ(raw(request), 0xC7) << request;
    EXPECT_EQ(selCodes() + commandLog() + readFile(kWebBackup), "");

    // Backed up before: the FRU backup file is then read afresh from ipmi_sim's FRU.
    const std::string changed = populateConf({.backupCopies = true}).front(), original = readFile(changed);
    ASSERT_EQ(raw("0x0a 0x49 0x1d 0x2c 0x3b 0x6a"), 0);  // Set SEL Time 0x6A3B2C1D
    ASSERT_EQ(raw(kSet + kWebBmc), 0);
    const std::vector<std::uint8_t> backup = readBytes(kWebBackup);
    ASSERT_GT(backup.size(), 86u);
    const std::string model = env_["BRASK_IPMI_FRU_MODEL"], serial = env_["BRASK_IPMI_FRU_SERIAL"];
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&backup[4]), model.size()), model);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&backup[36]), serial.size()), serial);
    // The header carries the SEL clock, not the host's.
    const std::uint32_t stamp = backup[82] << 24 | backup[83] << 16 | backup[84] << 8 | backup[85];
    EXPECT_TRUE(stamp >= 0x6A3B2C1D && stamp <= 0x6A3B2C1D + 60) << stamp;
    EXPECT_EQ(selCodes(), "0b\n2b\n");

    // A file, and the FRU's product name (its bytes reordered: the area checksum holds).
    writeFile(changed, original + "changed\n");
    ASSERT_EQ(raw("0x0a 0x12 0 0x8a 0 0x53 0x45 0x52 0x56 0x45 0x52 0x20 0x42 0x52 0x41 0x53 0x4b"), 0);
    // ipmi_sim's tick carries the restore to the reboot request.
    ASSERT_EQ(raw(kExe + kWebBmc), 0);
    for (int i = 0; i < 240 && commandLog().find("reboot") == std::string::npos; ++i)
        std::this_thread::sleep_for(250ms);
    EXPECT_EQ(commandLog(), "kvm_servers stop\nwebgo stop\ninetd stop\nssh stop\nreboot\n");
    EXPECT_EQ(readFile(changed), original);
    const std::string fru = ipmitool("fru print 0").second;
    for (const std::string& s : {std::string("BRASK SERVER"), model, serial})
        EXPECT_NE(fru.find(s), fru.npos) << fru;
    EXPECT_TRUE(selCodes().ends_with("05\n25\n")) << selCodes();
}

}  // namespace
}  // namespace brask::test
