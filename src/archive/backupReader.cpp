// Validates a received backup file (checksum, format, firmware type, data
// revision, this server's identity) and splits it into archive-block files;
// later extracts those blocks one by one under the file semaphore.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "archive/catalogue.h"
#include "archive/format.h"
#include "common/diag.h"
#include "common/paths.h"
#include "common/scoped.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

namespace {

using brask::ScopedFile;
using brask::ScopedMapping;
namespace format = brask::format;
namespace paths = brask::paths;

// The model and serial number must be this server's, as its FRU reports them.
int checkIdentity(const svfBraskBackupFileHeader_T& header) {
    svfBraskBackupFileHeader_T own{};
    if (svfGetProductIdFru(&own) != 0) {
        SVF_ERR("svfGetProductIdFru fail(%d)\n", errno);
        return SVF_EXTRACT_FAIL;
    }
    const format::Refusal refusal = format::refusalOf(format::compareIdentity(own, header));
    if (refusal.result != 0) SVF_ERR("%s\n", refusal.message);
    return refusal.result;
}

// Writes block `index` of the mapped backup file to its own file and checks
// the block's sum.  The block file is created (or cut) before its descriptor
// is read; a descriptor that reaches outside the backup file is refused.
int splitBlock(format::Bytes file, const char* backupFile, unsigned index) {
    SVF_DEBUG("Block# = %d\n", static_cast<int>(index));
    char name[SVF_FILE_PASS_SIZE];
    if (!brask::catalogue::blockFileName(name, backupFile, index)) {
        SVF_ERR("Command make fail.(%d)\n", errno);
        return SVF_EXTRACT_FAIL;
    }
    ScopedFile out(name, "wb+");
    if (!out) {
        SVF_ERR("fopen fail(%d)\n", errno);
        return SVF_EXTRACT_FAIL;
    }
    svfBraskBackupFileBlockInfo_T info{};
    if (format::decodeBlockInfo(file, index, info) != format::Status::Ok) {
        SVF_ERR("fread fail(%d)\n", errno);
        return SVF_EXTRACT_NO_FILE;
    }
    format::Bytes block;
    const format::Status st = format::blockBytes(file, info, block);
    if (st != format::Status::Ok) {
        SVF_ERR("Block#%d descriptor rejected : %s\n", static_cast<int>(index), format::statusText(st));
        return SVF_EXTRACT_FAIL;
    }

    if ((!block.empty() && std::fwrite(block.data(), block.size(), 1, out.get()) != 1) ||
        std::fflush(out.get()) != 0) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return SVF_EXTRACT_FAIL;
    }
    if (svfGetFileSum(out.get(), 0) != 0) {
        SVF_ERR("ChkSum UnMatch\n");
        return SVF_EXTRACT_CHECKSUM_MISMATCH;
    }
    SVF_DEBUG("ArcBlock#%d Check sum Good\n", static_cast<int>(index));
    if (out.close() != 0) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return SVF_EXTRACT_FAIL;
    }
    return 0;
}

const char* restoreStartLine(INT8U fwType) {
    return fwType == BMC_FILE ? "BMC RESTORE START" : "EFI RESTORE START";
}

}  // namespace

