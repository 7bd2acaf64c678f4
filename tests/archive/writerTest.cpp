// The archive block writer and the backup file writer: byte layouts,
// checksums, catalogue handling and behaviour under faults.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "archive/format.h"
#include "archive/writers.h"
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

std::vector<f::ArchiveEntry> entriesOf(const Bytes& block) {
    std::vector<f::ArchiveEntry> out;
    svfBraskArchiveFileHeader_T h{};
    EXPECT_EQ(f::decodeArchiveHeader(block, h), f::Status::Ok);
    std::size_t p = f::kArchiveHeaderSize;
    for (unsigned i = 0; i < h.NumOfEntry; ++i) {
        f::ArchiveEntry e;
        EXPECT_EQ(f::decodeArchiveEntry(block, p, e), f::Status::Ok);
        if (::testing::Test::HasFailure()) break;
        out.push_back(e);
        p = e.nextOffset;
    }
    EXPECT_EQ(p, block.size());
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

TEST_F(Writers, BlockOfMissingOptionalFilesIsTheHeaderAlone) {
    const std::vector<BackupFileList_T> rows = {row("/conf/none1", DYNAMIC, 0), row("/conf/none2", DYNAMIC, 0)};
    ASSERT_EQ(brask::archive::createArchive(selection(rows), 2, 1), 0);
    EXPECT_EQ(blockFile(kTestBackup, 0), (Bytes{0x01, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST_F(Writers, TwoEntryBlockLayout) {
    writeFile("/conf/a.bak", "abc", 0640);
    writeFile("/conf/ab.bak", "", 0600);
    const std::vector<BackupFileList_T> rows = {row("/conf/a", STATIC), row("/conf/ab", STATIC),
                                                row("/conf/absent", DYNAMIC)};
    ASSERT_EQ(brask::archive::createArchive(selection(rows), 3, 2), 0);

    const Bytes block = blockFile(kTestBackup, 1);
    ASSERT_EQ(block.size(), 74u);
    EXPECT_EQ(f::getU16(&block[2]), 2);
    EXPECT_EQ(f::wordSum(block), 0u);
    const auto entries = entriesOf(block);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].entryOffset, 8u);
    EXPECT_EQ(entries[0].info.FileOffset, 39u);
    EXPECT_EQ(entries[0].info.FileSize, 3);
    EXPECT_EQ(entries[0].name, "/conf/a.bak");
    EXPECT_EQ(entries[0].info.FilePermission, 0100640u);
    EXPECT_EQ(entries[1].entryOffset, 42u);
    EXPECT_EQ(entries[1].info.FileOffset, 74u);
    EXPECT_EQ(entries[1].info.FileSize, 0);
    EXPECT_EQ(entries[1].name, "/conf/ab.bak");
    EXPECT_EQ(entries[1].info.FilePermission, 0100600u);
    EXPECT_EQ(entries[0].info.FileUid, ::getuid());
    // Block 0 had no rows.
    EXPECT_EQ(blockFile(kTestBackup, 0).size(), 8u);
}

TEST_F(Writers, MissingMandatoryCopyGivesMinusThree) {
    const std::vector<BackupFileList_T> rows = {row("/conf/absent", STATIC)};
    const Resources before;
    testing::internal::CaptureStderr();
    EXPECT_EQ(brask::archive::createArchive(selection(rows), 1, 2), -3);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("fopen fail(2)\n"), std::string::npos);
    before.expectReleased();
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
};

BackupView readBackup(const char* path) {
    BackupView v;
    v.file = readBytes(path);
    EXPECT_EQ(f::decodeBackupHeader(v.file, v.header), f::Status::Ok);
    for (unsigned i = 0; i < v.header.NumOfBlock; ++i) {
        svfBraskBackupFileBlockInfo_T info{};
        EXPECT_EQ(f::decodeBlockInfo(v.file, i, info), f::Status::Ok);
        v.table.push_back(info);
    }
    return v;
}

void expectBlocksAsWritten(const BackupView& v, const char* path) {
    std::uint32_t offset = static_cast<std::uint32_t>(f::backupHeaderAreaSize(v.header.NumOfBlock));
    EXPECT_EQ(f::wordSum(f::Bytes(v.file.data(), offset)), 0u);
    for (unsigned i = 0; i < v.table.size(); ++i) {
        SCOPED_TRACE("block " + std::to_string(i));
        EXPECT_EQ(v.table[i].BlockOffset, offset);
        EXPECT_EQ(v.table[i].CrypticType, 0);
        EXPECT_EQ(v.table[i].InheritanceType, i == 0 ? 7 : i == 1 ? 6 : 2);
        f::Bytes block;
        ASSERT_EQ(f::blockBytes(v.file, v.table[i], block), f::Status::Ok);
        EXPECT_EQ(Bytes(block.begin(), block.end()), blockFile(path, static_cast<int>(i)));
        EXPECT_EQ(f::wordSum(block), 0u);
        offset += static_cast<std::uint32_t>(v.table[i].BlockSize);
    }
    EXPECT_EQ(offset, v.file.size());
}

TEST_F(Writers, BmcBackupOfThePopulatedCatalogue) {
    const auto written = brask::test::populateConf({.optionalFiles = true, .backupCopies = true});
    ASSERT_EQ(hostFruMakeImage(2048, "MODEL-X200", "SERIAL-77"), 0);
    const Resources before;
    ASSERT_EQ(svfCreateBraskBackupFile(BMC_FILE), 0);
    before.expectReleased();

    const BackupView v = readBackup("/var/brask/BMC.bak");
    EXPECT_EQ(v.header.Version, 1);
    EXPECT_EQ(v.header.DataRev, 0);
    EXPECT_EQ(v.header.FwType, 1);
    ASSERT_EQ(v.header.NumOfBlock, 2);
    EXPECT_EQ(v.table[0].BlockOffset, 128u);
    EXPECT_EQ(v.table[0].BlockSize, 8);
    EXPECT_EQ(v.table[1].BlockOffset, 136u);
    EXPECT_EQ(Bytes(v.file.begin() + 82, v.file.begin() + 86), (Bytes{0x04, 0x03, 0x02, 0x01}));
    EXPECT_EQ(v.header.TimeStamp, 0x01020304u);
    EXPECT_EQ(v.header.BmcRev.Major, 2);
    EXPECT_EQ(v.header.BmcRev.Minor, 17);
    EXPECT_EQ(v.header.EfiRev.Major, 0);  // no BIOS configuration: 0.0 for BMC
    EXPECT_STREQ(reinterpret_cast<const char*>(v.header.ModelNumber), "MODEL-X200");
    EXPECT_STREQ(reinterpret_cast<const char*>(v.header.SerialNumber), "SERIAL-77");
    expectBlocksAsWritten(v, "/var/brask/BMC.bak");

    // Block 1 holds the existing copies, in catalogue order, with their modes.
    f::Bytes block1;
    ASSERT_EQ(f::blockBytes(v.file, v.table[1], block1), f::Status::Ok);
    const Bytes b1(block1.begin(), block1.end());
    const auto entries = entriesOf(b1);
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
    EXPECT_EQ(v.header.FwType, 0);
    ASSERT_EQ(v.header.NumOfBlock, 1);
    EXPECT_EQ(v.table[0].BlockOffset, 112u);
    EXPECT_EQ(v.table[0].BlockSize, 8);
    EXPECT_EQ(v.file.size(), 120u);
    EXPECT_EQ(v.header.EfiRev.Major, 5);
    EXPECT_EQ(v.header.EfiRev.Minor, 3);
    expectBlocksAsWritten(v, "/var/brask/EFI.bak");
}

TEST_F(Writers, ThreeBlocksAndTheBlockLimit) {
    writeFile("/conf/x.bak", "xx");
    std::vector<BackupFileList_T> rows = {row("/conf/x", STATIC, 2)};
    ASSERT_EQ(brask::archive::createBackupFile(selection(rows), BMC_FILE), 0);
    const BackupView v = readBackup(kTestBackup);
    ASSERT_EQ(v.header.NumOfBlock, 3);
    EXPECT_EQ(v.table[2].BlockOffset, 144u + 16u);
    expectBlocksAsWritten(v, kTestBackup);

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

struct Fault {
    const char* name;
    void (*inject)();
    int result;
    const char* message;  // expected on stderr ("" for none)
};

TEST_F(Writers, FaultsGiveTheirResultAndReleaseEverything) {
    const std::vector<Fault> faults = {
        {"FRU read refused", [] { hostIpmiFailCmd(0x11, 2, 1, 0xC1); }, -1, "API_ExecuteCmd Fail\n"},
        {"IPMI call fails", [] { hostFailCall("API_ExecuteCmd", 0, 1, 0); }, -1, "API_ExecuteCmd Fail\n"},
        {"SEL time refused", [] { hostIpmiFailCmd(0x48, 0, 1, 0xC1); }, -1, "API_ExecuteCmd Fail\n"},
        {"FwInfo missing", [] { brask::test::removeFwInfo(); }, -1, ""},
        {"mandatory copy missing", [] { ::unlink("/conf/passwd.bak"); }, -3, "svfCreateBraskArchive fail\n"},
        {"backup path is a directory", [] { ::mkdir("/var/brask/BMC.bak", 0755); }, -1, "system cmd fail("},
    };
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.name);
        brask::test::resetState();
        hostResetFaults();
        brask::test::populateConf({.optionalFiles = true, .backupCopies = true});
        fault.inject();
        const Resources before;
        testing::internal::CaptureStderr();
        EXPECT_EQ(svfCreateBraskBackupFile(BMC_FILE), fault.result);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(fault.message), std::string::npos) << err;
        before.expectReleased();
    }
}

// A full /var/brask: a tiny tmpfs fails the block writer, a larger one the
// concatenation.  Needs mount rights inside the sandbox.
TEST_F(Writers, FullDisk) {
    const struct {
        const char* size;
        const char* message;
    } cases[] = {{"size=64k", "fwrite fail("}, {"size=400k", "system cmd fail("}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        brask::test::resetState();
        brask::test::populateConf({.optionalFiles = true, .backupCopies = true});
        if (::mount("tmpfs", "/var/brask", "tmpfs", 0, c.size) != 0) {
            GTEST_SKIP() << "cannot mount a tmpfs on /var/brask here: " << std::strerror(errno);
        }
        const Resources before;
        testing::internal::CaptureStderr();
        const int rc = svfCreateBraskBackupFile(BMC_FILE);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(rc, -1);
        EXPECT_NE(err.find(c.message), std::string::npos) << err;
        before.expectReleased();
        ASSERT_EQ(::umount2("/var/brask", MNT_DETACH), 0);
    }
}

}  // namespace
