/*
 * Platform interfaces that libBraskSvf.so.1 needs from the BMC firmware.
 *
 * None of these is defined in the library: they stay undefined in its
 * dynamic symbol table and are resolved from the firmware process that loads
 * it (on a development host, from libBraskPlatformHost.so).
 */
#ifndef BRASKSVF_SVFPLATFORM_H
#define BRASKSVF_SVFPLATFORM_H

#include "BraskSvf/svfTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* IPMI request executed inside the BMC; the response replaces the request in
 * the same packet (Data[0] completion code).  0 when the request was run. */
int API_ExecuteCmd(MsgPkt_T* pMsgPkt, int BMCInst);

/* Named cross-process mutex; a time limit of -1 waits until it is free.
 * Each returns 0 on success, non-zero with errno set on failure. */
int hslCreateMutex(Mutex_T** ppMutex, const char* pName);
int hslAcquireMutex(Mutex_T* pMutex, int Timeout);
int hslReleaseMutex(Mutex_T* pMutex);
int hslDestroyMutex(Mutex_T* pMutex);

/* The shared semi-volatile area: mapped through a caller-held record. */
hslSemiVolatileArea_T* hslGetSemiVolatileArea(hslSemiVolatileMng_T* pMng);
int hslFreeSemiVolatileArea(hslSemiVolatileMng_T* pMng);

/* Named System V semaphore guarding the configuration and backup files. */
int hslAcquireSysvSemaphore(int* pSemId, const char* pName, int Timeout);
int hslReleaseSysvSemaphore(int SemId);

/* System Event Log: the library passes 0, 0x80 and its event code. */
int hslAddSEL(INT8U Arg1, INT8U Arg2, INT8U EventData);

/* Makes the file if missing, Size zero bytes long; an existing file is left
 * alone.  Negative (as a signed byte) on failure. */
int hslChkMakeFile(const char* pFilePath, int Size);

/* EEPROM transfer; returns the number of bytes transferred. */
int brask_ReadWriteEEPROM(INT8U Bus, INT8U Channel, INT8U SlaveAddr, INT8U* pBuf, INT32U Offset,
                          INT32U Length, INT8U Write);

/* Non-zero low byte: the BMC's network is in maintenance mode. */
int lanCheckMaintenanceMode(void);

/* Time settings and schedule hooks run after a restore. */
int svfApplyTimeInfo(void);
int Svp_update_next_schedule(INT32U PrevSchUtTime);
extern INT32U m_prev_sch_ut_time;

/* 0 when no firmware update runs, 1 to 8 while one runs. */
extern INT8U FwUpdateStateFlag;

#ifdef __cplusplus
}
#endif

#endif /* BRASKSVF_SVFPLATFORM_H */
