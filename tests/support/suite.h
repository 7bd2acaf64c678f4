// What a suite's cases are written with: GoogleTest, the library's API and
// the host platform's controls, and the whole test layer.
#pragma once

#include <gtest/gtest.h>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "support/builders.h"
#include "support/interpose.h"
#include "support/observe.h"
#include "support/sandbox.h"
#include "support/scenario.h"
#include "support/transcript.h"
#include "support/tree.h"
