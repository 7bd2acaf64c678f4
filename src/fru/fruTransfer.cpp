// FRU device 0 to and from the FRU backup file over the BMC's own IPMI
// storage commands.  Each piece of the backup is read twice and kept only
// when both reads agree; the restore retries a refused write up to three
// attempts in all.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "BraskSvf/svfApi.h"
#include "common/diag.h"
#include "common/ipmiRequest.h"
#include "common/paths.h"
#include "common/scoped.h"
#include "fru/fruInternal.h"

namespace {

static constexpr const char kUnit[] = "svfBackupFRU";

using brask::executeStorageRequest;
using brask::fru::kPieceSize;

// The packets (61564 bytes each) live in static storage, not on the caller's
// stack; the callers hold the file semaphore around the whole FRU transfer,
// so no two transfers use them at once.  The restore reuses the first.
MsgPkt_T l_ipmiMsg;
MsgPkt_T l_ipmiMsg_Cmp;

enum class ReadOutcome { Ok, Failed, ShortCount };

// Read FRU Data of `count` bytes at `offset`; the data then starts at Data[2].
ReadOutcome readPiece(MsgPkt_T& pkt, INT16U offset, INT8U count) {
    const INT8U request[4] = {SVF_FRU_DEVICE_ID, static_cast<INT8U>(offset & 0xFF),
                              static_cast<INT8U>(offset >> 8), count};
    if (!executeStorageRequest(pkt, SVF_CMD_READ_FRU_DATA, request, sizeof request)) {
        return ReadOutcome::Failed;
    }
    return pkt.Data[1] == count ? ReadOutcome::Ok : ReadOutcome::ShortCount;
}

struct FreeDeleter {
    void operator()(INT8U* p) const { std::free(p); }
};

}  // namespace

INT8S svfBackupFRU(void) {
    SVF_MSG(6, "svfBackupFRU() : Stat.\n");

    const INT8U infoRequest[1] = {SVF_FRU_DEVICE_ID};
    const bool infoOk = executeStorageRequest(l_ipmiMsg, SVF_CMD_GET_FRU_INVENTORY_AREA_INFO, infoRequest,
                                              sizeof infoRequest);
    const INT32U areaSize = infoOk ? static_cast<INT32U>(l_ipmiMsg.Data[1] | (l_ipmiMsg.Data[2] << 8)) : 0;
    // Devices accessed by words (access type 1) are not supported.
    if (!infoOk || l_ipmiMsg.Data[3] != 0 || areaSize == 0) {
        SVF_MSG(3, "svfBackupFRU() : FRU Inventory Device Commands failed.\n");
        return -1;
    }
    SVF_MSG(6, "svfBackupFRU() : FRU Size = %x.\n", areaSize);

    INT32S l_size = static_cast<INT32S>(areaSize);
    INT16U l_ReadPos = 0;
    if (svfInitLog() != 0) return -1;

    while (l_size > 0) {
        const auto count = static_cast<INT8U>(
            l_size >= static_cast<INT32S>(kPieceSize) ? kPieceSize : static_cast<INT32U>(l_size));
        for (MsgPkt_T* pkt : {&l_ipmiMsg, &l_ipmiMsg_Cmp}) {
            switch (readPiece(*pkt, l_ReadPos, count)) {
                case ReadOutcome::Ok:
                    break;
                case ReadOutcome::Failed:
                    SVF_MSG(3, "svfBackupFRU() : Read FRU Commands failed.\n");
                    return -1;
                case ReadOutcome::ShortCount:
                    SVF_MSG(3, "svfBackupFRU() :  Read FRU Commands failed.\n");
                    return -1;
            }
        }
        if (std::memcmp(&l_ipmiMsg.Data[2], &l_ipmiMsg_Cmp.Data[2], count) != 0) {
            SVF_MSG(3, "svfBackupFRU() : It failed in reading FRU.\n");
            return -1;
        }
        // A piece that did not reach the file would leave a backup that
        // silently lacks part of the FRU; svfWriteLog has said why.
        if (svfWriteLog(&l_ipmiMsg.Data[2], count) != 0) return -1;
        l_ReadPos = static_cast<INT16U>(l_ReadPos + kPieceSize);
        l_size -= static_cast<INT32S>(kPieceSize);
    }
    return 1;
}

