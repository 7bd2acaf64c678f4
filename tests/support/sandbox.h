// The sandbox every test binary runs in: the library writes fixed absolute
// paths (/conf, /var, /etc/init.d, reboot), so nothing of it may run on the
// host.  main() calls enterSandbox() first; it re-executes the binary inside
// bubblewrap (or returns at once when already inside).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace brask::test {

// Log of the stub init scripts and the stub `reboot`: one line per call,
// "<script name> <arguments>" (for example "kvm_servers stop", "reboot").
inline constexpr char kCommandLog[] = "/var/log/sandbox-commands.log";
// The firmware information file the stub /proc carries.
inline constexpr char kFwInfoFile[] = "/proc/ractrends/Helper/FwInfo";

// Re-executes argv inside the sandbox and exits with its status (128 + the
// signal when it was killed); returns only inside the sandbox.  Exits non-zero
// with a reason when bubblewrap is missing.  The per-run state directory
// ($TMPDIR/brask-sandbox.XXXXXX: conf/, var/, run/) is removed afterwards,
// also when we are interrupted; BRASK_KEEP_SANDBOX=1 keeps it for a look.
void enterSandbox(int argc, char** argv);
// BRASK_SANDBOX=1 and the stub /proc (a tmpfs) are both present.
bool insideSandbox();

// Empties /conf and /var (detaching any mount a test left inside) and lays
// out the starting tree (/conf/brask, /conf/BMC1, /var/brask, /var/log,
// /var/hsl with hostPlatformInit()); removes every System V semaphore and
// shared memory segment; restores the default FwInfo; clears the library's
// countdowns and pending restore and the host platform's fault controls,
// counters, SEL time, FRU access log and firmware-update state.
// Called before every test case by the runner; aborts outside the sandbox.
void resetState();

// True when chown to other ids works here (root without a user namespace).
bool canChown();

// Replaces the firmware information file's content (default
// "FW_VERSION=2.17\n", restored by resetState); removeFwInfo() deletes it.
// /proc/ractrends is a link into the writable /run/brask.
void setFwInfo(const std::string& content);
void removeFwInfo();

// Descriptors open in this process and its file-backed mappings: tests compare
// them before and after a call to prove nothing was left open or mapped.
int openDescriptorCount();
int mappingCount();

// Event data bytes of the host platform's SEL records, in order.
std::vector<std::uint8_t> selEvents();

// Reads the whole command log ("" when none).
std::string commandLog();

}  // namespace brask::test
