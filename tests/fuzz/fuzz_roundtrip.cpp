// Encode/decode symmetry of every fixed record: each is decoded from the
// input bytes and encoded again, which must give the input's bytes (so a
// second round gives them too).  The input is read as [archive header 8]
// [entry descriptor 20][backup header 96][block descriptor 16][payload...],
// zero-padded when short; the entry is then decoded from a block built
// around it with its offset and size folded into what the payload holds.
#include "fuzz.h"

using format::Status;

constexpr std::size_t kEntryAt = format::kArchiveHeaderSize;
constexpr std::size_t kBackupAt = kEntryAt + format::kArchiveEntryInfoSize;
constexpr std::size_t kPayloadAt = kBackupAt + format::kBackupHeaderSize + format::kBlockInfoSize;

template <class Encoded>
static bool encodesTo(const Encoded& encoded, const std::uint8_t* raw) {
    return std::equal(encoded.begin(), encoded.end(), raw);
}

// A negative FileSize is kept to check that it is refused.
static void archiveEntry(const std::uint8_t* rawInfo, format::Bytes payload) {
    svfBraskArchiveEntryInfo_T info{};
    format::ByteCursor in(format::Bytes(rawInfo, format::kArchiveEntryInfoSize));
    assert(in.u32(info.FileOffset) && in.i32(info.FileSize) && in.u32(info.FileUid) && in.u32(info.FileGid) &&
           in.u32(info.FilePermission));
    assert(encodesTo(format::encodeArchiveEntryInfo(info), rawInfo));

    const std::size_t nameLength =
        std::min<std::size_t>(info.FileOffset % (format::kMaxStoredNameLength + 1), payload.size());
    info.FileOffset = std::uint32_t(kEntryAt + format::kArchiveEntryInfoSize + nameLength);
    if (info.FileSize >= 0)
        info.FileSize = std::int32_t(std::size_t(info.FileSize) % (payload.size() - nameLength + 1));
    // A block holding just this entry: header, descriptor, name (at kBackupAt,
    // 28), data.
    const test::Bytes block =
        test::block({{.name = std::string(payload.begin(), payload.begin() + nameLength),
                      .data = test::Bytes(payload.begin() + nameLength, payload.end()),
                      .mode = info.FilePermission,
                      .uid = info.FileUid,
                      .gid = info.FileGid,
                      .fileSize = info.FileSize}});
    assert(encodesTo(format::encodeArchiveEntryInfo(info), block.data() + kEntryAt));
    format::ArchiveEntry entry;
    const Status st = format::decodeArchiveEntry(block, kEntryAt, entry);
    assert(st == (info.FileSize < 0 ? Status::NegativeSize : Status::Ok));
    assert(st != Status::Ok ||
           (entry.name.size() == nameLength &&
            reinterpret_cast<const std::uint8_t*>(entry.name.data()) == block.data() + kBackupAt &&
            entry.data.size() == std::size_t(info.FileSize) &&
            entry.data.data() == block.data() + info.FileOffset &&
            encodesTo(format::encodeArchiveEntryInfo(entry.info), block.data() + kEntryAt)));
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::Bytes fixed(kPayloadAt);
    std::copy_n(data, std::min(size, kPayloadAt), fixed.begin());
    svfBraskArchiveFileHeader_T archive{};
    assert(format::decodeArchiveHeader(fixed, archive) == Status::Ok);
    assert(encodesTo(format::encodeArchiveHeader(archive), fixed.data()));
    archiveEntry(fixed.data() + kEntryAt,
                 size > kPayloadAt ? format::Bytes(data + kPayloadAt, size - kPayloadAt) : format::Bytes());

    // A backup header with descriptor 0 right behind it, as in a file;
    // descriptor 1 would lie past these bytes.
    const format::Bytes file = format::Bytes(fixed).subspan(kBackupAt);
    svfBraskBackupFileHeader_T header{};
    svfBraskBackupFileBlockInfo_T info{}, beyond{};
    assert(format::decodeBackupHeader(file, header) == Status::Ok &&
           format::decodeBlockInfo(file, 0, info) == Status::Ok);
    assert(format::decodeBlockInfo(file, 1, beyond) == Status::Truncated);
    assert(encodesTo(format::encodeBackupHeader(header), file.data()) &&
           encodesTo(format::encodeBlockInfo(info), file.data() + format::kBackupHeaderSize));
    return 0;
}
