// The flows of the hardening suite that do real work, the states they start
// from, and the check that a call left nothing held.
#pragma once

#include "support/observe.h"

namespace brask::test {

// A web-console request to each handler (the query: none); the result is its
// completion code.
long getEvent();
long setBackup();
long exeRestore();
// The deferred restore; the result is the reboot countdown it left.
long restoreConfigFile();

// A /conf with every catalogue file and its backup copies.
void prepareBackupSource();
// A /conf and a valid web backup of it, made once by a real backup.
void prepareRestoreSource();
// A restore accepted by the Execute Restore Event handler over a /conf changed
// after the backup (a file edited, a mode changed, a file removed, one added
// on a delete-first row), waiting for its deferred part: made once, then put
// back with /conf, /var/brask and the status area as it left them, the
// countdowns idle and the SEL empty.
void preparePendingRestore();

// Expects no descriptor or mapping left by the observed call, and the status
// lock and the file semaphore free for another process.
void expectNothingHeld(const Observed& o);

}  // namespace brask::test
