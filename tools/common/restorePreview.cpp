#include "restorePreview.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include "BraskSvf/svfApi.h"
#include "archive/catalogue.h"
#include "command/exeRestoreEvent.h"
#include "common/paths.h"

namespace preview {
namespace {

namespace paths = brask::paths;

// Where the capability record keeps the one field a restore takes from the backup.
constexpr std::size_t kCapabilityInterfaceRev = offsetof(INI_BMC_CAPABILITY_T, InterfaceREV);
constexpr std::size_t kCapabilityInterfaceRevSize = sizeof(INI_BMC_CAPABILITY_T::InterfaceREV);

std::string text(std::string_view s) { return std::string(s.data(), s.size()); }

class BlockPreview {
public:
    BlockPreview(const brask::catalogue::Selection& cat, unsigned block, PreviewTree& tree,
                 std::vector<Line>& lines)
        : cat_(cat), block_(block), tree_(tree), lines_(lines) {}

    // False when the restore of this block would fail: the blocks after it are not restored.
    bool run(format::Bytes bytes) {
        svfBraskArchiveFileHeader_T header{};
        if (bytes.empty()) return fail("", "an empty block file cannot be mapped");
        if (format::decodeArchiveHeader(bytes, header) != format::Status::Ok) {
            return fail("", "fread fail: shorter than the 8-byte block header");
        }
        const auto capability = tree_.read(paths::kCapabilityFile);
        const bool haveCapability = capability && capability->size() >= sizeof(INI_BMC_CAPABILITY_T);

        const plan::BlockPlan plan(cat_, bytes, block_, tree_);
        if (!plan.ok()) {
            const plan::Rejection* r = plan.rejection();
            return fail("", r ? "entry " + std::to_string(r->entryIndex) + " rejected: " + r->reason
                              : "the plan does not fit in memory");
        }
        for (const plan::Deletion& d : plan.deletions()) {
            if (d.replaced || !d.before.exists()) continue;
            Line& line = add("delete", d.row->FilePass, d.before);
            line.note = "deleted before the block is unpacked";
            tree_.set(d.row->FilePass, std::nullopt, 0, 0, 0);
        }
        for (const plan::EntryStep& step : plan.entries()) {
            if (!entry(step)) return false;
        }
        if (haveCapability) keepCapability(*capability);
        putBackInterfaces();
        return true;
    }

private:
    Line& add(const char* action, const std::string& path, const plan::LiveFile& before) {
        Line& line = lines_.emplace_back();
        line.block = block_;
        line.action = action;
        line.path = path;
        line.before = before;
        return line;
    }

    bool fail(const std::string& path, const std::string& why) {
        add("fail", path, path.empty() ? plan::LiveFile{} : tree_.lookup(path.c_str())).note = why;
        return false;
    }

    bool entry(const plan::EntryStep& step) {
        const std::string path = text(step.target);
        switch (step.action) {
            case plan::Action::FailNoSuffix:
                return fail("",
                            "entry " + std::to_string(step.entryIndex) + ": stored name without \".bak\"");
            case plan::Action::FailEmptyTarget:
                return fail("", "entry " + std::to_string(step.entryIndex) + ": stored name names no file");
            case plan::Action::SkipUnknown:
                add("skip", path, step.before).note = "not a file of this catalogue";
                return true;
            case plan::Action::SkipMaintenance:
                add("skip", path, step.before).note = "maintenance mode keeps the live network settings";
                return true;
            case plan::Action::SkipPartRow: {
                if (!step.before.exists()) return fail(path, "chmod fail: a part-restore row with no file");
                Line& line = add("skip", path, step.before);
                line.note = "part restore is known for PMConfig.dat only; owner and mode are still set";
                keep(line, step);
                return true;
            }
            case plan::Action::Write:
            case plan::Action::CreateWhole:
            case plan::Action::WriteParts:
                write(path, step);
                return true;
        }
        return true;
    }

