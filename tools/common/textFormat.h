// How the tools show a file's mode and bytes taken from a file.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tools {

// The mode word as `ls -l` shows it: type letter and nine permission
// characters with s/S and t/T for the set-id and sticky bits.
std::string modeString(std::uint32_t mode);
// Printable ASCII as it stands; '\\' and every other byte as \xNN, so a
// hostile file cannot put control sequences on a terminal.
std::string escaped(std::string_view bytes);

}  // namespace tools
