// A short listing of a backup file (identity, blocks, first entries), read
// through the library's format layer; svfdump is the full inspector.
#pragma once

#include <string>

namespace svfsim {

// Prints the listing with say(); false (and a reason) when the file cannot
// be read or does not decode.
bool listBackup(const std::string& path, unsigned entriesPerBlock, std::string& error);

}  // namespace svfsim
