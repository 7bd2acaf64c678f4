// POST check code: its file image goes back into the EEPROM after a restore.
#include "BraskSvf/svfApi.h"
#include "common/paths.h"
#include "eeprom/eepromImageRestore.h"
#include "eeprom/eepromLayout.h"

static constexpr const char kUnit[] = "svfRestorePostCheckCode";

INT8S svfRestorePostCheckCode(void) {
    static constexpr brask::eeprom::EepromImage kImage{kUnit,
                                                       "svfRestorePostCheckCode",
                                                       brask::paths::kPostCheckCodeFile,
                                                       brask::eeprom::kPostCheckCodeOffset,
                                                       /*errorLevel=*/3,
                                                       /*announceStart=*/false,
                                                       /*reportEepromFailure=*/false};
    return brask::eeprom::restoreEepromImage(kImage);
}
