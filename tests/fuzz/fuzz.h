// What the fuzz targets share: an invariant check that libFuzzer records as a
// crash, the sandbox entry of the targets that run library code on files
// (with the suites' own reset, support/sandbox.h), and a quiet standard error.
#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "archive/format.h"
#include "command/eventSlots.h"
#include "support/builders.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::fuzz {

// The original standard error, taken before libFuzzer (-close_fd_mask) or
// quietly() can redirect it, so a broken invariant is always reported.
inline const int kReportFd = ::dup(STDERR_FILENO);

#define FUZZ_CHECK(cond)                                                                                     \
    ((cond)                                                                                                  \
         ? void()                                                                                            \
         : (::dprintf(::brask::fuzz::kReportFd, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #cond), \
            std::abort()))

// Re-executes the target inside the sandbox with the build's fuzz work folder
// (corpora, artifacts) writable; inside, /conf and /var are tmpfs mounts (a
// truncating rewrite on a disk costs a flush per input), reset like a test
// case's, and the library's debug lines go nowhere.
inline void enterSandbox(int* argc, char*** argv) {
    if (!sandbox::insideSandbox()) std::filesystem::create_directories(BRASK_FUZZ_WORK_DIR);
    sandbox::enterSandbox(*argc, *argv, {.readWritePaths = {BRASK_FUZZ_WORK_DIR}});
    for (const char* dir : {"/conf", "/var"})
        FUZZ_CHECK(::mount("fuzz", dir, "tmpfs", MS_NOSUID | MS_NODEV, "size=256m,mode=0755") == 0);
    test::resetState();
    FUZZ_CHECK(std::freopen("/dev/null", "w", stdout) != nullptr);
}

// The LLVMFuzzerInitialize of a sandboxed target: enterSandbox, then the
// target's own set-up statements.
#define FUZZ_SANDBOXED(...)                                        \
    extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) { \
        ::brask::fuzz::enterSandbox(argc, argv);                   \
        __VA_ARGS__;                                               \
        return 0;                                                  \
    }

// Calls `call` with standard error sent to /dev/null: hostile inputs make the
// library report every refusal.
template <class Call>
auto quietly(Call call) {
    const int saved = ::dup(STDERR_FILENO), devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(devNull, STDERR_FILENO), ::close(devNull);
    const auto result = call();
    ::dup2(saved, STDERR_FILENO), ::close(saved);
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
    FUZZ_CHECK(res[0] == (anyEvent(svf) ? 0x00 : 0x80) && length == (res[0] == 0 ? 8 : 1));
    FUZZ_CHECK(std::memcmp(res + 4, &svf.RestoreAddedInfo, 4) == 0);
    FUZZ_CHECK(anyEvent(svf) || (res[1] == 0 && res[2] == 0 && res[3] == 0));
    FUZZ_CHECK(!anyEvent(svf) || ((res[1] & 0xE0) == 0 && res[2] <= BMC_FILE && res[3] <= BMC_WEB_CONSOLE));
    const auto kind = slots::isRestoreEventType(res[1]) ? EventKind::Restore : EventKind::Backup;
    FUZZ_CHECK(!anyEvent(svf) ||
               (svf.svfStatusList[slotIndex(kind, res[3], res[2])] & 0xF) == (res[1] & 0xF));
}

}  // namespace brask::fuzz
