/* libBraskSvf: the BMC configuration backup and restore library. */
#ifndef BRASKSVF_H
#define BRASKSVF_H

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfTypes.h"

#endif /* BRASKSVF_H */
