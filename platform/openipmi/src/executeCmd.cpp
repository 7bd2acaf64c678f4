// API_ExecuteCmd inside ipmi_sim: the Storage requests the library makes run
// on the BMC's own FRU device 0 and SEL clock.  The FRU commands work on the
// FRU data through ipmi_sim's FRU calls; Get SEL Time is answered by ipmi_sim's
// own Get SEL Time handler, so it reads the same clock that stamps the SEL and
// that a client sets with Set SEL Time.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "BraskSvf/svfPlatform.h"
#include "fruImage.h"
#include "ipmiAnswer.h"
#include "simApi.h"
#include "simContext.h"

namespace {

using namespace hostplat;  // completion codes, answer, fail, FRU limits

constexpr unsigned kStorageNetFn = SVF_NETFNLUN_STORAGE >> 2;

// The FRU's whole contents, held for one request.
class FruImage {
public:
    FruImage() = default;
    ~FruImage() { std::free(data_); }
    FruImage(const FruImage&) = delete;
    FruImage& operator=(const FruImage&) = delete;

    // Completion code: 0 when the image is loaded.
    INT8U load(lmc_data_t* mc, unsigned char device) noexcept {
        if (ipmi_mc_get_fru_data_len(mc, device, &size_) != 0 || size_ == 0) return kCcNotPresent;
        if (size_ > kFruMaxSize) return kCcUnspecified;
        data_ = static_cast<unsigned char*>(std::malloc(size_));
        if (data_ == nullptr) return kCcUnspecified;
        return ipmi_mc_get_fru_data(mc, device, size_, data_) == 0 ? kCcOk : kCcUnspecified;
    }
    unsigned size() const noexcept { return size_; }
    unsigned char* data() noexcept { return data_; }

private:
    unsigned size_ = 0;
    unsigned char* data_ = nullptr;
};

unsigned offsetOf(const MsgPkt_T* pkt) noexcept {
    return pkt->Data[1] | (static_cast<unsigned>(pkt->Data[2]) << 8);
}

void getInventoryAreaInfo(lmc_data_t* mc, MsgPkt_T* pkt) noexcept {
    unsigned size = 0;
    if (ipmi_mc_get_fru_data_len(mc, pkt->Data[0], &size) != 0 || size == 0) {
        return fail(pkt, kCcNotPresent);
    }
    if (size > kFruMaxSize) return fail(pkt, kCcUnspecified);
    // Access type 0: the device is accessed by bytes.
    const INT8U body[3] = {static_cast<INT8U>(size & 0xFF), static_cast<INT8U>(size >> 8), 0};
    answer(pkt, kCcOk, body, sizeof body);
}

void readFruData(lmc_data_t* mc, MsgPkt_T* pkt) noexcept {
    if (pkt->Size != 4) return fail(pkt, kCcBadLength);
    const unsigned offset = offsetOf(pkt);
    FruImage image;
    const INT8U cc = image.load(mc, pkt->Data[0]);
    if (cc != kCcOk) return fail(pkt, cc);
    if (offset >= image.size()) return fail(pkt, kCcOutOfRange);
    unsigned count = pkt->Data[3];
    if (count > image.size() - offset) count = image.size() - offset;
    pkt->Data[1] = static_cast<INT8U>(count);
    std::memcpy(&pkt->Data[2], image.data() + offset, count);
    pkt->Data[0] = kCcOk;
    pkt->Size = 2 + count;
}

// The FRU is replaced whole with the piece written in, under its semaphore
// like ipmi_sim's own writers.
void writeFruData(lmc_data_t* mc, MsgPkt_T* pkt) noexcept {
    if (pkt->Size < 3 || pkt->Size - 3 > kMaxWritePiece) return fail(pkt, kCcBadLength);
    const unsigned char device = pkt->Data[0];
    const unsigned offset = offsetOf(pkt);
    const unsigned count = pkt->Size - 3;
    FruImage image;
    const INT8U cc = image.load(mc, device);
    if (cc != kCcOk) return fail(pkt, cc);
    if (offset + count > image.size()) return fail(pkt, kCcOutOfRange);
    std::memcpy(image.data() + offset, &pkt->Data[3], count);
    if (ipmi_mc_fru_sem_wait(mc, device) != 0) return fail(pkt, kCcUnspecified);
    const int rc = ipmi_mc_add_fru_data(mc, device, image.size(), nullptr, image.data());
    (void)ipmi_mc_fru_sem_post(mc, device);
    if (rc != 0) return fail(pkt, kCcUnspecified);
    const INT8U body[1] = {static_cast<INT8U>(count)};
    answer(pkt, kCcOk, body, sizeof body);
}

void getSelTime(lmc_data_t* mc, MsgPkt_T* pkt) noexcept {
    cmd_handler_f handler = storage_netfn_handlers[SVF_CMD_GET_SEL_TIME];
    if (handler == nullptr) return fail(pkt, kCcInvalidCommand);
    msg_t msg = {};
    msg.netfn = static_cast<unsigned char>(kStorageNetFn);
    msg.cmd = SVF_CMD_GET_SEL_TIME;
    unsigned char rdata[IPMI_SIM_MAX_MSG_LENGTH] = {};
    unsigned int rlen = sizeof rdata;
    handler(mc, &msg, rdata, &rlen, nullptr);
    if (rlen < 1 || rlen > sizeof rdata) return fail(pkt, kCcUnspecified);
    answer(pkt, rdata[0], &rdata[1], rlen - 1);
}

}  // namespace

extern "C" int API_ExecuteCmd(MsgPkt_T* pMsgPkt, int BMCInst) {
    (void)BMCInst;
    lmc_data_t* mc = ipmisim::bmc();
    if (pMsgPkt == nullptr || mc == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (pMsgPkt->NetFnLUN != SVF_NETFNLUN_STORAGE || pMsgPkt->Size > SVF_MSGPKT_DATA_SIZE) {
        fail(pMsgPkt, kCcInvalidCommand);
        return 0;
    }
    switch (pMsgPkt->Cmd) {
        case SVF_CMD_GET_FRU_INVENTORY_AREA_INFO:
            if (pMsgPkt->Size != 1)
                fail(pMsgPkt, kCcBadLength);
            else
                getInventoryAreaInfo(mc, pMsgPkt);
            break;
        case SVF_CMD_READ_FRU_DATA:
            readFruData(mc, pMsgPkt);
            break;
        case SVF_CMD_WRITE_FRU_DATA:
            writeFruData(mc, pMsgPkt);
            break;
        case SVF_CMD_GET_SEL_TIME:
            getSelTime(mc, pMsgPkt);
            break;
        default:
            fail(pMsgPkt, kCcInvalidCommand);
            break;
    }
    return 0;
}
