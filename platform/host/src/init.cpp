// hostPlatformInit: the starting state of one host BMC, and a clean slate of
// this process's test controls.
#include <sys/stat.h>

#include <cerrno>

#include "BraskSvf/svfPlatform.h"
#include "controls.h"
#include "hostFiles.h"

extern "C" int hostPlatformInit(void) {
    {
        hostplat::ControlsGuard c;
        c->resetFaults();
        c->resetCounters();
        c->accessLogCount = 0;
    }
    FwUpdateStateFlag = 0;

    if (::mkdir(HOST_STATE_DIR, 0755) != 0 && errno != EEXIST) return -1;
    if (hostplat::ensureFile(HOST_SEMIVOL_FILE, sizeof(hslSemiVolatileArea_T), 0) != 0) return -1;
    if (hostplat::ensureFile(HOST_SEL_FILE, 0, 0) != 0) return -1;
    if (hostplat::ensureFile(HOST_EEPROM_FILE, HOST_EEPROM_SIZE, 0xFF) != 0) return -1;
    if (hostplat::fileSize(HOST_FRU_FILE) < 0 && hostFruMakeImage(2048, "BRASK-MODEL", "SN0001") != 0) {
        return -1;
    }
    return 0;
}
