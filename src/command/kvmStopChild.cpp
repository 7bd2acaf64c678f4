// Only the pids started here are waited for: a SIGCHLD handler or waitpid(-1)
// would take the exit status of children that belong to the firmware.
#include "command/kvmStopChild.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "common/paths.h"

namespace brask::restore {
namespace {

// One restore per reboot starts one child; the room is for firmware that
// calls svfIniTimer and restores again without rebooting.
constexpr int kMaxPending = 16;
pid_t gPending[kMaxPending] = {};
int gPendingCount = 0;

void remember(pid_t pid) {
    if (gPendingCount == kMaxPending) {
        reapKvmServersStop();
        if (gPendingCount == kMaxPending) {
            // Still all running: forget the oldest rather than grow without bound.
            for (int i = 1; i < kMaxPending; ++i) gPending[i - 1] = gPending[i];
            --gPendingCount;
        }
    }
    gPending[gPendingCount++] = pid;
}

}  // namespace

pid_t startKvmServersStop() {
    reapKvmServersStop();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execlp(paths::kShell, paths::kShell, paths::kKvmServersScript, "stop", static_cast<char*>(nullptr));
        ::_exit(-1);  // status 255; never exit(): the parent's buffers are not ours to flush
    }
    if (pid > 0) remember(pid);
    return pid;
}

void reapKvmServersStop() {
    const int savedErrno = errno;  // callers report errno of their own steps
    int kept = 0;
    for (int i = 0; i < gPendingCount; ++i) {
        int status = 0;
        pid_t r;
        do {
            r = ::waitpid(gPending[i], &status, WNOHANG);
        } while (r < 0 && errno == EINTR);
        // 0: still running.  <0 (ECHILD): someone else reaped it already.
        if (r == 0) gPending[kept++] = gPending[i];
    }
    gPendingCount = kept;
    errno = savedErrno;
}

int pendingKvmServersStop() { return gPendingCount; }

}  // namespace brask::restore
