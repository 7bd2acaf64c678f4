// The archive block writer and the backup file writer: byte layouts,
// checksums, catalogue handling and behaviour under faults.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "archive/format.h"
#include "archive/writers.h"
#include "archiveTestSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace {

namespace f = brask::format;
using brask::test::exists;
using brask::test::readBytes;
using brask::test::writeFile;
using Bytes = std::vector<std::uint8_t>;

constexpr char kTestBackup[] = "/var/brask/TEST.bak";

BackupFileList_T row(const char* path, INT8U existence, INT8U block = 1) {
    BackupFileList_T r{};
    std::strncpy(r.FilePass, path, sizeof r.FilePass - 1);
    r.ExistencType = existence;
    r.TargetArcBlock = block;
    return r;
}

brask::catalogue::Selection selection(const std::vector<BackupFileList_T>& rows) {
    return {rows.data(), static_cast<int>(rows.size()), kTestBackup};
}

Bytes blockFile(const char* backup, int n) { return readBytes(std::string(backup) + "-" + std::to_string(n)); }

// The entries of a block that must decode whole.
std::vector<f::ArchiveEntry> entriesOf(const Bytes& block) {
    std::vector<f::ArchiveEntry> out;
    EXPECT_TRUE(brask::test::decodesFully(block, &out));
    return out;
}

struct Resources {
    int fds = brask::test::openDescriptorCount();
    int maps = brask::test::mappingCount();
    void expectReleased() const {
        EXPECT_EQ(brask::test::openDescriptorCount(), fds);
        EXPECT_EQ(brask::test::mappingCount(), maps);
    }
};

class Writers : public ::testing::Test {
protected:
    void SetUp() override {
        hostResetFaults();
        const INT8U time[4] = {0x01, 0x02, 0x03, 0x04};
        hostSetSelTime(time);
    }
    void TearDown() override {
        hostResetFaults();
        hostClearSelTime();
    }
};

// ---- Archive blocks -------------------------------------------------------------

TEST_F(Writers, BlockLayoutSkippingMissingOptionalFiles) {
    writeFile("/conf/a.bak", "abc", 0640);
    writeFile("/conf/ab.bak", "", 0600);
    const std::vector<BackupFileList_T> rows = {row("/conf/a", STATIC), row("/conf/none", DYNAMIC, 0),
                                                row("/conf/ab", STATIC), row("/conf/absent", DYNAMIC)};
    ASSERT_EQ(brask::archive::createArchive(selection(rows), 4, 2), 0);
    // Block 0 had only a missing optional file: the header alone.
    EXPECT_EQ(blockFile(kTestBackup, 0), (Bytes{0x01, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}));

    const Bytes block = blockFile(kTestBackup, 1);
    ASSERT_EQ(block.size(), 74u);
    EXPECT_EQ(block[2] | block[3] << 8, 2);
    EXPECT_EQ(f::wordSum(block), 0u);
    const auto entries = entriesOf(block);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].entryOffset, 8u);
    EXPECT_EQ(entries[0].info.FileOffset, 39u);
    EXPECT_EQ(entries[0].info.FileSize, 3);
    EXPECT_EQ(entries[0].name, "/conf/a.bak");
    EXPECT_EQ(entries[0].info.FilePermission, 0100640u);
    EXPECT_EQ(entries[0].info.FileUid, ::getuid());
    EXPECT_EQ(entries[1].entryOffset, 42u);
    EXPECT_EQ(entries[1].info.FileOffset, 74u);
    EXPECT_EQ(entries[1].info.FileSize, 0);
    EXPECT_EQ(entries[1].name, "/conf/ab.bak");
    EXPECT_EQ(entries[1].info.FilePermission, 0100600u);
}

TEST_F(Writers, OnlyTheFirstNumOfFilesRowsArePacked) {
    writeFile("/conf/a.bak", "1");
    writeFile("/conf/b.bak", "2");
    const std::vector<BackupFileList_T> rows = {row("/conf/a", STATIC), row("/conf/b", STATIC)};
    ASSERT_EQ(brask::archive::createArchive(selection(rows), 1, 2), 0);
    EXPECT_EQ(entriesOf(blockFile(kTestBackup, 1)).size(), 1u);
    // More rows than the catalogue has are never read.
    ASSERT_EQ(brask::archive::createArchive(selection(rows), 500, 2), 0);
    EXPECT_EQ(entriesOf(blockFile(kTestBackup, 1)).size(), 2u);
}

