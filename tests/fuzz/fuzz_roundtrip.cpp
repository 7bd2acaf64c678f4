// Encode/decode symmetry of every fixed record: each is built from the input
// bytes, encoded, decoded and encoded again, and both encodings must match.
// The input is read as [archive header 8][entry descriptor 20][backup header
// 96][block descriptor 16][payload...], zero-padded when short.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "archive/format.h"
#include "fuzzCheck.h"

using namespace brask;
using format::Status;

namespace {

constexpr std::size_t kArchiveHeaderAt = 0;
constexpr std::size_t kEntryAt = kArchiveHeaderAt + format::kArchiveHeaderSize;
constexpr std::size_t kBackupHeaderAt = kEntryAt + format::kArchiveEntryInfoSize;
constexpr std::size_t kBlockInfoAt = kBackupHeaderAt + format::kBackupHeaderSize;
constexpr std::size_t kPayloadAt = kBlockInfoAt + format::kBlockInfoSize;

void archiveHeader(const std::uint8_t* raw) {
    svfBraskArchiveFileHeader_T h{};
    FUZZ_CHECK(format::decodeArchiveHeader(format::Bytes(raw, format::kArchiveHeaderSize), h) == Status::Ok);
    const auto once = format::encodeArchiveHeader(h);
    FUZZ_CHECK(std::memcmp(once.data(), raw, once.size()) == 0);
    svfBraskArchiveFileHeader_T again{};
    FUZZ_CHECK(format::decodeArchiveHeader(format::Bytes(once), again) == Status::Ok);
    FUZZ_CHECK(format::encodeArchiveHeader(again) == once);
}

// A backup header with descriptor 0 right behind it, as in a file.
void encodeBoth(const svfBraskBackupFileHeader_T& h, const svfBraskBackupFileBlockInfo_T& b,
                std::uint8_t (&out)[format::kBackupHeaderSize + format::kBlockInfoSize]) {
    const auto header = format::encodeBackupHeader(h);
    const auto info = format::encodeBlockInfo(b);
    std::memcpy(out, header.data(), header.size());
    std::memcpy(out + header.size(), info.data(), info.size());
}

void backupHeaderAndBlockInfo(const std::uint8_t* rawHeader, const std::uint8_t* rawInfo) {
    // Block descriptor 0 sits right behind the header, as in a file.
    std::uint8_t file[format::kBackupHeaderSize + format::kBlockInfoSize];
    std::memcpy(file, rawHeader, format::kBackupHeaderSize);
    std::memcpy(file + format::kBackupHeaderSize, rawInfo, format::kBlockInfoSize);

    svfBraskBackupFileHeader_T h{};
    FUZZ_CHECK(format::decodeBackupHeader(format::Bytes(file), h) == Status::Ok);
    svfBraskBackupFileBlockInfo_T b{};
    FUZZ_CHECK(format::decodeBlockInfo(format::Bytes(file), 0, b) == Status::Ok);
    // Descriptor 1 would lie past these bytes.
    svfBraskBackupFileBlockInfo_T beyond{};
    FUZZ_CHECK(format::decodeBlockInfo(format::Bytes(file), 1, beyond) == Status::Truncated);

    std::uint8_t once[sizeof file];
    encodeBoth(h, b, once);
    FUZZ_CHECK(std::memcmp(once, file, sizeof file) == 0);

    svfBraskBackupFileHeader_T h2{};
    svfBraskBackupFileBlockInfo_T b2{};
    FUZZ_CHECK(format::decodeBackupHeader(format::Bytes(once), h2) == Status::Ok);
    FUZZ_CHECK(format::decodeBlockInfo(format::Bytes(once), 0, b2) == Status::Ok);
    std::uint8_t twice[sizeof file];
    encodeBoth(h2, b2, twice);
    FUZZ_CHECK(std::memcmp(once, twice, sizeof once) == 0);
}

// An entry descriptor from raw bytes, with FileOffset and FileSize folded
// into what the payload can hold so that most inputs decode; a negative
// FileSize is kept to check that it is refused.
void archiveEntry(const std::uint8_t* rawInfo, format::Bytes payload) {
    svfBraskArchiveEntryInfo_T info{};
    format::ByteCursor in(format::Bytes(rawInfo, format::kArchiveEntryInfoSize));
    FUZZ_CHECK(in.u32(info.FileOffset) && in.i32(info.FileSize) && in.u32(info.FileUid) &&
               in.u32(info.FileGid) && in.u32(info.FilePermission));

    const auto raw = format::encodeArchiveEntryInfo(info);
    FUZZ_CHECK(std::memcmp(raw.data(), rawInfo, raw.size()) == 0);

    const std::size_t nameLength =
        std::min<std::size_t>(info.FileOffset % (format::kMaxStoredNameLength + 1), payload.size());
    const std::size_t dataRoom = payload.size() - nameLength;
    info.FileOffset = static_cast<std::uint32_t>(format::kArchiveHeaderSize +
                                                 format::kArchiveEntryInfoSize + nameLength);
    if (info.FileSize >= 0) {
        info.FileSize = static_cast<std::int32_t>(static_cast<std::size_t>(info.FileSize) % (dataRoom + 1));
    }

    // A block holding just this entry: header, descriptor, name, data.
    std::vector<std::uint8_t> block(format::kArchiveHeaderSize + format::kArchiveEntryInfoSize);
    block[0] = format::kArchiveVersion;
    block[2] = 1;
    const auto once = format::encodeArchiveEntryInfo(info);
    std::memcpy(block.data() + format::kArchiveHeaderSize, once.data(), once.size());
    block.insert(block.end(), payload.begin(), payload.end());

    format::ArchiveEntry entry;
    const Status st = format::decodeArchiveEntry(format::Bytes(block), format::kArchiveHeaderSize, entry);
    if (info.FileSize < 0) {
        FUZZ_CHECK(st == Status::NegativeSize);
        return;
    }
    FUZZ_CHECK(st == Status::Ok);
    FUZZ_CHECK(entry.name.size() == nameLength);
    FUZZ_CHECK(nameLength == 0 || std::memcmp(entry.name.data(), payload.data(), nameLength) == 0);
    FUZZ_CHECK(entry.data.size() == static_cast<std::size_t>(info.FileSize));
    FUZZ_CHECK(entry.data.data() == block.data() + info.FileOffset);

    FUZZ_CHECK(format::encodeArchiveEntryInfo(entry.info) == once);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::uint8_t fixed[kPayloadAt] = {};
    if (size > 0) std::memcpy(fixed, data, std::min(size, sizeof fixed));
    const format::Bytes payload =
        size > kPayloadAt ? format::Bytes(data + kPayloadAt, size - kPayloadAt) : format::Bytes();

    archiveHeader(fixed + kArchiveHeaderAt);
    archiveEntry(fixed + kEntryAt, payload);
    backupHeaderAndBlockInfo(fixed + kBackupHeaderAt, fixed + kBlockInfoAt);
    return 0;
}
