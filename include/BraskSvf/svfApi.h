/*
 * libBraskSvf: every operation and datum the library exports.
 */
#ifndef BRASKSVF_SVFAPI_H
#define BRASKSVF_SVFAPI_H

#include <stdio.h>

#include "BraskSvf/svfTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- OEM command handlers ------------------------------------------------ */
/* Each answers with the completion code in pRes[0] and returns the response
 * length; BMCInst is not used. */

/* Get Backup/Restore Event: pReq is never read, ReqLen must be 0.  Writes all
 * 8 bytes of OEM_GetBackupRestoreEventRes_T to pRes; returns 8 when an event
 * is reported (0x00), else 1. */
SVF_EXPORT int svfGetBackupRestoreEvent(INT8U* pReq, INT8U ReqLen, INT8U* pRes);
/* Set Backup Event (OEM_SetBackupEventReq_T, 6 bytes): for the web console's
 * BMC files, makes "/var/brask/BmcWeb.bak" before it answers; returns 1. */
SVF_EXPORT int svfOEMSetBackupEvent(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst);
/* Execute Restore Event (OEM_ExeRestoreEventReq_T, 6 bytes): for the web
 * console's BMC files, validates and splits "/var/brask/BmcWeb.bak" and
 * leaves the restore to svfRestoreTimer; returns 1. */
SVF_EXPORT int svfOEMExeRestoreEvent(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst);

/* ---- Status area, lock and processing flags ------------------------------ */
/* Zero at load, for other modules of the firmware process; the library never
 * uses them. */
SVF_EXPORT extern HSharedMem_T hBMCSharedMem;
SVF_EXPORT extern Mutex_T* hSharedMemMutex;
/* Takes the status-area lock: 0 with the mutex "/var/GenSemiVolMutex" held
 * (*l_hMutex), the area mapped (*pSemiVolArea, record *l_mng).  The caller gives
 * it back: hslFreeSemiVolatileArea(l_mng), then hslReleaseMutex and
 * hslDestroyMutex on *l_hMutex.  -1 with nothing held. */
SVF_EXPORT int svfGetMutexAndSemiVolatileArea(Mutex_T** l_hMutex, hslSemiVolatileMng_T* l_mng,
                                              hslSemiVolatileArea_T** pSemiVolArea);
/* Stores SetFlag in one flag of svfAutoBack under the lock (Mode 1: backup,
 * else restore; FileType 1: BMC, else EFI); the flag's previous value, or -1
 * when the lock was not had. */
SVF_EXPORT int svfSetChkBkupRestProcessingFlag(INT8U SetFlag, INT8U FileType, INT8U Mode);

/* ---- Event state machine -------------------------------------------------- */
/* Applies Operation to the status byte *TargetStatus, which the caller guards
 * with the status-area lock.  Returns the state stored, or SVF_EVENT_REJECTED
 * when a rejected operation forced the byte to ST_FAIL. */
SVF_EXPORT INT32S svfSetSvfEvent(INT8U* TargetStatus, INT8U Operation);

/* ---- Catalogue and path helpers ------------------------------------------- */
/* The catalogued files: the BMC's in archive order, the EFI's (no rows), and
 * the byte ranges of PMConfig.dat a part restore takes from the backup. */
SVF_EXPORT extern const BackupFileList_T BmcBackupFileList[SVF_BMC_BACKUP_FILE_COUNT];
SVF_EXPORT extern const BackupFileList_T EfiBackupFileList[];
SVF_EXPORT extern const PartOffsetList_T PmconfigList[SVF_PMCONFIG_PART_COUNT];
/* The path with ".bak" appended, into BackupFilePass (SVF_FILE_PASS_SIZE
 * bytes); 0, or -1 when it would not fit. */
SVF_EXPORT int svfGetBackupFilePass(char* ActiveFilePass, char* BackupFilePass);
/* The path's last component with ".bak" appended, into BackupFileName; 0, or
 * -1 when the path has no '/' or the name would not fit. */
SVF_EXPORT int svfGetBackupFileName(char* ActiveFilePass, char* BackupFileName);
/* The backup copy's name cut at its first ".bak", into ActiveFilePasss; 0, or
 * -1 when it has no ".bak" or is too long. */
SVF_EXPORT int svfGetActiveFilePass(char* BackupFileName, char* ActiveFilePasss);

/* ---- File utilities --------------------------------------------------------- */
/* The command buffer: shell commands and block-file names are built here, so
 * no two library calls that use it may run at once. */
#define SVF_TMPSTR_SIZE 320
SVF_EXPORT extern char gTmpStr[SVF_TMPSTR_SIZE];
/* Size of the open file, leaving the position at its end; -1 on failure. */
SVF_EXPORT INT32S svfGetFileSize(FILE* fp);
/* Additive sum of the file's little-endian 32-bit words from its start, a
 * short last word zero-padded; LimitByte 0 sums the whole file.  Moves the
 * position. */
SVF_EXPORT INT32U svfGetFileSum(FILE* fp, INT32U LimitByte);
/* Runs "cp -p SrcFile DstFile" (built in gTmpStr); 0 when it exited with 0,
 * else -1. */
SVF_EXPORT int svfExeCopyCmd(char* SrcFile, char* DstFile);

/* ---- Archive blocks and backup files --------------------------------------- */
/* Packs the backup copies of the first NumOfFiles catalogue rows of FwType
 * into the block files "<backup file>-n", n < NumOfArcBlock; 0,
 * SVF_ARCHIVE_MISSING_FILE or SVF_ARCHIVE_FAIL. */
SVF_EXPORT int svfCreateBraskArchive(int NumOfFiles, INT8U FwType, INT8U NumOfArcBlock);
/* Unpacks the archive block file pInPutFilePass (block BlockNum) over the live
 * files of FwTyep's catalogue; 0, or -1 (the block may be partly restored). */
