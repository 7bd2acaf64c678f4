// The BMC capability record describes the running firmware, not the
// configuration: a restore keeps it, taking only InterfaceREV from the backup.
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "common/diag.h"
#include "common/paths.h"
#include "common/scoped.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

using brask::ScopedFile;
namespace paths = brask::paths;

int svfReadBMCCapability(INI_BMC_CAPABILITY_T* pReadCapability) {
    ScopedFile fp(paths::kCapabilityFile, "rb");
    if (!fp) {
        SVF_DEBUG("svfReadBMCCapability fopen fail");
        return -1;
    }
    if (pReadCapability == nullptr ||
        std::fread(pReadCapability, sizeof *pReadCapability, 1, fp.get()) != 1) {
        SVF_DEBUG("svfReadBMCCapability fread fail");
        return -1;
    }
    (void)fp.close();
    SVF_DEBUG("svfReadBMCCapability fread OK");
    return 0;
}

int svfUpdateBMCCapability(INI_BMC_CAPABILITY_T* pBackupCapability) {
    ScopedFile fp(paths::kCapabilityFile, "rb+");
    if (!fp) {
        SVF_DEBUG("svfUpdateBMCCapability fopen fail");
        return -1;
    }
    INI_BMC_CAPABILITY_T restored{};
    if (pBackupCapability == nullptr || std::fread(&restored, sizeof restored, 1, fp.get()) != 1) {
        SVF_DEBUG("svfUpdateBMCCapability fread fail");
        return -1;
    }
    std::memcpy(pBackupCapability->InterfaceREV, restored.InterfaceREV, sizeof restored.InterfaceREV);
    std::rewind(fp.get());
    if (std::fwrite(pBackupCapability, sizeof *pBackupCapability, 1, fp.get()) != 1) {
        SVF_DEBUG("svfUpdateBMCCapability fwrite fail");
        return -1;
    }
    // A write that only fails when the buffer is flushed is a failed write too.
    if (fp.close() != 0) {
        SVF_DEBUG("svfUpdateBMCCapability fwrite fail");
        return -1;
    }
    SVF_DEBUG("svfUpdateBMCCapability update OK");
    return 0;
}
