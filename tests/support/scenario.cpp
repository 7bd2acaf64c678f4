#include "support/scenario.h"

#include "BraskSvf/svfApi.h"

namespace brask::test {

std::vector<std::string> populateConf(const ScenarioOptions& options) {
    return sandbox::populateConf(BmcBackupFileList, options);
}

}  // namespace brask::test
