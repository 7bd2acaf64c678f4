// What the platform functions of the module need from ipmi_sim: the BMC's
// management controller, whose FRU device 0 and SEL they use.
#pragma once

#include "simApi.h"

namespace ipmisim {

// The BMC, or null before ipmi_sim has one.  ipmi_sim runs its commands and
// timers on one thread, so no lock guards it.
lmc_data_t* bmc() noexcept;
void setBmc(lmc_data_t* mc) noexcept;

}  // namespace ipmisim
