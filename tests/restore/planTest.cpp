// The round trip through the web console (backup, /conf changed, restore,
// the tick runs the deferred part and reboots), and the restore preview
// against it: for each tree, what the preview says every file of /conf
// will hold afterwards (content, mode, owner, or gone) is what the restore
// leaves, file by file; where the backup is the one just taken, that is
// the backed-up /conf again.  Then the tick on its own: both countdowns in
// order and each path of the deferred restore.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <set>
#include <thread>

#include "command/kvmStopChild.h"
#include "common/paths.h"
#include "restorePreview.h"
#include "support/suite.h"

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

// clang-format off
const PlanCase kCases[] = {
    {"identical", [] {}, false, nullptr, true},
    {"changed", [] { writeFile("/conf/resolv.conf", "nameserver 198.51.100.7\n"), ::chmod("/conf/hosts", 0600); }, false, nullptr, true},
    {"new and missing", [] { writeFile(kAdded, "ssh-ed25519 AAAA added\n"), std::remove("/conf/passwd"); }, false, nullptr, true},
    {"maintenance", [] { writeFile("/conf/interfaces", "iface eth0 inet dhcp\n"); }, true},
    {"unknown entries", [] {}, false, [] {
         return backup({.blocks = {block({}), block({entry("/conf/resolv.conf", "nameserver 192.0.2.9\n", 0100640),
                                                     entry("/conf/nowhere.conf", "not catalogued\n")})}}); }},
    {"PMConfig absent", [] { std::remove("/conf/BMC1/PMConfig.dat"); }},
    {"PMConfig changed", [] { writeFile("/conf/BMC1/PMConfig.dat", std::string(64, 'x')); }},
};
// clang-format on

