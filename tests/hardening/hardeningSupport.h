// Helpers of the hardening suite: the flows that do real work, what they
// leave behind (descriptors, mappings, locks), and a checker of the event
// trace ring.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "BraskSvf/svfTypes.h"

namespace brask::test {

using SelCodes = std::vector<std::uint8_t>;

// What a flow answered: the completion code for a handler; for the deferred
// restore the reboot countdown it left.  Plus the SEL entries it added.
struct Outcome {
    int code = -1;
    std::vector<std::uint8_t> response;  // a handler's answer, as long as it said
    SelCodes sel;
    // Deferred restore only: the event's status byte and the BMC restore
    // flag afterwards.
    int slot = -1;
    int restoreFlag = -1;
    std::string output;  // both standard streams, for the failure messages
};

// Descriptors and file-backed mappings of this process.
struct Held {
    int fds = 0;
    int maps = 0;
    bool operator==(const Held&) const = default;
};
Held heldNow();

// Whether another process can take each lock within a short wait: a lock
// left held by this process would make it wait for ever.
struct LockState {
    bool mutexFree = false;
    bool semaphoreFree = false;
};
LockState probeLocks();
// Expects the descriptors and mappings of `before` and both locks free.
void expectNothingHeld(const Held& before);

// Web-console requests and a call of each handler that keeps its output off
// the test log.
Outcome getEvent();
Outcome setBackup();
Outcome exeRestore();
Outcome restoreConfigFile();

// A /conf with every catalogue file and a valid web backup of it in
// /var/brask/BmcWeb.bak (made once by a real backup, then copied).
void prepareBackupSource();
void prepareRestoreSource();
// A restore accepted by the Execute Restore Event handler and waiting for
// its deferred part: blocks split out, gRestoreType set, countdowns idle,
// SEL empty.  `function` is written into gRestoreType afterwards (1 also
// puts Restore.SvpConsole.Bmc in ST_PROCESSING, as the SVP would have).
void preparePendingRestore(INT8U function);

// Block file `block` split out of (or packed into) the BMC backup file.
std::string blockFile(unsigned block);

// Checks the trace ring "/conf/brask/BackRest.trs2": size, header index in
// range, and every written record consistent (known state codes, a response
// that matches its own snapshot, a time within [notBefore, now]).  Returns
// "" when well formed, else what is wrong.  `records` receives how many slots
// hold a record.
std::string checkTraceRing(std::uint32_t notBefore, int& records);

}  // namespace brask::test
