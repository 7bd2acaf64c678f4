/*
 * libBraskSvf: shared integer types, codes and byte-exact records.
 *
 * Everything here is part of the firmware ABI: the service processor and
 * other firmware processes depend on these values and layouts, so every
 * size and offset is pinned with a static assertion below.  Valid as C99
 * and as C++.  All multi-byte fields are little-endian, as on the BMC.
 */
#ifndef BRASKSVF_SVFTYPES_H
#define BRASKSVF_SVFTYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define SVF_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define SVF_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* Records that have fields off their natural alignment are packed. */
#define SVF_PACKED __attribute__((packed))

/* Symbols the library exports; everything else is hidden. */
#if defined(BRASKSVF_BUILDING_LIBRARY)
#define SVF_EXPORT __attribute__((visibility("default")))
#else
#define SVF_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Integer types ------------------------------------------------------ */
typedef uint8_t INT8U;
typedef uint16_t INT16U;
typedef uint32_t INT32U;
typedef int8_t INT8S;
typedef int32_t INT32S;
typedef uint8_t BOOL;

/* ---- File type (FileType, FwType) --------------------------------------- */
enum { EFI_FILE = 0, BMC_FILE = 1 };

/* ---- Requester (Function, RestoreMode) ---------------------------------- */
enum { N_P_M = 0, SVP_CONSOL = 1, BMC_WEB_CONSOLE = 2 };

/* ---- Event slots: svfStatusTable[kind][Function][FileType], restores first */
enum { SVF_EVENT_SLOT_COUNT = 12, SVF_RESTORE_SLOT_BASE = 0, SVF_BACKUP_SLOT_BASE = 6 };

/* ---- Event states (one status byte per slot) ----------------------------- */
enum {
    ST_NOTHING = 0x00,
    ST_GENERATED = 0x01,
    ST_STANDBY = 0x02,
    ST_PROCESSING = 0x03,
    ST_COMPLETION = 0x04,
    ST_FAIL = 0x05,
    ST_INVALID_DATA = 0x06,
    ST_PROCESSING_AND_GENERATED = 0x13,
    ST_COMPLETION_AND_GENERATED = 0x14,
    ST_FAIL_AND_GENERATED = 0x15,
    ST_INVALID_DATA_AND_GENERATED = 0x16
};
/* Not a state: the state machine's "rejected" result. */
#define SVF_EVENT_REJECTED 0xFF

/* ---- State-machine operations -------------------------------------------- */
enum {
    SVP_BACKUP_TRANS_REQ = 0x01,
    SVP_BACKUP_TRANS_SUCCESS = 0x02,
    SVP_BACKUP_TRANS_FAIL = 0x03,
    SVP_RESTORE_PROC_REQ = 0x11,
    SVP_RESTORE_SUCCESS_OK = 0x12,
    SVP_RESTORE_FAIL_OK = 0x13,
    BMC_GENERATE_EVENT = 0x30,
    BMC_START = 0x31,
    BMC_COMPLETE_SUCCESS = 0x32,
    BMC_COMPLETE_INVALID = 0x33,
    BMC_COMPLETE_FAIL = 0x34,
    BMC_FORCE_FAIL = 0xFE,
    BMC_FORCE_CLEAR = 0xFF
};

/* ---- SEL event classes (event data = slot index + class) ----------------- */
enum {
    SEL_CLASS_GENERATED = 0x00,
    SEL_CLASS_SUCCESS = 0x20,
    SEL_CLASS_FAIL = 0x30,
    SEL_CLASS_OTHER_RUNNING = 0x40
};
/* First two arguments of every hslAddSEL call made by the library. */
#define SVF_SEL_ARG1 0x00
#define SVF_SEL_ARG2 0x80

/* ---- Completion codes (byte 0 of every OEM response) --------------------- */
enum {
    SVF_CC_NORMAL = 0x00,
    SVF_CC_NO_EVENT_OR_FAIL = 0x80,
    SVF_CC_CHECKSUM_ERROR = 0x81,
    SVF_CC_FW_TYPE_MISMATCH = 0x83,
    SVF_CC_IDENTITY_MISMATCH = 0x85,
    SVF_CC_UNKNOWN_DATA_REV = 0x86,
    SVF_CC_UNKNOWN_FORMAT = 0x87,
    SVF_CC_LOCK_FAIL = 0x88,
    SVF_CC_SEMIVOL_FAIL = 0x89,
    SVF_CC_REQ_INV_LEN = 0xC7,
    SVF_CC_PARAM_OUT_OF_RANGE = 0xC9,
    SVF_CC_NOT_IN_PRESENT_STATE = 0xD5
};

