// Watchdog parameters: their file image goes back into the EEPROM after a
// restore.  Its range overlaps the POST check code's (see eepromLayout.h).
#include "BraskSvf/svfApi.h"
#include "common/paths.h"
#include "eeprom/eepromImageRestore.h"
#include "eeprom/eepromLayout.h"

static constexpr const char kUnit[] = "svfWatchdogParameters";

INT8S svfRestoreWatchdogParameters(void) {
    static constexpr brask::eeprom::EepromImage kImage{kUnit,
                                                       "svfRestoreWatchdogParameters",
                                                       brask::paths::kWatchdogParametersFile,
                                                       brask::eeprom::kWatchdogParametersOffset,
                                                       /*errorLevel=*/2,
                                                       /*announceStart=*/true,
                                                       /*reportEepromFailure=*/true};
    return brask::eeprom::restoreEepromImage(kImage);
}
