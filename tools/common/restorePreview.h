// What restoring a backup file would do to a BMC's /conf, worked out with
// the library's own restore plan and nothing written: whether the restore
// would accept the file at all (the header, identity and block checks in
// the order the restore makes them), then, block by block, every file it
// would delete, write, keep or skip, with its size, mode and owner before
// and after.  svfsim previews its simulated BMC, svfdump a copy of a /conf.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "archive/format.h"
#include "archive/restorePlan.h"

namespace preview {

namespace format = brask::format;
namespace plan = brask::plan;

// A /conf tree under `root` ("" for this machine's own /), looked at with
// lstat and read, never written.  What earlier blocks of the same preview
// would have changed is kept on top of it, so each block is planned against
// the tree that the blocks before it leave.
class PreviewTree final : public plan::Tree {
public:
    PreviewTree(std::string root, bool maintenanceMode)
        : root_(std::move(root)), maintenance_(maintenanceMode) {}

    plan::LiveFile lookup(const char* path) const override;
    bool maintenanceMode() const override { return maintenance_; }

    // The file's bytes as the tree holds them (none when it is missing or not a regular file).
    std::optional<std::vector<std::uint8_t>> read(const std::string& path) const;
    // What a block did to a path, for the blocks after it.
    void set(const std::string& path, std::optional<std::vector<std::uint8_t>> content, std::uint32_t mode,
             std::uint32_t uid, std::uint32_t gid);

private:
    struct Change {
        std::optional<std::vector<std::uint8_t>> content;  // none: removed
        plan::LiveFile file;
    };
    std::string root_;
    bool maintenance_;
    std::map<std::string, Change> changes_;
};

// One path the restore would touch (or pass over), in the order it would.
struct Line {
    unsigned block = 0;
    // new, change, same, parts, delete, rename, skip, fail, refused
    std::string action;
    std::string path;
    plan::LiveFile before;
    bool existsAfter = false;
    std::vector<std::uint8_t> after;  // the content it would have
    std::uint32_t modeAfter = 0;      // permission bits
    std::uint32_t uidAfter = 0;
    std::uint32_t gidAfter = 0;
    std::string note;  // why it is skipped, refused or failing; device restores
};

struct Verdict {
    bool accepted = false;
    int result = 0;                   // svfExtractBraskBackupFile's result (0 when accepted)
    std::uint8_t completionCode = 0;  // Execute Restore Event's answer
    std::string reason;               // the restore's own message, or what would go wrong
};

struct Preview {
    Verdict verdict;
    std::vector<std::string> notes;  // what could not be checked here
    std::vector<Line> lines;
};

struct Request {
    std::uint8_t fwType = BMC_FILE;
    std::uint8_t restoreMode = BMC_WEB_CONSOLE;
    // This server's identity (model, serial); none: not checked.
    std::optional<svfBraskBackupFileHeader_T> identity;
};

// Previews restoring `file` (a whole backup file) on `tree`.
Preview previewBackup(format::Bytes file, const Request& request, PreviewTree& tree);

}  // namespace preview
