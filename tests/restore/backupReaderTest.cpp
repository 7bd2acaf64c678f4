// Validation and splitting of a received backup file, and the block-by-block
// extraction under the file semaphore.
#include <cstring>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "restoreTestSupport.h"
#include "support/observe.h"
#include "support/scenario.h"
#include "support/tree.h"

namespace brask::test {
namespace {

constexpr char kBackup[] = "/var/brask/BMC.bak";

ByteVec withDescriptor(unsigned block, std::uint32_t offset, std::int32_t size) {
    ByteVec f = sampleBackup();
    std::uint8_t* d = f.data() + 96 + 16 * block;
    std::memcpy(d, &offset, 4);
    std::memcpy(d + 4, &size, 4);
    sealBackup(f);
    return f;
}

struct ReaderCase {
    const char* name;
    ByteVec (*file)();  // null: no file at all
    INT8U fwType;
    INT8U mode;
    int expected;
    const char* err;  // the one error line, "" for none
};

constexpr INT8U kWeb = BMC_WEB_CONSOLE;
const ReaderCase kReaderCases[] = {
    {"Missing", nullptr, BMC_FILE, kWeb, SVF_EXTRACT_NO_FILE, "fopen fail"},
    {"ShorterThanHeader", [] { return ByteVec(95, 0); }, BMC_FILE, kWeb, SVF_EXTRACT_NO_FILE,
     "fread fail(2)"},
    {"FlippedHeaderByte", [] { return flipped(40); }, BMC_FILE, kWeb, SVF_EXTRACT_CHECKSUM_MISMATCH,
     "ChkSum not Match"},
    {"FlippedTableByte", [] { return flipped(100); }, BMC_FILE, kWeb, SVF_EXTRACT_CHECKSUM_MISMATCH,
     "ChkSum not Match"},
    {"FlippedBlockByte", [] { return flipped(sampleBackup().size() - 2); }, BMC_FILE, kWeb,
     SVF_EXTRACT_CHECKSUM_MISMATCH, "ChkSum UnMatch"},
    {"Version2", [] { return sampleBackup({.version = 2}); }, BMC_FILE, kWeb, SVF_EXTRACT_UNKNOWN_FORMAT,
     "Unknown File Format"},
    {"OtherFwType", [] { return sampleBackup(); }, EFI_FILE, kWeb, SVF_EXTRACT_FW_TYPE_MISMATCH,
     "FwTyep not Match"},
    {"FwTypeOutOfRange", [] { return sampleBackup(); }, 2, kWeb, SVF_EXTRACT_FAIL, "Parameter Out Of Range"},
    {"DataRev1Web", [] { return sampleBackup({.dataRev = 1}); }, BMC_FILE, kWeb, SVF_EXTRACT_UNKNOWN_DATA_REV,
     "Unknown Data Rev"},
    {"DataRev1Svp", [] { return sampleBackup({.dataRev = 1}); }, BMC_FILE, SVP_CONSOL,
     SVF_EXTRACT_UNKNOWN_DATA_REV, "Unknown Data Rev"},
    {"DataRev1NplusM", [] { return sampleBackup({.dataRev = 1}); }, BMC_FILE, N_P_M, 0, ""},
    {"OtherModel", [] { return sampleBackup({.model = "OTHER-MODEL"}); }, BMC_FILE, kWeb,
     SVF_EXTRACT_IDENTITY_MISMATCH, "ModelNumber Mismatch"},
    {"OtherSerial", [] { return sampleBackup({.serial = "SN9999"}); }, BMC_FILE, kWeb,
     SVF_EXTRACT_IDENTITY_MISMATCH, "SerialNumber Mismatch"},
    {"OtherServerNplusM", [] { return sampleBackup({.model = "OTHER", .serial = "SN9999"}); }, BMC_FILE,
     N_P_M, 0, ""},
    {"BlockPastEnd", [] { return withDescriptor(1, 136, 1 << 20); }, BMC_FILE, kWeb, SVF_EXTRACT_FAIL,
     "Block#1 descriptor rejected : data past the end"},
    {"OffsetPastEnd", [] { return withDescriptor(1, 0x7FFFFFF0, 8); }, BMC_FILE, kWeb, SVF_EXTRACT_FAIL,
     "Block#1 descriptor rejected : data past the end"},
    {"NegativeBlockSize", [] { return withDescriptor(1, 136, -1); }, BMC_FILE, kWeb, SVF_EXTRACT_FAIL,
     "Block#1 descriptor rejected : negative size"},
    // Inside the file, so split as described; its own sum then fails.
    {"BlockShorterThanItsHeader", [] { return withDescriptor(1, 136, 4); }, BMC_FILE, kWeb,
     SVF_EXTRACT_CHECKSUM_MISMATCH, "ChkSum UnMatch"},
};

class BackupReader : public RestoreTest, public ::testing::WithParamInterface<ReaderCase> {};

TEST_P(BackupReader, AnswersItsCodeAndLeavesConfAlone) {
    const ReaderCase& c = GetParam();
    populateConf();
    // The reader opens the backup file of the type it is asked for.
    const char* path = c.fwType == EFI_FILE ? "/var/brask/EFI.bak" : kBackup;
    if (c.file != nullptr) writeBytes(path, c.file());
    const auto before = snapshotTree({"/conf"});
    INT8U blocks = 0xEE;
    const Observed got = observe([&] { return long{svfExtractBraskBackupFile(c.fwType, c.mode, &blocks)}; });
    EXPECT_EQ(got.result, c.expected);
    EXPECT_EQ(got.err, *c.err ? std::string("BRASK_ERR  : svfBraskArchiver(#) : ") + c.err + "\n" : "");
    EXPECT_EQ(diffTrees(before, snapshotTree({"/conf"})), "");
    if (c.expected == 0) {
        EXPECT_EQ(blocks, c.mode == N_P_M ? 1 : 2);
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
        EXPECT_TRUE(rc == SVF_EXTRACT_FAIL || rc == SVF_EXTRACT_NO_FILE ||
                    rc == SVF_EXTRACT_CHECKSUM_MISMATCH)
            << "length " << len << " gave " << rc;
    }
}

TEST_F(RestoreTest, SplitWritesEachBlockBesideTheBackup) {
    BackupLayout shape;
    const ByteVec b0 = test::block({});
    const ByteVec b1 = test::block({entry("/conf/resolv.conf", "x")});
    shape.blocks = {b0, b1};
    writeBytes(kBackup, test::backup(shape));
    INT8U blocks = 0;
    // N+M restores block 0 only, so only it is split.
    ASSERT_EQ(svfExtractBraskBackupFile(BMC_FILE, N_P_M, &blocks), 0);
    EXPECT_EQ(blocks, 1);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-0"), b0);
    EXPECT_FALSE(exists("/var/brask/BMC.bak-1"));

    ASSERT_EQ(svfExtractBraskBackupFile(BMC_FILE, BMC_WEB_CONSOLE, &blocks), 0);
    EXPECT_EQ(blocks, 2);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-0"), b0);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-1"), b1);

    // A block file is cut before its descriptor is looked at.
    writeBytes(kBackup, withDescriptor(1, 136, 1 << 20));
    EXPECT_EQ(svfExtractBraskBackupFile(BMC_FILE, BMC_WEB_CONSOLE, &blocks), SVF_EXTRACT_FAIL);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-1"), ByteVec{});
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
