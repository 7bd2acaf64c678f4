// What any answer of Get Backup/Restore Event must satisfy, given the status
// bytes it was computed from: shared by the targets that call the query.
#pragma once

#include <algorithm>
#include <cstring>

#include "BraskSvf/svfTypes.h"
#include "command/eventSlots.h"
#include "common/eventCodes.h"
#include "fuzzCheck.h"

namespace brask::fuzz {

// True when some event slot is above ST_NOTHING.
inline bool anyEvent(const svfSemiVol_T& svf) {
    return std::any_of(svf.svfStatusList, svf.svfStatusList + SVF_EVENT_SLOT_COUNT,
                       [](INT8U s) { return s != 0; });
}

// A query with a sound request: 0x00 and 8 bytes naming a slot whose state
// matches, or 0x80 and 1 when no slot is set; the area's four extra bytes
// are copied either way.
inline void checkEventAnswer(const svfSemiVol_T& svf, const INT8U* res, int length) {
    const bool any = anyEvent(svf);
    FUZZ_CHECK(res[0] == (any ? 0x00 : 0x80));
    FUZZ_CHECK(length == (res[0] == 0x00 ? 8 : 1));
    FUZZ_CHECK(std::memcmp(res + 4, &svf.RestoreAddedInfo, 4) == 0);
    if (!any) {
        FUZZ_CHECK(res[1] == 0 && res[2] == 0 && res[3] == 0);
        return;
    }
    FUZZ_CHECK((res[1] & 0xE0) == 0 && res[2] <= BMC_FILE && res[3] <= BMC_WEB_CONSOLE);
    const unsigned slot =
        slotIndex(slots::isRestoreEventType(res[1]) ? EventKind::Restore : EventKind::Backup, res[3], res[2]);
    FUZZ_CHECK((svf.svfStatusList[slot] & 0x0F) == (res[1] & 0x0F));
}

}  // namespace brask::fuzz
