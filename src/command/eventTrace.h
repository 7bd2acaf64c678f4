// The trace of Get Backup/Restore Event answers, "/conf/brask/BackRest.trs2":
// a 16-byte header whose byte 0 is the next slot's index, then a ring of 201
// 32-byte records (the area's 16 status bytes, the 8 response bytes, the call
// time as 4 little-endian bytes, 4 unused bytes).
#pragma once

#include <cstddef>

#include "BraskSvf/svfTypes.h"

namespace brask::trace {

inline constexpr size_t kHeaderSize = 16;
inline constexpr size_t kRecordSize = 32;
inline constexpr unsigned kLastIndex = 200;         // slots 0..200: one more than the file is made for
inline constexpr int kCreatedSize = 16 + 200 * 32;  // 6416 zero bytes

// Offset of record slot `index` (0..kLastIndex).
inline constexpr long recordOffset(unsigned index) {
    return static_cast<long>((index * 2 + 1) * kHeaderSize);
}

inline constexpr size_t kResponseSize = 8;

// Appends one record of the area's slice and the kResponseSize response
// bytes.  The caller holds the status-area lock, which is what keeps two
// records from interleaving.  Failures are logged ("fopen fail") or skipped.
void appendEventRecord(const svfSemiVol_T& svf, const INT8U* response);

}  // namespace brask::trace
