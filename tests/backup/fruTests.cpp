// FRU backup file, FRU backup over IPMI and FRU restore.
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "backupFixture.h"
#include "fru/fruInternal.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kFru[] = "/conf/brask/FRUBACKUP.dat";
constexpr char kFruCopy[] = "/conf/brask/FRUBACKUP.dat.bak";

std::vector<std::uint8_t> pattern(std::size_t n, std::uint8_t seed) {
    std::vector<std::uint8_t> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::uint8_t>((i * 7 + seed) % 251);  // no 0xFF
    return v;
}

std::vector<std::uint8_t> fruFile(const std::vector<std::uint8_t>& data, std::uint32_t size,
                                  std::uint8_t dummyFill = 0) {
    std::vector<std::uint8_t> f(16, dummyFill);
    for (int i = 0; i < 4; ++i) f[i] = static_cast<std::uint8_t>(size >> (8 * i));
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

std::vector<std::uint8_t> fruImage(std::size_t n) {
    std::vector<std::uint8_t> image(n, 0);
    const int got = hostFruReadImage(image.data(), static_cast<INT32U>(n));
    image.resize(got < 0 ? 0 : std::min<std::size_t>(got, n));
    return image;
}

// ---- The FRU backup file ------------------------------------------------------

using FruLogFile = BackupTest;

TEST_F(FruLogFile, InitLogLeavesExactlySixteenZeroBytes) {
    writeBytes(kFru, fruFile(pattern(100, 1), 100, 0xAA));
    Output o = capture([] { EXPECT_EQ(svfInitLog(), 0); });
    EXPECT_EQ(readBytes(kFru), std::vector<std::uint8_t>(16, 0));
    EXPECT_TRUE(o.has("BRASK_MSG[6] : svfBackupFRU("));
    EXPECT_TRUE(o.has(" : svfInitLog() : svfInitLog() : \n"));
}

TEST_F(FruLogFile, AppendsCountInTheHeaderAndLandAfterCountedData) {
    struct Case {
        const char* name;
        std::vector<std::uint8_t> before;  // empty: no file
        std::vector<std::size_t> chunks;
        std::vector<std::uint8_t> expected;
    };
    const auto a = pattern(255, 3), b = pattern(255, 5), c = pattern(90, 9);
    std::vector<std::uint8_t> threeChunks = fruFile(a, 600);
    threeChunks.insert(threeChunks.end(), b.begin(), b.end());
    threeChunks.insert(threeChunks.end(), c.begin(), c.end());
    // A file longer than its header says: the new data overwrites from 16 +
    // Size on and the bytes after it stay; the dummy bytes are preserved.
    std::vector<std::uint8_t> longer = fruFile(pattern(10, 1), 10, 0x5A);
    longer.insert(longer.end(), 20, 0xEE);
    std::vector<std::uint8_t> longerAfter = fruFile(pattern(10, 1), 15, 0x5A);
    longerAfter.insert(longerAfter.end(), c.begin(), c.begin() + 5);
    longerAfter.insert(longerAfter.end(), 15, 0xEE);

    const std::vector<Case> cases = {
        {"missing file is created", {}, {5}, fruFile({c.begin(), c.begin() + 5}, 5)},
        {"three pieces", fruFile({}, 0), {255, 255, 90}, threeChunks},
        {"longer than counted", longer, {5}, longerAfter},
        {"zero bytes", fruFile(pattern(10, 1), 10, 0x11), {0}, fruFile(pattern(10, 1), 10, 0x11)},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        std::remove(kFru);
        if (!tc.before.empty()) writeBytes(kFru, tc.before);
        const std::vector<const std::vector<std::uint8_t>*> sources = {&a, &b, &c};
        for (std::size_t k = 0; k < tc.chunks.size(); ++k) {
            // Single appends take from c; the three-piece case takes a, b, c.
            const auto* src = tc.chunks.size() == 3 ? sources[k] : &c;
            std::vector<std::uint8_t> chunk(src->begin(), src->begin() + tc.chunks[k]);
            Output o = capture([&] {
                EXPECT_EQ(svfWriteLog(chunk.data(), static_cast<INT8U>(chunk.size())), 0);
            });
            char line[64];
            std::snprintf(line, sizeof line, "svfWriteLog() : Size = %02zx\n", tc.chunks[k]);
            EXPECT_TRUE(o.has("BRASK_MSG[3]")) << o.out;
            EXPECT_TRUE(o.has(line)) << o.out;
        }
        EXPECT_EQ(readBytes(kFru), tc.expected);
    }
}

TEST_F(FruLogFile, FailuresGiveC0WithTheirMessage) {
    struct Case {
        const char* name;
        void (*prepare)();
        INT8U (*op)();
        const char* message;
    };
    const std::vector<Case> cases = {
        {"file shorter than its header",
         [] { writeBytes(kFru, std::vector<std::uint8_t>(10, 0)); },
         [] {
             INT8U b = 1;
             return svfWriteLog(&b, 1);
         },
         "svfWriteLog() : read error("},
        {"append: a directory in place of the file", [] { ::mkdir(kFru, 0755); },
         [] {
             INT8U b = 1;
             return svfWriteLog(&b, 1);
         },
         "svfWriteLog() : file open error(21)"},
        {"start: a directory in place of the file", [] { ::mkdir(kFru, 0755); }, [] { return svfInitLog(); },
         "svfInitLog() : error(21)"},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        std::system("rm -rf /conf/brask/FRUBACKUP.dat");
        tc.prepare();
        const Resources before = resources();
        INT8U rc = 0;
        Output o = capture([&] { rc = tc.op(); });
        EXPECT_EQ(rc, 0xC0);
        EXPECT_TRUE(o.has(tc.message)) << o.out;
        EXPECT_TRUE(o.has("BRASK_MSG[3]")) << o.out;
        EXPECT_EQ(resources(), before);
    }
}

TEST_F(FruLogFile, InitFruLogFileMakesBothFilesAndTriesBothWhenOneFails) {
    writeBytes(kFru, fruFile(pattern(3, 1), 3));
    EXPECT_EQ(InitFRULogFile(), 0);
    EXPECT_EQ(readBytes(kFru), fruFile(pattern(3, 1), 3));  // existing file untouched
    EXPECT_EQ(readBytes(kFruCopy), std::vector<std::uint8_t>(16, 0));

    std::remove(kFru);
    std::remove(kFruCopy);
    hostResetCounters();
    ASSERT_EQ(hostFailCall("hslChkMakeFile", 0, 1, EIO), 0);
    EXPECT_EQ(InitFRULogFile(), -1);
    EXPECT_EQ(hostCallCount("hslChkMakeFile"), 2);
    EXPECT_TRUE(exists(kFruCopy));
}

// ---- Backup over IPMI ---------------------------------------------------------------

using FruBackup = BackupTest;

TEST_F(FruBackup, ReadsEachPieceTwiceAndStoresTheWholeArea) {
    struct Case {
        std::uint32_t areaSize;
        std::vector<std::pair<std::uint32_t, std::uint32_t>> pieces;  // offset, count
    };
    const std::vector<Case> cases = {
        {600, {{0, 255}, {255, 255}, {510, 90}}},
        {255, {{0, 255}}},
        {256, {{0, 255}, {255, 1}}},
        {1, {{0, 1}}},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.areaSize);
        const auto image = pattern(tc.areaSize, 17);
        ASSERT_EQ(hostFruWriteImage(image.data(), tc.areaSize), 0);
        hostFruClearAccessLog();
        INT8S rc = 0;
        Output o = capture([&] { rc = svfBackupFRU(); });
        EXPECT_EQ(rc, 1);
        char sizeLine[64];
        std::snprintf(sizeLine, sizeof sizeLine, "svfBackupFRU() : FRU Size = %x.\n", tc.areaSize);
        EXPECT_TRUE(o.has(sizeLine)) << o.out;
        EXPECT_TRUE(o.has("svfBackupFRU() : svfBackupFRU() : Stat.\n")) << o.out;

        const auto log = fruAccesses();
        ASSERT_EQ(log.size(), tc.pieces.size() * 2);
        for (std::size_t k = 0; k < log.size(); ++k) {
            EXPECT_EQ(log[k].Cmd, 0x11);
            EXPECT_EQ(log[k].Offset, tc.pieces[k / 2].first);
            EXPECT_EQ(log[k].Count, tc.pieces[k / 2].second);
        }
        EXPECT_EQ(readBytes(kFru), fruFile(image, tc.areaSize));
    }
}

