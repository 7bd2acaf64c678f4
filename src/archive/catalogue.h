// Choice of catalogue by firmware type, shared by every part of the archive
// engine so that the rule "non-zero is BMC" lives in one place.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "BraskSvf/svfTypes.h"

namespace brask::catalogue {

// The rows an operation of one firmware type works on, and the backup file
// that type writes and reads.
struct Selection {
    const BackupFileList_T* rows = nullptr;
    int count = 0;
    const char* backupFile = nullptr;

    const BackupFileList_T* begin() const { return rows; }
    const BackupFileList_T* end() const { return rows + count; }
};

// Position of one of `cat`'s rows in it.
inline std::size_t indexOf(const Selection& cat, const BackupFileList_T* row) {
    return static_cast<std::size_t>(row - cat.rows);
}

// Any non-zero fwType is BMC (109 rows); 0 is EFI (no rows).
Selection select(INT8U fwType);

// First row whose FilePass equals activePath, or nullptr; never looks past
// the last row.
const BackupFileList_T* find(const Selection& cat, std::string_view activePath);

// Number of archive blocks a backup of this selection needs: the largest
// TargetArcBlock plus 1 (1 for no rows), as an 8-bit value.
INT8U blockCount(const Selection& cat);

// Copies `src` with ".bak" appended into a 152-byte buffer; false, with the
// buffer untouched, when it would not fit.
bool appendBackupSuffix(const char* src, char* dst);

// Cuts `name` at its first ".bak" (the active path of a backup copy); false,
// with `name` unchanged, when it has none.
bool cutAtBackupSuffix(char* name);

// "%s-%d": block file `block` beside `backupFile`, into the caller's buffer
// (gTmpStr or a 152-byte one); false, with errno set, when it does not fit.
bool blockFileName(std::span<char> name, const char* backupFile, unsigned block);

// Longest active path that still takes ".bak" inside a 152-byte buffer.
inline constexpr unsigned kMaxActivePathLength = SVF_FILE_PASS_SIZE - 1 - 4;

}  // namespace brask::catalogue
