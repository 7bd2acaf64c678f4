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

/* ---- OEM command handlers (result: response length, code in pRes[0]) ---- */
SVF_EXPORT int svfGetBackupRestoreEvent(INT8U* pReq, INT8U ReqLen, INT8U* pRes);
SVF_EXPORT int svfOEMSetBackupEvent(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst);
SVF_EXPORT int svfOEMExeRestoreEvent(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst);

/* ---- Status area, lock and processing flags ------------------------------ */
SVF_EXPORT extern HSharedMem_T hBMCSharedMem;
SVF_EXPORT extern Mutex_T* hSharedMemMutex;
SVF_EXPORT int svfGetMutexAndSemiVolatileArea(Mutex_T** l_hMutex, hslSemiVolatileMng_T* l_mng,
                                              hslSemiVolatileArea_T** pSemiVolArea);
SVF_EXPORT int svfSetChkBkupRestProcessingFlag(INT8U SetFlag, INT8U FileType, INT8U Mode);

/* ---- Event state machine -------------------------------------------------- */
SVF_EXPORT INT32S svfSetSvfEvent(INT8U* TargetStatus, INT8U Operation);

/* ---- Catalogue and path helpers ------------------------------------------- */
SVF_EXPORT extern const BackupFileList_T BmcBackupFileList[SVF_BMC_BACKUP_FILE_COUNT];
SVF_EXPORT extern const BackupFileList_T EfiBackupFileList[];
SVF_EXPORT extern const PartOffsetList_T PmconfigList[SVF_PMCONFIG_PART_COUNT];
SVF_EXPORT int svfGetBackupFilePass(char* ActiveFilePass, char* BackupFilePass);
SVF_EXPORT int svfGetBackupFileName(char* ActiveFilePass, char* BackupFileName);
SVF_EXPORT int svfGetActiveFilePass(char* BackupFileName, char* ActiveFilePasss);

/* ---- File utilities --------------------------------------------------------- */
#define SVF_TMPSTR_SIZE 320
SVF_EXPORT extern char gTmpStr[SVF_TMPSTR_SIZE];
SVF_EXPORT INT32S svfGetFileSize(FILE* fp);
SVF_EXPORT INT32U svfGetFileSum(FILE* fp, INT32U LimitByte);
SVF_EXPORT int svfExeCopyCmd(char* SrcFile, char* DstFile);

/* ---- Archive blocks and backup files --------------------------------------- */
SVF_EXPORT int svfCreateBraskArchive(int NumOfFiles, INT8U FwType, INT8U NumOfArcBlock);
SVF_EXPORT int svfExtractBraskArchive(INT8U FwTyep, char* pInPutFilePass, INT8U BlockNum);
SVF_EXPORT int svfCreateBraskBackupFile(INT8U FwTyep);
SVF_EXPORT int svfExtractBraskBackupFile(INT8U FwTyep, INT8U RestoreMode, INT8U* NumOfBlock);
SVF_EXPORT int svfExtractBraskArchiveblock(INT8U FwTyep, INT8U NumOfBlock);

/* ---- Product identity --------------------------------------------------------- */
SVF_EXPORT int svfGetProductIdFru(svfBraskBackupFileHeader_T* pHeader);
SVF_EXPORT int svfGetBmcRev(FwRev_T* pBmcRev);
SVF_EXPORT int svfGetEfiRev(INT8U FwTyep, FwRev_T* pEfiRev);
SVF_EXPORT int svfModFruProductInfoArea(INT8U* pNewModelNumber, INT8U* pNewSerialNumber);

/* ---- BMC capability record ----------------------------------------------------- */
SVF_EXPORT int svfReadBMCCapability(INI_BMC_CAPABILITY_T* pReadCapability);
SVF_EXPORT int svfUpdateBMCCapability(INI_BMC_CAPABILITY_T* pBackupCapability);

/* ---- Change detection, comparers, recovery -------------------------------------- */
SVF_EXPORT int svfChkBackupFileDiff(INT8U FileType);
SVF_EXPORT int svfChkBIOSConfFileDiff(FILE* ActFp, FILE* BakFp);
SVF_EXPORT int svfChkBmcUserInfoDiff(FILE* BakFp);
SVF_EXPORT int svfRecoverFile(void);

/* ---- Countdowns, pending restore, deferred restore -------------------------------- */
SVF_EXPORT extern INT8U gKillProcessAfterFileChkTimer;
SVF_EXPORT extern INT8U gRebootAfterRestoreTimer;
SVF_EXPORT extern svfRestoreType_T gRestoreType;
SVF_EXPORT void svfIniTimer(void);
SVF_EXPORT void svfRestoreTimer(void);
SVF_EXPORT void svfRestoreConfigFile(void);

/* ---- FRU backup and restore ------------------------------------------------------ */
SVF_EXPORT INT8S InitFRULogFile(void);
SVF_EXPORT INT8S svfBackupFRU(void);
SVF_EXPORT INT8S svfRestoreFRU(void);

/* ---- EEPROM-held parameters ------------------------------------------------------ */
SVF_EXPORT INT8S svfRestorePostCheckCode(void);
SVF_EXPORT INT8S svfRestoreWatchdogParameters(void);

#ifdef __cplusplus
}
#endif

#endif /* BRASKSVF_SVFAPI_H */
