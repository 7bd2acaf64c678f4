// One internal IPMI request to the BMC itself, through the platform's
// API_ExecuteCmd.  The caller owns the packet (61564 bytes) and fills it anew
// for every request.
#pragma once

#include <cstddef>

#include "BraskSvf/svfTypes.h"

namespace brask {

// Sets NetFnLUN (Storage), Cmd, Size and the request bytes, runs the request
// and judges it: true only when API_ExecuteCmd returned 0 and Data[0] is 0.
// The response is left in pkt.Data.  Fields the library never sets are left
// as they are.
bool executeStorageRequest(MsgPkt_T& pkt, INT8U cmd, const INT8U* request, size_t requestLen);

}  // namespace brask
