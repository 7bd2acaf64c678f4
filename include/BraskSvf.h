/* libBraskSvf: the BMC configuration backup and restore library. */
#ifndef BRASKSVF_H
#define BRASKSVF_H

#include "BraskSvf/svfTypes.h"
#include "BraskSvf/svfApi.h"

#endif /* BRASKSVF_H */
