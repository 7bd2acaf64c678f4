// Set Backup Event: request checks, the busy tests, every failure of the
// backup itself, and a whole backup of a realistic /conf.
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "backupFixture.h"

namespace brask::test {
namespace {

constexpr char kBmcBak[] = "/var/brask/BMC.bak";
constexpr char kWebBak[] = "/var/brask/BmcWeb.bak";
constexpr char kTrace[] = "/conf/brask/BackRest.trs2";
constexpr char kPreviousBackup[] = "previous web console backup";

struct Answer {
    int length = 0;
    INT8U cc = 0xEE;
    Output output;
};

Answer setBackupEvent(std::vector<INT8U> req) {
    Answer a;
    INT8U res[8] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    a.length = captured(a.output,
                        [&] { return svfOEMSetBackupEvent(req.data(), static_cast<INT8U>(req.size()), res, 0); });
    a.cc = res[0];
    return a;
}

std::vector<INT8U> request(INT8U fileType, INT8U function) { return {fileType, function, 0, 0, 0, 0}; }
const std::vector<INT8U> kWebConsoleBackup = request(BMC_FILE, BMC_WEB_CONSOLE);

class SetBackupEvent : public BackupTest {
protected:
    void SetUp() override {
        BackupTest::SetUp();
        svfIniTimer();
        populateConf();
        writeFile(kWebBak, kPreviousBackup);
    }
    void TearDown() override {
        svfIniTimer();
        BackupTest::TearDown();
    }
};

TEST_F(SetBackupEvent, RequestsThatDoNoWork) {
    struct Case {
        const char* name;
        std::vector<INT8U> req;
        INT8U cc;
        const char* error;           // nullptr: none
        INT8U* countdown = nullptr;  // a restore countdown left running
    };
    const std::vector<Case> cases = {
        {"5 bytes", {1, 2, 0, 0, 0}, 0xC7, "REQ_INV_LEN\n"},
        {"7 bytes", {1, 2, 0, 0, 0, 0, 0}, 0xC7, "REQ_INV_LEN\n"},
        {"FileType 2", request(2, 2), 0xC9, "PARAM_OUT_OF_RANGE\n"},
        {"Function 7 with EFI", request(0, 7), 0xC9, "PARAM_OUT_OF_RANGE\n"},
        {"Function 6", request(1, 6), 0xC9, "PARAM_OUT_OF_RANGE\n"},
        {"EFI from the web console", request(0, 2), 0x00, nullptr},
        {"BMC from requester 5", request(1, 5), 0x00, nullptr},
        {"BMC from the SVP", request(1, 1), 0x00, nullptr},
        {"BMC, automatic", request(1, 0), 0x00, nullptr},
        {"kill countdown running", kWebConsoleBackup, 0xD5, "gRebootAfterRestoreTimer != 0\n",
         &gKillProcessAfterFileChkTimer},
        {"reboot countdown running", kWebConsoleBackup, 0xD5, "gRebootAfterRestoreTimer != 0\n",
         &gRebootAfterRestoreTimer},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        svfIniTimer();
        if (tc.countdown != nullptr) *tc.countdown = 3;
        Answer a = setBackupEvent(tc.req);
        EXPECT_EQ(a.length, 1);
        EXPECT_EQ(a.cc, tc.cc);
        EXPECT_NE(a.output.out.find("BRASK_DEBUG  : svfOEMSetBackupEvent("), std::string::npos);
        EXPECT_TRUE(a.output.has("START\n"));
        if (tc.error != nullptr) {
            EXPECT_EQ(a.output.err.rfind("BRASK_ERR    : svfOEMSetBackupEvent(", 0), 0u) << a.output.err;
            EXPECT_TRUE(a.output.has(tc.error));
        } else {
            EXPECT_EQ(a.output.err, "");
        }
        EXPECT_EQ(tc.countdown != nullptr ? *tc.countdown : 3, 3);  // read, never written
        EXPECT_TRUE(selEvents().empty());
        EXPECT_FALSE(exists(kTrace));
        EXPECT_FALSE(exists(kBmcBak));
        EXPECT_TRUE(readFile(kWebBak) == kPreviousBackup) << "previous backup replaced";
    }
}

TEST_F(SetBackupEvent, FailureTable) {
    // How many semaphore acquisitions a whole backup makes before its rename.
    static int acquisitionsBeforeRename = 0;
    hostResetCounters();
    const Answer ok = setBackupEvent(kWebConsoleBackup);
    ASSERT_EQ(ok.cc, 0x00) << ok.output.out << ok.output.err;
    acquisitionsBeforeRename = hostCallCount("hslAcquireSysvSemaphore") - 1;
    ASSERT_GE(acquisitionsBeforeRename, 0);

    const std::vector<std::uint8_t> failedSel = {0x0B, 0x3B};
    struct Case {
        const char* name;
        void (*inject)();
        INT8U cc;
        const char* text;
        std::vector<std::uint8_t> sel;
        bool bmcBakLeft = false;        // the new backup stays under its first name
        const char* failing = nullptr;  // shell command that fails during the call
    };
    const std::vector<Case> cases = {
        {"active-event query fails", [] { hostFailCall("hslAcquireMutex", 0, 1, 0); }, 0x80,
         "efiGetBackupRestoreEvent fail\n", {}},
        {"another event active",
         [] {
             hslSemiVolatileArea_T area{};
             ASSERT_EQ(hostSemiVolRead(&area), 0);
             area.svf.svfStatus.Restore.NpM.Bmc = ST_GENERATED;
             ASSERT_EQ(hostSemiVolWrite(&area), 0);
         },
         0xD5, "Other BACKUP_RESTORE_EVENT Running\n", {0x0B, 0x4B}},
        {"mandatory file missing", [] { std::remove("/conf/passwd"); }, 0x80, "svfChkBackupFileDiff fail\n",
         failedSel},
        {"FRU unreadable",
         [] {
             writeBytes("/conf/brask/FRUBACKUP.dat.bak", readBytes("/conf/brask/FRUBACKUP.dat"));
             hostIpmiFailCmd(0x10, 0, 1, 0xC1);
         },
         0x80, "svfChkBackupFileDiff fail\n", failedSel},
        {"copy command fails", [] { std::remove("/conf/passwd.bak"); }, 0x80, "svfChkBackupFileDiff fail\n",
         failedSel, false, "cp"},
        {"SEL time unavailable", [] { hostIpmiFailCmd(0x48, 0, 1, 0xC1); }, 0x80, "svfCreateBraskBackupFile fail\n",
         failedSel},
        {"backup file cannot be written", [] { ::mkdir(kBmcBak, 0755); }, 0x80, "svfCreateBraskBackupFile fail\n",
         failedSel},
        {"file semaphore refused",
         [] { hostFailCall("hslAcquireSysvSemaphore", acquisitionsBeforeRename, 1, EINTR); }, 0x88,
         "hslAcquireSysvSemaphore fail\n", failedSel, true},
        {"rename fails", [] {}, 0x80, "mv fail\n", failedSel, true, "mv"},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        resetState();
        SetUp();
        // Handles that the status-area code keeps between calls are made first.
        INT8U warm[8] = {};
        Output ignored;
        captured(ignored, [&] { return svfGetBackupRestoreEvent(nullptr, 0, warm); });
        tc.inject();
        hostResetCounters();
        const Resources before;
        Answer a;
        {
            std::optional<FailingCommand> failing;
            if (tc.failing != nullptr) failing.emplace(tc.failing);
            a = setBackupEvent(kWebConsoleBackup);
        }
        EXPECT_EQ(a.length, 1);
        EXPECT_EQ(a.cc, tc.cc);
        EXPECT_TRUE(a.output.has(tc.text)) << a.output.out << a.output.err;
        EXPECT_EQ(selEvents(), tc.sel);
        EXPECT_TRUE(readFile(kWebBak) == kPreviousBackup) << "previous backup replaced";
        if (tc.bmcBakLeft) {
            EXPECT_TRUE(exists(kBmcBak));
        }
        EXPECT_EQ(hostCallCount("hslAcquireSysvSemaphore") - (tc.cc == 0x88 ? 1 : 0),
                  hostCallCount("hslReleaseSysvSemaphore"));
        EXPECT_EQ(Resources(), before);
        hostResetFaults();
    }
}

// The event packs every existing catalogue file into a new web console
// backup; the layout of each entry is the writer's own tests' business.
TEST_F(SetBackupEvent, BackupHoldsEveryExistingCatalogueFile) {
    const std::vector<std::string> written = populateConf();
    Answer a = setBackupEvent(kWebConsoleBackup);
    ASSERT_EQ(a.cc, 0x00) << a.output.out << a.output.err;
    EXPECT_EQ(a.length, 1);
    EXPECT_EQ(selEvents(), (std::vector<std::uint8_t>{0x0B, 0x2B}));
    EXPECT_FALSE(exists(kBmcBak));
    EXPECT_TRUE(a.output.has("mv /var/brask/BMC.bak /var/brask/BmcWeb.bak\n"));

    const std::vector<std::uint8_t> file = readBytes(kWebBak);
    const format::Bytes bytes(file);
    svfBraskBackupFileHeader_T header{};
    svfBraskBackupFileBlockInfo_T info{};
    format::Bytes block;
    svfBraskArchiveFileHeader_T blockHeader{};
    ASSERT_EQ(format::decodeBackupHeader(bytes, header), format::Status::Ok);
    EXPECT_EQ(header.FwType, BMC_FILE);
    ASSERT_EQ(header.NumOfBlock, 2);
    ASSERT_EQ(format::decodeBlockInfo(bytes, 1, info), format::Status::Ok);
    ASSERT_EQ(format::blockBytes(bytes, info, block), format::Status::Ok);
    ASSERT_EQ(format::decodeArchiveHeader(block, blockHeader), format::Status::Ok);
    EXPECT_EQ(format::wordSum(block), 0u);
    EXPECT_EQ(blockHeader.NumOfEntry, written.size());
}

}  // namespace
}  // namespace brask::test
