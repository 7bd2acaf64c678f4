// Writes the input as the FRU backup file and restores it with svfRestoreFRU
// through the host platform's in-process IPMI responder, then checks the
// result and the FRU device's image against a plain model of the restore:
// the data before the first 0xFF goes back in 255-byte pieces, a piece the
// device cannot hold is refused (result 1), the rest of the device keeps its
// bytes.
//
// Input: [flags][FRU backup file...]; flags bit 0: the device refuses writes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "common/paths.h"
#include "fuzzCheck.h"
#include "fuzzSandbox.h"

using namespace brask;

namespace {

constexpr std::size_t kHeaderSize = sizeof(SVF_BACKUP_FRUDAT_HEADER_T);
constexpr std::size_t kPiece = 255;
constexpr INT32U kMaxAreaSize = 65535;
constexpr INT8S kFileError = static_cast<INT8S>(0xC0);

std::vector<std::uint8_t> gImage;  // the device as every input finds it

std::vector<std::uint8_t> deviceImage() {
    std::vector<std::uint8_t> image(kMaxAreaSize + 1);
    const int n = hostFruReadImage(image.data(), static_cast<INT32U>(image.size()));
    FUZZ_CHECK(n >= 0 && static_cast<std::size_t>(n) <= image.size());
    image.resize(static_cast<std::size_t>(n));
    return image;
}

// The result and device image a restore of `file` must give.
INT8S expectedRestore(const std::uint8_t* file, std::size_t size, bool refused,
                      std::vector<std::uint8_t>& image) {
    if (size < kHeaderSize) return kFileError;
    INT32U stored = 0;
    (void)format::ByteCursor(format::Bytes(file, kHeaderSize)).u32(stored);
    if (stored > kMaxAreaSize || size - kHeaderSize < stored) return kFileError;
    const std::uint8_t* data = file + kHeaderSize;
    const std::size_t length =
        static_cast<std::size_t>(std::find(data, data + stored, 0xFF) - data);
    for (std::size_t at = 0; at < length; at += kPiece) {
        const std::size_t piece = std::min(kPiece, length - at);
        if (refused || at + piece > image.size()) return 1;
        std::memcpy(image.data() + at, data + at, piece);
    }
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::enterSandbox(argc, argv);
    gImage = deviceImage();
    FUZZ_CHECK(!gImage.empty());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const bool refused = (data[0] & 1) != 0;
    fuzz::writeFile(paths::kFruBackupFile, data + 1, size - 1);
    if (refused) hostFruRefuseWrites(0xD5);

    INT8S result;
    {
        fuzz::Quiet quiet;
        result = svfRestoreFRU();
    }
    std::vector<std::uint8_t> expectedImage = gImage;
    const INT8S expected = expectedRestore(data + 1, size - 1, refused, expectedImage);
    FUZZ_CHECK(result == expected);
    const std::vector<std::uint8_t> image = deviceImage();
    FUZZ_CHECK(image == expectedImage);

    if (image != gImage) FUZZ_CHECK(hostFruWriteImage(gImage.data(), static_cast<INT32U>(gImage.size())) == 0);
    hostResetFaults();
    hostFruClearAccessLog();
    hostResetCounters();
    return 0;
}
