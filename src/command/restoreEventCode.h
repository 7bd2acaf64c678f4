// Event data of a restore event's SEL entry: the restore slot index
// (Function x 2 + FileType) plus the class, kept to 8 bits.
#pragma once

#include "BraskSvf/svfTypes.h"

namespace brask::restore {

constexpr INT8U restoreEventCode(INT8U selClass, INT8U function, INT8U fileType) {
    return static_cast<INT8U>(SVF_RESTORE_SLOT_BASE + selClass + function * 2 + fileType);
}

}  // namespace brask::restore
