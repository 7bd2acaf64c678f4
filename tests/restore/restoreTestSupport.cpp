#include "restoreTestSupport.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace fmt = brask::format;

EntryShape entryFor(const std::string& path, const std::string& content, std::uint32_t mode) {
    EntryShape e;
    e.storedName = path + ".bak";
    e.data.assign(content.begin(), content.end());
    e.mode = mode;
    e.uid = static_cast<std::uint32_t>(::getuid());
    e.gid = static_cast<std::uint32_t>(::getgid());
    return e;
}

ByteVec buildBlock(const std::vector<EntryShape>& entries) {
    ByteVec block(fmt::kArchiveHeaderSize, 0);
    for (const EntryShape& e : entries) {
        const std::size_t at = block.size();
        svfBraskArchiveEntryInfo_T info{};
        info.FileOffset = e.fileOffset.value_or(
            static_cast<std::uint32_t>(at + fmt::kArchiveEntryInfoSize + e.storedName.size()));
        info.FileSize = e.fileSize.value_or(static_cast<std::int32_t>(e.data.size()));
        info.FileUid = e.uid;
        info.FileGid = e.gid;
        info.FilePermission = e.mode;
        const auto raw = fmt::encodeArchiveEntryInfo(info);
        block.insert(block.end(), raw.begin(), raw.end());
        block.insert(block.end(), e.storedName.begin(), e.storedName.end());
        block.insert(block.end(), e.data.begin(), e.data.end());
    }
    svfBraskArchiveFileHeader_T header{};
    header.Version = fmt::kArchiveVersion;
    header.NumOfEntry = static_cast<std::uint16_t>(entries.size());
    const auto raw = fmt::encodeArchiveHeader(header);
    std::copy(raw.begin(), raw.end(), block.begin());
    sealBlock(block);
    return block;
}

void sealBlock(ByteVec& block) {
    std::fill(block.begin() + 4, block.begin() + 8, 0);
    const std::uint32_t sum = fmt::zeroSumComplement(fmt::wordSum(block));
    for (int i = 0; i < 4; ++i) block[4 + i] = static_cast<std::uint8_t>(sum >> (8 * i));
}

ByteVec buildBackup(const BackupShape& shape) {
    svfBraskBackupFileHeader_T header{};
    if (shape.ownIdentity) {
        EXPECT_EQ(svfGetProductIdFru(&header), 0);
    } else {
        shape.model.copy(reinterpret_cast<char*>(header.ModelNumber), sizeof header.ModelNumber);
        shape.serial.copy(reinterpret_cast<char*>(header.SerialNumber), sizeof header.SerialNumber);
    }
    header.Version = shape.version;
    header.DataRev = shape.dataRev;
    header.FwType = shape.fwType;
    header.NumOfBlock = static_cast<std::uint8_t>(shape.blocks.size());
    const std::size_t headerArea = fmt::backupHeaderAreaSize(header.NumOfBlock);

    ByteVec file(headerArea, 0);
    const auto rawHeader = fmt::encodeBackupHeader(header);
    std::copy(rawHeader.begin(), rawHeader.end(), file.begin());
    std::size_t offset = headerArea;
    for (std::size_t i = 0; i < shape.blocks.size(); ++i) {
        svfBraskBackupFileBlockInfo_T info{};
        info.BlockOffset = static_cast<std::uint32_t>(offset);
        info.BlockSize = static_cast<std::int32_t>(shape.blocks[i].size());
        info.InheritanceType = fmt::inheritanceTypeFor(static_cast<unsigned>(i));
        const auto rawInfo = fmt::encodeBlockInfo(info);
        std::copy(rawInfo.begin(), rawInfo.end(), file.begin() + fmt::kBackupHeaderSize + i * fmt::kBlockInfoSize);
        offset += shape.blocks[i].size();
    }
    for (const ByteVec& b : shape.blocks) file.insert(file.end(), b.begin(), b.end());
    sealBackup(file);
    return file;
}

void sealBackup(ByteVec& file) {
    const std::size_t headerArea = fmt::backupHeaderAreaSize(file[91]);
    std::fill(file.begin() + 92, file.begin() + 96, 0);
    const auto area = fmt::Bytes(file.data(), std::min(headerArea, file.size()));
    const std::uint32_t sum = fmt::zeroSumComplement(fmt::wordSum(area));
    for (int i = 0; i < 4; ++i) file[92 + i] = static_cast<std::uint8_t>(sum >> (8 * i));
}

ByteVec sampleBackup(BackupShape shape) {
    if (!shape.ownIdentity && (shape.model.empty() || shape.serial.empty())) {
        svfBraskBackupFileHeader_T own{};
        EXPECT_EQ(svfGetProductIdFru(&own), 0);
        const auto text = [](const auto& f) {
            return std::string(reinterpret_cast<const char*>(f), sizeof f);
        };
        if (shape.model.empty()) shape.model = text(own.ModelNumber);
        if (shape.serial.empty()) shape.serial = text(own.SerialNumber);
    }
    shape.blocks = {buildBlock({}), buildBlock({entryFor("/conf/resolv.conf", "restored\n"),
                                               entryFor("/conf/hid.conf", "hid\n")})};
    return buildBackup(shape);
}

ByteVec flipped(std::size_t at) {
    ByteVec f = sampleBackup();
    f[at] ^= 0x10;
    return f;
}

std::vector<std::string> deleteFirstPaths() {
    std::vector<std::string> paths;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        if (row.RestoreType == RESTORE_DELETE_FIRST) paths.emplace_back(row.FilePass);
    }
    return paths;
}

bool waitForCommand(const std::string& line) {
    for (int i = 0; i < 500; ++i) {
        if (commandLog().find(line) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool inOrder(const std::string& text, std::initializer_list<const char*> parts) {
    std::vector<std::size_t> at;
    for (const char* p : parts) at.push_back(text.find(p));
    return std::find(at.begin(), at.end(), std::string::npos) == at.end() &&
           std::adjacent_find(at.begin(), at.end(), std::greater_equal<>()) == at.end();
}

}  // namespace brask::test
