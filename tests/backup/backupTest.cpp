// The backup side: change detection with its comparers, the FRU carried to
// and from its backup file, Set Backup Event, and the recovery of active
// files from their copies.  Each row is one case's whole story.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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

// The library's lines of `text`, in order; only those that report a failure
// or an error with `failures`.
std::string ours(const std::string& text, bool failures = true) {
    std::string kept;
    for (const std::string& line : lines(text)) {
        const bool failure =
            line.find("fail") != std::string::npos || line.find("error") != std::string::npos;
        if (line.rfind("BRASK", 0) == 0 && (failure || !failures)) kept += line + "\n";
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

// ---- The BIOS configuration comparer -------------------------------------------

// Record header with RecordLen, revision bytes, then sections {type, length, fill}.
Bytes bios(std::uint32_t recordLen, const std::vector<std::array<int, 3>>& sections, int flip = -1) {
    Bytes f = {1,
               std::uint8_t(recordLen),
               std::uint8_t(recordLen >> 8),
               std::uint8_t(recordLen >> 16),
               2,
               0x10,
               0xAB,
               0xCD};
    for (auto [type, len, fill] : sections) {
        f.insert(f.end(), {std::uint8_t(type), 0, std::uint8_t(len), std::uint8_t(len >> 8)});
        f.insert(f.end(), len < 4 ? 0 : len - 4, std::uint8_t(fill));
    }
    if (flip >= 0) f.at(flip) ^= 1;
    return f;
}

TEST(BiosConfigComparer, ComparesTheRegionBeforeTheFirstTypeTwoSection) {
    // Region: the header (8) and the type-1 section (12); a type-2 section
    // at 20..35 and a type-1 section after it lie outside.
    const std::vector<std::array<int, 3>> three = {{1, 12, 0x11}, {2, 16, 0x22}, {1, 8, 0x33}};
    // RecordLen 10 ends inside the first section, which is compared whole.
    const std::vector<std::array<int, 3>> two = {{1, 12, 0x11}, {1, 8, 0x44}};
    Bytes longer = bios(0x1000, three), shorter = longer;
    longer.push_back(0x99);
    shorter.resize(15);
    const struct {
        Bytes act, bak;
        int result;
    } rows[] = {
        {bios(0x1000, three), bios(0x1000, three), 0},
        {bios(0x1000, three), bios(0x1000, three, 5), 1},
        {bios(0x1000, three), bios(0x1000, three, 19), 1},
        {bios(0x1000, three), bios(0x1000, three, 22), 0},
        {bios(0x1000, three), bios(0x1000, three, 40), 0},
        {bios(0x1000, three), longer, 0},
        {bios(0x1000, three), shorter, 1},
        {bios(0x10000, three), bios(0x10000, three, 19), 1},
        {bios(8, two), bios(8, two, 12), 0},
        {bios(8, two), bios(8, two, 7), 1},
        {bios(10, two), bios(10, two, 19), 1},
        {bios(10, two), bios(10, two, 22), 0},
        {bios(0x1000, three), {}, -1},
        // A damaged active file.
        {{1, 0x20, 0}, {1, 0x20, 0}, -2},
        {{1, 0x20, 0, 0, 0, 0, 0, 0, 1, 0}, {1, 0x20, 0, 0, 0, 0, 0, 0, 1, 0}, -2},
        {bios(0x100, {{1, 3, 0}}), bios(0x100, {{1, 3, 0}}), -2},
        {bios(0x100, {{1, 12, 0}}), bios(0x100, {{1, 12, 0}}), -2},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        writeBytes("/conf/brask/BIOSConfig.dat", r.act);
        writeBytes("/conf/brask/BIOSConfig.dat.bak", r.bak);
        FILE* a = std::fopen("/conf/brask/BIOSConfig.dat", "rb");
        FILE* b = std::fopen("/conf/brask/BIOSConfig.dat.bak", "rb");
        const Observed o = observe([&] { return svfChkBIOSConfFileDiff(a, b); });
        EXPECT_EQ(o.result, r.result);
        EXPECT_EQ(o.leakedMappings + o.leakedDescriptors, 0);
        std::fclose(a), std::fclose(b);
    }
}

// ---- FRU backup and restore --------------------------------------------------------

Bytes pattern(std::size_t n, int seed) {
    Bytes v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::uint8_t>((i * 7 + seed) % 251);  // no 0xFF
    return v;
}
// The FRU backup file: Size and dummy bytes up to 16, then `n` bytes of `data`.
Bytes fruFile(const Bytes& data, std::size_t n, std::uint32_t size) {
    Bytes f(16, 0);
    for (int i = 0; i < 4; ++i) f[i] = static_cast<std::uint8_t>(size >> (8 * i));
    f.insert(f.end(), data.begin(), data.begin() + n);
    return f;
}
Bytes fruFile(const Bytes& data) { return fruFile(data, data.size(), data.size()); }

using Pieces = std::vector<std::array<std::uint32_t, 3>>;  // command, offset, count
Pieces fruAccesses() {
    std::vector<hostFruAccess_T> log(64);
    log.resize(hostFruAccessLog(log.data(), 64));
    Pieces p;
    for (const hostFruAccess_T& a : log) p.push_back({a.Cmd, a.Offset, a.Count});
    return p;
}

struct FruRow {
    const char* name;
    bool restore;      // svfRestoreFRU, else svfBackupFRU
    std::size_t area;  // of the FRU, filled with pattern(area, 17)
    Bytes file;        // the FRU backup file before; empty: none
    void (*faults)();
    long result;
    std::string problems;  // the lines of the output that report a failure
    Pieces accesses;       // FRU reads and writes, in order
    Bytes fileAfter = {};  // backup: the FRU backup file after
};

const Bytes kFruArea = pattern(600, 17), kSaved = pattern(300, 8), kPrevious = fruFile(pattern(40, 2));
const std::string kMsg3 = "BRASK_MSG[3] : svfBackupFRU(#) : ";
const std::string kInfoFail =
    kMsg3 + "svfBackupFRU() : svfBackupFRU() : FRU Inventory Device Commands failed.\n";
const std::string kReadFail = kMsg3 + "svfBackupFRU() : svfBackupFRU() : Read FRU Commands failed.\n";
const std::string kWriteFail =
    kMsg3 + "svfLogReadAndRestore() : svfLogReadAndRestore() : Write FRU Commands failed.\n";
Bytes withFFAt(std::size_t at) {
    Bytes d = kSaved;
    d[at] = 0xFF;
    return fruFile(d);
}

const FruRow kFruRows[] = {
    {"backup of 600 bytes",
     false,
     600,
     kPrevious,
     [] {},
     1,
     "",
     {{0x11, 0, 255}, {0x11, 0, 255}, {0x11, 255, 255}, {0x11, 255, 255}, {0x11, 510, 90}, {0x11, 510, 90}},
     fruFile(kFruArea)},
    {"backup of 256 bytes",
     false,
     256,
     kPrevious,
     [] {},
     1,
     "",
     {{0x11, 0, 255}, {0x11, 0, 255}, {0x11, 255, 1}, {0x11, 255, 1}},
     fruFile(pattern(256, 17))},
    {"area size 0", false, 0, kPrevious, [] {}, -1, kInfoFail, {}, kPrevious},
    {"inventory refused",
     false,
     600,
     kPrevious,
     [] { hostIpmiFailCmd(0x10, 0, 1, 0xC1); },
     -1,
     kInfoFail,
     {},
     kPrevious},
    {"inventory not sent",
     false,
     600,
     kPrevious,
     [] { hostFailCall("API_ExecuteCmd", 0, 1, 0); },
     -1,
     kInfoFail,
     {},
     kPrevious},
    {"accessed by words",
     false,
     600,
     kPrevious,
     [] { hostFruSetAccessType(1); },
     -1,
     kInfoFail,
     {},
     kPrevious},
    {"verifying read refused",
     false,
     600,
     kPrevious,
     [] { hostIpmiFailCmd(0x11, 1, 1, 0xC3); },
     -1,
     kReadFail,
     {{0x11, 0, 255}},
     fruFile({})},
    {"second piece refused",
     false,
     600,
     kPrevious,
     [] { hostIpmiFailCmd(0x11, 2, 1, 0xC3); },
     -1,
     kReadFail,
     {{0x11, 0, 255}, {0x11, 0, 255}},
     fruFile(kFruArea, 255, 255)},
    {"short read",
     false,
     600,
     kPrevious,
     [] { hostFruSetShortRead(1); },
     -1,
     kMsg3 + "svfBackupFRU() : svfBackupFRU() :  Read FRU Commands failed.\n",
     {{0x11, 0, 255}},
     fruFile({})},
    {"reads differ",
     false,
     600,
     kPrevious,
     [] { hostFruSetReadsDiffer(1); },
     -1,
     kMsg3 + "svfBackupFRU() : svfBackupFRU() : It failed in reading FRU.\n",
     {{0x11, 0, 255}, {0x11, 0, 255}},
     fruFile({})},
    {"file not writable",
     false,
     600,
     {},
     [] { ::mkdir(kFru, 0755); },
     -1,
     kMsg3 + "svfInitLog() : svfInitLog() : error(21)\n",
     {},
     {}},
    {"restore of 300 bytes", true, 600, fruFile(kSaved), [] {}, 0, "", {{0x12, 0, 255}, {0x12, 255, 45}}},
    {"restore of 255 bytes", true, 600, fruFile(pattern(255, 8)), [] {}, 0, "", {{0x12, 0, 255}}},
    {"restore up to the first 0xFF",
     true,
     600,
     withFFAt(256),
     [] {},
     0,
     "",
     {{0x12, 0, 255}, {0x12, 255, 1}}},
    {"restore from a leading 0xFF", true, 600, withFFAt(0), [] {}, 0, "", {}},
    {"restore of nothing", true, 600, fruFile({}), [] {}, 0, "", {}},
    {"restore refused three times",
     true,
     600,
     fruFile(kSaved),
     [] { hostFruRefuseWrites(0xD5); },
     1,
     kWriteFail + kWriteFail + kWriteFail,
     {}},
    {"restore refused once starts over",
     true,
     600,
     fruFile(kSaved),
     [] { hostIpmiFailCmd(0x12, 1, 1, 0xC3); },
     0,
     kWriteFail,
     {{0x12, 0, 255}, {0x12, 0, 255}, {0x12, 255, 45}}},
    {"restore without a file",
     true,
     600,
     {},
     [] {},
     -1,
     kMsg3 + "svfLogReadAndRestore() : svfLogReadAndRestore() : file open error(2)\n",
     {}},
    {"restore of a short header",
     true,
     600,
     Bytes(9, 0),
     [] {},
     -64,
     kMsg3 + "svfLogReadAndRestore() : svfLogReadAndRestore() : read error(0)\n",
     {}},
    {"restore of data shorter than Size",
     true,
     600,
     fruFile(kSaved, 10, 300),
     [] {},
     -64,
     kMsg3 + "svfLogReadAndRestore() : svfLogReadAndRestore() : error(0)\n",
     {}},
    {"restore of a Size beyond any area",
     true,
     600,
     fruFile(kSaved, 10, 65536),
     [] {},
     -64,
     kMsg3 + "svfLogReadAndRestore() : svfLogReadAndRestore() : size error(65536)\n",
     {}},
    {"restore from a folder", true, 600, {}, [] { ::mkdir(kFru, 0755); }, -64, "", {}},
};

TEST(Fru, BackupReadsEachPieceTwiceAndRestoreWritesPiecesOf255) {
    for (const FruRow& r : kFruRows) {
        SCOPED_TRACE(r.name);
        resetState();
        const Bytes area = pattern(r.area, 17);
        hostFruWriteImage(area.data(), r.area);
        if (!r.file.empty()) writeBytes(kFru, r.file);
        if (r.area == 0) writeBytes(HOST_FRU_FILE, {});
        r.faults();
        hostFruClearAccessLog();
        const Observed o = observe([&] { return long(r.restore ? svfRestoreFRU() : svfBackupFRU()); });
        EXPECT_EQ(o.result, r.result);
        EXPECT_EQ(ours(o.out), r.problems);
        EXPECT_EQ(o.err, "");
        EXPECT_EQ(fruAccesses(), r.accesses);
        Bytes now(r.area);
        now.resize(std::max(0, hostFruReadImage(now.data(), r.area)));
        Bytes written = area;
        for (const auto& [cmd, offset, count] : r.accesses) {
            if (cmd == 0x12) std::copy_n(r.file.begin() + 16 + offset, count, written.begin() + offset);
        }
        EXPECT_EQ(now, written);
        if (!r.restore && !r.fileAfter.empty()) {
            EXPECT_EQ(readBytes(kFru), r.fileAfter);
        }
        EXPECT_EQ(o.leakedDescriptors, 0);
    }
}

TEST(Fru, LogFilesMadeAtStartWhenMissing) {
    writeBytes(kFru, kPrevious);
    EXPECT_EQ(InitFRULogFile(), 0);
    EXPECT_EQ(readBytes(kFru), kPrevious);
    EXPECT_EQ(readBytes(bak(kFru)), Bytes(16, 0));
    // One that cannot be made does not keep the other from being made.
    std::remove(kFru), std::remove(bak(kFru).c_str());
    ASSERT_EQ(hostFailCall("hslChkMakeFile", 0, 1, EIO), 0);
    EXPECT_EQ(InitFRULogFile(), -1);
    EXPECT_EQ(readBytes(bak(kFru)), Bytes(16, 0));
}

// ---- Set Backup Event ---------------------------------------------------------------

struct SetRow {
    const char* name;
    std::vector<INT8U> request;
    void (*state)();
    INT8U code;
    std::vector<std::uint8_t> sel;
    std::string err;
    bool done = false;  // a new web console backup replaced the previous one
    std::optional<Fault> fault = {};
    bool bmcBakLeft = false;
};

const std::vector<INT8U> kWeb = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
const std::string kSetErr = "BRASK_ERR    : svfOEMSetBackupEvent(#) : ";
const std::vector<std::uint8_t> kFailSel = {0x0B, 0x3B};

const std::string kWriterBios = "BRASK_DEBUG  : svfBraskArchiver(#) : BIOS_CONF_FILE open fail\n";
const std::string kDiffFail = kSetErr + "svfChkBackupFileDiff fail\n",
                  kCreateFail = kSetErr + "svfCreateBraskBackupFile fail\n";

const SetRow kSetRows[] = {
    {"5 bytes", {1, 2, 0, 0, 0}, [] {}, 0xC7, {}, kSetErr + "REQ_INV_LEN\n"},
    {"7 bytes", {1, 2, 0, 0, 0, 0, 0}, [] {}, 0xC7, {}, kSetErr + "REQ_INV_LEN\n"},
    {"file type 2", {2, 2, 0, 0, 0, 0}, [] {}, 0xC9, {}, kSetErr + "PARAM_OUT_OF_RANGE\n"},
    {"function 6", {1, 6, 0, 0, 0, 0}, [] {}, 0xC9, {}, kSetErr + "PARAM_OUT_OF_RANGE\n"},
    {"EFI from the web console", {0, 2, 0, 0, 0, 0}, [] {}, 0, {}, ""},
    {"BMC from requester 5", {1, 5, 0, 0, 0, 0}, [] {}, 0, {}, ""},
    {"BMC from the SVP", {1, 1, 0, 0, 0, 0}, [] {}, 0, {}, ""},
    {"kill countdown running",
     kWeb,
     [] { gKillProcessAfterFileChkTimer = 3; },
     0xD5,
     {},
     kSetErr + "gRebootAfterRestoreTimer != 0\n"},
    {"reboot countdown running",
     kWeb,
     [] { gRebootAfterRestoreTimer = 3; },
     0xD5,
     {},
     kSetErr + "gRebootAfterRestoreTimer != 0\n"},
    {"backup", kWeb, [] {}, 0, {0x0B, 0x2B}, kWriterBios, true},
    {"event query fails",
     kWeb,
     [] { hostFailCall("hslAcquireMutex", 0, 1, EPERM); },
     0x80,
     {},
     "BRASK_ERR  : svfOEMExeRestoreEvent(#) : failed to get mutex(1)\n" + kSetErr +
         "efiGetBackupRestoreEvent fail\n"},
    {"another event active",
     kWeb,
     [] {
         hslSemiVolatileArea_T area{};
         hostSemiVolRead(&area);
         area.svf.svfStatus.Restore.NpM.Bmc = ST_GENERATED;
         hostSemiVolWrite(&area);
     },
     0xD5,
     {0x0B, 0x4B},
     kSetErr + "Other BACKUP_RESTORE_EVENT Running\n"},
    {"mandatory file missing", kWeb, [] { std::remove("/conf/passwd"); }, 0x80, kFailSel, kDiffFail},
    {"FRU unreadable", kWeb, [] { hostIpmiFailCmd(0x10, 0, 1, 0xC1); }, 0x80, kFailSel,
     kMsg3 + "svfBackupFRU() : svfBackupFRU() : FRU Inventory Device Commands failed.\n" + kDiffFail},
    {"copy fails", kWeb, [] { std::remove("/conf/passwd.bak"); }, 0x80, kFailSel,
     kCmdFail + kCopyFail + kDiffFail, false, Fault{Call::System, "cp "}},
    {"SEL time unavailable",
     kWeb,
     [] { hostIpmiFailCmd(0x48, 0, 1, 0xC1); },
     0x80,
     kFailSel,
     kArch + "API_ExecuteCmd Fail\n" + kCreateFail,
     false,
     {},
     true},
    {"backup file not writable",
     kWeb,
     [] { ::mkdir(kBmcBak, 0755); },
     0x80,
     kFailSel,
     kCmdFail + kCreateFail,
     false,
     {},
     true},
    {"file semaphore refused",
     kWeb,
     [] { hostFailCall("hslAcquireSysvSemaphore", 109, 1, EINTR); },
     0x88,
     kFailSel,
     kWriterBios + kSetErr + "hslAcquireSysvSemaphore fail\n",
     false,
     {},
     true},
    {"rename fails", kWeb, [] {}, 0x80, kFailSel,
     kWriterBios + "BRASK_DEBUG  : svfOEMSetBackupEvent(#) : mv fail\n", false, Fault{Call::System, "mv "},
     true},
};

TEST(SetBackupEvent, MakesTheWebConsoleBackupOrSaysWhyNot) {
    for (const SetRow& r : kSetRows) {
        SCOPED_TRACE(r.name);
        resetState();
        populateConf({.backupCopies = true});
        writeFile(kWebBak, "previous");
        INT8U res[8] = {};
        observe([&] { return svfGetBackupRestoreEvent(nullptr, 0, res); });  // its handles stay open
        r.state();
        hostResetCounters();
        std::optional<FailCall> fault;
        arm(fault, r.fault);
        std::vector<INT8U> req = r.request;
        std::memset(res, 0xEE, sizeof res);
        const Observed o =
            observe([&] { return svfOEMSetBackupEvent(req.data(), INT8U(req.size()), res, 0); });
        fault.reset();
        EXPECT_EQ(o.result, 1);
        EXPECT_EQ(res[0], r.code);
        EXPECT_EQ(o.sel, r.sel);
        EXPECT_EQ(ours(o.out) + ours(o.err, false), r.err);
        EXPECT_EQ(readFile(kWebBak) != "previous", r.done);
        EXPECT_EQ(exists(kBmcBak), r.bmcBakLeft);
        EXPECT_EQ(semaphoresHeld(), r.code == 0x88);
        EXPECT_EQ(o.leakedDescriptors, 0);
        if (r.done) {
            // Every existing catalogue file is in the backup's BMC block.
            const format::Bytes file(readBytes(kWebBak));
            svfBraskBackupFileHeader_T header{};
            svfBraskBackupFileBlockInfo_T info{};
            svfBraskArchiveFileHeader_T blockHeader{};
            format::Bytes block;
            ASSERT_EQ(format::decodeBackupHeader(file, header), format::Status::Ok);
            ASSERT_EQ(format::decodeBlockInfo(file, 1, info), format::Status::Ok);
            ASSERT_EQ(format::blockBytes(file, info, block), format::Status::Ok);
            ASSERT_EQ(format::decodeArchiveHeader(block, blockHeader), format::Status::Ok);
            EXPECT_EQ(blockHeader.NumOfEntry, populateConf({.backupCopies = true}).size());
        }
        svfIniTimer();
    }
}

// ---- Recovery ------------------------------------------------------------------------

TEST(Recovery, PutsEveryActiveFileBackFromItsCopy) {
    populateConf({.optionalFiles = false, .backupCopies = true});
    writeFile(kResolv, "changed\n");
    std::remove(bak("/conf/hid.conf").c_str());
    const Observed o = observe(svfRecoverFile);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.changes, "changed /conf/resolv.conf: content 8 -> 67 bytes, first difference at byte 0\n");
    EXPECT_EQ(linesInOrder(o.err, {kArch + "/conf/hid.conf Recover fail"}), "");
}

}  // namespace
}  // namespace brask::test
