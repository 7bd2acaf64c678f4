// The tick: both countdowns in order, the deferred restore it runs, reboot.
#include <algorithm>
#include <functional>
#include <ostream>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "restoreTestSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

int count(const std::string& log, const std::string& line) {
    int n = 0;
    for (std::size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) ++n;
    return n;
}
int reboots() { return count(commandLog(), "reboot"); }
bool restoreRan() { return count(commandLog(), "webgo stop") > 0; }

hslSemiVolatileArea_T area() {
    hslSemiVolatileArea_T a{};
    EXPECT_EQ(hostSemiVolRead(&a), 0);
    return a;
}

// The web console reboots in the tick that restores, the SVP console 29 ticks
// after it; a reboot happens once.
TEST_F(RestoreTest, RestoreAndRebootRunOnTheirTicks) {
    const struct {
        const char* what;
        INT8U function;
        int restoreTick, rebootTick;
    } cases[] = {{"web console", BMC_WEB_CONSOLE, 10, 10}, {"SVP console", SVP_CONSOL, 1, 30}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        resetState();
        gRestoreType = {BMC_FILE, c.function, 0};
        gKillProcessAfterFileChkTimer = static_cast<INT8U>(c.restoreTick);
        ::testing::internal::CaptureStdout();
        for (int tick = 1; tick <= c.rebootTick + 1; ++tick) {
            svfRestoreTimer();
            EXPECT_EQ(restoreRan(), tick >= c.restoreTick) << "tick " << tick;
            EXPECT_EQ(reboots(), tick >= c.rebootTick ? 1 : 0) << "tick " << tick;
            EXPECT_EQ(gKillProcessAfterFileChkTimer, std::max(c.restoreTick - tick, 0)) << tick;
            if (tick >= c.restoreTick) {
                EXPECT_EQ(gRebootAfterRestoreTimer, std::max(c.rebootTick - tick, 0)) << tick;
            }
        }
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_TRUE(inOrder(out, {"gKillProcessAfterFileChkTimer = 1\n", "gRebootAfterRestoreTimer = 1\n",
                                  "Reboot After Restore"}))
            << out;
    }
}

// Once both countdowns are idle a tick prints and runs nothing.
TEST_F(RestoreTest, IniTimerDropsPendingRestoreAndReboot) {
    gRestoreType = {BMC_FILE, BMC_WEB_CONSOLE, 0};
    gKillProcessAfterFileChkTimer = 5;
    gRebootAfterRestoreTimer = 7;
    svfRestoreTimer();
    svfIniTimer();
    EXPECT_EQ(gKillProcessAfterFileChkTimer, 0);
    EXPECT_EQ(gRebootAfterRestoreTimer, 0);
    ::testing::internal::CaptureStdout();
    for (int tick = 0; tick < 40; ++tick) svfRestoreTimer();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(commandLog(), "");
    EXPECT_EQ(gRestoreType.Function, BMC_WEB_CONSOLE);
}

// ---- The deferred restore ----------------------------------------------------------
struct DeferredCase {
    const char* name;
    svfRestoreType_T pending;
    std::function<void()> setup;
    bool stopsServices;
    INT8U flagAfter;  // the restore flag of the file type afterwards
    std::vector<std::uint8_t> sel;
    INT8U reboot;  // countdown afterwards
    int slot;      // status slot to check, -1 none
    INT8U slotAfter;
    bool timeApplied;
};

// One row per case.
// clang-format off
const DeferredCase kDeferred[] = {
    {"WebBmcSuccess", {1, 2, 0}, [] {}, true, 0, {0x25}, 1, 5, ST_NOTHING, true},
    {"WebBmcUnpackFails", {1, 2, 1}, [] {}, true, 1, {0x35}, 1, -1, 0, false},
    {"WebEfi", {0, 2, 0}, [] {}, false, 0, {0x24}, 0, -1, 0, true},
    {"SvpBmcProcessing", {1, 1, 0}, [] { setStatusByte(3, ST_PROCESSING); }, true, 0, {0x23}, 30, 3, ST_COMPLETION, true},
    {"SvpBmcNotStarted", {1, 1, 0}, [] {}, true, 0, {0x23}, 30, 3, ST_FAIL, true},
    {"NplusMBmc", {1, 0, 0}, [] { setStatusByte(1, ST_PROCESSING); }, false, 0, {0x21}, 0, 1, ST_COMPLETION, true},
    // The restore flag takes the first two mutexes.
    {"SvpBmcNoMutex", {1, 1, 0}, [] { hostFailCall("hslCreateMutex", 2, 1, ENOMEM); }, true, 0, {}, 30, -1, 0, true},
    // Requesters 3 to 5 have status bytes 6 to 11: F * 2 + FT names one of them.
    {"Function4Bmc", {1, 4, 0}, [] { setStatusByte(9, ST_PROCESSING); }, true, 0, {0x29}, 0, 9, ST_COMPLETION, true},
    {"WebBmcFlagFails", {1, 2, 0}, [] { hostFailCall("hslCreateMutex", 0, 1, ENOMEM); }, true, 0, {0x35}, 1, -1, 0, false},
};
// clang-format on

// By name: gtest would otherwise print the record's bytes, padding included.
void PrintTo(const DeferredCase& c, std::ostream* os) { *os << c.name; }

class DeferredRestore : public RestoreTest, public ::testing::WithParamInterface<DeferredCase> {};

TEST_P(DeferredRestore, FollowsItsPath) {
    const DeferredCase& c = GetParam();
    c.setup();
    gRestoreType = c.pending;
    const int timeCalls = hostApplyTimeInfoCount();
    const int scheduleCalls = hostUpdateScheduleCount();
    svfRestoreConfigFile();
    const std::string log = commandLog();
    EXPECT_EQ(count(log, "webgo stop") + count(log, "inetd stop") + count(log, "ssh stop"),
              c.stopsServices ? 3 : 0);
    EXPECT_EQ(inOrder(log, {"webgo stop", "inetd stop", "ssh stop"}), c.stopsServices) << log;
    const hslSemiVolatileArea_T a = area();
    EXPECT_EQ(c.pending.FileType == BMC_FILE ? a.svfAutoBack.BmcRestoreFlag : a.svfAutoBack.EfiRestoreFlag,
              c.flagAfter);
    EXPECT_EQ(selEvents(), c.sel);
    EXPECT_EQ(gRebootAfterRestoreTimer, c.reboot);
    if (c.slot >= 0) {
        EXPECT_EQ(a.svf.svfStatusList[c.slot], c.slotAfter);
    }
    EXPECT_EQ(hostApplyTimeInfoCount() - timeCalls, c.timeApplied ? 1 : 0);
    EXPECT_EQ(hostUpdateScheduleCount() - scheduleCalls, c.timeApplied ? 1 : 0);
    if (c.timeApplied) {
        EXPECT_EQ(hostLastScheduleArgument(), m_prev_sch_ut_time);
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, DeferredRestore, ::testing::ValuesIn(kDeferred),
                         [](const auto& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace brask::test
