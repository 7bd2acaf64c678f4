// Writes the input as the FRU backup file and restores it with svfRestoreFRU
// through the host platform's IPMI responder, then checks the result and the
// FRU device's image against a plain model of the restore: the data before
// the first 0xFF goes back in 255-byte pieces, a piece the device cannot hold
// is refused (result 1), the rest of the device keeps its bytes.
//
// Input: [flags][FRU backup file...]; flags bit 0: the device refuses writes.
#include "fuzz.h"

constexpr std::size_t kHeaderSize = sizeof(SVF_BACKUP_FRUDAT_HEADER_T), kPiece = 255;
constexpr INT32U kMaxAreaSize = 65535;
static test::Bytes gImage;  // the device as every input finds it

static test::Bytes deviceImage() {
    test::Bytes image(kMaxAreaSize + 1);
    const int n = hostFruReadImage(image.data(), INT32U(image.size()));
    assert(n >= 0 && std::size_t(n) <= image.size());
    image.resize(std::size_t(n));
    return image;
}

// The result and device image a restore of `file` must give.
static INT8S expectedRestore(const std::uint8_t* file, std::size_t size, bool refused, test::Bytes& image) {
    INT32U stored = 0;
    if (!format::ByteCursor(format::Bytes(file, size)).u32(stored) || size < kHeaderSize ||
        stored > kMaxAreaSize || size - kHeaderSize < stored)
        return INT8S(0xC0);
    const std::uint8_t* data = file + kHeaderSize;
    const std::size_t length = std::size_t(std::find(data, data + stored, 0xFF) - data);
    for (std::size_t at = 0; at < length; at += kPiece) {
        const std::size_t piece = std::min(kPiece, length - at);
        if (refused || at + piece > image.size()) return 1;
        std::copy_n(data + at, piece, image.begin() + std::ptrdiff_t(at));
    }
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::enterSandbox(argc, argv);
    gImage = deviceImage();
    assert(!gImage.empty());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    test::writeBytes(paths::kFruBackupFile, {data + 1, data + size});
    if ((data[0] & 1) != 0) hostFruRefuseWrites(0xD5);
    const INT8S result = fuzz::quietly(svfRestoreFRU);
    test::Bytes expectedImage = gImage;
    assert(result == expectedRestore(data + 1, size - 1, (data[0] & 1) != 0, expectedImage));
    assert(deviceImage() == expectedImage);
    if (expectedImage != gImage) assert(hostFruWriteImage(gImage.data(), INT32U(gImage.size())) == 0);
    hostResetFaults();
    return 0;
}
