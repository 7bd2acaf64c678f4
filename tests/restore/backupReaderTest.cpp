// Validation and splitting of a received backup file, and the block-by-block
// extraction under the file semaphore.
#include <cstring>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "restoreTestSupport.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kBackup[] = "/var/brask/BMC.bak";

ByteVec sampleBackup(BackupSpec shape = {}) {
    shape.blocks = {buildBlock({}), buildBlock({entryFor("/conf/resolv.conf", "restored\n"),
                                               entryFor("/conf/hid.conf", "hid\n")})};
    return buildBackup(shape);
}

struct ReaderCase {
    const char* name;
    ByteVec (*file)();  // null: no file at all
    INT8U fwType;
    INT8U mode;
    int expected;
};

ByteVec flipped(std::size_t at) {
    ByteVec f = sampleBackup();
    f[at] ^= 0x10;
    return f;
}

ByteVec withDescriptor(unsigned block, std::uint32_t offset, std::int32_t size) {
    ByteVec f = sampleBackup();
    std::uint8_t* d = f.data() + 96 + 16 * block;
    std::memcpy(d, &offset, 4);
    std::memcpy(d + 4, &size, 4);
    sealBackup(f);
    return f;
}

const ReaderCase kReaderCases[] = {
    {"Missing", nullptr, BMC_FILE, BMC_WEB_CONSOLE, -2},
    {"ShorterThanHeader", [] { return ByteVec(95, 0); }, BMC_FILE, BMC_WEB_CONSOLE, -2},
    {"FlippedHeaderByte", [] { return flipped(40); }, BMC_FILE, BMC_WEB_CONSOLE, -4},
    {"FlippedTableByte", [] { return flipped(100); }, BMC_FILE, BMC_WEB_CONSOLE, -4},
    {"FlippedBlockByte", [] { return flipped(sampleBackup().size() - 2); }, BMC_FILE,
     BMC_WEB_CONSOLE, -4},
    {"Version2",
     [] {
         BackupSpec s;
         s.version = 2;
         return sampleBackup(s);
     },
     BMC_FILE, BMC_WEB_CONSOLE, -9},
    {"OtherFwType", [] { return sampleBackup(); }, EFI_FILE, BMC_WEB_CONSOLE, -8},
    {"FwTypeOutOfRange", [] { return sampleBackup(); }, 2, BMC_WEB_CONSOLE, -1},
    {"DataRev1Web",
     [] {
         BackupSpec s;
         s.dataRev = 1;
         return sampleBackup(s);
     },
     BMC_FILE, BMC_WEB_CONSOLE, -7},
    {"DataRev1Svp",
     [] {
         BackupSpec s;
         s.dataRev = 1;
         return sampleBackup(s);
     },
     BMC_FILE, SVP_CONSOL, -7},
    {"DataRev1NplusM",
     [] {
         BackupSpec s;
         s.dataRev = 1;
         return sampleBackup(s);
     },
     BMC_FILE, N_P_M, 0},
    {"OtherModel",
     [] {
         BackupSpec s;
         s.ownIdentity = false;
         s.model = "OTHER-MODEL";
         s.serial = "SN0001";
         return sampleBackup(s);
     },
     BMC_FILE, BMC_WEB_CONSOLE, -6},
    {"OtherSerial",
     [] {
         BackupSpec s;
         svfBraskBackupFileHeader_T own{};
         svfGetProductIdFru(&own);
         s.ownIdentity = false;
         s.model.assign(reinterpret_cast<char*>(own.ModelNumber), sizeof own.ModelNumber);
         s.serial = "SN9999";
         return sampleBackup(s);
     },
     BMC_FILE, BMC_WEB_CONSOLE, -6},
    {"OtherServerNplusM",
     [] {
         BackupSpec s;
         s.ownIdentity = false;
         s.model = "OTHER-MODEL";
         s.serial = "SN9999";
         return sampleBackup(s);
     },
     BMC_FILE, N_P_M, 0},
    {"BlockPastEnd", [] { return withDescriptor(1, 136, 1 << 20); }, BMC_FILE, BMC_WEB_CONSOLE,
     -1},
    {"OffsetPastEnd", [] { return withDescriptor(1, 0x7FFFFFF0, 8); }, BMC_FILE, BMC_WEB_CONSOLE,
     -1},
    {"NegativeBlockSize", [] { return withDescriptor(1, 136, -1); }, BMC_FILE, BMC_WEB_CONSOLE,
     -1},
    // Inside the file, so split as described; its own sum then fails.
    {"BlockShorterThanItsHeader", [] { return withDescriptor(1, 136, 4); }, BMC_FILE,
     BMC_WEB_CONSOLE, -4},
};

class BackupReader : public RestoreTest, public ::testing::WithParamInterface<ReaderCase> {};

