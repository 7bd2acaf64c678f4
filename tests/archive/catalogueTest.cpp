// The catalogue tables, their selection and the ".bak" naming rule.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"

namespace {

TEST(Catalogue, BmcRowsAreAsListed) {
    int mandatory = 0, optional = 0, deleted = 0;
    std::set<std::string> unique;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        EXPECT_EQ(row.TargetArcBlock, 1);
        EXPECT_EQ(row.TargetPart, 0);
        EXPECT_EQ(std::memcmp(row.Reserve, "\0\0\0\0", 4), 0);
        const std::size_t len = std::strlen(row.FilePass);
        EXPECT_LE(len, 147u) << row.FilePass;
        for (std::size_t i = len; i < sizeof row.FilePass; ++i) ASSERT_EQ(row.FilePass[i], 0);
        unique.insert(row.FilePass);
        if (row.ExistencType == STATIC && row.RestoreType == 0) ++mandatory;
        if (row.ExistencType == DYNAMIC && row.RestoreType == 0) ++optional;
        if (row.ExistencType == DYNAMIC && row.RestoreType == 4) ++deleted;
    }
    EXPECT_EQ(mandatory, 13);
    EXPECT_EQ(optional, 27);
    EXPECT_EQ(deleted, 69);
    EXPECT_EQ(unique.size(), 109u);

    const struct {
        int row;
        const char* path;
        INT8U existence;
        INT8U restore;
    } spots[] = {
        {0, "/conf/resolv.conf", STATIC, 0},
        {8, "/conf/brask/ssh/sshd_not_to_be_run", DYNAMIC, 4},
        {27, "/conf/brask/bum_home/bmcUserInfo.data", DYNAMIC, 0},
        {28, "/conf/brask/bum_home/bmcuser0/.ssh/authorized_keys", DYNAMIC, 4},
        {32, "/conf/brask/bum_home/bmcuser0/sshpubkey4", DYNAMIC, 4},
        {78, "/conf/brask/bum_home/bmcuser10/.ssh/authorized_keys", DYNAMIC, 4},
        {87, "/conf/brask/bum_home/bmcuser11/sshpubkey4", DYNAMIC, 4},
        {88, "/conf/brask/AssetInfoServerName", DYNAMIC, 4},
        {102, "/conf/brask/iptables_data", DYNAMIC, 4},
        {108, "/conf/BMC1/PMConfig.dat", STATIC, 0},
    };
    for (const auto& s : spots) {
        SCOPED_TRACE(s.row);
        EXPECT_STREQ(BmcBackupFileList[s.row].FilePass, s.path);
        EXPECT_EQ(BmcBackupFileList[s.row].ExistencType, s.existence);
        EXPECT_EQ(BmcBackupFileList[s.row].RestoreType, s.restore);
    }
    EXPECT_EQ(PmconfigList[0].Offset, 0u);
    EXPECT_EQ(PmconfigList[0].Size, 2u);
    EXPECT_EQ(PmconfigList[1].Offset, 4u);
    EXPECT_EQ(PmconfigList[1].Size, 5u);
}

TEST(Catalogue, SelectionByFirmwareType) {
    using brask::catalogue::select;
    EXPECT_EQ(select(EFI_FILE).count, 0);
    EXPECT_STREQ(select(EFI_FILE).backupFile, "/var/brask/EFI.bak");
    EXPECT_EQ(brask::catalogue::blockCount(select(EFI_FILE)), 1);
    for (int type : {1, 2, 0xFF}) {
        EXPECT_EQ(select(static_cast<INT8U>(type)).rows, BmcBackupFileList);
        EXPECT_EQ(select(static_cast<INT8U>(type)).count, 109);
        EXPECT_STREQ(select(static_cast<INT8U>(type)).backupFile, "/var/brask/BMC.bak");
        EXPECT_EQ(brask::catalogue::blockCount(select(static_cast<INT8U>(type))), 2);
    }
    const auto bmc = select(BMC_FILE);
    EXPECT_EQ(brask::catalogue::find(bmc, "/conf/passwd"), &BmcBackupFileList[24]);
    EXPECT_EQ(brask::catalogue::find(bmc, "/conf/passwd.bak"), nullptr);
    EXPECT_EQ(brask::catalogue::find(select(EFI_FILE), "/conf/passwd"), nullptr);
}

struct PathCase {
    const char* name;
    int (*fn)(char*, char*);
    std::string input;
    int result;
    std::string output;  // expected buffer contents; "<untouched>" for no write
};

TEST(PathHelpers, NamingRule) {
    const std::string p147 = "/" + std::string(146, 'p');
    const std::string p148 = "/" + std::string(147, 'p');
    const std::vector<PathCase> cases = {
        {"backup pass", svfGetBackupFilePass, "/conf/passwd", 0, "/conf/passwd.bak"},
        {"backup pass of 147 chars fits", svfGetBackupFilePass, p147, 0, p147 + ".bak"},
        {"backup pass of 148 chars refused", svfGetBackupFilePass, p148, -1, "<untouched>"},
        {"backup name", svfGetBackupFileName, "/conf/brask/net.cfg", 0, "net.cfg.bak"},
        {"backup name without slash", svfGetBackupFileName, "net.cfg", -1, "<untouched>"},
        {"active pass", svfGetActiveFilePass, "/conf/passwd.bak", 0, "/conf/passwd"},
        {"first .bak wins", svfGetActiveFilePass, "/conf/x.bak.d/y.bak", 0, "/conf/x"},
        {"no .bak keeps the copy", svfGetActiveFilePass, "/conf/passwd", -1, "/conf/passwd"},
    };
    for (const PathCase& c : cases) {
        SCOPED_TRACE(c.name);
        char out[152];
        std::memset(out, '#', sizeof out);
        out[sizeof out - 1] = '\0';
        const std::string before(out);
        std::string in = c.input;
        testing::internal::CaptureStderr();
        EXPECT_EQ(c.fn(in.data(), out), c.result);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::string(out), c.output == "<untouched>" ? before : c.output);
        if (c.result != 0) {
            EXPECT_NE(err.find("BRASK_ERR  : svfBraskArchiver("), std::string::npos);
        }
    }
}

TEST(PathHelpers, FailureMessages) {
    char out[152];
    char noSlash[] = "net.cfg";
    testing::internal::CaptureStderr();
    svfGetBackupFileName(noSlash, out);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("strrchr fail("), std::string::npos);
    char noBak[] = "/conf/passwd";
    testing::internal::CaptureStderr();
    svfGetActiveFilePass(noBak, out);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(".bak Unmatch\n"), std::string::npos);
}

}  // namespace