TEST_F(FruBackup, InventoryInfoFailuresLeaveTheFileUntouched) {
    struct Case {
        const char* name;
        void (*inject)();
    };
    const std::vector<Case> cases = {
        {"area size 0", [] { writeBytes(HOST_FRU_FILE, {}); }},
        {"completion code", [] { hostIpmiFailCmd(0x10, 0, 1, 0xC1); }},
        {"API_ExecuteCmd fails", [] { hostFailCall("API_ExecuteCmd", 0, 1, 0); }},
        {"accessed by words", [] { hostFruSetAccessType(1); }},
    };
    const auto previous = fruFile(pattern(40, 2), 40);
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        hostResetFaults();
        hostFruMakeImage(1024, "MODEL", "SERIAL");
        writeBytes(kFru, previous);
        tc.inject();
        INT8S rc = 0;
        Output o = capture([&] { rc = svfBackupFRU(); });
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(o.has("BRASK_MSG[3]"));
        EXPECT_TRUE(o.has("svfBackupFRU() : FRU Inventory Device Commands failed.\n")) << o.out;
        EXPECT_EQ(readBytes(kFru), previous);
    }
}

TEST_F(FruBackup, ReadFailuresStopWithTheirMessageAndKeepThePiecesSoFar) {
    struct Case {
        const char* name;
        void (*inject)();
        const char* message;
        long storedBytes;
    };
    const std::vector<Case> cases = {
        {"first read refused", [] { hostIpmiFailCmd(0x11, 0, 1, 0xC3); },
         "svfBackupFRU() : Read FRU Commands failed.\n", 0},
        {"verifying read refused", [] { hostIpmiFailCmd(0x11, 1, 1, 0xC3); },
         "svfBackupFRU() : Read FRU Commands failed.\n", 0},
        {"second piece refused", [] { hostIpmiFailCmd(0x11, 2, 1, 0xC3); },
         "svfBackupFRU() : Read FRU Commands failed.\n", 255},
        {"API_ExecuteCmd fails on a read", [] { hostFailCall("API_ExecuteCmd", 3, 1, 0); },
         "svfBackupFRU() : Read FRU Commands failed.\n", 255},
        {"short read", [] { hostFruSetShortRead(1); }, "svfBackupFRU() :  Read FRU Commands failed.\n", 0},
        {"reads differ", [] { hostFruSetReadsDiffer(1); }, "svfBackupFRU() : It failed in reading FRU.\n",
         0},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        hostResetFaults();
        const auto image = pattern(600, 4);
        ASSERT_EQ(hostFruWriteImage(image.data(), 600), 0);
        tc.inject();
        INT8S rc = 0;
        Output o = capture([&] { rc = svfBackupFRU(); });
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(o.count(tc.message), 1) << o.out;
        EXPECT_EQ(fruHeaderSize(kFru), tc.storedBytes);
        EXPECT_EQ(readBytes(kFru).size(), static_cast<std::size_t>(16 + tc.storedBytes));
    }
}

