// Internal pieces of the Execute Restore Event handler, shared with its tests
// and with the tools that preview a restore.
#pragma once

#include "BraskSvf/svfTypes.h"

namespace brask::restore {

// Completion code answered for a non-zero result of svfExtractBraskBackupFile.
constexpr INT8U completionCodeForExtraction(int result) {
    switch (result) {
        case SVF_EXTRACT_CHECKSUM_MISMATCH:
            return SVF_CC_CHECKSUM_ERROR;
        case SVF_EXTRACT_IDENTITY_MISMATCH:
            return SVF_CC_IDENTITY_MISMATCH;
        case SVF_EXTRACT_UNKNOWN_DATA_REV:
            return SVF_CC_UNKNOWN_DATA_REV;
        case SVF_EXTRACT_FW_TYPE_MISMATCH:
            return SVF_CC_FW_TYPE_MISMATCH;
        case SVF_EXTRACT_UNKNOWN_FORMAT:
            return SVF_CC_UNKNOWN_FORMAT;
        default:
            return SVF_CC_NO_EVENT_OR_FAIL;
    }
}

}  // namespace brask::restore
