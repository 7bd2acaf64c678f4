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

#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "hardeningSupport.h"
#include "support/interpose.h"
#include "support/sandbox.h"
#include "support/transcript.h"
#include "support/tree.h"

namespace brask::test {
namespace {

constexpr const char* kPlatformCalls[] = {"API_ExecuteCmd",          "hslCreateMutex",
                                          "hslAcquireMutex",         "hslReleaseMutex",
                                          "hslDestroyMutex",         "hslGetSemiVolatileArea",
                                          "hslFreeSemiVolatileArea", "hslAcquireSysvSemaphore",
                                          "hslReleaseSysvSemaphore", "hslAddSEL",
                                          "hslChkMakeFile",          "brask_ReadWriteEEPROM"};
const std::vector<std::string> kLockCalls = {"hslCreateMutex",         "hslAcquireMutex",
                                             "hslGetSemiVolatileArea", "hslFreeSemiVolatileArea",
                                             "hslReleaseMutex",        "hslDestroyMutex"};
const std::vector<std::string> kGiveBack = {"hslFreeSemiVolatileArea", "hslReleaseMutex", "hslDestroyMutex",
                                            "hslReleaseSysvSemaphore"};

bool in(const std::vector<std::string>& set, const std::string& fn) {
    return std::find(set.begin(), set.end(), fn) != set.end();
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
    std::string fn;
    int which;  // a call index or a Which
    Expect expect;
};
using Rules = std::vector<Rule>;

// The status-area lock: taking it fails with `taken`, giving it back is
// judged as success (`ok`).
Rules lockRules(const Expect& taken, const Expect& ok) {
    Rules r;
    for (const std::string& fn : kLockCalls) r.push_back({fn, kAny, in(kGiveBack, fn) ? ok : taken});
    return r;
}
Rules operator+(Rules a, const Rules& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct Flow {
    const char* name;
    void (*prepare)();
    Outcome (*run)();
    Expect success;
    Rules rules;  // the first that matches applies
    // Functions whose calls are swept (empty: every reached one), and of
    // each only this call (-1: every call).
    std::vector<std::string> only = {};
    int onlyCall = -1;
};

// Every call of a function reached a few times; of one reached once per
// catalogue row (the same code path for every row), the first and last two
// and one in the middle.
bool swept(int i, int calls) { return calls <= 6 || i < 2 || i >= calls - 2 || i == calls / 2; }

void expectOutcome(const Outcome& got, const Expect& want) {
    EXPECT_EQ(got.code, want.code);
    EXPECT_EQ(got.sel, want.sel);
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
    int index = 0;  // which call of the function (or of the IPMI command)
    int calls = 0;  // how many the clean run made
    INT8U cmd = 0;

    std::string label() const {
        if (kind == Always) return fn + " fails on each of its calls";
        char who[24];
        std::snprintf(who, sizeof who, "IPMI command 0x%02X", cmd);
        return (kind == IpmiCode ? who : fn) + " call " + std::to_string(index + 1) + " of " +
               std::to_string(calls) +
               (kind == Once   ? " fails"
                : kind == Late ? " reports failure"
                               : " answers 0xC0");
    }
    int inject() const {
        switch (kind) {
            case Once:
                return hostFailCall(fn.c_str(), index, 1, EIO);
            case Late:
                return hostFailCallLate(fn.c_str(), index, 1, EIO);
            case Always:
                return hostFailCall(fn.c_str(), 0, 1 << 20, EIO);
            case IpmiCode:
                return hostIpmiFailCmd(cmd, index, 1, 0xC0);
        }
        return -1;
    }
    // An IPMI request that answers an error code is judged by the rules of a
    // failed API_ExecuteCmd that hold for any call.
    bool matches(const Rule& r) const {
        if (fn != r.fn) return false;
        if (kind == IpmiCode) return r.which == kAny;
        if (r.which == kAny) return true;
        if (r.which == kLast || r.which == kNotLast) return (index == calls - 1) == (r.which == kLast);
        return index == r.which;
    }
};

// Runs the flow once from a fresh state and checks what it leaves behind.
Outcome runChecked(const Flow& flow, const Fault* fault) {
    resetState();
    flow.prepare();
    hostResetCounters();
    if (fault != nullptr) {
        EXPECT_EQ(fault->inject(), 0);
    }
    const Held before = heldNow();
    const Outcome got = flow.run();
    hostResetFaults();
    expectNothingHeld(before);
    return got;
}

// The failures to inject, from the calls the clean run made: each swept call
// once; device calls (IPMI, EEPROM) also all of them, as a device that does
// not answer at all; each IPMI request also answered with a completion code
// instead of failing outright.
std::vector<Fault> faultsFor(const Flow& flow) {
    std::vector<Fault> faults;
    for (const std::string fn : kPlatformCalls) {
        const int calls = hostCallCount(fn.c_str());
        if ((!flow.only.empty() && !in(flow.only, fn)) || calls <= 0) continue;
        for (int index = 0; index < calls; ++index) {
            if (swept(index, calls) && (flow.onlyCall < 0 || index == flow.onlyCall))
                faults.push_back({fn, in(kGiveBack, fn) ? Fault::Late : Fault::Once, index, calls});
        }
        if (fn == "API_ExecuteCmd" || fn == "brask_ReadWriteEEPROM")
            faults.push_back({fn, Fault::Always, 0, calls});
        if (fn != "API_ExecuteCmd") continue;
        for (INT8U cmd : {0x10, 0x11, 0x12, 0x48}) {
            const int requests = hostIpmiCommandCount(cmd);
            for (int index = 0; index < requests; ++index)
                if (swept(index, requests)) faults.push_back({fn, Fault::IpmiCode, index, requests, cmd});
        }
    }
    return faults;
}

std::vector<Flow> flows() {
    const Expect getOk{0x00, {}};
    const Expect setOk{0x00, {0x0B, 0x2B}};
    const Expect setFailed{0x80, {0x0B, 0x3B}};
    const Expect noQuery{0x80, {}};
    const Expect exeOk{0x00, {0x05}};
    const Expect webOk{1, {0x25}, -1, 0};
    const Expect webStopped{1, {0x35}, -1, 1};
    const Expect svpOk{30, {0x23}, ST_COMPLETION, 0};
    return {
        {"GetBackupRestoreEvent", [] { setStatusByte(11, ST_GENERATED); }, getEvent, getOk,
         Rules{{"hslGetSemiVolatileArea", kAny, {0x89, {}}}} + lockRules({0x88, {}}, getOk)},
        {"SetBackupEvent", prepareBackupSource, setBackup, setOk,
         // the active-event query; the FRU read of the change detection,
         // identity and SEL time of the writer; one hold per catalogue row,
         // then the rename; SEL results are not judged
         lockRules(noQuery, setOk) + Rules{{"API_ExecuteCmd", kAny, setFailed},
                                           {"hslAcquireSysvSemaphore", kLast, {0x88, {0x0B, 0x3B}}},
                                           {"hslAcquireSysvSemaphore", kNotLast, setFailed},
                                           {"hslReleaseSysvSemaphore", kLast, setOk},
                                           {"hslReleaseSysvSemaphore", kNotLast, setFailed},
                                           {"hslAddSEL", 0, {0x00, {0x2B}}},
                                           {"hslAddSEL", 1, {0x00, {0x0B}}}}},
        {"ExeRestoreEvent", prepareRestoreSource, exeRestore, exeOk,
         // API_ExecuteCmd: this server's identity, read for the comparison
         lockRules(noQuery, exeOk) + Rules{{"hslAcquireSysvSemaphore", kAny, {0x88, {0x05, 0x35}}},
                                           {"hslReleaseSysvSemaphore", kAny, exeOk},
                                           {"API_ExecuteCmd", kAny, {0x80, {0x05, 0x35}}},
                                           {"hslAddSEL", kAny, {0x00, {}}}}},
        // The lock sets (call 0) and clears (call 1) the restore flag; one
        // semaphore hold per block: a refused or unreported hold stops the
        // extraction; the FRU and EEPROM write-backs' results do not.
        {"RestoreConfigFile.WebConsole", [] { preparePendingRestore(BMC_WEB_CONSOLE); }, restoreConfigFile,
         webOk,
         lockRules({1, {0x35}}, webOk) + Rules{{"hslAcquireSysvSemaphore", kAny, webStopped},
                                               {"hslReleaseSysvSemaphore", kAny, webStopped},
                                               {"API_ExecuteCmd", kAny, webOk},
                                               {"brask_ReadWriteEEPROM", kAny, webOk},
                                               {"hslAddSEL", kAny, {1, {}, -1, 0}}}},
        // The completion written into the status byte (the third use of the
        // lock); the rest of the flow is the web console's, swept above.
        {"RestoreConfigFile.SvpConsole", [] { preparePendingRestore(SVP_CONSOL); }, restoreConfigFile, svpOk,
         lockRules({30, {}, ST_PROCESSING}, svpOk), kLockCalls, 2},
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
        const auto rule = std::find_if(flow.rules.begin(), flow.rules.end(),
                                       [&](const Rule& r) { return fault.matches(r); });
        ASSERT_NE(rule, flow.rules.end()) << "no expectation for this failure";
        expectOutcome(runChecked(flow, &fault), rule->expect);
    }
}

INSTANTIATE_TEST_SUITE_P(Flows, FaultSweep, ::testing::ValuesIn(flows()), [](const auto& param) {
    std::string name = param.param.name;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
});

// ---- C library faults ----------------------------------------------------------
// Each call a flow makes under /conf or /var/brask, of each kind, and each
// command it runs, fails in turn with EIO: the first, middle and last of
// each kind.  What each run answers, the SEL entries it writes and
// the error lines it prints, in order, are compared with ioFaults.txt: the
// reviewed record of how every I/O failure is reported.  Nothing may be
// held afterwards, and no restore temporary left behind.
struct IoFlow {
    const char* name;
    void (*prepare)();
    Outcome (*run)();
};
const IoFlow kIoFlows[] = {
    {"SetBackupEvent", prepareBackupSource, setBackup},
    {"ExeRestoreEvent", prepareRestoreSource, exeRestore},
    {"RestoreConfigFile", [] { preparePendingRestore(BMC_WEB_CONSOLE); }, restoreConfigFile},
};
constexpr Call kIoCalls[] = {Call::Fopen,  Call::Fread,  Call::Fwrite, Call::Fseek, Call::Ftell,
                             Call::Fflush, Call::Fclose, Call::Open,   Call::Close, Call::Write,
                             Call::Fsync,  Call::Syncfs, Call::Stat,   Call::Lstat, Call::Fstat,
                             Call::Mmap,   Call::Chmod,  Call::Fchmod, Call::Chown, Call::Fchown,
                             Call::Rename, Call::Unlink, Call::System};
// The library's own folders; a command matches by its text.
std::vector<const char*> prefixesOf(Call call) {
    if (call == Call::System) return {""};
    return {"/conf", "/var/brask"};
}

std::string errorsOf(const std::string& output) {
    std::string out;
    for (const std::string& line : errorLines(output)) out += " | " + line.substr(line.find(") : ") + 4);
    return out;
}

std::string sel(const SelCodes& codes) {
    std::string out;
    for (std::uint8_t c : codes) {
        char hex[4];
        std::snprintf(hex, sizeof hex, " %02X", c);
        out += hex;
    }
    return out;
}

bool temporaryLeft() {
    for (const auto& [path, node] : snapshotTree({"/conf"})) {
        if (path.ends_with(".svf-new")) return true;
    }
    return false;
}

struct IoPoint {
    Call call;
    const char* prefix;
    int calls = 0;  // how many a clean run makes
};

// How many calls of each kind a clean run of the flow makes, counted by
// unarmed faults, as many at once as can be armed.
std::vector<IoPoint> ioPoints(const IoFlow& flow) {
    std::vector<IoPoint> points;
    for (const Call call : kIoCalls) {
        for (const char* prefix : prefixesOf(call)) points.push_back({call, prefix});
    }
    constexpr std::size_t kArmed = 8;
    for (std::size_t at = 0; at < points.size(); at += kArmed) {
        resetState();
        flow.prepare();
        std::vector<std::unique_ptr<FailCall>> counters;
        for (std::size_t i = at; i < std::min(at + kArmed, points.size()); ++i)
            counters.push_back(std::make_unique<FailCall>(points[i].call, 0, points[i].prefix, 1 << 30));
        (void)flow.run();
        for (std::size_t i = 0; i < counters.size(); ++i) points[at + i].calls = counters[i]->matched();
    }
    return points;
}

TEST(IoFaultSweep, EachCallOnAPathFailingInTurn) {
    std::string record;
    for (const IoFlow& flow : kIoFlows) {
        for (const IoPoint& point : ioPoints(flow)) {
            // The first, the middle and the last call of each kind; calls
            // that fail alike share a line.
            std::map<std::string, std::string> calls;  // outcome -> which calls
            for (const int i : std::set<int>{0, point.calls / 2, point.calls - 1}) {
                if (i < 0 || i >= point.calls) continue;
                SCOPED_TRACE(std::string(flow.name) + " " + callName(point.call) + " " +
                             std::to_string(i + 1));
                resetState();
                flow.prepare();
                const Held before = heldNow();
                Outcome got;
                {
                    const FailCall fault(point.call, EIO, point.prefix, i + 1);
                    got = flow.run();
                }
                expectNothingHeld(before);
                EXPECT_FALSE(temporaryLeft());
                std::string& which =
                    calls[std::to_string(got.code) + "," + sel(got.sel) + errorsOf(got.output)];
                which += (which.empty() ? "" : ",") + std::to_string(i + 1);
            }
            for (const auto& [outcome, which] : calls) {
                record += std::string(flow.name) + " " + callName(point.call) + " " + point.prefix + " " +
                          which + "/" + std::to_string(point.calls) + ": " + outcome + "\n";
            }
        }
    }
    std::ifstream in(BRASK_TEST_SOURCE_DIR "/tests/hardening/ioFaults.txt");
    std::stringstream expected;
    expected << in.rdbuf();
    EXPECT_EQ(expected.str(), record) << "the whole record, to review and keep as ioFaults.txt:\n" << record;
}

}  // namespace
}  // namespace brask::test
