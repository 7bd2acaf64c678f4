// Unpacks the input as an archive block with svfExtractBraskArchive over the
// scenario's /conf and checks after every input that nothing outside the
// catalogue's active paths (and the devices' images under /var/hsl) was
// created, removed or changed, and that no descriptor was left open; then
// puts the tree back and checks it equal to the start.
//
// Input: [flags][block...].  flags bits 0-1: BlockNum; bit 2: maintenance
// mode; bit 3: keep the block's checksum as given (otherwise it is fixed so
// that the block gets past the whole-file sum); bit 4: EFI catalogue.
#include "archive/catalogue.h"
#include "fuzz.h"

constexpr char kBlockFile[] = "/var/brask/BMC.bak-1";
static test::Tree* gBaseline = nullptr;

static test::Tree snapshot() { return test::snapshotTree({"/conf", "/var", "/tmp"}); }

static int extract(INT8U fwType, const test::Bytes& block, INT8U blockNum) {
    test::writeBytes(kBlockFile, block);
    return fuzz::quietly(
        [&] { return svfExtractBraskArchive(fwType, const_cast<char*>(kBlockFile), blockNum); });
}

// One empty block first, so that whatever an extraction makes on first use
// is part of the starting tree.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::enterSandbox(argc, argv);
    (void)test::populateConf();
    (void)extract(BMC_FILE, test::block({}), 1);
    gBaseline = new test::Tree(snapshot());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const INT8U fwType = (data[0] & 16) != 0 ? EFI_FILE : BMC_FILE;
    test::Bytes block(data + 1, data + size);
    if ((data[0] & 8) == 0) test::sealBlock(block);
    if ((data[0] & 4) != 0) hostSetMaintenanceMode(1);
    const int descriptors = test::openDescriptorCount(), result = extract(fwType, block, INT8U(data[0] & 3));
    assert((result == 0 || result == -1) && test::openDescriptorCount() == descriptors);

    // What an extraction may touch: the active paths of the chosen catalogue,
    // the capability record it writes back, the device images behind the FRU
    // and EEPROM restores, and the block file it was given.
    const std::vector<std::string> changed = test::changedPaths(*gBaseline, snapshot());
    for (const std::string& path : changed) {
        const bool mayChange = path == kBlockFile || path == paths::kCapabilityFile ||
                               (path + "/").rfind(HOST_STATE_DIR "/", 0) == 0 ||
                               catalogue::find(catalogue::select(fwType), path) != nullptr;
        if (!mayChange) std::fprintf(stderr, "extraction touched %s\n", path.c_str());
        assert(mayChange);
    }
    assert(test::restoreTree(*gBaseline, changed) && test::changedPaths(*gBaseline, snapshot()).empty());
    hostResetFaults();
    return 0;
}
