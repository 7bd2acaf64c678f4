// The library hosted by ipmi_sim, driven only through ipmitool over RMCP+:
// the OEM commands' length checks, and backup -> change -> tampered restore ->
// restore -> reboot request, checked through `ipmitool sel list`,
// `ipmitool fru print` and the files on disk.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BraskSvf/ipmiSimCommands.h"
#include "BraskSvf/svfTypes.h"
#include "ipmiSim.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kWebBackup[] = "/var/brask/BmcWeb.bak";
constexpr std::uint8_t kNetFnStorage = 0x0A;
constexpr std::uint8_t kCmdWriteFruData = 0x12;
constexpr std::uint8_t kCmdSetSelTime = 0x49;

// A web-console request for the BMC files.
const std::vector<std::uint8_t> kWebBmcRequest = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};

class IpmiSimTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string reason = IpmiSim::skipReason();
        if (!reason.empty()) {
            GTEST_SKIP() << reason;
        }
        std::string error;
        ASSERT_TRUE(sim_.start(error)) << error;
    }

    void TearDown() override {
        if (sim_.running()) {
            EXPECT_TRUE(sim_.stop()) << "ipmi_sim did not stop on SIGTERM";
        }
        if (HasFailure()) std::cerr << "---- ipmi_sim output ----\n" << IpmiSim::log();
    }

    RawAnswer oem(std::uint8_t cmd, const std::vector<std::uint8_t>& request) {
        return sim_.raw(BRASK_IPMI_NETFN_OEM, cmd, request);
    }

    // Event data 2 of every SEL record, from `ipmitool -v sel list`: the
    // library's event codes (event data 1 is 0x80, "OEM code in byte 2").
    std::vector<int> selEventCodes() {
        const IpmitoolResult r = sim_.ipmitool("-v sel list");
        std::vector<int> codes;
        std::istringstream in(r.output);
        std::string line;
        while (std::getline(in, line)) {
            const auto at = line.find("Event Data");
            const auto colon = line.find(':', at);
            if (at == std::string::npos || colon == std::string::npos) continue;
            const std::string hex = line.substr(colon + 2, 6);
            EXPECT_EQ(hex.substr(0, 2), "80") << line;
            codes.push_back(std::stoi(hex.substr(2, 2), nullptr, 16));
        }
        return codes;
    }

    // Lines of the plain `ipmitool sel list`: one per record.
    int selListLines() {
        const IpmitoolResult r = sim_.ipmitool("sel list");
        int n = 0;
        std::istringstream in(r.output);
        std::string line;
        while (std::getline(in, line)) n += line.find(" | ") != std::string::npos ? 1 : 0;
        return n;
    }

    std::string fruPrint() { return sim_.ipmitool("fru print 0").output; }

    IpmiSim sim_;
};

TEST_F(IpmiSimTest, WrongRequestLengthsAnswerC7AndChangeNothing) {
    struct Case {
        std::uint8_t cmd;
        std::size_t length;
    };
    const Case cases[] = {
        {BRASK_IPMI_CMD_GET_BACKUP_RESTORE_EVENT, 1}, {BRASK_IPMI_CMD_SET_BACKUP_EVENT, 0},
        {BRASK_IPMI_CMD_SET_BACKUP_EVENT, 5},         {BRASK_IPMI_CMD_SET_BACKUP_EVENT, 7},
        {BRASK_IPMI_CMD_EXE_RESTORE_EVENT, 5},        {BRASK_IPMI_CMD_EXE_RESTORE_EVENT, 7},
    };
    for (const Case& c : cases) {
        std::vector<std::uint8_t> request = kWebBmcRequest;
        request.resize(c.length, 0);
        const RawAnswer a = oem(c.cmd, request);
        EXPECT_EQ(a.completionCode, 0xC7) << "command 0x" << std::hex << int(c.cmd) << std::dec
                                          << " with " << c.length << " bytes";
        EXPECT_TRUE(a.data.empty());
    }
    EXPECT_EQ(selListLines(), 0);
    EXPECT_FALSE(exists(kWebBackup));
    EXPECT_EQ(commandLog(), "");
}

