// Runs a command inside the bubblewrap sandbox, so that ipmi_sim with the
// library's module writes the sandbox's /conf and /var, never the host's.
//   brask-ipmi-sandbox [--populate] -- COMMAND [ARGUMENTS...]
// --populate lays out a realistic /conf (with backup copies) first.  The state directory is
// temporary (BRASK_KEEP_SANDBOX=1 keeps it).
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "sandbox/sandbox.h"
#include "sandbox/scenario.h"

int main(int argc, char** argv) {
    bool populate = false;
    int first = 1;
    for (; first < argc; ++first) {
        if (std::strcmp(argv[first], "--populate") == 0) {
            populate = true;
        } else if (std::strcmp(argv[first], "--") == 0) {
            ++first;
            break;
        } else {
            break;
        }
    }
    if (first >= argc) {
        std::fprintf(stderr, "usage: %s [--populate] -- COMMAND [ARGUMENTS...]\n", argv[0]);
        return 2;
    }
    brask::sandbox::enterSandbox(argc, argv);
    if (!brask::sandbox::resetTree()) {
        std::fprintf(stderr, "%s: cannot lay out the sandbox tree\n", argv[0]);
        return 1;
    }
    // With backup copies, as on a BMC backed up before: a backup then reads
    // the FRU afresh.
    if (populate) (void)brask::sandbox::populateConf(BmcBackupFileList, {.backupCopies = true});
    ::execvp(argv[first], argv + first);
    std::fprintf(stderr, "%s: cannot run %s: %s\n", argv[0], argv[first], std::strerror(errno));
    return 127;
}