/* ---- Results of svfExtractBraskBackupFile (0: valid, blocks split) -------- */
enum {
    SVF_EXTRACT_FAIL = -1,              /* bad argument, identity unreadable, or I/O failure */
    SVF_EXTRACT_NO_FILE = -2,           /* file missing or short of its header, or a descriptor unreadable */
    SVF_EXTRACT_CHECKSUM_MISMATCH = -4, /* the header's or a block's checksum does not hold */
    SVF_EXTRACT_IDENTITY_MISMATCH = -6, /* model or serial number is not this server's */
    SVF_EXTRACT_UNKNOWN_DATA_REV = -7,  /* data revision this library does not know */
    SVF_EXTRACT_FW_TYPE_MISMATCH = -8,  /* firmware type differs from the one asked for */
    SVF_EXTRACT_UNKNOWN_FORMAT = -9     /* header Version is not the one this library writes */
};

/* ---- Results of svfCreateBraskArchive (0: every block written) ------------ */
enum {
    SVF_ARCHIVE_FAIL = -1,        /* any failure but a missing mandatory copy */
    SVF_ARCHIVE_MISSING_FILE = -3 /* a mandatory backup copy is missing or cannot be opened */
};

/* ---- IPMI request packet (platform record, natural alignment) ------------ */
#define SVF_MSGPKT_DATA_SIZE 61440
typedef struct {
    INT32U Param;
    INT8U Channel;
    INT8U SrcQ[100];
    INT8U Cmd;
    INT8U NetFnLUN;
    INT8U Privilege;
    INT32U SessionID;
    INT8U IPAddr[4];
    INT16U UDPPort;
    INT16U Socket;
    INT32U Size;
    INT8U Data[SVF_MSGPKT_DATA_SIZE];
} MsgPkt_T;

/* Internal IPMI requests: NetFn Storage (0x0A), LUN 0. */
#define SVF_NETFNLUN_STORAGE 0x28
#define SVF_CMD_GET_FRU_INVENTORY_AREA_INFO 0x10
#define SVF_CMD_READ_FRU_DATA 0x11
#define SVF_CMD_WRITE_FRU_DATA 0x12
#define SVF_CMD_GET_SEL_TIME 0x48
#define SVF_FRU_DEVICE_ID 0

/* ---- OEM command records ------------------------------------------------- */
typedef struct {
    INT8U CompletionCode;
    INT8U EventType;
    INT8U FileType;
    INT8U Function;
    INT8U RestoreAddedInfo;
    INT8U Reserve[3];
} OEM_GetBackupRestoreEventRes_T;

typedef struct {
    INT8U FileType;
    INT8U Function;
    INT8U RestoreAddedInfo;
    INT8U Reserve[3];
} OEM_SetBackupEventReq_T;

typedef struct {
    INT8U CompletionCode;
} OEM_SetBackupEventRes_T;

typedef struct {
    INT8U FileType;
    INT8U Function;
    INT8U RestoreAddedInfo;
    INT8U Reserve[3];
} OEM_ExeRestoreEventReq_T;

typedef struct {
    INT8U CompletionCode;
} OEM_ExeRestoreEventRes_T;

/* ---- The library's slice of the shared semi-volatile area ---------------- */
typedef struct {
    INT8U Efi;
    INT8U Bmc;
} svfDataType_T;

typedef struct {
    svfDataType_T NpM;
    svfDataType_T SvpConsole;
    svfDataType_T BmcConsole;
} svfRestoreStatus_T;

typedef struct {
    svfDataType_T Auto;
    svfDataType_T SvpConsole;
    svfDataType_T BmcConsole;
} svfBackupStatus_T;

typedef struct {
    svfRestoreStatus_T Restore;
    svfBackupStatus_T Backup;
} svfStatus_T;

