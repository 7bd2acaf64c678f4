// The child process that stops the KVM servers before a restore.  Nobody
// waits for it; its pid is remembered so that later calls can reap it with
// waitpid(pid, WNOHANG), touching no other child of the firmware process.
#pragma once

#include <sys/types.h>

namespace brask::restore {

// Forks a child that runs "/bin/sh /etc/init.d/kvm_servers stop" (status 255
// when that cannot be started).  The child's pid, or -1 when fork failed.
pid_t startKvmServersStop();
// Reaps the remembered children that have ended; never blocks.
void reapKvmServersStop();
// Remembered children not reaped yet.
int pendingKvmServersStop();

}  // namespace brask::restore
