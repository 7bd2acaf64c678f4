// Change detection over the BMC catalogue, one decision-table row at a time.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "backupFixture.h"

namespace brask::test {
namespace {

constexpr char kServices[] = "/conf/brask/services";  // row 10, optional
constexpr char kSysName[] = "/conf/SysName.dat";      // row 90, optional
constexpr char kResolv[] = "/conf/resolv.conf";       // row 0, mandatory
constexpr char kUserInfo[] = "/conf/brask/bum_home/bmcUserInfo.data";
constexpr char kFru[] = "/conf/brask/FRUBACKUP.dat";

std::string bak(const std::string& path) { return path + ".bak"; }

// The user information with every record's role and first login time set.
std::vector<std::uint8_t> userInfo(std::uint32_t role, std::uint32_t lastLogin) {
    bumUserInfo_t info = sampleUsers(12);
    for (auto& u : info.user) {
        u.role_value = role;
        u.prevLogin[0] = lastLogin;
    }
    return image(info);
}

// The active user information (its role, login time 1) and a copy of it.
void userInfoPair(std::uint32_t role, std::uint32_t copyRole, std::uint32_t copyLogin) {
    writeBytes(kUserInfo, userInfo(role, 1));
    writeBytes(bak(kUserInfo), userInfo(copyRole, copyLogin));
}

// Verifies that the backup copy of `path` was refreshed to the active file.
template <const char* path>
void refreshed() {
    EXPECT_EQ(readBytes(bak(path)), readBytes(path));
}

// FRU backup file and copy present: the FRU row reads the device into the file.
void fruPair() {
    writeBytes(kFru, std::vector<std::uint8_t>(16, 0));
    writeBytes(bak(kFru), std::vector<std::uint8_t>(16, 0));
}

// Files of a row before (10) and after (90) the row where a run fails.
void rowsAroundAFailure() {
    writeFile(kServices, "row 10\n");
    writeFile(kSysName, "row 90\n");
}
void earlierRowRefreshedOnly() {
    EXPECT_EQ(readFile(bak(kServices)), "row 10\n");
    EXPECT_FALSE(exists(bak(kSysName)));
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
        Output o;
        ASSERT_GE(run(o), 0) << o.out << o.err;
        hostResetCounters();
    }

