// Archive blocks and backup files for tests and fuzz seeds, laid out by the
// format layer's encoders and sealed with a valid checksum, so that a case
// breaks exactly the field it means to.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "BraskSvf/svfTypes.h"

namespace brask::test {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text);

struct StoredEntry {
    std::string name;  // as stored: the backup-copy path
    Bytes data;
    std::uint32_t mode = 0100644;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    // Descriptor values that lie about the layout (hostile blocks).
    std::optional<std::uint32_t> fileOffset;
    std::optional<std::int32_t> fileSize;
};
// The entry a backup stores for the active file `path`: its ".bak" name.
StoredEntry entry(const std::string& path, std::string_view content, std::uint32_t mode = 0100644);

// A block of `entries`, then `trailing` bytes; NumOfEntry is the count of
// entries unless given.  Sealed: its words sum to 0.
Bytes block(const std::vector<StoredEntry>& entries, const Bytes& trailing = {},
            std::optional<std::uint16_t> numOfEntry = std::nullopt);
// Makes the words of a block sum to 0 again after a change.
void sealBlock(Bytes& block);

struct BackupLayout {
    std::vector<Bytes> blocks{};
    std::uint8_t fwType = BMC_FILE;
    std::uint8_t version = 1;
    std::uint8_t dataRev = 0;
    // Model and serial number; none: this server's, as its FRU reports them.
    std::optional<std::string> model{};
    std::optional<std::string> serial{};
};
// Header, block table and blocks, the header area sealed.
Bytes backup(const BackupLayout& layout);
// Makes the header area sum to 0 again after a change.
void sealBackup(Bytes& file);

}  // namespace brask::test
