// The backup side: change detection with its comparers, the FRU carried to
// and from its backup file, Set Backup Event, and the recovery of active
// files from their copies.  Each row is one case's whole story.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "support/builders.h"
#include "support/interpose.h"
#include "support/observe.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/transcript.h"

namespace brask::test {
namespace {

constexpr char kServices[] = "/conf/brask/services";  // optional, early in the catalogue
constexpr char kSysName[] = "/conf/SysName.dat";      // optional, late in the catalogue
constexpr char kResolv[] = "/conf/resolv.conf";
constexpr char kUsers[] = "/conf/brask/bum_home/bmcUserInfo.data";
constexpr char kFru[] = "/conf/brask/FRUBACKUP.dat";
constexpr char kWebBak[] = "/var/brask/BmcWeb.bak";
constexpr char kBmcBak[] = "/var/brask/BMC.bak";
std::string bak(const std::string& path) { return path + ".bak"; }

void expectLines(const std::string& text, const std::vector<std::string>& wanted) {
    for (const std::string& w : wanted) EXPECT_EQ(linesInOrder(text, {w}), "");
}

int semaphoresHeld() {
    return hostCallCount("hslAcquireSysvSemaphore") - hostCallCount("hslReleaseSysvSemaphore");
}

// Twelve users of 60-byte records, as the user manager writes them, edited.
Bytes users(void (*edit)(bumUserInfo_t&) = nullptr) {
    bumUserInfo_t u{};
    u.header.version = 1;
    u.header.users = 12;
    for (unsigned i = 0; i < 12; ++i) {
        u.user[i].header.length = 60;
        u.user[i].bmcUid = static_cast<INT8U>(i + 1);
        u.user[i].passwdFlag = 1;
        u.user[i].role_value = 0x100 + i;
        std::memset(u.user[i].hashedPasswd, static_cast<int>(0x40 + i), sizeof u.user[i].hashedPasswd);
        u.user[i].prevLogin[0] = 1700000000u + i;
    }
    if (edit != nullptr) edit(u);
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&u);
    return {raw, raw + sizeof u};
}

// Lines of `text` that report a failure or an error, in order.
std::string problems(const std::string& text) {
    std::string kept;
    for (const std::string& line : lines(text)) {
        if (line.find("fail") != std::string::npos || line.find("error") != std::string::npos)
            kept += line + "\n";
    }
    return kept;
}

void userPair(void (*edit)(bumUserInfo_t&)) {
    writeBytes(kUsers, users());
    writeBytes(bak(kUsers), users(edit));
}

// Catalogue rows before (10) and after (90) the one a case makes fail.
void rowsAround() {
    writeFile(kServices, "row 10\n");
    writeFile(kSysName, "row 90\n");
}

void fruPair() {
    writeBytes(kFru, Bytes(16, 0));
    writeBytes(bak(kFru), Bytes(16, 0));
}

// A C library call that fails during the call: EIO, or a shell command
// that runs and exits with status 1.
struct Fault {
    Call call;
    const char* prefix;
    int nth = 1;
};
void arm(std::optional<FailCall>& f, const std::optional<Fault>& fault) {
    if (!fault) return;
    const bool shell = fault->call == Call::System;
    f.emplace(fault->call, shell ? 0 : EIO, fault->prefix, fault->nth);
    if (shell) f->returning(256);
}

// ---- Change detection ---------------------------------------------------------

struct DiffRow {
    const char* name;
    void (*state)();  // files and platform faults on top of a settled /conf
    long result;
    std::string changes;
    std::string err;
    std::vector<std::string> out = {};  // lines that must be among the output
    std::optional<Fault> fault = {};
    INT8U fileType = BMC_FILE;
    int held = 0;  // semaphores taken and not given back
};

const std::string kArch = "BRASK_ERR  : svfBraskArchiver(#) : ";
const std::string kDbg = "BRASK_DEBUG  : svfBraskArchiver(#) : ";

const std::string kCmdFail = kArch + "system cmd fail(0)\n", kCopyFail = kArch + "svfExeCopyCmd fail.(-1)\n";
const std::string kRow10 = "created /conf/brask/services.bak (file 0644 0:0, 7 bytes)\n";
std::string usersChanged(int at) {
    return "changed /conf/brask/bum_home/bmcUserInfo.data.bak: content 724 -> 724 bytes, first difference at "
           "byte " +
           std::to_string(at) + "\n";
}
const std::string kResolvChanged = "changed /conf/resolv.conf.bak: content 67 -> ";
const std::string kFruChanged =
    "changed /conf/brask/FRUBACKUP.dat: content 16 -> 2064 bytes, first difference at byte 1\n";
void sameSizeOtherBytes() { writeFile(kResolv, std::string(readFile(kResolv).size(), '#')); }
void roleChanged(bumUserInfo_t& u) { u.user[6].role_value = 0; }

const DiffRow kDiffRows[] = {
    {"nothing changed", [] {}, 0, "", "", {kDbg + "NumOfFiles = 109", kDbg + "End_FileDiff_DiffFlag == 0"}},
    {"second call",
     [] {
         writeFile(kServices, "x\n");
         svfChkBackupFileDiff(BMC_FILE);
     },
     0, "", ""},
    {"mandatory file missing",
     [] { std::remove("/conf/hid.conf"); },
     -1,
     "",
     "",
     {kDbg + "ActFp == NULL, STATIC"}},
    {"copy left over",
     [] { writeFile(bak(kServices), "old\n"); },
     1,
     "removed /conf/brask/services.bak\n",
     "",
     {kDbg + "ActFp == NULL, DYNAMIC, BakFp != NULL", kDbg + "Set DiffFlag = 1",
      kDbg + "End_FileDiff_DiffFlag == 1"}},
    {"new file, mode kept", [] { writeFile(kServices, "ssh 22/tcp\n", 0600); }, 1,
     "created /conf/brask/services.bak (file 0600 0:0, 11 bytes)\n", ""},
    {"sizes differ",
     [] { writeFile(kResolv, readFile(kResolv) + "nameserver 10.0.0.9\n"); },
     1,
     kResolvChanged + "87 bytes, first difference at byte 67\n",
     "",
     {kDbg + "Size Diff", kDbg + "Set DiffFlag = 1"}},
    {"same size, other bytes",
     sameSizeOtherBytes,
     1,
     kResolvChanged + "67 bytes, first difference at byte 0\n",
     "",
     {kDbg + "Set DiffFlag = 1"}},
    {"two empty files",
     [] { writeFile(kServices, ""), writeFile(bak(kServices), ""); },
     0,
     "",
     "",
     {kDbg + "FileSize == 0"}},
    {"active not mappable",
     sameSizeOtherBytes,
     -1,
     "",
     "",
     {kDbg + "goto ERROR"},
     Fault{Call::Mmap, kResolv}},
    {"copy not mappable",
     sameSizeOtherBytes,
     -1,
     "",
     "",
     {kDbg + "goto ERROR"},
     Fault{Call::Mmap, kResolv, 2}},
    {"copy not openable",
     [] { ::mkdir(bak(kServices).c_str(), 0755); },
     -1,
     "",
     "",
     {kDbg + "/conf/brask/services.bak open fail"}},
    {"active not openable",
     [] { ::symlink(kServices, kServices); },
     -1,
     "",
     "",
     {kDbg + "/conf/brask/services open fail"}},
    {"users: role",
     [] { userPair(roleChanged); },
     1,
     usersChanged(372),
     "",
     {kDbg + "i = 27", kDbg + "RetVal = 1", kDbg + "DIFF user[6].role_value"}},
    {"users: info header",
     [] { userPair([](bumUserInfo_t& u) { u.header.version = 2; }); },
     1,
     usersChanged(0),
     "",
     {kDbg + "DIFF header"}},
    {"users: record header",
     [] { userPair([](bumUserInfo_t& u) { u.user[2].header.reserved[1] = 1; }); },
     1,
     usersChanged(126),
     "",
     {kDbg + "DIFF user[2].header"}},
    {"users: uid",
     [] { userPair([](bumUserInfo_t& u) { u.user[4].bmcUid = 99; }); },
     1,
     usersChanged(248),
     "",
     {kDbg + "DIFF user[4].bmcUid"}},
    {"users: reserved",
     [] { userPair([](bumUserInfo_t& u) { u.user[5].reserved[0] = 1; }); },
     1,
     usersChanged(310),
     "",
     {kDbg + "DIFF user[5].reserved"}},
    {"users: password hash",
     [] { userPair([](bumUserInfo_t& u) { u.user[11].hashedPasswd[15] = 0; }); },
     1,
     usersChanged(691),
     "",
     {kDbg + "DIFF user[11].hashedPasswd"}},
    {"users: logins and password flags only",
     [] { userPair([](bumUserInfo_t& u) { u.user[3].passwdFlag = 0, u.user[11].prevLogin[7] = 5; }); },
     0,
     "",
     "",
     {kDbg + "RetVal = 0"}},
    {"users: copy cut short",
     [] { userPair(nullptr), writeFile(bak(kUsers), "short"); },
     -1,
     "",
     "",
     {kDbg + "RetVal = -2"}},
    // An active file read in part is compared as read, so the copy takes it whole.
    {"users: active record cut",
     [] {
         Bytes b = users();
         b.resize(100);
         writeBytes(kUsers, b), writeBytes(bak(kUsers), users());
     },
     1,
     "changed /conf/brask/bum_home/bmcUserInfo.data.bak: content 724 -> 100 bytes, first difference at byte "
     "100\n",
     "bumReadUserInfoInternal: fread() for attr failed. Success\n"},
    {"users: active record longer than its slot",
     [] {
         Bytes b = users();
         b[64] = 61;
         writeBytes(kUsers, b), writeBytes(bak(kUsers), users());
     },
     1, usersChanged(64), ""},
    {"FRU read afresh",
     fruPair,
     1,
     kFruChanged + bak(kFruChanged.substr(0, 33)) + kFruChanged.substr(33),
     "",
     {"BRASK_MSG[6] : svfBraskArchiver(#) : svfChkBackupFileDiff() : svfChkBackupFileDiff() : i = 99",
      "BRASK_MSG[7] : svfBraskArchiver(#) : svfChkBackupFileDiff() : RetVal = 1"}},
    {"FRU read afresh on every call", [] { fruPair(), svfChkBackupFileDiff(BMC_FILE); }, 1, "", ""},
    {"FRU unreadable",
     [] { fruPair(), hostIpmiFailCmd(0x10, 0, 1, 0xC1); },
     -1,
     "",
     "",
     {"BRASK_MSG[7] : svfBraskArchiver(#) : svfChkBackupFileDiff() : RetVal = -1"}},
    // A failure part-way leaves the rows before it refreshed and the later ones alone.
    {"mandatory file of row 24 missing", [] { rowsAround(), std::remove("/conf/passwd"); }, -1, kRow10, ""},
    {"semaphore refused at row 50",
     [] { rowsAround(), hostFailCall("hslAcquireSysvSemaphore", 50, 1, EINTR); },
     -1,
     kRow10,
     "",
     {},
     {},
     BMC_FILE,
     1},
    {"semaphore not given back at row 50",
     [] { rowsAround(), hostFailCallLate("hslReleaseSysvSemaphore", 50, 1, EINVAL); }, -1, kRow10, ""},
    {"copy of a new file fails",
     [] { writeFile(kServices, "x\n"); },
     -1,
     "",
     kCmdFail + kCopyFail,
     {kDbg + "goto ERROR"},
     Fault{Call::System, "cp "}},
    {"copy after a size difference fails",
     [] { writeFile(kResolv, "nameserver 1.1.1.1\n"); },
     -1,
     "",
     kCmdFail + kCopyFail,
     {kDbg + "Size Diff"},
     Fault{Call::System, "cp "}},
    // The comparer's difference stands when the copy then fails.
    {"copy after a comparer's difference fails",
     [] { userPair(roleChanged); },
     1,
     "",
     kCmdFail,
     {},
     Fault{Call::System, "cp "}},
    {"removal of a left-over copy fails",
     [] { writeFile(bak(kServices), "old\n"); },
     -1,
     "",
     kArch + "system cmd fail(2)\n",
     {kDbg + "goto ERROR"},
     Fault{Call::System, "rm "}},
    {"EFI files",
     [] { writeFile(kServices, "x\n"); },
     0,
     "",
     "",
     {kDbg + "FileType == EFI", kDbg + "NumOfFiles = 0"},
     {},
     EFI_FILE},
    {"unknown file type",
     [] { writeFile(kServices, "x\n"); },
     -1,
     "",
     "",
     {kDbg + "Unknown FileType"},
     {},
     2},
};

TEST(ChangeDetection, RefreshesEveryStaleCopyAndSaysWhetherAnyWas) {
    for (const DiffRow& r : kDiffRows) {
        SCOPED_TRACE(r.name);
        resetState();
        populateConf({.optionalFiles = false, .backupCopies = true});
        std::remove(kFru);
        std::remove(bak(kFru).c_str());
        ASSERT_EQ(observe([] { return svfChkBackupFileDiff(BMC_FILE); }).result, 0);
        observe([&] { return r.state(), 0L; });
        hostResetCounters();
        std::optional<FailCall> fault;
        arm(fault, r.fault);
        const Observed o = observe([&] { return svfChkBackupFileDiff(r.fileType); });
        EXPECT_TRUE(!fault || fault->fired());
        fault.reset();
        EXPECT_EQ(o.result, r.result);
        EXPECT_EQ(o.changes, r.changes);
        EXPECT_EQ(o.err, r.err);
        expectLines(o.out, r.out);
        EXPECT_EQ(semaphoresHeld(), r.held);
        EXPECT_EQ(o.leakedDescriptors + o.leakedMappings, 0);
    }
}

}  // namespace
}  // namespace brask::test
