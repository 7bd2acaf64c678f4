// Compares two BIOS configuration files with svfChkBIOSConfFileDiff: only
// the active file's structure is walked, so a hostile length must neither
// read past either file nor leave a descriptor or mapping behind.  A file
// compared with an identical copy of itself is never reported as changed.
//
// Input: [split, 2 bytes LE][active file...][backup copy...]; the split is
// taken modulo the room there is.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "fuzzCheck.h"
#include "fuzzSandbox.h"

using namespace brask;

namespace {

constexpr char kActive[] = "/tmp/BIOSConfig.dat";
constexpr char kBackup[] = "/tmp/BIOSConfig.dat.bak";

int compare(const char* active, const char* backup) {
    FILE* act = std::fopen(active, "rb");
    FILE* bak = std::fopen(backup, "rb");
    FUZZ_CHECK(act != nullptr && bak != nullptr);
    int result;
    {
        fuzz::Quiet quiet;
        result = svfChkBIOSConfFileDiff(act, bak);
    }
    // Both handles stay the caller's and usable.
    FUZZ_CHECK(std::fclose(act) == 0);
    FUZZ_CHECK(std::fclose(bak) == 0);
    FUZZ_CHECK(result >= -2 && result <= 1);
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::enterSandbox(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t room = size - 2;
    std::uint16_t first = 0;
    (void)format::ByteCursor(format::Bytes(data, 2)).u16(first);
    const std::size_t split = first % (room + 1);
    fuzz::writeFile(kActive, data + 2, split);
    fuzz::writeFile(kBackup, data + 2 + split, room - split);

    const int descriptors = fuzz::openDescriptorCount();
    const int result = compare(kActive, kBackup);
    // Identical bytes: equal, or the walk found the file damaged.
    const int self = compare(kActive, kActive);
    FUZZ_CHECK(self == 0 || self == -2);
    // The verdict depends on the bytes alone, never on an earlier call.
    FUZZ_CHECK(compare(kActive, kBackup) == result);
    FUZZ_CHECK(fuzz::openDescriptorCount() == descriptors);
    return 0;
}
