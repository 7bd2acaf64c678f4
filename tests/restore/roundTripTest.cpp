// Backup through the web console, change /conf, restore through the web
// console and the tick: the BMC comes back to the state of the backup.
#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "restoreTestSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/tree.h"

namespace brask::test {
namespace {

// Content, mode and owner of every catalogued file that exists.
Tree catalogued() {
    const Tree all = snapshotTree({"/conf"});
    Tree files;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        if (auto it = all.find(row.FilePass); it != all.end()) files.insert(*it);
    }
    return files;
}

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
    EXPECT_TRUE(waitForCommand("kvm_servers stop"));
    for (int tick = 0; tick < 10; ++tick) svfRestoreTimer();

    // Changed and removed files are back; the added one was a delete-first row.
    EXPECT_EQ(diffTrees(backedUp, catalogued()), "");

    EXPECT_EQ(selEvents(), (std::vector<std::uint8_t>{0x0B, 0x2B, 0x05, 0x25}));
    const std::string log = commandLog();
    EXPECT_TRUE(inOrder(log, {"kvm_servers stop", "webgo stop", "inetd stop", "ssh stop"})) << log;
    EXPECT_NE(log.find("reboot"), std::string::npos);
    EXPECT_EQ(log.find("reboot"), log.rfind("reboot"));
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
