// Small file helpers and one generator of a realistic BMC /conf tree, shared
// by the test suites, svfsim and the benchmarks, so no one rebuilds a scenario
// by hand.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "BraskSvf/svfTypes.h"

namespace brask::sandbox {

// Creates missing parent folders; replaces the file; sets `mode`.
void writeFile(const std::string& path, std::string_view content, mode_t mode = 0644);
void writeBytes(const std::string& path, const std::vector<std::uint8_t>& bytes, mode_t mode = 0644);
std::string readFile(const std::string& path);  // "" when missing
std::vector<std::uint8_t> readBytes(const std::string& path);
bool exists(const std::string& path);

struct ScenarioOptions {
    bool optionalFiles = true;  // also a good sample of the DYNAMIC rows
    bool backupCopies = false;  // also write each file's ".bak" copy, identical
    unsigned scale = 1;         // multiplies file sizes (benchmarks)
};

// Writes a realistic /conf for `catalogue` (the library's BMC catalogue,
// linked or looked up at run time): every mandatory file and,
// with optionalFiles, resolv.conf-like texts, host keys with mode 0600,
// per-user authorized_keys, a binary bmcUserInfo.data with a few users,
// BMCCapability.dat, PMConfig.dat, PostCheckCode/Watchdog images and the FRU
// backup file.  Returns the active paths written, in catalogue order.
std::vector<std::string> populateConf(std::span<const BackupFileList_T> catalogue,
                                      const ScenarioOptions& options = {});

// The BIOS configuration file (/conf/brask/BIOSConfig.dat, outside the BMC
// catalogue, read by an EFI backup): header with revision 1.23 and a few
// sections, the first of type 2 ending the compared region.
void writeBiosConfig();

}  // namespace brask::sandbox