int svfExtractBraskBackupFile(INT8U FwTyep, INT8U RestoreMode, INT8U* NumOfBlock) {
    if (FwTyep > BMC_FILE || NumOfBlock == nullptr) {
        SVF_ERR("Parameter Out Of Range\n");
        return SVF_EXTRACT_FAIL;
    }
    SVF_DEBUG("%s", restoreStartLine(FwTyep));
    const char* backupFile = paths::backupFileFor(FwTyep);

    ScopedFile fp(backupFile, "rb");
    if (!fp) {
        SVF_ERR("fopen fail\n");
        return SVF_EXTRACT_NO_FILE;
    }
    std::uint8_t raw[format::kBackupHeaderSize];
    if (std::fread(raw, sizeof raw, 1, fp.get()) != 1) {
        SVF_ERR("fread fail(%d)\n", errno);
        return SVF_EXTRACT_NO_FILE;
    }
    svfBraskBackupFileHeader_T header{};
    (void)format::decodeBackupHeader(format::Bytes(raw, sizeof raw), header);

    // The checks and their order are the format layer's, which the tools'
    // preview applies too.
    const std::size_t headerArea = format::backupHeaderAreaSize(header.NumOfBlock);
    const format::HeaderVerdict verdict = format::judgeBackupHeader(
        header, svfGetFileSum(fp.get(), static_cast<INT32U>(headerArea)), FwTyep, RestoreMode);
    if (verdict != format::HeaderVerdict::Checksum) SVF_DEBUG("Check sum Good");
    if (verdict != format::HeaderVerdict::Ok) {
        const format::Refusal refusal = format::refusalOf(verdict);
        SVF_ERR("%s\n", refusal.message);
        return refusal.result;
    }
    if (format::checksIdentity(RestoreMode)) {
        const int rc = checkIdentity(header);
        if (rc != 0) return rc;
    }

    if (std::fseek(fp.get(), 0, SEEK_END) != 0) {
        SVF_ERR("fseek fail(%d)\n", errno);
        return SVF_EXTRACT_FAIL;
    }
    const long size = std::ftell(fp.get());
    if (size < 0) {
        SVF_ERR("ftell fail(%d)\n", errno);
        return SVF_EXTRACT_FAIL;
    }
    ScopedMapping mapping(::fileno(fp.get()), static_cast<std::size_t>(size));
    if (!mapping.ok()) {
        SVF_ERR("mmap fail(%d)\n", errno);
        return SVF_EXTRACT_FAIL;
    }
    const format::Bytes file(mapping.data(), mapping.size());

    // Another server's backup (N+M) gives block 0 only.
    const unsigned toSplit = format::blocksRestored(header, RestoreMode);
    unsigned split = 0;
    for (unsigned i = 0; i < toSplit; ++i) {
        const int rc = splitBlock(file, backupFile, i);
        if (rc != 0) return rc;
        ++split;
    }
    if (RestoreMode == N_P_M && split > 0) SVF_DEBUG("N+M Restore Mode");
    *NumOfBlock = static_cast<INT8U>(split);
    mapping.reset();
    (void)fp.close();
    SVF_DEBUG("Separated Blocks OK, #%d\n", static_cast<int>(split));
    return 0;
}

int svfExtractBraskArchiveblock(INT8U FwTyep, INT8U NumOfBlock) {
    SVF_DEBUG("START_svfExtractBraskArchiveblock");
    if (FwTyep > BMC_FILE) {
        SVF_ERR("Parameter Out Of Range\n");
        return -1;
    }
    SVF_DEBUG("%s", restoreStartLine(FwTyep));
    const char* backupFile = paths::backupFileFor(FwTyep);

    for (unsigned i = 0; i < NumOfBlock; ++i) {
        SVF_DEBUG("Block# = %d\n", static_cast<int>(i));
        char name[SVF_FILE_PASS_SIZE];
        if (!brask::catalogue::blockFileName(name, backupFile, i)) {
            SVF_ERR("Command make fail.(%d)\n", errno);
            return -1;
        }
        brask::SysvSemaphoreLock lock;
        if (lock.acquire(paths::kFileSemaphore) != 0) return -1;

        SVF_DEBUG("%s", name);
        const int rc = svfExtractBraskArchive(FwTyep, name, static_cast<INT8U>(i));
        if (rc != 0) {
            SVF_ERR("svfExtractBraskArchive fail(%d)\n", rc);
            return -1;  // the lock's destructor gives the semaphore back
        }
        // The network settings put aside for the restore come back, unless
        // maintenance mode keeps the live ones.
        if ((lanCheckMaintenanceMode() & 0xFF) == 0) {
            ScopedFile probe(paths::kBackInterfacesFile, "r");
            if (probe) {
                (void)probe.close();
                if (std::rename(paths::kBackInterfacesFile, paths::kInterfacesFile) != 0) {
                    SVF_ERR("svfExtractBraskArchive rename failed\n");
                }
            }
        }
        if (lock.release() != 0) return -1;
    }
    return 0;
}
