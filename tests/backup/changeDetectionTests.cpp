// Change detection over the BMC catalogue, one decision-table row at a time.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "backupFixture.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kServices[] = "/conf/brask/services";            // row 10, optional
constexpr char kSysName[] = "/conf/SysName.dat";                 // row 90, optional
constexpr char kResolv[] = "/conf/resolv.conf";                  // row 0, mandatory
constexpr char kUserInfo[] = "/conf/brask/bum_home/bmcUserInfo.data";
constexpr char kFru[] = "/conf/brask/FRUBACKUP.dat";

std::string bak(const std::string& path) { return path + ".bak"; }

// A user information file in its full form: twelve records of 60 bytes.
std::vector<std::uint8_t> userInfo(std::uint32_t role, std::uint32_t lastLogin) {
    bumUserInfo_t info{};
    info.header.version = 1;
    info.header.users = 12;
    for (auto& u : info.user) {
        u.header.length = 60;
        u.bmcUid = 7;
        u.role_value = role;
        u.prevLogin[0] = lastLogin;
    }
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&info);
    return {raw, raw + sizeof info};
}

class ChangeDetection : public BackupTest {
protected:
    // The mandatory files with identical backup copies, settled so that a
    // call now finds nothing to do.
    void SetUp() override {
        BackupTest::SetUp();
        populateConf({.optionalFiles = false, .backupCopies = true});
        std::remove(kFru);
        std::remove(bak(kFru).c_str());
        int rc = 0;
        const Output o = capture([&] { rc = svfChkBackupFileDiff(BMC_FILE); });
        ASSERT_GE(rc, 0) << o.out << o.err;
        hostResetCounters();
    }

    int run(Output& o, INT8U fileType = BMC_FILE) {
        int rc = 99;
        o = capture([&] { rc = svfChkBackupFileDiff(fileType); });
        return rc;
    }
};

