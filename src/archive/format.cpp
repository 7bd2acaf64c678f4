// The archive block and backup file formats, decoded and encoded without
// touching any file.  Unit svfBraskArchiver.
#include "archive/format.h"

#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>

namespace brask::format {
namespace {

std::uint16_t getU16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }

std::uint32_t getU32(const std::uint8_t* p) {
    return std::uint32_t{p[0]} | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) |
           (std::uint32_t{p[3]} << 24);
}

}  // namespace

const char* statusText(Status s) {
    switch (s) {
        case Status::Ok:
            return "ok";
        case Status::Truncated:
            return "truncated";
        case Status::NameTooLong:
            return "name too long";
        case Status::OffsetBeforeName:
            return "data offset inside its descriptor";
        case Status::NegativeSize:
            return "negative size";
        case Status::DataPastEnd:
            return "data past the end";
    }
    return "unknown";
}

// ---- ByteCursor ------------------------------------------------------------------

bool ByteCursor::seek(std::size_t pos) {
    if (pos > bytes_.size()) return false;
    pos_ = pos;
    return true;
}

bool ByteCursor::skip(std::size_t n) {
    if (n > remaining()) return false;
    pos_ += n;
    return true;
}

bool ByteCursor::u8(std::uint8_t& v) {
    if (remaining() < 1) return false;
    v = bytes_[pos_++];
    return true;
}

bool ByteCursor::u16(std::uint16_t& v) {
    if (remaining() < 2) return false;
    v = getU16(bytes_.data() + pos_);
    pos_ += 2;
    return true;
}

bool ByteCursor::u32(std::uint32_t& v) {
    if (remaining() < 4) return false;
    v = getU32(bytes_.data() + pos_);
    pos_ += 4;
    return true;
}

bool ByteCursor::i32(std::int32_t& v) {
    std::uint32_t u = 0;
    if (!u32(u)) return false;
    v = static_cast<std::int32_t>(u);
    return true;
}

bool ByteCursor::take(std::size_t n, Bytes& out) {
    if (n > remaining()) return false;
    out = bytes_.subspan(pos_, n);
    pos_ += n;
    return true;
}

bool ByteCursor::copy(void* dst, std::size_t n) {
    if (n > remaining()) return false;
    if (n > 0) std::memcpy(dst, bytes_.data() + pos_, n);
    pos_ += n;
    return true;
}

// ---- ByteWriter ------------------------------------------------------------------

bool ByteWriter::room(std::size_t n) {
    if (ok_ && n <= out_.size() - pos_) return true;
    ok_ = false;
    return false;
}

ByteWriter& ByteWriter::u8(std::uint8_t v) {
    if (room(1)) out_[pos_++] = v;
    return *this;
}

ByteWriter& ByteWriter::u16(std::uint16_t v) {
    const std::uint8_t le[2] = {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8)};
    return bytes(le, sizeof le);
}

ByteWriter& ByteWriter::u32(std::uint32_t v) {
    const std::uint8_t le[4] = {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8),
                                static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 24)};
    return bytes(le, sizeof le);
}

ByteWriter& ByteWriter::bytes(const void* src, std::size_t n) {
    if (room(n) && n > 0) {
        std::memcpy(out_.data() + pos_, src, n);
        pos_ += n;
    }
    return *this;
}

// ---- Checksum --------------------------------------------------------------------