TEST(PlanEqualsRestore, FileByFile) {
    for (const PlanCase& c : kCases) {
        SCOPED_TRACE(c.name);
        resetState();
        populateConf();
        hostSetFwUpdateState(9);  // not an update state
        INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
        INT8U res[1] = {0xEE};
        ASSERT_EQ(svfOEMSetBackupEvent(req, 6, res, 0), 1);
        ASSERT_EQ(res[0], 0x00);
        if (c.backupFile) writeBytes(paths::kBmcWebBackupFile, c.backupFile());
        const Tree backedUp = filesOf(snapshotTree({"/conf"}));
        c.afterBackup();
        hostSetMaintenanceMode(c.maintenance ? 1 : 0);

        preview::Request request;
        ASSERT_EQ(svfGetProductIdFru(&request.identity.emplace()), 0);
        preview::PreviewTree tree("", c.maintenance);
        const Bytes file = readBytes(paths::kBmcWebBackupFile);
        const Tree before = filesOf(snapshotTree({"/conf"}));
        const preview::Preview p = preview::previewBackup(file, request, tree);
        ASSERT_TRUE(p.verdict.accepted) << p.verdict.reason;
        const Tree expected = predicted(p, tree, before);

        const Observed restored = observe([&] {
            (void)svfOEMExeRestoreEvent(req, 6, res, 0);
            EXPECT_EQ(gKillProcessAfterFileChkTimer, 10);
            for (int i = 0; i < 500 && commandLog().find("kvm_servers stop") == std::string::npos; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));  // a child of the handler runs it
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
        EXPECT_FALSE(exists(paths::kBmcWebBackupFile));
        // An idle tick reaps the handler's child once it has ended; no zombie stays.
        for (int i = 0; i < 500 && restore::pendingKvmServersStop() != 0; ++i) {
            svfRestoreTimer();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(restore::pendingKvmServersStop(), 0);
    }
}

TEST(Timer, IniTimerDropsPendingRestoreAndReboot) {
    gKillProcessAfterFileChkTimer = 5;
    gRebootAfterRestoreTimer = 7;
    svfIniTimer();
    EXPECT_EQ(gKillProcessAfterFileChkTimer + gRebootAfterRestoreTimer, 0);
    const Observed got = observe([] { return svfRestoreTimer(), 0L; });
    EXPECT_EQ(got.out + got.commands, "");  // an idle tick prints and runs nothing
}

// Stop scripts that cannot end yet (the command log is a FIFO nobody reads):
// the table of children holds sixteen at most, and forgets those that ended.
TEST(Timer, KvmStopChildrenStayBounded) {
    resetState();
    std::remove(kCommandLog);
    ASSERT_EQ(::mkfifo(kCommandLog, 0666), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < 17; ++i) children.push_back(restore::startKvmServersStop());
    EXPECT_EQ(restore::pendingKvmServersStop(), 16);
    const int reader = ::open(kCommandLog, O_RDONLY | O_NONBLOCK);  // lets them write and end
    for (const pid_t pid : children) EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
    restore::reapKvmServersStop();
    EXPECT_EQ(restore::pendingKvmServersStop(), 0);
    // A child that has ended is forgotten when the next one starts.
    for (int i = 0; i < 2; ++i) {
        const pid_t pid = restore::startKvmServersStop();
        EXPECT_EQ(restore::pendingKvmServersStop(), 1);
        EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
    }
    restore::reapKvmServersStop();
    ::close(reader);
    std::remove(kCommandLog);
}

struct DeferredCase {
    const char* name;
    svfRestoreType_T pending;
    std::function<void()> setup;
    bool stopsServices;
    INT8U flagAfter;  // the restore flag of the file type afterwards
    std::vector<std::uint8_t> sel;
    INT8U reboot;  // the reboot countdown the restore sets
    int slot;      // status byte to check (12: the one after the list), -1 none
    INT8U slotAfter;
    bool timeApplied;
};

// clang-format off
const DeferredCase kDeferred[] = {
    {"WebBmcSuccess", {1, 2, 0}, [] {}, true, 0, {0x25}, 1, 5, ST_NOTHING, true},
    {"WebBmcUnpackFails", {1, 2, 1}, [] {}, true, 1, {0x35}, 1, -1, 0, false},
    {"WebEfi", {0, 2, 0}, [] {}, false, 0, {0x24}, 0, -1, 0, true},
    {"SvpBmcProcessing", {1, 1, 0}, [] { setStatusByte(3, ST_PROCESSING); }, true, 0, {0x23}, 30, 3, ST_COMPLETION, true},
    {"SvpBmcNotStarted", {1, 1, 0}, [] {}, true, 0, {0x23}, 30, 3, ST_FAIL, true},
    {"NplusMBmc", {1, 0, 0}, [] { setStatusByte(1, ST_PROCESSING); }, false, 0, {0x21}, 0, 1, ST_COMPLETION, true},
    // The restore flag takes the first two mutexes.
    {"SvpBmcNoMutex", {1, 1, 0}, [] { hostFailCall("hslCreateMutex", 2, 1, ENOMEM); }, true, 0, {}, 30, -1, 0, true},
    // Requesters 3 to 5 have status bytes 6 to 11: F * 2 + FT names one of them.
    {"Function4Bmc", {1, 4, 0}, [] { setStatusByte(9, ST_PROCESSING); }, true, 0, {0x29}, 0, 9, ST_COMPLETION, true},
    // Requester 6 has no status byte: the one after the twelve stays as it is.
    {"Function6Efi", {0, 6, 0}, [] { setStatusByte(12, ST_PROCESSING); }, false, 0, {0x2C}, 0, 12, ST_PROCESSING, true},
    {"WebBmcFlagFails", {1, 2, 0}, [] { hostFailCall("hslCreateMutex", 0, 1, ENOMEM); }, true, 0, {0x35}, 1, -1, 0, false},
};
// clang-format on

// Each row's restore runs in the tick its countdown ends; a reboot countdown
// of 1 reboots in that same tick (the web console), a longer one counts on.
TEST(Timer, DeferredRestoreFollowsItsPath) {
    for (const DeferredCase& c : kDeferred) {
        SCOPED_TRACE(c.name);
        resetState();
        c.setup();
        gRestoreType = c.pending;
        gKillProcessAfterFileChkTimer = 1;
        const int timeCalls = hostApplyTimeInfoCount();
        const int scheduleCalls = hostUpdateScheduleCount();
        const Observed got = observe([] { return svfRestoreTimer(), 0L; });
        const std::string tag = "BRASK_DEBUG  : svfIntervalAutoBackup(#) : ";
        EXPECT_EQ(linesInOrder(got.out, {tag + "gKillProcessAfterFileChkTimer = 1",
                                         tag + "gRebootAfterRestoreTimer = " + std::to_string(c.reboot)})
                      .empty(),
                  c.reboot != 0);
        EXPECT_EQ(linesInOrder(got.out, {tag + "Reboot After Restore"}).empty(), c.reboot == 1);
        EXPECT_EQ(got.commands, std::string(c.stopsServices ? "webgo stop\ninetd stop\nssh stop\n" : "") +
                                    (c.reboot == 1 ? "reboot\n" : ""));
        hslSemiVolatileArea_T a{};
        ASSERT_EQ(hostSemiVolRead(&a), 0);
        EXPECT_EQ(
            c.pending.FileType == BMC_FILE ? a.svfAutoBack.BmcRestoreFlag : a.svfAutoBack.EfiRestoreFlag,
            c.flagAfter);
        EXPECT_EQ(selEvents(), c.sel);
        EXPECT_EQ(gRebootAfterRestoreTimer, std::max(c.reboot - 1, 0));
        if (c.slot >= 0) {
            EXPECT_EQ(reinterpret_cast<const INT8U*>(&a.svf)[c.slot], c.slotAfter);
        }
        EXPECT_EQ(hostApplyTimeInfoCount() - timeCalls, c.timeApplied ? 1 : 0);
        EXPECT_EQ(hostUpdateScheduleCount() - scheduleCalls, c.timeApplied ? 1 : 0);
        if (c.timeApplied) {
            EXPECT_EQ(hostLastScheduleArgument(), m_prev_sch_ut_time);
        }
    }
}

}  // namespace
}  // namespace brask::test
