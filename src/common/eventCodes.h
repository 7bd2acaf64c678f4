// Where an event lives: its byte in the status table and the event data of
// its SEL entries.  The table is [kind][requester][file type], so a restore of
// the BMC files from the web console is slot 5 and its backup twin slot 11;
// the SEL entry carries the same slot plus a class in the high bits.
#pragma once

#include <cstddef>

#include "BraskSvf/svfTypes.h"

namespace brask {

enum class EventKind : unsigned { Restore = 0, Backup = 1 };

// Status-table index: kind * 6 + function * 2 + fileType (restores 0..5,
// backups 6..11 for the known requesters and file types).
constexpr unsigned slotIndex(EventKind kind, unsigned function, unsigned fileType) {
    return static_cast<unsigned>(kind) * SVF_BACKUP_SLOT_BASE + function * 2u + fileType;
}

// Event data of a SEL entry: the slot index plus a SEL_CLASS_*, kept to 8 bits.
constexpr INT8U selEventCode(unsigned slot, unsigned selClass) { return static_cast<INT8U>(slot + selClass); }
// The two parts back from the event data: slots stay below 16, classes are
// multiples of 16.
constexpr unsigned selEventSlot(INT8U code) { return code & 0x0Fu; }
constexpr unsigned selEventClass(INT8U code) { return code & 0xF0u; }

// The index is where the named fields put the byte.
static_assert(slotIndex(EventKind::Restore, N_P_M, EFI_FILE) == offsetof(svfStatus_T, Restore.NpM.Efi));
static_assert(slotIndex(EventKind::Restore, BMC_WEB_CONSOLE, BMC_FILE) ==
              offsetof(svfStatus_T, Restore.BmcConsole.Bmc));
static_assert(slotIndex(EventKind::Backup, N_P_M, BMC_FILE) == offsetof(svfStatus_T, Backup.Auto.Bmc));
static_assert(slotIndex(EventKind::Backup, SVP_CONSOL, EFI_FILE) ==
              offsetof(svfStatus_T, Backup.SvpConsole.Efi));
static_assert(selEventCode(slotIndex(EventKind::Backup, BMC_WEB_CONSOLE, BMC_FILE),
                           SEL_CLASS_OTHER_RUNNING) == 0x4B);
static_assert(SVF_EVENT_SLOT_COUNT <= 16 && SEL_CLASS_SUCCESS % 16 == 0 && SEL_CLASS_FAIL % 16 == 0 &&
              SEL_CLASS_OTHER_RUNNING % 16 == 0);

}  // namespace brask