/* Three views of the twelve status bytes: flat, [kind][requester][file], named. */
typedef struct {
    __extension__ union {
        INT8U svfStatusList[SVF_EVENT_SLOT_COUNT];
        INT8U svfStatusTable[2][3][2];
        svfStatus_T svfStatus;
    };
    INT8U RestoreAddedInfo;
    INT8U Reserve[3];
} svfSemiVol_T;

typedef struct {
    INT16U AutoBackTimer;
    INT8U EfiBackFlag;
    INT8U BmcBackFlag;
    INT8U EfiRestoreFlag;
    INT8U BmcRestoreFlag;
    INT8U reserve[10];
} svfAutoBack_T;

/* The platform owns the area's layout; only svf and svfAutoBack are ours. */
#define SVF_SEMIVOL_AREA_SIZE 3016
#define SVF_SEMIVOL_SVF_OFFSET 752
#define SVF_SEMIVOL_AUTOBACK_OFFSET 792
typedef struct {
    INT8U PlatformArea0[SVF_SEMIVOL_SVF_OFFSET];
    svfSemiVol_T svf;
    INT8U PlatformArea1[SVF_SEMIVOL_AUTOBACK_OFFSET - SVF_SEMIVOL_SVF_OFFSET - 16];
    svfAutoBack_T svfAutoBack;
    INT8U PlatformArea2[SVF_SEMIVOL_AREA_SIZE - SVF_SEMIVOL_AUTOBACK_OFFSET - 16];
} hslSemiVolatileArea_T;

/* Platform records the library holds but does not look into. */
typedef struct {
    char MutexName[32];
    int OwnerPID;
    int NestingCount;
    int SemID;
    int Key;
    int Reserved;
} Mutex_T;

typedef struct {
    hslSemiVolatileArea_T* SemiVolatile_ptr;
    int fd;
} hslSemiVolatileMng_T;

typedef void* HSharedMem_T;

/* ---- Backup catalogue ---------------------------------------------------- */
#define SVF_FILE_PASS_SIZE 152
enum { STATIC = 0, DYNAMIC = 1 };                         /* ExistencType */
enum { WHOLE = 0, PART = 1 };                             /* TargetPart */
enum { RESTORE_OVERWRITE = 0, RESTORE_DELETE_FIRST = 4 }; /* RestoreType */

typedef struct {
    char FilePass[SVF_FILE_PASS_SIZE];
    INT8U ExistencType;
    INT8U TargetPart;
    INT8U RestoreType;
    INT8U TargetArcBlock;
    INT8U Reserve[4];
} BackupFileList_T;

typedef struct {
    INT32U Offset;
    INT32U Size;
} PartOffsetList_T;

#define SVF_BMC_BACKUP_FILE_COUNT 109
#define SVF_EFI_BACKUP_FILE_COUNT 0
#define SVF_PMCONFIG_PART_COUNT 2

/* ---- Archive block ------------------------------------------------------- */
typedef struct {
    INT8U Version;
    INT8U Reserve;
    INT16U NumOfEntry;
    INT32U ChkSum;
} svfBraskArchiveFileHeader_T;

typedef struct {
    INT32U FileOffset;
    INT32S FileSize;
    INT32U FileUid;
    INT32U FileGid;
    INT32U FilePermission;
} svfBraskArchiveEntryInfo_T;

/* ---- Backup file --------------------------------------------------------- */
typedef struct {
    INT8U Major;
    INT8U Minor;
} FwRev_T;

typedef struct SVF_PACKED {
    INT8U Version;
    INT8U DataRev;
    INT8U Reserve[2];
    INT8U ModelNumber[32];
    INT8U SerialNumber[20];
    INT8U ModuleType[2];
    INT8U Reserve2[8];
    INT8U UUID[16];
    INT32U TimeStamp;
    FwRev_T BmcRev;
    FwRev_T EfiRev;
    INT8U FwType;
    INT8U NumOfBlock;
    INT32U ChkSum;
} svfBraskBackupFileHeader_T;

typedef struct {
    INT32U BlockOffset;
    INT32S BlockSize;
    INT8U CrypticType;
    INT8U InheritanceType;
    INT8U Reserve[6];
} svfBraskBackupFileBlockInfo_T;

#define SVF_MAX_ARC_BLOCKS 3

