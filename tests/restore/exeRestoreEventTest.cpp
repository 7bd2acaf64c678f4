// Execute Restore Event: every refusal answers its completion code and SEL
// entries and changes no configuration file; success arms the countdown.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "command/exeRestoreEvent.h"
#include "command/kvmStopChild.h"
#include "common/eventCodes.h"
#include "restoreTestSupport.h"
#include "support/observe.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/transcript.h"
#include "support/tree.h"

namespace brask::test {
namespace {

constexpr char kWebBackup[] = "/var/brask/BmcWeb.bak";
constexpr char kTrace[] = "/conf/brask/BackRest.trs2";

struct ExeCase {
    const char* name;
    std::vector<std::uint8_t> request;
    void (*setup)();  // after a good BmcWeb.bak is in place; may be null
    INT8U cc;
    std::vector<std::uint8_t> sel;
    bool moved;                         // BmcWeb.bak became BMC.bak
    std::vector<std::string> err = {};  // the error lines, in order
    const char* stdoutEnd = nullptr;    // the output ends exactly so
};

const std::vector<std::uint8_t> kWebBmc = {1, 2, 0, 0, 0, 0};
const std::vector<std::uint8_t> kFailed = {0x05, 0x35};  // started, then failed
const std::string kHandler = "BRASK_ERR  : svfOEMExeRestoreEvent(#) : ";
const std::string kReader = "BRASK_ERR  : svfBraskArchiver(#) : ";

void webFile(const ByteVec& f) { writeBytes(kWebBackup, f); }

void otherEventActive() { setStatusByte(slotIndex(EventKind::Backup, N_P_M, BMC_FILE), ST_GENERATED); }

// One row per case.
// clang-format off
const ExeCase kExeCases[] = {
    {"ShortRequest", {1, 2, 0, 0, 0}, nullptr, 0xC7, {}, false, {kHandler + "Request Length Error(5)"}},
    {"EfiAnyFunction", {0, 9, 0, 0, 0, 0}, nullptr, 0x00, {}, false},
    // "Non Check" is the one line printed with no line end.
    {"NplusM", {1, 0, 0, 0, 0, 0}, nullptr, 0x00, {}, false, {}, "Function == N_P_M\n"},
    {"SvpConsole", {1, 1, 0, 0, 0, 0}, nullptr, 0x00, {}, false, {}, "Function == SVP_CONSOL\n"},
    {"FunctionOutOfRange", {1, 3, 0, 0, 0, 0}, nullptr, 0xC9, {}, false},
    {"FileTypeOutOfRange", {2, 2, 0, 0, 0, 0}, nullptr, 0xC9, {}, false},
    {"RebootPending", kWebBmc, [] { gRebootAfterRestoreTimer = 30; }, 0xD5, kFailed, false,
     {kHandler + "gRebootAfterRestoreTimer != 0"}},
    {"RestorePendingSvp", {1, 1, 0, 0, 0, 0}, [] { gKillProcessAfterFileChkTimer = 3; }, 0xD5, {}, false,
     {kHandler + "gRebootAfterRestoreTimer != 0"}},
    {"OtherEventActive", kWebBmc, otherEventActive, 0xD5, kFailed, false, {kHandler + "handle others"}},
    {"FirmwareUpdate", kWebBmc, [] { hostSetFwUpdateState(3); }, 0x80, {0x05}, false,
     {kHandler + "BMC Busy. Running FwUp."}},
    {"NoSemaphore", kWebBmc, [] { hostFailCall("hslAcquireSysvSemaphore", 0, 1, EIDRM); }, 0x88, kFailed, false,
     {kHandler + "hslAcquireSysvSemaphore fail"}},
    {"NoWebBackup", kWebBmc, [] { std::remove(kWebBackup); }, 0x80, kFailed, false, {kHandler + "system cmd fail(2)"}},
    {"BadChecksum", kWebBmc, [] { webFile(flipped(50)); }, 0x81, kFailed, true, {kReader + "ChkSum not Match"}},
    {"OtherServer", kWebBmc, [] { webFile(sampleBackup({.model = "OTHER"})); }, 0x85, kFailed, true,
     {kReader + "ModelNumber Mismatch"}},
    {"DataRev1", kWebBmc, [] { webFile(sampleBackup({.dataRev = 1})); }, 0x86, kFailed, true,
     {kReader + "Unknown Data Rev"}},
    {"EfiFile", kWebBmc, [] { webFile(sampleBackup({.fwType = EFI_FILE})); }, 0x83, kFailed, true,
     {kReader + "FwTyep not Match"}},
    {"Version2", kWebBmc, [] { webFile(sampleBackup({.version = 2})); }, 0x87, kFailed, true,
     {kReader + "Unknown File Format"}},
    {"Truncated", kWebBmc, [] { webFile(ByteVec(40, 0)); }, 0x80, kFailed, true, {kReader + "fread fail(2)"}},
};
// clang-format on

TEST_F(RestoreTest, RefusalsAnswerTheirCodeAndChangeNoConfiguration) {
    for (const ExeCase& c : kExeCases) {
        SCOPED_TRACE(c.name);
        resetState();
        populateConf();
        webFile(sampleBackup());
        if (c.setup != nullptr) c.setup();
        auto before = snapshotTree({"/conf"});
        before.erase(kTrace);
        const svfRestoreType_T sentinel{9, 9, 9};
        gRestoreType = sentinel;

        std::vector<std::uint8_t> req = c.request;
        INT8U res[4] = {0xEE};
        const Observed got = observe(
            [&] { return long{svfOEMExeRestoreEvent(req.data(), static_cast<INT8U>(req.size()), res, 0)}; });
        EXPECT_EQ(got.result, 1);
        if (c.stdoutEnd != nullptr) {
            EXPECT_TRUE(got.out.ends_with(std::string(c.stdoutEnd) +
                                          "BRASK_DEBUG  : svfOEMExeRestoreEvent(#) : Non Check"))
                << got.out;
        }
        EXPECT_EQ(errorLines(got.err), c.err);
        EXPECT_EQ(res[0], c.cc);
        EXPECT_EQ(selEvents(), c.sel);
        EXPECT_EQ(exists("/var/brask/BMC.bak"), c.moved);
        auto after = snapshotTree({"/conf"});
        after.erase(kTrace);
        EXPECT_EQ(diffTrees(before, after), "");
        EXPECT_EQ(std::memcmp(&gRestoreType, &sentinel, sizeof sentinel), 0);
        EXPECT_NE(gKillProcessAfterFileChkTimer, 10);
        // An EFI request is answered before the trace file is opened.
        if (req.size() == 6 && req[0] == EFI_FILE) {
            EXPECT_FALSE(exists(kTrace));
        }
    }
}

TEST_F(RestoreTest, AcceptedRestoreArmsTheCountdownAndStopsKvm) {
    webFile(sampleBackup());
    hostSetFwUpdateState(9);  // not an update state
    INT8U req[6] = {1, 2, 0, 0, 0, 0};
    INT8U res[1] = {0xEE};
    ASSERT_EQ(svfOEMExeRestoreEvent(req, 6, res, 0), 1);
    EXPECT_EQ(res[0], 0x00);
    EXPECT_EQ(gRestoreType.FileType, 1);
    EXPECT_EQ(gRestoreType.Function, 2);
    EXPECT_EQ(gRestoreType.NumOfBlock, 2);
    EXPECT_EQ(gKillProcessAfterFileChkTimer, 10);
    EXPECT_EQ(selEvents(), std::vector<std::uint8_t>{0x05});
    EXPECT_FALSE(exists(kWebBackup));
    EXPECT_TRUE(waitForCommand("kvm_servers stop"));
    // An idle tick reaps the child once it has ended; no zombie stays.
    svfIniTimer();
    bool reaped = false;
    for (int i = 0; i < 500 && !reaped; ++i) {
        svfRestoreTimer();
        reaped = brask::restore::pendingKvmServersStop() == 0;
        if (!reaped) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(reaped);
}

}  // namespace
}  // namespace brask::test
