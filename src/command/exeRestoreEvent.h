// Internal pieces of the Execute Restore Event handler, visible to its tests.
#pragma once

#include "BraskSvf/svfTypes.h"

namespace brask::restore {

// Completion code answered for a non-zero result of svfExtractBraskBackupFile.
INT8U completionCodeForExtraction(int result);

}  // namespace brask::restore
