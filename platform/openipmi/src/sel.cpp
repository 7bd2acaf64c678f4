// hslAddSEL on ipmi_sim's SEL: one system event record per call, stamped by
// ipmi_sim's SEL clock and kept in its persistent SEL.
//
// The record: generator 0x20 (the BMC), an OEM sensor type with the first
// argument as sensor number, a sensor-specific assertion, and the second
// argument as event data 1.  The library's 0x80 there reads "OEM code in event
// data 2", and event data 2 is the library's event code.
#include <cerrno>

#include "BraskSvf/svfPlatform.h"
#include "simApi.h"
#include "simContext.h"

namespace {

constexpr unsigned char kSystemEventRecord = 0x02;
constexpr unsigned char kGeneratorBmc = 0x20;
constexpr unsigned char kEvmRevision = 0x04;
constexpr unsigned char kSensorTypeOem = 0xC0;
constexpr unsigned char kSensorSpecificAssertion = 0x6F;
constexpr unsigned char kUnspecified = 0xFF;

}  // namespace

extern "C" int hslAddSEL(INT8U Arg1, INT8U Arg2, INT8U EventData) {
    lmc_data_t* mc = ipmisim::bmc();
    if (mc == nullptr) {
        errno = ENODEV;
        return -1;
    }
    // Bytes 0 to 3 (the time stamp) are ipmi_sim's to fill.
    unsigned char event[13] = {0,
                               0,
                               0,
                               0,
                               kGeneratorBmc,
                               0x00,
                               kEvmRevision,
                               kSensorTypeOem,
                               Arg1,
                               kSensorSpecificAssertion,
                               Arg2,
                               EventData,
                               kUnspecified};
    unsigned int recid = 0;
    const int rc = ipmi_mc_add_to_sel(mc, kSystemEventRecord, event, &recid);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return 0;
}
