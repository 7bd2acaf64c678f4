// The backup side: change detection with its comparers, the FRU carried to
// and from its backup file, and Set Backup Event.  Each row is one case's
// whole story.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <tuple>

#include "common/eventCodes.h"
#include "support/suite.h"

namespace brask::test {
namespace {

using std::tuple;
constexpr char kServices[] = "/conf/brask/services";  // optional, catalogue row 10
constexpr char kSysName[] = "/conf/SysName.dat";      // optional, row 90
constexpr char kResolv[] = "/conf/resolv.conf";
constexpr char kUsers[] = "/conf/brask/bum_home/bmcUserInfo.data";
constexpr char kFru[] = "/conf/brask/FRUBACKUP.dat";
constexpr char kWebBak[] = "/var/brask/BmcWeb.bak";
std::string bak(const std::string& path) { return path + ".bak"; }

// The library's lines of `text` that report a failure: its error lines and
// the others that say so.
std::string ours(const std::string& text) {
    std::string kept;
    for (const std::string& l : lines(text)) {
        const bool failure = l.find("fail") != l.npos || l.find("error") != l.npos;
        if (l.starts_with("BRASK_ERR") || (l.starts_with("BRASK") && failure)) kept += l + "\n";
    }
    return kept;
}

// A C library call that fails while the request runs; a shell command runs
// and exits with status 1 (err 0).
// clang-format off
struct Fault { Call call; const char* prefix; int nth = 1, err = EIO; };
// clang-format on

// Every table's case: `state` set up on top of the table's own, then `call`
// with `fault` armed; nothing may be left open.
Observed run(void (*state)(), const std::optional<Fault>& fault, const std::function<long()>& call) {
    observe([&] { return state(), hostResetCounters(), hostFruClearAccessLog(), 0L; });
    std::optional<FailCall> f;
    if (fault) f.emplace(fault->call, fault->err, fault->prefix, fault->nth);
    if (fault && fault->call == Call::System) f->returning(256);
    const Observed o = observe(call);
    EXPECT_TRUE(!f || f->fired());
    EXPECT_EQ(o.leakedDescriptors, 0);
    return o;
}

// The file at `path` with the byte at `at` flipped, or cut to `at` bytes.
void flip(const std::string& path, std::size_t at, bool cut = false) {
    Bytes b = readBytes(path);
    cut ? b.resize(at) : void(b.at(at) ^= 1);
    writeBytes(path, b);
}

// ---- Change detection ---------------------------------------------------------

struct DiffRow {
    const char* name;
    void (*state)();  // on top of a settled /conf
    long result;
    std::string changes, err = "", out = "";  // out: a line the output must hold
    std::optional<Fault> fault = {};
    INT8U fileType = BMC_FILE;
};

// clang-format off
const std::string kArch = "BRASK_ERR  : svfBraskArchiver(#) : ", kDbg = "BRASK_DEBUG  : svfBraskArchiver(#) : ";
const std::string kCmdFail = kArch + "system cmd fail(0)\n", kCopyFail = kArch + "svfExeCopyCmd fail.(-1)\n";
const std::string kRow10 = "created /conf/brask/services.bak (file 0644 0:0, 7 bytes)\n", kResolvBak = "changed /conf/resolv.conf.bak: content 67 -> ";
const std::string kFruRet = "BRASK_MSG[7] : svfBraskArchiver(#) : svfChkBackupFileDiff() : RetVal = ";
const std::string kFruData = "changed /conf/brask/FRUBACKUP.dat: content 16 -> 2064 bytes, first difference at byte 1\n";
std::string usersBak(int at, int size = 724) {
    return "changed " + bak(kUsers) + ": content 724 -> " + std::to_string(size) + " bytes, first difference at byte " + std::to_string(at) + "\n";
}
void otherBytes() { writeFile(kResolv, std::string(readFile(kResolv).size(), '#')); }
void rowsAround() { writeFile(kServices, "row 10\n"), writeFile(kSysName, "row 90\n"); }
void fruPair() { writeBytes(kFru, Bytes(16, 0)), writeBytes(bak(kFru), Bytes(16, 0)); }
void newFile() { writeFile(kServices, "x\n"); }
void leftOver() { writeFile(bak(kServices), "old\n"); }

const DiffRow kDiffRows[] = {
    {"nothing changed", [] {}, 0, "", "", kDbg + "End_FileDiff_DiffFlag == 0"},
    {"second call", [] { newFile(), svfChkBackupFileDiff(BMC_FILE); }, 0, ""},
    {"mandatory file missing", [] { std::remove("/conf/hid.conf"); }, -1, "", "", kDbg + "ActFp == NULL, STATIC"},
    {"copy left over", leftOver, 1, "removed /conf/brask/services.bak\n", "", kDbg + "Set DiffFlag = 1"},
    {"new file", [] { writeFile(kServices, "ssh\n", 0600); }, 1, "created " + bak(kServices) + " (file 0600 0:0, 4 bytes)\n"},
    {"sizes differ", [] { writeFile(kResolv, readFile(kResolv) + "#\n"); }, 1, kResolvBak + "69 bytes, first difference at byte 67\n", "", kDbg + "Set DiffFlag = 1"},
    {"other bytes", otherBytes, 1, kResolvBak + "67 bytes, first difference at byte 0\n", "", kDbg + "Set DiffFlag = 1"},
    {"two empty files", [] { writeFile(kServices, ""), writeFile(bak(kServices), ""); }, 0, "", "", kDbg + "FileSize == 0"},
    {"active not mappable", otherBytes, -1, "", "", kDbg + "goto ERROR", Fault{Call::Mmap, kResolv}},
    {"copy not mappable", otherBytes, -1, "", "", kDbg + "goto ERROR", Fault{Call::Mmap, kResolv, 2}},
    {"copy not openable", [] { ::mkdir(bak(kServices).c_str(), 0755); }, -1, "", "", kDbg + bak(kServices) + " open fail"},
    {"active not openable", [] { ::symlink(kServices, kServices); }, -1, "", "", kDbg + kServices + " open fail"},
    // The user information: three users of 60-byte records at 4, 64 and 124.
    {"users: role", [] { flip(bak(kUsers), 72); }, 1, usersBak(72), "", kDbg + "DIFF user[1].role_value"},
    {"users: header", [] { flip(bak(kUsers), 0); }, 1, usersBak(0), "", kDbg + "CALL svfChkBmcUserInfoDiff"},
    {"users: record header", [] { flip(bak(kUsers), 126); }, 1, usersBak(126), "", kDbg + "RetVal = 1"},
    {"users: uid", [] { flip(bak(kUsers), 68); }, 1, usersBak(68), "", kDbg + "DIFF user[1].bmcUid"},
    {"users: reserved", [] { flip(bak(kUsers), 10); }, 1, usersBak(10)},
    {"users: hash", [] { flip(bak(kUsers), 151); }, 1, usersBak(151)},
    {"users: logins", [] { flip(bak(kUsers), 9), flip(bak(kUsers), 92); }, 0, "", "", kDbg + "RetVal = 0"},
    {"users: copy cut", [] { flip(bak(kUsers), 723, true); }, -1, "", "", kDbg + "RetVal = -2"},
    // An active file read in part is compared as read; the copy then takes it whole.
    {"users: active cut", [] { flip(kUsers, 100, true); }, 1, usersBak(100, 100), "bumReadUserInfoInternal: fread() for attr failed. Success\n"},
    {"users: record too long", [] { flip(kUsers, 64); }, 1, usersBak(64)},
    {"users: active not closed", [] { flip(bak(kUsers), 72); }, 1, usersBak(72), "bumReadUserInfoInternal: fclose() failed. Input/output error\n", "", Fault{Call::Fclose, kUsers, 2}},
    {"users: active unreadable", [] { flip(bak(kUsers), 72); }, 1, usersBak(72), "bumReadUserInfoInternal: fopen() failed. Input/output error\n", "", Fault{Call::Fopen, kUsers, 3}},
    {"FRU read afresh", fruPair, 1, kFruData + "changed " + bak(kFru) + kFruData.substr(33), "", kFruRet + "1"},
    {"FRU unreadable", [] { fruPair(), hostIpmiFailCmd(0x10, 0, 1, 0xC1); }, -1, "", "", kFruRet + "-1"},
    // A failure part-way leaves the rows before it refreshed and the later ones alone.
    {"row 24 missing", [] { rowsAround(), std::remove("/conf/passwd"); }, -1, kRow10},
    {"semaphore refused", [] { rowsAround(), hostFailCall("hslAcquireSysvSemaphore", 50, 1, EINTR); }, -1, kRow10},
    {"semaphore kept", [] { rowsAround(), hostFailCallLate("hslReleaseSysvSemaphore", 50, 1, EINVAL); }, -1, kRow10},
    {"copy of a new file", newFile, -1, "", kCmdFail + kCopyFail, kDbg + "goto ERROR", Fault{Call::System, "cp ", 1, 0}},
    {"copy after a size difference", [] { writeFile(kResolv, "#\n"); }, -1, "", kCmdFail + kCopyFail, "", Fault{Call::System, "cp ", 1, 0}},
    // The comparer's difference stands when the copy then fails.
    {"copy after a comparer", [] { flip(bak(kUsers), 72); }, 1, "", kCmdFail, "", Fault{Call::System, "cp ", 1, 0}},
    {"removal", leftOver, -1, "", kArch + "system cmd fail(2)\n", kDbg + "goto ERROR", Fault{Call::System, "rm ", 1, 0}},
    {"EFI files", newFile, 0, "", "", kDbg + "NumOfFiles = 0", {}, EFI_FILE},
    {"unknown file type", newFile, -1, "", "", kDbg + "Unknown FileType", {}, 2},
};
// clang-format on

TEST(ChangeDetection, RefreshesEveryStaleCopyAndSaysWhetherAnyWas) {
    for (const DiffRow& r : kDiffRows) {
        SCOPED_TRACE(r.name);
        resetState();
        populateConf({.backupCopies = true});
        for (std::string f : {kFru, kServices, kSysName}) std::remove(f.c_str()), std::remove(bak(f).c_str());
        ASSERT_EQ(observe([] { return svfChkBackupFileDiff(BMC_FILE); }).result, 0);
        const Observed o = run(r.state, r.fault, [&] { return svfChkBackupFileDiff(r.fileType); });
        EXPECT_EQ(tuple(o.result, o.changes, o.err, o.leakedMappings), tuple(r.result, r.changes, r.err, 0));
        EXPECT_EQ(r.out.empty() ? "" : linesInOrder(o.out, {r.out}), "");
    }
}

// ---- The BIOS configuration comparer -------------------------------------------

// Record header with RecordLen, revision bytes, then {type, length, fill}
// sections; the byte at `flip` changed.
using Sections = std::vector<std::array<int, 3>>;
Bytes bios(std::uint32_t recordLen, const Sections& sections, int flip = -1) {
    Bytes f = {1, 0, 0, 0, 2, 0x10, 0, 0};
    for (int i = 0; i < 3; ++i) f[1 + i] = std::uint8_t(recordLen >> 8 * i);
    for (auto [type, len, fill] : sections) {
        f.insert(f.end(), {std::uint8_t(type), 0, std::uint8_t(len), std::uint8_t(len >> 8)});
        f.insert(f.end(), len < 4 ? 0 : len - 4, std::uint8_t(fill));
    }
    if (flip >= 0) f.at(flip) ^= 1;
    return f;
}

TEST(BiosConfigComparer, ComparesTheRegionBeforeTheFirstTypeTwoSection) {
    // The region: the header (8) and a type-1 section (12); a type-2 section
    // at 20..35 and what follows lie outside it.  RecordLen 10 ends inside
    // the first section, which is compared whole.
    const Sections three = {{1, 12, 0x11}, {2, 16, 0x22}, {1, 8, 0x33}}, two = {{1, 12, 0x11}, {1, 8, 0x44}},
                   big = {{1, 0xFFF8, 0}, {1, 8, 0x44}};
    const Bytes base = bios(0x1000, three), cut(base.begin(), base.begin() + 15);
    // clang-format off
    const struct { Bytes act, bak; int result; } rows[] = {
        {base, base, 0}, {base, bios(0x1000, three, 5), 1}, {base, bios(0x1000, three, 19), 1},
        {base, bios(0x1000, three, 22), 0}, {base, bios(0x1000, three, 40), 0}, {base, cut, 1},
        {bios(0x10000, three), bios(0x10000, three, 19), 1}, {bios(0x10000, big), bios(0x10000, big, 0x10002), 0}, {bios(8, two), bios(8, two, 12), 0},
        {bios(8, two), bios(8, two, 7), 1}, {bios(10, two), bios(10, two, 19), 1},
        {bios(10, two), bios(10, two, 22), 0}, {base, {}, -1},
        // A damaged active file.
        {{1, 0x20, 0}, base, -2}, {Bytes(base.begin(), base.begin() + 10), base, -2},
        {bios(0x100, {{1, 3, 0}}), base, -2}, {bios(0x100, {{1, 12, 0}}), base, -2},
        // A section no longer than its own header is still a section.
        {bios(0x100, {{1, 4, 0}, {2, 8, 0}}), bios(0x100, {{1, 4, 0}, {2, 8, 0}}), 0},
    };
    // clang-format on
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        writeBytes("/conf/a", r.act), writeBytes("/conf/b", r.bak);
        FILE *a = std::fopen("/conf/a", "rb"), *b = std::fopen("/conf/b", "rb");
        const Observed o = observe([&] { return svfChkBIOSConfFileDiff(a, b); });
        std::fclose(a), std::fclose(b);
        EXPECT_EQ(tuple(o.result, o.leakedMappings + o.leakedDescriptors), tuple(r.result, 0));
        if (&r == rows || &r == rows + 8) {  // the walk ends at a type-2 section, or at RecordLen
            EXPECT_EQ(&r == rows ? linesInOrder(o.out, {kDbg + "CompSize = 8", kDbg + "CompSize = 14",
                                                        kDbg + "SectionType = 2", kDbg + "break"})
                                 : linesInOrder(o.out, {kDbg + "CompSize = 8", kDbg + "break"}),
                      "");
        }
    }
    // A section that cannot be skipped is a damaged file as well.
    writeBytes("/conf/a", base);
    FILE* a = std::fopen("/conf/a", "rb");
    const FailCall seek(Call::Fseek, EIO, "/conf/a", 2);
    EXPECT_EQ(captureOutput([&] { EXPECT_EQ(svfChkBIOSConfFileDiff(a, a), -2); }).err, "");
    std::fclose(a);
}

// ---- FRU backup and restore --------------------------------------------------------

// The FRU's area is pattern(600, 17); the file: Size, dummy bytes up to 16,
// then the first `n` bytes of `data`.
Bytes pattern(std::size_t n, int seed) {
    Bytes v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::uint8_t>((i * 7 + seed) % 251);  // no 0xFF
    return v;
}
Bytes fruFile(const Bytes& data, std::size_t n, std::uint32_t size) {
    Bytes f = {std::uint8_t(size), std::uint8_t(size >> 8), std::uint8_t(size >> 16), 0};  // Size < 2^24
    f.resize(16);
    f.insert(f.end(), data.begin(), data.begin() + n);
    return f;
}
Bytes fruFile(const Bytes& data) { return fruFile(data, data.size(), data.size()); }

// FRU reads (17) and writes (18) served: command, offset, count.
using Accesses = std::vector<std::array<std::uint32_t, 3>>;

struct FruRow {
    const char* name;
    INT8S (*call)();
    Bytes file;  // the FRU backup file before; empty: none
    void (*state)();
    long result;
    std::string problems;  // lines of the output that report one
    Accesses accesses;
    Bytes fileAfter = {};  // a backup's file after
    std::string out = "";  // a line the output must hold
    std::optional<Fault> fault = {};
};

// clang-format off
const Bytes kPrevious = fruFile(pattern(40, 2)), kSaved = fruFile(pattern(300, 8)), kBackedUp = fruFile(pattern(600, 17));
const Accesses kRead600 = {{17, 0, 255}, {17, 0, 255}, {17, 255, 255}, {17, 255, 255}, {17, 510, 90}, {17, 510, 90}};
const std::string kMsg3 = "BRASK_MSG[3] : svfBackupFRU(#) : ", kBk = kMsg3 + "svfBackupFRU() : svfBackupFRU() : ";
const std::string kRs = kMsg3 + "svfLogReadAndRestore() : svfLogReadAndRestore() : ", kWriteFail = kRs + "Write FRU Commands failed.\n";
const std::string kInfoFail = kBk + "FRU Inventory Device Commands failed.\n", kReadFail = kBk + "Read FRU Commands failed.\n";
const auto backup = svfBackupFRU, restore = svfRestoreFRU;
const std::string kMsg6 = "BRASK_MSG[6] : svfBackupFRU(#) : ";

const FruRow kFruRows[] = {
    {"backup", backup, kPrevious, [] {}, 1, "", kRead600, kBackedUp, kMsg6 + "svfInitLog() : svfInitLog() : "},
    {"area size 0", backup, kPrevious, [] { writeBytes(HOST_FRU_FILE, {}); }, -1, kInfoFail, {}, kPrevious, kMsg6 + "svfBackupFRU() : svfBackupFRU() : Stat."},
    {"accessed by words", backup, kPrevious, [] { hostFruSetAccessType(1); }, -1, kInfoFail, {}, kPrevious},
    {"verifying read refused", backup, kPrevious, [] { hostIpmiFailCmd(0x11, 1, 1, 0xC3); }, -1, kReadFail, Accesses(1, {17, 0, 255}), fruFile({})},
    {"second piece refused", backup, kPrevious, [] { hostIpmiFailCmd(0x11, 2, 1, 0xC3); }, -1, kReadFail, Accesses(2, {17, 0, 255}), fruFile(pattern(600, 17), 255, 255)},
    {"short read", backup, kPrevious, [] { hostFruSetShortRead(1); }, -1, kBk + " Read FRU Commands failed.\n", Accesses(1, {17, 0, 255}), fruFile({})},
    {"reads differ", backup, kPrevious, [] { hostFruSetReadsDiffer(1); }, -1, kBk + "It failed in reading FRU.\n", Accesses(2, {17, 0, 255}), fruFile({})},
    {"file not written", backup, kPrevious, [] {}, -1, kMsg3 + "svfInitLog() : svfInitLog() : error(5)\n", {}, {}, "", Fault{Call::Fwrite, kFru}},
    {"file not writable", backup, {}, [] { ::mkdir(kFru, 0755); }, -1, kMsg3 + "svfInitLog() : svfInitLog() : error(21)\n", {}},
    // A file gone when a piece is logged is made again; one that cannot be opened stops the backup.
    {"file gone", backup, kPrevious, [] {}, 1, "", kRead600, kBackedUp, "", Fault{Call::Fopen, kFru, 2, ENOENT}},
    {"file not reopened", backup, kPrevious, [] {}, -1, kMsg3 + "svfWriteLog() : svfWriteLog() : file open error(5)\n", Accesses(2, {17, 0, 255}), fruFile({}), "", Fault{Call::Fopen, kFru, 2}},
    {"restore", restore, kSaved, [] {}, 0, "", Accesses{{18, 0, 255}, {18, 255, 45}}, {}, kMsg6 + "svfRestoreFRU() : svfRestoreFRU() : Start."},
    {"restore up to 0xFF", restore, fruFile({1, 2, 0xFF, 3}), [] {}, 0, "", Accesses{{18, 0, 2}}},
    {"restore from a leading 0xFF", restore, fruFile({0xFF, 1}), [] {}, 0, "", {}},
    {"restore refused", restore, kSaved, [] { hostFruRefuseWrites(0xD5); }, 1, kWriteFail + kWriteFail + kWriteFail, {}},
    {"restore refused once starts over", restore, kSaved, [] { hostIpmiFailCmd(0x12, 1, 1, 0xC3); }, 0, kWriteFail, {{18, 0, 255}, {18, 0, 255}, {18, 255, 45}}},
    {"restore without a file", restore, {}, [] {}, -1, kRs + "file open error(2)\n", {}},
    {"restore of a short header", restore, Bytes(9, 0), [] {}, -64, kRs + "read error(0)\n", {}},
    {"restore of too little data", restore, fruFile(kSaved, 10, 300), [] {}, -64, kRs + "error(0)\n", {}},
    {"restore, file not closed", restore, kSaved, [] {}, 0, kRs + "file close error(5)\n", Accesses{{18, 0, 255}, {18, 255, 45}}, {}, "", Fault{Call::Fclose, kFru}},
    {"restore of too little data, not closed", restore, fruFile(kSaved, 10, 300), [] {}, -64, kRs + "error(0)\n" + kRs + "file close error(5)\n", {}, {}, "", Fault{Call::Fclose, kFru}},
    {"restore of a huge Size", restore, fruFile(kSaved, 10, 65536), [] {}, -64, kRs + "size error(65536)\n", {}},
    {"restore from a folder", restore, {}, [] { ::mkdir(kFru, 0755); }, -64, "", {}},
};
// clang-format on

TEST(Fru, BackupReadsEachPieceTwiceAndRestoreWritesPiecesOf255) {
    const Bytes area = pattern(600, 17);
    for (const FruRow& r : kFruRows) {
        SCOPED_TRACE(r.name);
        resetState();
        hostFruWriteImage(area.data(), 600);
        if (!r.file.empty()) writeBytes(kFru, r.file);
        const Observed o = run(r.state, r.fault, [&] { return long(r.call()); });
        EXPECT_EQ(tuple(o.result, ours(o.out), o.err), tuple(r.result, r.problems, ""));
        EXPECT_EQ(r.out.empty() ? "" : linesInOrder(o.out, {r.out}), "");
        // The FRU holds what was written to it, and only that.
        hostFruAccess_T log[16];
        Accesses seen;
        Bytes now(600), written = area;
        for (int i = 0, n = hostFruAccessLog(log, 16); i < n; ++i) {
            const auto [cmd, at, count] =
                seen.emplace_back(Accesses::value_type{log[i].Cmd, log[i].Offset, log[i].Count});
            if (cmd == 18) std::copy_n(r.file.begin() + 16 + at, count, written.begin() + at);
        }
        EXPECT_EQ(seen, r.accesses);
        EXPECT_TRUE(hostFruReadImage(now.data(), 600) <= 0 || now == written);
        EXPECT_TRUE(r.fileAfter.empty() || readBytes(kFru) == r.fileAfter);
    }
}

TEST(Fru, LogFilesMadeAtStartWhenMissing) {
    writeBytes(kFru, kPrevious);
    EXPECT_TRUE(InitFRULogFile() == 0 && readBytes(kFru) == kPrevious &&
                readBytes(bak(kFru)) == Bytes(16, 0));
    // One that cannot be made does not keep the other from being made.
    std::remove(kFru), std::remove(bak(kFru).c_str()), hostFailCall("hslChkMakeFile", 0, 1, EIO);
    EXPECT_TRUE(InitFRULogFile() == -1 && readBytes(bak(kFru)) == Bytes(16, 0));
}

// ---- Set Backup Event ---------------------------------------------------------------

// Name, request, set-up; the completion code, the SEL entries added, the
// library's error lines and the output lines that report a failure, whether a
// new web console backup replaced the previous one; a failing call.
using SetRow = tuple<const char*, std::vector<INT8U>, void (*)(), INT8U, std::vector<std::uint8_t>,
                     std::string, bool, std::optional<Fault>>;

// clang-format off
const std::vector<INT8U> kWeb = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
const std::string kSet = "BRASK_ERR    : svfOEMSetBackupEvent(#) : ", kBusy = kSet + "gRebootAfterRestoreTimer != 0\n";
const std::string kBios = "BRASK_DEBUG  : svfBraskArchiver(#) : BIOS_CONF_FILE open fail\n";
void otherEvent() { setStatusByte(slotIndex(EventKind::Restore, N_P_M, BMC_FILE), ST_GENERATED); }

const SetRow kSetRows[] = {
    {"5 bytes", {1, 2, 0, 0, 0}, [] {}, 0xC7, {}, kSet + "REQ_INV_LEN\n", false, {}},
    {"file type 2", {2, 2, 0, 0, 0, 0}, [] {}, 0xC9, {}, kSet + "PARAM_OUT_OF_RANGE\n", false, {}},
    {"function 6", {1, 6, 0, 0, 0, 0}, [] {}, 0xC9, {}, kSet + "PARAM_OUT_OF_RANGE\n", false, {}},
    {"EFI from the web console", {0, 2, 0, 0, 0, 0}, [] {}, 0, {}, "", false, {}},
    {"BMC from requester 5", {1, 5, 0, 0, 0, 0}, [] {}, 0, {}, "", false, {}},
    {"kill countdown", kWeb, [] { gKillProcessAfterFileChkTimer = 3; }, 0xD5, {}, kBusy, false, {}},
    {"reboot countdown", kWeb, [] { gRebootAfterRestoreTimer = 3; }, 0xD5, {}, kBusy, false, {}},
    {"backup", kWeb, [] {}, 0, {0x0B, 0x2B}, kBios, true, {}},
    {"backup, nothing changed", kWeb, [] { std::remove(kFru), std::remove(bak(kFru).c_str()); }, 0, {0x0B, 0x2B}, kBios, true, {}},
    {"event query fails", kWeb, [] { hostFailCall("hslAcquireMutex", 0, 1, EPERM); }, 0x80, {}, "BRASK_ERR  : svfOEMExeRestoreEvent(#) : failed to get mutex(1)\n" + kSet + "efiGetBackupRestoreEvent fail\n", false, {}},
    {"another event", kWeb, otherEvent, 0xD5, {0x0B, 0x4B}, kSet + "Other BACKUP_RESTORE_EVENT Running\n", false, {}},
    {"semaphore refused", kWeb, [] { hostFailCall("hslAcquireSysvSemaphore", 109, 1, EINTR); }, 0x88, {0x0B, 0x3B}, kBios + kSet + "hslAcquireSysvSemaphore fail\n", false, {}},
    {"rename fails", kWeb, [] {}, 0x80, {0x0B, 0x3B}, kBios + "BRASK_DEBUG  : svfOEMSetBackupEvent(#) : mv fail\n", false, Fault{Call::System, "mv ", 1, 0}},
};
// clang-format on

// What the backup holds is the round trip's business (restore suite).
TEST(SetBackupEvent, MakesTheWebConsoleBackupOrSaysWhyNot) {
    const std::string step = "BRASK_DEBUG  : svfOEMSetBackupEvent(#) : ";
    for (const auto& [name, request, state, code, sel, problems, made, fault] : kSetRows) {
        SCOPED_TRACE(name);
        resetState();
        populateConf({.backupCopies = true});
        writeFile(kWebBak, "previous");
        INT8U res[8] = {};
        observe([&] { return svfGetBackupRestoreEvent(nullptr, 0, res); });  // its handles stay open
        const Observed o = run(state, fault, [&] {
            return svfOEMSetBackupEvent(const_cast<INT8U*>(request.data()), request.size(), res, 0);
        });
        // The shell's own lines (dd's timing) vary from run to run.
        EXPECT_EQ(tuple(o.result, res[0], o.sel, ours(o.out + o.err), readFile(kWebBak) != "previous"),
                  tuple(1, code, sel, problems, made));
        if (made) {  // each step reports its result; the FRU's backup file was made anew, so its copy too
            EXPECT_EQ(
                linesInOrder(o.out, {step + "START", step + "BMC BACKUP",
                                     exists(kFru) ? kDbg + "cp " + kFru + " " + bak(kFru)
                                                  : step + "svfChkBackupFileDiff(BMC_FILE) = 0",
                                     kDbg + "START_svfCreateBraskArchive", kDbg + "FileHeader.FwType = 1",
                                     step + "svfCreateBraskBackupFile(BMC_FILE) = 0",
                                     step + "mv /var/brask/BMC.bak /var/brask/BmcWeb.bak"}),
                "");
        }
        svfIniTimer();
    }
}

}  // namespace
}  // namespace brask::test
