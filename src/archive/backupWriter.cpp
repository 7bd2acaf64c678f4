// Writes a backup file: header with this server's identity, the firmware
// revisions and the SEL time, the block table, then the archive blocks.
// Unit svfBraskArchiver.
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>

#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "archive/format.h"
#include "archive/writers.h"
#include "common/diag.h"
#include "common/ipmiRequest.h"
#include "common/scoped.h"
#include "common/shellCommand.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

namespace {

namespace format = brask::format;
using brask::ScopedFile;

bool runCommand() {
    if (!brask::runShell(gTmpStr)) {
        SVF_ERR("system cmd fail(%d)\n", errno);
        return false;
    }
    return true;
}

// The SEL time's first byte is the most significant.
bool readSelTime(INT32U& timeStamp) {
    MsgPkt_T pkt{};
    if (!brask::executeStorageRequest(pkt, SVF_CMD_GET_SEL_TIME, nullptr, 0)) {
        SVF_ERR("API_ExecuteCmd Fail\n");
        return false;
    }
    timeStamp = (INT32U{pkt.Data[1]} << 24) | (INT32U{pkt.Data[2]} << 16) | (INT32U{pkt.Data[3]} << 8) |
                INT32U{pkt.Data[4]};
    return true;
}

// Appends every block file to the backup file and fills in the block table.
bool appendBlocks(const char* backupFile, unsigned numOfBlock, std::size_t headerSize,
                  svfBraskBackupFileBlockInfo_T* table) {
    std::uint64_t offset = headerSize;
    for (unsigned i = 0; i < numOfBlock; ++i) {
        SVF_DEBUG("i = %d\n", static_cast<int>(i));
        table[i].BlockOffset = static_cast<INT32U>(offset);

        char blockFile[SVF_FILE_PASS_SIZE];
        if (!brask::catalogue::blockFileName(blockFile, backupFile, i)) {
            SVF_ERR("Command make fail.(%d)\n", errno);
            return false;
        }
        table[i].CrypticType = 0;
        table[i].InheritanceType = format::inheritanceTypeFor(i);
        SVF_DEBUG("TmpFileName = %s\n", blockFile);

        ScopedFile block(blockFile, "rb");
        if (!block) {
            SVF_ERR("fopen fail(%d)\n", errno);
            return false;
        }
        table[i].BlockSize = svfGetFileSize(block.get());
        if (table[i].BlockSize < 0) return false;
        offset += static_cast<std::uint64_t>(table[i].BlockSize);
        (void)block.close();
        // BlockOffset is 32 bits wide.
        if (offset > UINT32_MAX) {
            SVF_ERR("backup file too large\n");
            return false;
        }

        if (!brask::formatInto(gTmpStr, "cat %s >> %s", blockFile, backupFile)) {
            SVF_ERR("Command make fail.(%d)\n", errno);
            return false;
        }
        SVF_DEBUG("cmd = %s\n", gTmpStr);
        if (!runCommand()) return false;
    }
    return true;
}

// Each piece goes out in one write; flushed so that a full disk shows here.
bool writeAll(FILE* fp, std::span<const std::uint8_t> bytes) {
    return std::fwrite(bytes.data(), 1, bytes.size(), fp) == bytes.size() && std::fflush(fp) == 0;
}

// The block table in one write, as its descriptors lie in the file.
bool writeTable(FILE* fp, const svfBraskBackupFileBlockInfo_T* table, unsigned numOfBlock) {
    std::array<std::uint8_t, format::kBlockInfoSize * SVF_MAX_ARC_BLOCKS> raw{};
    format::ByteWriter w(raw);
    for (unsigned i = 0; i < numOfBlock; ++i) {
        const auto info = format::encodeBlockInfo(table[i]);
        w.bytes(info.data(), info.size());
    }
    return w.ok() && writeAll(fp, std::span(raw).first(w.pos()));
}

}  // namespace

