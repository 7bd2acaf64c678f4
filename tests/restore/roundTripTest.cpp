// Backup through the web console, change /conf, restore through the web
// console and the tick: the BMC comes back to the state of the backup.
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "restoreTestSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

struct Kept {
    std::string content;
    struct stat st;
};

std::map<std::string, Kept> catalogued() {
    std::map<std::string, Kept> files;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        Kept k{};
        if (::stat(row.FilePass, &k.st) == 0) {
            k.content = readFile(row.FilePass);
            files[row.FilePass] = k;
        }
    }
    return files;
}

bool logHas(const std::string& line) { return commandLog().find(line) != std::string::npos; }

TEST_F(RestoreTest, WebConsoleBackupAndRestoreRoundTrip) {
    populateConf();
    INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
    INT8U res[1] = {0xEE};
    ASSERT_EQ(svfOEMSetBackupEvent(req, 6, res, 0), 1);
    ASSERT_EQ(res[0], 0x00);
    const auto backedUp = catalogued();
    ASSERT_GT(backedUp.size(), 13u);

    // Change, delete and add files after the backup.
    writeFile("/conf/resolv.conf", "nameserver 198.51.100.7\n", 0600);
    ASSERT_EQ(std::remove("/conf/passwd"), 0);
    const std::string added = "/conf/brask/bum_home/bmcuser11/sshpubkey4";
    ASSERT_FALSE(backedUp.count(added)) << "the scenario already has " << added;
    writeFile(added, "ssh-ed25519 AAAA added-after-backup\n");
    auto pm = readBytes("/conf/BMC1/PMConfig.dat");
    ASSERT_GE(pm.size(), 9u);
    pm[0] ^= 0xFF;
    pm[5] ^= 0xFF;
    writeBytes("/conf/BMC1/PMConfig.dat", pm);

    ASSERT_EQ(svfOEMExeRestoreEvent(req, 6, res, 0), 1);
    ASSERT_EQ(res[0], 0x00);
    for (int i = 0; i < 500 && !logHas("kvm_servers stop"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (int tick = 0; tick < 10; ++tick) svfRestoreTimer();

    const auto restored = catalogued();
    for (const auto& [path, kept] : backedUp) {
        auto it = restored.find(path);
        ASSERT_NE(it, restored.end()) << path;
        EXPECT_EQ(it->second.content, kept.content) << path;
        EXPECT_EQ(it->second.st.st_mode, kept.st.st_mode) << path;
        EXPECT_EQ(it->second.st.st_uid, kept.st.st_uid) << path;
        EXPECT_EQ(it->second.st.st_gid, kept.st.st_gid) << path;
    }
    for (const auto& p : deleteFirstPaths()) {
        if (!backedUp.count(p)) {
            EXPECT_FALSE(exists(p)) << p;
        }
    }

    EXPECT_EQ(selEvents(), (std::vector<std::uint8_t>{0x0B, 0x2B, 0x05, 0x25}));
    const std::string log = commandLog();
    const auto kvm = log.find("kvm_servers stop");
    const auto webgo = log.find("webgo stop");
    const auto inetd = log.find("inetd stop");
    const auto ssh = log.find("ssh stop");
    ASSERT_NE(kvm, std::string::npos);
    ASSERT_NE(ssh, std::string::npos);
    EXPECT_LT(kvm, webgo);
    EXPECT_LT(webgo, inetd);
    EXPECT_LT(inetd, ssh);
    EXPECT_EQ(log.find("reboot"), log.rfind("reboot"));
    EXPECT_NE(log.find("reboot"), std::string::npos);
    EXPECT_EQ(gKillProcessAfterFileChkTimer, 0);
    EXPECT_EQ(gRebootAfterRestoreTimer, 0);
}

TEST_F(RestoreTest, RecoverFileCopiesBackupCopiesBack) {
    ScenarioOptions options;
    options.backupCopies = true;
    const auto written = populateConf(options);
    ASSERT_FALSE(written.empty());
    writeFile("/conf/resolv.conf", "changed\n");
    const std::string orphan = "/conf/brask/bum_home/bmcuser11/sshpubkey4";
    writeFile(orphan, "no backup copy\n");
    std::remove((orphan + ".bak").c_str());

    EXPECT_EQ(svfRecoverFile(), 0);
    for (const auto& p : written) EXPECT_EQ(readFile(p), readFile(p + ".bak")) << p;
    EXPECT_EQ(readFile(orphan), "no backup copy\n");
}

}  // namespace
}  // namespace brask::test
