#!/usr/bin/env bash
# Checks the dynamic symbol table of libBraskSvf.so.1: it exports exactly the
# interface (so no internal function and no C++ name either), the platform
# functions stay undefined (the firmware provides them), and the SONAME and
# file links are the ones the firmware loads.
#   checkSymbols.sh <readelf> <path to the library's real file>
set -euo pipefail
readelf=$1 lib=$2
fail() { echo "FAIL: $* ($lib)"; exit 1; }

# Every name svfApi.h declares with SVF_EXPORT.
expected="svfGetBackupRestoreEvent svfOEMSetBackupEvent svfOEMExeRestoreEvent
  hBMCSharedMem hSharedMemMutex svfGetMutexAndSemiVolatileArea svfSetChkBkupRestProcessingFlag svfSetSvfEvent
  BmcBackupFileList EfiBackupFileList PmconfigList svfGetBackupFilePass svfGetBackupFileName svfGetActiveFilePass
  gTmpStr svfGetFileSize svfGetFileSum svfExeCopyCmd
  svfCreateBraskArchive svfExtractBraskArchive svfCreateBraskBackupFile svfExtractBraskBackupFile
  svfExtractBraskArchiveblock svfGetProductIdFru svfGetBmcRev svfGetEfiRev svfModFruProductInfoArea
  svfReadBMCCapability svfUpdateBMCCapability
  svfChkBackupFileDiff svfChkBIOSConfFileDiff svfChkBmcUserInfoDiff svfRecoverFile
  gKillProcessAfterFileChkTimer gRebootAfterRestoreTimer gRestoreType svfIniTimer svfRestoreTimer
  svfRestoreConfigFile InitFRULogFile svfBackupFRU svfRestoreFRU
  svfRestorePostCheckCode svfRestoreWatchdogParameters"
# Interfaces the firmware provides: never defined here; the first four must be referenced.
platform="API_ExecuteCmd hslCreateMutex hslAddSEL hslAcquireSysvSemaphore
  hslAcquireMutex hslReleaseMutex hslDestroyMutex hslGetSemiVolatileArea hslFreeSemiVolatileArea
  hslReleaseSysvSemaphore hslChkMakeFile brask_ReadWriteEEPROM lanCheckMaintenanceMode svfApplyTimeInfo
  Svp_update_next_schedule m_prev_sch_ut_time FwUpdateStateFlag"

# "Num: Value Size Type Bind Vis Ndx Name[@version]" -> "Ndx Bind Vis Name"
table=$("$readelf" --dyn-syms -W "$lib" |
  awk '$1 ~ /^[0-9]+:$/ && NF >= 8 { name = $8; sub(/@.*/, "", name); print $7, $5, $6, name }')
# Linker-provided names, and the ODR indicators AddressSanitizer adds next to
# each exported datum in the asan build, are not part of the interface.
defined=$(awk '$1 != "UND" && ($2 == "GLOBAL" || $2 == "WEAK") && $3 == "DEFAULT" {print $4}' <<<"$table" |
  grep -vxE '_init|_fini|_edata|_end|__bss_start|_IO_stdin_used|__odr_asan[._].*' | sort -u || true)
diff=$(diff <(tr -s ' \n' '\n' <<<"$expected" | sort -u) <(echo "$defined") | grep '^[<>]' || true)
[[ -z $diff ]] || fail "exported set differs ('<' missing, '>' not part of the interface):"$'\n'"$diff"

i=0
for name in $platform; do
  ndx=$(awk -v n="$name" '$4 == n {print $1; exit}' <<<"$table")
  [[ -z $ndx || $ndx == UND ]] || fail "platform symbol defined in the library: $name"
  ((i++ >= 4)) || [[ $ndx == UND ]] || fail "platform symbol not referenced by the library: $name"
done

soname=$("$readelf" -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
[[ $soname == libBraskSvf.so.1 && $(basename "$lib") == libBraskSvf.so.1.0.0 ]] ||
  fail "SONAME '$soname' of $(basename "$lib"), expected libBraskSvf.so.1 of libBraskSvf.so.1.0.0"
for link in libBraskSvf.so.1 libBraskSvf.so; do
  [[ -L $(dirname "$lib")/$link && $(readlink -f "$(dirname "$lib")/$link") == $(readlink -f "$lib") ]] ||
    fail "$link is not a symbolic link to $(basename "$lib")"
done
echo "symbols of $lib: $(wc -l <<<"$defined") exported names as expected; SONAME $soname"
