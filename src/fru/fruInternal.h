// Internal operations of the FRU backup file (/conf/brask/FRUBACKUP.dat): a
// 16-byte header whose Size counts the FRU data bytes that follow it.
#pragma once

#include <cstddef>

#include "BraskSvf/svfTypes.h"

namespace brask::fru {

inline constexpr std::size_t kHeaderSize = sizeof(SVF_BACKUP_FRUDAT_HEADER_T);
// Result of a FRU-file operation that could not open, read or write the file.
inline constexpr INT8U kFileError = 0xC0;
// Bytes one Read or Write FRU Data request moves: the most a count byte holds.
inline constexpr INT32U kPieceSize = 255;
// The inventory area size is 16 bits wide, so no valid FRU backup carries more.
inline constexpr INT32U kMaxAreaSize = 65535;
// A refused FRU write is retried; the restore makes this many attempts in all.
inline constexpr int kRestoreAttempts = 3;

}  // namespace brask::fru

// Starts the FRU backup file as an empty header.  0, or 0xC0.
INT8U svfInitLog();
// Appends `Size` bytes after the data the header counts, header first.  0, or 0xC0.
INT8U svfWriteLog(INT8U* pMsg, INT8U Size);
// One attempt at writing the FRU backup file's data back into FRU device 0:
// 0 done, 1 a write was refused, -1 no file, 0xC0 (-64) unreadable file.
INT8S svfLogReadAndRestore();
