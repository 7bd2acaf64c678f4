// FRU backup file, FRU backup over IPMI and FRU restore.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "backupFixture.h"
#include "fru/fruInternal.h"

namespace brask::test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Pieces = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // offset, count

constexpr char kFru[] = "/conf/brask/FRUBACKUP.dat";

Bytes pattern(std::size_t n, std::uint8_t seed) {
    Bytes v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::uint8_t>((i * 7 + seed) % 251);  // no 0xFF
    return v;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// The backup file: Size (little endian) and dummy bytes up to 16, then the data.
Bytes fruFile(const Bytes& data, std::uint32_t size, std::uint8_t dummyFill = 0) {
    Bytes f(16, dummyFill);
    for (int i = 0; i < 4; ++i) f[i] = static_cast<std::uint8_t>(size >> (8 * i));
    return cat({f, data});
}

Bytes fruImage(std::size_t n) {
    Bytes image(n, 0);
    const int got = hostFruReadImage(image.data(), static_cast<INT32U>(n));
    image.resize(got < 0 ? 0 : std::min<std::size_t>(got, n));
    return image;
}

// The FRU accesses since the last clear: `perPiece` requests of `cmd` for each piece.
void expectAccesses(int cmd, const Pieces& pieces, std::size_t perPiece) {
    std::vector<hostFruAccess_T> log(1024);
    const int n = hostFruAccessLog(log.data(), static_cast<int>(log.size()));
    ASSERT_EQ(n, static_cast<int>(pieces.size() * perPiece));
    for (int k = 0; k < n; ++k) {
        EXPECT_EQ(log[k].Cmd, cmd);
        EXPECT_EQ(log[k].Offset, pieces[k / perPiece].first);
        EXPECT_EQ(log[k].Count, pieces[k / perPiece].second);
    }
}

// ---- The FRU backup file ------------------------------------------------------

using FruLogFile = BackupTest;

TEST_F(FruLogFile, StartsAfreshOrAppendsCountingInTheHeader) {
    const Bytes a = pattern(255, 3), b = pattern(255, 5), c = pattern(90, 9), c5(c.begin(), c.begin() + 5);
    const Bytes old = pattern(10, 1), one = {1};
    struct Case {
        const char* name;
        Bytes before;               // empty: no file
        std::vector<Bytes> chunks;  // appended one by one; none: svfInitLog
        Bytes after;
        INT8U result = 0;
        const char* message = nullptr;  // else the size line of each append
        bool directory = false;         // a directory in place of the file
    };
    const std::vector<Case> cases = {
        {"start leaves sixteen zero bytes", fruFile(pattern(100, 1), 100, 0xAA), {}, Bytes(16, 0), 0,
         " : svfInitLog() : svfInitLog() : \n"},
        {"missing file is created", {}, {c5}, fruFile(c5, 5)},
        {"three pieces", fruFile({}, 0), {a, b, c}, cat({fruFile(a, 600), b, c})},
        // The new data overwrites from 16 + Size on; later bytes and the dummy bytes stay.
        {"longer than counted", cat({fruFile(old, 10, 0x5A), Bytes(20, 0xEE)}), {c5},
         cat({fruFile(old, 15, 0x5A), c5, Bytes(15, 0xEE)})},
        {"zero bytes", fruFile(old, 10, 0x11), {Bytes()}, fruFile(old, 10, 0x11)},
        {"file shorter than its header", Bytes(10, 0), {one}, Bytes(10, 0), 0xC0, "svfWriteLog() : read error("},
        {"append: a directory in place of the file", {}, {one}, {}, 0xC0, "svfWriteLog() : file open error(21)", true},
        {"start: a directory in place of the file", {}, {}, {}, 0xC0, "svfInitLog() : error(21)", true},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        std::system("rm -rf /conf/brask/FRUBACKUP.dat");
        if (tc.directory) ::mkdir(kFru, 0755);
        if (!tc.before.empty()) writeBytes(kFru, tc.before);
        const bool start = tc.chunks.empty();
        const Resources before;
        for (Bytes chunk : start ? std::vector<Bytes>{Bytes()} : tc.chunks) {
            char size[64];
            std::snprintf(size, sizeof size, "svfWriteLog() : Size = %02zx\n", chunk.size());
            Output o;
            EXPECT_EQ(captured(o, [&] { return start ? svfInitLog() : svfWriteLog(chunk.data(), chunk.size()); }),
                      tc.result);
            EXPECT_TRUE(o.has(tc.message != nullptr ? tc.message : size)) << o.out;
            EXPECT_TRUE(o.has(start && tc.result == 0 ? "BRASK_MSG[6] : svfBackupFRU(" : "BRASK_MSG[3]")) << o.out;
        }
        EXPECT_EQ(Resources(), before);
        if (!tc.directory) {
            EXPECT_EQ(readBytes(kFru), tc.after);
        }
    }
}

TEST_F(FruLogFile, InitFruLogFileMakesBothFilesAndTriesBothWhenOneFails) {
    const std::string copy = std::string(kFru) + ".bak";
    writeBytes(kFru, fruFile(pattern(3, 1), 3));
    EXPECT_EQ(InitFRULogFile(), 0);
    EXPECT_EQ(readBytes(kFru), fruFile(pattern(3, 1), 3));  // existing file untouched
    EXPECT_EQ(readBytes(copy), Bytes(16, 0));

    std::remove(kFru);
    std::remove(copy.c_str());
    hostResetCounters();
    ASSERT_EQ(hostFailCall("hslChkMakeFile", 0, 1, EIO), 0);
    EXPECT_EQ(InitFRULogFile(), -1);
    EXPECT_EQ(hostCallCount("hslChkMakeFile"), 2);
    EXPECT_TRUE(exists(copy));
}

// ---- Backup over IPMI ---------------------------------------------------------------

using FruBackup = BackupTest;

TEST_F(FruBackup, StoresTheAreaReadTwicePieceByPieceOrStopsWithTheReason) {
    const Bytes previous = fruFile(pattern(40, 2), 40);
    auto stored = [](std::uint32_t size, std::uint32_t n) {
        const Bytes image = pattern(size, 17);
        return fruFile({image.begin(), image.begin() + n}, n);
    };
    constexpr char kInfo[] = "svfBackupFRU() : FRU Inventory Device Commands failed.\n";
    constexpr char kRead[] = "svfBackupFRU() : Read FRU Commands failed.\n";
    struct Case {
        const char* name;
        std::uint32_t size;  // of the FRU area
        void (*inject)();
        INT8S result;
        const char* message;  // printed once
        Bytes file;
        Pieces pieces = {};  // each read twice, on success
    };
    const std::vector<Case> cases = {
        {"600 bytes", 600, [] {}, 1, "svfBackupFRU() : FRU Size = 258.\n", stored(600, 600),
         {{0, 255}, {255, 255}, {510, 90}}},
        {"255 bytes", 255, [] {}, 1, "svfBackupFRU() : FRU Size = ff.\n", stored(255, 255), {{0, 255}}},
        {"256 bytes", 256, [] {}, 1, "svfBackupFRU() : FRU Size = 100.\n", stored(256, 256), {{0, 255}, {255, 1}}},
        {"1 byte", 1, [] {}, 1, "svfBackupFRU() : FRU Size = 1.\n", stored(1, 1), {{0, 1}}},
        // Inventory information failures leave the previous file untouched.
        {"area size 0", 600, [] { writeBytes(HOST_FRU_FILE, {}); }, -1, kInfo, previous},
        {"info completion code", 600, [] { hostIpmiFailCmd(0x10, 0, 1, 0xC1); }, -1, kInfo, previous},
        {"API_ExecuteCmd fails on info", 600, [] { hostFailCall("API_ExecuteCmd", 0, 1, 0); }, -1, kInfo, previous},
        {"accessed by words", 600, [] { hostFruSetAccessType(1); }, -1, kInfo, previous},
        // Read failures keep the pieces stored so far.
        {"first read refused", 600, [] { hostIpmiFailCmd(0x11, 0, 1, 0xC3); }, -1, kRead, stored(600, 0)},
        {"verifying read refused", 600, [] { hostIpmiFailCmd(0x11, 1, 1, 0xC3); }, -1, kRead, stored(600, 0)},
        {"second piece refused", 600, [] { hostIpmiFailCmd(0x11, 2, 1, 0xC3); }, -1, kRead, stored(600, 255)},
        {"API_ExecuteCmd fails on a read", 600, [] { hostFailCall("API_ExecuteCmd", 3, 1, 0); }, -1, kRead,
         stored(600, 255)},
        {"short read", 600, [] { hostFruSetShortRead(1); }, -1, "svfBackupFRU() :  Read FRU Commands failed.\n",
         stored(600, 0)},
        {"reads differ", 600, [] { hostFruSetReadsDiffer(1); }, -1, "svfBackupFRU() : It failed in reading FRU.\n",
         stored(600, 0)},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        hostResetFaults();
        const Bytes image = pattern(tc.size, 17);
        ASSERT_EQ(hostFruWriteImage(image.data(), tc.size), 0);
        writeBytes(kFru, previous);
        tc.inject();
        hostFruClearAccessLog();
        Output o;
        EXPECT_EQ(captured(o, svfBackupFRU), tc.result);
        EXPECT_EQ(o.count(tc.message), 1) << o.out;
        EXPECT_TRUE(o.has(tc.result == 1 ? "svfBackupFRU() : svfBackupFRU() : Stat.\n" : "BRASK_MSG[3]")) << o.out;
        EXPECT_EQ(readBytes(kFru), tc.file);
        if (tc.result == 1) expectAccesses(0x11, tc.pieces, 2);
    }
}

// ---- Restore ---------------------------------------------------------------------------

using FruRestore = BackupTest;

TEST_F(FruRestore, WritesTheLeadingPartInPiecesOf255OrStopsWithTheReason) {
    auto withFFAt = [](std::size_t at) {
        Bytes d = pattern(300, 8);
        d[at] = 0xFF;
        return d;
    };
    // Data of the backup file; the 30 bytes after it, beyond Size, are ignored.
    auto file = [](const Bytes& data) {
        return cat({fruFile(data, static_cast<std::uint32_t>(data.size())), Bytes(30, 0x77)});
    };
    const Bytes data = pattern(300, 8);
    constexpr char kStart[] = "svfRestoreFRU() : svfRestoreFRU() : Start.\n";
    constexpr char kRefused[] = "svfLogReadAndRestore() : Write FRU Commands failed.\n";
    struct Case {
        const char* name;
        Bytes file;  // empty: no file
        void (*inject)();
        INT8S result;
        const char* message;
        int attempts;  // lines "Write FRU Commands failed."
        int requests;  // IPMI requests sent, refused ones included
        Pieces writes; // that reached the device
    };
    const std::vector<Case> cases = {
        {"300 bytes", file(data), [] {}, 0, kStart, 0, 2, {{0, 255}, {255, 45}}},
        {"exactly 255", file(pattern(255, 8)), [] {}, 0, kStart, 0, 1, {{0, 255}}},
        {"leading 0xFF", file(withFFAt(0)), [] {}, 0, kStart, 0, 0, {}},
        {"0xFF at 256", file(withFFAt(256)), [] {}, 0, kStart, 0, 2, {{0, 255}, {255, 1}}},
        {"empty", file({}), [] {}, 0, kStart, 0, 0, {}},
        {"refused writes", file(data), [] { hostFruRefuseWrites(0xD5); }, 1, kRefused, 3, 3, {}},
        // The refused second write makes the restore start over.
        {"one refusal then success", file(data), [] { hostIpmiFailCmd(0x12, 1, 1, 0xC3); }, 0, kRefused, 1, 4,
         {{0, 255}, {0, 255}, {255, 45}}},
        {"no file", {}, [] {}, -1, "svfLogReadAndRestore() : file open error(2)\n", 0, 0, {}},
        {"short header", Bytes(9, 0), [] {}, -64, "svfLogReadAndRestore() : read error(", 0, 0, {}},
        {"data shorter than Size", fruFile(pattern(10, 1), 300), [] {}, -64, "svfLogReadAndRestore() : error(", 0, 0,
         {}},
        {"Size beyond any FRU area", fruFile(pattern(10, 1), 65536), [] {}, -64,
         "svfLogReadAndRestore() : size error(65536)\n", 0, 0, {}},
        {"a directory in place of the file", {}, [] { ::mkdir(kFru, 0755); }, -64, "svfRestoreFRU", 0, 0, {}},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        hostResetFaults();
        std::system("rm -rf /conf/brask/FRUBACKUP.dat");
        hostFruMakeImage(1024, "M", "S");
        Bytes expected = fruImage(1024);
        if (!tc.file.empty()) writeBytes(kFru, tc.file);
        tc.inject();
        hostResetCounters();
        hostFruClearAccessLog();
        const Resources before;
        Output o;
        EXPECT_EQ(captured(o, svfRestoreFRU), tc.result);
        EXPECT_TRUE(o.has(tc.message)) << o.out;
        EXPECT_EQ(o.count("Write FRU Commands failed."), tc.attempts);
        EXPECT_EQ(hostCallCount("API_ExecuteCmd"), tc.requests);
        EXPECT_EQ(Resources(), before);
        expectAccesses(0x12, tc.writes, 1);
        std::size_t written = 0;
        for (const auto& [offset, count] : tc.writes) written = std::max<std::size_t>(written, offset + count);
        std::copy(tc.file.begin() + 16, tc.file.begin() + 16 + written, expected.begin());
        EXPECT_EQ(fruImage(1024), expected);
    }
}

}  // namespace
}  // namespace brask::test
