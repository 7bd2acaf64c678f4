// Per-process state of the host platform's test controls: call counters, fault
// injection, the IPMI responder's knobs and the hook counters.  Everything is
// reached through a ControlsGuard, which holds the controls' lock, so that
// threads of one process see one state.
#pragma once

#include <pthread.h>

#include <cstddef>

#include "BraskSvf/hostPlatformControl.h"

namespace hostplat {

// Platform functions that count their calls and can be made to fail.
enum class Fn : int {
    ApiExecuteCmd,
    CreateMutex,
    AcquireMutex,
    ReleaseMutex,
    DestroyMutex,
    GetSemiVolatileArea,
    FreeSemiVolatileArea,
    AcquireSysvSemaphore,
    ReleaseSysvSemaphore,
    AddSel,
    ChkMakeFile,
    ReadWriteEeprom,
    Count
};
inline constexpr int kFnCount = static_cast<int>(Fn::Count);

// `skip` calls pass, then `count` calls fail; used for functions and IPMI commands.
struct FailPlan {
    int skip = 0;
    int count = 0;
    int err = 0;
    // True when this call is one of the planned failures (consumes the plan).
    bool consume() noexcept;
};

// IPMI commands the responder knows, in the order of kIpmiCommands.
inline constexpr unsigned char kIpmiCommands[] = {0x10, 0x11, 0x12, 0x48};
inline constexpr int kIpmiCommandCount = 4;
int ipmiCommandIndex(unsigned char cmd) noexcept;  // -1 when unknown

inline constexpr int kAccessLogCapacity = 8192;
inline constexpr int kReadHistoryCapacity = 1024;

struct ReadHistoryEntry {
    unsigned offset;
    unsigned count;
    unsigned times;
};

struct Controls {
    int calls[kFnCount] = {};
    FailPlan fail[kFnCount] = {};
    FailPlan failLate[kFnCount] = {};  // give-back functions: work done, failure reported

    int ipmiCalls[kIpmiCommandCount] = {};
    FailPlan ipmiFail[kIpmiCommandCount] = {};
    unsigned char ipmiFailCode[kIpmiCommandCount] = {};
    int fruShortBy = 0;
    bool fruReadsDiffer = false;
    unsigned char fruWriteRefusal = 0;
    unsigned char fruAccessType = 0;
    bool selTimeSet = false;
    unsigned char selTime[4] = {};

    hostFruAccess_T accessLog[kAccessLogCapacity] = {};
    int accessLogCount = 0;
    ReadHistoryEntry readHistory[kReadHistoryCapacity] = {};
    int readHistoryCount = 0;

    int applyTimeInfoCalls = 0;
    int updateScheduleCalls = 0;
    unsigned lastScheduleArgument = 0;

    void resetFaults() noexcept;
    void resetCounters() noexcept;
    void logAccess(unsigned char cmd, unsigned offset, unsigned count) noexcept;
    // How many times this piece was read before, this read included.
    unsigned noteRead(unsigned offset, unsigned count) noexcept;
};

// Holds the controls' lock for its lifetime.
class ControlsGuard {
public:
    ControlsGuard() noexcept;
    ~ControlsGuard();
    ControlsGuard(const ControlsGuard&) = delete;
    ControlsGuard& operator=(const ControlsGuard&) = delete;
    Controls& operator*() const noexcept;
    Controls* operator->() const noexcept;
};

// Counts a call of `fn`; true when the call must fail (errno is then set as
// planned).  Every platform function starts with this.
bool enterCall(Fn fn) noexcept;
// Called by a give-back function after its work: true when it must report
// failure all the same (errno is then set as planned).
bool failsLate(Fn fn) noexcept;

}  // namespace hostplat