    // The file as it is, with only the entry's owner and mode.
    void keep(Line& line, const plan::EntryStep& step) {
        const auto content = tree_.read(line.path);
        line.existsAfter = true;
        line.after = content.value_or(std::vector<std::uint8_t>{});
        owner(line, step);
    }

    static void owner(Line& line, const plan::EntryStep& step) {
        line.modeAfter = step.info.FilePermission & 07777u;
        line.uidAfter = step.info.FileUid;
        line.gidAfter = step.info.FileGid;
    }

    void write(const std::string& path, const plan::EntryStep& step) {
        const auto current = tree_.read(path);
        std::vector<std::uint8_t> after(step.data.begin(), step.data.end());
        const char* action = !step.before.exists() ? "new" : current && *current == after ? "same" : "change";
        std::string note;
        if (step.action == plan::Action::WriteParts) {
            after = current.value_or(std::vector<std::uint8_t>{});
            for (const PartOffsetList_T& part : PmconfigList) {
                if (after.size() < std::size_t{part.Offset} + part.Size)
                    after.resize(part.Offset + part.Size);
                std::copy_n(step.data.begin() + part.Offset, part.Size, after.begin() + part.Offset);
            }
            action = "parts";
            note = "only the catalogue's byte ranges come from the backup";
        } else if (step.action == plan::Action::CreateWhole) {
            note = "made from the whole stored image; the entries after it are not restored";
        }
        switch (step.device) {
            case plan::Device::Fru:
                note = "then written into the FRU";
                break;
            case plan::Device::PostCheckCode:
            case plan::Device::WatchdogParameters:
                note = "then written into the EEPROM";
                break;
            case plan::Device::None:
                break;
        }
        Line& line = add(action, path, step.before);
        line.existsAfter = true;
        line.after = std::move(after);
        line.note = note;
        owner(line, step);
        tree_.set(path, line.after, line.modeAfter, line.uidAfter, line.gidAfter);
    }

    // The BMC's own capability record survives, with InterfaceREV taken from
    // the restored file; a restored file too short to hold a record is left.
    void keepCapability(const std::vector<std::uint8_t>& saved) {
        auto restored = tree_.read(paths::kCapabilityFile);
        if (!restored || restored->size() < sizeof(INI_BMC_CAPABILITY_T)) return;
        std::vector<std::uint8_t> merged = *restored;
        std::copy_n(saved.begin(), sizeof(INI_BMC_CAPABILITY_T), merged.begin());
        std::copy_n(restored->begin() + kCapabilityInterfaceRev, kCapabilityInterfaceRevSize,
                    merged.begin() + kCapabilityInterfaceRev);
        for (Line& line : lines_) {
            if (line.block != block_ || line.path != paths::kCapabilityFile || !line.existsAfter) continue;
            line.after = merged;
            line.note = "keeps this BMC's capability record, InterfaceREV from the backup";
            tree_.set(line.path, merged, line.modeAfter, line.uidAfter, line.gidAfter);
        }
    }

    // Network settings put aside for a restore come back in normal mode.
    void putBackInterfaces() {
        if (tree_.maintenanceMode()) return;
        const plan::LiveFile back = tree_.lookup(paths::kBackInterfacesFile);
        const auto content = tree_.read(paths::kBackInterfacesFile);
        if (!content) return;
        Line& line = add("rename", paths::kInterfacesFile, tree_.lookup(paths::kInterfacesFile));
        line.existsAfter = true;
        line.after = *content;
        line.modeAfter = back.mode & 07777u;
        line.uidAfter = back.uid;
        line.gidAfter = back.gid;
        line.note = std::string("replaced by ") + paths::kBackInterfacesFile;
        tree_.set(paths::kInterfacesFile, line.after, line.modeAfter, line.uidAfter, line.gidAfter);
        tree_.set(paths::kBackInterfacesFile, std::nullopt, 0, 0, 0);
    }

