// The block reader on an explicit catalogue selection, so that tests can
// drive it with catalogues of their own (for instance one with a part-restored
// row).  The exported svfExtractBraskArchive selects by firmware type and
// calls this.
#pragma once

#include "BraskSvf/svfTypes.h"
#include "archive/catalogue.h"

namespace brask::archive {

// Unpacks one archive block file over the live files named by `cat`: 0 or -1.
int extractArchive(const catalogue::Selection& cat, const char* pInPutFilePass, INT8U BlockNum);

}  // namespace brask::archive
