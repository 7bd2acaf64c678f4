// The capability record survives a restore except for InterfaceREV.
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "restoreTestSupport.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kCapability[] = "/conf/BMCCapability.dat";

INI_BMC_CAPABILITY_T capability(const char* interfaceRev, INT8U webClients) {
    INI_BMC_CAPABILITY_T c{};
    std::memcpy(c.BMCtype, "BRASK", 5);
    std::strncpy(reinterpret_cast<char*>(c.InterfaceREV), interfaceRev, sizeof c.InterfaceREV);
    c.WebConsoleMaxClient = webClients;
    return c;
}

std::string bytesOf(const INI_BMC_CAPABILITY_T& c) {
    return std::string(reinterpret_cast<const char*>(&c), sizeof c);
}

// Extracts a block file made of `entries` as block 1 of a BMC backup.
int extractBlock(const std::vector<EntrySpec>& entries) {
    writeBytes("/var/brask/BMC.bak-1", test::block(entries));
    char name[] = "/var/brask/BMC.bak-1";
    return svfExtractBraskArchive(BMC_FILE, name, 1);
}

TEST_F(RestoreTest, CapabilityKeepsLiveFieldsAndTakesInterfaceRevFromBackup) {
    writeFile(kCapability, bytesOf(capability("REV-A", 4)));
    ASSERT_EQ(extractBlock({entry(kCapability, bytesOf(capability("REV-B", 8)))}), 0);
    EXPECT_EQ(readFile(kCapability), bytesOf(capability("REV-B", 4)));
}

TEST_F(RestoreTest, CapabilityRewrittenUnchangedByBlockWithoutIt) {
    writeFile(kCapability, bytesOf(capability("REV-A", 4)), 0600);
    ASSERT_EQ(extractBlock({}), 0);
    EXPECT_EQ(readFile(kCapability), bytesOf(capability("REV-A", 4)));
}

TEST_F(RestoreTest, ShortOrMissingCapabilityKeepsWhatTheArchiveWrote) {
    const std::string archived = bytesOf(capability("REV-B", 8));
    for (const bool present : {true, false}) {
        if (present) writeFile(kCapability, std::string(50, 'x'));
        else std::remove(kCapability);
        ASSERT_EQ(extractBlock({entry(kCapability, archived)}), 0);
        EXPECT_EQ(readFile(kCapability), archived) << (present ? "50-byte file" : "no file");
    }
}

TEST_F(RestoreTest, UpdateFailsOnShortFileAndLeavesIt) {
    writeFile(kCapability, std::string(50, 'x'));
    INI_BMC_CAPABILITY_T c = capability("REV-A", 4);
    EXPECT_EQ(svfReadBMCCapability(&c), -1);
    EXPECT_EQ(svfUpdateBMCCapability(&c), -1);
    EXPECT_EQ(readFile(kCapability), std::string(50, 'x'));
}

}  // namespace
}  // namespace brask::test
