// Replacing a configuration file so that an interruption leaves it either
// as it was or as it should become, never torn: the new bytes go to a
// temporary beside the target, get the target's new owner and mode, reach
// the disk, and only then does a rename publish them.
//
// A temporary is ".<name>.svf-new" in the target's own directory (a rename
// never crosses a file system).  It is made with O_EXCL and O_NOFOLLOW, so a
// link planted under that name is never followed; a leftover of a killed
// restore is removed first.  What the rename replaces is the directory entry:
// a symbolic link at the target is replaced by the file (its destination is
// left alone), and a hard link at the target keeps the old bytes under its
// other names.
#pragma once

#include <sys/types.h>

#include <climits>
#include <cstdint>
#include <span>

#include "BraskSvf/svfTypes.h"
#include "archive/format.h"
#include "common/scoped.h"

namespace brask::replace {

// What went wrong, so that each caller reports it with its own step's message.
enum class Failure : std::uint8_t {
    None,
    Create,   // the temporary could not be made
    Read,     // the target's own bytes could not be read (part restore)
    Seek,     // a part's offset could not be reached
    Write,    // the bytes did not all reach the temporary
    Sync,     // the bytes could not be flushed to the disk
    Publish,  // the rename over the target failed
};

struct Outcome {
    Failure failure = Failure::None;
    int error = 0;  // errno of the failed call
    bool ok() const { return failure == Failure::None; }
};

// The temporary for `target`; false, with errno set, when it would not fit
// `out`.
bool tempPathFor(const char* target, char (&out)[PATH_MAX]);
// Removes the temporary of `target` if one is there (a leftover, or one this
// restore staged and will not publish).
void discard(const char* target);

// The file systems that staged bytes were written to: one descriptor each,
// so that one syncfs per file system flushes a whole batch.
class SyncSet {
public:
    void add(int fd);
    // Flushes every file system met so far; errno is set on failure.
    bool sync();

private:
    static constexpr int kMaxFileSystems = 4;
    ScopedFd fds_[kMaxFileSystems];
    dev_t devices_[kMaxFileSystems] = {};
    int count_ = 0;
    bool overflow_ = false;  // more file systems than slots: sync() syncs them all
};

// Writes `data` as the whole new content of `target` into its temporary,
// with the entry's owner and mode.  Leaves nothing behind on failure.
Outcome stageWhole(const char* target, format::Bytes data, const svfBraskArchiveEntryInfo_T& info,
                   SyncSet& sync);
// Writes a copy of `target` with each part of `parts` taken from `data`
// (at the same offset) into its temporary, with the entry's owner and mode.
Outcome stageParts(const char* target, format::Bytes data, std::span<const PartOffsetList_T> parts,
                   const svfBraskArchiveEntryInfo_T& info, SyncSet& sync);
// Renames the temporary over `target`; the temporary is removed on failure.
Outcome publish(const char* target);

// Flushes a directory's entries (a rename into it) to the disk; false with
// errno set when it cannot.
bool syncDirectory(const char* path);

}  // namespace brask::replace
