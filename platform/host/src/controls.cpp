// Per-process test controls: counters, fault plans and the exported control
// functions that set them.
#include "controls.h"

#include <cerrno>
#include <cstring>

namespace hostplat {
namespace {

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
Controls g_controls;

struct NamedFn {
    const char* name;
    Fn fn;
};
constexpr NamedFn kNames[] = {
    {"API_ExecuteCmd", Fn::ApiExecuteCmd},
    {"hslCreateMutex", Fn::CreateMutex},
    {"hslAcquireMutex", Fn::AcquireMutex},
    {"hslReleaseMutex", Fn::ReleaseMutex},
    {"hslDestroyMutex", Fn::DestroyMutex},
    {"hslGetSemiVolatileArea", Fn::GetSemiVolatileArea},
    {"hslFreeSemiVolatileArea", Fn::FreeSemiVolatileArea},
    {"hslAcquireSysvSemaphore", Fn::AcquireSysvSemaphore},
    {"hslReleaseSysvSemaphore", Fn::ReleaseSysvSemaphore},
    {"hslAddSEL", Fn::AddSel},
    {"hslChkMakeFile", Fn::ChkMakeFile},
    {"brask_ReadWriteEEPROM", Fn::ReadWriteEeprom},
};
static_assert(sizeof(kNames) / sizeof(kNames[0]) == kFnCount);

int fnIndex(const char* name) noexcept {
    if (name == nullptr) return -1;
    for (const NamedFn& n : kNames) {
        if (std::strcmp(n.name, name) == 0) return static_cast<int>(n.fn);
    }
    return -1;
}

}  // namespace

bool FailPlan::consume() noexcept {
    if (count <= 0) return false;
    if (skip > 0) {
        --skip;
        return false;
    }
    --count;
    return true;
}

int ipmiCommandIndex(unsigned char cmd) noexcept {
    for (int i = 0; i < kIpmiCommandCount; ++i) {
        if (kIpmiCommands[i] == cmd) return i;
    }
    return -1;
}

void Controls::resetFaults() noexcept {
    for (FailPlan& p : fail) p = FailPlan{};
    for (FailPlan& p : failLate) p = FailPlan{};
    for (FailPlan& p : ipmiFail) p = FailPlan{};
    std::memset(ipmiFailCode, 0, sizeof ipmiFailCode);
    fruShortBy = 0;
    fruReadsDiffer = false;
    fruWriteRefusal = 0;
    fruAccessType = 0;
    selTimeSet = false;
    std::memset(selTime, 0, sizeof selTime);
    readHistoryCount = 0;
}

void Controls::resetCounters() noexcept {
    std::memset(calls, 0, sizeof calls);
    std::memset(ipmiCalls, 0, sizeof ipmiCalls);
    applyTimeInfoCalls = 0;
    updateScheduleCalls = 0;
    lastScheduleArgument = 0;
}

void Controls::logAccess(unsigned char cmd, unsigned offset, unsigned count) noexcept {
    if (accessLogCount >= kAccessLogCapacity) return;
    accessLog[accessLogCount++] = hostFruAccess_T{cmd, offset, count};
}

unsigned Controls::noteRead(unsigned offset, unsigned count) noexcept {
    for (int i = 0; i < readHistoryCount; ++i) {
        ReadHistoryEntry& e = readHistory[i];
        if (e.offset == offset && e.count == count) return ++e.times;
    }
    // A full history forgets the oldest half rather than growing.
    if (readHistoryCount >= kReadHistoryCapacity) {
        const int keep = kReadHistoryCapacity / 2;
        std::memmove(readHistory, readHistory + (kReadHistoryCapacity - keep),
                     sizeof(ReadHistoryEntry) * static_cast<size_t>(keep));
        readHistoryCount = keep;
    }
    readHistory[readHistoryCount++] = ReadHistoryEntry{offset, count, 1};
    return 1;
}

ControlsGuard::ControlsGuard() noexcept { (void)pthread_mutex_lock(&g_lock); }
ControlsGuard::~ControlsGuard() { (void)pthread_mutex_unlock(&g_lock); }
Controls& ControlsGuard::operator*() const noexcept { return g_controls; }
Controls* ControlsGuard::operator->() const noexcept { return &g_controls; }

bool enterCall(Fn fn) noexcept {
    const int i = static_cast<int>(fn);
    ControlsGuard c;
    ++c->calls[i];
    if (!c->fail[i].consume()) return false;
    if (c->fail[i].err != 0) errno = c->fail[i].err;
    return true;
}

bool failsLate(Fn fn) noexcept {
    const int i = static_cast<int>(fn);
    ControlsGuard c;
    if (!c->failLate[i].consume()) return false;
    if (c->failLate[i].err != 0) errno = c->failLate[i].err;
    return true;
}

}  // namespace hostplat

