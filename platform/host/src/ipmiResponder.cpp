// API_ExecuteCmd: an in-process IPMI responder for the Storage requests the
// library makes (FRU inventory info, read and write FRU data, SEL time) on the
// FRU image file.  The response replaces the request in the packet.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "BraskSvf/svfPlatform.h"
#include "controls.h"
#include "fruImage.h"
#include "hostFiles.h"
#include "ipmiAnswer.h"

namespace {

using namespace hostplat;  // completion codes, answer, fail

// The image's size, or -1 (no image, or larger than the area size field).
off_t imageSize(int fd) noexcept {
    const off_t size = ::lseek(fd, 0, SEEK_END);
    if (size < 0 || static_cast<size_t>(size) > hostplat::kFruMaxSize) return -1;
    return size;
}

void getInventoryAreaInfo(MsgPkt_T* pkt) noexcept {
    hostplat::Fd fd(::open(HOST_FRU_FILE, O_RDONLY | O_CLOEXEC));
    const off_t size = fd.ok() ? imageSize(fd.get()) : -1;
    if (size < 0) return fail(pkt, kCcUnspecified);
    INT8U accessType;
    {
        hostplat::ControlsGuard c;
        accessType = c->fruAccessType;
    }
    const INT8U body[3] = {static_cast<INT8U>(size & 0xFF), static_cast<INT8U>((size >> 8) & 0xFF),
                           accessType};
    answer(pkt, kCcOk, body, sizeof body);
}

void readFruData(MsgPkt_T* pkt) noexcept {
    if (pkt->Size < 4) return fail(pkt, kCcBadLength);
    const unsigned offset = pkt->Data[1] | (static_cast<unsigned>(pkt->Data[2]) << 8);
    const unsigned asked = pkt->Data[3];
    hostplat::Fd fd(::open(HOST_FRU_FILE, O_RDONLY | O_CLOEXEC));
    const off_t size = fd.ok() ? imageSize(fd.get()) : -1;
    if (size < 0) return fail(pkt, kCcUnspecified);
    if (offset >= static_cast<unsigned>(size)) return fail(pkt, kCcOutOfRange);

    unsigned count = asked;
    if (count > static_cast<unsigned>(size) - offset) count = static_cast<unsigned>(size) - offset;
    bool changeOne = false;
    {
        hostplat::ControlsGuard c;
        const unsigned shortBy = static_cast<unsigned>(c->fruShortBy);
        count = shortBy >= count ? 0 : count - shortBy;
        if (c->fruReadsDiffer) changeOne = c->noteRead(offset, asked) % 2 == 0;
        c->logAccess(SVF_CMD_READ_FRU_DATA, offset, asked);
    }
    INT8U body[1 + 0xFF];
    body[0] = static_cast<INT8U>(count);
    if (count > 0 && hostplat::readAt(fd.get(), &body[1], count, static_cast<off_t>(offset)) != 0) {
        return fail(pkt, kCcUnspecified);
    }
    if (changeOne && count > 0) body[1] = static_cast<INT8U>(body[1] ^ 0xFF);
    answer(pkt, kCcOk, body, 1 + count);
}

void writeFruData(MsgPkt_T* pkt) noexcept {
    if (pkt->Size < 3 || pkt->Size - 3 > kMaxWritePiece) return fail(pkt, kCcBadLength);
    const unsigned offset = pkt->Data[1] | (static_cast<unsigned>(pkt->Data[2]) << 8);
    const unsigned count = pkt->Size - 3;
    {
        hostplat::ControlsGuard c;
        if (c->fruWriteRefusal != 0) return fail(pkt, c->fruWriteRefusal);
    }
    hostplat::Fd fd(::open(HOST_FRU_FILE, O_RDWR | O_CLOEXEC));
    const off_t size = fd.ok() ? imageSize(fd.get()) : -1;
    if (size < 0) return fail(pkt, kCcUnspecified);
    if (offset + count > static_cast<unsigned>(size)) return fail(pkt, kCcOutOfRange);
    if (count > 0 && hostplat::writeAt(fd.get(), &pkt->Data[3], count, static_cast<off_t>(offset)) != 0) {
        return fail(pkt, kCcUnspecified);
    }
    {
        hostplat::ControlsGuard c;
        c->logAccess(SVF_CMD_WRITE_FRU_DATA, offset, count);
    }
    const INT8U body[1] = {static_cast<INT8U>(count)};
    answer(pkt, kCcOk, body, sizeof body);
}

// The time goes most significant byte first: that is how the library puts
// the four bytes together.
void getSelTime(MsgPkt_T* pkt) noexcept {
    INT8U body[4];
    bool overridden;
    {
        hostplat::ControlsGuard c;
        overridden = c->selTimeSet;
        std::memcpy(body, c->selTime, sizeof body);
    }
    if (!overridden) {
        const auto now = static_cast<INT32U>(std::time(nullptr));
        body[0] = static_cast<INT8U>(now >> 24);
        body[1] = static_cast<INT8U>(now >> 16);
        body[2] = static_cast<INT8U>(now >> 8);
        body[3] = static_cast<INT8U>(now);
    }
    answer(pkt, kCcOk, body, sizeof body);
}

// An injected completion code for this command, or 0.
INT8U plannedFailure(INT8U cmd) noexcept {
    const int i = hostplat::ipmiCommandIndex(cmd);
    if (i < 0) return 0;
    hostplat::ControlsGuard c;
    ++c->ipmiCalls[i];
    return c->ipmiFail[i].consume() ? c->ipmiFailCode[i] : 0;
}

}  // namespace

extern "C" int API_ExecuteCmd(MsgPkt_T* pMsgPkt, int BMCInst) {
    (void)BMCInst;
    if (hostplat::enterCall(hostplat::Fn::ApiExecuteCmd)) return -1;
    if (pMsgPkt == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const bool known =
        pMsgPkt->NetFnLUN == SVF_NETFNLUN_STORAGE && hostplat::ipmiCommandIndex(pMsgPkt->Cmd) >= 0;
    if (!known || pMsgPkt->Size > SVF_MSGPKT_DATA_SIZE) {
        fail(pMsgPkt, kCcInvalidCommand);
        return 0;
    }
    // Every FRU command names a device; only device 0 exists.
    if (pMsgPkt->Cmd != SVF_CMD_GET_SEL_TIME &&
        (pMsgPkt->Size < 1 || pMsgPkt->Data[0] != SVF_FRU_DEVICE_ID)) {
        fail(pMsgPkt, kCcInvalidCommand);
        return 0;
    }
    const INT8U injected = plannedFailure(pMsgPkt->Cmd);
    if (injected != 0) {
        fail(pMsgPkt, injected);
        return 0;
    }
    switch (pMsgPkt->Cmd) {
        case SVF_CMD_GET_FRU_INVENTORY_AREA_INFO:
            getInventoryAreaInfo(pMsgPkt);
            break;
        case SVF_CMD_READ_FRU_DATA:
            readFruData(pMsgPkt);
            break;
        case SVF_CMD_WRITE_FRU_DATA:
            writeFruData(pMsgPkt);
            break;
        default:
            getSelTime(pMsgPkt);
            break;
    }
    return 0;
}
