// What unpacking one archive block will do to a tree, decided before any
// file changes: the deletion pass, then one step per entry in archive order
// up to the entry that ends the pass.  The restore applies exactly this list
// and the tools preview it, so a preview cannot disagree with a restore.
//
// Pure: the tree is asked through Tree, the block is a span, nothing is
// written or printed.  The steps point into the block's bytes and the
// catalogue, which must outlive the plan.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "BraskSvf/svfTypes.h"
#include "archive/catalogue.h"
#include "archive/format.h"

namespace brask::plan {

// A path of the tree as lstat sees it (a symbolic link is not followed).
struct LiveFile {
    enum class Kind : std::uint8_t { Missing, Regular, Symlink, Directory, Other };
    Kind kind = Kind::Missing;
    std::uint64_t size = 0;
    std::uint32_t mode = 0;  // st_mode, type bits included
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::uint32_t links = 0;
    bool exists() const { return kind != Kind::Missing; }
};
// What lstat said of a path, as a plan sees it.
LiveFile liveFileOf(const struct stat& st);

// The tree a plan is made for: the live configuration, or a copy of one.
class Tree {
public:
    virtual LiveFile lookup(const char* path) const = 0;  // path as the catalogue names it
    // Asked once per whole-file entry, before its path is looked at, as the
    // restore has always asked the platform.
    virtual bool maintenanceMode() const = 0;

protected:
    ~Tree() = default;
};

// The device that keeps a copy of a restored file's content.
enum class Device : std::uint8_t { None, Fru, PostCheckCode, WatchdogParameters };

enum class Action : std::uint8_t {
    Write,            // the whole stored image replaces the file (or makes it)
    WriteParts,       // PMConfig.dat: the part list over the file's own bytes
    CreateWhole,      // PMConfig.dat missing: made from the whole image; the pass ends with it
    SkipUnknown,      // no catalogue row names it: nothing is written, not even the mode
    SkipPartRow,      // a part-restore row other than PMConfig.dat: not written, owner and mode set
    SkipMaintenance,  // /conf/interfaces in maintenance mode: left exactly as it is
    FailNoSuffix,     // stored name without ".bak": the pass stops with a failure
    FailEmptyTarget,  // stored name that names no file: the pass stops with a failure
};

struct EntryStep {
    Action action = Action::SkipUnknown;
    unsigned entryIndex = 0;
    std::string_view target;                // the active path (into the block, not NUL-terminated)
    const BackupFileList_T* row = nullptr;  // null unless a catalogue row names the target
    svfBraskArchiveEntryInfo_T info{};
    format::Bytes data;
    Device device = Device::None;
    LiveFile before;  // the target when the plan was made

    bool writes() const {
        return action == Action::Write || action == Action::WriteParts || action == Action::CreateWhole;
    }
    bool setsOwnerAndMode() const { return writes() || action == Action::SkipPartRow; }
    bool partRow() const { return row != nullptr && row->TargetPart != WHOLE; }
};

struct Deletion {
    const BackupFileList_T* row = nullptr;
    // A later step writes the file back: it is replaced then, never removed first.
    bool replaced = false;
    LiveFile before;
};

// Why a block is refused before anything changes.
struct Rejection {
    unsigned entryIndex = 0;
    const char* reason = nullptr;
};

class BlockPlan {
public:
    // Plans `block` (a whole block file whose checksum holds) as block
    // `blockNum` of a restore through `cat`, against `tree`.
    BlockPlan(const catalogue::Selection& cat, format::Bytes block, unsigned blockNum, const Tree& tree);

    // False when the block is refused (rejection() says why) or the plan
    // could not be held in memory (rejection() is then empty).
    bool ok() const { return ok_; }
    const Rejection* rejection() const { return rejected_ ? &rejection_ : nullptr; }
    std::span<const Deletion> deletions() const { return {deletions_.get(), deletionCount_}; }
    std::span<const EntryStep> entries() const { return {entries_.get(), entryCount_}; }

private:
    void reject(unsigned entryIndex, const char* reason);
    bool checkStructure(format::Bytes block);
    void planDeletions(const catalogue::Selection& cat, unsigned blockNum, const Tree& tree);
    void planEntries(const catalogue::Selection& cat, format::Bytes block, const Tree& tree);

    bool ok_ = false;
    bool rejected_ = false;
    Rejection rejection_{};
    std::unique_ptr<Deletion[]> deletions_;
    std::size_t deletionCount_ = 0;
    std::unique_ptr<EntryStep[]> entries_;
    std::size_t entryCount_ = 0;
};

// The device restore a whole-file write of `target` triggers.
Device deviceFor(std::string_view target);

// The active path an entry restores: its stored name, as a C string (up to a
// NUL), cut at the first ".bak".  False when there is no ".bak".
bool targetOf(std::string_view storedName, std::string_view& target);

}  // namespace brask::plan
