// Planning the unpacking of one archive block.  Unit svfBraskArchiver.
#include "archive/restorePlan.h"

#include <cstring>
#include <new>

#include "BraskSvf/svfApi.h"
#include "common/paths.h"

namespace brask::plan {

LiveFile liveFileOf(const struct stat& st) {
    using Kind = LiveFile::Kind;
    LiveFile f;
    f.kind = S_ISREG(st.st_mode)   ? Kind::Regular
             : S_ISLNK(st.st_mode) ? Kind::Symlink
             : S_ISDIR(st.st_mode) ? Kind::Directory
                                   : Kind::Other;
    f.size = static_cast<std::uint64_t>(st.st_size);
    f.mode = st.st_mode;
    f.uid = st.st_uid;
    f.gid = st.st_gid;
    f.links = static_cast<std::uint32_t>(st.st_nlink);
    return f;
}
namespace {

constexpr std::string_view kBackupSuffix = ".bak";

// Every part of PMConfig.dat must lie inside the stored image.
bool partsInside(format::Bytes data) {
    for (const PartOffsetList_T& part : PmconfigList) {
        if (std::uint64_t{part.Offset} + part.Size > data.size()) return false;
    }
    return true;
}

template <typename T>
std::unique_ptr<T[]> allocate(std::size_t n) {
    return std::unique_ptr<T[]>(new (std::nothrow) T[n > 0 ? n : 1]);
}

}  // namespace

bool targetOf(std::string_view storedName, std::string_view& target) {
    // The name is used as the C string it would be in a 152-byte buffer.
    const std::size_t nul = storedName.find('\0');
    if (nul != std::string_view::npos) storedName = storedName.substr(0, nul);
    const std::size_t cut = storedName.find(kBackupSuffix);
    if (cut == std::string_view::npos) return false;
    target = storedName.substr(0, cut);
    return true;
}

Device deviceFor(std::string_view target) {
    if (target == paths::kFruBackupFile) return Device::Fru;
    if (target == paths::kPostCheckCodeFile) return Device::PostCheckCode;
    if (target == paths::kWatchdogParametersFile) return Device::WatchdogParameters;
    return Device::None;
}

BlockPlan::BlockPlan(const catalogue::Selection& cat, format::Bytes block, unsigned blockNum,
                     const Tree& tree) {
    if (!checkStructure(block)) return;
    planDeletions(cat, blockNum, tree);
    if (deletions_ == nullptr) return;
    planEntries(cat, block, tree);
}

void BlockPlan::reject(unsigned entryIndex, const char* reason) {
    rejected_ = true;
    rejection_ = {entryIndex, reason};
    ok_ = false;
}

// Every entry is decoded once before anything is planned, so that a block
// whose structure fails anywhere changes nothing at all.
bool BlockPlan::checkStructure(format::Bytes block) {
    format::ArchiveEntryWalk walk(block);
    for (format::ArchiveEntry entry; !walk.complete();) {
        const unsigned index = walk.decoded();
        if (!walk.next(entry)) {
            reject(index, format::statusText(walk.status()));
            return false;
        }
    }
    entries_ = allocate<EntryStep>(walk.header().NumOfEntry);
    return entries_ != nullptr;
}

void BlockPlan::planDeletions(const catalogue::Selection& cat, unsigned blockNum, const Tree& tree) {
    deletions_ = allocate<Deletion>(static_cast<std::size_t>(cat.count));
    if (deletions_ == nullptr) return;
    for (const BackupFileList_T& row : cat) {
        if (row.TargetArcBlock == blockNum && row.RestoreType == RESTORE_DELETE_FIRST) {
            deletions_[deletionCount_++] = {&row, false, tree.lookup(row.FilePass)};
        }
    }
}

void BlockPlan::planEntries(const catalogue::Selection& cat, format::Bytes block, const Tree& tree) {
    // Per catalogue row: whether its file exists at each point of the pass
    // (deleted first, then made by the steps before), and whether a step
    // writes it.
    const auto rows = static_cast<std::size_t>(cat.count);
    auto present = allocate<bool>(rows);
    auto written = allocate<bool>(rows);
    if (present == nullptr || written == nullptr) return;
    for (std::size_t i = 0; i < rows; ++i) {
        present[i] = tree.lookup(cat.rows[i].FilePass).exists();
        written[i] = false;
    }
    for (const Deletion& d : deletions()) present[catalogue::indexOf(cat, d.row)] = false;

    format::ArchiveEntryWalk walk(block);
    bool passEnds = false;
    for (format::ArchiveEntry entry; !passEnds && walk.next(entry);) {
        EntryStep& step = entries_[entryCount_];
        step.entryIndex = walk.decoded() - 1;
        step.info = entry.info;
        step.data = entry.data;

        if (!targetOf(entry.name, step.target)) {
            step.action = Action::FailNoSuffix;
        } else if (step.target.empty()) {
            step.action = Action::FailEmptyTarget;
        } else {
            step.row = catalogue::find(cat, step.target);
            char path[SVF_FILE_PASS_SIZE] = {};  // names are below 152 bytes
            std::memcpy(path, step.target.data(), step.target.size());
            step.before = tree.lookup(path);
        }
        if (step.action == Action::FailNoSuffix || step.action == Action::FailEmptyTarget) {
            ++entryCount_;
            break;  // the pass stops here with a failure
        }

        if (step.row == nullptr) {
            step.action = Action::SkipUnknown;
        } else if (step.row->TargetPart != WHOLE) {
            if (std::strcmp(step.row->FilePass, paths::kPmConfigFile) != 0) {
                step.action = Action::SkipPartRow;
            } else if (present[catalogue::indexOf(cat, step.row)]) {
                if (!partsInside(entry.data)) {
                    reject(step.entryIndex, "part list beyond its data");
                    return;
                }
                step.action = Action::WriteParts;
            } else {
                step.action = Action::CreateWhole;
                passEnds = true;  // a PMConfig.dat made from scratch ends the pass
            }
        } else if (tree.maintenanceMode() && step.target == paths::kInterfacesFile) {
            step.action = Action::SkipMaintenance;  // the live network settings stay
        } else {
            step.action = Action::Write;
            step.device = deviceFor(step.target);
        }
        if (step.writes())
            present[catalogue::indexOf(cat, step.row)] = written[catalogue::indexOf(cat, step.row)] = true;
        ++entryCount_;
    }
    for (std::size_t d = 0; d < deletionCount_; ++d) {
        deletions_[d].replaced = written[catalogue::indexOf(cat, deletions_[d].row)];
    }
    ok_ = true;
}

}  // namespace brask::plan
