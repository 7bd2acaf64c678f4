/*
 * The OEM commands of libBraskSvf.so.1 as the ipmi_sim module registers them:
 * network function 0x30 (OEM request), one command number per handler.  The
 * request data bytes and the response (completion code first) are the
 * handlers' own.
 */
#ifndef BRASKSVF_IPMISIMCOMMANDS_H
#define BRASKSVF_IPMISIMCOMMANDS_H

#define BRASK_IPMI_NETFN_OEM 0x30
#define BRASK_IPMI_CMD_GET_BACKUP_RESTORE_EVENT 0x70 /* svfGetBackupRestoreEvent, 0 bytes */
#define BRASK_IPMI_CMD_SET_BACKUP_EVENT 0x71         /* svfOEMSetBackupEvent, 6 bytes */
#define BRASK_IPMI_CMD_EXE_RESTORE_EVENT 0x72        /* svfOEMExeRestoreEvent, 6 bytes */

#endif /* BRASKSVF_IPMISIMCOMMANDS_H */
