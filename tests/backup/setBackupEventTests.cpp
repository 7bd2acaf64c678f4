// Set Backup Event: request checks, the busy tests, every failure of the
// backup itself, and a whole backup of a realistic /conf.
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "backupFixture.h"
#include "support/sandbox.h"
#include "support/scenario.h"

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
    a.output = capture([&] {
        a.length = svfOEMSetBackupEvent(req.data(), static_cast<INT8U>(req.size()), res, 0);
    });
    a.cc = res[0];
    return a;
}

std::vector<INT8U> request(INT8U fileType, INT8U function) { return {fileType, function, 0, 0, 0, 0}; }

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
        const char* error;  // nullptr: none
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
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        Answer a = setBackupEvent(tc.req);
        EXPECT_EQ(a.length, 1);
        EXPECT_EQ(a.cc, tc.cc);
        EXPECT_TRUE(a.output.out.find("BRASK_DEBUG  : svfOEMSetBackupEvent(") != std::string::npos);
        EXPECT_TRUE(a.output.has("START\n"));
        if (tc.error != nullptr) {
            EXPECT_EQ(a.output.err.rfind("BRASK_ERR    : svfOEMSetBackupEvent(", 0), 0u) << a.output.err;
            EXPECT_TRUE(a.output.has(tc.error));
        } else {
            EXPECT_EQ(a.output.err, "");
        }
        EXPECT_TRUE(selEvents().empty());
        EXPECT_FALSE(exists(kTrace));
        EXPECT_FALSE(exists(kBmcBak));
        EXPECT_TRUE(readFile(kWebBak) == kPreviousBackup) << "previous backup replaced";
    }
}

TEST_F(SetBackupEvent, RefusedWhileARestoreIsFinishing) {
    for (INT8U* timer : {&gKillProcessAfterFileChkTimer, &gRebootAfterRestoreTimer}) {
        svfIniTimer();
        *timer = 3;
        Answer a = setBackupEvent(request(BMC_FILE, BMC_WEB_CONSOLE));
        EXPECT_EQ(a.cc, 0xD5);
        EXPECT_TRUE(a.output.has("gRebootAfterRestoreTimer != 0\n"));
        EXPECT_TRUE(selEvents().empty());
        EXPECT_FALSE(exists(kTrace));
        EXPECT_EQ(*timer, 3);  // read, never written
    }
}

TEST(RestoreCountdowns, IniTimerStopsBothAndKeepsThePendingRestore) {
    gKillProcessAfterFileChkTimer = 10;
    gRebootAfterRestoreTimer = 30;
    gRestoreType = {BMC_FILE, BMC_WEB_CONSOLE, 2};
    svfIniTimer();
    EXPECT_EQ(gKillProcessAfterFileChkTimer, 0);
    EXPECT_EQ(gRebootAfterRestoreTimer, 0);
    EXPECT_EQ(gRestoreType.FileType, BMC_FILE);
    EXPECT_EQ(gRestoreType.Function, BMC_WEB_CONSOLE);
    EXPECT_EQ(gRestoreType.NumOfBlock, 2);
    gRestoreType = {};
}

// Each row: what goes wrong, the answer, the error text and the SEL entries.
struct FailureCase {
    const char* name;
    void (*inject)();
    INT8U cc;
    const char* text;
    std::vector<std::uint8_t> sel;
    bool bmcBakLeft;  // the new backup stays under its first name
};

