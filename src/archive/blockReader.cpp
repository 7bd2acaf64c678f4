// Unpacks one archive block over the live configuration.  The block is read
// and checked, the whole unpacking is planned (restorePlan.h), and the plan
// is applied: the deletion pass, then every entry in archive order, written
// back whole or by its part list, with the device restores of FRU and EEPROM
// images and the archived owner and mode.
//
// A block whose structure fails anywhere changes nothing at all.  Each file
// is replaced atomically (fileReplace.h): the new bytes of a batch of entries
// are staged beside their targets and flushed with one syncfs, then the
// entries are published one by one in archive order, each with its messages
// and device restore, so the messages, their order and the outcome of a
// failure part-way are those of writing the files one after the other.  A
// file that the block writes back is replaced, never deleted first.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "archive/catalogue.h"
#include "archive/fileReplace.h"
#include "archive/format.h"
#include "archive/readers.h"
#include "archive/restorePlan.h"
#include "common/diag.h"
#include "common/scoped.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

namespace {

using brask::ScopedFile;
using brask::ScopedMapping;
namespace format = brask::format;
namespace plan = brask::plan;
namespace replace = brask::replace;

// Staged bytes a batch may hold beside the files they replace: more
// amortises the flush, less keeps the room a restore needs on a small /conf.
constexpr std::uint64_t kBatchBytes = 8u << 20;

// The live configuration as the plan sees it.
class LiveTree final : public plan::Tree {
public:
    plan::LiveFile lookup(const char* path) const override {
        struct stat st {};
        return ::lstat(path, &st) == 0 ? plan::liveFileOf(st) : plan::LiveFile{};
    }
    bool maintenanceMode() const override { return (lanCheckMaintenanceMode() & 0xFF) != 0; }
};

void runDeviceRestore(plan::Device device) {
    switch (device) {
        case plan::Device::Fru:
            (void)svfRestoreFRU();
            break;
        case plan::Device::PostCheckCode:
            (void)svfRestorePostCheckCode();
            break;
        case plan::Device::WatchdogParameters:
            (void)svfRestoreWatchdogParameters();
            break;
        case plan::Device::None:
            break;
    }
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

// A failed replacement, with the message of the step it stands for: making
// or opening the file, seeking to a part, writing it.
void reportFailure(const replace::Outcome& outcome) {
    switch (outcome.failure) {
        case replace::Failure::Create:
        case replace::Failure::Read:
        case replace::Failure::Publish:
            SVF_ERR("fopen fail(%d)\n", outcome.error);
            break;
        case replace::Failure::Seek:
            SVF_ERR("fseek fail(%d)\n", outcome.error);
            break;
        case replace::Failure::Write:
        case replace::Failure::Sync:
            SVF_ERR("fwrite fail(%d)\n", outcome.error);
            break;
        case replace::Failure::None:
            break;
    }
}

// Applies a plan's entry steps in order, staging and flushing them batch by
// batch ahead of publishing.
class EntryPass {
public:
    EntryPass(const brask::catalogue::Selection& cat, std::span<const plan::EntryStep> steps)
        : cat_(cat), steps_(steps) {}

    int run() {
        staged_.reset(new (std::nothrow) replace::Outcome[steps_.size() + 1]);
        inBatch_.reset(new (std::nothrow) bool[static_cast<std::size_t>(cat_.count) + 1]);
        if (staged_ == nullptr || inBatch_ == nullptr) return -1;
        for (std::size_t i = 0; i < steps_.size(); ++i) {
            if (i == stagedUpTo_) stageBatch(i);
            if (!apply(steps_[i], staged_[i])) {
                discardStaged(i + 1);
                return -1;
            }
        }
        // The renames (and the deletions) reach the disk too.
        if (!sync_.sync()) {
            SVF_ERR("fwrite fail(%d)\n", errno);
            return -1;
        }
        return 0;
    }

private:
    // Stages the writing steps from `first` on until the batch is full, a
    // target comes round again or a step fails, then flushes what it staged.
    void stageBatch(std::size_t first) {
        std::uint64_t bytes = 0;
        std::size_t count = 0;
        std::memset(inBatch_.get(), 0, static_cast<std::size_t>(cat_.count) + 1);
        std::size_t i = first;
        for (; i < steps_.size(); ++i) {
            const plan::EntryStep& step = steps_[i];
            if (!step.writes()) continue;
            const std::size_t row = brask::catalogue::indexOf(cat_, step.row);
            if (count > 0 && (inBatch_[row] || bytes + step.data.size() > kBatchBytes)) break;
            inBatch_[row] = true;
            bytes += step.data.size();
            ++count;
            char target[SVF_FILE_PASS_SIZE];
            staged_[i] =
                step.action == plan::Action::WriteParts
                    ? replace::stageParts(pathOf(step, target), step.data, PmconfigList, step.info, sync_)
                    : replace::stageWhole(pathOf(step, target), step.data, step.info, sync_);
            if (!staged_[i].ok()) {
                ++i;  // the pass ends at this step
                break;
            }
        }
        stagedUpTo_ = i;
        if (count > 0 && !sync_.sync()) {
            const int error = errno;
            for (std::size_t k = first; k < i; ++k) {
                if (steps_[k].writes() && staged_[k].ok()) staged_[k] = {replace::Failure::Sync, error};
            }
        }
    }

    void discardStaged(std::size_t from) {
        for (std::size_t k = from; k < stagedUpTo_; ++k) {
            char target[SVF_FILE_PASS_SIZE];
            if (steps_[k].writes()) replace::discard(pathOf(steps_[k], target));
        }
    }

    static const char* pathOf(const plan::EntryStep& step, char (&buffer)[SVF_FILE_PASS_SIZE]) {
        std::memset(buffer, 0, sizeof buffer);
        if (!step.target.empty())
            std::memcpy(buffer, step.target.data(), step.target.size());  // below 152 bytes
        return buffer;
    }

    // Publishes a staged step, or reports why it could not be staged (its
    // temporary, if the flush failed after it was written, goes too).
    static bool publish(const char* target, const replace::Outcome& staged) {
        if (!staged.ok()) replace::discard(target);
        const replace::Outcome outcome = staged.ok() ? replace::publish(target) : staged;
        if (outcome.ok()) return true;
        reportFailure(outcome);
        return false;
    }

    bool apply(const plan::EntryStep& step, const replace::Outcome& staged) {
        char target[SVF_FILE_PASS_SIZE];
        pathOf(step, target);
        switch (step.action) {
            case plan::Action::FailNoSuffix:
                SVF_ERR(".bak Unmatch\n");
                return false;
            case plan::Action::FailEmptyTarget:
                SVF_ERR("file pass was not found\n");
                return false;
            case plan::Action::SkipUnknown:
                // A path the catalogue does not name is never written, not even its mode.
                skipUnknown();
                return true;
            case plan::Action::SkipMaintenance:
                return true;  // maintenance mode keeps the live network settings
            case plan::Action::SkipPartRow:
                SVF_DEBUG("TargetPart == PART");
                skipUnknown();
                break;
            case plan::Action::WriteParts:
            case plan::Action::CreateWhole:
                // A PMConfig.dat made from scratch ends the pass; it still
                // gets the archived owner and mode like any other file.
                SVF_DEBUG("TargetPart == PART");
                if (!publish(target, staged)) return false;
                break;
            case plan::Action::Write:
                if (!publish(target, staged)) return false;
                // Reported under the exported operation's name, as the firmware logs expect.
                ::brask::diag::message(7, kUnit, __LINE__, "svfExtractBraskArchive",
                                       "svfExtractBraskArchive() : Operation file name is %s. \n", target);
                runDeviceRestore(step.device);
                break;
        }
        return applyOwnerAndMode(target, step.info);
    }

    const brask::catalogue::Selection& cat_;
    std::span<const plan::EntryStep> steps_;
    std::unique_ptr<replace::Outcome[]> staged_;
    std::unique_ptr<bool[]> inBatch_;
    std::size_t stagedUpTo_ = 0;
    replace::SyncSet sync_;
};

}  // namespace

int svfExtractBraskArchive(INT8U FwTyep, char* pInPutFilePass, INT8U BlockNum) {
    return brask::archive::extractArchive(brask::catalogue::select(FwTyep), pInPutFilePass, BlockNum);
}

int brask::archive::extractArchive(const brask::catalogue::Selection& cat, const char* pInPutFilePass,
                                   INT8U BlockNum) {
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

    const LiveTree tree;
    const plan::BlockPlan plan(cat, block, BlockNum, tree);
    if (!plan.ok()) {
        if (const plan::Rejection* r = plan.rejection()) {
            SVF_ERR("Archive entry %u rejected : %s\n", r->entryIndex, r->reason);
        }
        return -1;
    }

    // Temporaries a killed restore left beside this block's files.
    for (const BackupFileList_T& row : cat) {
        if (row.TargetArcBlock == BlockNum) replace::discard(row.FilePass);
    }
    for (const plan::Deletion& d : plan.deletions()) {
        SVF_DEBUG("rm %s\n", d.row->FilePass);
        if (!d.replaced) (void)::unlink(d.row->FilePass);
    }
    if (EntryPass(cat, plan.entries()).run() != 0) return -1;

    mapping.reset();
    (void)fp.close();
    if (haveCapability) (void)svfUpdateBMCCapability(&savedCapability);
    SVF_DEBUG("Normal_END_svfExtractBraskArchive");
    return 0;
}