/* ---- Pending restore ------------------------------------------------------ */
typedef struct {
    INT8U FileType;
    INT8U Function;
    INT8U NumOfBlock;
} svfRestoreType_T;

/* ---- BMC capability record (/conf/BMCCapability.dat) ---------------------- */
typedef struct SVF_PACKED {
    INT8U BMCtype[10];
    INT8U InterfaceREV[10];
    INT16U rKVMVer;
    INT16U WebConsoleVer;
    INT8U PhysicsSVPCard;
    INT8U LogicSVP;
    INT8U rKVMFunction;
    INT8U rKVMMaxClient;
    INT8U VirtualStorage;
    INT8U VirtualStorageMaxClient;
    INT8U Reserve1[2];
    INT8U WebConsole;
    INT8U WebConsoleMaxClient;
    INT8U login;
    INT8U Calendar;
    INT8U WDT;
    INT8U Pendrix;
    INT8U Tallix;
    INT8U AgentSEL;
    INT8U Reserve2[11];
} INI_BMC_CAPABILITY_T;

/* ---- FRU backup file header (/conf/brask/FRUBACKUP.dat) ------------------- */
typedef struct {
    INT32U Size;
    INT8U dummy[12];
} SVF_BACKUP_FRUDAT_HEADER_T;

/* ---- BMC user information (/conf/brask/bum_home/bmcUserInfo.data) --------- */
#define SVF_BUM_MAX_USERS 12
typedef struct {
    uint8_t version;
    uint8_t users;
    uint8_t reserved[2];
} bumInfoHeader_t;

typedef struct {
    uint8_t length;
    uint8_t reserved[3];
} bumAttrHeader_t;

typedef struct {
    bumAttrHeader_t header;
    uint8_t bmcUid;
    uint8_t passwdFlag;
    uint8_t reserved[2];
    uint32_t role_value;
    uint8_t hashedPasswd[16];
    uint32_t prevLogin[8];
} bumUserAttr_t;

typedef struct {
    bumInfoHeader_t header;
    bumUserAttr_t user[SVF_BUM_MAX_USERS];
} bumUserInfo_t;

/* ---- FRU product info area image (FRU offset 0x80..0xEE) ------------------ */
typedef struct SVF_PACKED {
    INT8U FormatVersion;
    INT8U Language;
    INT8U ProductManufacturer[8];
    INT8U ProductNameType;
    INT8U ProductName[20];
    INT8U ProductModelNumberType;
    INT8U ProductModelNumber[32];
    INT8U ProductVersionType;
    INT8U ProductVersion[10];
    INT8U ProductSerialNumberType;
    INT8U ProductSerialNumber[20];
    INT8U AssetTag[4];
    INT8U FRUFileID[4];
    INT8U Reserve[6];
    INT8U ChkSum;
} FruProductInfoArea_T;

/* ---- BIOS configuration file header (/conf/brask/BIOSConfig.dat) ---------- */
typedef struct {
    INT8U FormatRev;
    INT8U RecordLen[3];
    INT8U RevMajor;
    INT8U RevMinor;
} BiosConfigHeader_T;

#ifdef __cplusplus
}
#endif

/* ---- Layout checks --------------------------------------------------------- */
#define SVF_CHECK_SIZE(T, n) SVF_STATIC_ASSERT(sizeof(T) == (n), #T " size")
#define SVF_CHECK_OFFSET(T, f, n) SVF_STATIC_ASSERT(offsetof(T, f) == (n), #T "." #f " offset")

SVF_CHECK_SIZE(MsgPkt_T, 61564);
SVF_CHECK_OFFSET(MsgPkt_T, Channel, 4);
SVF_CHECK_OFFSET(MsgPkt_T, SrcQ, 5);
SVF_CHECK_OFFSET(MsgPkt_T, Cmd, 105);
SVF_CHECK_OFFSET(MsgPkt_T, NetFnLUN, 106);
SVF_CHECK_OFFSET(MsgPkt_T, Privilege, 107);
SVF_CHECK_OFFSET(MsgPkt_T, SessionID, 108);
SVF_CHECK_OFFSET(MsgPkt_T, IPAddr, 112);
SVF_CHECK_OFFSET(MsgPkt_T, UDPPort, 116);
SVF_CHECK_OFFSET(MsgPkt_T, Socket, 118);
SVF_CHECK_OFFSET(MsgPkt_T, Size, 120);
SVF_CHECK_OFFSET(MsgPkt_T, Data, 124);

