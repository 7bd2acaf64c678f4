#include "support/builders.h"

#include <unistd.h>

#include <algorithm>

#include "BraskSvf/svfApi.h"
#include "archive/format.h"

namespace brask::test {
namespace {

namespace fmt = brask::format;

void put(Bytes& out, std::size_t at, std::span<const std::uint8_t> bytes) {
    if (out.size() < at + bytes.size()) out.resize(at + bytes.size());
    std::copy(bytes.begin(), bytes.end(), out.begin() + static_cast<std::ptrdiff_t>(at));
}

}  // namespace

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

StoredEntry entry(const std::string& path, std::string_view content, std::uint32_t mode) {
    StoredEntry e;
    e.name = path + ".bak";
    e.data = bytesOf(content);
    e.mode = mode;
    // Owned by whoever runs the test, so that restoring the owner succeeds.
    e.uid = static_cast<std::uint32_t>(::getuid());
    e.gid = static_cast<std::uint32_t>(::getgid());
    return e;
}

Bytes block(const std::vector<StoredEntry>& entries, const Bytes& trailing,
            std::optional<std::uint16_t> numOfEntry) {
    Bytes out(fmt::kArchiveHeaderSize);
    for (const StoredEntry& e : entries) {
        svfBraskArchiveEntryInfo_T info{};
        std::uint32_t dataOffset = 0;
        (void)fmt::entryDataOffset(out.size(), e.name.size(), dataOffset);
        info.FileOffset = e.fileOffset.value_or(dataOffset);
        info.FileSize = e.fileSize.value_or(static_cast<std::int32_t>(e.data.size()));
        info.FileUid = e.uid;
        info.FileGid = e.gid;
        info.FilePermission = e.mode;
        put(out, out.size(), fmt::encodeArchiveEntryInfo(info));
        put(out, out.size(), bytesOf(e.name));
        put(out, out.size(), e.data);
    }
    put(out, out.size(), trailing);
    svfBraskArchiveFileHeader_T header{};
    header.Version = fmt::kArchiveVersion;
    header.NumOfEntry = numOfEntry.value_or(static_cast<std::uint16_t>(entries.size()));
    put(out, 0, fmt::encodeArchiveHeader(header));
    sealBlock(out);
    return out;
}

// The ChkSum field goes through the encoder, never by offset: the sum is
// taken with it 0, then its complement is encoded.
void sealBlock(Bytes& block) {
    svfBraskArchiveFileHeader_T h{};
    if (fmt::decodeArchiveHeader(block, h) != fmt::Status::Ok) return;
    h.ChkSum = 0;
    put(block, 0, fmt::encodeArchiveHeader(h));
    h.ChkSum = fmt::zeroSumComplement(fmt::wordSum(block));
    put(block, 0, fmt::encodeArchiveHeader(h));
}

Bytes backup(const BackupLayout& layout) {
    svfBraskBackupFileHeader_T header{};
    if (!layout.model || !layout.serial) (void)svfGetProductIdFru(&header);
    const auto set = [](const std::optional<std::string>& text, auto& field) {
        if (!text) return;
        std::fill(std::begin(field), std::end(field), 0);
        std::copy_n(text->begin(), std::min(text->size(), sizeof field), field);
    };
    set(layout.model, header.ModelNumber);
    set(layout.serial, header.SerialNumber);
    header.Version = layout.version;
    header.DataRev = layout.dataRev;
    header.FwType = layout.fwType;
    header.NumOfBlock = static_cast<std::uint8_t>(layout.blocks.size());
    Bytes file(fmt::backupHeaderAreaSize(header.NumOfBlock));
    put(file, 0, fmt::encodeBackupHeader(header));
    for (std::size_t i = 0; i < layout.blocks.size(); ++i) {
        svfBraskBackupFileBlockInfo_T info{};
        info.BlockOffset = static_cast<std::uint32_t>(file.size());
        info.BlockSize = static_cast<std::int32_t>(layout.blocks[i].size());
        info.InheritanceType = fmt::inheritanceTypeFor(static_cast<unsigned>(i));
        put(file, fmt::kBackupHeaderSize + i * fmt::kBlockInfoSize, fmt::encodeBlockInfo(info));
        put(file, file.size(), layout.blocks[i]);
    }
    sealBackup(file);
    return file;
}

void sealBackup(Bytes& file) {
    svfBraskBackupFileHeader_T h{};
    if (fmt::decodeBackupHeader(file, h) != fmt::Status::Ok) return;
    h.ChkSum = 0;
    put(file, 0, fmt::encodeBackupHeader(h));
    const std::size_t area = std::min(fmt::backupHeaderAreaSize(h.NumOfBlock), file.size());
    h.ChkSum = fmt::zeroSumComplement(fmt::wordSum(fmt::Bytes(file.data(), area)));
    put(file, 0, fmt::encodeBackupHeader(h));
}

}  // namespace brask::test
