// The three OEM commands under network function 0x30: each passes the
// request data bytes to its handler in libBraskSvf.so.1 and sends back what
// the handler answered (completion code first).
#include "oemCommands.h"

#include <cstring>

#include "BraskSvf/ipmiSimCommands.h"
#include "BraskSvf/svfApi.h"
#include "simContext.h"

namespace ipmisim {
namespace {

constexpr unsigned char kCcBadLength = 0xC7;

// The handlers' response lengths stay far below this; it is ipmi_sim's own
// message limit, so a response always fits the buffer it hands us.
constexpr unsigned kResponseRoom = IPMI_SIM_MAX_MSG_LENGTH;

int getBackupRestoreEvent(INT8U* req, INT8U len, INT8U* res) {
    return svfGetBackupRestoreEvent(req, len, res);
}

int setBackupEvent(INT8U* req, INT8U len, INT8U* res) { return svfOEMSetBackupEvent(req, len, res, 0); }

int exeRestoreEvent(INT8U* req, INT8U len, INT8U* res) { return svfOEMExeRestoreEvent(req, len, res, 0); }

using Handler = int (*)(INT8U*, INT8U, INT8U*);

struct OemCommand {
    unsigned char cmd;
    Handler handler;
};

constexpr OemCommand kCommands[] = {
    {BRASK_IPMI_CMD_GET_BACKUP_RESTORE_EVENT, getBackupRestoreEvent},
    {BRASK_IPMI_CMD_SET_BACKUP_EVENT, setBackupEvent},
    {BRASK_IPMI_CMD_EXE_RESTORE_EVENT, exeRestoreEvent},
};

void dispatch(lmc_data_t* mc, msg_t* msg, unsigned char* rdata, unsigned int* rdata_len, void* cb_data) {
    const auto* command = static_cast<const OemCommand*>(cb_data);
    if (bmc() == nullptr) setBmc(mc);
    // The handlers take the length as one byte: a longer request cannot be
    // one of theirs.
    if (msg->len > 0xFF) {
        rdata[0] = kCcBadLength;
        *rdata_len = 1;
        return;
    }
    INT8U request[0xFF + 1] = {};
    if (msg->len > 0) std::memcpy(request, msg->data, msg->len);
    INT8U response[kResponseRoom] = {};
    const int len = command->handler(request, static_cast<INT8U>(msg->len), response);
    // The result is the response length, completion code included.
    unsigned n = len < 1 ? 1u : static_cast<unsigned>(len);
    if (n > kResponseRoom) n = kResponseRoom;
    std::memcpy(rdata, response, n);
    *rdata_len = n;
}

}  // namespace

int registerOemCommands() noexcept {
    for (const OemCommand& c : kCommands) {
        const int rc =
            ipmi_emu_register_cmd_handler(BRASK_IPMI_NETFN_OEM, c.cmd, dispatch, const_cast<OemCommand*>(&c));
        if (rc != 0) return rc;
    }
    return 0;
}

}  // namespace ipmisim