SVF_CHECK_SIZE(OEM_GetBackupRestoreEventRes_T, 8);
SVF_CHECK_OFFSET(OEM_GetBackupRestoreEventRes_T, RestoreAddedInfo, 4);
SVF_CHECK_SIZE(OEM_SetBackupEventReq_T, 6);
SVF_CHECK_SIZE(OEM_SetBackupEventRes_T, 1);
SVF_CHECK_SIZE(OEM_ExeRestoreEventReq_T, 6);
SVF_CHECK_SIZE(OEM_ExeRestoreEventRes_T, 1);

/* The three views of the status bytes land on the same byte: the table's
 * [kind][requester][file type] is that event's named field. */
SVF_CHECK_SIZE(svfDataType_T, 2);
SVF_CHECK_OFFSET(svfDataType_T, Bmc, BMC_FILE);
SVF_CHECK_OFFSET(svfRestoreStatus_T, SvpConsole, SVP_CONSOL * 2);
SVF_CHECK_OFFSET(svfRestoreStatus_T, BmcConsole, BMC_WEB_CONSOLE * 2);
SVF_CHECK_OFFSET(svfBackupStatus_T, SvpConsole, SVP_CONSOL * 2);
SVF_CHECK_OFFSET(svfBackupStatus_T, BmcConsole, BMC_WEB_CONSOLE * 2);
SVF_CHECK_OFFSET(svfStatus_T, Restore, SVF_RESTORE_SLOT_BASE);
SVF_CHECK_OFFSET(svfStatus_T, Backup, SVF_BACKUP_SLOT_BASE);
SVF_CHECK_SIZE(svfStatus_T, 12);
SVF_CHECK_OFFSET(svfSemiVol_T, svfStatusList, 0);
SVF_CHECK_OFFSET(svfSemiVol_T, svfStatusTable, 0);
SVF_CHECK_OFFSET(svfSemiVol_T, svfStatus, 0);
SVF_STATIC_ASSERT(sizeof(((svfSemiVol_T*)0)->svfStatusTable) == SVF_EVENT_SLOT_COUNT,
                  "svfStatusTable covers the twelve slots");
SVF_CHECK_SIZE(svfSemiVol_T, 16);
SVF_CHECK_OFFSET(svfSemiVol_T, RestoreAddedInfo, 12);
SVF_CHECK_OFFSET(svfSemiVol_T, Reserve, 13);
SVF_CHECK_SIZE(svfAutoBack_T, 16);
SVF_CHECK_OFFSET(svfAutoBack_T, EfiBackFlag, 2);
SVF_CHECK_OFFSET(svfAutoBack_T, BmcBackFlag, 3);
SVF_CHECK_OFFSET(svfAutoBack_T, EfiRestoreFlag, 4);
SVF_CHECK_OFFSET(svfAutoBack_T, BmcRestoreFlag, 5);
SVF_CHECK_OFFSET(svfAutoBack_T, reserve, 6);
SVF_CHECK_SIZE(hslSemiVolatileArea_T, 3016);
SVF_CHECK_OFFSET(hslSemiVolatileArea_T, svf, 752);
SVF_CHECK_OFFSET(hslSemiVolatileArea_T, svfAutoBack, 792);
SVF_CHECK_SIZE(Mutex_T, 52);

SVF_CHECK_SIZE(BackupFileList_T, 160);
SVF_CHECK_OFFSET(BackupFileList_T, ExistencType, 152);
SVF_CHECK_OFFSET(BackupFileList_T, TargetPart, 153);
SVF_CHECK_OFFSET(BackupFileList_T, RestoreType, 154);
SVF_CHECK_OFFSET(BackupFileList_T, TargetArcBlock, 155);
SVF_CHECK_OFFSET(BackupFileList_T, Reserve, 156);
SVF_CHECK_SIZE(PartOffsetList_T, 8);

