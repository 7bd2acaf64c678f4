// Firmware hooks and flags: maintenance mode, firmware update state, file
// making, and the time-info and schedule hooks (counted for tests).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "BraskSvf/svfPlatform.h"
#include "controls.h"
#include "hostFiles.h"

extern "C" {

INT32U m_prev_sch_ut_time = 0;
INT8U FwUpdateStateFlag = 0;

int hslChkMakeFile(const char* pFilePath, int Size) {
    if (hostplat::enterCall(hostplat::Fn::ChkMakeFile)) return -1;
    if (pFilePath == nullptr || pFilePath[0] == '\0' || Size < 0) {
        errno = EINVAL;
        return -1;
    }
    return hostplat::ensureFile(pFilePath, static_cast<size_t>(Size), 0);
}

int lanCheckMaintenanceMode(void) {
    struct stat st;
    return ::stat(HOST_MAINTENANCE_FILE, &st) == 0 ? 1 : 0;
}

int svfApplyTimeInfo(void) {
    hostplat::ControlsGuard c;
    ++c->applyTimeInfoCalls;
    return 0;
}

int Svp_update_next_schedule(INT32U PrevSchUtTime) {
    hostplat::ControlsGuard c;
    ++c->updateScheduleCalls;
    c->lastScheduleArgument = PrevSchUtTime;
    return 0;
}

int hostSetMaintenanceMode(int enabled) {
    if (enabled != 0) return hostplat::ensureFile(HOST_MAINTENANCE_FILE, 0, 0);
    if (::unlink(HOST_MAINTENANCE_FILE) != 0 && errno != ENOENT) return -1;
    return 0;
}

void hostSetFwUpdateState(INT8U state) { FwUpdateStateFlag = state; }

int hostApplyTimeInfoCount(void) {
    hostplat::ControlsGuard c;
    return c->applyTimeInfoCalls;
}

int hostUpdateScheduleCount(void) {
    hostplat::ControlsGuard c;
    return c->updateScheduleCalls;
}

INT32U hostLastScheduleArgument(void) {
    hostplat::ControlsGuard c;
    return c->lastScheduleArgument;
}

}  // extern "C"
