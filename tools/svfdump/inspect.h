// What svfdump finds in a backup file or a single archive block: every field
// decoded through the format layer, each checksum recomputed, and the
// integrity failures in the order met.  Reads only the bytes it is given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "archive/format.h"

namespace svfdump {

namespace format = brask::format;

// An entry with the path a restore would write it to: the stored name cut at
// its first ".bak".  `target` is empty when the restore refuses the name.
struct Entry {
    format::ArchiveEntry raw;
    std::string target;
};

// A checksum recomputed over the bytes it covers.  The data sum to 0 when
// it matches; `expected` is the value ChkSum would need for that.
struct Checksum {
    std::uint32_t stored = 0;
    std::uint32_t sum = 0;
    bool ok() const { return sum == 0; }
    std::uint32_t expected() const { return stored - sum; }
};

struct Block {
    std::optional<svfBraskBackupFileBlockInfo_T> info;  // none for a lone block file
    bool located = false;                               // its bytes lie inside the file
    std::size_t size = 0;                               // bytes located
    bool headerOk = false;                              // at least the 8-byte block header is there
    svfBraskArchiveFileHeader_T header{};
    Checksum checksum;
    std::vector<Entry> entries;
};

struct Inspection {
    format::ContentKind kind = format::ContentKind::BackupFile;
    std::size_t fileSize = 0;
    bool headerOk = false;  // the 96-byte backup header is there
    svfBraskBackupFileHeader_T header{};
    bool headerAreaOk = false;  // the header and the whole block table are there
    Checksum headerChecksum;
    std::vector<Block> blocks;
    std::vector<std::string> failures;  // one line each; empty when sound
    // What a restore passes over without a word (bytes after a block's last
    // entry): worth saying, but no reason to call the file damaged.
    std::vector<std::string> remarks;

    bool sound() const { return failures.empty(); }
};

Inspection inspect(format::Bytes file, std::optional<format::ContentKind> kind = std::nullopt);

}  // namespace svfdump