std::uint32_t wordSum(Bytes bytes, std::uint32_t start) {
    std::uint32_t sum = start;
    const std::size_t words = bytes.size() / 4;
    const std::uint8_t* p = bytes.data();
    if constexpr (std::endian::native == std::endian::little) {
        // Four independent 4-lane accumulators: the checksum of a large file
        // runs at memory speed instead of one dependent add per word.  The
        // lanes wrap modulo 2^32 like the sum itself, so the total is equal.
        typedef std::uint32_t Lanes __attribute__((vector_size(16)));
        Lanes a = {0, 0, 0, 0}, b = a, c = a, d = a;
        std::size_t i = 0;
        for (; i + 16 <= words; i += 16) {
            Lanes x, y, z, w;  // memcpy keeps the loads alignment-safe
            std::memcpy(&x, p + 4 * i, 16);
            std::memcpy(&y, p + 4 * i + 16, 16);
            std::memcpy(&z, p + 4 * i + 32, 16);
            std::memcpy(&w, p + 4 * i + 48, 16);
            a += x;
            b += y;
            c += z;
            d += w;
        }
        const Lanes t = a + b + c + d;
        sum += t[0] + t[1] + t[2] + t[3];
        for (; i < words; ++i) {
            std::uint32_t w;
            std::memcpy(&w, p + 4 * i, 4);
            sum += w;
        }
    } else {
        for (std::size_t i = 0; i < words; ++i) sum += getU32(p + 4 * i);
    }
    const std::size_t tail = bytes.size() % 4;
    if (tail != 0) {
        std::uint8_t last[4] = {0, 0, 0, 0};
        std::memcpy(last, p + 4 * words, tail);
        sum += getU32(last);
    }
    return sum;
}

// ---- Archive block ---------------------------------------------------------------

Status decodeArchiveHeader(Bytes block, svfBraskArchiveFileHeader_T& out) {
    ByteCursor c(block);
    svfBraskArchiveFileHeader_T h{};
    if (!c.u8(h.Version) || !c.u8(h.Reserve) || !c.u16(h.NumOfEntry) || !c.u32(h.ChkSum)) {
        return Status::Truncated;
    }
    out = h;
    return Status::Ok;
}

std::array<std::uint8_t, kArchiveHeaderSize> encodeArchiveHeader(const svfBraskArchiveFileHeader_T& in) {
    std::array<std::uint8_t, kArchiveHeaderSize> out{};
    ByteWriter(out).u8(in.Version).u8(in.Reserve).u16(in.NumOfEntry).u32(in.ChkSum);
    return out;
}

Status decodeArchiveEntry(Bytes block, std::size_t offset, ArchiveEntry& out) {
    ByteCursor c(block);
    svfBraskArchiveEntryInfo_T info{};
    if (!c.seek(offset) || !c.u32(info.FileOffset) || !c.i32(info.FileSize) || !c.u32(info.FileUid) ||
        !c.u32(info.FileGid) || !c.u32(info.FilePermission)) {
        return Status::Truncated;
    }
    const std::size_t nameStart = c.pos();
    if (info.FileOffset < nameStart) return Status::OffsetBeforeName;
    const std::size_t nameLength = info.FileOffset - nameStart;
    // The reader copies the name into a 152-byte buffer with its NUL.
    if (nameLength > kMaxStoredNameLength) return Status::NameTooLong;
    Bytes name;
    if (!c.take(nameLength, name)) return Status::Truncated;
    if (info.FileSize < 0) return Status::NegativeSize;
    Bytes data;
    if (!c.take(static_cast<std::size_t>(info.FileSize), data)) return Status::DataPastEnd;

    out.info = info;
    out.entryOffset = offset;
    out.name = std::string_view(reinterpret_cast<const char*>(name.data()), name.size());
    out.data = data;
    out.nextOffset = c.pos();
    return Status::Ok;
}

std::array<std::uint8_t, kArchiveEntryInfoSize> encodeArchiveEntryInfo(const svfBraskArchiveEntryInfo_T& in) {
    std::array<std::uint8_t, kArchiveEntryInfoSize> out{};
    ByteWriter(out)
        .u32(in.FileOffset)
        .i32(in.FileSize)
        .u32(in.FileUid)
        .u32(in.FileGid)
        .u32(in.FilePermission);
    return out;
}

bool entryDataOffset(std::uint64_t entryOffset, std::size_t nameLength, std::uint32_t& out) {
    const std::uint64_t at = entryOffset + kArchiveEntryInfoSize + nameLength;
    if (at > UINT32_MAX) return false;
    out = static_cast<std::uint32_t>(at);
    return true;
}

