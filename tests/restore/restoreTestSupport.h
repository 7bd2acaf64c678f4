// Helpers of the restore suite (svfdump's suite uses them too) over the
// shared builders of blocks and backup files.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "BraskSvf/svfTypes.h"
#include "support/builders.h"

namespace brask::test {

using ByteVec = Bytes;

// The backup most cases restore: an empty block 0, resolv.conf and hid.conf
// in block 1, header fields from `shape` (model and serial: this server's unless
// given).
ByteVec sampleBackup(BackupLayout shape = {});
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
