// Fixed paths and lock names shared by several units.
#pragma once

namespace brask::paths {

inline constexpr char kSemiVolMutex[] = "/var/GenSemiVolMutex";
inline constexpr char kFileSemaphore[] = "/var/GenFileSemaphore";

inline constexpr char kBackupDir[] = "/var/brask";
inline constexpr char kBmcBackupFile[] = "/var/brask/BMC.bak";
inline constexpr char kEfiBackupFile[] = "/var/brask/EFI.bak";
inline constexpr char kBmcWebBackupFile[] = "/var/brask/BmcWeb.bak";

inline constexpr char kTraceFile[] = "/conf/brask/BackRest.trs2";
inline constexpr char kFruBackupFile[] = "/conf/brask/FRUBACKUP.dat";
inline constexpr char kFruBackupCopy[] = "/conf/brask/FRUBACKUP.dat.bak";
inline constexpr char kCapabilityFile[] = "/conf/BMCCapability.dat";
inline constexpr char kBiosConfigFile[] = "/conf/brask/BIOSConfig.dat";
inline constexpr char kBmcUserInfoFile[] = "/conf/brask/bum_home/bmcUserInfo.data";
inline constexpr char kPostCheckCodeFile[] = "/conf/brask/PostCheckCode.dat";
inline constexpr char kWatchdogParametersFile[] = "/conf/brask/WatchdogParameters.dat";
inline constexpr char kPmConfigFile[] = "/conf/BMC1/PMConfig.dat";
inline constexpr char kInterfacesFile[] = "/conf/interfaces";
inline constexpr char kBackInterfacesFile[] = "/conf/back_interfaces";
inline constexpr char kFwInfoFile[] = "/proc/ractrends/Helper/FwInfo";

inline constexpr char kShell[] = "/bin/sh";
inline constexpr char kKvmServersScript[] = "/etc/init.d/kvm_servers";

// Backup file of a firmware type: non-zero is BMC.
inline constexpr const char* backupFileFor(unsigned fwType) {
    return fwType != 0 ? kBmcBackupFile : kEfiBackupFile;
}

}  // namespace brask::paths
