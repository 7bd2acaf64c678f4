// Treats the input as a backup file: decodes the header and every block
// descriptor it announces, locates each block and checks that the located
// bytes lie inside the file, each refusal with its reason; sums the header
// area as the reader does.
#include "fuzz.h"

using format::Status;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const format::Bytes file(data, size);
    svfBraskBackupFileHeader_T header{};
    const bool decoded = format::decodeBackupHeader(file, header) == Status::Ok;
    assert(decoded == (size >= format::kBackupHeaderSize));
    if (!decoded) return 0;
    format::Bytes area;
    if (format::headerAreaBytes(file, header, area) == Status::Ok) {
        const std::uint32_t sum = format::wordSum(area);
        assert(std::uint32_t(sum + format::zeroSumComplement(sum)) == 0);
    }
    for (unsigned i = 0; i < header.NumOfBlock; ++i) {
        svfBraskBackupFileBlockInfo_T info{};
        if (format::decodeBlockInfo(file, i, info) != Status::Ok) {
            assert(format::kBackupHeaderSize + format::kBlockInfoSize * (i + 1) > size);
            break;
        }
        format::Bytes block;
        const Status located = format::blockBytes(file, info, block);
        const std::size_t end = std::size_t{info.BlockOffset} + std::size_t(std::max(info.BlockSize, 0));
        assert(located == (info.BlockSize < 0 ? Status::NegativeSize
                           : end > size       ? Status::DataPastEnd
                                              : Status::Ok));
        // Located: the span of the file the descriptor names, inside it.
        assert(located != Status::Ok ||
               (block.data() == data + info.BlockOffset && block.size() == std::size_t(info.BlockSize)));
    }
    return 0;
}