INT8S svfLogReadAndRestore(void) {
    errno = 0;
    brask::ScopedFile fp(brask::paths::kFruBackupFile, "rb+");
    if (!fp) {
        if (errno != ENOENT) return static_cast<INT8S>(brask::fru::kFileError);
        SVF_MSG(3, "svfLogReadAndRestore() : file open error(%d)\n", errno);
        return -1;
    }

    SVF_BACKUP_FRUDAT_HEADER_T l_header{};
    if (std::fread(&l_header, 1, sizeof l_header, fp.get()) != sizeof l_header) {
        SVF_MSG(3, "svfLogReadAndRestore() : read error(%d)\n", errno);
        if (fp.close() != 0) SVF_MSG(3, "svfLogReadAndRestore() : file close error(%d)\n", errno);
        return static_cast<INT8S>(brask::fru::kFileError);
    }
    // No FRU inventory area is larger than a 16-bit size can say; a larger
    // count is a damaged header, not something to allocate for.
    if (l_header.Size > brask::fru::kMaxAreaSize) {
        SVF_MSG(3, "svfLogReadAndRestore() : size error(%u)\n", l_header.Size);
        if (fp.close() != 0) SVF_MSG(3, "svfLogReadAndRestore() : file close error(%d)\n", errno);
        return static_cast<INT8S>(brask::fru::kFileError);
    }
    std::unique_ptr<INT8U, FreeDeleter> l_buff(
        static_cast<INT8U*>(std::malloc(l_header.Size > 0 ? l_header.Size : 1)));
    if (!l_buff || std::fread(l_buff.get(), 1, l_header.Size, fp.get()) != l_header.Size) {
        SVF_MSG(3, "svfLogReadAndRestore() : error(%d)\n", errno);
        if (fp.close() != 0) SVF_MSG(3, "svfLogReadAndRestore() : file close error(%d)\n", errno);
        return static_cast<INT8S>(brask::fru::kFileError);
    }
    if (fp.close() != 0) SVF_MSG(3, "svfLogReadAndRestore() : file close error(%d)\n", errno);

    // Only the part before the first 0xFF (unused FRU space) is written back.
    const void* firstFF = std::memchr(l_buff.get(), 0xFF, l_header.Size);
    INT32U l_size = firstFF != nullptr
                        ? static_cast<INT32U>(static_cast<const INT8U*>(firstFF) - l_buff.get())
                        : l_header.Size;

    SVF_MSG(7, "svfLogReadAndRestore() : Write Position = %04x, Write Size = %02x\n", 0u, l_size);
    INT32U l_WritePos = 0;
    while (static_cast<INT32S>(l_size) > 0) {
        SVF_MSG(7, "svfLogReadAndRestore() : Write Position = %04x, Write Size = %02x\n", l_WritePos,
                l_size & 0xFFu);
        const INT32U l_WriteSize = l_size > kPieceSize ? kPieceSize : l_size;

        INT8U request[3 + kPieceSize];
        request[0] = SVF_FRU_DEVICE_ID;
        request[1] = static_cast<INT8U>(l_WritePos & 0xFF);
        request[2] = static_cast<INT8U>((l_WritePos >> 8) & 0xFF);
        std::memcpy(&request[3], l_buff.get() + l_WritePos, l_WriteSize);
        if (!executeStorageRequest(l_ipmiMsg, SVF_CMD_WRITE_FRU_DATA, request, 3 + l_WriteSize) ||
            l_ipmiMsg.Data[1] != l_WriteSize) {
            SVF_MSG(3, "svfLogReadAndRestore() : Write FRU Commands failed.\n");
            return 1;
        }
        l_WritePos += kPieceSize;
        l_size -= kPieceSize;
    }
    return 0;
}

INT8S svfRestoreFRU(void) {
    SVF_MSG(6, "svfRestoreFRU() : Start.\n");
    INT8S result = 1;
    for (int attempt = 0; attempt < brask::fru::kRestoreAttempts && result == 1; ++attempt) {
        result = svfLogReadAndRestore();
    }
    return result;
}
