// Product identity from the FRU, firmware revisions, and the FRU product
// info area rewrite, against the host platform's IPMI responder.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

class Identity : public ::testing::Test {
protected:
    void SetUp() override { hostResetFaults(); }
    void TearDown() override { hostResetFaults(); }
};

// An image in which every byte tells its own offset apart.
Bytes patternImage(std::size_t size) {
    Bytes image(size);
    for (std::size_t i = 0; i < size; ++i) image[i] = static_cast<std::uint8_t>(i * 7 + 3);
    return image;
}

TEST_F(Identity, CopiesModelSerialModuleTypeAndUuidFromTheirOffsets) {
    const Bytes image = patternImage(1024);
    ASSERT_EQ(hostFruWriteImage(image.data(), image.size()), 0);
    svfBraskBackupFileHeader_T h{};
    std::memset(&h, 0xEE, sizeof h);
    ASSERT_EQ(svfGetProductIdFru(&h), 0);
    EXPECT_EQ(0, std::memcmp(h.ModelNumber, &image[0xA1], 32));
    EXPECT_EQ(0, std::memcmp(h.SerialNumber, &image[0xCD], 20));
    EXPECT_EQ(0, std::memcmp(h.ModuleType, &image[0xF8], 2));
    EXPECT_EQ(0, std::memcmp(h.UUID, &image[0x15E], 16));
    // No other field is touched.
    EXPECT_EQ(h.Version, 0xEE);
    EXPECT_EQ(h.FwType, 0xEE);
    EXPECT_EQ(h.ChkSum, 0xEEEEEEEEu);
}

TEST_F(Identity, IpmiFailureAtEachReadFails) {
    for (int step = 0; step < 4; ++step) {
        for (bool transport : {false, true}) {
            SCOPED_TRACE("read " + std::to_string(step) + (transport ? " call" : " completion"));
            hostResetFaults();
            if (transport) hostFailCall("API_ExecuteCmd", step, 1, 0);
            else hostIpmiFailCmd(0x11, step, 1, 0xC1);
            svfBraskBackupFileHeader_T h{};
            testing::internal::CaptureStderr();
            EXPECT_EQ(svfGetProductIdFru(&h), -1);
            EXPECT_NE(testing::internal::GetCapturedStderr().find("API_ExecuteCmd Fail\n"),
                      std::string::npos);
        }
    }
}

TEST_F(Identity, BmcRevisionFromFwInfo) {
    const struct {
        const char* content;  // nullptr: no FwInfo file
        int result, major, minor;
    } cases[] = {
        {"FW_VERSION=2.17\n", 0, 2, 17},
        {"FW_VERSION=1.0\nBUILD=77\n", 0, 1, 0},
        {"FW_VERSION=300.258", 0, 44, 2},  // each truncated to 8 bits
        {"FW_VERSION=3", 0, 0, 0},
        {"VERSION=2.17", 0, 0, 0},
        {"", 0, 0, 0},
        {nullptr, -1, 0xAA, 0xAA},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content ? c.content : "no file");
        if (c.content) brask::test::setFwInfo(c.content);
        else brask::test::removeFwInfo();
        FwRev_T rev{0xAA, 0xAA};
        testing::internal::CaptureStdout();
        EXPECT_EQ(svfGetBmcRev(&rev), c.result);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(rev.Major, c.major);
        EXPECT_EQ(rev.Minor, c.minor);
        const char* message = c.content ? "" : "FW_INFO_FILE open fail\n";
        EXPECT_NE(out.find(message), std::string::npos) << out;
    }
}

TEST_F(Identity, EfiRevisionFromBiosConfiguration) {
    const struct {
        const char* name;
        Bytes content;  // empty: no file
        INT8U type;
        int result, major, minor;
    } cases[] = {
        {"valid header", {1, 0, 0, 0, 4, 9, 0xAB}, EFI_FILE, 0, 4, 9},
        {"valid header, BMC", {1, 0, 0, 0, 4, 9}, BMC_FILE, 0, 4, 9},
        {"format 0", {0, 0, 0, 0, 4, 9}, EFI_FILE, 0, 0, 0},
        {"5 bytes", {1, 0, 0, 0, 4}, EFI_FILE, 0, 0, 0},
        {"missing, BMC", {}, BMC_FILE, 0, 0, 0},
        {"missing, EFI", {}, EFI_FILE, -1, 0xAA, 0xAA},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ::unlink("/conf/brask/BIOSConfig.dat");
        if (!c.content.empty()) brask::test::writeBytes("/conf/brask/BIOSConfig.dat", c.content);
        FwRev_T rev{0xAA, 0xAA};
        EXPECT_EQ(svfGetEfiRev(c.type, &rev), c.result);
        EXPECT_EQ(rev.Major, c.major);
        EXPECT_EQ(rev.Minor, c.minor);
    }
}

TEST_F(Identity, ProductInfoRewriteKeepsTheAreaSummingToZero) {
    const Bytes before = patternImage(1024);
    ASSERT_EQ(hostFruWriteImage(before.data(), before.size()), 0);
    hostFruClearAccessLog();
    INT8U model[32], serial[20];
    std::memset(model, 'M', sizeof model);
    std::memset(serial, 'S', sizeof serial);
    ASSERT_EQ(svfModFruProductInfoArea(model, serial), 0);

    Bytes after(1024);
    ASSERT_EQ(hostFruReadImage(after.data(), after.size()), 1024);
    EXPECT_EQ(Bytes(after.begin() + 0xA0, after.begin() + 0xC0), Bytes(32, 'M'));
    EXPECT_EQ(Bytes(after.begin() + 0xCC, after.begin() + 0xE0), Bytes(20, 'S'));
    unsigned sum = 0;
    for (std::size_t i = 0x80; i <= 0xEE; ++i) sum += after[i];
    EXPECT_EQ(sum % 256, 0u);
    for (std::size_t i = 0; i < after.size(); ++i) {
        const bool rewritten = (i >= 0xA0 && i < 0xC0) || (i >= 0xCC && i < 0xE0) || i == 0xEE;
        ASSERT_TRUE(rewritten || after[i] == before[i]) << "offset " << i;
    }

    hostFruAccess_T log[16];
    ASSERT_EQ(hostFruAccessLog(log, 16), 12);
    const INT32U counts[] = {20, 20, 20, 20, 20, 11};
    for (int k = 0; k < 12; ++k) {
        EXPECT_EQ(log[k].Cmd, k < 6 ? 0x11 : 0x12);
        EXPECT_EQ(log[k].Offset, 0x80u + 20u * (k % 6));
        EXPECT_EQ(log[k].Count, counts[k % 6]);
    }
}

TEST_F(Identity, ProductInfoRewriteStopsAtAFailedRequest) {
    INT8U model[32] = {}, serial[20] = {};
    for (const INT8U cmd : {0x11, 0x12}) {  // the last read, the third write
        SCOPED_TRACE(cmd);
        hostResetFaults();
        hostFruClearAccessLog();
        hostIpmiFailCmd(cmd, cmd == 0x11 ? 5 : 2, 1, 0xC1);
        EXPECT_EQ(svfModFruProductInfoArea(model, serial), -1);
        hostFruAccess_T log[16];
        // Nothing is written after a failed read; the refused write is not served.
        EXPECT_EQ(hostFruAccessLog(log, 16), cmd == 0x11 ? 5 : 6 + 2);
    }
}

}  // namespace
