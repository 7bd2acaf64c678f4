#include "library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

namespace svfsim {
namespace {

template <typename T>
bool bind(void* handle, const char* name, T& out, std::string& error) {
    out = reinterpret_cast<T>(::dlsym(handle, name));
    if (out == nullptr) error = std::string("the library has no symbol ") + name;
    return out != nullptr;
}

void* openLibrary(std::string& path, std::string& error) {
    std::string candidates[3];
    if (const char* env = std::getenv("BRASK_SVF_LIBRARY"); env != nullptr && *env != '\0') {
        candidates[0] = env;
    } else {
        candidates[0] = BRASK_SVFSIM_BUILT_LIBRARY;
        candidates[1] = "libBraskSvf.so.1";
    }
    for (const std::string& candidate : candidates) {
        if (candidate.empty()) continue;
        if (candidate.find('/') != std::string::npos && ::access(candidate.c_str(), R_OK) != 0) continue;
        // RTLD_NOW: an unresolved platform symbol is an error here, not a
        // crash in the middle of a restore.
        if (void* handle = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL)) {
            path = candidate;
            return handle;
        }
        error = ::dlerror();
    }
    if (error.empty()) error = "libBraskSvf.so.1 not found (set BRASK_SVF_LIBRARY)";
    return nullptr;
}

}  // namespace

const Library* loadLibrary(std::string& error) {
    static Library lib;
    static bool loaded = false;
    if (loaded) return &lib;
    void* h = openLibrary(lib.path, error);
    if (h == nullptr) return nullptr;
    const bool ok = bind(h, "svfGetBackupRestoreEvent", lib.getBackupRestoreEvent, error) &&
                    bind(h, "svfOEMSetBackupEvent", lib.setBackupEvent, error) &&
                    bind(h, "svfOEMExeRestoreEvent", lib.exeRestoreEvent, error) &&
                    bind(h, "svfRestoreTimer", lib.restoreTimer, error) &&
                    bind(h, "svfGetMutexAndSemiVolatileArea", lib.getMutexAndSemiVolatileArea, error) &&
                    bind(h, "svfSetSvfEvent", lib.setSvfEvent, error) &&
                    bind(h, "svfGetBackupFilePass", lib.getBackupFilePass, error) &&
                    bind(h, "InitFRULogFile", lib.initFruLogFile, error) &&
                    bind(h, "svfGetProductIdFru", lib.getProductIdFru, error) &&
                    bind(h, "gKillProcessAfterFileChkTimer", lib.killProcessTimer, error) &&
                    bind(h, "gRebootAfterRestoreTimer", lib.rebootTimer, error) &&
                    bind(h, "gRestoreType", lib.restoreType, error) &&
                    bind(h, "BmcBackupFileList", lib.catalogue, error);
    if (!ok) {
        ::dlclose(h);
        return nullptr;
    }
    loaded = true;
    return &lib;
}

}  // namespace svfsim
