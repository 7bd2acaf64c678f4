// The backup/restore event state machine's transition table (internal).
#pragma once

#include "BraskSvf/svfTypes.h"

extern "C" {

// Next state of a status byte `NowEvent` under `Operation`, or
// SVF_EVENT_REJECTED (0xFF) when the table has no such transition.  Prints
// the debug line of the row it took; never touches the status area.
INT8U svfModSvfEvent(INT8U NowEvent, INT8U Operation);
}
