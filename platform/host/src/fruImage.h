// The FRU device 0 image (HOST_FRU_FILE): its size is the inventory area size.
#pragma once

#include <cstddef>

namespace hostplat {

// The inventory area size travels in 16 bits.
inline constexpr size_t kFruMaxSize = 0xFFFF;
inline constexpr size_t kFruMinMadeSize = 512;

// Where the library reads the product identity.
inline constexpr size_t kFruModelOffset = 0xA1;
inline constexpr size_t kFruModelSize = 32;
inline constexpr size_t kFruSerialOffset = 0xCD;
inline constexpr size_t kFruSerialSize = 20;
inline constexpr size_t kFruModuleTypeOffset = 0xF8;
inline constexpr size_t kFruUuidOffset = 0x15E;
inline constexpr size_t kFruUuidSize = 16;

// Builds the default-style image into `out` (`size` bytes, kFruMinMadeSize to
// kFruMaxSize).  0, or -1 with errno EINVAL.
int buildFruImage(unsigned char* out, size_t size, const char* model, const char* serial) noexcept;

}  // namespace hostplat