// ---- Restore ---------------------------------------------------------------------------

using FruRestore = BackupTest;

TEST_F(FruRestore, WritesTheLeadingPartInPiecesOf255) {
    struct Case {
        const char* name;
        std::vector<std::uint8_t> data;
        std::vector<std::pair<std::uint32_t, std::uint32_t>> writes;
    };
    auto withFFAt = [](std::size_t n, std::size_t at) {
        auto d = pattern(n, 8);
        d[at] = 0xFF;
        return d;
    };
    const std::vector<Case> cases = {
        {"300 bytes", pattern(300, 8), {{0, 255}, {255, 45}}},
        {"exactly 255", pattern(255, 8), {{0, 255}}},
        {"leading 0xFF", withFFAt(300, 0), {}},
        {"0xFF at 256", withFFAt(300, 256), {{0, 255}, {255, 1}}},
        {"empty", {}, {}},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        hostFruMakeImage(1024, "M", "S");
        const auto before = fruImage(1024);
        auto file = fruFile(tc.data, static_cast<std::uint32_t>(tc.data.size()));
        file.insert(file.end(), 30, 0x77);  // beyond Size: ignored
        writeBytes(kFru, file);
        hostFruClearAccessLog();
        INT8S rc = 1;
        Output o = capture([&] { rc = svfRestoreFRU(); });
        EXPECT_EQ(rc, 0);
        EXPECT_TRUE(o.has("svfRestoreFRU() : svfRestoreFRU() : Start.\n"));
        const auto log = fruAccesses();
        ASSERT_EQ(log.size(), tc.writes.size());
        std::size_t written = 0;
        for (std::size_t k = 0; k < log.size(); ++k) {
            EXPECT_EQ(log[k].Cmd, 0x12);
            EXPECT_EQ(log[k].Offset, tc.writes[k].first);
            EXPECT_EQ(log[k].Count, tc.writes[k].second);
            written += log[k].Count;
        }
        auto expected = before;
        std::copy(tc.data.begin(), tc.data.begin() + written, expected.begin());
        EXPECT_EQ(fruImage(1024), expected);
    }
}