TEST_F(ChangeDetection, EachRowOfTheDecisionTable) {
    struct Case {
        const char* name;
        void (*prepare)();
        int expected;
        std::vector<std::string> lines;
        std::vector<std::string> absent;
        void (*verify)();
    };
    const std::vector<Case> cases = {
        {"mandatory file missing, copy present", [] { std::remove("/conf/hid.conf"); }, -1,
         {"ActFp == NULL, STATIC\n", "goto ERROR\n"}, {},
         [] { EXPECT_TRUE(exists("/conf/hid.conf.bak")); }},
        {"mandatory file missing on both sides",
         [] {
             std::remove("/conf/hid.conf");
             std::remove("/conf/hid.conf.bak");
         },
         -1, {"ActFp == NULL, STATIC\n"}, {}, [] {}},
        {"optional file absent on both sides", [] {}, 0, {"End_FileDiff_DiffFlag == 0\n"}, {}, [] {}},
        {"copy left over", [] { writeFile(bak(kServices), "old\n"); }, 1,
         {"ActFp == NULL, DYNAMIC, BakFp != NULL\n", "Set DiffFlag = 1\n", "End_FileDiff_DiffFlag == 1\n"}, {},
         [] { EXPECT_FALSE(exists(bak(kServices))); }},
        {"new active file", [] { writeFile(kServices, "ssh 22/tcp\n", 0600); }, 1,
         {"End_FileDiff_DiffFlag == 1\n"}, {"Set DiffFlag = 1"},
         [] {
             EXPECT_EQ(readFile(bak(kServices)), "ssh 22/tcp\n");
             struct stat st {};
             ASSERT_EQ(::stat(bak(kServices).c_str(), &st), 0);
             EXPECT_EQ(st.st_mode & 07777, 0600u);
         }},
        {"sizes differ", [] { writeFile(kResolv, readFile(kResolv) + "nameserver 10.0.0.9\n"); }, 1,
         {"Size Diff\n", "Set DiffFlag = 1\n"}, {},
         [] { EXPECT_EQ(readFile(bak(kResolv)), readFile(kResolv)); }},
        {"one byte differs",
         [] {
             std::string s = readFile(kResolv);
             ASSERT_FALSE(s.empty());
             s[0] = static_cast<char>(s[0] ^ 1);
             writeFile(kResolv, s);
         },
         1, {"Set DiffFlag = 1\n"}, {"Size Diff"},
         [] { EXPECT_EQ(readFile(bak(kResolv)), readFile(kResolv)); }},
        {"two empty files",
         [] {
             writeFile(kServices, "");
             writeFile(bak(kServices), "");
         },
         0, {"FileSize == 0\n"}, {}, [] {}},
        {"user information differs",
         [] {
             writeBytes(kUserInfo, userInfo(4, 1));
             writeBytes(bak(kUserInfo), userInfo(3, 1));
         },
         1, {"i = 27\n", "CALL svfChkBmcUserInfoDiff\n", "RetVal = 1\n"}, {},
         [] { EXPECT_EQ(readBytes(bak(kUserInfo)), userInfo(4, 1)); }},
        {"user information differs only in a login time",
         [] {
             writeBytes(kUserInfo, userInfo(4, 1));
             writeBytes(bak(kUserInfo), userInfo(4, 2));
         },
         0, {"RetVal = 0\n"}, {},
         [] { EXPECT_EQ(readBytes(bak(kUserInfo)), userInfo(4, 2)); }},
        {"user information copy too short",
         [] {
             writeBytes(kUserInfo, userInfo(4, 1));
             writeFile(bak(kUserInfo), "short");
         },
         -1, {"RetVal = -2\n"}, {}, [] {}},
        {"FRU backup file and copy present",
         [] {
             writeBytes(kFru, std::vector<std::uint8_t>(16, 0));
             writeBytes(bak(kFru), std::vector<std::uint8_t>(16, 0));
         },
         1,
         {"BRASK_MSG[6] : svfBraskArchiver(", "svfChkBackupFileDiff() : svfChkBackupFileDiff() : i = 99\n",
          "BRASK_MSG[7] : svfBraskArchiver(", "svfChkBackupFileDiff() : RetVal = 1\n"},
         {},
         [] {
             EXPECT_GT(fruHeaderSize(kFru), 0);
             EXPECT_EQ(readBytes(bak(kFru)), readBytes(kFru));
         }},
        {"FRU cannot be read",
         [] {
             writeBytes(kFru, std::vector<std::uint8_t>(16, 0));
             writeBytes(bak(kFru), std::vector<std::uint8_t>(16, 0));
             hostIpmiFailCmd(0x10, 0, 1, 0xC1);
         },
         -1, {"svfChkBackupFileDiff() : RetVal = -1\n"}, {}, [] {}},
        {"copy exists but cannot be opened for writing", [] { ::mkdir(bak(kServices).c_str(), 0755); }, -1,
         {"/conf/brask/services.bak open fail\n"}, {}, [] {}},
        {"active file cannot be opened", [] { ::symlink(kServices, kServices); }, -1,
         {"/conf/brask/services open fail\n"}, {}, [] {}},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        resetState();
        SetUp();
        tc.prepare();
        const Resources before = resources();
        Output o;
        EXPECT_EQ(run(o), tc.expected);
        for (const std::string& line : tc.lines) EXPECT_TRUE(o.has(line)) << line << "\n" << o.out << o.err;
        for (const std::string& line : tc.absent) EXPECT_FALSE(o.has(line)) << line;
        tc.verify();
        EXPECT_EQ(resources(), before);
        EXPECT_EQ(hostCallCount("hslAcquireSysvSemaphore"), hostCallCount("hslReleaseSysvSemaphore"));
    }
}

