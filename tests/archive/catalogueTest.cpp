// The catalogue tables, their selection and the ".bak" naming rule.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"

namespace {

// The row counts per kind pin the catalogue's make-up; a few rows pin its order.
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
        mandatory += row.ExistencType == STATIC && row.RestoreType == 0;
        optional += row.ExistencType == DYNAMIC && row.RestoreType == 0;
        deleted += row.ExistencType == DYNAMIC && row.RestoreType == 4;
    }
    EXPECT_EQ(mandatory, 13);
    EXPECT_EQ(optional, 27);
    EXPECT_EQ(deleted, 69);
    EXPECT_EQ(unique.size(), 109u);
    EXPECT_STREQ(BmcBackupFileList[0].FilePass, "/conf/resolv.conf");
    EXPECT_STREQ(BmcBackupFileList[27].FilePass, "/conf/brask/bum_home/bmcUserInfo.data");
    EXPECT_STREQ(BmcBackupFileList[88].FilePass, "/conf/brask/AssetInfoServerName");
    EXPECT_STREQ(BmcBackupFileList[108].FilePass, "/conf/BMC1/PMConfig.dat");
    EXPECT_EQ(PmconfigList[0].Offset, 0u);
    EXPECT_EQ(PmconfigList[0].Size, 2u);
    EXPECT_EQ(PmconfigList[1].Offset, 4u);
    EXPECT_EQ(PmconfigList[1].Size, 5u);
}

TEST(Catalogue, SelectionByFirmwareType) {
    using namespace brask::catalogue;
    EXPECT_EQ(select(EFI_FILE).count, 0);
    EXPECT_STREQ(select(EFI_FILE).backupFile, "/var/brask/EFI.bak");
    EXPECT_EQ(blockCount(select(EFI_FILE)), 1);
    for (int type : {1, 2, 0xFF}) {
        const Selection s = select(static_cast<INT8U>(type));
        EXPECT_EQ(s.rows, BmcBackupFileList);
        EXPECT_EQ(s.count, 109);
        EXPECT_STREQ(s.backupFile, "/var/brask/BMC.bak");
        EXPECT_EQ(blockCount(s), 2);
    }
    EXPECT_EQ(find(select(BMC_FILE), "/conf/passwd"), &BmcBackupFileList[24]);
    EXPECT_EQ(find(select(BMC_FILE), "/conf/passwd.bak"), nullptr);
    EXPECT_EQ(find(select(EFI_FILE), "/conf/passwd"), nullptr);
}

TEST(PathHelpers, NamingRule) {
    const std::string p147 = "/" + std::string(146, 'p');
    const std::string p148 = "/" + std::string(147, 'p');
    const struct {
        const char* name;
        int (*fn)(char*, char*);
        std::string input;
        int result;
        std::string output;  // expected buffer contents; "" for no write
        const char* message;  // on stderr after the common prefix, on failure
    } cases[] = {
        {"backup pass", svfGetBackupFilePass, "/conf/passwd", 0, "/conf/passwd.bak", ""},
        {"backup pass of 147 chars fits", svfGetBackupFilePass, p147, 0, p147 + ".bak", ""},
        {"backup pass of 148 chars refused", svfGetBackupFilePass, p148, -1, "", ""},
        {"backup name", svfGetBackupFileName, "/conf/brask/net.cfg", 0, "net.cfg.bak", ""},
        {"backup name without slash", svfGetBackupFileName, "net.cfg", -1, "", "strrchr fail("},
        {"active pass", svfGetActiveFilePass, "/conf/passwd.bak", 0, "/conf/passwd", ""},
        {"first .bak wins", svfGetActiveFilePass, "/conf/x.bak.d/y.bak", 0, "/conf/x", ""},
        {"no .bak keeps the copy", svfGetActiveFilePass, "/conf/passwd", -1, "/conf/passwd", ".bak Unmatch\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        char out[152];
        std::memset(out, '#', sizeof out);
        out[sizeof out - 1] = '\0';
        const std::string before(out);
        std::string in = c.input;
        testing::internal::CaptureStderr();
        EXPECT_EQ(c.fn(in.data(), out), c.result);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::string(out), c.output.empty() ? before : c.output);
        if (c.result != 0) {
            EXPECT_NE(err.find("BRASK_ERR  : svfBraskArchiver("), std::string::npos);
            EXPECT_NE(err.find(c.message), std::string::npos) << err;
        }
    }
}

}  // namespace
