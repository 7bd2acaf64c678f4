// Tuning of the additive checksum, shared with its tests.
#pragma once

#include <cstddef>

namespace brask::archive {

// How svfGetFileSum reads: regular files from this size on, outside tmpfs,
// are summed through read-only mappings of at most one window each (bounded
// address space on 32-bit targets); anything else is read in blocks.  All are
// multiples of 4 so that only the end of the data can split a word.  Below
// 2 MiB a mapping costs more per byte than reading (the kernel maps page by
// page), so the threshold sits there to keep the cost linear in the size.
inline constexpr std::size_t kSumBlockSize = 64 * 1024;
inline constexpr std::size_t kSumMapThreshold = 2 * 1024 * 1024;
inline constexpr std::size_t kSumMapWindow = 64 * 1024 * 1024;

}  // namespace brask::archive
