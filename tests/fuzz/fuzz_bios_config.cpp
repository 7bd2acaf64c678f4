// Compares two BIOS configuration files with svfChkBIOSConfFileDiff: only the
// active file's structure is walked, so a hostile length must neither read
// past either file nor leave a descriptor behind, and a file compared with
// an identical copy of itself is never reported as changed.
//
// Input: [split, 2 bytes LE][active file...][backup copy...]; the split is
// taken modulo the room there is.
#include "BraskSvf/svfApi.h"
#include "fuzz.h"

using namespace brask;

namespace {

constexpr char kActive[] = "/tmp/BIOSConfig.dat";
constexpr char kBackup[] = "/tmp/BIOSConfig.dat.bak";

int compare(const char* active, const char* backup) {
    FILE *act = std::fopen(active, "rb"), *bak = std::fopen(backup, "rb");
    FUZZ_CHECK(act != nullptr && bak != nullptr);
    const int result = fuzz::quietly([&] { return svfChkBIOSConfFileDiff(act, bak); });
    // Both handles stay the caller's and usable.
    FUZZ_CHECK(std::fclose(act) == 0 && std::fclose(bak) == 0);
    FUZZ_CHECK(result >= -2 && result <= 1);
    return result;
}

}  // namespace

FUZZ_SANDBOXED()

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t room = size - 2, split = (data[0] | data[1] << 8) % (room + 1);
    test::writeBytes(kActive, {data + 2, data + 2 + split});
    test::writeBytes(kBackup, {data + 2 + split, data + size});
    const int descriptors = test::openDescriptorCount();
    const int result = compare(kActive, kBackup);
    // Identical bytes: equal, or the walk found the file damaged.
    const int self = compare(kActive, kActive);
    FUZZ_CHECK(self == 0 || self == -2);
    // The verdict depends on the bytes alone, never on an earlier call.
    FUZZ_CHECK(compare(kActive, kBackup) == result);
    FUZZ_CHECK(test::openDescriptorCount() == descriptors);
    return 0;
}
