// The bubblewrap sandbox the test binaries, svfsim and the benchmarks run in:
// the library writes fixed absolute paths (/conf, /var, /etc/init.d,
// /proc/ractrends, reboot), so nothing of it may run on the host.  A program
// calls enterSandbox() first; it re-executes the binary inside bubblewrap (or
// returns at once when already inside).
#pragma once

#include <string>
#include <vector>

namespace brask::sandbox {

// Log of the stub init scripts and the stub `reboot`: one line per call,
// "<script name> <arguments>" (for example "kvm_servers stop", "reboot").
inline constexpr char kCommandLog[] = "/var/log/sandbox-commands.log";
// The firmware information file the stub /proc carries.
inline constexpr char kFwInfoFile[] = "/proc/ractrends/Helper/FwInfo";
// Its content in a new state directory.
inline constexpr char kDefaultFwInfo[] = "FW_VERSION=2.17\n";

struct Options {
    // Empty: a temporary state directory ($TMPDIR/brask-sandbox.XXXXXX),
    // removed afterwards, also when we are interrupted (BRASK_KEEP_SANDBOX=1
    // keeps it for a look).  Otherwise this directory, created on first use
    // and kept: conf/, var/ and run/ below it are /conf, /var and /run/brask.
    std::string stateDir;
    // Host files or folders made visible, read-only, at the same path inside.
    std::vector<std::string> readOnlyPaths;
    // Host folders made visible, writable, at the same path inside (they must
    // exist), for instance where a fuzzer keeps its corpus and artifacts.
    std::vector<std::string> readWritePaths;
};

// Re-executes argv inside the sandbox and exits with its status (128 + the
// signal when it was killed); returns only inside the sandbox.  Exits non-zero
// with a reason when bubblewrap is missing or the state directory cannot be
// made.  When the build sets an emulator (cross builds), the binary is run
// through it.
void enterSandbox(int argc, char** argv, const Options& options = {});
// BRASK_SANDBOX=1 and the stub /proc (a tmpfs) are both present.
bool insideSandbox();

// The words that run a binary of this build (empty for a native build).
std::vector<std::string> emulatorPrefix();

// Empties /conf and /var (detaching any mount left inside), lays out the
// starting folders (/conf/brask, /conf/BMC1, /var/brask, /var/log), restores
// the default FwInfo and removes every System V semaphore and shared memory
// segment.  The platform's own files under /var/hsl are its caller's to
// create.  Returns false outside the sandbox, touching nothing.
bool resetTree();

// True when chown to other ids works here (root without a user namespace).
bool canChown();

// Replaces the firmware information file's content; removeFwInfo() deletes
// it.  /proc/ractrends is a link into the writable /run/brask.
void setFwInfo(const std::string& content);
void removeFwInfo();

// Reads the whole command log ("" when none).
std::string commandLog();

}  // namespace brask::sandbox
