#include "common/ipmiRequest.h"

#include <cstring>

#include "BraskSvf/svfPlatform.h"

namespace brask {

bool executeStorageRequest(MsgPkt_T& pkt, INT8U cmd, const INT8U* request, size_t requestLen) {
    if (requestLen > sizeof pkt.Data) return false;
    pkt.NetFnLUN = SVF_NETFNLUN_STORAGE;
    pkt.Cmd = cmd;
    pkt.Size = static_cast<INT32U>(requestLen);
    if (requestLen > 0) std::memcpy(pkt.Data, request, requestLen);
    if (API_ExecuteCmd(&pkt, 1) != 0) return false;
    return pkt.Data[0] == 0;
}

}  // namespace brask
