// The round trip through the web console (backup, /conf changed, restore,
// the tick runs the deferred part and reboots), and the restore preview
// against it: for each tree, what the preview says every file of /conf
// will hold afterwards (content, mode, owner, or gone) is what the restore
// leaves, file by file; where the backup is the one just taken, that is
// the backed-up /conf again.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "common/paths.h"
#include "restorePreview.h"
#include "restoreTestSupport.h"
#include "support/builders.h"
#include "support/observe.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/tree.h"

namespace brask::test {
namespace {

constexpr char kAdded[] = "/conf/brask/bum_home/bmcuser11/sshpubkey4";  // a delete-first row

// Regular files only: the restore makes folders as it needs them.  The
// trace ring records the Execute Restore Event request, not the restore.
Tree filesOf(const Tree& tree) {
    Tree files;
    for (const auto& [path, node] : tree) {
        if (S_ISREG(node.mode) && path != paths::kTraceFile)
            files.emplace(path, Node{S_IFREG | (node.mode & 07777), node.uid, node.gid, node.content});
    }
    return files;
}

// The files of /conf as the preview says the restore leaves them.
Tree predicted(const preview::Preview& p, const preview::PreviewTree& tree, const Tree& before) {
    std::set<std::string> paths;
    for (const auto& [path, node] : before) paths.insert(path);
    for (const preview::Line& line : p.lines) paths.insert(line.path);
    Tree files;
    for (const std::string& path : paths) {
        const plan::LiveFile f = tree.lookup(path.c_str());
        if (f.kind != plan::LiveFile::Kind::Regular) continue;
        const auto content = tree.read(path).value_or(std::vector<std::uint8_t>{});
        files.emplace(path, Node{S_IFREG | (f.mode & 07777), f.uid, f.gid,
                                 std::string(content.begin(), content.end())});
    }
    return files;
}

struct PlanCase {
    const char* name;
    std::function<void()> afterBackup;  // the tree the restore finds
    bool maintenance = false;
    std::function<Bytes()> backupFile = nullptr;  // none: the web backup just taken
    bool backToBackup = false;                    // the restore gives back the backed-up /conf
};

void PrintTo(const PlanCase& c, std::ostream* os) { *os << c.name; }

const PlanCase kCases[] = {
    {"identical", [] {}, false, nullptr, true},
    {"changed",
     [] {
         writeFile("/conf/resolv.conf", "nameserver 198.51.100.7\n");
         (void)::chmod("/conf/hosts", 0600);
     },
     false, nullptr, true},
    {"new and missing",
     [] {
         writeFile(kAdded, "ssh-ed25519 AAAA added\n");
         (void)std::remove("/conf/passwd");
     },
     false, nullptr, true},
    {"maintenance", [] { writeFile("/conf/interfaces", "iface eth0 inet dhcp\n"); }, true},
    {"unknown entries", [] {}, false,
     [] {
         return backup(
             {.blocks = {block({}), block({entry("/conf/resolv.conf", "nameserver 192.0.2.9\n", 0100640),
                                           entry("/conf/nowhere.conf", "not catalogued\n")})}});
     }},
    {"PMConfig absent", [] { (void)std::remove("/conf/BMC1/PMConfig.dat"); }},
    {"PMConfig changed", [] { writeFile("/conf/BMC1/PMConfig.dat", std::string(64, 'x')); }},
};

class PlanEqualsRestore : public ::testing::TestWithParam<PlanCase> {};

TEST_P(PlanEqualsRestore, FileByFile) {
    const PlanCase& c = GetParam();
    populateConf();
    INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
    INT8U res[1] = {0xEE};
    ASSERT_EQ(svfOEMSetBackupEvent(req, 6, res, 0), 1);
    ASSERT_EQ(res[0], 0x00);
    if (c.backupFile) writeBytes(paths::kBmcWebBackupFile, c.backupFile());
    const Tree backedUp = filesOf(snapshotTree({"/conf"}));
    c.afterBackup();
    hostSetMaintenanceMode(c.maintenance ? 1 : 0);

    preview::Request request;
    svfBraskBackupFileHeader_T own{};
    ASSERT_EQ(svfGetProductIdFru(&own), 0);
    request.identity = own;
    preview::PreviewTree tree("", c.maintenance);
    const Bytes file = readBytes(paths::kBmcWebBackupFile);
    const Tree before = filesOf(snapshotTree({"/conf"}));
    const preview::Preview p = preview::previewBackup(file, request, tree);
    ASSERT_TRUE(p.verdict.accepted) << p.verdict.reason;
    const Tree expected = predicted(p, tree, before);

    const Observed restored = observe([&] {
        (void)svfOEMExeRestoreEvent(req, 6, res, 0);
        EXPECT_TRUE(waitForCommand("kvm_servers stop"));  // from a child of the handler
        for (int tick = 0; tick < 10; ++tick) svfRestoreTimer();
        return long{res[0]};
    });
    ASSERT_EQ(restored.result, 0x00) << restored.err;
    const Tree after = filesOf(snapshotTree({"/conf"}));
    EXPECT_EQ(diffTrees(expected, after), "");
    if (c.backToBackup) {
        EXPECT_EQ(diffTrees(backedUp, after), "");
    }
    EXPECT_EQ(restored.sel, (std::vector<std::uint8_t>{0x05, 0x25}));
    EXPECT_EQ(linesInOrder(restored.commands,
                           {"kvm_servers stop", "webgo stop", "inetd stop", "ssh stop", "reboot"}),
              "");
    EXPECT_EQ(gKillProcessAfterFileChkTimer + gRebootAfterRestoreTimer, 0);
}

INSTANTIATE_TEST_SUITE_P(Trees, PlanEqualsRestore, ::testing::ValuesIn(kCases), [](const auto& p) {
    std::string n = p.param.name;
    for (char& ch : n) ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
    return n;
});

}  // namespace
}  // namespace brask::test