ArchiveEntryWalk::ArchiveEntryWalk(Bytes block) : block_(block) {
    headerOk_ = decodeArchiveHeader(block, header_) == Status::Ok;
    if (!headerOk_) status_ = Status::Truncated;
}

bool ArchiveEntryWalk::next(ArchiveEntry& out) {
    if (status_ != Status::Ok || decoded_ >= header_.NumOfEntry) return false;
    ArchiveEntry entry;
    status_ = decodeArchiveEntry(block_, offset_, entry);
    if (status_ != Status::Ok) return false;
    offset_ = entry.nextOffset;
    ++decoded_;
    out = entry;
    return true;
}

// ---- Backup file -----------------------------------------------------------------

Status decodeBackupHeader(Bytes file, svfBraskBackupFileHeader_T& out) {
    ByteCursor c(file);
    svfBraskBackupFileHeader_T h{};
    std::uint32_t timeStamp = 0;
    std::uint32_t chkSum = 0;
    const bool ok =
        c.u8(h.Version) && c.u8(h.DataRev) && c.copy(h.Reserve, sizeof h.Reserve) &&
        c.copy(h.ModelNumber, sizeof h.ModelNumber) && c.copy(h.SerialNumber, sizeof h.SerialNumber) &&
        c.copy(h.ModuleType, sizeof h.ModuleType) && c.copy(h.Reserve2, sizeof h.Reserve2) &&
        c.copy(h.UUID, sizeof h.UUID) && c.u32(timeStamp) && c.u8(h.BmcRev.Major) && c.u8(h.BmcRev.Minor) &&
        c.u8(h.EfiRev.Major) && c.u8(h.EfiRev.Minor) && c.u8(h.FwType) && c.u8(h.NumOfBlock) && c.u32(chkSum);
    if (!ok) return Status::Truncated;
    h.TimeStamp = timeStamp;
    h.ChkSum = chkSum;
    out = h;
    return Status::Ok;
}

std::array<std::uint8_t, kBackupHeaderSize> encodeBackupHeader(const svfBraskBackupFileHeader_T& in) {
    std::array<std::uint8_t, kBackupHeaderSize> out{};
    ByteWriter(out)
        .u8(in.Version)
        .u8(in.DataRev)
        .bytes(in.Reserve, sizeof in.Reserve)
        .bytes(in.ModelNumber, sizeof in.ModelNumber)
        .bytes(in.SerialNumber, sizeof in.SerialNumber)
        .bytes(in.ModuleType, sizeof in.ModuleType)
        .bytes(in.Reserve2, sizeof in.Reserve2)
        .bytes(in.UUID, sizeof in.UUID)
        .u32(in.TimeStamp)
        .u8(in.BmcRev.Major)
        .u8(in.BmcRev.Minor)
        .u8(in.EfiRev.Major)
        .u8(in.EfiRev.Minor)
        .u8(in.FwType)
        .u8(in.NumOfBlock)
        .u32(in.ChkSum);
    return out;
}

Status decodeBlockInfo(Bytes file, unsigned index, svfBraskBackupFileBlockInfo_T& out) {
    ByteCursor c(file);
    svfBraskBackupFileBlockInfo_T b{};
    const std::size_t at = kBackupHeaderSize + kBlockInfoSize * std::size_t{index};
    if (!c.seek(at) || !c.u32(b.BlockOffset) || !c.i32(b.BlockSize) || !c.u8(b.CrypticType) ||
        !c.u8(b.InheritanceType) || !c.copy(b.Reserve, sizeof b.Reserve)) {
        return Status::Truncated;
    }
    out = b;
    return Status::Ok;
}

std::array<std::uint8_t, kBlockInfoSize> encodeBlockInfo(const svfBraskBackupFileBlockInfo_T& in) {
    std::array<std::uint8_t, kBlockInfoSize> out{};
    ByteWriter(out)
        .u32(in.BlockOffset)
        .i32(in.BlockSize)
        .u8(in.CrypticType)
        .u8(in.InheritanceType)
        .bytes(in.Reserve, sizeof in.Reserve);
    return out;
}

