// Applying an operation to a status byte (unit svfModSvfEvent).  A rejected
// operation never leaves the byte as it was: an event being processed is
// marked failed (its generated bit survives), anything else is forced to
// ST_FAIL and the caller is told so by the result 0xFF.
#include "BraskSvf/svfApi.h"
#include "common/diag.h"
#include "event/svfModSvfEvent.h"

static constexpr const char kUnit[] = "svfModSvfEvent";

INT32S svfSetSvfEvent(INT8U* TargetStatus, INT8U Operation) {
    INT8U RetVal = svfModSvfEvent(*TargetStatus, Operation);
    if (RetVal != SVF_EVENT_REJECTED) {
        *TargetStatus = RetVal;
        return RetVal;
    }
    SVF_ERR("UNJUST_OPERATION\n");

    RetVal = svfModSvfEvent(*TargetStatus, BMC_COMPLETE_FAIL);
    if (RetVal != SVF_EVENT_REJECTED) {
        *TargetStatus = RetVal;
        return RetVal;
    }

    RetVal = svfModSvfEvent(*TargetStatus, BMC_FORCE_FAIL);
    SVF_ERR("TargetStatus = BMC_FORCE_FAIL\n");
    *TargetStatus = RetVal;
    return SVF_EVENT_REJECTED;
}