TEST_F(SetBackupEvent, FailureTable) {
    // How many semaphore acquisitions a whole backup makes before its rename.
    static int acquisitionsBeforeRename = 0;
    {
        hostResetCounters();
        Answer ok = setBackupEvent(request(BMC_FILE, BMC_WEB_CONSOLE));
        ASSERT_EQ(ok.cc, 0x00) << ok.output.out << ok.output.err;
        acquisitionsBeforeRename = hostCallCount("hslAcquireSysvSemaphore") - 1;
        ASSERT_GE(acquisitionsBeforeRename, 0);
    }
    const std::vector<FailureCase> cases = {
        {"active-event query fails", [] { hostFailCall("hslAcquireMutex", 0, 1, 0); }, 0x80,
         "efiGetBackupRestoreEvent fail\n", {}, false},
        {"another event active",
         [] {
             hslSemiVolatileArea_T area{};
             ASSERT_EQ(hostSemiVolRead(&area), 0);
             area.svf.svfStatus.Restore.NpM.Bmc = ST_GENERATED;
             ASSERT_EQ(hostSemiVolWrite(&area), 0);
         },
         0xD5, "Other BACKUP_RESTORE_EVENT Running\n", {0x0B, 0x4B}, false},
        {"mandatory file missing", [] { std::remove("/conf/passwd"); }, 0x80, "svfChkBackupFileDiff fail\n",
         {0x0B, 0x3B}, false},
        {"FRU unreadable", [] {
             writeBytes("/conf/brask/FRUBACKUP.dat.bak", readBytes("/conf/brask/FRUBACKUP.dat"));
             hostIpmiFailCmd(0x10, 0, 1, 0xC1);
         },
         0x80, "svfChkBackupFileDiff fail\n", {0x0B, 0x3B}, false},
        {"copy command fails", [] { std::remove("/conf/passwd.bak"); }, 0x80, "svfChkBackupFileDiff fail\n",
         {0x0B, 0x3B}, false},
        {"SEL time unavailable", [] { hostIpmiFailCmd(0x48, 0, 1, 0xC1); }, 0x80,
         "svfCreateBraskBackupFile fail\n", {0x0B, 0x3B}, false},
        {"backup file cannot be written", [] { ::mkdir(kBmcBak, 0755); }, 0x80,
         "svfCreateBraskBackupFile fail\n", {0x0B, 0x3B}, false},
        {"file semaphore refused", [] { hostFailCall("hslAcquireSysvSemaphore", acquisitionsBeforeRename, 1, EINTR); },
         0x88, "hslAcquireSysvSemaphore fail\n", {0x0B, 0x3B}, true},
        {"rename fails", [] {}, 0x80, "mv fail\n", {0x0B, 0x3B}, true},
    };
    for (const FailureCase& tc : cases) {
        SCOPED_TRACE(tc.name);
        resetState();
        SetUp();
        // Handles that the status-area code keeps between calls are made first.
        INT8U warm[8] = {};
        capture([&] { svfGetBackupRestoreEvent(nullptr, 0, warm); });
        tc.inject();
        const bool failMv = std::strcmp(tc.name, "rename fails") == 0;
        const bool failCp = std::strcmp(tc.name, "copy command fails") == 0;
        hostResetCounters();
        const Resources before = resources();
        Answer a;
        {
            std::unique_ptr<FailingCommand> failing;
            if (failMv) failing = std::make_unique<FailingCommand>("mv");
            if (failCp) failing = std::make_unique<FailingCommand>("cp");
            a = setBackupEvent(request(BMC_FILE, BMC_WEB_CONSOLE));
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
        EXPECT_EQ(resources(), before);
        hostResetFaults();
    }
}

TEST_F(SetBackupEvent, FullBackupDirectory) {
    // A tiny file system on /var/brask: the backup file cannot be written.
    if (::mount("tmpfs", "/var/brask", "tmpfs", 0, "size=8k") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    }
    writeFile(kWebBak, kPreviousBackup);
    writeFile("/var/brask/filler", std::string(4096, 'x'));
    Answer a = setBackupEvent(request(BMC_FILE, BMC_WEB_CONSOLE));
    EXPECT_EQ(a.cc, 0x80);
    EXPECT_TRUE(a.output.has("svfCreateBraskBackupFile fail\n")) << a.output.out << a.output.err;
    EXPECT_EQ(selEvents(), (std::vector<std::uint8_t>{0x0B, 0x3B}));
    EXPECT_TRUE(readFile(kWebBak) == kPreviousBackup) << "previous backup replaced";
    ::umount2("/var/brask", MNT_DETACH);
}

TEST_F(SetBackupEvent, BackupHoldsEveryExistingCatalogueFile) {
    const std::vector<std::string> written = populateConf();
    Answer a = setBackupEvent(request(BMC_FILE, BMC_WEB_CONSOLE));
    ASSERT_EQ(a.cc, 0x00) << a.output.out << a.output.err;
    EXPECT_EQ(a.length, 1);
    EXPECT_EQ(selEvents(), (std::vector<std::uint8_t>{0x0B, 0x2B}));
    EXPECT_FALSE(exists(kBmcBak));
    EXPECT_TRUE(a.output.has("mv /var/brask/BMC.bak /var/brask/BmcWeb.bak\n"));

    const std::vector<std::uint8_t> file = readBytes(kWebBak);
    format::Bytes bytes(file);
    svfBraskBackupFileHeader_T header{};
    ASSERT_EQ(format::decodeBackupHeader(bytes, header), format::Status::Ok);
    EXPECT_EQ(header.FwType, BMC_FILE);
    ASSERT_EQ(header.NumOfBlock, 2);
    svfBraskBackupFileBlockInfo_T info{};
    ASSERT_EQ(format::decodeBlockInfo(bytes, 1, info), format::Status::Ok);
    format::Bytes block;
    ASSERT_EQ(format::blockBytes(bytes, info, block), format::Status::Ok);
    svfBraskArchiveFileHeader_T blockHeader{};
    ASSERT_EQ(format::decodeArchiveHeader(block, blockHeader), format::Status::Ok);
    EXPECT_EQ(format::wordSum(block), 0u);

    ASSERT_EQ(blockHeader.NumOfEntry, written.size());
    std::size_t offset = format::kArchiveHeaderSize;
    for (const std::string& active : written) {
        SCOPED_TRACE(active);
        format::ArchiveEntry entry;
        ASSERT_EQ(format::decodeArchiveEntry(block, offset, entry), format::Status::Ok);
        EXPECT_EQ(std::string(entry.name), active + ".bak");
        EXPECT_EQ(std::vector<std::uint8_t>(entry.data.begin(), entry.data.end()), readBytes(active));
        struct stat st {};
        ASSERT_EQ(::stat(active.c_str(), &st), 0);
        EXPECT_EQ(entry.info.FileUid, st.st_uid);
        EXPECT_EQ(entry.info.FileGid, st.st_gid);
        EXPECT_EQ(entry.info.FilePermission, st.st_mode);
        offset = entry.nextOffset;
    }
    EXPECT_EQ(offset, block.size());
}

}  // namespace
}  // namespace brask::test
