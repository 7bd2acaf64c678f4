/*
 * Test controls of the host platform (libBraskPlatformHost.so).  Not part of
 * the firmware ABI: tests and tools use them to inspect the host platform's
 * state and to make its functions fail on purpose.
 *
 * State lives in files under /var/hsl/ (inside the sandbox), so that several
 * processes see one BMC.  Fault controls are per process.
 */
#ifndef BRASKSVF_HOSTPLATFORMCONTROL_H
#define BRASKSVF_HOSTPLATFORMCONTROL_H

#include "BraskSvf/svfTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Files of the host platform -------------------------------------------- */
#define HOST_STATE_DIR "/var/hsl"
#define HOST_SEMIVOL_FILE "/var/hsl/SemiVolatile.bin" /* 3016 bytes */
#define HOST_SEL_FILE "/var/hsl/sel.bin"              /* hostSelRecord_T records */
#define HOST_EEPROM_FILE "/var/hsl/eeprom.bin"        /* 32 KiB image */
#define HOST_FRU_FILE "/var/hsl/fru.bin"              /* FRU device 0 image */
#define HOST_MAINTENANCE_FILE "/var/hsl/maintenance"  /* exists: maintenance mode */
#define HOST_EEPROM_SIZE 32768

/* ---- Fault injection ---------------------------------------------------------- */
/* Makes the next `count` calls of the named platform function fail, with errno
 * `err` (0 leaves errno alone).  Names are the platform function names:
 * "API_ExecuteCmd", "hslCreateMutex", "hslAcquireMutex", "hslReleaseMutex",
 * "hslDestroyMutex", "hslGetSemiVolatileArea", "hslFreeSemiVolatileArea",
 * "hslAcquireSysvSemaphore", "hslReleaseSysvSemaphore", "hslAddSEL",
 * "hslChkMakeFile", "brask_ReadWriteEEPROM".  `skip` calls succeed first.
 * Returns 0, or -1 with errno EINVAL for an unknown name. */
int hostFailCall(const char* functionName, int skip, int count, int err);
/* Like hostFailCall, for the give-back functions "hslReleaseMutex",
 * "hslDestroyMutex", "hslFreeSemiVolatileArea" and "hslReleaseSysvSemaphore":
 * the call does its work and then reports failure.  A give-back that fails
 * without giving back leaves the resource with the platform, which no caller
 * can undo; this one shows how the caller treats the report.  -1 with errno
 * EINVAL for any other name. */
int hostFailCallLate(const char* functionName, int skip, int count, int err);
/* Clears every fault control of this process (also the FRU and IPMI ones). */
void hostResetFaults(void);
/* Number of calls of the named platform function in this process since the
 * last hostResetCounters (-1 for an unknown name). */
int hostCallCount(const char* functionName);
void hostResetCounters(void);

/* ---- IPMI responder (API_ExecuteCmd) ------------------------------------------ */
/* Completion code answered to the next `count` requests with command `cmd`
 * (0x10, 0x11, 0x12, 0x48) after `skip` of them were answered normally. */
int hostIpmiFailCmd(INT8U cmd, int skip, int count, INT8U completionCode);
/* Requests with command `cmd` that reached the responder in this process
 * since the last hostResetCounters (-1 for a command it does not know). */
int hostIpmiCommandCount(INT8U cmd);
/* Read FRU Data returns `shortBy` bytes fewer than asked (0: off). */
void hostFruSetShortRead(int shortBy);
/* Every second Read FRU Data of the same piece returns one byte changed. */
void hostFruSetReadsDiffer(int enable);
/* Write FRU Data answers this completion code (0: writes are accepted). */
void hostFruRefuseWrites(INT8U completionCode);
/* Get FRU Inventory Area Info answers this access type (default 0). */
void hostFruSetAccessType(INT8U accessType);
/* Get SEL Time answers these four bytes in response order (default: the
 * current time, most significant byte first). */
void hostSetSelTime(const INT8U bytes[4]);
void hostClearSelTime(void);

/* A record of every FRU write and read the responder served, in order. */
typedef struct {
    INT8U Cmd; /* 0x11 read, 0x12 write */
    INT32U Offset;
    INT32U Count; /* bytes asked (read) or written (write) */
} hostFruAccess_T;
/* Copies at most `max` accesses into `out`; returns how many were recorded. */
int hostFruAccessLog(hostFruAccess_T* out, int max);
void hostFruClearAccessLog(void);

/* ---- FRU image ---------------------------------------------------------------- */
/* Replaces the FRU image with `size` bytes (the inventory area size). */
int hostFruWriteImage(const INT8U* data, INT32U size);
/* Copies at most `max` bytes of the image; returns the image size or -1. */
int hostFruReadImage(INT8U* out, INT32U max);
/* Makes a realistic FRU image of `size` bytes (>= 512) whose product info
 * area at 0x80 carries `model` and `serial` where the library reads them. */
int hostFruMakeImage(INT32U size, const char* model, const char* serial);

/* ---- SEL -------------------------------------------------------------------- */
typedef struct {
    INT8U Arg1;
    INT8U Arg2;
    INT8U EventData;
    INT8U Reserved;
    INT32U TimeStamp; /* seconds since the epoch, little-endian */
} hostSelRecord_T;
/* Copies at most `max` records into `out`; returns the number of records in
 * the SEL, or -1. */
int hostSelRead(hostSelRecord_T* out, int max);
int hostSelClear(void);

/* ---- EEPROM ------------------------------------------------------------------ */
/* Copies `length` bytes at `offset` of the image; 0 or -1. */
int hostEepromRead(INT32U offset, INT8U* out, INT32U length);

/* ---- Maintenance mode, firmware update, hooks ------------------------------- */
int hostSetMaintenanceMode(int enabled);
void hostSetFwUpdateState(INT8U state);
/* Calls of svfApplyTimeInfo and Svp_update_next_schedule (this process), and
 * the argument of the last Svp_update_next_schedule call. */
int hostApplyTimeInfoCount(void);
int hostUpdateScheduleCount(void);
INT32U hostLastScheduleArgument(void);

/* ---- Semi-volatile area ------------------------------------------------------- */
/* Copies the whole area (3016 bytes) from or to its backing file. */
int hostSemiVolRead(hslSemiVolatileArea_T* out);
int hostSemiVolWrite(const hslSemiVolatileArea_T* in);

/* ---- Whole state ---------------------------------------------------------------- */
/* Creates /var/hsl and its files if missing: zeroed area, empty SEL, EEPROM
 * image of 0xFF, a default FRU image (model "BRASK-MODEL", serial "SN0001"). */
int hostPlatformInit(void);

#ifdef __cplusplus
}
#endif

#endif /* BRASKSVF_HOSTPLATFORMCONTROL_H */
