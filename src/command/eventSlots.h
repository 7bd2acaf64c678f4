// The twelve event slots of the status table as Get Backup/Restore Event
// reports them: what each slot stands for, the two orders in which the slots
// are searched, and the debug line each search prints for a slot.
#pragma once

#include <array>

#include "BraskSvf/svfTypes.h"
#include "common/eventCodes.h"

namespace brask::slots {

struct EventSlot {
    INT8U FileType;
    INT8U Function;
    const char* runningText;    // printed when pass 1 picks the slot (state above ST_GENERATED)
    const char* generatedText;  // printed when pass 2 picks the slot (state == ST_GENERATED)
};

// Row i is the slot brask::slotIndex gives index i.  The pass-2 texts of
// index 7 and 10 are irregular; they are kept exactly as the firmware has
// always printed them.
inline constexpr std::array<EventSlot, SVF_EVENT_SLOT_COUNT> kEventSlots{{
    {EFI_FILE, N_P_M, "Restore.NpM.Efi > ST_GENERATED", "Restore.NpM.Efi == ST_GENERATED"},
    {BMC_FILE, N_P_M, "Restore.NpM.Bmc > ST_GENERATED", "Restore.NpM.Bmc == ST_GENERATED"},
    {EFI_FILE, SVP_CONSOL, "Restore.SvpConsole.Efi > ST_GENERATED", "Restore.SvpConsole.Efi == ST_GENERATED"},
    {BMC_FILE, SVP_CONSOL, "Restore.SvpConsole.Bmc > ST_GENERATED", "Restore.SvpConsole.Bmc == ST_GENERATED"},
    {EFI_FILE, BMC_WEB_CONSOLE, "Restore.BmcConsole.Efi > ST_GENERATED",
     "Restore.BmcConsole.Efi == ST_GENERATED"},
    {BMC_FILE, BMC_WEB_CONSOLE, "Restore.BmcConsole.Bmc > ST_GENERATED",
     "Restore.BmcConsole.Bmc == ST_GENERATED"},
    {EFI_FILE, N_P_M, "Backup.Auto.Efi > ST_GENERATED", "Backup.Auto.Efi == ST_GENERATED"},
    {BMC_FILE, N_P_M, "Backup.Auto.Bmc > ST_GENERATED", "Backup.Auto.Bmc == ST_GENERATEDy"},
    {EFI_FILE, SVP_CONSOL, "Backup.SvpConsole.Efi > ST_GENERATED", "Backup.SvpConsole.Efi == ST_GENERATED"},
    {BMC_FILE, SVP_CONSOL, "Backup.SvpConsole.Bmc > ST_GENERATED", "Backup.SvpConsole.Bmc == ST_GENERATED"},
    {EFI_FILE, BMC_WEB_CONSOLE, "Backup.BmcConsole.Efi > ST_GENERATED",
     ".Backup.BmcConsole.Efi == ST_GENERATED"},
    {BMC_FILE, BMC_WEB_CONSOLE, "Backup.BmcConsole.Bmc > ST_GENERATED",
     "Backup.BmcConsole.Bmc == ST_GENERATED"},
}};

// Pass 1 takes the first slot past ST_GENERATED in index order: a running
// event outranks any that merely waits.
inline constexpr std::array<unsigned, SVF_EVENT_SLOT_COUNT> kRunningOrder{0, 1, 2, 3, 4,  5,
                                                                          6, 7, 8, 9, 10, 11};
// Pass 2 takes the first slot at ST_GENERATED; automatic backups come last
// so that a requester's own event is reported before them.
inline constexpr std::array<unsigned, SVF_EVENT_SLOT_COUNT> kGeneratedOrder{0, 1, 2,  3,  4, 5,
                                                                            8, 9, 10, 11, 6, 7};

inline constexpr bool isRestoreSlot(unsigned index) { return index < SVF_BACKUP_SLOT_BASE; }

// EventType of the answer: the slot's base state (the low four bits, so the
// "and generated" states read as their base), plus 0x10 for a restore slot.
inline constexpr unsigned kRestoreEventType = 0x10;
inline constexpr unsigned kEventTypeStateBits = 0x0F;
constexpr INT8U eventType(INT8U state, unsigned index) {
    return static_cast<INT8U>((state & kEventTypeStateBits) +
                              (isRestoreSlot(index) ? kRestoreEventType : 0u));
}
constexpr bool isRestoreEventType(INT8U type) { return (type & kRestoreEventType) != 0; }
constexpr INT8U eventTypeState(INT8U type) { return static_cast<INT8U>(type & kEventTypeStateBits); }

constexpr bool rowsFollowSlotIndex() {
    for (unsigned i = 0; i < kEventSlots.size(); ++i) {
        const EventKind kind = isRestoreSlot(i) ? EventKind::Restore : EventKind::Backup;
        if (slotIndex(kind, kEventSlots[i].Function, kEventSlots[i].FileType) != i) return false;
    }
    return true;
}
static_assert(rowsFollowSlotIndex());

}  // namespace brask::slots