TEST_F(IpmiSimTest, BackupTamperedRestoreAndRestoreDrivenByIpmitool) {
    // With backup copies in place, as on a BMC that has been backed up before:
    // the FRU backup file is then read afresh from ipmi_sim's FRU.
    const std::vector<std::string> paths = populateConf({.backupCopies = true});
    ASSERT_FALSE(paths.empty());

    // A known SEL clock: the backup header must carry it, not the host's time.
    const std::uint32_t selTime = 0x6A3B2C1D;
    ASSERT_EQ(sim_.raw(kNetFnStorage, kCmdSetSelTime,
                       {std::uint8_t(selTime), std::uint8_t(selTime >> 8),
                        std::uint8_t(selTime >> 16), std::uint8_t(selTime >> 24)})
                  .completionCode,
              0);

    // Backup.
    ASSERT_EQ(oem(BRASK_IPMI_CMD_SET_BACKUP_EVENT, kWebBmcRequest).completionCode, 0)
        << IpmiSim::log();
    const std::vector<std::uint8_t> backup = readBytes(kWebBackup);
    ASSERT_GT(backup.size(), sizeof(svfBraskBackupFileHeader_T));
    const std::string model = sim_.setting("BRASK_IPMI_FRU_MODEL");
    const std::string serial = sim_.setting("BRASK_IPMI_FRU_SERIAL");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&backup[4]), model.size()), model);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&backup[36]), serial.size()), serial);
    // Get SEL Time's bytes (least significant first) go in as b4 b3 b2 b1.
    const std::uint32_t stamped = (std::uint32_t(backup[82]) << 24) | (std::uint32_t(backup[83]) << 16) |
                                  (std::uint32_t(backup[84]) << 8) | backup[85];
    EXPECT_GE(stamped, selTime);
    EXPECT_LE(stamped, selTime + 60);
    EXPECT_EQ(selEventCodes(), (std::vector<int>{0x0B, 0x2B}));
    EXPECT_EQ(selListLines(), 2);

    // Change: a configuration file, and the FRU's product name (same bytes
    // reordered, so its area checksum still holds).
    const std::string changed = paths.front();
    const std::string original = readFile(changed);
    writeFile(changed, original + "changed after the backup\n");
    const std::string newName = "SERVER BRASK";
    std::vector<std::uint8_t> write = {0, 0x8A, 0x00};
    for (char ch : newName) write.push_back(static_cast<std::uint8_t>(ch));
    ASSERT_EQ(sim_.raw(kNetFnStorage, kCmdWriteFruData, write).completionCode, 0);
    EXPECT_NE(fruPrint().find("SERVER BRASK"), std::string::npos) << fruPrint();

    // A tampered backup is refused with the checksum error.
    std::vector<std::uint8_t> tampered = backup;
    tampered[tampered.size() - 1] ^= 0x5A;
    writeBytes(kWebBackup, tampered);
    EXPECT_EQ(oem(BRASK_IPMI_CMD_EXE_RESTORE_EVENT, kWebBmcRequest).completionCode, 0x81);
    EXPECT_EQ(readFile(changed), original + "changed after the backup\n");

    // The real one is accepted; ipmi_sim's tick carries it to the reboot request.
    writeBytes(kWebBackup, backup);
    ASSERT_EQ(oem(BRASK_IPMI_CMD_EXE_RESTORE_EVENT, kWebBmcRequest).completionCode, 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (commandLog().find("reboot") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    EXPECT_EQ(commandLog(), "kvm_servers stop\nwebgo stop\ninetd stop\nssh stop\nreboot\n");
    EXPECT_EQ(readFile(changed), original);
    const std::string fru = fruPrint();
    EXPECT_NE(fru.find("BRASK SERVER"), std::string::npos) << fru;
    EXPECT_NE(fru.find(model), std::string::npos) << fru;
    EXPECT_NE(fru.find(serial), std::string::npos) << fru;
    const std::vector<int> codes = selEventCodes();
    ASSERT_GE(codes.size(), 4u);
    EXPECT_EQ(codes[codes.size() - 2], 0x05);
    EXPECT_EQ(codes.back(), 0x25);

    EXPECT_TRUE(sim_.stop());
}

}  // namespace
}  // namespace brask::test
