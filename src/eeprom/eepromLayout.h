// Where the EEPROM-held parameters live.  Each file image is a raw copy of
// one 10-byte range; the two ranges share 0x780C..0x780D, so whichever image
// is written last decides those two bytes.
#pragma once

#include "BraskSvf/svfTypes.h"

namespace brask::eeprom {

inline constexpr INT32U kImageLength = 10;
inline constexpr INT32U kWatchdogParametersOffset = 0x7804;
inline constexpr INT32U kPostCheckCodeOffset = 0x780C;

}  // namespace brask::eeprom
