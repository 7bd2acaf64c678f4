// The capability record survives a restore except for InterfaceREV, and the
// recovery of backup copies puts every copy back over its file.
#include <algorithm>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "restoreTestSupport.h"
#include "support/interpose.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kCapability[] = "/conf/BMCCapability.dat";

std::string capability(const char* interfaceRev, INT8U webClients) {
    INI_BMC_CAPABILITY_T c{};
    std::memcpy(c.BMCtype, "BRASK", 5);
    std::memcpy(c.InterfaceREV, interfaceRev, std::min(std::strlen(interfaceRev), sizeof c.InterfaceREV));
    c.WebConsoleMaxClient = webClients;
    return std::string(reinterpret_cast<const char*>(&c), sizeof c);
}

TEST_F(RestoreTest, CapabilityKeepsLiveFieldsAndTakesInterfaceRevFromTheBackup) {
    const struct {
        const char* what;
        std::optional<std::string> live;      // none: no file
        std::optional<std::string> archived;  // none: the block does not hold it
        std::string expected;
    } cases[] = {
        {"both whole", capability("REV-A", 4), capability("REV-B", 8), capability("REV-B", 4)},
        {"not in the block: rewritten as it was", capability("REV-A", 4), std::nullopt,
         capability("REV-A", 4)},
        {"live file too short: the archived one stays", std::string(50, 'x'), capability("REV-B", 8),
         capability("REV-B", 8)},
        {"no live file: the archived one stays", std::nullopt, capability("REV-B", 8),
         capability("REV-B", 8)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.live)
            writeFile(kCapability, *c.live);
        else
            (void)std::remove(kCapability);
        std::vector<StoredEntry> entries;
        if (c.archived) entries.push_back(entry(kCapability, *c.archived));
        writeBytes("/var/brask/BMC.bak-1", test::block(entries));
        char name[] = "/var/brask/BMC.bak-1";
        ASSERT_EQ(svfExtractBraskArchive(BMC_FILE, name, 1), 0);
        EXPECT_EQ(readFile(kCapability), c.expected);
    }
    // A record that cannot be written back is a failure.
    writeFile(kCapability, capability("REV-A", 4));
    INI_BMC_CAPABILITY_T whole{};
    ASSERT_EQ(svfReadBMCCapability(&whole), 0);
    {
        const FailCall fail(Call::Fwrite, EIO, kCapability);
        EXPECT_EQ(svfUpdateBMCCapability(&whole), -1);
    }
    // A record cannot be read from or written over a short file.
    writeFile(kCapability, std::string(50, 'x'));
    INI_BMC_CAPABILITY_T c{};
    EXPECT_EQ(svfReadBMCCapability(&c), -1);
    EXPECT_EQ(svfUpdateBMCCapability(&c), -1);
    EXPECT_EQ(readFile(kCapability), std::string(50, 'x'));
}

TEST_F(RestoreTest, RecoverFileCopiesBackupCopiesBack) {
    ScenarioOptions options;
    options.backupCopies = true;
    const auto written = populateConf(options);
    ASSERT_FALSE(written.empty());
    writeFile("/conf/resolv.conf", "changed\n");
    const std::string orphan = "/conf/brask/bum_home/bmcuser11/sshpubkey4";
    writeFile(orphan, "no backup copy\n");
    (void)std::remove((orphan + ".bak").c_str());

    EXPECT_EQ(svfRecoverFile(), 0);
    for (const auto& p : written) EXPECT_EQ(readFile(p), readFile(p + ".bak")) << p;
    EXPECT_EQ(readFile(orphan), "no backup copy\n");
}

}  // namespace
}  // namespace brask::test
