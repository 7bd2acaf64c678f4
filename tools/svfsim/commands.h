// The subcommands.  Each prints what happened and returns the exit status.
#pragma once

#include <cstdint>
#include <string>

#include "bmc.h"

namespace svfsim {

struct InitOptions {
    bool force = false;
    std::string model = "BRASK-RX300";
    std::string serial = "SN-SIM-000042";
    std::string fwInfo = "FW_VERSION=2.17";
};

int runInit(Bmc& bmc, const InitOptions& options);
int runEvent(Bmc& bmc, bool json);
int runBackup(Bmc& bmc, std::uint8_t function, std::uint8_t fileType);
// `file` empty: the last web backup.  `ticks`: tick until the reboot request.
int runRestore(Bmc& bmc, const std::string& file, std::uint8_t function, bool ticks);
int runTick(Bmc& bmc, unsigned count);
// What a web-console restore of `file` (default: the last web backup) would
// do to this BMC, checked against its FRU and firmware; nothing is written.
int runPreview(Bmc& bmc, const std::string& file, bool json);
int runStatus(Bmc& bmc, bool json);
int runSvp(Bmc& bmc, const std::string& operation, const std::string& slot);
int runSel(Bmc& bmc, bool json);
int runFiles(Bmc& bmc);
int runDemo(Bmc& bmc);

// True once `init` has run in this state directory.
bool initialized();

}  // namespace svfsim