namespace brask::archive {

int createBackupFile(const catalogue::Selection& cat, INT8U fwType) {
    SVF_DEBUG("START_svfCreateBraskBackupFile");
    const char* backupFile = cat.backupFile;

    const INT8U numOfBlock = catalogue::blockCount(cat);
    if (numOfBlock > SVF_MAX_ARC_BLOCKS) {
        SVF_DEBUG("Arc Block too much number ");
        return -1;
    }

    const int archived = createArchive(cat, cat.count, numOfBlock);
    if (archived != 0) {
        SVF_ERR("svfCreateBraskArchive fail\n");
        return archived;
    }

    // Reserve the header and table as zeros; the blocks are appended behind.
    const std::size_t headerSize = format::backupHeaderAreaSize(numOfBlock);
    if (!brask::formatInto(gTmpStr, "dd if=/dev/zero of=%s bs=%ld count=1", backupFile,
                           static_cast<long>(headerSize))) {
        SVF_ERR("Command make fail.(%d)\n", errno);
        return -1;
    }
    if (!runCommand()) return -1;
    SVF_DEBUG("%s", gTmpStr);

    svfBraskBackupFileBlockInfo_T table[SVF_MAX_ARC_BLOCKS] = {};
    if (!appendBlocks(backupFile, numOfBlock, headerSize, table)) return -1;

    svfBraskBackupFileHeader_T header{};
    header.Version = format::kBackupVersion;
    if (svfGetProductIdFru(&header) != 0) {
        SVF_ERR("svfGetProductIdFru fail(%d)\n", errno);
        return -1;
    }
    INT32U timeStamp = 0;
    if (!readSelTime(timeStamp)) return -1;
    header.TimeStamp = timeStamp;
    SVF_DEBUG("FileHeader.TimeStamp = %lx\n", static_cast<unsigned long>(timeStamp));

    FwRev_T bmcRev{};
    FwRev_T efiRev{};
    if (svfGetBmcRev(&bmcRev) != 0) return -1;
    if (svfGetEfiRev(fwType, &efiRev) != 0) return -1;
    header.BmcRev = bmcRev;
    header.EfiRev = efiRev;

    header.FwType = fwType;
    SVF_DEBUG("FileHeader.FwType = %d\n", header.FwType);
    header.NumOfBlock = numOfBlock;
    SVF_DEBUG("FileHeader.NumOfBlock = %d\n", header.NumOfBlock);

    ScopedFile out(backupFile, "rb+");
    if (!out) {
        SVF_ERR("fopen fail(%d)\n", errno);
        return -1;
    }
    if (!writeAll(out.get(), format::encodeBackupHeader(header)) ||
        !writeTable(out.get(), table, numOfBlock)) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return -1;
    }

    SVF_DEBUG("HeaderSize = %lx\n", static_cast<unsigned long>(headerSize));
    header.ChkSum = format::zeroSumComplement(svfGetFileSum(out.get(), static_cast<INT32U>(headerSize)));
    SVF_DEBUG("FileHeader.ChkSum = %lx\n", static_cast<unsigned long>(header.ChkSum));

    if (std::fseek(out.get(), 0, SEEK_SET) != 0) {
        SVF_ERR("fseek fail(%d)\n", errno);
        return -1;
    }
    if (!writeAll(out.get(), format::encodeBackupHeader(header))) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return -1;
    }
    // The whole file reaches the disk before anyone renames it into place:
    // the blocks the shell appended as well as the header (writeAll flushed it).
    if (::fsync(::fileno(out.get())) != 0 || out.close() != 0) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return -1;
    }
    SVF_DEBUG("Normal_END_svfCreateBraskBackupFile");
    return 0;
}

}  // namespace brask::archive

int svfCreateBraskBackupFile(INT8U FwTyep) {
    return brask::archive::createBackupFile(brask::catalogue::select(FwTyep), FwTyep);
}
