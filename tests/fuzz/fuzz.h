// What the fuzz targets share, each of them in the library's namespace: the
// headers most of them use, the sandbox entry of those that run library
// code on files (the suites' reset, support/sandbox.h), their output taken
// away, and the soundness of a Get Backup/Restore Event answer.  Invariants
// are asserts (kept in every build of the targets): libFuzzer records the
// abort as a crash.
#pragma once

#include <sys/mount.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <memory>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "command/eventSlots.h"
#include "common/paths.h"
#include "support/builders.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/transcript.h"
#include "support/tree.h"

namespace brask::fuzz {

// Re-executes the target inside the sandbox with the build's fuzz work
// folder (corpora, artifacts; scripts/fuzz makes it) writable; inside, /conf
// and /var are tmpfs mounts (a truncating rewrite on a disk costs a flush per
// input), reset like a test case's.  For LLVMFuzzerInitialize.
inline int enterSandbox(int* argc, char*** argv) {
    sandbox::enterSandbox(*argc, *argv, {.readWritePaths = {BRASK_FUZZ_WORK_DIR}});
    for (const char* dir : {"/conf", "/var"})
        assert(::mount("fuzz", dir, "tmpfs", MS_NOSUID | MS_NODEV, "size=256m,mode=0755") == 0);
    test::resetState();
    return 0;
}

// The result of `call`; what it printed (hostile inputs make the library
// report every refusal) is dropped.
template <class Call>
auto quietly(Call call) {
    decltype(call()) result;
    (void)test::captureOutput([&] { result = call(); });
    return result;
}

// A sound Get Backup/Restore Event answer for these status bytes: 0x00 and 8
// bytes naming a slot whose state matches, or 0x80 and 1 when none is set;
// the area's four extra bytes copied either way.
inline bool anyEvent(const svfSemiVol_T& svf) {
    return std::any_of(svf.svfStatusList, svf.svfStatusList + SVF_EVENT_SLOT_COUNT,
                       [](INT8U s) { return s; });
}
inline void checkEventAnswer(const svfSemiVol_T& svf, const INT8U* res, int length) {
    const bool any = anyEvent(svf);
    assert(res[0] == (any ? 0x00 : 0x80) && length == (res[0] == 0 ? 8 : 1));
    assert(std::memcmp(res + 4, &svf.RestoreAddedInfo, 4) == 0);
    assert(any || (res[1] == 0 && res[2] == 0 && res[3] == 0));
    assert(!any || ((res[1] & 0xE0) == 0 && res[2] <= BMC_FILE && res[3] <= BMC_WEB_CONSOLE));
    const auto kind = slots::isRestoreEventType(res[1]) ? EventKind::Restore : EventKind::Backup;
    assert(!any || (svf.svfStatusList[slotIndex(kind, res[3], res[2])] & 0xF) == (res[1] & 0xF));
}

}  // namespace brask::fuzz

using namespace brask;  // each target is a file of its own