Status blockBytes(Bytes file, const svfBraskBackupFileBlockInfo_T& info, Bytes& out) {
    if (info.BlockSize < 0) return Status::NegativeSize;
    ByteCursor c(file);
    if (!c.seek(info.BlockOffset)) return Status::DataPastEnd;
    if (!c.take(static_cast<std::size_t>(info.BlockSize), out)) return Status::DataPastEnd;
    return Status::Ok;
}

Status headerAreaBytes(Bytes file, const svfBraskBackupFileHeader_T& header, Bytes& out) {
    ByteCursor c(file);
    if (!c.take(backupHeaderAreaSize(header.NumOfBlock), out)) return Status::Truncated;
    return Status::Ok;
}

std::uint32_t limitedSum(Bytes file, std::uint32_t limit) {
    const std::size_t counted = file.size() >= limit ? limit : file.size() - file.size() % 4;
    return wordSum(file.first(counted));
}

HeaderVerdict judgeBackupHeader(const svfBraskBackupFileHeader_T& header, std::uint32_t headerSum,
                                unsigned fwType, unsigned restoreMode) {
    if (headerSum != 0) return HeaderVerdict::Checksum;
    if (header.Version != kBackupVersion) return HeaderVerdict::UnknownFormat;
    if (header.FwType != fwType) return HeaderVerdict::FwTypeMismatch;
    // Only a BMC backup that this server restores as its own has its data
    // revision looked at.
    if (fwType == BMC_FILE && restoreMode != N_P_M && header.DataRev != kBackupDataRev) {
        return HeaderVerdict::UnknownDataRev;
    }
    return HeaderVerdict::Ok;
}

Refusal refusalOf(HeaderVerdict verdict) {
    switch (verdict) {
        case HeaderVerdict::Checksum:
            return {SVF_EXTRACT_CHECKSUM_MISMATCH, "ChkSum not Match"};
        case HeaderVerdict::UnknownFormat:
            return {SVF_EXTRACT_UNKNOWN_FORMAT, "Unknown File Format"};
        case HeaderVerdict::FwTypeMismatch:
            return {SVF_EXTRACT_FW_TYPE_MISMATCH, "FwTyep not Match"};
        case HeaderVerdict::UnknownDataRev:
            return {SVF_EXTRACT_UNKNOWN_DATA_REV, "Unknown Data Rev"};
        case HeaderVerdict::Ok:
            break;
    }
    return {0, ""};
}

Refusal refusalOf(IdentityVerdict verdict) {
    switch (verdict) {
        case IdentityVerdict::ModelMismatch:
            return {SVF_EXTRACT_IDENTITY_MISMATCH, "ModelNumber Mismatch"};
        case IdentityVerdict::SerialMismatch:
            return {SVF_EXTRACT_IDENTITY_MISMATCH, "SerialNumber Mismatch"};
        case IdentityVerdict::Ok:
            break;
    }
    return {0, ""};
}

IdentityVerdict compareIdentity(const svfBraskBackupFileHeader_T& own,
                                const svfBraskBackupFileHeader_T& file) {
    if (std::memcmp(own.ModelNumber, file.ModelNumber, sizeof own.ModelNumber) != 0) {
        return IdentityVerdict::ModelMismatch;
    }
    if (std::memcmp(own.SerialNumber, file.SerialNumber, sizeof own.SerialNumber) != 0) {
        return IdentityVerdict::SerialMismatch;
    }
    return IdentityVerdict::Ok;
}

ContentKind classifyContent(Bytes bytes) {
    if (bytes.size() >= 4 && bytes[2] == 0 && bytes[3] == 0 && bytes.size() != kArchiveHeaderSize) {
        return ContentKind::BackupFile;
    }
    return bytes.size() < 4 ? ContentKind::BackupFile : ContentKind::ArchiveBlock;
}

}  // namespace brask::format