SVF_EXPORT int svfExtractBraskArchive(INT8U FwTyep, char* pInPutFilePass, INT8U BlockNum);
/* Writes "/var/brask/BMC.bak" (FwTyep non-zero) or "/var/brask/EFI.bak" from
 * the backup copies; 0, svfCreateBraskArchive's result, or -1. */
SVF_EXPORT int svfCreateBraskBackupFile(INT8U FwTyep);
/* Validates the backup file of FwTyep (this server's identity too, unless
 * RestoreMode is N_P_M) and splits it into block files; 0 with *NumOfBlock the
 * number split, or an SVF_EXTRACT_* code. */
SVF_EXPORT int svfExtractBraskBackupFile(INT8U FwTyep, INT8U RestoreMode, INT8U* NumOfBlock);
/* Extracts the first NumOfBlock split block files, each under the file
 * semaphore; 0, or -1 at the first block that fails. */
SVF_EXPORT int svfExtractBraskArchiveblock(INT8U FwTyep, INT8U NumOfBlock);

/* ---- Product identity --------------------------------------------------------- */
/* Fills ModelNumber, SerialNumber, ModuleType and UUID of *pHeader from the
 * FRU, and nothing else; 0 or -1. */
SVF_EXPORT int svfGetProductIdFru(svfBraskBackupFileHeader_T* pHeader);
/* The BMC firmware revision from the firmware version file; 0 or -1. */
SVF_EXPORT int svfGetBmcRev(FwRev_T* pBmcRev);
/* The EFI revision from the BIOS configuration file, 0.0 when it is missing
 * (-1 then for an EFI backup, FwTyep 0); 0 or -1. */
SVF_EXPORT int svfGetEfiRev(INT8U FwTyep, FwRev_T* pEfiRev);
/* Rewrites the FRU product info area with a new model number (32 bytes) and
 * serial number (20 bytes) and its checksum; 0 or -1. */
SVF_EXPORT int svfModFruProductInfoArea(INT8U* pNewModelNumber, INT8U* pNewSerialNumber);

/* ---- BMC capability record ----------------------------------------------------- */
/* Reads "/conf/BMCCapability.dat" into *pReadCapability; 0 or -1. */
SVF_EXPORT int svfReadBMCCapability(INI_BMC_CAPABILITY_T* pReadCapability);
/* Writes *pBackupCapability back over the file, with InterfaceREV taken from
 * the file (and stored into *pBackupCapability too); 0 or -1. */
SVF_EXPORT int svfUpdateBMCCapability(INI_BMC_CAPABILITY_T* pBackupCapability);

/* ---- Change detection, comparers, recovery -------------------------------------- */
/* Brings every catalogued file's ".bak" copy in line with the file; 1 when a
 * copy was made, replaced or removed, 0 when none had to be, -1 on failure. */
SVF_EXPORT int svfChkBackupFileDiff(INT8U FileType);
/* Compares the parts of the BIOS configuration file a backup keeps; 1 differ,
 * 0 equal, negative on failure.  Both files stay open. */
SVF_EXPORT int svfChkBIOSConfFileDiff(FILE* ActFp, FILE* BakFp);
/* Compares the live BMC user information (read by its path) with the copy
 * BakFp; 1 differ, 0 equal, negative when the copy is too short. */
SVF_EXPORT int svfChkBmcUserInfoDiff(FILE* BakFp);
/* Copies every BMC catalogue file's ".bak" copy over it; 0 when every row was
 * attempted, -1 when a command could not be built. */
SVF_EXPORT int svfRecoverFile(void);

/* ---- Countdowns, pending restore, deferred restore -------------------------------- */
/* Ticks until the deferred restore runs, and until the reboot; 0: not running. */
SVF_EXPORT extern INT8U gKillProcessAfterFileChkTimer;
SVF_EXPORT extern INT8U gRebootAfterRestoreTimer;
/* The restore pending or last run; written by svfOEMExeRestoreEvent only. */
SVF_EXPORT extern svfRestoreType_T gRestoreType;
/* Stops both countdowns; gRestoreType is kept. */
SVF_EXPORT void svfIniTimer(void);
/* One tick: counts the countdowns down, runs the deferred restore and then
 * the reboot when theirs reaches 0. */
SVF_EXPORT void svfRestoreTimer(void);
/* The deferred restore of gRestoreType: stops the services, unpacks the
 * blocks, reports, and starts the reboot countdown. */
SVF_EXPORT void svfRestoreConfigFile(void);

/* ---- FRU backup and restore ------------------------------------------------------ */
/* Makes the empty FRU backup file and its copy where missing; 0, or -1 when
 * one could not be made. */
SVF_EXPORT INT8S InitFRULogFile(void);
/* Reads the FRU inventory area into the FRU backup file; 1, or -1 on failure. */
SVF_EXPORT INT8S svfBackupFRU(void);
/* Writes the FRU backup file back into the FRU, up to three attempts; 0, 1 (a
 * write refused), -1 (no file) or 0xC0 (the file could not be read). */
SVF_EXPORT INT8S svfRestoreFRU(void);

/* ---- EEPROM-held parameters ------------------------------------------------------ */
/* Writes the first 10 bytes of the POST check code / watchdog parameter image
 * into the EEPROM; 0 (also with no file), or 0xC0 when it could not be read. */
SVF_EXPORT INT8S svfRestorePostCheckCode(void);
SVF_EXPORT INT8S svfRestoreWatchdogParameters(void);

#ifdef __cplusplus
}
#endif

#endif /* BRASKSVF_SVFAPI_H */
