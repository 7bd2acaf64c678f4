// The twelve status bytes of the semi-volatile area are read through three
// views (flat list, [kind][requester][file] table, named fields); the service
// processor addresses them by slot number, so every view must land on the
// same byte.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

#include "BraskSvf.h"

namespace {

constexpr int kSlot(int kind, int requester, int fileType)
{
    return kind * 6 + requester * 2 + fileType;
}

TEST(SemiVolLayout, TableAliasesListBySlotNumber)
{
    svfSemiVol_T sv{};
    for (int kind = 0; kind < 2; ++kind) {
        for (int requester = 0; requester < 3; ++requester) {
            for (int fileType = 0; fileType < 2; ++fileType) {
                const int k = kSlot(kind, requester, fileType);
                SCOPED_TRACE(k);
                EXPECT_EQ(&sv.svfStatusTable[kind][requester][fileType], &sv.svfStatusList[k]);
                sv.svfStatusTable[kind][requester][fileType] = static_cast<INT8U>(0xA0 + k);
                EXPECT_EQ(sv.svfStatusList[k], 0xA0 + k);
            }
        }
    }
}

TEST(SemiVolLayout, NamedFieldsMatchSlotNumbers)
{
    svfSemiVol_T sv{};
    struct Named {
        const INT8U* field;
        int slot;
        const char* name;
    };
    const svfStatus_T& s = sv.svfStatus;
    const Named named[] = {
        {&s.Restore.NpM.Efi, kSlot(0, N_P_M, EFI_FILE), "Restore.NpM.Efi"},
        {&s.Restore.NpM.Bmc, kSlot(0, N_P_M, BMC_FILE), "Restore.NpM.Bmc"},
        {&s.Restore.SvpConsole.Efi, kSlot(0, SVP_CONSOL, EFI_FILE), "Restore.SvpConsole.Efi"},
        {&s.Restore.SvpConsole.Bmc, kSlot(0, SVP_CONSOL, BMC_FILE), "Restore.SvpConsole.Bmc"},
        {&s.Restore.BmcConsole.Efi, kSlot(0, BMC_WEB_CONSOLE, EFI_FILE), "Restore.BmcConsole.Efi"},
        {&s.Restore.BmcConsole.Bmc, kSlot(0, BMC_WEB_CONSOLE, BMC_FILE), "Restore.BmcConsole.Bmc"},
        {&s.Backup.Auto.Efi, kSlot(1, N_P_M, EFI_FILE), "Backup.Auto.Efi"},
        {&s.Backup.Auto.Bmc, kSlot(1, N_P_M, BMC_FILE), "Backup.Auto.Bmc"},
        {&s.Backup.SvpConsole.Efi, kSlot(1, SVP_CONSOL, EFI_FILE), "Backup.SvpConsole.Efi"},
        {&s.Backup.SvpConsole.Bmc, kSlot(1, SVP_CONSOL, BMC_FILE), "Backup.SvpConsole.Bmc"},
        {&s.Backup.BmcConsole.Efi, kSlot(1, BMC_WEB_CONSOLE, EFI_FILE), "Backup.BmcConsole.Efi"},
        {&s.Backup.BmcConsole.Bmc, kSlot(1, BMC_WEB_CONSOLE, BMC_FILE), "Backup.BmcConsole.Bmc"},
    };
    for (const Named& n : named) {
        SCOPED_TRACE(n.name);
        EXPECT_EQ(n.field, &sv.svfStatusList[n.slot]);
    }
    // Restore slots start at the restore base, backup slots at the backup base.
    EXPECT_EQ(&s.Restore.NpM.Efi, &sv.svfStatusList[SVF_RESTORE_SLOT_BASE]);
    EXPECT_EQ(&s.Backup.Auto.Efi, &sv.svfStatusList[SVF_BACKUP_SLOT_BASE]);
}

TEST(SemiVolLayout, StatusBytesSitInsideTheSharedArea)
{
    // Slot k of the library's slice is byte 752 + k of the whole area, and
    // RestoreAddedInfo follows the twelve status bytes.
    hslSemiVolatileArea_T area{};
    const auto* base = reinterpret_cast<const std::uint8_t*>(&area);
    for (int k = 0; k < SVF_EVENT_SLOT_COUNT; ++k) {
        EXPECT_EQ(&area.svf.svfStatusList[k], base + SVF_SEMIVOL_SVF_OFFSET + k) << "slot " << k;
    }
    EXPECT_EQ(&area.svf.RestoreAddedInfo, base + SVF_SEMIVOL_SVF_OFFSET + SVF_EVENT_SLOT_COUNT);
    EXPECT_EQ(reinterpret_cast<const std::uint8_t*>(&area.svfAutoBack),
              base + SVF_SEMIVOL_AUTOBACK_OFFSET);
}

}  // namespace
