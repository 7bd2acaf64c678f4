// libBraskSvf.so.1 loaded at run time, as the firmware loads it: the host
// platform (linked into svfsim) provides the platform symbols the library
// leaves undefined, and every operation is looked up by its exported name.
#pragma once

#include <string>

#include "BraskSvf/svfApi.h"

namespace svfsim {

struct Library {
    decltype(&svfGetBackupRestoreEvent) getBackupRestoreEvent = nullptr;
    decltype(&svfOEMSetBackupEvent) setBackupEvent = nullptr;
    decltype(&svfOEMExeRestoreEvent) exeRestoreEvent = nullptr;
    decltype(&svfRestoreTimer) restoreTimer = nullptr;
    decltype(&svfGetMutexAndSemiVolatileArea) getMutexAndSemiVolatileArea = nullptr;
    decltype(&svfSetSvfEvent) setSvfEvent = nullptr;
    decltype(&svfGetBackupFilePass) getBackupFilePass = nullptr;
    decltype(&InitFRULogFile) initFruLogFile = nullptr;
    decltype(&svfGetProductIdFru) getProductIdFru = nullptr;
    INT8U* killProcessTimer = nullptr;  // gKillProcessAfterFileChkTimer
    INT8U* rebootTimer = nullptr;       // gRebootAfterRestoreTimer
    svfRestoreType_T* restoreType = nullptr;
    const BackupFileList_T* catalogue = nullptr;  // BmcBackupFileList, SVF_BMC_BACKUP_FILE_COUNT rows
    std::string path;                             // the file that was loaded
};

// Loads the library once: $BRASK_SVF_LIBRARY when set, else the one built
// beside svfsim, else the installed one (the dynamic loader's search).
// Returns null and sets `error` when it or one of its names is missing.
const Library* loadLibrary(std::string& error);

}  // namespace svfsim