using hostplat::ControlsGuard;
using hostplat::Fn;

extern "C" {

int hostFailCall(const char* functionName, int skip, int count, int err) {
    const int i = hostplat::fnIndex(functionName);
    if (i < 0 || skip < 0 || count < 0) {
        errno = EINVAL;
        return -1;
    }
    ControlsGuard c;
    c->fail[i] = hostplat::FailPlan{skip, count, err};
    return 0;
}

int hostFailCallLate(const char* functionName, int skip, int count, int err) {
    const int i = hostplat::fnIndex(functionName);
    const bool givesBack =
        i == static_cast<int>(Fn::ReleaseMutex) || i == static_cast<int>(Fn::DestroyMutex) ||
        i == static_cast<int>(Fn::FreeSemiVolatileArea) || i == static_cast<int>(Fn::ReleaseSysvSemaphore);
    if (!givesBack || skip < 0 || count < 0) {
        errno = EINVAL;
        return -1;
    }
    ControlsGuard c;
    c->failLate[i] = hostplat::FailPlan{skip, count, err};
    return 0;
}

void hostResetFaults(void) {
    ControlsGuard c;
    c->resetFaults();
}

int hostCallCount(const char* functionName) {
    const int i = hostplat::fnIndex(functionName);
    if (i < 0) {
        errno = EINVAL;
        return -1;
    }
    ControlsGuard c;
    return c->calls[i];
}

void hostResetCounters(void) {
    ControlsGuard c;
    c->resetCounters();
}

int hostIpmiCommandCount(INT8U cmd) {
    const int i = hostplat::ipmiCommandIndex(cmd);
    if (i < 0) {
        errno = EINVAL;
        return -1;
    }
    ControlsGuard c;
    return c->ipmiCalls[i];
}

int hostIpmiFailCmd(INT8U cmd, int skip, int count, INT8U completionCode) {
    const int i = hostplat::ipmiCommandIndex(cmd);
    if (i < 0 || skip < 0 || count < 0) {
        errno = EINVAL;
        return -1;
    }
    ControlsGuard c;
    c->ipmiFail[i] = hostplat::FailPlan{skip, count, 0};
    c->ipmiFailCode[i] = completionCode;
    return 0;
}

void hostFruSetShortRead(int shortBy) {
    ControlsGuard c;
    c->fruShortBy = shortBy > 0 ? shortBy : 0;
}

void hostFruSetReadsDiffer(int enable) {
    ControlsGuard c;
    c->fruReadsDiffer = enable != 0;
    c->readHistoryCount = 0;
}

void hostFruRefuseWrites(INT8U completionCode) {
    ControlsGuard c;
    c->fruWriteRefusal = completionCode;
}

void hostFruSetAccessType(INT8U accessType) {
    ControlsGuard c;
    c->fruAccessType = accessType;
}

void hostSetSelTime(const INT8U bytes[4]) {
    if (bytes == nullptr) return;
    ControlsGuard c;
    std::memcpy(c->selTime, bytes, sizeof c->selTime);
    c->selTimeSet = true;
}

void hostClearSelTime(void) {
    ControlsGuard c;
    c->selTimeSet = false;
}

int hostFruAccessLog(hostFruAccess_T* out, int max) {
    ControlsGuard c;
    if (out != nullptr && max > 0) {
        const int n = max < c->accessLogCount ? max : c->accessLogCount;
        std::memcpy(out, c->accessLog, sizeof(hostFruAccess_T) * static_cast<size_t>(n));
    }
    return c->accessLogCount;
}

void hostFruClearAccessLog(void) {
    ControlsGuard c;
    c->accessLogCount = 0;
}

}  // extern "C"
