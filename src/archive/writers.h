// The block and backup-file writers on an explicit catalogue selection, so
// that tests can drive them with catalogues of their own.  The exported
// svfCreateBraskArchive / svfCreateBraskBackupFile select by firmware type and
// call these.
#pragma once

#include "BraskSvf/svfTypes.h"
#include "archive/catalogue.h"

namespace brask::archive {

// Writes "<cat.backupFile>-n" for n < numOfArcBlock from the first
// numOfFiles rows of cat.  0, SVF_ARCHIVE_MISSING_FILE or SVF_ARCHIVE_FAIL.
int createArchive(const catalogue::Selection& cat, int numOfFiles, INT8U numOfArcBlock);

// Writes cat.backupFile with fwType in its header.  0, the archive writer's
// result, or -1.
int createBackupFile(const catalogue::Selection& cat, INT8U fwType);

}  // namespace brask::archive
