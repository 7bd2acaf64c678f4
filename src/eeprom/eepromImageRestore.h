// Writing a 10-byte file image of an EEPROM range back into the EEPROM after a
// restore.  The POST check code and the watchdog parameters differ only in the
// row of this table that describes them.
#pragma once

#include "BraskSvf/svfTypes.h"

namespace brask::eeprom {

struct EepromImage {
    const char* unit;          // diagnostics unit of the caller
    const char* function;      // the exported function's name, echoed in its messages
    const char* path;          // the file image
    INT32U offset;             // where its kImageLength bytes live in the EEPROM
    int errorLevel;            // level of the open, read and close error lines
    bool announceStart;        // writes the level-4 "Start." line first
    bool reportEepromFailure;  // logs a short EEPROM write at level 2
};

// 0 when the EEPROM write was attempted or there is no file; 0xC0 when the
// file exists but could not be opened or read in full (the EEPROM untouched).
INT8S restoreEepromImage(const EepromImage& image);

}  // namespace brask::eeprom
