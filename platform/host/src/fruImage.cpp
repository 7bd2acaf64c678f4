// FRU image: an IPMI-style layout (common header, product info area at 0x80)
// whose fields sit exactly where the library reads the product identity.
#include "fruImage.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "BraskSvf/hostPlatformControl.h"
#include "hostFiles.h"

namespace hostplat {
namespace {

constexpr size_t kProductArea = 0x80;
constexpr size_t kProductAreaEnd = 0x170;   // exclusive; 30 blocks of 8 bytes
constexpr unsigned char kTypeAscii = 0xC0;  // 8-bit ASCII, length in the low 6 bits
constexpr unsigned char kEndOfFields = 0xC1;
constexpr unsigned char kModuleType[2] = {0x01, 0x02};

// Writes one type/length field at `at`: the type/length byte, then `len`
// bytes of `text` zero-padded.  Returns the offset after the field.
size_t putField(unsigned char* img, size_t at, size_t len, const char* text) noexcept {
    img[at] = static_cast<unsigned char>(kTypeAscii | len);
    const size_t textLen = text != nullptr ? std::strlen(text) : 0;
    std::memcpy(img + at + 1, text, textLen < len ? textLen : len);
    return at + 1 + len;
}

unsigned char zeroChecksum(const unsigned char* p, size_t n) noexcept {
    unsigned sum = 0;
    for (size_t i = 0; i < n; ++i) sum += p[i];
    return static_cast<unsigned char>((0x100u - (sum & 0xFFu)) & 0xFFu);
}

}  // namespace

int buildFruImage(unsigned char* out, size_t size, const char* model, const char* serial) noexcept {
    if (out == nullptr || model == nullptr || serial == nullptr || size < kFruMinMadeSize ||
        size > kFruMaxSize) {
        errno = EINVAL;
        return -1;
    }
    std::memset(out, 0, size);

    // Common header: format 1, only a product info area (offset in 8-byte units).
    out[0] = 0x01;
    out[4] = static_cast<unsigned char>(kProductArea / 8);
    out[7] = zeroChecksum(out, 7);

    unsigned char* area = out;
    size_t at = kProductArea;
    area[at++] = 0x01;  // format version
    area[at++] = static_cast<unsigned char>((kProductAreaEnd - kProductArea) / 8);
    area[at++] = 0x00;                                        // language: English
    at = putField(area, at, 5, "BRASK");                      // manufacturer
    at = putField(area, at, 22, "BRASK SERVER");              // product name
    at = putField(area, at, kFruModelSize, model);            // model at 0xA1
    at = putField(area, at, 10, "1.00");                      // version
    at = putField(area, at, kFruSerialSize, serial);          // serial at 0xCD
    at = putField(area, at, 16, "ASSET");                     // asset tag
    at = putField(area, at, 4, "F001");                       // FRU file id
    area[at++] = static_cast<unsigned char>(kTypeAscii | 2);  // module type at 0xF8
    std::memcpy(area + at, kModuleType, sizeof kModuleType);
    at += sizeof kModuleType;
    at = putField(area, at, 63, "BRASK HOST PLATFORM FRU IMAGE");        // custom fields that
    at = putField(area, at, 34, "RESERVED");                             // lead up to the UUID
    area[at++] = static_cast<unsigned char>(kTypeAscii | kFruUuidSize);  // UUID at 0x15E
    for (size_t i = 0; i < kFruUuidSize; ++i) area[at + i] = static_cast<unsigned char>(0xB0 | i);
    at += kFruUuidSize;
    area[at++] = kEndOfFields;
    area[kProductAreaEnd - 1] = zeroChecksum(area + kProductArea, kProductAreaEnd - 1 - kProductArea);

    // Then some recognisable data, and unused (0xFF) space up to the end.
    const size_t patternEnd = kProductAreaEnd + (size - kProductAreaEnd) / 2;
    for (size_t i = kProductAreaEnd; i < patternEnd; ++i) {
        out[i] = static_cast<unsigned char>((i * 7u + 0x11u) & 0x7Fu);
    }
    std::memset(out + patternEnd, 0xFF, size - patternEnd);
    return 0;
}

}  // namespace hostplat

// The fields above must land exactly where the library reads them.
static_assert(hostplat::kFruModelOffset == 0x80 + 3 + 1 + 5 + 1 + 22 + 1);
static_assert(hostplat::kFruSerialOffset == hostplat::kFruModelOffset + 32 + 1 + 10 + 1);
static_assert(hostplat::kFruModuleTypeOffset == hostplat::kFruSerialOffset + 20 + 1 + 16 + 1 + 4 + 1);
static_assert(hostplat::kFruUuidOffset == hostplat::kFruModuleTypeOffset + 2 + 1 + 63 + 1 + 34 + 1);
static_assert(hostplat::kFruUuidOffset + 16 + 1 + 1 == 0x170);

extern "C" {

int hostFruWriteImage(const INT8U* data, INT32U size) {
    if (data == nullptr || size == 0 || size > hostplat::kFruMaxSize) {
        errno = EINVAL;
        return -1;
    }
    return hostplat::replaceFile(HOST_FRU_FILE, data, size);
}

int hostFruReadImage(INT8U* out, INT32U max) {
    if (out == nullptr && max > 0) {
        errno = EINVAL;
        return -1;
    }
    hostplat::Fd fd(::open(HOST_FRU_FILE, O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) return -1;
    const off_t size = ::lseek(fd.get(), 0, SEEK_END);
    if (size < 0) return -1;
    if (static_cast<size_t>(size) > hostplat::kFruMaxSize) {
        errno = EFBIG;
        return -1;
    }
    const size_t copy = static_cast<size_t>(size) < max ? static_cast<size_t>(size) : max;
    if (copy > 0 && hostplat::readAt(fd.get(), out, copy, 0) != 0) return -1;
    return static_cast<int>(size);
}

int hostFruMakeImage(INT32U size, const char* model, const char* serial) {
    if (size < hostplat::kFruMinMadeSize || size > hostplat::kFruMaxSize) {
        errno = EINVAL;
        return -1;
    }
    auto* img = static_cast<unsigned char*>(std::malloc(size));
    if (img == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    int rc = hostplat::buildFruImage(img, size, model, serial);
    if (rc == 0) rc = hostplat::replaceFile(HOST_FRU_FILE, img, size);
    const int saved = errno;
    std::free(img);
    errno = saved;
    return rc;
}

}  // extern "C"
