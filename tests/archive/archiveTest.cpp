// The archive layer: the formats on damaged input, the checksum both carry,
// the copy command and the ".bak" naming rule, the block and backup writers
// (their files compared byte for byte with the suites' builders) and the
// identity a backup records.
#include <sys/stat.h>
#include <unistd.h>

#include <numeric>
#include <optional>
#include <tuple>

#include "archive/fileUtils.h"
#include "archive/format.h"
#include "archive/writers.h"
#include "common/diag.h"
#include "support/suite.h"

namespace brask::test {
namespace {

namespace f = brask::format;
using std::tuple;
const std::string kErr = "BRASK_ERR  : svfBraskArchiver(#) : ",
                  kDebug = "BRASK_DEBUG  : svfBraskArchiver(#) : ";

using Lines = std::vector<std::string>;  // the library's error lines, in order

// The walk's boundaries the block reader's rows (restore suite) do not reach:
// a data offset on the last byte of its descriptor, one past the block's end,
// input shorter than a block header, the bytes after the last entry.  The
// entries named "x" state their data's offset whatever follows them.
TEST(Format, DamagedBlocksStopTheWalk) {
    const StoredEntry a = entry("/conf/a", "abc", 0100640), b = entry("/conf/ab", "", 0100600);
    // clang-format off
    const tuple<Bytes, f::Status, unsigned, std::size_t> cases[] = {
        {block({a, b}, {7, 7}), f::Status::Ok, 2, 2},
        {block({a, {.name = "x", .data = {}, .fileOffset = 61, .fileSize = 0}}), f::Status::OffsetBeforeName, 1, 0},
        {block({{.name = "x", .data = {}, .fileOffset = 30, .fileSize = 0}}), f::Status::Truncated, 0, 0},
        {Bytes{1, 0, 0, 0, 0, 0, 0}, f::Status::Truncated, 0, 0}};
    // clang-format on
    for (const auto& [bytes, status, decoded, trailing] : cases) {
        f::ArchiveEntryWalk walk(bytes);
        for (f::ArchiveEntry e; walk.next(e);) continue;
        EXPECT_EQ(tuple(walk.status(), walk.decoded(), walk.trailingBytes()),
                  tuple(status, decoded, trailing));
    }
    // Four bytes with a zero count are too short for any block: read as a
    // backup file; with a count, as a block (then refused as truncated).
    EXPECT_EQ(tuple(f::classifyContent(Bytes{1, 0, 0, 0}), f::classifyContent(Bytes{1, 0, 1, 0})),
              tuple(f::ContentKind::BackupFile, f::ContentKind::ArchiveBlock));
    // A data offset is a 32-bit field: the last one it holds, then none.
    std::uint32_t at = 0;
    EXPECT_TRUE(f::entryDataOffset(UINT32_MAX - 21, 1, at) && at == UINT32_MAX);
    EXPECT_FALSE(f::entryDataOffset(UINT32_MAX - 20, 1, at));
}

// svfGetFileSum and the stream position it leaves, against the restore's
// limitedSum and whole-file wordSum, around the read block and the mapping
// threshold, on a disk (/var) and on tmpfs (/tmp).
TEST(FileUtils, SumCopyAndNaming) {
    using namespace brask::archive;
    for (std::size_t size : {std::size_t{4095}, kSumBlockSize + 5, kSumMapThreshold + 3}) {
        Bytes content(size);
        for (std::size_t i = 0; i < size; ++i) content[i] = std::uint8_t(i * 131 + (i >> 9));
        for (const std::string path : {"/var/sum.bin", "/tmp/sum.bin"}) {
            writeBytes(path, content);
            FILE* fp = std::fopen(path.c_str(), "rb");
            EXPECT_EQ(svfGetFileSize(fp), int(size));
            for (std::size_t limit : {std::size_t{0}, std::size_t{6}, kSumBlockSize + 2, kSumMapThreshold + 1,
                                      kSumMapWindow + 1, size - 1, size, size + 3}) {
                std::fseek(fp, 5, SEEK_SET);
                const INT32U want = limit ? f::limitedSum(content, INT32U(limit)) : f::wordSum(content);
                EXPECT_EQ(svfGetFileSum(fp, INT32U(limit)), want) << path << " " << size << " " << limit;
                EXPECT_EQ(std::ftell(fp), long(limit && limit < size ? limit : size));
            }
            std::fclose(fp);
        }
    }
    // The copy command and the naming rule: result, what was written, the
    // error lines.
    const std::string p147 = "/" + std::string(146, 'p'), a160 = "/conf/" + std::string(154, 'c');
    for (const std::string& path : {std::string("/conf/key"), a160}) writeFile(path, "secret\n", 0600);
    // (The shell commands the copy runs print their own complaints.)
    const tuple<int (*)(char*, char*), std::string, std::string, int, std::string, std::string> cases[] = {
        {svfExeCopyCmd, "/conf/key", "/conf/key.bak", 0, "secret\n", ""},
        {svfExeCopyCmd, "/conf/missing", "/conf/missing.bak", -1, "", "system cmd fail(2)"},
        {svfExeCopyCmd, a160, "/conf/" + std::string(154, 'd'), -1, "", "Command make fail.(36)"},
        {svfGetBackupFilePass, p147, "", 0, p147 + ".bak", ""},
        {svfGetBackupFilePass, p147 + "p", "", -1, "", "path too long for .bak"},
        {svfGetBackupFileName, "/conf/brask/net.cfg", "", 0, "net.cfg.bak", ""},
        {svfGetBackupFileName, "net.cfg", "", -1, "", "strrchr fail(2)"},
        {svfGetBackupFileName, p147 + "pp", "", -1, "", "path too long for .bak"},
        {svfGetActiveFilePass, "/conf/x.bak.d/y.bak", "", 0, "/conf/x", ""},  // the first ".bak"
        {svfGetActiveFilePass, "/conf/passwd", "", -1, "/conf/passwd", ".bak Unmatch"},
        {svfGetActiveFilePass, p147 + "ppppp.bak", "", -1, "", "path too long"}};
    for (auto [fn, in, dst, result, out, err] : cases) {
        char buf[320] = {};
        const bool copy = fn == svfExeCopyCmd;
        const Observed o = observe([&] { return fn(in.data(), copy ? dst.data() : buf); });
        EXPECT_EQ(tuple(o.result, copy ? readFile(dst) : std::string(buf), errorLines(o.err)),
                  tuple(result, out, err.empty() ? Lines{} : Lines{kErr + err}));
    }
    // Any non-zero firmware type is BMC; the user rows are named by number.
    EXPECT_EQ(catalogue::select(0xFF).rows, BmcBackupFileList);
    for (int user = 0; user < 12; ++user) {
        const std::string keys = "/conf/brask/bum_home/bmcuser" + std::to_string(user) + "/sshpubkey4";
        EXPECT_NE(catalogue::find(catalogue::select(2), keys), nullptr) << keys;
    }
    // A diagnostic line, its tag included, is cut to 2046 characters and its line feed.
    for (const std::size_t n : {2047, 2048, 5000}) {
        const std::string text(n, 'x');
        EXPECT_EQ(captureOutput([&] { diag::error("unit", 7, "%s", text.c_str()); }).err,
                  ("BRASK_ERR  : unit(7) : " + text).substr(0, 2046) + "\n");
    }
    // A short write carries on where it stopped; one that writes nothing gives up.
    for (const auto& [err, wrote, left] : {tuple(0, 3L, "def\n"), tuple(EINTR, 0L, "")}) {
        FailCall once(Call::Write, err);
        once.returning(wrote);
        EXPECT_EQ(captureOutput([] { diag::plainError("abcdef\n"); }).err, left) << err;
    }
}

// The entry a writer makes of `path`'s backup copy.
StoredEntry stored(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat((path + ".bak").c_str(), &st), 0) << path;
    return entry(path, readFile(path + ".bak"), st.st_mode);
}

// Blocks of explicit catalogues: missing optional copies skipped, only the
// first numOfFiles rows packed, the block limit.
TEST(Writers, BlocksHoldTheirRowsCopies) {
    writeFile("/conf/a.bak", "abc", 0640), writeFile("/conf/ab.bak", "", 0600);
    // clang-format off
    const BackupFileList_T rows[] = {{"/conf/a", STATIC, 0, 0, 1, {}}, {"/conf/n", DYNAMIC, 0, 0, 0, {}},
                                     {"/conf/ab", STATIC, 0, 0, 1, {}}, {"/conf/x", DYNAMIC, 0, 0, 1, {}}};
    // clang-format on
    const std::pair<int, std::vector<StoredEntry>> cases[] = {
        {500, {stored("/conf/a"), stored("/conf/ab")}}, {1, {stored("/conf/a")}}, {0, {}}};
    for (const auto& [files, entries] : cases) {
        ASSERT_EQ(archive::createArchive({rows, 4, "/var/brask/T.bak"}, files, 2), 0);
        EXPECT_EQ(tuple(readBytes("/var/brask/T.bak-0"), readBytes("/var/brask/T.bak-1")),
                  tuple(block({}), block(entries)));
    }
    const BackupFileList_T fourth = {"/conf/a", STATIC, 0, 0, 3, {}};
    const catalogue::Selection tooMany = {&fourth, 1, "/var/brask/T.bak"};
    const Observed o = observe([&] { return archive::createBackupFile(tooMany, 1); });
    EXPECT_EQ(tuple(o.result, o.changes), tuple(-1, ""));
    EXPECT_EQ(o.out, kDebug + "START_svfCreateBraskBackupFile\n" + kDebug + "Arc Block too much number \n");
}

// Backups of the scenario's /conf: a sound one equals the builders' file of
// the same blocks with this server's identity, the SEL time and both
// revisions; each failure has its result and error lines; nothing is left
// open.  (The C library fault sweep reports the other I/O failures.)
TEST(Writers, BackupFiles) {
    const std::string archiveFailed = kErr + "svfCreateBraskArchive fail";
    std::optional<FailCall> fail;
    int writes = 0;  // fwrite calls of a sound BMC backup under /var/brask
    // clang-format off
    const tuple<std::string, std::function<void()>, int, Lines> cases[] = {
        {"BMC backup", [&] { fail.emplace(Call::Fwrite, 0, "/var/brask/", 1 << 30); }, 0, {}},
        {"EFI backup", [] {}, 0, {}},
        {"FRU read refused", [] { hostIpmiFailCmd(0x11, 2, 1, 0xC1); }, -1, {kErr + "API_ExecuteCmd Fail", kErr + "svfGetProductIdFru fail(0)"}},
        {"SEL time refused", [] { hostIpmiFailCmd(0x48, 0, 1, 0xC1); }, -1, {kErr + "API_ExecuteCmd Fail"}},
        {"FwInfo missing", [] { removeFwInfo(); }, -1, {}},
        {"EFI without BIOS configuration", [] { ::unlink("/conf/brask/BIOSConfig.dat"); }, -1, {}},
        {"mandatory copy missing", [] { ::unlink("/conf/passwd.bak"); }, SVF_ARCHIVE_MISSING_FILE, {kErr + "fopen fail(2)", archiveFailed}},
        {"backup is a folder", [] { ::mkdir("/var/brask/BMC.bak", 0755); }, -1, {kErr + "system cmd fail(0)"}},
        {"block file is a folder", [] { ::mkdir("/var/brask/BMC.bak-1", 0755); }, SVF_ARCHIVE_FAIL, {kErr + "fopen fail(21)", archiveFailed}},
        {"block table not written", [&] { fail.emplace(Call::Fwrite, EIO, "/var/brask/", writes - 1); }, -1, {kErr + "fwrite fail(5)"}},
        {"copy not examined", [&] { fail.emplace(Call::Stat, EIO, "/conf/"); }, SVF_ARCHIVE_FAIL, {kErr + "stat fail(5)", archiveFailed}}};
    // clang-format on
    for (const auto& [name, inject, result, err] : cases) {
        SCOPED_TRACE(name);
        resetState();
        const auto written = populateConf({.optionalFiles = true, .backupCopies = true});
        writeBytes("/conf/brask/BIOSConfig.dat", {1, 0, 0, 0, 5, 3});
        hostSetSelTime(std::array<INT8U, 4>{1, 2, 3, 4}.data());
        inject();
        const INT8U type = name.find("EFI") ? BMC_FILE : EFI_FILE;
        const Observed o = observe([&] { return svfCreateBraskBackupFile(type); });
        if (name == "BMC backup") writes = fail->matched();
        fail.reset();
        EXPECT_EQ(tuple(o.result, errorLines(o.err), o.leakedDescriptors + o.leakedMappings),
                  tuple(result, err, 0));
        if (result != 0) continue;
        EXPECT_EQ(linesInOrder(o.out, {kDebug + "ModuleType = 2 1",
                                       kDebug + "UUID = b0 b1 b2 b3 b4 b5 b6 b7 b8 b9.....",
                                       kDebug + "BmcRev.Major = 2", kDebug + "BmcRev.Minor = 11",
                                       kDebug + "Normal_END_svfCreateBraskBackupFile"}),
                  "");
        std::vector<StoredEntry> entries;
        for (const std::string& path : written) entries.push_back(stored(path));
        BackupLayout layout{.blocks = {block({})}, .fwType = type};
        if (type == BMC_FILE) layout.blocks.push_back(block(entries));
        Bytes want = backup(layout);
        // The SEL time and both revisions, after the UUID.
        std::copy_n(Bytes{4, 3, 2, 1, 2, 17, 5, 3}.begin(), 8, want.begin() + 82);
        sealBackup(want);
        EXPECT_EQ(readBytes(type == BMC_FILE ? "/var/brask/BMC.bak" : "/var/brask/EFI.bak"), want);
    }
}

// Identity from a FRU image whose every byte tells its offset apart, the
// product info rewrite, refused requests.
TEST(Identity, ReadsRevisionsAndRewrite) {
    Bytes image(1024);
    for (std::size_t i = 0; i < image.size(); ++i) image[i] = std::uint8_t(i * 7 + 3);
    ASSERT_EQ(hostFruWriteImage(image.data(), image.size()), 0);
    Bytes header(96, 0xEE), want = header;
    auto* id = reinterpret_cast<svfBraskBackupFileHeader_T*>(header.data());
    ASSERT_EQ(svfGetProductIdFru(id), 0);
    for (auto [at, from, n] : {tuple(4, 0xA1, 32), {36, 0xCD, 20}, {56, 0xF8, 2}, {66, 0x15E, 16}})
        std::copy_n(image.begin() + from, n, want.begin() + at);
    EXPECT_EQ(header, want);
    Bytes model(32, 'M'), serial(20, 'S');
    hostFruClearAccessLog();
    const Observed rewritten = observe([&] { return svfModFruProductInfoArea(model.data(), serial.data()); });
    hostFruAccess_T all[16];
    const std::vector<std::string> out = lines(rewritten.out);
    // Each of the area's pieces read, then written, each announced.
    EXPECT_EQ(tuple(rewritten.result, hostFruAccessLog(all, 16),
                    std::count_if(out.begin(), out.end(),
                                  [](const std::string& l) { return l.find("ReadWriteSize") != l.npos; })),
              tuple(0, 12, 12));
    std::fill(image.begin() + 0xA0, image.begin() + 0xC0, 'M');
    std::fill(image.begin() + 0xCC, image.begin() + 0xE0, 'S');
    image[0xEE] = std::uint8_t(0u - std::accumulate(image.begin() + 0x80, image.begin() + 0xEE, 0u));
    Bytes after(1024);
    ASSERT_EQ(hostFruReadImage(after.data(), after.size()), 1024);
    EXPECT_EQ(after, image);
    // A refused request ends either flow at once: the four identity reads,
    // the rewrite's last read and its third write.
    const auto readId = [&] { return svfGetProductIdFru(id); };
    const auto rewrite = [&] { return svfModFruProductInfoArea(model.data(), serial.data()); };
    // clang-format off
    const tuple<std::function<int()>, INT8U, int, int> refused[] = {
        {readId, 0x11, 0, 0}, {readId, 0x11, 1, 1}, {readId, 0x11, 2, 2}, {readId, 0x11, 3, 3}, {rewrite, 0x11, 5, 5}, {rewrite, 0x12, 2, 8}};
    // clang-format on
    for (const auto& [call, cmd, skip, served] : refused) {
        hostResetFaults(), hostFruClearAccessLog(), hostIpmiFailCmd(cmd, skip, 1, 0xC1);
        const Observed o = observe(call);
        hostFruAccess_T log[16];
        EXPECT_EQ(tuple(o.result, o.err, hostFruAccessLog(log, 16)),
                  tuple(-1, kErr + "API_ExecuteCmd Fail\n", served));
    }
}

}  // namespace
}  // namespace brask::test