TEST_P(BackupReader, AnswersItsCodeAndLeavesConfAlone) {
    populateConf();
    // The reader opens the backup file of the type it is asked for.
    if (GetParam().file != nullptr)
        writeBytes(GetParam().fwType == EFI_FILE ? "/var/brask/EFI.bak" : kBackup, GetParam().file());
    const auto before = snapshotTree();
    INT8U blocks = 0xEE;
    EXPECT_EQ(svfExtractBraskBackupFile(GetParam().fwType, GetParam().mode, &blocks),
              GetParam().expected);
    EXPECT_EQ(diffSnapshots(before, snapshotTree()), "");
    if (GetParam().expected == 0) {
        EXPECT_EQ(blocks, GetParam().mode == N_P_M ? 1 : 2);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, BackupReader, ::testing::ValuesIn(kReaderCases),
                         [](const auto& p) { return std::string(p.param.name); });

TEST_F(RestoreTest, EveryTruncationIsRefused) {
    const ByteVec full = sampleBackup();
    for (std::size_t len = 0; len < full.size(); ++len) {
        writeBytes(kBackup, ByteVec(full.begin(), full.begin() + static_cast<long>(len)));
        INT8U blocks = 0;
        const int rc = svfExtractBraskBackupFile(BMC_FILE, BMC_WEB_CONSOLE, &blocks);
        EXPECT_TRUE(rc == -1 || rc == -2 || rc == -4) << "length " << len << " gave " << rc;
    }
}

TEST_F(RestoreTest, SplitWritesEachBlockBesideTheBackup) {
    BackupSpec shape;
    const ByteVec b0 = buildBlock({});
    const ByteVec b1 = buildBlock({entryFor("/conf/resolv.conf", "x")});
    shape.blocks = {b0, b1};
    writeBytes(kBackup, buildBackup(shape));
    INT8U blocks = 0;
    ASSERT_EQ(svfExtractBraskBackupFile(BMC_FILE, BMC_WEB_CONSOLE, &blocks), 0);
    EXPECT_EQ(blocks, 2);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-0"), b0);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-1"), b1);

    // A block file is cut before its descriptor is looked at.
    writeBytes(kBackup, withDescriptor(1, 136, 1 << 20));
    EXPECT_EQ(svfExtractBraskBackupFile(BMC_FILE, BMC_WEB_CONSOLE, &blocks), -1);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-1"), ByteVec{});
}

TEST_F(RestoreTest, NplusMSplitsBlockZeroOnly) {
    writeBytes(kBackup, sampleBackup());
    INT8U blocks = 0;
    ASSERT_EQ(svfExtractBraskBackupFile(BMC_FILE, N_P_M, &blocks), 0);
    EXPECT_EQ(blocks, 1);
    EXPECT_TRUE(exists("/var/brask/BMC.bak-0"));
    EXPECT_FALSE(exists("/var/brask/BMC.bak-1"));
}

// ---- Block-by-block extraction ---------------------------------------------------
void splitSample() {
    writeBytes(kBackup, sampleBackup());
    INT8U blocks = 0;
    ASSERT_EQ(svfExtractBraskBackupFile(BMC_FILE, BMC_WEB_CONSOLE, &blocks), 0);
}

TEST_F(RestoreTest, ExtractionRestoresBlocksAndBringsBackInterfaces) {
    for (const bool maintenance : {false, true}) {
        splitSample();
        writeFile("/conf/interfaces", "live\n");
        writeFile("/conf/back_interfaces", "kept aside\n");
        hostSetMaintenanceMode(maintenance ? 1 : 0);
        ASSERT_EQ(svfExtractBraskArchiveblock(BMC_FILE, 2), 0);
        EXPECT_EQ(readFile("/conf/resolv.conf"), "restored\n");
        EXPECT_EQ(readFile("/conf/interfaces"), maintenance ? "live\n" : "kept aside\n");
        EXPECT_EQ(exists("/conf/back_interfaces"), maintenance);
    }
}

TEST_F(RestoreTest, ExtractionStopsAtSemaphoreOrBlockFailure) {
    splitSample();
    writeFile("/conf/resolv.conf", "old\n");
    ASSERT_EQ(hostFailCall("hslAcquireSysvSemaphore", 1, 1, EAGAIN), 0);
    EXPECT_EQ(svfExtractBraskArchiveblock(BMC_FILE, 2), -1);  // block 0 done, block 1 refused
    EXPECT_EQ(readFile("/conf/resolv.conf"), "old\n");

    hostResetFaults();
    hostResetCounters();
    EXPECT_EQ(svfExtractBraskArchiveblock(BMC_FILE, 3), -1);  // no third block file
    EXPECT_EQ(readFile("/conf/resolv.conf"), "restored\n");
    EXPECT_EQ(svfExtractBraskArchiveblock(2, 1), -1);
    // Every acquired semaphore was given back.
    EXPECT_EQ(hostCallCount("hslAcquireSysvSemaphore"), hostCallCount("hslReleaseSysvSemaphore"));
}

}  // namespace
}  // namespace brask::test
