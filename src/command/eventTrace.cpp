// Writer of the event trace ring (unit svfOEMExeRestoreEvent).
#include "command/eventTrace.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "common/diag.h"
#include "common/paths.h"
#include "common/scoped.h"
#include "common/shellCommand.h"

static constexpr const char kUnit[] = "svfOEMExeRestoreEvent";

namespace brask::trace {
namespace {

// Opens the trace file for update, making it first when it does not exist.
// A null result with nothing logged means the file could not be made.
ScopedFile openTrace() {
    errno = 0;
    ScopedFile fp(paths::kTraceFile, "rb+");
    if (fp) return fp;
    if (errno != ENOENT) {
        SVF_ERR("fopen fail\n");
        return fp;
    }

    char cmdstr[80];
    if (formatInto(cmdstr, "dd if=/dev/zero of=%s bs=%d count=1\n", paths::kTraceFile, kCreatedSize)) {
        (void)runShell(cmdstr);  // success is judged by the second open
    }
    return ScopedFile(paths::kTraceFile, "rb+");
}

}  // namespace

void appendEventRecord(const svfSemiVol_T& svf, const INT8U* response) {
    ScopedFile fp = openTrace();
    if (!fp) return;

    // A header shorter than 16 bytes (a file cut short by someone else) reads
    // as zeros where bytes are missing; the index is clamped either way.
    INT8U Pointer[kHeaderSize] = {};
    (void)std::fread(Pointer, 1, sizeof Pointer, fp.get());
    unsigned index = Pointer[0];
    if (index > kLastIndex) index = 0;

    const auto now = static_cast<INT32U>(std::time(nullptr));
    const INT8U timeBytes[4] = {static_cast<INT8U>(now), static_cast<INT8U>(now >> 8),
                                static_cast<INT8U>(now >> 16), static_cast<INT8U>(now >> 24)};

    // Results of the seek and writes are not judged: the trace is best effort.
    (void)std::fseek(fp.get(), recordOffset(index), SEEK_SET);
    (void)std::fwrite(&svf, sizeof svf, 1, fp.get());
    (void)std::fwrite(response, kResponseSize, 1, fp.get());
    (void)std::fwrite(timeBytes, sizeof timeBytes, 1, fp.get());

    ++index;
    if (index > kLastIndex) index = 0;
    Pointer[0] = static_cast<INT8U>(index);
    (void)std::fseek(fp.get(), 0, SEEK_SET);
    (void)std::fwrite(Pointer, sizeof Pointer, 1, fp.get());
    (void)fp.close();
}

}  // namespace brask::trace