// ---- Backup files ------------------------------------------------------------------

struct BackupView {
    Bytes file;
    svfBraskBackupFileHeader_T header{};
    std::vector<svfBraskBackupFileBlockInfo_T> table;
    std::vector<Bytes> blocks;
};

// Reads a backup file and checks what every one holds: a zero-sum header
// area that decodes and encodes back to the same bytes, then each block
// file's bytes, in order and back to back.
BackupView readBackup(const char* path) {
    BackupView v;
    v.file = readBytes(path);
    if (f::decodeBackupHeader(v.file, v.header) != f::Status::Ok) {
        ADD_FAILURE() << path << " does not decode";
        return v;
    }
    const auto raw = f::encodeBackupHeader(v.header);
    EXPECT_EQ(0, std::memcmp(raw.data(), v.file.data(), f::kBackupHeaderSize));
    std::uint32_t offset = static_cast<std::uint32_t>(f::backupHeaderAreaSize(v.header.NumOfBlock));
    EXPECT_EQ(f::wordSum(f::Bytes(v.file.data(), offset)), 0u);
    for (unsigned i = 0; i < v.header.NumOfBlock; ++i) {
        SCOPED_TRACE("block " + std::to_string(i));
        svfBraskBackupFileBlockInfo_T info{};
        EXPECT_EQ(f::decodeBlockInfo(v.file, i, info), f::Status::Ok);
        EXPECT_EQ(0, std::memcmp(f::encodeBlockInfo(info).data(), &v.file[f::kBackupHeaderSize + f::kBlockInfoSize * i], f::kBlockInfoSize));
        EXPECT_EQ(info.BlockOffset, offset);
        EXPECT_EQ(info.CrypticType, 0);
        EXPECT_EQ(info.InheritanceType, i == 0 ? 7 : i == 1 ? 6 : 2);
        f::Bytes block;
        EXPECT_EQ(f::blockBytes(v.file, info, block), f::Status::Ok);
        v.table.push_back(info);
        v.blocks.emplace_back(block.begin(), block.end());
        EXPECT_EQ(v.blocks.back(), blockFile(path, static_cast<int>(i)));
        EXPECT_EQ(f::wordSum(block), 0u);
        offset += static_cast<std::uint32_t>(info.BlockSize);
    }
    EXPECT_EQ(offset, v.file.size());
    return v;
}

// Bytes 82..91 of the header: the SEL time stamp (little-endian), the BMC
// and EFI revisions, the firmware type and the block count.
Bytes stampToCount(const BackupView& v) { return Bytes(v.file.begin() + 82, v.file.begin() + 92); }

TEST_F(Writers, BmcBackupOfThePopulatedCatalogue) {
    const auto written = brask::test::populateConf({.optionalFiles = true, .backupCopies = true});
    ASSERT_EQ(hostFruMakeImage(2048, "MODEL-X200", "SERIAL-77"), 0);
    const Resources before;
    ASSERT_EQ(svfCreateBraskBackupFile(BMC_FILE), 0);
    before.expectReleased();

    const BackupView v = readBackup("/var/brask/BMC.bak");
    EXPECT_EQ(v.header.Version, 1);
    EXPECT_EQ(v.header.DataRev, 0);
    // No BIOS configuration: EFI revision 0.0 for a BMC backup.
    EXPECT_EQ(stampToCount(v), (Bytes{0x04, 0x03, 0x02, 0x01, 2, 17, 0, 0, 1, 2}));
    ASSERT_EQ(v.blocks.size(), 2u);
    EXPECT_EQ(v.blocks[0].size(), 8u);
    EXPECT_STREQ(reinterpret_cast<const char*>(v.header.ModelNumber), "MODEL-X200");
    EXPECT_STREQ(reinterpret_cast<const char*>(v.header.SerialNumber), "SERIAL-77");

    // Block 1 holds the existing copies, in catalogue order, with their modes.
    const auto entries = entriesOf(v.blocks[1]);
    ASSERT_EQ(entries.size(), written.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        SCOPED_TRACE(written[i]);
        EXPECT_EQ(entries[i].name, written[i] + ".bak");
        EXPECT_EQ(Bytes(entries[i].data.begin(), entries[i].data.end()), readBytes(written[i]));
        struct stat st {};
        ASSERT_EQ(::stat((written[i] + ".bak").c_str(), &st), 0);
        EXPECT_EQ(entries[i].info.FilePermission, st.st_mode);
    }
    EXPECT_EQ(entries.back().name, "/conf/BMC1/PMConfig.dat.bak");
}

