// The FRU backup file: starting it, appending pieces of FRU data to it, and
// making sure that it and its backup copy exist when the firmware starts.
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "common/diag.h"
#include "common/paths.h"
#include "common/scoped.h"
#include "fru/fruInternal.h"

namespace {
static constexpr const char kUnit[] = "svfBackupFRU";
}  // namespace

using brask::ScopedFile;
using brask::fru::kFileError;
using brask::fru::kHeaderSize;

INT8U svfInitLog() {
    SVF_MSG(6, "svfInitLog() : \n");

    ScopedFile fp(brask::paths::kFruBackupFile, "wb+");
    if (!fp) {
        SVF_MSG(3, "svfInitLog() : error(%d)\n", errno);
        return kFileError;
    }
    const SVF_BACKUP_FRUDAT_HEADER_T header{};
    INT8U result = 0;
    // Flushed here so that a full disk counts as a failed write, not only as
    // a failed close.
    if (std::fwrite(&header, 1, kHeaderSize, fp.get()) != kHeaderSize || std::fflush(fp.get()) != 0) {
        SVF_MSG(3, "svfInitLog() : error(%d)\n", errno);
        result = kFileError;
    }
    if (fp.close() != 0) SVF_MSG(3, "svfInitLog() : file close error(%d)\n", errno);
    return result;
}

INT8U svfWriteLog(INT8U* pMsg, INT8U Size) {
    SVF_MSG(3, "svfWriteLog() : Size = %02x\n", Size);

    SVF_BACKUP_FRUDAT_HEADER_T header{};
    errno = 0;
    ScopedFile fp(brask::paths::kFruBackupFile, "rb+");
    if (!fp) {
        if (errno != ENOENT) {
            SVF_MSG(3, "svfWriteLog() : file open error(%d)\n", errno);
            return kFileError;
        }
        fp.reset(std::fopen(brask::paths::kFruBackupFile, "wb+"));
        if (!fp) {
            SVF_MSG(3, "svfWriteLog() : file open error(%d)\n", errno);
            return kFileError;
        }
    } else if (std::fread(&header, 1, kHeaderSize, fp.get()) != kHeaderSize) {
        SVF_MSG(3, "svfWriteLog() : read error(%d)\n", errno);
        if (fp.close() != 0) SVF_MSG(3, "svfWriteLog() : file close error(%d)\n", errno);
        return kFileError;
    }

    // The data goes right after what the header counts, not to the physical
    // end: a file left longer by an earlier run is overwritten in place.
    const std::uint64_t seekSize = kHeaderSize + std::uint64_t{header.Size};
    header.Size += Size;

    // Flushed before the close so that a full disk counts as a failed write.
    bool ok = seekSize <= static_cast<std::uint64_t>(LONG_MAX);
    if (!ok) errno = EOVERFLOW;
    ok = ok && std::fseek(fp.get(), 0, SEEK_SET) == 0 &&
         std::fwrite(&header, 1, kHeaderSize, fp.get()) == kHeaderSize &&
         std::fseek(fp.get(), static_cast<long>(seekSize), SEEK_SET) == 0 &&
         (Size == 0 || std::fwrite(pMsg, 1, Size, fp.get()) == Size) && std::fflush(fp.get()) == 0;
    INT8U result = 0;
    if (!ok) {
        SVF_MSG(3, "svfWriteLog() : error(%d)\n", errno);
        result = kFileError;
    }
    if (fp.close() != 0) SVF_MSG(3, "svfWriteLog() : file close error(%d)\n", errno);
    return result;
}

INT8S InitFRULogFile(void) {
    const auto frontResult =
        static_cast<INT8S>(hslChkMakeFile(brask::paths::kFruBackupFile, static_cast<int>(kHeaderSize)));
    const auto copyResult =
        static_cast<INT8S>(hslChkMakeFile(brask::paths::kFruBackupCopy, static_cast<int>(kHeaderSize)));
    return (frontResult < 0 || copyResult < 0) ? INT8S{-1} : INT8S{0};
}
