// Internal side of the content comparers of the BIOS configuration file and
// the BMC user information.
#pragma once

#include <cstdint>

#include "BraskSvf/svfTypes.h"

// Reads the active user information file record by record into `info`
// (cleared first; at most 12 users).  0, or -1 when it could not be read in
// full: `info` then holds what was read, the rest zero.
int32_t svfBumReadUserInfoInternal(bumUserInfo_t* info);
