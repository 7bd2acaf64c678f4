// Unpacks one archive block over the live configuration: the deletion pass,
// then every entry written back whole or by its part list, with the device
// restores of FRU and EEPROM images and the archived owner and mode.
//
// The block's structure is checked in full before the deletion pass, so a
// block that passes its checksum but is malformed (an overlong name, a data
// offset inside its descriptor, data past the end, a part list beyond the
// stored image) changes nothing at all.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "archive/catalogue.h"
#include "archive/format.h"
#include "archive/readers.h"
#include "common/diag.h"
#include "common/paths.h"
#include "common/scoped.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

namespace {

using brask::ScopedFile;
using brask::ScopedMapping;
namespace format = brask::format;
namespace paths = brask::paths;

// The active path an entry restores: its stored name cut at the first ".bak".
enum class TargetName { Ok, NoBackupSuffix, Empty };

TargetName targetPathOf(std::string_view storedName, char (&target)[SVF_FILE_PASS_SIZE]) {
    std::memset(target, 0, sizeof target);
    // The format layer keeps names below the buffer size.
    std::memcpy(target, storedName.data(), storedName.size());
    if (!brask::catalogue::cutAtBackupSuffix(target)) return TargetName::NoBackupSuffix;
    return target[0] == '\0' ? TargetName::Empty : TargetName::Ok;
}

bool isPmConfig(const BackupFileList_T& row) {
    return std::strcmp(row.FilePass, paths::kPmConfigFile) == 0;
}

// Every part of PMConfig.dat must lie inside the stored image.
bool partsInside(const format::ArchiveEntry& entry) {
    for (const PartOffsetList_T& part : PmconfigList) {
        const std::uint64_t end = std::uint64_t{part.Offset} + part.Size;
        if (end > entry.data.size()) return false;
    }
    return true;
}

// Walks every entry once without touching the disk.
bool blockIsWellFormed(format::Bytes block, brask::catalogue::Selection cat) {
    format::ArchiveEntryWalk walk(block);
    for (format::ArchiveEntry entry; !walk.complete();) {
        const unsigned i = walk.decoded();
        if (!walk.next(entry)) {
            SVF_ERR("Archive entry %u rejected : %s\n", i, format::statusText(walk.status()));
            return false;
        }
        char target[SVF_FILE_PASS_SIZE];
        if (targetPathOf(entry.name, target) == TargetName::Ok) {
            const BackupFileList_T* row = brask::catalogue::find(cat, target);
            if (row != nullptr && row->TargetPart != 0 && isPmConfig(*row) &&
                !partsInside(entry)) {
                SVF_ERR("Archive entry %u rejected : part list beyond its data\n", i);
                return false;
            }
        }
    }
    return true;
}

// The device that holds a copy of a restored file is brought in line with it.
struct DeviceRestore {
    const char* path;
    INT8S (*restore)(void);
};
constexpr DeviceRestore kDeviceRestores[] = {
    {paths::kFruBackupFile, svfRestoreFRU},
    {paths::kPostCheckCodeFile, svfRestorePostCheckCode},
    {paths::kWatchdogParametersFile, svfRestoreWatchdogParameters},
};

void runDeviceRestore(const char* target) {
    for (const DeviceRestore& d : kDeviceRestores) {
        if (std::strcmp(target, d.path) == 0) (void)d.restore();
    }
}

// Creates or truncates `path` with `data`; false after reporting the failure.
bool writeWholeFile(const char* path, format::Bytes data) {
    ScopedFile out(path, "wb");
    if (!out) {
        SVF_ERR("fopen fail(%d)\n", errno);
        return false;
    }
    if (!data.empty() && std::fwrite(data.data(), data.size(), 1, out.get()) != 1) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return false;
    }
    if (out.close() != 0) {  // buffered bytes that never reached the disk
        SVF_ERR("fwrite fail(%d)\n", errno);
        return false;
    }
    return true;
}

enum class PartResult { Written, Created, Failed };

// PMConfig.dat keeps its own bytes outside the part list; a missing file is
// created from the whole stored image.
PartResult restoreParts(const char* target, const format::ArchiveEntry& entry) {
    errno = 0;
    ScopedFile fp(target, "rb+");
    if (!fp) {
        if (errno != ENOENT) {
            SVF_ERR("fopen fail(%d)\n", errno);
            return PartResult::Failed;
        }
        return writeWholeFile(target, entry.data) ? PartResult::Created : PartResult::Failed;
    }
    for (const PartOffsetList_T& part : PmconfigList) {
        if (std::fseek(fp.get(), static_cast<long>(part.Offset), SEEK_SET) != 0) {
            SVF_ERR("fseek fail(%d)\n", errno);
            return PartResult::Failed;
        }
        const auto bytes = entry.data.subspan(part.Offset, part.Size);
        if (!bytes.empty() && std::fwrite(bytes.data(), bytes.size(), 1, fp.get()) != 1) {
            SVF_ERR("fwrite fail(%d)\n", errno);
            return PartResult::Failed;
        }
    }
    if (fp.close() != 0) {
        SVF_ERR("fwrite fail(%d)\n", errno);
        return PartResult::Failed;
    }
    return PartResult::Written;
}

