// Unpacks the input as an archive block with svfExtractBraskArchive inside
// the sandbox, over a realistic /conf, and checks after every input that
// nothing outside the catalogue's active paths (and the devices' images
// under /var/hsl) was created, removed or changed; then puts the tree back.
//
// Input: [flags][block...].  flags bits 0-1: BlockNum; bit 2: maintenance
// mode; bit 3: keep the block's checksum as given (otherwise it is fixed so
// that the block gets past the whole-file sum); bit 4: EFI catalogue.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "archive/format.h"
#include "common/paths.h"
#include "fuzzCheck.h"
#include "fuzzSandbox.h"
#include "sandbox/scenario.h"
#include "support/builders.h"
#include "support/tree.h"

using namespace brask;

namespace {

constexpr char kBlockFile[] = "/var/brask/BMC.bak-1";

struct World {
    test::Tree baseline;
};
World* gWorld = nullptr;

bool startsWith(const std::string& s, const char* prefix) {
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

// What an extraction may touch: the active paths of the chosen catalogue,
// the capability record it writes back, the device images behind the FRU
// and EEPROM restores, and the block file it was given.
bool mayChange(const std::string& path, const catalogue::Selection& cat) {
    if (path == kBlockFile || path == paths::kCapabilityFile) return true;
    if (path == HOST_STATE_DIR || startsWith(path, HOST_STATE_DIR "/")) return true;
    return catalogue::find(cat, path.c_str()) != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::enterSandbox(argc, argv);
    (void)sandbox::populateConf(BmcBackupFileList);
    // One empty block first, so that whatever an extraction makes on first
    // use is part of the starting tree.
    std::vector<std::uint8_t> empty(format::kArchiveHeaderSize);
    empty[0] = format::kArchiveVersion;
    test::sealBlock(empty);
    fuzz::writeFile(kBlockFile, empty.data(), empty.size());
    {
        fuzz::Quiet quiet;
        (void)svfExtractBraskArchive(1, const_cast<char*>(kBlockFile), 1);
    }
    gWorld = new World;
    gWorld->baseline = test::snapshotTree({"/conf", "/var", "/tmp"});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::uint8_t flags = data[0];
    const auto blockNum = static_cast<INT8U>(flags & 3);
    const bool maintenance = (flags & 4) != 0;
    const INT8U fwType = (flags & 16) != 0 ? 0 : 1;
    std::vector<std::uint8_t> block(data + 1, data + size);
    if ((flags & 8) == 0) test::sealBlock(block);

    fuzz::writeFile(kBlockFile, block.data(), block.size());
    if (maintenance) hostSetMaintenanceMode(1);
    const int descriptors = fuzz::openDescriptorCount();
    int result;
    {
        fuzz::Quiet quiet;
        result = svfExtractBraskArchive(fwType, const_cast<char*>(kBlockFile), blockNum);
    }
    FUZZ_CHECK(result == 0 || result == -1);
    FUZZ_CHECK(fuzz::openDescriptorCount() == descriptors);

    const catalogue::Selection cat = catalogue::select(fwType);
    const std::vector<std::string> changed =
        test::changedPaths(gWorld->baseline, test::snapshotTree({"/conf", "/var", "/tmp"}));
    for (const std::string& path : changed) {
        if (!mayChange(path, cat)) {
            ::dprintf(fuzz::kReportFd, "extraction touched %s\n", path.c_str());
            FUZZ_CHECK(!"a path outside the catalogue was created or changed");
        }
    }

    if (!changed.empty()) {
        FUZZ_CHECK(test::restoreTree(gWorld->baseline, changed));
        FUZZ_CHECK(test::changedPaths(gWorld->baseline, test::snapshotTree({"/conf", "/var", "/tmp"})).empty());
    }
    hostResetFaults();
    hostFruClearAccessLog();
    hostResetCounters();
    return 0;
}
