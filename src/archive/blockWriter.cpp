// Writes the archive blocks of one backup: each block file packs the backup
// copies of its catalogue rows with their owner and mode.  Unit svfBraskArchiver.
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "archive/format.h"
#include "archive/writers.h"
#include "common/diag.h"
#include "common/scoped.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

namespace {

namespace format = brask::format;
using brask::ScopedFile;
using brask::ScopedMapping;

bool writeAll(FILE* fp, const void* data, std::size_t n) {
    return n == 0 || std::fwrite(data, 1, n, fp) == n;
}

enum class Packed { Ok, Skipped, Failed, Missing };

// Appends one row's backup copy to the block as an entry.  `entry` holds the
// FileOffset where this entry begins and is left at the next entry's start.
Packed packRow(FILE* block, const BackupFileList_T& row, svfBraskArchiveEntryInfo_T& entry) {
    char backupPath[SVF_FILE_PASS_SIZE] = {};
    char activePath[SVF_FILE_PASS_SIZE] = {};
    std::memcpy(activePath, row.FilePass, sizeof activePath - 1);
    if (svfGetBackupFilePass(activePath, backupPath) != 0) {
        SVF_ERR("svfGetBackupFilePass fail(%d)\n", errno);
        return Packed::Failed;
    }

    errno = 0;
    ScopedFile src(backupPath, "rb");
    if (!src) {
        if (errno == ENOENT && row.ExistencType == DYNAMIC) return Packed::Skipped;
        SVF_ERR("fopen fail(%d)\n", errno);
        return Packed::Missing;
    }
    if (svfGetFileSize(src.get()) < 0) {
        SVF_ERR("svfGetFileSize fail(%d)\n", errno);
        return Packed::Failed;
    }
    struct stat st {};
    if (::stat(backupPath, &st) != 0) {
        SVF_ERR("stat fail(%d)\n", errno);
        return Packed::Failed;
    }
    const std::size_t nameLength = std::strlen(backupPath);
    INT32U dataOffset = 0;
    // Offsets and sizes are 32 bits wide in the block.
    if (!format::entryDataOffset(entry.FileOffset, nameLength, dataOffset) || st.st_size > INT32_MAX ||
        std::uint64_t{dataOffset} + static_cast<std::uint64_t>(st.st_size) > UINT32_MAX) {
        SVF_ERR("archive block too large(%ld)\n", static_cast<long>(st.st_size));
        return Packed::Failed;
    }
    entry.FileSize = static_cast<INT32S>(st.st_size);
    entry.FileUid = st.st_uid;
    entry.FileGid = st.st_gid;
    entry.FilePermission = st.st_mode;
    entry.FileOffset = dataOffset;

    const auto descriptor = format::encodeArchiveEntryInfo(entry);
    if (!writeAll(block, descriptor.data(), descriptor.size()) || !writeAll(block, backupPath, nameLength)) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return Packed::Failed;
    }
    if (entry.FileSize > 0) {
        const auto size = static_cast<std::size_t>(entry.FileSize);
        ScopedMapping data(::fileno(src.get()), size);
        if (!data.ok()) {
            SVF_ERR("mmap fail(%d)\n", errno);
            return Packed::Failed;
        }
        if (!writeAll(block, data.data(), size)) {
            SVF_ERR("fwrite fail(%d)\n", errno);
            return Packed::Failed;
        }
    }
    entry.FileOffset += static_cast<INT32U>(entry.FileSize);
    return Packed::Ok;
}

// Writes the header at offset 0; buffered bytes must reach the file too, so
// a full disk shows here rather than at close.
bool writeHeader(FILE* block, const svfBraskArchiveFileHeader_T& header) {
    const auto raw = format::encodeArchiveHeader(header);
    if (std::fflush(block) != 0) return false;
    std::rewind(block);
    return writeAll(block, raw.data(), raw.size()) && std::fflush(block) == 0;
}

int writeBlock(const brask::catalogue::Selection& cat, int numOfFiles, unsigned n) {
    SVF_DEBUG("ArcBlockNum = %d\n", static_cast<int>(n));
    if (!brask::catalogue::blockFileName(gTmpStr, cat.backupFile, n)) {
        SVF_ERR("Command make fail.(%d)\n", errno);
        return SVF_ARCHIVE_FAIL;
    }
    ScopedFile block(gTmpStr, "wb+");
    if (!block) {
        SVF_ERR("fopen fail(%d)\n", errno);
        return SVF_ARCHIVE_FAIL;
    }
    if (std::fseek(block.get(), static_cast<long>(format::kArchiveHeaderSize), SEEK_SET) != 0) {
        SVF_ERR("fseek fail(%d)\n", errno);
        return SVF_ARCHIVE_FAIL;
    }

    svfBraskArchiveFileHeader_T header{};
    svfBraskArchiveEntryInfo_T entry{};
    entry.FileOffset = format::kArchiveHeaderSize;
    for (int i = 0; i < numOfFiles; ++i) {
        const BackupFileList_T& row = cat.rows[i];
        if (row.TargetArcBlock != n) continue;
        switch (packRow(block.get(), row, entry)) {
            case Packed::Ok:
                ++header.NumOfEntry;
                break;
            case Packed::Skipped:
                break;
            case Packed::Missing:
                return SVF_ARCHIVE_MISSING_FILE;
            case Packed::Failed:
                return SVF_ARCHIVE_FAIL;
        }
    }
    SVF_DEBUG("Combined File = %d\n", static_cast<int>(header.NumOfEntry));

    header.Version = format::kArchiveVersion;
    if (!writeHeader(block.get(), header)) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return SVF_ARCHIVE_FAIL;
    }
    header.ChkSum = format::zeroSumComplement(svfGetFileSum(block.get(), 0));
    SVF_DEBUG("Block.ChkSum = %lx\n", static_cast<unsigned long>(header.ChkSum));
    if (!writeHeader(block.get(), header)) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return SVF_ARCHIVE_FAIL;
    }
    if (block.close() != 0) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return SVF_ARCHIVE_FAIL;
    }
    return 0;
}

}  // namespace

namespace brask::archive {

int createArchive(const catalogue::Selection& cat, int numOfFiles, INT8U numOfArcBlock) {
    SVF_DEBUG("START_svfCreateBraskArchive");
    // Never look past the selected catalogue, whatever the caller counts.
    if (numOfFiles > cat.count) numOfFiles = cat.count;
    for (unsigned n = 0; n < numOfArcBlock; ++n) {
        const int rc = writeBlock(cat, numOfFiles, n);
        if (rc != 0) return rc;
    }
    SVF_DEBUG("Normal_END_svfCreateBraskArchive");
    return 0;
}

}  // namespace brask::archive

int svfCreateBraskArchive(int NumOfFiles, INT8U FwType, INT8U NumOfArcBlock) {
    return brask::archive::createArchive(brask::catalogue::select(FwType), NumOfFiles, NumOfArcBlock);
}
