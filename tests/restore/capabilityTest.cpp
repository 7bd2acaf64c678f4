// The capability record's own failures, the EEPROM images, and the recovery
// of backup copies.  The capability restore itself is a row of the block
// table (blockReaderTest).
#include <gtest/gtest.h>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "support/builders.h"
#include "support/interpose.h"
#include "support/observe.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kCapability[] = "/conf/BMCCapability.dat";

// A record that cannot be written back or flushed is a failure, and one
// cannot be read from or written over a short file.
TEST(Capability, FailsOnWriteFlushOrShortFile) {
    writeFile(kCapability, std::string(sizeof(INI_BMC_CAPABILITY_T), 'c'));
    INI_BMC_CAPABILITY_T whole{};
    ASSERT_EQ(svfReadBMCCapability(&whole), 0);
    for (const Call call : {Call::Fwrite, Call::Fclose}) {
        const FailCall fail(call, EIO, kCapability);
        const Observed got = observe([&] { return long{svfUpdateBMCCapability(&whole)}; });
        EXPECT_EQ(got.result, -1);
        EXPECT_EQ(got.out, "BRASK_DEBUG  : svfBraskArchiver(#) : svfUpdateBMCCapability fwrite fail\n");
    }
    writeFile(kCapability, std::string(50, 'x'));
    INI_BMC_CAPABILITY_T c{};
    EXPECT_EQ(svfReadBMCCapability(&c), -1);
    EXPECT_EQ(svfUpdateBMCCapability(&c), -1);
    EXPECT_EQ(readFile(kCapability), std::string(50, 'x'));
}

Bytes eeprom(INT32U offset, INT32U length) {
    Bytes out(length);
    EXPECT_EQ(hostEepromRead(offset, out.data(), length), 0);
    return out;
}

// Each image lands at its own offset, only its first ten bytes, and nothing
// reaches the EEPROM from a file that is missing or short; a failed EEPROM
// write is logged, not returned.
TEST(EepromRestore, WritesOnlyTheFirstTenBytesOfAWholeFile) {
    const struct {
        INT8S (*restore)();
        const char* path;
        INT32U offset;
    } images[] = {{svfRestorePostCheckCode, "/conf/brask/PostCheckCode.dat", 0x780C},
                  {svfRestoreWatchdogParameters, "/conf/brask/WatchdogParameters.dat", 0x7804}};
    for (const auto& c : images) {
        SCOPED_TRACE(c.path);
        resetState();
        const auto blank = eeprom(0x7800, 0x20);
        EXPECT_EQ(c.restore(), 0);
        EXPECT_EQ(hostCallCount("brask_ReadWriteEEPROM"), 0);
        writeBytes(c.path, Bytes(9, 1));
        EXPECT_EQ(c.restore(), static_cast<INT8S>(0xC0));
        EXPECT_EQ(eeprom(0x7800, 0x20), blank);

        writeBytes(c.path, bytesOf("0123456789ab"));
        EXPECT_EQ(c.restore(), 0);
        EXPECT_EQ(eeprom(c.offset - 1, 12), bytesOf("\xff"
                                                    "0123456789"
                                                    "\xff"));  // blank on each side
        hostResetCounters();
        ASSERT_EQ(hostFailCall("brask_ReadWriteEEPROM", 0, 1, EIO), 0);
        EXPECT_EQ(c.restore(), 0);
        EXPECT_EQ(hostCallCount("brask_ReadWriteEEPROM"), 1);
    }
}

// Every catalogue file comes back from its copy; one without a copy is
// reported and left alone.
TEST(Recovery, RecoverFileCopiesBackupCopiesBack) {
    const auto written = populateConf({.backupCopies = true});
    ASSERT_FALSE(written.empty());
    writeFile("/conf/resolv.conf", "changed\n");
    const std::string orphan = "/conf/brask/bum_home/bmcuser11/sshpubkey4";
    writeFile(orphan, "no backup copy\n");
    (void)std::remove((orphan + ".bak").c_str());
    const Observed got = observe([] { return long{svfRecoverFile()}; });
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(linesInOrder(got.err, {"BRASK_ERR  : svfBraskArchiver(#) : " + orphan + " Recover fail"}), "");
    for (const auto& p : written) EXPECT_EQ(readFile(p), readFile(p + ".bak")) << p;
    EXPECT_EQ(readFile(orphan), "no backup copy\n");
}

}  // namespace
}  // namespace brask::test
