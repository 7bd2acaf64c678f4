// Extraction of one archive block over the live /conf.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "archive/readers.h"
#include "restoreTestSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/tree.h"

namespace brask::test {
namespace {

constexpr char kBlockFile[] = "/var/brask/BMC.bak-1";
constexpr char kPmConfig[] = "/conf/BMC1/PMConfig.dat";

int extract(const ByteVec& block, INT8U blockNum = 1) {
    writeBytes(kBlockFile, block);
    char name[sizeof kBlockFile];
    std::strcpy(name, kBlockFile);
    return svfExtractBraskArchive(BMC_FILE, name, blockNum);
}

// The shipped catalogue restores every file whole; the part restore of
// PMConfig.dat is reached through a catalogue whose PMConfig row is PART.
catalogue::Selection partCatalogue() {
    static const auto rows = [] {
        std::vector<BackupFileList_T> r(BmcBackupFileList,
                                        BmcBackupFileList + SVF_BMC_BACKUP_FILE_COUNT);
        for (auto& row : r) {
            if (std::strcmp(row.FilePass, kPmConfig) == 0) row.TargetPart = PART;
        }
        return r;
    }();
    catalogue::Selection sel = catalogue::select(BMC_FILE);
    sel.rows = rows.data();
    return sel;
}

int extractWithPartRow(const ByteVec& block, INT8U blockNum = 1) {
    writeBytes(kBlockFile, block);
    return archive::extractArchive(partCatalogue(), kBlockFile, blockNum);
}

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st;
}
mode_t modeOf(const std::string& path) { return statOf(path).st_mode; }

TEST_F(RestoreTest, DeleteFirstRowsAreRemovedUnlessTheBlockCarriesThem) {
    const auto doomed = deleteFirstPaths();
    ASSERT_EQ(doomed.size(), 69u);
    for (const auto& p : doomed) writeFile(p, "live " + p);
    writeFile("/conf/passwd", "root:x:0:0\n");

    // Block 0 holds no catalogue row: nothing is deleted.
    ASSERT_EQ(extract(test::block({}), 0), 0);
    for (const auto& p : doomed) EXPECT_TRUE(exists(p)) << p;

    const std::vector<std::string> kept = {doomed[0], doomed[30], doomed[68]};
    std::vector<EntrySpec> entries;
    for (const auto& p : kept) entries.push_back(entry(p, "archived " + p, 0100600));
    ASSERT_EQ(extract(test::block(entries)), 0);
    for (const auto& p : doomed) {
        const bool isKept = std::find(kept.begin(), kept.end(), p) != kept.end();
        EXPECT_EQ(exists(p), isKept) << p;
        if (isKept) {
            EXPECT_EQ(readFile(p), "archived " + p);
            EXPECT_EQ(modeOf(p) & 07777, 0600u) << p;
        }
    }
    EXPECT_EQ(readFile("/conf/passwd"), "root:x:0:0\n");  // RestoreType 0 rows stay
}

// Each row's block restores vmedia.conf first, which no row's setting may stop
// (first: a PMConfig.dat made from scratch ends the entry pass).
TEST_F(RestoreTest, EachFileTakesItsRestoreRule) {
    const struct {
        const char* what;
        std::string path;
        bool partRow, maintenance;
        const char* live;  // null: no live file
        const char* archived;
        mode_t archivedMode;
        const char* expected;
        mode_t expectedMode;
    } cases[] = {
        {"whole file", "/conf/resolv.conf", false, false, "nameserver 10.0.0.1\n",
         "nameserver 192.0.2.1\n", 0640, "nameserver 192.0.2.1\n", 0640},
        {"empty file", "/conf/hid.conf", false, false, "old", "", 0600, "", 0600},
        {"interfaces in maintenance", "/conf/interfaces", false, true, "live\n", "archived\n", 0644,
         "live\n", 0600},
        {"interfaces otherwise", "/conf/interfaces", false, false, "live\n", "archived\n", 0644,
         "archived\n", 0644},
        // Only a PART row restores the catalogue's ranges of a live file.
        {"part over live", kPmConfig, true, false, "abcdefghijklmnop", "ABCDEFGHIJKLMNOP", 0600,
         "ABcdEFGHIjklmnop", 0600},
        // A missing file is made from the whole image, shorter than the ranges or not.
        {"part, no live file", kPmConfig, true, false, nullptr, "ABC", 0640, "ABC", 0640},
        {"shipped row", kPmConfig, false, false, "abcdefghijklmnop", "ABCDEFGHIJ", 0600,
         "ABCDEFGHIJ", 0600},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::remove(c.path.c_str());
        // A live file restored over must lose its 0666; one kept keeps its mode.
        if (c.live != nullptr) writeFile(c.path, c.live, c.maintenance ? c.expectedMode : 0666);
        hostSetMaintenanceMode(c.maintenance ? 1 : 0);
        const ByteVec block = test::block({entry("/conf/vmedia.conf", c.what),
                                          entry(c.path, c.archived, 0100000 | c.archivedMode)});
        ASSERT_EQ(c.partRow ? extractWithPartRow(block) : extract(block), 0);
        EXPECT_EQ(readFile(c.path), c.expected);
        EXPECT_EQ(modeOf(c.path) & 07777, c.expectedMode);
        EXPECT_EQ(readFile("/conf/vmedia.conf"), c.what);
    }
}

TEST_F(RestoreTest, WholeFileRestoreSetsOwner) {
    if (!canChown()) GTEST_SKIP() << "no chown in this sandbox";
    EntrySpec resolv = entry("/conf/resolv.conf", "x");
    resolv.uid = resolv.gid = 1234;
    ASSERT_EQ(extract(test::block({resolv})), 0);
    EXPECT_EQ(statOf("/conf/resolv.conf").st_uid, 1234u);
    EXPECT_EQ(statOf("/conf/resolv.conf").st_gid, 1234u);
}

TEST_F(RestoreTest, DeviceRestoresFollowTheirFiles) {
    // An FRU backup file: its 16-byte header counts the data bytes after it.
    ByteVec fru(16 + 8, 0);
    fru[0] = 8;
    for (int i = 0; i < 8; ++i) fru[16 + i] = static_cast<std::uint8_t>(0x50 + i);
    EntrySpec fruEntry = entry("/conf/brask/FRUBACKUP.dat", "");
    fruEntry.data = fru;
    const std::string post = "0123456789";

    const ByteVec block = test::block({fruEntry, entry("/conf/brask/PostCheckCode.dat", post)});
    hostFruClearAccessLog();
    ASSERT_EQ(extract(block), 0);
    hostFruAccess_T log[64];
    const int n = std::min(hostFruAccessLog(log, 64), 64);
    EXPECT_TRUE(std::any_of(log, log + n, [](const auto& a) { return a.Cmd == 0x12; }));
    ByteVec ee(10);
    ASSERT_EQ(hostEepromRead(0x780C, ee.data(), 10), 0);
    EXPECT_EQ(std::string(ee.begin(), ee.end()), post);

    hostFruRefuseWrites(0xC1);  // a failed FRU restore does not fail the block
    EXPECT_EQ(extract(block), 0);
}

TEST_F(RestoreTest, UncataloguedTargetsAreSkippedNotWritten) {
    writeFile("/conf/resolv.conf", "old\n");
    EntrySpec outside = entry("/conf/../etc/passwd", "evil\n");
    EntrySpec unknown = entry("/conf/brask/unknown.dat", "x");
    // The longest name the layout check accepts (151 bytes): read, then skipped.
    EntrySpec longest = entry("/conf/" + std::string(141, 'n'), "x");
    const EntrySpec resolv = entry("/conf/resolv.conf", "new\n");
    ASSERT_EQ(extract(test::block({outside, unknown, longest, resolv})), 0);
    EXPECT_FALSE(exists("/conf/brask/unknown.dat"));
    EXPECT_NE(readFile("/etc/passwd"), "evil\n");
    EXPECT_EQ(readFile("/conf/resolv.conf"), "new\n");
}

TEST_F(RestoreTest, FailureMidBlockKeepsEarlierEntriesAndSkipsCapability) {
    writeFile("/conf/resolv.conf", "old\n");
    writeFile("/conf/hid.conf", "old\n");
    writeFile("/conf/BMCCapability.dat", std::string(51, 'L'));
    EntrySpec noSuffix = entry("/conf/vmedia.conf", "x");
    noSuffix.name = "/conf/vmedia.conf";
    const auto block = test::block({entry("/conf/resolv.conf", "new\n"),
                                   entry("/conf/BMCCapability.dat", std::string(51, 'B')),
                                   noSuffix, entry("/conf/hid.conf", "new\n")});
    EXPECT_EQ(extract(block), -1);
    EXPECT_EQ(readFile("/conf/resolv.conf"), "new\n");
    EXPECT_EQ(readFile("/conf/hid.conf"), "old\n");
    EXPECT_EQ(readFile("/conf/BMCCapability.dat"), std::string(51, 'B'));
}

TEST_F(RestoreTest, BadChecksumOrMissingBlockChangesNothing) {
    populateConf();
    const auto before = snapshotTree({"/conf"});
    ByteVec block = test::block({entry("/conf/resolv.conf", "new\n")});
    block.back() ^= 0x01;
    EXPECT_EQ(extract(block), -1);
    char missing[] = "/var/brask/none-1";
    EXPECT_EQ(svfExtractBraskArchive(BMC_FILE, missing, 1), -1);
    // An empty block sums to 0 but cannot be mapped: -1 without a message.
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(extract(ByteVec{}), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(diffTrees(before, snapshotTree({"/conf"})), "");
}

// ---- Hostile archives: checksum right, layout wrong --------------------------
// Each block holds a good entry first, then the bad one: the whole block is
// refused before anything is written or deleted.
TEST_F(RestoreTest, HostileBlocksAreRejectedWithoutTouchingConf) {
    // The second descriptor starts after the first entry's 20 + 21 + 12 bytes.
    constexpr std::uint32_t second = 8 + 20 + 21 + 12;
    const struct {
        const char* what;
        std::string path;
        std::string data;
        std::optional<std::uint32_t> fileOffset;
        std::optional<std::int32_t> fileSize;
        std::uint8_t numOfEntry;  // 0: as built
    } cases[] = {
        {"name of 152 bytes", "/conf/" + std::string(142, 'n'), "x", {}, {}, 0},
        {"offset inside a descriptor", "/conf/hid.conf", "data", second + 10, {}, 0},
        {"data past the end", "/conf/hid.conf", "data", {}, 4096, 0},
        {"negative size", "/conf/hid.conf", "data", {}, -8, 0},
        {"part range beyond the data", kPmConfig, "ABCDE", {}, {}, 0},
        {"more entries than stored", "/conf/hid.conf", "x", {}, {}, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        populateConf();
        for (const auto& p : deleteFirstPaths()) writeFile(p, "live");
        const auto before = snapshotTree({"/conf"});
        EntrySpec bad = entry(c.path, c.data);
        bad.fileOffset = c.fileOffset;
        bad.fileSize = c.fileSize;
        ByteVec block = test::block({entry("/conf/resolv.conf", "overwritten\n"), bad});
        if (c.numOfEntry != 0) {
            block[2] = c.numOfEntry;
            sealBlock(block);
        }
        EXPECT_EQ(extractWithPartRow(block), -1);
        EXPECT_EQ(diffTrees(before, snapshotTree({"/conf"})), "");
    }
}

}  // namespace
}  // namespace brask::test