TEST_F(FruRestore, FailuresAndRetries) {
    struct Case {
        const char* name;
        void (*prepare)();
        INT8S result;
        int attempts;  // lines "Write FRU Commands failed."
        const char* message;
        int requests;  // IPMI requests sent, refused ones included
    };
    const std::vector<Case> cases = {
        {"no file", [] {}, -1, 0, "svfLogReadAndRestore() : file open error(2)\n", 0},
        {"refused writes",
         [] {
             writeBytes(kFru, fruFile(pattern(300, 1), 300));
             hostFruRefuseWrites(0xD5);
         },
         1, 3, "svfLogReadAndRestore() : Write FRU Commands failed.\n", 3},
        {"one refusal then success",
         [] {
             writeBytes(kFru, fruFile(pattern(300, 1), 300));
             hostIpmiFailCmd(0x12, 1, 1, 0xC3);
         },
         0, 1, "svfLogReadAndRestore() : Write FRU Commands failed.\n", 4},
        {"short header", [] { writeBytes(kFru, std::vector<std::uint8_t>(9, 0)); }, -64, 0,
         "svfLogReadAndRestore() : read error(", 0},
        {"data shorter than Size", [] { writeBytes(kFru, fruFile(pattern(10, 1), 300)); }, -64, 0,
         "svfLogReadAndRestore() : error(", 0},
        {"Size beyond any FRU area", [] { writeBytes(kFru, fruFile(pattern(10, 1), 65536)); }, -64, 0,
         "svfLogReadAndRestore() : size error(65536)\n", 0},
        {"a directory in place of the file", [] { ::mkdir(kFru, 0755); }, -64, 0, "svfRestoreFRU", 0},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        hostResetFaults();
        std::system("rm -rf /conf/brask/FRUBACKUP.dat");
        hostFruMakeImage(1024, "M", "S");
        tc.prepare();
        hostResetCounters();
        const Resources before = resources();
        INT8S rc = 0;
        Output o = capture([&] { rc = svfRestoreFRU(); });
        EXPECT_EQ(rc, tc.result);
        EXPECT_TRUE(o.has(tc.message)) << o.out;
        EXPECT_EQ(o.count("Write FRU Commands failed."), tc.attempts);
        EXPECT_EQ(hostCallCount("API_ExecuteCmd"), tc.requests);
        EXPECT_EQ(resources(), before);
    }
}

TEST_F(FruRestore, BackupThenRestoreGivesTheSameDevice) {
    ASSERT_EQ(hostFruMakeImage(2048, "BRASK-X", "SN-42"), 0);
    const auto original = fruImage(2048);
    Output o = capture([] { ASSERT_EQ(svfBackupFRU(), 1); });
    auto zeros = std::vector<std::uint8_t>(2048, 0);
    ASSERT_EQ(hostFruWriteImage(zeros.data(), 2048), 0);
    o = capture([] { EXPECT_EQ(svfRestoreFRU(), 0); });
    const auto restored = fruImage(2048);
    // Everything before the first unused (0xFF) byte comes back.
    std::size_t lead = 0;
    while (lead < original.size() && original[lead] != 0xFF) ++lead;
    ASSERT_GT(lead, 0u);
    EXPECT_TRUE(std::equal(original.begin(), original.begin() + lead, restored.begin()));
}

}  // namespace
}  // namespace brask::test
