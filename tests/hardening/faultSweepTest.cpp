// Fault sweep: each flow that does real work is first run clean, recording
// which platform calls it reaches; then each reached call is made to fail in
// turn (and each IPMI request to answer with an error completion code, and
// each device to stop answering altogether).  Every run must answer as the
// command set says for that failure, write the SEL entries it says, and
// leave no descriptor, mapping or lock behind.
//
// Give-back calls (release, destroy, unmap) are made to report failure after
// doing their work: one that fails without giving back leaves the resource
// with the platform, and no caller could (or should) undo it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "hardeningSupport.h"
#include "support/sandbox.h"

namespace brask::test {
namespace {

constexpr const char* kPlatformCalls[] = {
    "API_ExecuteCmd",          "hslCreateMutex",          "hslAcquireMutex",
    "hslReleaseMutex",         "hslDestroyMutex",         "hslGetSemiVolatileArea",
    "hslFreeSemiVolatileArea", "hslAcquireSysvSemaphore", "hslReleaseSysvSemaphore",
    "hslAddSEL",               "hslChkMakeFile",          "brask_ReadWriteEEPROM"};

bool givesBack(const std::string& fn) {
    return fn == "hslReleaseMutex" || fn == "hslDestroyMutex" || fn == "hslFreeSemiVolatileArea" ||
           fn == "hslReleaseSysvSemaphore";
}

// Which calls of a function a rule covers.
enum Which : int { kAny = -1, kLast = -2, kNotLast = -3 };

struct Expect {
    int code;
    SelCodes sel;
    int slot = -1;         // checked when >= 0
    int restoreFlag = -1;  // checked when >= 0
};

struct Rule {
    const char* fn;
    int which;  // a call index or a Which
    Expect expect;
};

struct Flow {
    const char* name;
    void (*prepare)();
    Outcome (*run)();
    Expect success;
    std::vector<Rule> rules;  // the first that matches applies
    // Functions whose calls are swept (empty: every reached one), and of
    // each only this call (-1: every call).
    std::vector<std::string> only;
    int onlyCall = -1;
};

// Every call of a function reached a few times; of one reached once per
// catalogue row (the same code path for every row), the first and last two
// and one in the middle.
std::vector<int> sweptIndexes(int calls) {
    constexpr int kAll = 6;
    std::vector<int> v;
    for (int i = 0; i < calls; ++i) {
        if (calls <= kAll || i < 2 || i >= calls - 2 || i == calls / 2) v.push_back(i);
    }
    return v;
}

std::string describe(const SelCodes& sel) {
    std::string s;
    char buf[8];
    for (auto c : sel) {
        std::snprintf(buf, sizeof buf, " %02X", c);
        s += buf;
    }
    return "{" + s + " }";
}

void expectOutcome(const Outcome& got, const Expect& want) {
    EXPECT_EQ(got.code, want.code);
    EXPECT_EQ(describe(got.sel), describe(want.sel));
    if (want.slot >= 0) {
        EXPECT_EQ(got.slot, want.slot);
    }
    if (want.restoreFlag >= 0) {
        EXPECT_EQ(got.restoreFlag, want.restoreFlag);
    }
}

// One injected failure.
struct Fault {
    enum Kind { Once, Late, Always, IpmiCode };
    std::string fn;  // the platform function whose rules apply
    Kind kind = Once;
    int index = 0;   // which call of the function (or of the IPMI command)
    int calls = 0;   // how many the clean run made
    INT8U cmd = 0;

