// Treats the input as an archive block and walks its entries the way the
// block reader does, checking that every name and data span the decoder hands
// out lies inside the block and that each entry moves the walk forward.
#include <cstddef>
#include <cstdint>

#include "archive/format.h"
#include "fuzzCheck.h"

using namespace brask;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const format::Bytes block(data, size);
    svfBraskArchiveFileHeader_T header{};
    if (format::decodeArchiveHeader(block, header) != format::Status::Ok) {
        FUZZ_CHECK(size < format::kArchiveHeaderSize);
        return 0;
    }
    FUZZ_CHECK(size >= format::kArchiveHeaderSize);

    std::size_t offset = format::kArchiveHeaderSize;
    for (unsigned i = 0; i < header.NumOfEntry; ++i) {
        format::ArchiveEntry entry;
        if (format::decodeArchiveEntry(block, offset, entry) != format::Status::Ok) break;
        FUZZ_CHECK(entry.entryOffset == offset);
        FUZZ_CHECK(fuzz::within(block, entry.name.data(), entry.name.size()));
        FUZZ_CHECK(fuzz::within(block, entry.data.data(), entry.data.size()));
        FUZZ_CHECK(entry.name.size() < SVF_FILE_PASS_SIZE);
        FUZZ_CHECK(entry.info.FileSize >= 0);
        FUZZ_CHECK(entry.data.size() == static_cast<std::size_t>(entry.info.FileSize));
        // The name sits between the descriptor and the data, the data ends
        // where the next entry starts.
        FUZZ_CHECK(entry.info.FileOffset == offset + format::kArchiveEntryInfoSize + entry.name.size());
        FUZZ_CHECK(entry.nextOffset == entry.info.FileOffset + entry.data.size());
        FUZZ_CHECK(entry.nextOffset > entry.entryOffset);
        FUZZ_CHECK(entry.nextOffset <= size);
        offset = entry.nextOffset;
    }
    return 0;
}