    const brask::catalogue::Selection& cat_;
    unsigned block_;
    PreviewTree& tree_;
    std::vector<Line>& lines_;
};

}  // namespace

plan::LiveFile PreviewTree::lookup(const char* path) const {
    if (const auto it = changes_.find(path); it != changes_.end()) return it->second.file;
    struct stat st {};
    if (::lstat((root_ + path).c_str(), &st) != 0) return {};
    return plan::liveFileOf(st);
}

std::optional<std::vector<std::uint8_t>> PreviewTree::read(const std::string& path) const {
    if (const auto it = changes_.find(path); it != changes_.end()) return it->second.content;
    if (lookup(path.c_str()).kind != plan::LiveFile::Kind::Regular) return std::nullopt;
    std::ifstream in(root_ + path, std::ios::binary);
    if (!in) return std::nullopt;
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void PreviewTree::set(const std::string& path, std::optional<std::vector<std::uint8_t>> content,
                      std::uint32_t mode, std::uint32_t uid, std::uint32_t gid) {
    Change& c = changes_[path];
    c.file = {};
    if (content) {
        c.file.kind = plan::LiveFile::Kind::Regular;
        c.file.size = content->size();
        c.file.mode = S_IFREG | mode;
        c.file.uid = uid;
        c.file.gid = gid;
        c.file.links = 1;
    }
    c.content = std::move(content);
}

Preview previewBackup(format::Bytes file, const Request& request, PreviewTree& tree) {
    Preview p;
    const auto refuse = [&p](int result, std::string reason) {
        // Execute Restore Event's answer to a refused file.
        p.verdict = {false, result, brask::restore::completionCodeForExtraction(result), std::move(reason)};
        return p;
    };
    if (request.fwType > BMC_FILE) return refuse(SVF_EXTRACT_FAIL, "Parameter Out Of Range");
    svfBraskBackupFileHeader_T header{};
    if (format::decodeBackupHeader(file, header) != format::Status::Ok) {
        return refuse(SVF_EXTRACT_NO_FILE, "fread fail: shorter than the 96-byte header");
    }
    const std::size_t headerArea = format::backupHeaderAreaSize(header.NumOfBlock);
    const format::Refusal checks = format::refusalOf(
        format::judgeBackupHeader(header, format::limitedSum(file, static_cast<std::uint32_t>(headerArea)),
                                  request.fwType, request.restoreMode));
    if (checks.result != 0) return refuse(checks.result, checks.message);
    if (format::checksIdentity(request.restoreMode)) {
        if (!request.identity) {
            p.notes.push_back("the model and serial number were not compared with the server's");
        } else {
            const format::Refusal identity =
                format::refusalOf(format::compareIdentity(*request.identity, header));
            if (identity.result != 0) return refuse(identity.result, identity.message);
        }
    }

    // Every block is split out and checked before any is unpacked.
    std::vector<format::Bytes> blocks;
    for (unsigned i = 0; i < format::blocksRestored(header, request.restoreMode); ++i) {
        svfBraskBackupFileBlockInfo_T info{};
        if (format::decodeBlockInfo(file, i, info) != format::Status::Ok) {
            return refuse(SVF_EXTRACT_NO_FILE,
                          "fread fail: block table of block " + std::to_string(i) + " incomplete");
        }
        format::Bytes bytes;
        if (const format::Status st = format::blockBytes(file, info, bytes); st != format::Status::Ok) {
            return refuse(SVF_EXTRACT_FAIL,
                          "Block#" + std::to_string(i) + " descriptor rejected : " + format::statusText(st));
        }
        if (format::wordSum(bytes) != 0) {
            return refuse(SVF_EXTRACT_CHECKSUM_MISMATCH, "ChkSum UnMatch (block " + std::to_string(i) + ")");
        }
        blocks.push_back(bytes);
    }
    p.verdict = {true, 0, SVF_CC_NORMAL, "accepted"};

    const brask::catalogue::Selection cat = brask::catalogue::select(request.fwType);
    for (unsigned i = 0; i < blocks.size(); ++i) {
        if (!BlockPreview(cat, i, tree, p.lines).run(blocks[i])) break;
    }
    return p;
}

}  // namespace preview
