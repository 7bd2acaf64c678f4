// Compares two BIOS configuration files with svfChkBIOSConfFileDiff: only the
// active file's structure is walked, so a hostile length must neither read
// past either file nor leave a descriptor behind, and a file compared with
// an identical copy of itself is never reported as changed.
//
// Input: [split, 2 bytes LE][active file...][backup copy...]; the split is
// taken modulo the room there is.
#include "fuzz.h"

// The verdict, in range; both handles stay the caller's and usable.
static int compare(const char* active, const char* backup) {
    FILE *act = std::fopen(active, "rb"), *bak = std::fopen(backup, "rb");
    assert(act != nullptr && bak != nullptr);
    const int result = fuzz::quietly([&] { return svfChkBIOSConfFileDiff(act, bak); });
    assert(std::fclose(act) == 0 && std::fclose(bak) == 0 && result >= -2 && result <= 1);
    return result;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) { return fuzz::enterSandbox(argc, argv); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t split = (data[0] | data[1] << 8) % (size - 1);
    test::writeBytes("/tmp/active", {data + 2, data + 2 + split});
    test::writeBytes("/tmp/backup", {data + 2 + split, data + size});
    const int descriptors = test::openDescriptorCount(), result = compare("/tmp/active", "/tmp/backup");
    // Identical bytes: equal, or the walk found the file damaged.
    const int self = compare("/tmp/active", "/tmp/active");
    assert(self == 0 || self == -2);
    // The verdict depends on the bytes alone, never on an earlier call.
    assert(compare("/tmp/active", "/tmp/backup") == result && test::openDescriptorCount() == descriptors);
    return 0;
}
