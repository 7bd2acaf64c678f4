// Validation and splitting of a received backup file, the block-by-block
// extraction under the file semaphore, and Execute Restore Event: every
// refusal answers its completion code and SEL entries and changes no
// configuration file.  The refusals Execute Restore Event maps to codes of
// their own (header checksum, model, data revision, file type, version) are
// its rows only, which see the reader's code and line as well; the accepted
// request is the round trip's (planTest).

#include <cstdio>
#include <cstring>

#include "common/eventCodes.h"
#include "support/suite.h"

namespace brask::test {
namespace {

constexpr char kBackup[] = "/var/brask/BMC.bak";

// An empty block 0, resolv.conf and hid.conf in block 1.
std::vector<Bytes> sampleBlocks() {
    return {block({}), block({entry("/conf/resolv.conf", "restored\n"), entry("/conf/hid.conf", "hid\n")})};
}
// The backup of sampleBlocks(), header fields from `shape` (model and
// serial: this server's unless given).
Bytes sampleBackup(BackupLayout shape = {}) {
    shape.blocks = sampleBlocks();
    return backup(shape);
}

// sampleBackup() with one bit of byte `at` flipped, the checksum left as it was.
Bytes flipped(std::size_t at) {
    Bytes f = sampleBackup();
    f[at] ^= 0x10;
    return f;
}

Bytes withDescriptor(unsigned block, std::uint32_t offset, std::int32_t size) {
    Bytes f = sampleBackup();
    std::uint8_t* d = f.data() + 96 + 16 * block;
    std::memcpy(d, &offset, 4);
    std::memcpy(d + 4, &size, 4);
    sealBackup(f);
    return f;
}

int split(INT8U function) {
    INT8U blocks = 0;
    return svfExtractBraskBackupFile(BMC_FILE, function, &blocks);
}

struct ReaderCase {
    const char* name;
    Bytes (*file)();  // null: no file at all
    int expected;
    const char* err;  // the one error line, "" for none
    INT8U mode = BMC_WEB_CONSOLE;
    INT8U fwType = BMC_FILE;
};

constexpr INT8U kWeb = BMC_WEB_CONSOLE;
// clang-format off
const ReaderCase kReaderCases[] = {
    {"Missing", nullptr, SVF_EXTRACT_NO_FILE, "fopen fail"},
    {"ShorterThanHeader", [] { return Bytes(95, 0); }, SVF_EXTRACT_NO_FILE, "fread fail(2)"},
    {"FlippedTableByte", [] { return flipped(100); }, SVF_EXTRACT_CHECKSUM_MISMATCH, "ChkSum not Match"},
    {"FlippedBlockByte", [] { return flipped(sampleBackup().size() - 2); }, SVF_EXTRACT_CHECKSUM_MISMATCH, "ChkSum UnMatch"},
    // The reader opens the backup file of the type it is asked for.
    {"OtherFwType", [] { return sampleBackup(); }, SVF_EXTRACT_FW_TYPE_MISMATCH, "FwTyep not Match", kWeb, EFI_FILE},
    {"FwTypeOutOfRange", [] { return sampleBackup(); }, SVF_EXTRACT_FAIL, "Parameter Out Of Range", kWeb, 2},
    {"DataRev1Svp", [] { return sampleBackup({.dataRev = 1}); }, SVF_EXTRACT_UNKNOWN_DATA_REV, "Unknown Data Rev", SVP_CONSOL},
    {"OtherSerial", [] { return sampleBackup({.serial = "SN9999"}); }, SVF_EXTRACT_IDENTITY_MISMATCH, "SerialNumber Mismatch"},
    // N+M checks neither the data revision nor the server.
    {"NplusM", [] { return sampleBackup({.dataRev = 1, .model = "OTHER", .serial = "SN9999"}); }, 0, "", N_P_M},
    {"BlockPastEnd", [] { return withDescriptor(1, 136, 1 << 20); }, SVF_EXTRACT_FAIL, "Block#1 descriptor rejected : data past the end"},
    {"OffsetPastEnd", [] { return withDescriptor(1, 0x7FFFFFF0, 8); }, SVF_EXTRACT_FAIL, "Block#1 descriptor rejected : data past the end"},
    {"NegativeBlockSize", [] { return withDescriptor(1, 136, -1); }, SVF_EXTRACT_FAIL, "Block#1 descriptor rejected : negative size"},
    // Inside the file, so split as described; its own sum then fails.
    {"BlockShorterThanItsHeader", [] { return withDescriptor(1, 136, 4); }, SVF_EXTRACT_CHECKSUM_MISMATCH, "ChkSum UnMatch"},
};
// clang-format on

TEST(BackupReader, EachFileAnswersItsCodeAndLeavesConfAlone) {
    for (const ReaderCase& c : kReaderCases) {
        SCOPED_TRACE(c.name);
        resetState();
        populateConf();
        if (c.file != nullptr) writeBytes(c.fwType == EFI_FILE ? "/var/brask/EFI.bak" : kBackup, c.file());
        const auto before = snapshotTree({"/conf"});
        INT8U blocks = 0xEE;
        const Observed got =
            observe([&] { return long{svfExtractBraskBackupFile(c.fwType, c.mode, &blocks)}; });
        EXPECT_EQ(got.result, c.expected);
        EXPECT_EQ(got.err, *c.err ? std::string("BRASK_ERR  : svfBraskArchiver(#) : ") + c.err + "\n" : "");
        EXPECT_EQ(diffTrees(before, snapshotTree({"/conf"})), "");
        EXPECT_EQ(blocks, c.expected == 0 ? 1 : 0xEE);  // N+M: block 0 only
    }
}

TEST(BackupReader, EveryTruncationIsRefused) {
    const Bytes full = sampleBackup();
    for (std::size_t len = 0; len < full.size(); ++len) {
        writeBytes(kBackup, Bytes(full.begin(), full.begin() + static_cast<long>(len)));
        const int rc = split(kWeb);
        EXPECT_TRUE(rc == SVF_EXTRACT_FAIL || rc == SVF_EXTRACT_NO_FILE ||
                    rc == SVF_EXTRACT_CHECKSUM_MISMATCH)
            << "length " << len << " gave " << rc;
    }
}

// N+M restores block 0 only, so only it is split; a block file is cut
// before its descriptor is looked at.  Extraction then restores block by
// block under the file semaphore, and brings the kept-aside interfaces back
// unless in maintenance mode.
TEST(BackupReader, SplitThenExtractBlockByBlock) {
    writeBytes(kBackup, sampleBackup());
    ASSERT_EQ(split(N_P_M), 0);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-0"), sampleBlocks()[0]);
    EXPECT_FALSE(exists("/var/brask/BMC.bak-1"));
    writeBytes(kBackup, withDescriptor(1, 136, 1 << 20));
    EXPECT_EQ(split(kWeb), SVF_EXTRACT_FAIL);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-1"), Bytes{});

    writeBytes(kBackup, sampleBackup());
    const std::string dbg = "BRASK_DEBUG  : svfBraskArchiver(#) : ";
    const Observed splitWhole = observe([] { return long{split(kWeb)}; });
    ASSERT_EQ(splitWhole.result, 0);
    EXPECT_EQ(linesInOrder(splitWhole.out, {dbg + "Check sum Good", dbg + "Block# = 0", dbg + "Block# = 1"}),
              "");
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-0"), sampleBlocks()[0]);
    EXPECT_EQ(readBytes("/var/brask/BMC.bak-1"), sampleBlocks()[1]);
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

    for (const bool maintenance : {false, true}) {
        writeFile("/conf/resolv.conf", "old\n");
        writeFile("/conf/interfaces", "live\n");
        writeFile("/conf/back_interfaces", "kept aside\n");
        hostSetMaintenanceMode(maintenance ? 1 : 0);
        const Observed extracted = observe([] { return long{svfExtractBraskArchiveblock(BMC_FILE, 2)}; });
        ASSERT_EQ(extracted.result, 0);
        EXPECT_EQ(linesInOrder(extracted.out, {dbg + "START_svfExtractBraskArchiveblock"}), "");
        EXPECT_EQ(readFile("/conf/resolv.conf"), "restored\n");
        EXPECT_EQ(readFile("/conf/interfaces"), maintenance ? "live\n" : "kept aside\n");
        EXPECT_EQ(exists("/conf/back_interfaces"), maintenance);
    }
}

constexpr char kWebBackup[] = "/var/brask/BmcWeb.bak";
constexpr char kTrace[] = "/conf/brask/BackRest.trs2";

struct ExeCase {
    const char* name;
    std::vector<std::uint8_t> request;
    void (*setup)();  // after a good BmcWeb.bak is in place; may be null
    INT8U cc;
    std::vector<std::uint8_t> sel;
    bool moved;                         // BmcWeb.bak became BMC.bak
    std::vector<std::string> err = {};  // the error lines, in order
    const char* stdoutEnd = nullptr;    // the output ends exactly so
};

const std::vector<std::uint8_t> kWebBmc = {1, 2, 0, 0, 0, 0};
const std::vector<std::uint8_t> kFailed = {0x05, 0x35};  // started, then failed
const std::string kHandler = "BRASK_ERR  : svfOEMExeRestoreEvent(#) : ";
const std::string kReader = "BRASK_ERR  : svfBraskArchiver(#) : ";

void webFile(const Bytes& f) { writeBytes(kWebBackup, f); }
void otherEventActive() { setStatusByte(slotIndex(EventKind::Backup, N_P_M, BMC_FILE), ST_GENERATED); }

// clang-format off
const ExeCase kExeCases[] = {
    {"ShortRequest", {1, 2, 0, 0, 0}, nullptr, 0xC7, {}, false, {kHandler + "Request Length Error(5)"}},
    {"EfiAnyFunction", {0, 9, 0, 0, 0, 0}, nullptr, 0x00, {}, false},
    // "Non Check" is the one line printed with no line end.
    {"NplusM", {1, 0, 0, 0, 0, 0}, nullptr, 0x00, {}, false, {}, "Function == N_P_M\n"},
    {"SvpConsole", {1, 1, 0, 0, 0, 0}, nullptr, 0x00, {}, false, {}, "Function == SVP_CONSOL\n"},
    {"FunctionOutOfRange", {1, 3, 0, 0, 0, 0}, nullptr, 0xC9, {}, false},
    {"FileTypeOutOfRange", {2, 2, 0, 0, 0, 0}, nullptr, 0xC9, {}, false},
    {"RebootPending", kWebBmc, [] { gRebootAfterRestoreTimer = 30; }, 0xD5, kFailed, false, {kHandler + "gRebootAfterRestoreTimer != 0"}},
    {"RestorePendingSvp", {1, 1, 0, 0, 0, 0}, [] { gKillProcessAfterFileChkTimer = 3; }, 0xD5, {}, false,
     {kHandler + "gRebootAfterRestoreTimer != 0"}},
    {"OtherEventActive", kWebBmc, otherEventActive, 0xD5, kFailed, false, {kHandler + "handle others"}},
    {"FirmwareUpdate", kWebBmc, [] { hostSetFwUpdateState(3); }, 0x80, {0x05}, false, {kHandler + "BMC Busy. Running FwUp."}},
    {"NoSemaphore", kWebBmc, [] { hostFailCall("hslAcquireSysvSemaphore", 0, 1, EIDRM); }, 0x88, kFailed, false,
     {kHandler + "hslAcquireSysvSemaphore fail"}},
    {"NoWebBackup", kWebBmc, [] { std::remove(kWebBackup); }, 0x80, kFailed, false, {kHandler + "system cmd fail(2)"}},
    {"BadChecksum", kWebBmc, [] { webFile(flipped(50)); }, 0x81, kFailed, true, {kReader + "ChkSum not Match"}},
    {"OtherServer", kWebBmc, [] { webFile(sampleBackup({.model = "OTHER"})); }, 0x85, kFailed, true, {kReader + "ModelNumber Mismatch"}},
    {"DataRev1", kWebBmc, [] { webFile(sampleBackup({.dataRev = 1})); }, 0x86, kFailed, true, {kReader + "Unknown Data Rev"}},
    {"EfiFile", kWebBmc, [] { webFile(sampleBackup({.fwType = EFI_FILE})); }, 0x83, kFailed, true, {kReader + "FwTyep not Match"}},
    {"Version2", kWebBmc, [] { webFile(sampleBackup({.version = 2})); }, 0x87, kFailed, true, {kReader + "Unknown File Format"}},
    {"Truncated", kWebBmc, [] { webFile(Bytes(40, 0)); }, 0x80, kFailed, true, {kReader + "fread fail(2)"}},
};
// clang-format on

TEST(ExeRestoreEvent, RefusalsAnswerTheirCodeAndChangeNoConfiguration) {
    for (const ExeCase& c : kExeCases) {
        SCOPED_TRACE(c.name);
        resetState();
        populateConf();
        webFile(sampleBackup());
        if (c.setup != nullptr) c.setup();
        auto before = snapshotTree({"/conf"});
        before.erase(kTrace);
        const svfRestoreType_T sentinel{9, 9, 9};
        gRestoreType = sentinel;

        std::vector<std::uint8_t> req = c.request;
        INT8U res[4] = {0xEE};
        const Observed got = observe(
            [&] { return long{svfOEMExeRestoreEvent(req.data(), static_cast<INT8U>(req.size()), res, 0)}; });
        EXPECT_EQ(got.result, 1);
        if (c.stdoutEnd != nullptr) {
            EXPECT_TRUE(got.out.ends_with(std::string(c.stdoutEnd) +
                                          "BRASK_DEBUG  : svfOEMExeRestoreEvent(#) : Non Check"))
                << got.out;
        }
        EXPECT_EQ(errorLines(got.err), c.err);
        EXPECT_EQ(res[0], c.cc);
        EXPECT_EQ(selEvents(), c.sel);
        EXPECT_EQ(exists("/var/brask/BMC.bak"), c.moved);
        auto after = snapshotTree({"/conf"});
        after.erase(kTrace);
        EXPECT_EQ(diffTrees(before, after), "");
        EXPECT_EQ(std::memcmp(&gRestoreType, &sentinel, sizeof sentinel), 0);
        EXPECT_NE(gKillProcessAfterFileChkTimer, 10);
        // An EFI request is answered before the trace file is opened.
        if (req.size() == 6 && req[0] == EFI_FILE) {
            EXPECT_FALSE(exists(kTrace));
        }
    }
}

}  // namespace
}  // namespace brask::test
