// Helpers of the restore suite (svfdump's suite uses the block builder too):
// archive blocks and backup files built with the format layer's encoders,
// each sealed with a valid checksum unless a test breaks it on purpose.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "BraskSvf/svfTypes.h"

namespace brask::test {

using ByteVec = std::vector<std::uint8_t>;

struct EntryShape {
    std::string storedName;  // as stored: the backup-copy path
    ByteVec data;
    std::uint32_t mode = 0100644;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    // Descriptor values that lie about the layout (hostile archives).
    std::optional<std::uint32_t> fileOffset;
    std::optional<std::int32_t> fileSize;
};

// An entry for the active file `path` with ".bak" appended.
EntryShape entryFor(const std::string& path, const std::string& content,
                   std::uint32_t mode = 0100644);

// A whole archive block; its ChkSum makes the block sum to 0.
ByteVec buildBlock(const std::vector<EntryShape>& entries);
// Recomputes the ChkSum of a block after it was changed.
void sealBlock(ByteVec& block);

struct BackupShape {
    std::vector<ByteVec> blocks{};  // {} lets cases name only the fields they change
    std::uint8_t fwType = BMC_FILE;
    std::uint8_t version = 1;
    std::uint8_t dataRev = 0;
    bool ownIdentity = true;  // model and serial of this server's FRU
    std::string model{};      // used when !ownIdentity
    std::string serial{};
};
// A backup file: header, block table and blocks, sealed.
ByteVec buildBackup(const BackupShape& shape);
// Recomputes the header checksum after the header or table was changed.
void sealBackup(ByteVec& file);
// The backup most cases restore: an empty block 0, resolv.conf and hid.conf
// in block 1, header fields from `shape`. A foreign identity's empty model or
// serial is this server's.
ByteVec sampleBackup(BackupShape shape = {});
// sampleBackup() with one bit of byte `at` flipped, the checksum left as it was.
ByteVec flipped(std::size_t at);

// Every catalogue row with RestoreType 4.
std::vector<std::string> deleteFirstPaths();

// Waits up to 5 s for `line` in the sandbox's command log (a child writes it).
bool waitForCommand(const std::string& line);

// Every part is in `text`, each first seen after the one before it.
bool inOrder(const std::string& text, std::initializer_list<const char*> parts);

// The runner resets the sandbox, the countdowns and the host's faults before
// every case, so the fixture adds nothing of its own.
class RestoreTest : public ::testing::Test {};

}  // namespace brask::test
