// Helpers the archive suites share.
#pragma once

#include <cstdint>
#include <vector>

#include "archive/format.h"

namespace brask::test {

// Decodes a whole block, header and every entry up to its last byte; false
// on the first refusal.  Entries' data point into `block`.
inline bool decodesFully(const std::vector<std::uint8_t>& block,
                         std::vector<format::ArchiveEntry>* entries = nullptr) {
    svfBraskArchiveFileHeader_T h{};
    if (format::decodeArchiveHeader(block, h) != format::Status::Ok) return false;
    std::size_t p = format::kArchiveHeaderSize;
    for (unsigned i = 0; i < h.NumOfEntry; ++i) {
        format::ArchiveEntry e;
        if (format::decodeArchiveEntry(block, p, e) != format::Status::Ok || e.entryOffset != p) return false;
        if (entries) entries->push_back(e);
        p = e.nextOffset;
    }
    return p == block.size();
}

}  // namespace brask::test
