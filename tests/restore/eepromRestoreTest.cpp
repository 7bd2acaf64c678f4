// EEPROM restores: each file image lands at its own offset, only its first
// ten bytes, and nothing reaches the EEPROM from a file that is short.
#include <array>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "restoreTestSupport.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

struct EepromCase {
    const char* name;
    INT8S (*restore)();
    const char* path;
    INT32U offset;
};
const EepromCase kImages[] = {
    {"PostCheckCode", svfRestorePostCheckCode, "/conf/brask/PostCheckCode.dat", 0x780C},
    {"WatchdogParameters", svfRestoreWatchdogParameters, "/conf/brask/WatchdogParameters.dat", 0x7804},
};

ByteVec eeprom(INT32U offset, INT32U length) {
    ByteVec out(length);
    EXPECT_EQ(hostEepromRead(offset, out.data(), length), 0);
    return out;
}

ByteVec counting(std::size_t n, std::uint8_t first) {
    ByteVec v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::uint8_t>(first + i);
    return v;
}

class EepromRestore : public RestoreTest, public ::testing::WithParamInterface<EepromCase> {};

// One image through its outcomes in turn: missing, short, whole, failed write.
TEST_P(EepromRestore, WritesOnlyTheFirstTenBytesOfAWholeFile) {
    const EepromCase& c = GetParam();
    const auto blank = eeprom(0x7800, 0x20);
    EXPECT_EQ(c.restore(), 0);  // no file: nothing to restore
    EXPECT_EQ(hostCallCount("brask_ReadWriteEEPROM"), 0);

    writeBytes(c.path, counting(9, 1));
    EXPECT_EQ(c.restore(), static_cast<INT8S>(0xC0));
    EXPECT_EQ(eeprom(0x7800, 0x20), blank);

    writeBytes(c.path, counting(12, 0x40));
    EXPECT_EQ(c.restore(), 0);
    EXPECT_EQ(eeprom(c.offset, 10), counting(10, 0x40));
    EXPECT_EQ(eeprom(c.offset + 10, 2), ByteVec(2, 0xFF));
    EXPECT_EQ(eeprom(c.offset - 1, 1), ByteVec(1, 0xFF));

    // A failed EEPROM write is logged, not returned.
    hostResetCounters();
    ASSERT_EQ(hostFailCall("brask_ReadWriteEEPROM", 0, 1, EIO), 0);
    EXPECT_EQ(c.restore(), 0);
    EXPECT_EQ(hostCallCount("brask_ReadWriteEEPROM"), 1);
}

INSTANTIATE_TEST_SUITE_P(Images, EepromRestore, ::testing::ValuesIn(kImages),
                         [](const auto& p) { return std::string(p.param.name); });

TEST_F(RestoreTest, OverlapBelongsToTheLaterRestore) {
    writeBytes("/conf/brask/PostCheckCode.dat", counting(10, 0xA0));       // 0x780C..0x7815
    writeBytes("/conf/brask/WatchdogParameters.dat", counting(10, 0x10));  // 0x7804..0x780D
    ASSERT_EQ(svfRestorePostCheckCode(), 0);
    ASSERT_EQ(svfRestoreWatchdogParameters(), 0);
    EXPECT_EQ(eeprom(0x7804, 10), counting(10, 0x10));
    EXPECT_EQ(eeprom(0x780E, 8), counting(8, 0xA2));
}

}  // namespace
}  // namespace brask::test
