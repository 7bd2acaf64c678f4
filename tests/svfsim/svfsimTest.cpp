// svfsim as a user runs it: each subcommand's exit status and key lines,
// --json that parses, and the demo to its end.  svfsim runs inside this
// binary's sandbox and works on its /conf and /var.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/sandbox.h"
#include "support/scenario.h"
#include "svfsim/runTool.h"

namespace brask::test {
namespace {

using nlohmann::json;

// Runs svfsim with `args` (split at blanks).
ToolRun svfsim(const std::string& args) {
    std::vector<std::string> words;
    std::istringstream in(args);
    for (std::string w; in >> w;) words.push_back(w);
    return runTool(BRASK_SVFSIM_EXE, words);
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class Svfsim : public ::testing::Test {
protected:
    void SetUp() override {
        const ToolRun r = svfsim("init");
        ASSERT_EQ(r.exit, 0) << r.out << r.err;
    }
};

// Command lines after init (or without it), each on its own fresh BMC: the
// exit status and a line that must appear on stdout (or, when it fails, on
// stderr).
struct Case {
    std::vector<std::string> before;  // run first, each must succeed
    std::string command;
    int exit;
    std::string expected;
    bool init = true;
};

TEST_F(Svfsim, SubcommandsAnswerWithTheirStatusAndKeyLines) {
    const Case cases[] = {
        {{}, "init", 1, "already initialized; 'svfsim init --force' starts over"},
        {{}, "init --force --model RX9 --serial S9", 0, "model RX9, serial S9"},
        {{}, "event", 0, "completion code 0x80: no backup or restore event exists"},
        {{}, "backup", 0, "SEL #2  "},
        {{}, "backup", 0, "backup file: /var/brask/BmcWeb.bak"},
        {{}, "backup --requester svp", 0, "no backup file written by this request"},
        {{}, "backup --file-type efi", 0, "no backup file written by this request"},
        {{}, "restore", 1, "no web backup yet"},
        {{}, "restore --file /nonexistent", 1, "/nonexistent does not exist"},
        {{"backup"}, "restore --no-ticks", 0, "kill-process countdown set to 10 ticks"},
        {{"backup", "restore --no-ticks"}, "tick 9", 0, "tick 9: kill-process countdown 2 -> 1"},
        {{"backup", "restore --no-ticks", "tick 9"}, "tick", 0, "reboot requested"},
        {{"backup", "restore --no-ticks"}, "backup", 1, "0xD5: not possible in the present state"},
        {{"backup"}, "restore", 0, "2 archive block(s) unpacked into /conf"},
        {{}, "tick 2", 0, "tick 2: no countdown running"},
        {{}, "svp BMC_GENERATE_EVENT Backup.SvpConsole.Bmc", 0, "ST_NOTHING -> ST_GENERATED"},
        {{"svp BMC_GENERATE_EVENT 9"}, "svp SVP_BACKUP_TRANS_REQ 9", 0, "ST_GENERATED -> ST_STANDBY"},
        {{"svp BMC_GENERATE_EVENT 9"}, "event", 0, "event: Backup.SvpConsole.Bmc"},
        {{"svp BMC_GENERATE_EVENT 9"}, "backup", 1, "last error: BRASK_ERR"},
        {{}, "svp SVP_RESTORE_SUCCESS_OK Restore.NpM.Bmc", 1, "rejected"},
        {{}, "svp NO_SUCH_OP 1", 1, "unknown operation 'NO_SUCH_OP'"},
        {{}, "svp BMC_START 12", 1, "unknown slot '12'"},
        {{}, "status", 0, "processing flags: EfiBackFlag 0, BmcBackFlag 0, EfiRestoreFlag 0, BmcRestoreFlag 0"},
        {{}, "files", 0, "present        67  none      /conf/resolv.conf"},
        {{"backup"}, "files", 0, "present        67  current   /conf/resolv.conf"},
        {{}, "sel", 0, "SEL is empty"},
        {{"backup"}, "sel", 0, "#2  "},
        {{}, "status", 1, "not initialized: run 'svfsim init' first", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command);
        resetState();
        if (c.init) { ASSERT_EQ(svfsim("init").exit, 0); }
        for (const std::string& b : c.before) ASSERT_EQ(svfsim(b).exit, 0) << b;
        const ToolRun r = svfsim(c.command);
        EXPECT_EQ(r.exit, c.exit) << r.out << r.err;
        EXPECT_TRUE(has(c.exit == 0 ? r.out : r.out + r.err, c.expected)) << r.out << r.err;
    }
}

TEST_F(Svfsim, JsonOutputsParseAndFollowTheBmc) {
    ASSERT_EQ(svfsim("svp BMC_GENERATE_EVENT Backup.SvpConsole.Bmc").exit, 0);
    const json event = json::parse(svfsim("event --json").out);
    EXPECT_EQ(event["completionCode"], 0);
    EXPECT_EQ(event["event"]["slotName"], "Backup.SvpConsole.Bmc");
    EXPECT_EQ(event["event"]["stateName"], "ST_GENERATED");
    EXPECT_EQ(event["event"]["kind"], "backup");

    ASSERT_EQ(svfsim("svp BMC_FORCE_CLEAR 9").exit, 0);
    ASSERT_EQ(svfsim("backup").exit, 0);
    ASSERT_EQ(svfsim("restore --no-ticks").exit, 0);
    const json status = json::parse(svfsim("status --json").out);
    ASSERT_EQ(status["slots"].size(), 12u);
    EXPECT_EQ(status["slots"][5]["name"], "Restore.BmcConsole.Bmc");
    EXPECT_EQ(status["slots"][9]["stateName"], "ST_NOTHING");
    EXPECT_EQ(status["countdowns"]["killProcess"], 10);  // kept for the next run
    EXPECT_EQ(status["flags"]["BmcRestoreFlag"], 0);

    ASSERT_EQ(svfsim("tick 10").exit, 0);
    const json sel = json::parse(svfsim("sel --json").out);
    std::vector<int> codes;
    for (const json& e : sel) codes.push_back(e["eventData"]);
    EXPECT_EQ(codes, (std::vector<int>{0x0B, 0x2B, 0x05, 0x25}));
    EXPECT_EQ(sel[3]["className"], "SEL_CLASS_SUCCESS");
    EXPECT_EQ(sel[3]["slotName"], "Restore.BmcConsole.Bmc");
}

TEST_F(Svfsim, RestoreOfADamagedBackupFailsWithItsCompletionCode) {
    ASSERT_EQ(svfsim("backup").exit, 0);
    std::vector<std::uint8_t> bytes = readBytes("/var/svfsim/last-web-backup.bak");
    ASSERT_GT(bytes.size(), 300u);
    bytes[200] ^= 0x5A;
    writeBytes("/tmp/damaged.bak", bytes);
    const ToolRun r = svfsim("restore --file /tmp/damaged.bak");
    EXPECT_EQ(r.exit, 1);
    EXPECT_TRUE(has(r.out, "completion code 0x81")) << r.out;
    EXPECT_TRUE(has(r.err, "library log: /var/log/svfsim.log")) << r.err;
}

TEST_F(Svfsim, VerboseShowsTheLibraryLinesAndTheLogKeepsThem) {
    const ToolRun quiet = svfsim("backup");
    EXPECT_FALSE(has(quiet.out + quiet.err, "BRASK_")) << quiet.out << quiet.err;
    EXPECT_TRUE(has(readFile("/var/log/svfsim.log"), "BRASK_DEBUG  : svfOEMSetBackupEvent("));
    const ToolRun loud = svfsim("--verbose event");
    EXPECT_TRUE(has(loud.err, "BRASK_")) << loud.err;
}

TEST_F(Svfsim, DemoRunsToTheEndAndBringsTheFilesBack) {
    const ToolRun r = svfsim("demo");
    ASSERT_EQ(r.exit, 0) << r.out << r.err;
    EXPECT_TRUE(has(r.out, "demo finished: every damaged file is back")) << r.out;
    for (const char* path : {"/conf/resolv.conf", "/conf/sshd_config",
                             "/conf/brask/bum_home/bmcuser1/.ssh/authorized_keys"}) {
        EXPECT_TRUE(has(r.out, std::string(path) + ": back, identical")) << path;
    }
    EXPECT_TRUE(has(r.out, "0x25  Restore.BmcConsole.Bmc  completed"));
    EXPECT_TRUE(has(r.out, "the stub reboot ran 1 time(s)"));
}

}  // namespace
}  // namespace brask::test
