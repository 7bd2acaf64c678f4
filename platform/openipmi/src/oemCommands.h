// Registration of the library's OEM command handlers with ipmi_sim.
#pragma once

namespace ipmisim {

// 0, or the errno value of the registration that failed.
int registerOemCommands() noexcept;

}  // namespace ipmisim