    int run(Output& o, INT8U fileType = BMC_FILE) {
        return captured(o, [&] { return svfChkBackupFileDiff(fileType); });
    }
};

TEST_F(ChangeDetection, EachRowOfTheDecisionTable) {
    struct Case {
        const char* name;
        void (*prepare)();
        int expected;
        std::vector<std::string> lines;
        std::vector<std::string> absent = {};
        void (*verify)() = [] {};
        const char* failing = nullptr;  // shell command that fails during the call
        int refused = 0;                // semaphore acquisitions the platform refuses
    };
    const std::vector<Case> cases = {
        {"mandatory file missing, copy present", [] { std::remove("/conf/hid.conf"); }, -1,
         {"ActFp == NULL, STATIC\n", "goto ERROR\n"}, {}, [] { EXPECT_TRUE(exists("/conf/hid.conf.bak")); }},
        {"mandatory file missing on both sides", [] { std::system("rm /conf/hid.conf /conf/hid.conf.bak"); }, -1,
         {"ActFp == NULL, STATIC\n"}},
        {"optional file absent on both sides", [] {}, 0, {"End_FileDiff_DiffFlag == 0\n"}},
        {"copy left over", [] { writeFile(bak(kServices), "old\n"); }, 1,
         {"ActFp == NULL, DYNAMIC, BakFp != NULL\n", "Set DiffFlag = 1\n", "End_FileDiff_DiffFlag == 1\n"}, {},
         [] { EXPECT_FALSE(exists(bak(kServices))); }},
        {"new active file", [] { writeFile(kServices, "ssh 22/tcp\n", 0600); }, 1, {"End_FileDiff_DiffFlag == 1\n"},
         {"Set DiffFlag = 1"},
         [] {
             EXPECT_EQ(readFile(bak(kServices)), "ssh 22/tcp\n");
             struct stat st {};
             ASSERT_EQ(::stat(bak(kServices).c_str(), &st), 0);
             EXPECT_EQ(st.st_mode & 07777, 0600u);
         }},
        {"sizes differ", [] { writeFile(kResolv, readFile(kResolv) + "nameserver 10.0.0.9\n"); }, 1,
         {"Size Diff\n", "Set DiffFlag = 1\n"}, {}, refreshed<kResolv>},
        {"same size, other bytes", [] { writeFile(kResolv, std::string(readFile(kResolv).size(), '#')); }, 1,
         {"Set DiffFlag = 1\n"}, {"Size Diff"}, refreshed<kResolv>},
        {"two empty files",
         [] {
             writeFile(kServices, "");
             writeFile(bak(kServices), "");
         },
         0, {"FileSize == 0\n"}},
        {"user information differs", [] { userInfoPair(4, 3, 1); }, 1,
         {"i = 27\n", "CALL svfChkBmcUserInfoDiff\n", "RetVal = 1\n"}, {}, refreshed<kUserInfo>},
        {"user information differs only in a login time", [] { userInfoPair(4, 4, 2); }, 0, {"RetVal = 0\n"}, {},
         [] { EXPECT_EQ(readBytes(bak(kUserInfo)), userInfo(4, 2)); }},
        {"user information copy too short",
         [] {
             writeBytes(kUserInfo, userInfo(4, 1));
             writeFile(bak(kUserInfo), "short");
         },
         -1, {"RetVal = -2\n"}},
        {"FRU backup file and copy present", fruPair, 1,
         {"BRASK_MSG[6] : svfBraskArchiver(", "svfChkBackupFileDiff() : svfChkBackupFileDiff() : i = 99\n",
          "BRASK_MSG[7] : svfBraskArchiver(", "svfChkBackupFileDiff() : RetVal = 1\n"},
         {},
         [] {
             EXPECT_GT(readBytes(kFru).size(), 16u);  // the FRU was read into it
             refreshed<kFru>();
         }},
        {"FRU cannot be read",
         [] {
             fruPair();
             hostIpmiFailCmd(0x10, 0, 1, 0xC1);
         },
         -1, {"svfChkBackupFileDiff() : RetVal = -1\n"}},
        {"copy exists but cannot be opened for writing", [] { ::mkdir(bak(kServices).c_str(), 0755); }, -1,
         {"/conf/brask/services.bak open fail\n"}},
        {"active file cannot be opened", [] { ::symlink(kServices, kServices); }, -1,
         {"/conf/brask/services open fail\n"}},
        // A failure part-way keeps the rows before it refreshed and leaves the later ones alone.
        {"mandatory file of row 24 missing",
         [] {
             rowsAroundAFailure();
             std::remove("/conf/passwd");
         },
         -1, {}, {}, earlierRowRefreshedOnly},
        {"semaphore refused at row 50",
         [] {
             rowsAroundAFailure();
             hostFailCall("hslAcquireSysvSemaphore", 50, 1, EINTR);
         },
         -1, {}, {}, earlierRowRefreshedOnly, nullptr, 1},
        // Shell commands that fail.
        {"copy of a new file", [] { writeFile(kServices, "x\n"); }, -1, {"svfExeCopyCmd fail.(-1)\n", "goto ERROR\n"},
         {}, [] {}, "cp"},
        {"copy after a size difference", [] { writeFile(kResolv, "nameserver 1.1.1.1\n# more\n"); }, -1,
         {"Size Diff\n", "svfExeCopyCmd fail.(-1)\n"}, {}, [] {}, "cp"},
        // A comparer's difference counts even when the copy then fails.
        {"copy after a comparer difference", [] { userInfoPair(4, 3, 1); }, 1, {"RetVal = 1\n", "system cmd fail("},
         {}, [] {}, "cp"},
        {"removal of a left-over copy", [] { writeFile(bak(kServices), "old\n"); }, -1,
         {"system cmd fail(", "goto ERROR\n"}, {}, [] {}, "rm"},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        resetState();
        SetUp();
        tc.prepare();
        const Resources before;
        Output o;
        {
            std::optional<FailingCommand> failing;
            if (tc.failing != nullptr) failing.emplace(tc.failing);
            EXPECT_EQ(run(o), tc.expected);
        }
        for (const std::string& line : tc.lines) EXPECT_TRUE(o.has(line)) << line << "\n" << o.out << o.err;
        for (const std::string& line : tc.absent) EXPECT_FALSE(o.has(line)) << line;
        tc.verify();
        EXPECT_EQ(Resources(), before);
        EXPECT_EQ(hostCallCount("hslAcquireSysvSemaphore") - tc.refused, hostCallCount("hslReleaseSysvSemaphore"));
    }
}

TEST_F(ChangeDetection, FileTypes) {
    struct Case {
        INT8U type;
        int expected;
        std::vector<std::string> lines;  // in this order
        int semaphores;                  // one per catalogue row
    };
    const std::vector<Case> cases = {
        {EFI_FILE, 0, {"FileType == EFI\n", "NumOfFiles = 0\n", "End_FileDiff_DiffFlag == 0\n"}, 0},
        {2, -1, {"Unknown FileType\n"}, 0},
        // The layout sizes come first.
        {BMC_FILE, 0,
         {"sizeof(BackupFileList_T) = 160\n", "sizeof(BmcBackupFileList[1]) = 160\n",
          "sizeof(BmcBackupFileList) = 17440\n", "FileType == BMC\n", "NumOfFiles = 109\n"},
         109},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.type);
        hostResetCounters();
        Output o;
        EXPECT_EQ(run(o, tc.type), tc.expected);
        const std::string all = o.out + o.err;
        std::size_t at = 0;
        for (const std::string& line : tc.lines) {
            at = all.find(line, at);
            EXPECT_NE(at, std::string::npos) << line << "\n" << all;
        }
        EXPECT_EQ(hostCallCount("hslAcquireSysvSemaphore"), tc.semaphores);
    }
}

TEST_F(ChangeDetection, SemaphoreThatCannotBeGivenBackFails) {
    // In a child: the semaphore stays taken until the child exits.
    hostFailCall("hslReleaseSysvSemaphore", 3, 1, EINVAL);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) _exit(svfChkBackupFileDiff(BMC_FILE) & 0xFF);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0xFF) << status;
}

TEST_F(ChangeDetection, SecondCall) {
    writeFile(kServices, "x\n");
    Output o;
    EXPECT_EQ(run(o), 1);
    EXPECT_EQ(run(o), 0);
    // The FRU is read afresh on every call, so its row changes every time.
    fruPair();
    EXPECT_EQ(run(o), 1);
    EXPECT_EQ(run(o), 1);
    EXPECT_EQ(o.count("Set DiffFlag = 1"), 0);
    EXPECT_EQ(readBytes(bak(kFru)), readBytes(kFru));
}

}  // namespace
}  // namespace brask::test
