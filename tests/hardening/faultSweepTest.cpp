// The fault sweeps: each flow that does real work is run clean, counting the
// calls it reaches; then each reached call is made to fail in turn, from a
// fresh start.  What every run answers, the SEL entries it writes and its
// error lines are compared with a reviewed record of how each failure is
// reported: platformFaults.txt for the platform's calls (also each IPMI
// request answered with an error code, and each device not answering at
// all), ioFaults.txt for the C library's calls under /conf and /var/brask
// and the commands run.  No run may leave a descriptor, mapping or lock
// held, nor a restore temporary behind.
//
// Give-back calls (release, destroy, free) are made to report failure after
// doing their work: one that fails without giving back leaves the resource
// with the platform, and no caller could (or should) undo it.

#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/eventCodes.h"
#include "hardeningSupport.h"
#include "support/suite.h"

namespace brask::test {
namespace {

const std::vector<std::string> kLockCalls = {"hslCreateMutex",         "hslAcquireMutex",
                                             "hslGetSemiVolatileArea", "hslFreeSemiVolatileArea",
                                             "hslReleaseMutex",        "hslDestroyMutex"};

struct Flow {
    const char* name;
    void (*prepare)();
    long (*call)();
    // The platform calls swept (none named: every one reached), and of each
    // only this call (-1: every one).  A flow that names some is left out of
    // the C library sweep.
    std::vector<std::string> only = {};
    int onlyCall = -1;
};

const Flow kFlows[] = {
    {"GetBackupRestoreEvent", [] { setStatusByte(11, ST_GENERATED); }, getEvent},
    {"SetBackupEvent", prepareBackupSource, setBackup},
    {"ExeRestoreEvent", prepareRestoreSource, exeRestore},
    {"RestoreConfigFile.WebConsole", preparePendingRestore, restoreConfigFile},
    // The completion written into the status byte (the third use of the
    // lock); the rest of the flow is the web console's.
    {"RestoreConfigFile.SvpConsole",
     [] {
         preparePendingRestore();
         gRestoreType.Function = SVP_CONSOL;
         setStatusByte(slotIndex(EventKind::Restore, BMC_WEB_CONSOLE, BMC_FILE), ST_NOTHING);
         setStatusByte(slotIndex(EventKind::Restore, SVP_CONSOL, BMC_FILE), ST_PROCESSING);
     },
     restoreConfigFile, kLockCalls, 2},
};

// One failure: the index-th of the calls a clean run makes of `point`
// (calls 0: every call, or none).
struct Fault {
    std::string point;
    int index = 0;
    int calls = 0;
    std::function<std::unique_ptr<FailCall>()> arm = [] { return nullptr; };
};

// Every call of a few; of one made once per catalogue row (the same code
// path for each) the first, the middle and the last, and when wide the
// second and the last but one.
std::vector<int> sample(int calls, bool wide) {
    std::vector<int> at;
    for (int i = 0; i < calls; ++i) {
        if (i == 0 || i == calls / 2 || i == calls - 1 || (wide && (calls <= 6 || i == 1 || i == calls - 2)))
            at.push_back(i);
    }
    return at;
}

// A platform fault stays armed until hostResetFaults().
std::unique_ptr<FailCall> armed(int planned) {
    EXPECT_EQ(planned, 0);
    return nullptr;
}

std::vector<Fault> platformFaults(const Flow& flow) {
    std::vector<Fault> faults;
    for (const std::string fn :
         {"API_ExecuteCmd", "hslCreateMutex", "hslAcquireMutex", "hslReleaseMutex", "hslDestroyMutex",
          "hslGetSemiVolatileArea", "hslFreeSemiVolatileArea", "hslAcquireSysvSemaphore",
          "hslReleaseSysvSemaphore", "hslAddSEL", "hslChkMakeFile", "brask_ReadWriteEEPROM"}) {
        const int calls = hostCallCount(fn.c_str());
        if (calls <= 0 || (!flow.only.empty() && std::count(flow.only.begin(), flow.only.end(), fn) == 0))
            continue;
        const bool giveBack =
            fn.starts_with("hslRelease") || fn.starts_with("hslDestroy") || fn.starts_with("hslFree");
        for (const int i : sample(calls, true)) {
            if (flow.onlyCall < 0 || i == flow.onlyCall)
                faults.push_back(
                    {fn, i, calls, [=] {
                         return armed((giveBack ? hostFailCallLate : hostFailCall)(fn.c_str(), i, 1, EIO));
                     }});
        }
        // A device that does not answer at all; an IPMI request answered
        // with an error code.
        if (fn == "API_ExecuteCmd" || fn == "brask_ReadWriteEEPROM")
            faults.push_back(
                {fn + " always", 0, 0, [=] { return armed(hostFailCall(fn.c_str(), 0, 1 << 20, EIO)); }});
        if (fn != "API_ExecuteCmd") continue;
        for (const INT8U cmd : {0x10, 0x11, 0x12, 0x48}) {
            const int requests = hostIpmiCommandCount(cmd);
            char point[32];
            std::snprintf(point, sizeof point, "IPMI 0x%02X answering C0", cmd);
            for (const int i : sample(requests, true))
                faults.push_back(
                    {point, i, requests, [=] { return armed(hostIpmiFailCmd(cmd, i, 1, 0xC0)); }});
        }
    }
    return faults;
}

// The C library calls of the flow on the library's own folders, and the
// commands it runs (matched by their text), counted by unarmed faults, as
// many at once as can be armed.
std::vector<Fault> ioFaults(const Flow& flow) {
    struct Point {
        Call call;
        const char* prefix;
        int calls = 0;
    };
    std::vector<Point> points;
    for (const Call call :
         {Call::Fopen,  Call::Fread,  Call::Fwrite, Call::Fseek,   Call::Ftell, Call::Fflush, Call::Fclose,
          Call::Fileno, Call::Fscanf, Call::Open,   Call::Close,   Call::Write, Call::Fsync,  Call::Syncfs,
          Call::Stat,   Call::Lstat,  Call::Fstat,  Call::Fstatfs, Call::Mmap,  Call::Chmod,  Call::Fchmod,
          Call::Chown,  Call::Fchown, Call::Rename, Call::Unlink}) {
        points.push_back({call, "/conf"});
        points.push_back({call, "/var/brask"});
    }
    // Calls without a path of their own, and the commands (by their text).
    for (const Call call : {Call::System, Call::Munmap, Call::Fork, Call::Execlp, Call::Waitpid, Call::Time})
        points.push_back({call, ""});
    for (std::size_t at = 0; at < points.size(); at += 8) {
        resetState();
        flow.prepare();
        std::vector<std::unique_ptr<FailCall>> counters;
        for (std::size_t i = at; i < std::min(at + 8, points.size()); ++i)
            counters.push_back(std::make_unique<FailCall>(points[i].call, 0, points[i].prefix, 1 << 30));
        (void)observe(flow.call);
        for (std::size_t i = 0; i < counters.size(); ++i) points[at + i].calls = counters[i]->matched();
    }
    std::vector<Fault> faults;
    for (const auto& [call, prefix, calls] : points) {
        const std::string point = callName(call) + std::string(*prefix != '\0' ? " " : "") + prefix;
        for (const int i : sample(calls, false)) {
            faults.push_back({point, i, calls, [=, c = call, p = prefix] {
                                  return std::make_unique<FailCall>(c, EIO, p, i + 1);
                              }});
        }
    }
    return faults;
}

// outcome -> (point, calls) -> which calls failed
using Seen = std::map<std::string, std::map<std::pair<std::string, int>, std::string>>;

// Runs the flow under the fault and files the outcome: the result, the SEL
// entries, after the deferred restore the restore's status byte and the BMC
// restore flag, and the error lines.
void runUnder(const Flow& flow, const Fault& fault, Seen& seen) {
    SCOPED_TRACE(std::string(flow.name) + ": " + fault.point + " " + std::to_string(fault.index + 1));
    resetState();
    flow.prepare();
    hostResetCounters();
    const Observed o = observe([&] {
        const auto armed = fault.arm();
        return flow.call();
    });
    hostResetFaults();
    expectNothingHeld(o);
    for (const auto& [path, node] : snapshotTree({"/conf"})) EXPECT_FALSE(path.ends_with(".svf-new")) << path;

    std::string outcome = std::to_string(o.result) + " SEL";
    char hex[8];
    for (const std::uint8_t c : o.sel) outcome += (std::snprintf(hex, sizeof hex, " %02X", c), hex);
    if (flow.call == restoreConfigFile) {
        hslSemiVolatileArea_T area{};
        EXPECT_EQ(hostSemiVolRead(&area), 0);
        const unsigned slot = slotIndex(EventKind::Restore, gRestoreType.Function, gRestoreType.FileType);
        outcome += ", status " + std::to_string(area.svf.svfStatusList[slot]) + " flag " +
                   std::to_string(area.svfAutoBack.BmcRestoreFlag);
    }
    for (const std::string& line : errorLines(o.err)) outcome += " | " + line.substr(line.find(") : ") + 4);
    std::string& calls = seen[outcome][{fault.point, fault.calls}];
    calls += (calls.empty() ? "" : ",") + std::to_string(fault.index + 1);
}

// One line per outcome, after the faults that lead to it:
//   flow: call which,calls/of a clean run; ... -> result SEL codes[, status s flag f] | error lines
std::string recordOf(const Flow& flow, const Seen& seen) {
    std::string record;
    for (const auto& [outcome, points] : seen) {
        record += flow.name + std::string(":");
        const char* separator = " ";
        for (const auto& [point, calls] : points) {
            record += separator + point.first;
            if (point.second > 0) record += " " + calls + "/" + std::to_string(point.second);
            separator = "; ";
        }
        record += " -> " + outcome + "\n";
    }
    return record;
}

void expectRecord(const std::string& file, const std::string& record) {
    std::ifstream in(BRASK_TEST_SOURCE_DIR "/tests/hardening/" + file);
    std::stringstream kept;
    kept << in.rdbuf();
    EXPECT_EQ(kept.str(), record) << "the whole record, to review and keep as " << file << ":\n" << record;
}

TEST(FaultSweep, EachPlatformCallFailingInTurn) {
    std::string record;
    for (const Flow& flow : kFlows) {
        Seen seen;
        runUnder(flow, {"no fault"}, seen);
        if (HasFailure()) return;
        for (const Fault& fault : platformFaults(flow)) runUnder(flow, fault, seen);
        record += recordOf(flow, seen);
    }
    expectRecord("platformFaults.txt", record);
}

TEST(FaultSweep, EachCLibraryCallOnAPathFailingInTurn) {
    std::string record;
    for (const Flow& flow : kFlows) {
        if (!flow.only.empty()) continue;
        Seen seen;
        for (const Fault& fault : ioFaults(flow)) runUnder(flow, fault, seen);
        record += recordOf(flow, seen);
    }
    expectRecord("ioFaults.txt", record);
}

}  // namespace
}  // namespace brask::test
