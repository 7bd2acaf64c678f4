// Extraction of one archive block over the live /conf: each row writes some
// live files of its own, extracts one block and compares the result, the
// error lines in order and every file the block may touch; any other change
// under /conf fails the row.  A block refused as a whole must leave a
// realistic /conf alone, delete-first files included.  The capability
// record keeps its live fields and takes InterfaceREV from the backup.
// Then what a block's files restore beyond themselves (owners, the FRU, the
// EEPROM images), the capability record's own failures, and the recovery of
// backup copies.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>

#include "archive/catalogue.h"
#include "archive/readers.h"
#include "support/suite.h"

namespace brask::test {
namespace {

constexpr char kBlockFile[] = "/var/brask/BMC.bak-1";
constexpr char kPmConfig[] = "/conf/BMC1/PMConfig.dat";
constexpr char kResolv[] = "/conf/resolv.conf";
constexpr char kHid[] = "/conf/hid.conf";
constexpr char kInterfaces[] = "/conf/interfaces";
constexpr char kCapability[] = "/conf/BMCCapability.dat";

// The shipped catalogue restores every file whole; the part restore of
// PMConfig.dat is reached through a catalogue whose PMConfig row is PART.
catalogue::Selection partCatalogue() {
    static std::vector<BackupFileList_T> rows(BmcBackupFileList,
                                              BmcBackupFileList + SVF_BMC_BACKUP_FILE_COUNT);
    for (auto& row : rows)
        row.TargetPart = std::strcmp(row.FilePass, kPmConfig) == 0 ? INT8U{PART} : row.TargetPart;
    catalogue::Selection sel = catalogue::select(BMC_FILE);
    sel.rows = rows.data();
    return sel;
}

// A record with a 5-character InterfaceREV.
std::string capability(const char* interfaceRev, INT8U webClients) {
    INI_BMC_CAPABILITY_T c{};
    std::memcpy(c.InterfaceREV, interfaceRev, 5);
    c.WebConsoleMaxClient = webClients;
    return std::string(reinterpret_cast<const char*>(&c), sizeof c);
}

long extract(const char* file, INT8U blockNum) {
    char name[64];
    std::strcpy(name, file);
    return svfExtractBraskArchive(BMC_FILE, name, blockNum);
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
    bool failTempWrite = false;  // the first write to PMConfig.dat's temporary fails
};

// Hostile blocks start with a good entry (its descriptor, 21-byte name and
// 12 bytes of data), so refusing them must come before anything is written.
Bytes hostile(StoredEntry bad, std::optional<std::uint16_t> numOfEntry = std::nullopt) {
    return block({entry(kResolv, "overwritten\n"), std::move(bad)}, {}, numOfEntry);
}
Bytes hostileLayout(std::optional<std::uint32_t> offset, std::optional<std::int32_t> size) {
    StoredEntry e = entry(kHid, "data");
    e.fileOffset = offset;
    e.fileSize = size;
    return hostile(e);
}
constexpr std::uint32_t kSecond = 8 + 20 + 21 + 12;

// clang-format off
const std::vector<BlockCase>& cases() {
    static const std::vector<BlockCase> rows = {
        // The shipped row restores PMConfig whole; a capability record not in
        // the block is written back as it was; nothing after the last entry
        // is looked at (svfdump remarks on it).
        {"whole files, mode and owner from the entry",
         {{kResolv, "nameserver 10.0.0.1\n"}, {kPmConfig, "abcdefghijklmnop"}, {kCapability, capability("REV-A", 4)}},
         [] { return block({entry(kResolv, "nameserver 192.0.2.1\n", 0100640), entry(kHid, "", 0100600),
                            entry(kPmConfig, "ABCDEFGHIJ", 0100600)}, Bytes(7, 0xAB)); },
         0, {}, {{kResolv, "nameserver 192.0.2.1\n", 0640}, {kHid, "", 0600}, {kPmConfig, "ABCDEFGHIJ", 0600}}},
        {"interfaces kept as they are in maintenance mode", {{kInterfaces, "live\n"}},
         [] { return block({entry(kInterfaces, "archived\n", 0100600)}); },
         0, {}, {{kInterfaces, "live\n", 0666}}, false, true},
        // A temporary an interrupted restore left of this block's rows goes.
        {"interfaces restored otherwise", {{kInterfaces, "live\n"}, {"/conf/.resolv.conf.svf-new", "stale"}},
         [] { return block({entry(kInterfaces, "archived\n")}); }, 0, {},
         {{kInterfaces, "archived\n", 0644}, {"/conf/.resolv.conf.svf-new", std::nullopt}}},
        {"part restore takes only the catalogue's ranges", {{kPmConfig, "abcdefghijklmnop"}},
         [] { return block({entry(kPmConfig, "ABCDEFGHIJKLMNOP", 0100600)}); },
         0, {}, {{kPmConfig, "ABcdEFGHIjklmnop", 0600}}, true},
        {"part restore whose copy of the live file fails to write", {{kPmConfig, "abcdefghijklmnop"}},
         [] { return block({entry(kPmConfig, "ABCDEFGHIJKLMNOP", 0100600)}); },
         -1, {"fwrite fail(5)"}, {{kPmConfig, "abcdefghijklmnop", 0666}}, true, false, true},
        // ... and ends the entry pass there.
        {"a missing part-restored file is made whole, shorter than its ranges or not", {{kPmConfig, ""}},
         [] { return block({entry(kPmConfig, "ABC", 0100640), entry(kHid, "after\n")}); },
         0, {}, {{kPmConfig, "ABC", 0640}}, true},
        {"a stored name ends at its first NUL", {{kResolv, "old\n"}},
         [] { StoredEntry e = entry(kResolv, "new\n"); e.name += std::string("\0.d", 3); return block({e}); },
         0, {}, {{kResolv, "new\n"}}},
        {"uncatalogued targets are skipped, never written", {{kResolv, "old\n"}},
         [] { return block({entry("/conf/../etc/passwd", "evil\n"), entry("/conf/brask/unknown.dat", "x"),
                            entry("/conf/" + std::string(141, 'n'), "x"), entry(kResolv, "new\n")}); },
         0, {}, {{kResolv, "new\n"}}},
        {"a name without .bak stops the block: earlier entries stay, capability not merged",
         {{kResolv, "old\n"}, {kHid, "old\n"}, {kCapability, std::string(51, 'L')}},
         [] { return block({entry(kResolv, "new\n"), entry(kCapability, std::string(51, 'B')),
                            StoredEntry{.name = "/conf/vmedia.conf", .data = bytesOf("x"), .fileOffset = {}, .fileSize = {}},
                            entry(kHid, "new\n")}); },
         -1, {".bak Unmatch"}, {{kResolv, "new\n"}, {kCapability, std::string(51, 'B')}}},
        {"capability: InterfaceREV from the backup, the rest live", {{kCapability, capability("REV-A", 4)}},
         [] { return block({entry(kCapability, capability("REV-B", 8))}); }, 0, {}, {{kCapability, capability("REV-B", 4)}}},
        {"capability: a live file too short leaves the archived one", {{kCapability, std::string(50, 'x')}},
         [] { return block({entry(kCapability, capability("REV-B", 8))}); }, 0, {}, {{kCapability, capability("REV-B", 8)}}},
        {"capability: so does a missing one", {{kCapability, ""}},
         [] { return block({entry(kCapability, capability("REV-B", 8))}); }, 0, {}, {{kCapability, capability("REV-B", 8)}}},
        {"a flipped bit fails the checksum", {},
         [] { Bytes b = block({entry(kResolv, "new\n")}); b.back() ^= 0x01; return b; },
         -1, {"ChkSum unmatch"}, {}},
        {"an empty block cannot be mapped", {}, [] { return Bytes{}; }, -1, {}, {}},
        {"name of 152 bytes", {}, [] { return hostile(entry("/conf/" + std::string(142, 'n'), "x")); },
         -1, {"Archive entry 1 rejected : name too long"}, {}},
        {"offset inside a descriptor", {}, [] { return hostileLayout(kSecond + 10, {}); },
         -1, {"Archive entry 1 rejected : data offset inside its descriptor"}, {}},
        {"data past the end", {}, [] { return hostileLayout({}, 4096); },
         -1, {"Archive entry 1 rejected : data past the end"}, {}},
        {"negative size", {}, [] { return hostileLayout({}, -8); }, -1, {"Archive entry 1 rejected : negative size"}, {}},
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
    const Observed unnamed = observe([] { return long{svfExtractBraskArchive(BMC_FILE, nullptr, 1)}; });
    EXPECT_EQ(unnamed.result + unnamed.leakedDescriptors, -1);
    EXPECT_EQ(unnamed.err, "BRASK_ERR  : svfBraskArchiver(#) : Parameter Out Of Range\n");
    for (const BlockCase& c : cases()) {
        SCOPED_TRACE(c.what);
        resetState();
        if (c.result != 0 && c.after.empty()) populateConf();
        for (const auto& [path, content] : c.live)
            content.empty() ? (void)std::remove(path.c_str()) : writeFile(path, content, 0666);
        hostSetMaintenanceMode(c.maintenance ? 1 : 0);
        const Bytes blockBytes = c.block();
        writeBytes(kBlockFile, blockBytes);
        const Tree before = snapshotTree({"/conf"});
        std::optional<FailCall> fault;
        if (c.failTempWrite) fault.emplace(Call::Write, EIO, "/conf/BMC1/.PMConfig.dat");
        const WriteLikeCounter flushes("/conf");
        const Observed got = observe([&] {
            return c.partRow ? long{archive::extractArchive(partCatalogue(), kBlockFile, 1)}
                             : extract(kBlockFile, 1);
        });
        fault.reset();
        EXPECT_EQ(got.result, c.result);
        EXPECT_EQ(flushes.violations(), std::vector<Violation>{});  // every file flushed before its rename
        std::string err;
        for (const std::string& line : c.err) err += "BRASK_ERR  : svfBraskArchiver(#) : " + line + "\n";
        EXPECT_EQ(got.err, err);
        EXPECT_EQ(got.leakedDescriptors + got.leakedMappings, 0);
        if (c.result == 0) {
            const std::string count = std::to_string(blockBytes[2] | blockBytes[3] << 8);
            EXPECT_EQ(linesInOrder(got.out,
                                   {"BRASK_DEBUG  : svfBraskArchiver(#) : FileHeader.NumOfEntry = " + count}),
                      "");
        }

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

// Every delete-first row goes, except those the block writes back; block 0
// holds no catalogue row and deletes nothing.
TEST(BlockReader, DeleteFirstRowsAreRemovedUnlessTheBlockCarriesThem) {
    std::vector<std::string> doomed;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        if (row.RestoreType == RESTORE_DELETE_FIRST) writeFile(doomed.emplace_back(row.FilePass), "live");
    }
    writeBytes("/var/brask/BMC.bak-0", block({}));
    ASSERT_EQ(extract("/var/brask/BMC.bak-0", 0), 0);
    for (const auto& p : doomed) EXPECT_TRUE(exists(p)) << p;

    const std::set<std::string> kept = {doomed[0], doomed[30], doomed.back()};
    writeBytes(kBlockFile, block({entry(doomed[0], "archived"), entry(doomed[30], "archived"),
                                  entry(doomed.back(), "archived")}));
    const Observed got = observe([] { return extract(kBlockFile, 1); });
    ASSERT_EQ(got.result, 0);
    EXPECT_EQ(linesInOrder(got.out, {"BRASK_DEBUG  : svfBraskArchiver(#) : rm " + doomed[1]}), "");
    for (const auto& p : doomed)
        EXPECT_EQ(exists(p) ? readFile(p) : "", kept.count(p) ? "archived" : "") << p;
}

Bytes eeprom(INT32U offset, INT32U length) {
    Bytes out(length);
    EXPECT_EQ(hostEepromRead(offset, out.data(), length), 0);
    return out;
}

TEST(BlockReader, OwnerAndDeviceRestoresFollowTheirFiles) {
    StoredEntry resolv = entry(kResolv, "x");
    if (canChown()) resolv.uid = resolv.gid = 1234;
    // An FRU backup file: its 16-byte header counts the data bytes after it.
    StoredEntry fru = entry("/conf/brask/FRUBACKUP.dat", "");
    fru.data = Bytes(16, 0);
    fru.data[0] = 8;
    fru.data.resize(16 + 8, 0x50);
    writeBytes(kBlockFile, block({resolv, fru, entry("/conf/brask/PostCheckCode.dat", "0123456789")}));
    hostFruClearAccessLog();
    ASSERT_EQ(extract(kBlockFile, 1), 0);

    struct stat st {};
    ASSERT_EQ(::stat(kResolv, &st), 0);
    EXPECT_EQ(st.st_uid, resolv.uid);
    EXPECT_EQ(st.st_gid, resolv.gid);
    hostFruAccess_T log[64];
    const int n = std::min(hostFruAccessLog(log, 64), 64);
    EXPECT_TRUE(std::any_of(log, log + n, [](const auto& a) { return a.Cmd == 0x12; }));
    EXPECT_EQ(eeprom(0x780C, 10), bytesOf("0123456789"));
    // A device that refuses the FRU restore does not fail the block.
    hostFruRefuseWrites(0xC1);
    EXPECT_EQ(extract(kBlockFile, 1), 0);
}

// A record that cannot be written back or flushed is a failure, and one
// cannot be read from or written over a short file.
TEST(Capability, FailsOnWriteFlushOrShortFile) {
    writeFile(kCapability, std::string(sizeof(INI_BMC_CAPABILITY_T), 'c'));
    INI_BMC_CAPABILITY_T whole{};
    ASSERT_EQ(svfReadBMCCapability(&whole), 0);
    for (const Call call : {Call::Fwrite, Call::Fclose}) {
        const FailCall fail(call, EIO, kCapability);
        const Observed got = observe([&] { return long{svfUpdateBMCCapability(&whole)}; });
        EXPECT_EQ(got.result, -1);
        EXPECT_EQ(got.out, "BRASK_DEBUG  : svfBraskArchiver(#) : svfUpdateBMCCapability fwrite fail\n");
    }
    // Only the first record of a longer file is read.
    writeFile(kCapability, std::string(2 * sizeof whole, 'c'));
    EXPECT_EQ(svfUpdateBMCCapability(&whole), 0);
    writeFile(kCapability, std::string(50, 'x'));
    INI_BMC_CAPABILITY_T c{};
    EXPECT_EQ(svfReadBMCCapability(&c), -1);
    const Observed shortFile = observe([&] { return long{svfUpdateBMCCapability(&c)}; });
    EXPECT_EQ(shortFile.result, -1);
    EXPECT_EQ(shortFile.out, "BRASK_DEBUG  : svfBraskArchiver(#) : svfUpdateBMCCapability fread fail\n");
    EXPECT_EQ(readFile(kCapability), std::string(50, 'x'));
}

// Each image lands at its own offset, only its first ten bytes, and nothing
// reaches the EEPROM from a file that is missing or short; a failed EEPROM
// write is logged, not returned.
TEST(EepromRestore, WritesOnlyTheFirstTenBytesOfAWholeFile) {
    const struct {
        INT8S (*restore)();
        const char* path;
        INT32U offset;
    } images[] = {{svfRestorePostCheckCode, "/conf/brask/PostCheckCode.dat", 0x780C},
                  {svfRestoreWatchdogParameters, "/conf/brask/WatchdogParameters.dat", 0x7804}};
    for (const auto& c : images) {
        SCOPED_TRACE(c.path);
        resetState();
        const auto blank = eeprom(0x7800, 0x20);
        EXPECT_EQ(c.restore(), 0);
        EXPECT_EQ(hostCallCount("brask_ReadWriteEEPROM"), 0);
        writeBytes(c.path, Bytes(9, 1));
        EXPECT_EQ(c.restore(), static_cast<INT8S>(0xC0));
        EXPECT_EQ(eeprom(0x7800, 0x20), blank);

        writeBytes(c.path, bytesOf("0123456789ab"));
        const Observed restored = observe([&] { return long{c.restore()}; });
        EXPECT_EQ(restored.result, 0);
        EXPECT_EQ(restored.err, "");
        EXPECT_EQ(restored.out.find("error"), std::string::npos) << restored.out;
        EXPECT_EQ(eeprom(c.offset - 1, 12), bytesOf("\xff"
                                                    "0123456789"
                                                    "\xff"));  // blank on each side
        hostResetCounters();
        ASSERT_EQ(hostFailCall("brask_ReadWriteEEPROM", 0, 1, EIO), 0);
        EXPECT_EQ(c.restore(), 0);
        EXPECT_EQ(hostCallCount("brask_ReadWriteEEPROM"), 1);
    }
}

// Every catalogue file comes back from its copy; one without a copy is
// reported and left alone.
TEST(Recovery, RecoverFileCopiesBackupCopiesBack) {
    const auto written = populateConf({.backupCopies = true});
    ASSERT_FALSE(written.empty());
    writeFile("/conf/resolv.conf", "changed\n");
    const std::string orphan = "/conf/brask/bum_home/bmcuser11/sshpubkey4";
    writeFile(orphan, "no backup copy\n");
    (void)std::remove((orphan + ".bak").c_str());
    const Observed got = observe([] { return long{svfRecoverFile()}; });
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(linesInOrder(got.err, {"BRASK_ERR  : svfBraskArchiver(#) : " + orphan + " Recover fail"}), "");
    for (const auto& p : written) EXPECT_EQ(readFile(p), readFile(p + ".bak")) << p;
    EXPECT_EQ(readFile(orphan), "no backup copy\n");
}

}  // namespace
}  // namespace brask::test