bool applyOwnerAndMode(const char* target, const svfBraskArchiveEntryInfo_T& info) {
    if (::chmod(target, static_cast<mode_t>(info.FilePermission & 07777u)) != 0) {
        SVF_ERR("chmod fail(%d)\n", errno);
        return false;
    }
    if (::chown(target, static_cast<uid_t>(info.FileUid), static_cast<gid_t>(info.FileGid)) != 0) {
        SVF_ERR("chown fail(%d)\n", errno);
        return false;
    }
    return true;
}

void skipUnknown() {
    SVF_DEBUG("Unknown File");
    SVF_DEBUG("Extract Skip");
}

}  // namespace

int svfExtractBraskArchive(INT8U FwTyep, char* pInPutFilePass, INT8U BlockNum) {
    return brask::archive::extractArchive(brask::catalogue::select(FwTyep), pInPutFilePass,
                                          BlockNum);
}

int brask::archive::extractArchive(const brask::catalogue::Selection& cat,
                                   const char* pInPutFilePass, INT8U BlockNum) {
    SVF_DEBUG("START_svfExtractBraskArchive");
    INI_BMC_CAPABILITY_T savedCapability{};
    const bool haveCapability = svfReadBMCCapability(&savedCapability) == 0;

    if (pInPutFilePass == nullptr) {
        SVF_ERR("Parameter Out Of Range\n");
        return -1;
    }
    SVF_DEBUG("pInPutFilePass = %s\n", pInPutFilePass);

    ScopedFile fp(pInPutFilePass, "rb");
    if (!fp) {
        SVF_ERR("fopen fail(%d)\n", errno);
        return -1;
    }
    if (svfGetFileSum(fp.get(), 0) != 0) {
        SVF_ERR("ChkSum unmatch\n");
        return -1;
    }
    if (std::fseek(fp.get(), 0, SEEK_END) != 0) {
        SVF_ERR("fseek fail(%d)\n", errno);
        return -1;
    }
    const long size = std::ftell(fp.get());
    if (size < 0) {
        SVF_ERR("ftell fail(%d)\n", errno);
        return -1;
    }
    // An empty block file cannot be mapped: refused like any mapping failure.
    ScopedMapping mapping(::fileno(fp.get()), static_cast<std::size_t>(size));
    if (size == 0 || !mapping.ok()) return -1;
    const format::Bytes block(mapping.data(), mapping.size());

    std::rewind(fp.get());
    svfBraskArchiveFileHeader_T header{};
    if (format::decodeArchiveHeader(block, header) != format::Status::Ok) {
        SVF_ERR("fread fail(%d)\n", errno);
        return -1;
    }
    SVF_DEBUG("FileHeader.NumOfEntry = %d\n", header.NumOfEntry);
    if (!blockIsWellFormed(block, cat)) return -1;

    for (const BackupFileList_T& row : cat) {
        if (row.TargetArcBlock == BlockNum && row.RestoreType == RESTORE_DELETE_FIRST) {
            SVF_DEBUG("rm %s\n", row.FilePass);
            (void)::unlink(row.FilePass);
        }
    }

    format::ArchiveEntryWalk walk(block);
    for (format::ArchiveEntry entry; walk.next(entry);) {
        char target[SVF_FILE_PASS_SIZE];
        switch (targetPathOf(entry.name, target)) {
            case TargetName::NoBackupSuffix:
                SVF_ERR(".bak Unmatch\n");
                return -1;
            case TargetName::Empty:
                SVF_ERR("file pass was not found\n");
                return -1;
            case TargetName::Ok:
                break;
        }

        // A path the catalogue does not name is never written, not even its mode.
        const BackupFileList_T* row = brask::catalogue::find(cat, target);
        if (row == nullptr) {
            skipUnknown();
            continue;
        }
        bool lastEntry = false;
        if (row->TargetPart != 0) {
            SVF_DEBUG("TargetPart == PART");
            if (!isPmConfig(*row)) {
                skipUnknown();
            } else {
                const PartResult r = restoreParts(target, entry);
                if (r == PartResult::Failed) return -1;
                // A PMConfig.dat made from scratch ends the entry pass; it
                // still gets the archived owner and mode like any other file.
                lastEntry = (r == PartResult::Created);
            }
        } else {
            if ((lanCheckMaintenanceMode() & 0xFF) != 0 &&
                std::strcmp(target, paths::kInterfacesFile) == 0) {
                continue;  // maintenance mode keeps the live network settings
            }
            if (!writeWholeFile(target, entry.data)) return -1;
            // Reported under the exported operation's name, as the firmware logs expect.
            ::brask::diag::message(7, kUnit, __LINE__, "svfExtractBraskArchive",
                                   "svfExtractBraskArchive() : Operation file name is %s. \n",
                                   target);
            runDeviceRestore(target);
        }
        if (!applyOwnerAndMode(target, entry.info)) return -1;
        if (lastEntry) break;
    }

    mapping.reset();
    fp.close();
    if (haveCapability) (void)svfUpdateBMCCapability(&savedCapability);
    SVF_DEBUG("Normal_END_svfExtractBraskArchive");
    return 0;
}
