// Extraction of one archive block over the live /conf: each row writes some
// live files of its own, extracts one block and compares the result, the
// error lines in order and every file the block may touch; any other change
// under /conf fails the row.  A block refused as a whole must leave a
// realistic /conf alone, delete-first files included.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <optional>
#include <set>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "archive/readers.h"
#include "restoreTestSupport.h"
#include "support/observe.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/transcript.h"
#include "support/tree.h"

namespace brask::test {
namespace {

constexpr char kBlockFile[] = "/var/brask/BMC.bak-1";
constexpr char kPmConfig[] = "/conf/BMC1/PMConfig.dat";
constexpr char kResolv[] = "/conf/resolv.conf";
constexpr char kHid[] = "/conf/hid.conf";
constexpr char kInterfaces[] = "/conf/interfaces";
constexpr char kCapability[] = "/conf/BMCCapability.dat";
constexpr char kRsaKey[] = "/conf/ssh_host_rsa_key";  // delete-first rows
constexpr char kDsaKey[] = "/conf/ssh_host_dsa_key";
constexpr char kErr[] = "BRASK_ERR  : svfBraskArchiver(#) : ";

// The shipped catalogue restores every file whole; the part restore of
// PMConfig.dat is reached through a catalogue whose PMConfig row is PART.
catalogue::Selection partCatalogue() {
    static const auto rows = [] {
        std::vector<BackupFileList_T> r(BmcBackupFileList, BmcBackupFileList + SVF_BMC_BACKUP_FILE_COUNT);
        for (auto& row : r) {
            if (std::strcmp(row.FilePass, kPmConfig) == 0) row.TargetPart = PART;
        }
        return r;
    }();
    catalogue::Selection sel = catalogue::select(BMC_FILE);
    sel.rows = rows.data();
    return sel;
}

struct FileAfter {
    std::string path;
    std::optional<std::string> content;  // none: missing
    mode_t mode = 0;                     // permission bits; 0: not checked
};

struct BlockCase {
    const char* what;
    std::vector<std::pair<std::string, std::string>> live;  // written 0666 first; "" content: removed
    std::function<Bytes()> block;
    int result;
    std::vector<std::string> err;  // the error lines, in order, after their tag
    std::vector<FileAfter> after;  // every file that may change
    bool partRow = false;
    bool maintenance = false;
};

StoredEntry withLayout(StoredEntry e, std::optional<std::uint32_t> offset, std::optional<std::int32_t> size) {
    e.fileOffset = offset;
    e.fileSize = size;
    return e;
}

// Hostile blocks start with a good entry (its descriptor, 21-byte name and
// 12 bytes of data), so refusing them must come before anything is written.
Bytes hostile(StoredEntry bad, std::optional<std::uint16_t> numOfEntry = std::nullopt) {
    return test::block({entry(kResolv, "overwritten\n"), std::move(bad)}, {}, numOfEntry);
}
constexpr std::uint32_t kSecond = 8 + 20 + 21 + 12;

StoredEntry withoutSuffix(const char* path) {
    StoredEntry e = entry(path, "x");
    e.name = path;
    return e;
}

// One row per case, as the rows read best.
// clang-format off
const std::vector<BlockCase>& cases() {
    static const std::vector<BlockCase> rows = {
        {"whole file, mode and owner from the entry", {{kResolv, "nameserver 10.0.0.1\n"}},
         [] { return test::block({entry(kResolv, "nameserver 192.0.2.1\n", 0100640), entry(kHid, "", 0100600)}); },
         0, {}, {{kResolv, "nameserver 192.0.2.1\n", 0640}, {kHid, "", 0600}}},
        {"delete-first rows go unless the block carries them", {{kRsaKey, "live"}, {kDsaKey, "live"}},
         [] { return test::block({entry(kRsaKey, "archived", 0100600)}); },
         0, {}, {{kRsaKey, "archived", 0600}, {kDsaKey, std::nullopt}}},
        {"interfaces kept as they are in maintenance mode", {{kInterfaces, "live\n"}},
         [] { return test::block({entry(kInterfaces, "archived\n", 0100600)}); },
         0, {}, {{kInterfaces, "live\n", 0666}}, false, true},
        {"interfaces restored otherwise", {{kInterfaces, "live\n"}},
         [] { return test::block({entry(kInterfaces, "archived\n")}); }, 0, {}, {{kInterfaces, "archived\n", 0644}}},
        {"part restore takes only the catalogue's ranges", {{kPmConfig, "abcdefghijklmnop"}},
         [] { return test::block({entry(kPmConfig, "ABCDEFGHIJKLMNOP", 0100600)}); },
         0, {}, {{kPmConfig, "ABcdEFGHIjklmnop", 0600}}, true},
        // ... and ends the entry pass there.
        {"a missing part-restored file is made whole, shorter than its ranges or not", {{kPmConfig, ""}},
         [] { return test::block({entry(kPmConfig, "ABC", 0100640), entry(kHid, "after\n")}); },
         0, {}, {{kPmConfig, "ABC", 0640}}, true},
        {"the shipped row restores PMConfig whole", {{kPmConfig, "abcdefghijklmnop"}},
         [] { return test::block({entry(kPmConfig, "ABCDEFGHIJ", 0100600)}); }, 0, {}, {{kPmConfig, "ABCDEFGHIJ", 0600}}},
        {"uncatalogued targets are skipped, never written", {{kResolv, "old\n"}},
         [] { return test::block({entry("/conf/../etc/passwd", "evil\n"), entry("/conf/brask/unknown.dat", "x"),
                                  entry("/conf/" + std::string(141, 'n'), "x"), entry(kResolv, "new\n")}); },
         0, {}, {{kResolv, "new\n"}}},
        {"a name without .bak stops the block: earlier entries stay, capability not merged",
         {{kResolv, "old\n"}, {kHid, "old\n"}, {kCapability, std::string(51, 'L')}},
         [] { return test::block({entry(kResolv, "new\n"), entry(kCapability, std::string(51, 'B')),
                                  withoutSuffix("/conf/vmedia.conf"), entry(kHid, "new\n")}); },
         -1, {".bak Unmatch"}, {{kResolv, "new\n"}, {kCapability, std::string(51, 'B')}}},
        // Nothing after the last entry is looked at (svfdump remarks on it).
        {"bytes after the last entry", {}, [] { return test::block({entry(kResolv, "new\n")}, Bytes(7, 0xAB)); },
         0, {}, {{kResolv, "new\n"}}},
        {"a flipped bit fails the checksum", {},
         [] { Bytes b = test::block({entry(kResolv, "new\n")}); b.back() ^= 0x01; return b; },
         -1, {"ChkSum unmatch"}, {}},
        {"an empty block cannot be mapped", {}, [] { return Bytes{}; }, -1, {}, {}},
        {"name of 152 bytes", {}, [] { return hostile(entry("/conf/" + std::string(142, 'n'), "x")); },
         -1, {"Archive entry 1 rejected : name too long"}, {}},
        {"offset inside a descriptor", {}, [] { return hostile(withLayout(entry(kHid, "data"), kSecond + 10, {})); },
         -1, {"Archive entry 1 rejected : data offset inside its descriptor"}, {}},
        {"data past the end", {}, [] { return hostile(withLayout(entry(kHid, "data"), {}, 4096)); },
         -1, {"Archive entry 1 rejected : data past the end"}, {}},
        {"negative size", {}, [] { return hostile(withLayout(entry(kHid, "data"), {}, -8)); },
         -1, {"Archive entry 1 rejected : negative size"}, {}},
        {"more entries than stored", {}, [] { return hostile(entry(kHid, "x"), 3); },
         -1, {"Archive entry 2 rejected : truncated"}, {}},
        {"part range beyond the data of a live file", {{kPmConfig, "abcdefghijklmnop"}},
         [] { return hostile(entry(kPmConfig, "ABCDE")); }, -1, {"Archive entry 1 rejected : part list beyond its data"},
         {}, true},
    };
    return rows;
}
// clang-format on

TEST(BlockReader, EachRowRestoresOrRefusesAsItSays) {
    for (const BlockCase& c : cases()) {
        SCOPED_TRACE(c.what);
        resetState();
        if (c.result != 0 && c.after.empty()) populateConf();
        for (const auto& [path, content] : c.live) {
            if (content.empty())
                (void)std::remove(path.c_str());
            else
                writeFile(path, content, 0666);
        }
        hostSetMaintenanceMode(c.maintenance ? 1 : 0);
        writeBytes(kBlockFile, c.block());
        const Tree before = snapshotTree({"/conf"});
        const Observed got = observe([&] {
            if (c.partRow) return long{archive::extractArchive(partCatalogue(), kBlockFile, 1)};
            char name[sizeof kBlockFile];
            std::strcpy(name, kBlockFile);
            return long{svfExtractBraskArchive(BMC_FILE, name, 1)};
        });
        EXPECT_EQ(got.result, c.result);
        std::string err;
        for (const std::string& line : c.err) err += kErr + line + "\n";
        EXPECT_EQ(got.err, err);
        EXPECT_EQ(got.leakedDescriptors + got.leakedMappings, 0);

        const Tree now = snapshotTree({"/conf"});
        std::set<std::string> listed;
        for (const FileAfter& f : c.after) {
            listed.insert(f.path);
            const auto it = now.find(f.path);
            ASSERT_EQ(it != now.end(), f.content.has_value()) << f.path;
            if (!f.content) continue;
            EXPECT_EQ(it->second.content, *f.content) << f.path;
            if (f.mode != 0) {
                EXPECT_EQ(it->second.mode & 07777, f.mode) << f.path;
            }
        }
        for (const std::string& path : changedPaths(before, now)) {
            EXPECT_TRUE(listed.count(path)) << "unexpected change: " << path;
        }
    }
}

// Every delete-first row of the catalogue goes, except those the block
// writes back; block 0 holds no catalogue row and deletes nothing.
TEST(BlockReader, DeleteFirstRowsAreRemovedUnlessTheBlockCarriesThem) {
    const auto doomed = deleteFirstPaths();
    ASSERT_EQ(doomed.size(), 69u);
    for (const auto& p : doomed) writeFile(p, "live " + p);
    writeBytes("/var/brask/BMC.bak-0", test::block({}));
    char block0[] = "/var/brask/BMC.bak-0";
    ASSERT_EQ(svfExtractBraskArchive(BMC_FILE, block0, 0), 0);
    for (const auto& p : doomed) EXPECT_TRUE(exists(p)) << p;

    const std::set<std::string> kept = {doomed[0], doomed[30], doomed[68]};
    std::vector<StoredEntry> entries;
    for (const auto& p : kept) entries.push_back(entry(p, "archived " + p, 0100600));
    writeBytes(kBlockFile, test::block(entries));
    char block1[] = "/var/brask/BMC.bak-1";
    ASSERT_EQ(svfExtractBraskArchive(BMC_FILE, block1, 1), 0);
    for (const auto& p : doomed) {
        EXPECT_EQ(exists(p), kept.count(p) == 1) << p;
        if (kept.count(p)) {
            EXPECT_EQ(readFile(p), "archived " + p);
        }
    }
}

TEST(BlockReader, OwnerAndDeviceRestoresFollowTheirFiles) {
    StoredEntry resolv = entry(kResolv, "x");
    if (canChown()) resolv.uid = resolv.gid = 1234;
    // An FRU backup file: its 16-byte header counts the data bytes after it.
    StoredEntry fru = entry("/conf/brask/FRUBACKUP.dat", "");
    fru.data = Bytes(16 + 8, 0);
    fru.data[0] = 8;
    for (int i = 0; i < 8; ++i) fru.data[16 + i] = static_cast<std::uint8_t>(0x50 + i);
    writeBytes(kBlockFile, test::block({resolv, fru, entry("/conf/brask/PostCheckCode.dat", "0123456789")}));
    hostFruClearAccessLog();
    char name[] = "/var/brask/BMC.bak-1";
    ASSERT_EQ(svfExtractBraskArchive(BMC_FILE, name, 1), 0);

    struct stat st {};
    ASSERT_EQ(::stat(kResolv, &st), 0);
    EXPECT_EQ(st.st_uid, resolv.uid);
    EXPECT_EQ(st.st_gid, resolv.gid);
    hostFruAccess_T log[64];
    const int n = std::min(hostFruAccessLog(log, 64), 64);
    EXPECT_TRUE(std::any_of(log, log + n, [](const auto& a) { return a.Cmd == 0x12; }));
    Bytes ee(10);
    ASSERT_EQ(hostEepromRead(0x780C, ee.data(), 10), 0);
    EXPECT_EQ(std::string(ee.begin(), ee.end()), "0123456789");
    // A device that refuses the FRU restore does not fail the block.
    hostFruRefuseWrites(0xC1);
    EXPECT_EQ(svfExtractBraskArchive(BMC_FILE, name, 1), 0);
}

}  // namespace
}  // namespace brask::test
