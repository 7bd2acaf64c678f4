// svfsim as a user runs it: each subcommand's exit status and key lines,
// --json that parses, and the demo to its end.  svfsim runs inside this
// binary's sandbox and works on its /conf and /var.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <chrono>
#include <vector>

#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

using nlohmann::json;

struct Outcome {
    int status = -1;
    std::string out, err;
};

std::string drain(int fd) {
    std::string s;
    char buf[4096];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) s.append(buf, static_cast<std::size_t>(n));
    ::close(fd);
    return s;
}

// Runs svfsim with `args` (split at blanks); stderr goes to a file so that a
// full stdout pipe cannot block it.
Outcome svfsim(const std::string& args) {
    std::vector<std::string> words = sandbox::emulatorPrefix();
    words.push_back(BRASK_SVFSIM_EXE);
    for (std::size_t pos = 0; pos < args.size();) {
        const std::size_t end = std::min(args.find(' ', pos), args.size());
        if (end > pos) words.push_back(args.substr(pos, end - pos));
        pos = end + 1;
    }
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    int out[2];
    if (::pipe(out) != 0) return {};
    const char* errFile = "/tmp/svfsim-stderr";
    auto t0 = std::chrono::steady_clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], 1);
        const int err = ::open(errFile, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(err, 2);
        ::close(out[0]);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    Outcome r;
    r.out = drain(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.err = readFile(errFile);
    if (getenv("T")) fprintf(stderr, "%s %ld ms\n", args.c_str(), (long)std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count());
    return r;
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class Svfsim : public ::testing::Test {
protected:
    void SetUp() override {
        const Outcome r = svfsim("init");
        ASSERT_EQ(r.status, 0) << r.out << r.err;
    }
};

// Command lines after init, each on its own fresh BMC: the exit status and a
// line that must appear on stdout (or, when it fails, on stderr).
struct Case {
    std::vector<std::string> before;  // run first, each must succeed
    std::string command;
    int status;
    std::string expected;
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
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command);
        resetState();
        ASSERT_EQ(svfsim("init").status, 0);
        for (const std::string& b : c.before) ASSERT_EQ(svfsim(b).status, 0) << b;
        const Outcome r = svfsim(c.command);
        EXPECT_EQ(r.status, c.status) << r.out << r.err;
        EXPECT_TRUE(has(c.status == 0 ? r.out : r.out + r.err, c.expected)) << r.out << r.err;
    }
}

TEST_F(Svfsim, CommandsRefuseAnUninitializedBmc) {
    resetState();
    const Outcome r = svfsim("status");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "not initialized: run 'svfsim init' first")) << r.err;
}

TEST_F(Svfsim, JsonOutputsParseAndFollowTheBmc) {
    ASSERT_EQ(svfsim("svp BMC_GENERATE_EVENT Backup.SvpConsole.Bmc").status, 0);
    const json event = json::parse(svfsim("event --json").out);
    EXPECT_EQ(event["completionCode"], 0);
    EXPECT_EQ(event["event"]["slotName"], "Backup.SvpConsole.Bmc");
    EXPECT_EQ(event["event"]["stateName"], "ST_GENERATED");
    EXPECT_EQ(event["event"]["kind"], "backup");

    ASSERT_EQ(svfsim("svp BMC_FORCE_CLEAR 9").status, 0);
    ASSERT_EQ(svfsim("backup").status, 0);
    ASSERT_EQ(svfsim("restore --no-ticks").status, 0);
    const json status = json::parse(svfsim("status --json").out);
    ASSERT_EQ(status["slots"].size(), 12u);
    EXPECT_EQ(status["slots"][5]["name"], "Restore.BmcConsole.Bmc");
    EXPECT_EQ(status["slots"][9]["stateName"], "ST_NOTHING");
    EXPECT_EQ(status["countdowns"]["killProcess"], 10);  // kept for the next run
    EXPECT_EQ(status["flags"]["BmcRestoreFlag"], 0);

    ASSERT_EQ(svfsim("tick 10").status, 0);
    const json sel = json::parse(svfsim("sel --json").out);
    std::vector<int> codes;
    for (const json& e : sel) codes.push_back(e["eventData"]);
    EXPECT_EQ(codes, (std::vector<int>{0x0B, 0x2B, 0x05, 0x25}));
    EXPECT_EQ(sel[3]["className"], "SEL_CLASS_SUCCESS");
    EXPECT_EQ(sel[3]["slotName"], "Restore.BmcConsole.Bmc");
}

TEST_F(Svfsim, RestoreOfADamagedBackupFailsWithItsCompletionCode) {
    ASSERT_EQ(svfsim("backup").status, 0);
    std::vector<std::uint8_t> bytes = readBytes("/var/svfsim/last-web-backup.bak");
    ASSERT_GT(bytes.size(), 300u);
    bytes[200] ^= 0x5A;
    writeBytes("/tmp/damaged.bak", bytes);
    const Outcome r = svfsim("restore --file /tmp/damaged.bak");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.out, "completion code 0x81")) << r.out;
    EXPECT_TRUE(has(r.err, "library log: /var/log/svfsim.log")) << r.err;
}

TEST_F(Svfsim, VerboseShowsTheLibraryLinesAndTheLogKeepsThem) {
    const Outcome quiet = svfsim("backup");
    EXPECT_FALSE(has(quiet.out + quiet.err, "BRASK_")) << quiet.out << quiet.err;
    EXPECT_TRUE(has(readFile("/var/log/svfsim.log"), "BRASK_DEBUG  : svfOEMSetBackupEvent("));
    const Outcome loud = svfsim("--verbose event");
    EXPECT_TRUE(has(loud.err, "BRASK_")) << loud.err;
}

TEST_F(Svfsim, DemoRunsToTheEndAndBringsTheFilesBack) {
    const Outcome r = svfsim("demo");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
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
