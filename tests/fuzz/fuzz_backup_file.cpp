// Treats the input as a backup file: decodes the header and every block
// descriptor it announces, locates each block and checks that the located
// bytes lie inside the file; sums the header area as the reader does.
#include <cstddef>
#include <cstdint>

#include "archive/format.h"
#include "fuzzCheck.h"

using namespace brask;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const format::Bytes file(data, size);
    svfBraskBackupFileHeader_T header{};
    if (format::decodeBackupHeader(file, header) != format::Status::Ok) {
        FUZZ_CHECK(size < format::kBackupHeaderSize);
        return 0;
    }
    FUZZ_CHECK(size >= format::kBackupHeaderSize);

    const std::size_t headerArea = format::backupHeaderAreaSize(header.NumOfBlock);
    if (headerArea <= size) {
        // Summing the area with its ChkSum included gives 0 for a sound file;
        // here only the arithmetic over arbitrary bytes is exercised.
        const std::uint32_t sum = format::wordSum(file.first(headerArea));
        const std::uint32_t fix = format::zeroSumComplement(sum);
        FUZZ_CHECK(static_cast<std::uint32_t>(sum + fix) == 0);
    }

    for (unsigned i = 0; i < header.NumOfBlock; ++i) {
        svfBraskBackupFileBlockInfo_T info{};
        const format::Status st = format::decodeBlockInfo(file, i, info);
        if (st != format::Status::Ok) {
            FUZZ_CHECK(format::kBackupHeaderSize + format::kBlockInfoSize * (i + 1) > size);
            break;
        }
        format::Bytes block;
        switch (format::blockBytes(file, info, block)) {
            case format::Status::Ok:
                FUZZ_CHECK(fuzz::within(file, block.data(), block.size()));
                FUZZ_CHECK(block.size() == static_cast<std::size_t>(info.BlockSize));
                FUZZ_CHECK(block.data() == data + info.BlockOffset);
                break;
            case format::Status::NegativeSize:
                FUZZ_CHECK(info.BlockSize < 0);
                break;
            case format::Status::DataPastEnd:
                FUZZ_CHECK(info.BlockSize >= 0);
                FUZZ_CHECK(std::size_t{info.BlockOffset} + static_cast<std::size_t>(info.BlockSize) > size);
                break;
            default:
                FUZZ_CHECK(!"blockBytes returned an unexpected status");
        }
    }
    return 0;
}