    std::string label() const {
        if (kind == Always) return fn + " fails on each of its calls";
        std::string who = fn;
        if (kind == IpmiCode) {
            char buf[24];
            std::snprintf(buf, sizeof buf, "IPMI command 0x%02X", cmd);
            who = buf;
        }
        return who + " call " + std::to_string(index + 1) + " of " + std::to_string(calls) +
               (kind == Once ? " fails" : kind == Late ? " reports failure" : " answers 0xC0");
    }
    void inject() const {
        constexpr int kForever = 1 << 20;
        switch (kind) {
            case Once: EXPECT_EQ(hostFailCall(fn.c_str(), index, 1, EIO), 0); break;
            case Late: EXPECT_EQ(hostFailCallLate(fn.c_str(), index, 1, EIO), 0); break;
            case Always: EXPECT_EQ(hostFailCall(fn.c_str(), 0, kForever, EIO), 0); break;
            case IpmiCode: EXPECT_EQ(hostIpmiFailCmd(cmd, index, 1, 0xC0), 0); break;
        }
    }
};

// An IPMI request that answers an error code is judged by the rules of a
// failed API_ExecuteCmd that hold for any call.
bool matches(const Rule& r, const Fault& f) {
    if (f.fn != r.fn) return false;
    if (f.kind == Fault::IpmiCode) return r.which == kAny;
    switch (r.which) {
        case kAny: return true;
        case kLast: return f.index == f.calls - 1;
        case kNotLast: return f.index != f.calls - 1;
        default: return f.index == r.which;
    }
}

// Runs the flow once from a fresh state and checks what it leaves behind.
Outcome runChecked(const Flow& flow, const Fault* fault) {
    resetState();
    flow.prepare();
    hostResetCounters();
    if (fault != nullptr) fault->inject();
    const Held before = heldNow();
    const Outcome got = flow.run();
    hostResetFaults();
    EXPECT_EQ(heldNow(), before) << "descriptors " << before.fds << " -> " << heldNow().fds
                                 << ", mappings " << before.maps << " -> " << heldNow().maps;
    const LockState locks = probeLocks();
    EXPECT_TRUE(locks.mutexFree) << "the status-area mutex is left held";
    EXPECT_TRUE(locks.semaphoreFree) << "the file semaphore is left held";
    return got;
}

// The failures to inject, from the calls the clean run made: each swept call
// once; device calls (IPMI, EEPROM) also all of them, as a device that does
// not answer at all; each IPMI request also answered with a completion code
// instead of failing outright.
std::vector<Fault> faultsFor(const Flow& flow) {
    std::vector<Fault> faults;
    for (const char* fn : kPlatformCalls) {
        const int calls = hostCallCount(fn);
        const bool swept = flow.only.empty() ||
                           std::find(flow.only.begin(), flow.only.end(), fn) != flow.only.end();
        if (!swept || calls <= 0) continue;
        const std::string name = fn;
        const bool device = name == "API_ExecuteCmd" || name == "brask_ReadWriteEEPROM";
        for (int index : sweptIndexes(calls)) {
            if (flow.onlyCall >= 0 && index != flow.onlyCall) continue;
            faults.push_back({name, givesBack(name) ? Fault::Late : Fault::Once, index, calls});
        }
        if (device) faults.push_back({name, Fault::Always, 0, calls});
        if (name != "API_ExecuteCmd") continue;
        for (INT8U cmd : {0x10, 0x11, 0x12, 0x48}) {
            const int requests = hostIpmiCommandCount(cmd);
            for (int index : sweptIndexes(requests)) {
                faults.push_back({name, Fault::IpmiCode, index, requests, cmd});
            }
        }
    }
    return faults;
}

std::vector<Flow> flows() {
    const Expect getOk{0x00, {}};
    const Expect setOk{0x00, {0x0B, 0x2B}};
    const Expect setFailed{0x80, {0x0B, 0x3B}};
    const Expect setNoQuery{0x80, {}};
    const Expect exeOk{0x00, {0x05}};
    const Expect exeFailed{0x80, {0x05, 0x35}};
    const Expect webOk{1, {0x25}, -1, 0};
    const Expect webFailed{1, {0x35}, -1, -1};
    const Expect svpOk{30, {0x23}, ST_COMPLETION, 0};
    const Expect svpUnrecorded{30, {}, ST_PROCESSING, -1};
    return {
        {"GetBackupRestoreEvent",
         [] { setSlot(11, ST_GENERATED); },
         getEvent,
         getOk,
         {{"hslCreateMutex", kAny, {0x88, {}}},
          {"hslAcquireMutex", kAny, {0x88, {}}},
          {"hslGetSemiVolatileArea", kAny, {0x89, {}}},
          {"hslFreeSemiVolatileArea", kAny, getOk},
          {"hslReleaseMutex", kAny, getOk},
          {"hslDestroyMutex", kAny, getOk}},
         {}},
        {"SetBackupEvent",
         prepareBackupSource,
         setBackup,
         setOk,
         {// the active-event query
          {"hslCreateMutex", kAny, setNoQuery},
          {"hslAcquireMutex", kAny, setNoQuery},
          {"hslGetSemiVolatileArea", kAny, setNoQuery},
          {"hslFreeSemiVolatileArea", kAny, setOk},
          {"hslReleaseMutex", kAny, setOk},
          {"hslDestroyMutex", kAny, setOk},
          // FRU read of the change detection, identity and SEL time of the writer
          {"API_ExecuteCmd", kAny, setFailed},
          // one hold per catalogue row, then the rename
          {"hslAcquireSysvSemaphore", kLast, {0x88, {0x0B, 0x3B}}},
          {"hslAcquireSysvSemaphore", kNotLast, setFailed},
          {"hslReleaseSysvSemaphore", kLast, setOk},
          {"hslReleaseSysvSemaphore", kNotLast, setFailed},
          // SEL results are not judged
          {"hslAddSEL", 0, {0x00, {0x2B}}},
          {"hslAddSEL", 1, {0x00, {0x0B}}}},
         {}},
        {"ExeRestoreEvent",
         prepareRestoreSource,
         exeRestore,
         exeOk,
         {{"hslCreateMutex", kAny, setNoQuery},
          {"hslAcquireMutex", kAny, setNoQuery},
          {"hslGetSemiVolatileArea", kAny, setNoQuery},
          {"hslFreeSemiVolatileArea", kAny, exeOk},
          {"hslReleaseMutex", kAny, exeOk},
          {"hslDestroyMutex", kAny, exeOk},
          {"hslAcquireSysvSemaphore", kAny, {0x88, {0x05, 0x35}}},
          {"hslReleaseSysvSemaphore", kAny, exeOk},
          // this server's identity, read for the comparison
          {"API_ExecuteCmd", kAny, exeFailed},
          {"hslAddSEL", kAny, {0x00, {}}}},
         {}},
        {"RestoreConfigFile.WebConsole",
         [] { preparePendingRestore(BMC_WEB_CONSOLE); },
         restoreConfigFile,
         webOk,
         {// setting (call 0) and clearing (call 1) the restore flag
          {"hslCreateMutex", kAny, webFailed},
          {"hslAcquireMutex", kAny, webFailed},
          {"hslGetSemiVolatileArea", kAny, webFailed},
          {"hslFreeSemiVolatileArea", kAny, webOk},
          {"hslReleaseMutex", kAny, webOk},
          {"hslDestroyMutex", kAny, webOk},
          // one hold per block: a refused or unreported hold stops the extraction
          {"hslAcquireSysvSemaphore", kAny, {1, {0x35}, -1, 1}},
          {"hslReleaseSysvSemaphore", kAny, {1, {0x35}, -1, 1}},
          // FRU and EEPROM write-backs: their results do not fail the extraction
          {"API_ExecuteCmd", kAny, webOk},
          {"brask_ReadWriteEEPROM", kAny, webOk},
          {"hslAddSEL", kAny, {1, {}, -1, 0}}},
         {}},
        {"RestoreConfigFile.SvpConsole",
         [] { preparePendingRestore(SVP_CONSOL); },
         restoreConfigFile,
         svpOk,
         {// the completion written into the status byte (the third use of the lock)
          {"hslCreateMutex", kAny, svpUnrecorded},
          {"hslAcquireMutex", kAny, svpUnrecorded},
          {"hslGetSemiVolatileArea", kAny, svpUnrecorded},
          {"hslFreeSemiVolatileArea", kAny, svpOk},
          {"hslReleaseMutex", kAny, svpOk},
          {"hslDestroyMutex", kAny, svpOk}},
         // the rest of the flow is the web console's, swept above
         {"hslCreateMutex", "hslAcquireMutex", "hslGetSemiVolatileArea", "hslFreeSemiVolatileArea",
          "hslReleaseMutex", "hslDestroyMutex"},
         2},
    };
}

void PrintTo(const Flow& flow, std::ostream* os) { *os << flow.name; }

class FaultSweep : public ::testing::TestWithParam<Flow> {};

TEST_P(FaultSweep, EveryReachedPlatformCallFailingInTurn) {
    const Flow& flow = GetParam();
    {
        SCOPED_TRACE("clean run");
        expectOutcome(runChecked(flow, nullptr), flow.success);
    }
    const std::vector<Fault> faults = faultsFor(flow);
    ASSERT_FALSE(faults.empty());
    if (HasFailure()) return;

    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.label());
        const Rule* rule = nullptr;
        for (const Rule& r : flow.rules) {
            if (matches(r, fault)) {
                rule = &r;
                break;
            }
        }
        ASSERT_NE(rule, nullptr) << "no expectation for this failure";
        expectOutcome(runChecked(flow, &fault), rule->expect);
    }
}

INSTANTIATE_TEST_SUITE_P(Flows, FaultSweep, ::testing::ValuesIn(flows()),
                         [](const ::testing::TestParamInfo<Flow>& param) {
                             std::string name = param.param.name;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

}  // namespace
}  // namespace brask::test
