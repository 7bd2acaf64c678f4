// Test data shared by the suites: the scenario generator of the sandbox core
// (sandbox/scenario.h) bound to the library's BMC catalogue.
#pragma once

#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "sandbox/scenario.h"

namespace brask::test {

using namespace sandbox;

// sandbox::populateConf over BmcBackupFileList.
inline std::vector<std::string> populateConf(const ScenarioOptions& options = {}) {
    return sandbox::populateConf(BmcBackupFileList, options);
}

}  // namespace brask::test
