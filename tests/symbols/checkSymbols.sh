#!/usr/bin/env bash
# Checks the dynamic symbol table of libBraskSvf.so.1: exactly the exported
# interface is visible, internal functions stay hidden, the platform functions
# stay undefined (the firmware provides them), no C++ names leak, and the
# SONAME and file links are the ones the firmware loads.
#   checkSymbols.sh <readelf> <path to the library's real file>
set -euo pipefail

readelf=$1
lib=$2

# Every name svfApi.h declares with SVF_EXPORT.
expected=(
  # OEM command handlers
  svfGetBackupRestoreEvent svfOEMSetBackupEvent svfOEMExeRestoreEvent
  # status area, lock, processing flags
  hBMCSharedMem hSharedMemMutex svfGetMutexAndSemiVolatileArea
  svfSetChkBkupRestProcessingFlag
  # event state machine
  svfSetSvfEvent
  # catalogue and path helpers
  BmcBackupFileList EfiBackupFileList PmconfigList
  svfGetBackupFilePass svfGetBackupFileName svfGetActiveFilePass
  # file utilities
  gTmpStr svfGetFileSize svfGetFileSum svfExeCopyCmd
  # archive blocks and backup files
  svfCreateBraskArchive svfExtractBraskArchive svfCreateBraskBackupFile
  svfExtractBraskBackupFile svfExtractBraskArchiveblock
  # product identity
  svfGetProductIdFru svfGetBmcRev svfGetEfiRev svfModFruProductInfoArea
  # BMC capability record
  svfReadBMCCapability svfUpdateBMCCapability
  # change detection, comparers, recovery
  svfChkBackupFileDiff svfChkBIOSConfFileDiff svfChkBmcUserInfoDiff svfRecoverFile
  # countdowns, pending restore, deferred restore
  gKillProcessAfterFileChkTimer gRebootAfterRestoreTimer gRestoreType
  svfIniTimer svfRestoreTimer svfRestoreConfigFile
  # FRU backup and restore
  InitFRULogFile svfBackupFRU svfRestoreFRU
  # EEPROM-held parameters
  svfRestorePostCheckCode svfRestoreWatchdogParameters
)

# Internal functions that must never be reachable from the firmware.
hidden=(svfModSvfEvent svfInitLog svfWriteLog svfLogReadAndRestore svfBumReadUserInfoInternal)

# Interfaces the firmware provides; the library only references them.
platform=(
  API_ExecuteCmd hslCreateMutex hslAcquireMutex hslReleaseMutex hslDestroyMutex
  hslGetSemiVolatileArea hslFreeSemiVolatileArea hslAcquireSysvSemaphore
  hslReleaseSysvSemaphore hslAddSEL hslChkMakeFile brask_ReadWriteEEPROM
  lanCheckMaintenanceMode svfApplyTimeInfo Svp_update_next_schedule
  m_prev_sch_ut_time FwUpdateStateFlag
)
mustReference=(API_ExecuteCmd hslCreateMutex hslAddSEL hslAcquireSysvSemaphore)

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
indent() { sed 's/^/    /'; }

symtab=$("$readelf" --dyn-syms -W "$lib")

# "Num: Value Size Type Bind Vis Ndx Name[@version]" -> "Ndx Bind Vis Name"
table=$(awk '$1 ~ /^[0-9]+:$/ && NF >= 8 {
  name = $8; sub(/@.*/, "", name); print $7, $5, $6, name }' <<<"$symtab")

# Linker-provided names, and the ODR indicators AddressSanitizer adds next to
# each exported datum in the asan build, are not part of the interface.
defined=$(awk '$1 != "UND" && ($2 == "GLOBAL" || $2 == "WEAK") && $3 == "DEFAULT" {print $4}' \
  <<<"$table" | grep -vxE '_init|_fini|_edata|_end|__bss_start|_IO_stdin_used|__odr_asan[._].*' |
  sort -u || true)
undefined=$(awk '$1 == "UND" {print $4}' <<<"$table" | sort -u)

# (a) the exported set is exactly the interface
want=$(printf '%s\n' "${expected[@]}" | sort -u)
missing=$(comm -23 <(echo "$want") <(echo "$defined"))
extra=$(comm -13 <(echo "$want") <(echo "$defined"))
if [[ -n "$missing" ]]; then
  fail "exported interface names missing from the library:"
  indent <<<"$missing"
fi
if [[ -n "$extra" ]]; then
  fail "names exported that are not part of the interface:"
  indent <<<"$extra"
fi

# (b) internal functions are not exported
for name in "${hidden[@]}"; do
  if grep -qxF "$name" <<<"$defined"; then
    fail "internal function exported: $name"
  fi
done

# (c) platform interfaces only referenced, never defined
for name in "${platform[@]}"; do
  if awk -v n="$name" '$4 == n && $1 != "UND" {found = 1} END {exit !found}' <<<"$table"; then
    fail "platform symbol defined in the library (must come from the firmware): $name"
  fi
done
for name in "${mustReference[@]}"; do
  if ! grep -qxF "$name" <<<"$undefined"; then
    fail "platform symbol not referenced by the library: $name"
  fi
done

# (d) no C++ name is exported
cxx=$(grep '^_Z' <<<"$defined" || true)
if [[ -n "$cxx" ]]; then
  fail "C++ symbols exported:"
  indent <<<"$cxx"
fi

# (e) SONAME and the links next to the real file
soname=$("$readelf" -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
[[ "$soname" == "libBraskSvf.so.1" ]] || fail "SONAME is '$soname', expected libBraskSvf.so.1"
[[ "$(basename "$lib")" == "libBraskSvf.so.1.0.0" ]] ||
  fail "real file is $(basename "$lib"), expected libBraskSvf.so.1.0.0"
dir=$(dirname "$lib")
for link in libBraskSvf.so.1 libBraskSvf.so; do
  if [[ ! -L "$dir/$link" ]]; then
    fail "$dir/$link is not a symbolic link"
  elif [[ "$(readlink -f "$dir/$link")" != "$(readlink -f "$lib")" ]]; then
    fail "$dir/$link does not lead to $(basename "$lib")"
  fi
done

if ((failures > 0)); then
  echo "$failures symbol check(s) failed for $lib"
  exit 1
fi
echo "symbols of $lib: $(wc -l <<<"$defined") exported names as expected; SONAME $soname"