TEST_F(Writers, EfiBackupHasOneEmptyBlock) {
    brask::test::writeBytes("/conf/brask/BIOSConfig.dat", {1, 0, 0, 0, 5, 3});
    ASSERT_EQ(svfCreateBraskBackupFile(EFI_FILE), 0);
    const BackupView v = readBackup("/var/brask/EFI.bak");
    EXPECT_EQ(stampToCount(v), (Bytes{0x04, 0x03, 0x02, 0x01, 2, 17, 5, 3, 0, 1}));
    ASSERT_EQ(v.blocks.size(), 1u);
    EXPECT_EQ(v.table[0].BlockOffset, 112u);
    EXPECT_EQ(v.blocks[0].size(), 8u);
}

TEST_F(Writers, ThreeBlocksAndTheBlockLimit) {
    writeFile("/conf/x.bak", "xx");
    std::vector<BackupFileList_T> rows = {row("/conf/x", STATIC, 2)};
    ASSERT_EQ(brask::archive::createBackupFile(selection(rows), BMC_FILE), 0);
    const BackupView v = readBackup(kTestBackup);
    ASSERT_EQ(v.header.NumOfBlock, 3);
    EXPECT_EQ(v.table[2].BlockOffset, 144u + 16u);

    ::unlink(kTestBackup);
    ::unlink((std::string(kTestBackup) + "-0").c_str());
    rows[0].TargetArcBlock = 3;
    testing::internal::CaptureStdout();
    EXPECT_EQ(brask::archive::createBackupFile(selection(rows), BMC_FILE), -1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Arc Block too much number \n"), std::string::npos);
    EXPECT_FALSE(exists(kTestBackup));
    EXPECT_FALSE(exists(std::string(kTestBackup) + "-0"));
}

// ---- Faults -------------------------------------------------------------------------

TEST_F(Writers, FaultsGiveTheirResultAndReleaseEverything) {
    const struct {
        const char* name;
        void (*inject)();
        int result;
        std::vector<std::string> messages;  // expected on stderr
    } faults[] = {
        {"FRU read refused", [] { hostIpmiFailCmd(0x11, 2, 1, 0xC1); }, -1, {"API_ExecuteCmd Fail\n"}},
        {"SEL time refused", [] { hostIpmiFailCmd(0x48, 0, 1, 0xC1); }, -1, {"API_ExecuteCmd Fail\n"}},
        {"FwInfo missing", [] { brask::test::removeFwInfo(); }, -1, {}},
        {"mandatory copy missing", [] { ::unlink("/conf/passwd.bak"); }, SVF_ARCHIVE_MISSING_FILE,
         {"fopen fail(2)\n", "svfCreateBraskArchive fail\n"}},
        {"backup path is a directory", [] { ::mkdir("/var/brask/BMC.bak", 0755); }, -1, {"system cmd fail("}},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.name);
        brask::test::resetState();
        hostResetFaults();
        brask::test::populateConf({.optionalFiles = true, .backupCopies = true});
        fault.inject();
        const Resources before;
        testing::internal::CaptureStderr();
        EXPECT_EQ(svfCreateBraskBackupFile(BMC_FILE), fault.result);
        const std::string err = testing::internal::GetCapturedStderr();
        for (const std::string& m : fault.messages) EXPECT_NE(err.find(m), std::string::npos) << err;
        before.expectReleased();
    }
}

}  // namespace
