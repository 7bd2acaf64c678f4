// Execute Restore Event: every refusal answers its completion code and SEL
// entries and changes no configuration file; success arms the countdown.
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "command/exeRestoreEvent.h"
#include "command/kvmStopChild.h"
#include "restoreTestSupport.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kWebBackup[] = "/var/brask/BmcWeb.bak";
constexpr char kTrace[] = "/conf/brask/BackRest.trs2";

TEST(ExtractionCodes, MapToCompletionCodes) {
    const std::pair<int, INT8U> table[] = {{-4, 0x81}, {-6, 0x85}, {-7, 0x86}, {-8, 0x83},
                                           {-9, 0x87}, {-1, 0x80}, {-2, 0x80}, {-3, 0x80},
                                           {-5, 0x80}, {1, 0x80}};
    for (const auto& [result, cc] : table) {
        EXPECT_EQ(brask::restore::completionCodeForExtraction(result), cc) << result;
    }
}

ByteVec goodBackup(BackupSpec shape = {}) {
    shape.blocks = {buildBlock({}), buildBlock({entryFor("/conf/resolv.conf", "restored\n")})};
    return buildBackup(shape);
}

struct ExeCase {
    const char* name;
    std::vector<std::uint8_t> request;
    std::function<void()> setup;
    INT8U cc;
    std::vector<std::uint8_t> sel;
    bool moved;  // BmcWeb.bak became BMC.bak
    const char* stdoutEnd = nullptr;  // the output ends exactly so
};

const std::vector<std::uint8_t> kWebBmc = {1, 2, 0, 0, 0, 0};

void webFile(const ByteVec& f) { writeBytes(kWebBackup, f); }
BackupSpec with(void (*edit)(BackupSpec&)) {
    BackupSpec s;
    edit(s);
    return s;
}

std::vector<ExeCase> exeCases() {
    auto good = [] { webFile(goodBackup()); };
    return {
        {"ShortRequest", {1, 2, 0, 0, 0}, good, 0xC7, {}, false},
        {"EfiAnyFunction", {0, 9, 0, 0, 0, 0}, good, 0x00, {}, false},
        // "Non Check" is the one line printed with no line end.
        {"NplusM", {1, 0, 0, 0, 0, 0}, good, 0x00, {}, false, "Function == N_P_M\n"},
        {"SvpConsole", {1, 1, 0, 0, 0, 0}, good, 0x00, {}, false, "Function == SVP_CONSOL\n"},
        {"FunctionOutOfRange", {1, 3, 0, 0, 0, 0}, good, 0xC9, {}, false},
        {"FileTypeOutOfRange", {2, 2, 0, 0, 0, 0}, good, 0xC9, {}, false},
        {"RebootPending", kWebBmc, [=] { good(); gRebootAfterRestoreTimer = 30; }, 0xD5,
         {0x05, 0x35}, false},
        {"RestorePendingSvp", {1, 1, 0, 0, 0, 0}, [=] { good(); gKillProcessAfterFileChkTimer = 3; },
         0xD5, {}, false},
        {"OtherEventActive", kWebBmc,
         [=] {
             good();
             hslSemiVolatileArea_T area{};
             hostSemiVolRead(&area);
             area.svf.svfStatus.Backup.Auto.Bmc = ST_GENERATED;
             hostSemiVolWrite(&area);
         },
         0xD5, {0x05, 0x35}, false},
        {"FirmwareUpdate", kWebBmc, [=] { good(); hostSetFwUpdateState(3); }, 0x80, {0x05}, false},
        {"NoSemaphore", kWebBmc, [=] { good(); hostFailCall("hslAcquireSysvSemaphore", 0, 1, EIDRM); },
         0x88, {0x05, 0x35}, false},
        {"NoWebBackup", kWebBmc, [] {}, 0x80, {0x05, 0x35}, false},
        {"BadChecksum", kWebBmc,
         [] {
             ByteVec f = goodBackup();
             f[50] ^= 1;
             webFile(f);
         },
         0x81, {0x05, 0x35}, true},
        {"OtherServer", kWebBmc,
         [] {
             webFile(goodBackup(with([](BackupSpec& s) {
                 s.ownIdentity = false;
                 s.model = "OTHER";
                 s.serial = "SN0001";
             })));
         },
         0x85, {0x05, 0x35}, true},
        {"DataRev1", kWebBmc, [] { webFile(goodBackup(with([](BackupSpec& s) { s.dataRev = 1; }))); },
         0x86, {0x05, 0x35}, true},
        {"EfiFile", kWebBmc, [] { webFile(goodBackup(with([](BackupSpec& s) { s.fwType = 0; }))); },
         0x83, {0x05, 0x35}, true},
        {"Version2", kWebBmc, [] { webFile(goodBackup(with([](BackupSpec& s) { s.version = 2; }))); },
         0x87, {0x05, 0x35}, true},
        {"Truncated", kWebBmc, [] { webFile(ByteVec(40, 0)); }, 0x80, {0x05, 0x35}, true},
    };
}

TEST_F(RestoreTest, RefusalsAnswerTheirCodeAndChangeNoConfiguration) {
    for (const ExeCase& c : exeCases()) {
        SCOPED_TRACE(c.name);
        resetState();
        SetUp();
        populateConf();
        c.setup();
        auto before = snapshotTree();
        before.erase(kTrace);
        const svfRestoreType_T sentinel{9, 9, 9};
        gRestoreType = sentinel;

        std::vector<std::uint8_t> req = c.request;
        INT8U res[4] = {0xEE};
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(svfOEMExeRestoreEvent(req.data(), static_cast<INT8U>(req.size()), res, 0), 1);
        const std::string out = ::testing::internal::GetCapturedStdout();
        if (c.stdoutEnd != nullptr) {
            const std::string tail = std::string(c.stdoutEnd) + "BRASK_DEBUG  : svfOEMExeRestoreEvent(";
            const auto at = out.rfind(tail);
            ASSERT_NE(at, std::string::npos) << out;
            const std::string rest = out.substr(at + tail.size());
            EXPECT_EQ(rest.substr(rest.find(')')), ") : Non Check") << out;
        }
        EXPECT_EQ(res[0], c.cc);
        EXPECT_EQ(selEvents(), c.sel);
        EXPECT_EQ(exists("/var/brask/BMC.bak"), c.moved);
        auto after = snapshotTree();
        after.erase(kTrace);
        EXPECT_EQ(diffSnapshots(before, after), "");
        EXPECT_EQ(std::memcmp(&gRestoreType, &sentinel, sizeof sentinel), 0);
        EXPECT_EQ(gKillProcessAfterFileChkTimer == 10, false);
        svfIniTimer();
    }
}

TEST_F(RestoreTest, EfiRequestLeavesNoTrace) {
    INT8U req[6] = {0, 9, 0, 0, 0, 0};
    INT8U res[1];
    svfOEMExeRestoreEvent(req, 6, res, 0);
    EXPECT_FALSE(exists(kTrace));
}

bool waitForCommand(const std::string& line) {
    for (int i = 0; i < 500; ++i) {
        if (commandLog().find(line) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST_F(RestoreTest, AcceptedRestoreArmsTheCountdownAndStopsKvm) {
    webFile(goodBackup());
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