SVF_CHECK_SIZE(svfBraskArchiveFileHeader_T, 8);
SVF_CHECK_OFFSET(svfBraskArchiveFileHeader_T, NumOfEntry, 2);
SVF_CHECK_OFFSET(svfBraskArchiveFileHeader_T, ChkSum, 4);
SVF_CHECK_SIZE(svfBraskArchiveEntryInfo_T, 20);
SVF_CHECK_OFFSET(svfBraskArchiveEntryInfo_T, FileSize, 4);
SVF_CHECK_OFFSET(svfBraskArchiveEntryInfo_T, FileUid, 8);
SVF_CHECK_OFFSET(svfBraskArchiveEntryInfo_T, FileGid, 12);
SVF_CHECK_OFFSET(svfBraskArchiveEntryInfo_T, FilePermission, 16);

SVF_CHECK_SIZE(FwRev_T, 2);
SVF_CHECK_SIZE(svfBraskBackupFileHeader_T, 96);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, DataRev, 1);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, ModelNumber, 4);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, SerialNumber, 36);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, ModuleType, 56);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, Reserve2, 58);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, UUID, 66);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, TimeStamp, 82);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, BmcRev, 86);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, EfiRev, 88);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, FwType, 90);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, NumOfBlock, 91);
SVF_CHECK_OFFSET(svfBraskBackupFileHeader_T, ChkSum, 92);
SVF_CHECK_SIZE(svfBraskBackupFileBlockInfo_T, 16);
SVF_CHECK_OFFSET(svfBraskBackupFileBlockInfo_T, BlockSize, 4);
SVF_CHECK_OFFSET(svfBraskBackupFileBlockInfo_T, CrypticType, 8);
SVF_CHECK_OFFSET(svfBraskBackupFileBlockInfo_T, InheritanceType, 9);
SVF_CHECK_OFFSET(svfBraskBackupFileBlockInfo_T, Reserve, 10);

SVF_CHECK_SIZE(svfRestoreType_T, 3);

SVF_CHECK_SIZE(INI_BMC_CAPABILITY_T, 51);
SVF_CHECK_OFFSET(INI_BMC_CAPABILITY_T, InterfaceREV, 10);
SVF_CHECK_OFFSET(INI_BMC_CAPABILITY_T, rKVMVer, 20);
SVF_CHECK_OFFSET(INI_BMC_CAPABILITY_T, WebConsoleVer, 22);
SVF_CHECK_OFFSET(INI_BMC_CAPABILITY_T, Reserve1, 30);
SVF_CHECK_OFFSET(INI_BMC_CAPABILITY_T, WebConsole, 32);
SVF_CHECK_OFFSET(INI_BMC_CAPABILITY_T, WebConsoleMaxClient, 33);
SVF_CHECK_OFFSET(INI_BMC_CAPABILITY_T, AgentSEL, 39);
SVF_CHECK_OFFSET(INI_BMC_CAPABILITY_T, Reserve2, 40);

SVF_CHECK_SIZE(SVF_BACKUP_FRUDAT_HEADER_T, 16);
SVF_CHECK_OFFSET(SVF_BACKUP_FRUDAT_HEADER_T, dummy, 4);

SVF_CHECK_SIZE(bumUserAttr_t, 60);
SVF_CHECK_OFFSET(bumUserAttr_t, bmcUid, 4);
SVF_CHECK_OFFSET(bumUserAttr_t, passwdFlag, 5);
SVF_CHECK_OFFSET(bumUserAttr_t, reserved, 6);
SVF_CHECK_OFFSET(bumUserAttr_t, role_value, 8);
SVF_CHECK_OFFSET(bumUserAttr_t, hashedPasswd, 12);
SVF_CHECK_OFFSET(bumUserAttr_t, prevLogin, 28);
SVF_CHECK_SIZE(bumUserInfo_t, 724);
SVF_CHECK_OFFSET(bumUserInfo_t, user, 4);

SVF_CHECK_SIZE(FruProductInfoArea_T, 111);
SVF_CHECK_OFFSET(FruProductInfoArea_T, ProductModelNumber, 32);
SVF_CHECK_OFFSET(FruProductInfoArea_T, ProductSerialNumber, 76);
SVF_CHECK_OFFSET(FruProductInfoArea_T, ChkSum, 110);

SVF_CHECK_SIZE(BiosConfigHeader_T, 6);
SVF_CHECK_OFFSET(BiosConfigHeader_T, RevMajor, 4);

#endif /* BRASKSVF_SVFTYPES_H */