TEST_F(ChangeDetection, FailingCommands) {
    struct Case {
        const char* name;
        const char* command;
        void (*prepare)();
        int expected;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases = {
        {"copy of a new file", "cp", [] { writeFile(kServices, "x\n"); }, -1,
         {"svfExeCopyCmd fail.(-1)\n", "goto ERROR\n"}},
        {"copy after a size difference", "cp", [] { writeFile(kResolv, "nameserver 1.1.1.1\n# more\n"); }, -1,
         {"Size Diff\n", "svfExeCopyCmd fail.(-1)\n"}},
        // A comparer's difference counts even when the copy then fails.
        {"copy after a comparer difference", "cp",
         [] {
             writeBytes(kUserInfo, userInfo(4, 1));
             writeBytes(bak(kUserInfo), userInfo(3, 1));
         },
         1, {"RetVal = 1\n", "system cmd fail("}},
        {"removal of a left-over copy", "rm", [] { writeFile(bak(kServices), "old\n"); }, -1,
         {"system cmd fail(", "goto ERROR\n"}},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        resetState();
        SetUp();
        tc.prepare();
        Output o;
        {
            FailingCommand failing(tc.command);
            EXPECT_EQ(run(o), tc.expected);
        }
        for (const std::string& line : tc.lines) EXPECT_TRUE(o.has(line)) << line << "\n" << o.out << o.err;
        EXPECT_EQ(hostCallCount("hslAcquireSysvSemaphore"), hostCallCount("hslReleaseSysvSemaphore"));
    }
}

TEST_F(ChangeDetection, FileTypes) {
    Output o;
    EXPECT_EQ(run(o, EFI_FILE), 0);
    EXPECT_TRUE(o.has("FileType == EFI\n"));
    EXPECT_TRUE(o.has("NumOfFiles = 0\n"));
    EXPECT_TRUE(o.has("End_FileDiff_DiffFlag == 0\n"));
    EXPECT_EQ(hostCallCount("hslAcquireSysvSemaphore"), 0);

    EXPECT_EQ(run(o, 2), -1);
    EXPECT_TRUE(o.has("Unknown FileType\n"));
    EXPECT_EQ(hostCallCount("hslAcquireSysvSemaphore"), 0);

    EXPECT_EQ(run(o, BMC_FILE), 0);
    EXPECT_TRUE(o.has("FileType == BMC\n"));
    EXPECT_TRUE(o.has("NumOfFiles = 109\n"));
    EXPECT_EQ(hostCallCount("hslAcquireSysvSemaphore"), 109);
    // The layout sizes come first.
    const std::string first = "BRASK_DEBUG  : svfBraskArchiver(";
    std::vector<std::string> lines;
    std::istringstream in(o.out);
    for (std::string l; std::getline(in, l) && lines.size() < 3;) lines.push_back(l);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("sizeof(BackupFileList_T) = 160"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("sizeof(BmcBackupFileList[1]) = 160"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("sizeof(BmcBackupFileList) = 17440"), std::string::npos) << lines[2];
}

TEST_F(ChangeDetection, FailureAtARowKeepsEarlierRowsRefreshed) {
    struct Case {
        const char* name;
        void (*inject)();
    };
    const std::vector<Case> cases = {
        {"mandatory file of row 24 missing", [] { std::remove("/conf/passwd"); }},
        {"semaphore refused at row 50", [] { hostFailCall("hslAcquireSysvSemaphore", 50, 1, EINTR); }},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        resetState();
        SetUp();
        writeFile(kServices, "row 10\n");
        writeFile(kSysName, "row 90\n");
        tc.inject();
        const Resources before = resources();
        Output o;
        EXPECT_EQ(run(o), -1);
        EXPECT_EQ(readFile(bak(kServices)), "row 10\n");
        EXPECT_FALSE(exists(bak(kSysName)));
        EXPECT_EQ(resources(), before);
        hostResetFaults();
    }
}

TEST_F(ChangeDetection, SemaphoreThatCannotBeGivenBackFails) {
    // In a child: the semaphore stays taken until the child exits.
    hostFailCall("hslReleaseSysvSemaphore", 3, 1, EINVAL);
    EXPECT_EQ(runInChild([] { return svfChkBackupFileDiff(BMC_FILE) & 0xFF; }), 0xFF);
}

TEST_F(ChangeDetection, SecondCall) {
    writeFile(kServices, "x\n");
    Output o;
    EXPECT_EQ(run(o), 1);
    EXPECT_EQ(run(o), 0);
    // The FRU is read afresh on every call, so its row changes every time.
    writeBytes(kFru, std::vector<std::uint8_t>(16, 0));
    writeBytes(bak(kFru), std::vector<std::uint8_t>(16, 0));
    EXPECT_EQ(run(o), 1);
    EXPECT_EQ(run(o), 1);
    EXPECT_EQ(o.count("Set DiffFlag = 1"), 0);
    EXPECT_EQ(readBytes(bak(kFru)), readBytes(kFru));
}

}  // namespace
}  // namespace brask::test
