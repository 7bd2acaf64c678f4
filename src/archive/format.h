// Side-effect-free knowledge of the archive block and backup file formats.
//
// Every read of outside bytes goes through ByteCursor, which cannot read past
// the span it was given; decoders return a Status instead of trusting a
// length or offset from the file.  Every encoder writes through ByteWriter,
// its mirror, so no offset is computed by hand.  The file-bound operations,
// svfdump, svfsim and the fuzzers all go through here; nothing here touches
// a file.  All integers are little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "BraskSvf/svfTypes.h"

namespace brask::format {

using Bytes = std::span<const std::uint8_t>;

// ---- Sizes fixed by the formats ---------------------------------------------
inline constexpr std::size_t kArchiveHeaderSize = 8;
inline constexpr std::size_t kArchiveEntryInfoSize = 20;
inline constexpr std::size_t kBackupHeaderSize = 96;
inline constexpr std::size_t kBlockInfoSize = 16;
inline constexpr std::uint8_t kArchiveVersion = 1;
inline constexpr std::uint8_t kBackupVersion = 1;
inline constexpr std::uint8_t kBackupDataRev = 0;
// Stored names are copied into 152-byte buffers with a terminating NUL.
inline constexpr std::size_t kMaxStoredNameLength = SVF_FILE_PASS_SIZE - 1;

// Header size of a backup file with `numOfBlock` blocks: (n + 6) * 16.
constexpr std::size_t backupHeaderAreaSize(unsigned numOfBlock) {
    return (static_cast<std::size_t>(numOfBlock) + 6u) * 16u;
}
// InheritanceType written for block i: 7, 6, then 2.
constexpr std::uint8_t inheritanceTypeFor(unsigned blockIndex) {
    return blockIndex == 0 ? 7 : blockIndex == 1 ? 6 : 2;
}

enum class Status {
    Ok,
    Truncated,         // the span ends before the structure does
    NameTooLong,       // a stored name of 152 bytes or more
    OffsetBeforeName,  // FileOffset points before the end of its descriptor
    NegativeSize,      // FileSize or BlockSize below 0
    DataPastEnd,       // data or a block reaches past the end of the span
};
const char* statusText(Status s);

// ---- Bounds-checked reading ---------------------------------------------------
class ByteCursor {
public:
    explicit ByteCursor(Bytes bytes) : bytes_(bytes) {}
    std::size_t pos() const { return pos_; }
    std::size_t remaining() const { return bytes_.size() - pos_; }
    std::size_t size() const { return bytes_.size(); }
    // Each returns false, and moves nothing, when the bytes are not there.
    bool seek(std::size_t pos);
    bool skip(std::size_t n);
    bool u8(std::uint8_t& v);
    bool u16(std::uint16_t& v);
    bool u32(std::uint32_t& v);
    bool i32(std::int32_t& v);
    bool take(std::size_t n, Bytes& out);
    bool copy(void* dst, std::size_t n);

private:
    Bytes bytes_;
    std::size_t pos_ = 0;
};

// ---- Bounds-checked writing ---------------------------------------------------
// Writes forward into a span it cannot overrun.  A put that does not fit
// writes nothing and makes ok() false for good, so an encoder chains its
// puts and checks once.
class ByteWriter {
public:
    explicit ByteWriter(std::span<std::uint8_t> out) : out_(out) {}
    std::size_t pos() const { return pos_; }
    bool ok() const { return ok_; }
    ByteWriter& u8(std::uint8_t v);
    ByteWriter& u16(std::uint16_t v);
    ByteWriter& u32(std::uint32_t v);
    ByteWriter& i32(std::int32_t v) { return u32(static_cast<std::uint32_t>(v)); }
    ByteWriter& bytes(const void* src, std::size_t n);

private:
    bool room(std::size_t n);
    std::span<std::uint8_t> out_;
    std::size_t pos_ = 0;
    bool ok_ = true;
};

// ---- The additive checksum -----------------------------------------------------
// Sum of little-endian 32-bit words modulo 2^32; a final group of 1 to 3
// bytes counts as a word zero-padded at its high end (whole-file mode).
std::uint32_t wordSum(Bytes bytes, std::uint32_t start = 0);
// The value that makes the sum 0: (2^32 - sum) mod 2^32.
constexpr std::uint32_t zeroSumComplement(std::uint32_t sum) { return 0u - sum; }

// ---- Archive block ---------------------------------------------------------------
struct ArchiveEntry {
    svfBraskArchiveEntryInfo_T info{};
    std::size_t entryOffset = 0;  // where the descriptor starts in the block
    std::string_view name;        // stored name (backup-copy path), no NUL
    Bytes data;                   // the FileSize data bytes
    std::size_t nextOffset = 0;   // FileOffset + FileSize: the next entry
};

Status decodeArchiveHeader(Bytes block, svfBraskArchiveFileHeader_T& out);
std::array<std::uint8_t, kArchiveHeaderSize> encodeArchiveHeader(const svfBraskArchiveFileHeader_T& in);
// Decodes the entry whose descriptor starts at `offset`, checking the name
// length, FileOffset against the descriptor, FileSize and the data bounds.
Status decodeArchiveEntry(Bytes block, std::size_t offset, ArchiveEntry& out);
std::array<std::uint8_t, kArchiveEntryInfoSize> encodeArchiveEntryInfo(const svfBraskArchiveEntryInfo_T& in);
// FileOffset of an entry that starts at `entryOffset` and stores a name of
// `nameLength` bytes: its data follow the descriptor and the name.  False
// when the data would start beyond what 32 bits can say.
bool entryDataOffset(std::uint64_t entryOffset, std::size_t nameLength, std::uint32_t& out);

// The one walk of a block's entries, shared by the restore, svfdump, svfsim
// and the fuzzers: the NumOfEntry entries in order from offset 8, each one
// starting where the previous one's data ends.  next() yields one entry at a
// time and stops for good at the first entry that does not decode; status()
// then says why.  Nothing after the last entry is looked at, as a restore
// does not; trailingBytes() says how much there is, for a reader to remark.
class ArchiveEntryWalk {
public:
    explicit ArchiveEntryWalk(Bytes block);
    bool next(ArchiveEntry& out);
    Status status() const { return status_; }
    bool headerOk() const { return headerOk_; }
    const svfBraskArchiveFileHeader_T& header() const { return header_; }
    unsigned decoded() const { return decoded_; }   // entries handed out so far
    std::size_t offset() const { return offset_; }  // where the next entry would start
    // Every entry decoded: the walk reached the end of its entries.
    bool complete() const { return status_ == Status::Ok && decoded_ == header_.NumOfEntry; }
    // Bytes after the last entry once complete() (0 otherwise).
    std::size_t trailingBytes() const { return complete() ? block_.size() - offset_ : 0; }

private:
    Bytes block_;
    svfBraskArchiveFileHeader_T header_{};
    bool headerOk_ = false;
    Status status_ = Status::Ok;
    unsigned decoded_ = 0;
    std::size_t offset_ = kArchiveHeaderSize;
};

// ---- Backup file -------------------------------------------------------------------
Status decodeBackupHeader(Bytes file, svfBraskBackupFileHeader_T& out);
std::array<std::uint8_t, kBackupHeaderSize> encodeBackupHeader(const svfBraskBackupFileHeader_T& in);
// Descriptor i, read at 96 + 16*i.
Status decodeBlockInfo(Bytes file, unsigned index, svfBraskBackupFileBlockInfo_T& out);
std::array<std::uint8_t, kBlockInfoSize> encodeBlockInfo(const svfBraskBackupFileBlockInfo_T& in);
// The block a descriptor locates, refused when negative or past the end.
Status blockBytes(Bytes file, const svfBraskBackupFileBlockInfo_T& info, Bytes& out);
// The header and block table that the header checksum covers:
// backupHeaderAreaSize(NumOfBlock) bytes, Truncated when the file is shorter.
Status headerAreaBytes(Bytes file, const svfBraskBackupFileHeader_T& header, Bytes& out);

// ---- What a restore accepts ------------------------------------------------------
// The sum svfGetFileSum gives over the first `limit` bytes: when the file
// ends before the limit, only its complete 4-byte groups count.
std::uint32_t limitedSum(Bytes file, std::uint32_t limit);

// The checks a restore makes of a backup file's header, in the order it
// makes them; the first one that fails is the verdict.
enum class HeaderVerdict { Ok, Checksum, UnknownFormat, FwTypeMismatch, UnknownDataRev };
// `headerSum` is limitedSum over the header and block table; `fwType` the
// requested file type, `restoreMode` the requester (N_P_M, SVP_CONSOL, ...).
HeaderVerdict judgeBackupHeader(const svfBraskBackupFileHeader_T& header, std::uint32_t headerSum,
                                unsigned fwType, unsigned restoreMode);

// The result svfExtractBraskBackupFile gives for a failed check, and the
// line it reports it with (without its line feed).
struct Refusal {
    int result;
    const char* message;
};
Refusal refusalOf(HeaderVerdict verdict);

// An N+M restore takes another server's backup: no identity check, and
// only block 0 is split out of it.
constexpr bool checksIdentity(unsigned restoreMode) { return restoreMode != N_P_M; }
constexpr unsigned blocksRestored(const svfBraskBackupFileHeader_T& header, unsigned restoreMode) {
    return restoreMode == N_P_M && header.NumOfBlock > 0 ? 1u : header.NumOfBlock;
}

// This server's model and serial number against a backup's.
enum class IdentityVerdict { Ok, ModelMismatch, SerialMismatch };
IdentityVerdict compareIdentity(const svfBraskBackupFileHeader_T& own,
                                const svfBraskBackupFileHeader_T& file);
Refusal refusalOf(IdentityVerdict verdict);

// ---- Telling the two formats apart ----------------------------------------------
// Both begin with a version byte 1 and a zero byte.  Bytes 2-3 are the block's
// NumOfEntry but the backup file's zero Reserve, and a block without entries
// is exactly 8 bytes long; so zero there with any other length is a backup
// file.  Damaged input still gets a kind, and then fails that kind's checks.
enum class ContentKind { BackupFile, ArchiveBlock };
ContentKind classifyContent(Bytes bytes);

}  // namespace brask::format
