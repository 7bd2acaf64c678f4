// Treats the input as an archive block and walks its entries as the block
// reader does: every name and data span handed out lies inside the block,
// names stay below 152 bytes and each entry moves the walk forward.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const format::Bytes block(data, size);
    format::ArchiveEntryWalk walk(block);
    assert(walk.headerOk() == (size >= format::kArchiveHeaderSize));
    std::size_t offset = format::kArchiveHeaderSize;
    for (format::ArchiveEntry entry; walk.next(entry); offset = entry.nextOffset) {
        // Name and data are spans of the block itself, at their offsets.
        assert(entry.entryOffset == offset && entry.name.size() < SVF_FILE_PASS_SIZE);
        assert(entry.name.data() ==
               reinterpret_cast<const char*>(data) + offset + format::kArchiveEntryInfoSize);
        assert(entry.data.data() == data + entry.info.FileOffset);
        assert(entry.info.FileSize >= 0 && entry.data.size() == std::size_t(entry.info.FileSize));
        // The name sits between the descriptor and the data, the data ends
        // where the next entry starts.
        assert(entry.info.FileOffset == offset + format::kArchiveEntryInfoSize + entry.name.size());
        assert(entry.nextOffset == entry.info.FileOffset + entry.data.size());
        assert(entry.nextOffset > entry.entryOffset && entry.nextOffset <= size);
    }
    assert(walk.offset() == offset);
    return 0;
}
