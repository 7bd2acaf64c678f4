// Names for the codes svfsim prints.  Slot, state and operation names come
// from the library's own tables; completion codes and SEL classes have theirs
// here, one table each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace svfsim {

enum class Handler { Get, Set, Execute };

// "Backup.BmcConsole.Bmc" for 11; "slot N" past the table.
std::string slotName(unsigned index);
// A slot by name (case-insensitive) or by number 0-11.
std::optional<unsigned> slotByName(std::string_view text);
// "ST_PROCESSING" for 0x03; "unknown (0xNN)" for other codes.
std::string stateName(std::uint8_t code);
// An operation by name (SVP_BACKUP_TRANS_REQ ...) or number (0x01, 48).
std::optional<std::uint8_t> operationByName(std::string_view text);
std::string operationName(std::uint8_t code);
// All operation names, for --help.
std::string operationList();

// What a handler's completion code means, e.g. "success" or "not possible in
// the present state (restore timer running or another event active)".
std::string completionMeaning(std::uint8_t code, Handler handler);

// The class part (high nibble) of a SEL event code.
struct SelClass {
    std::uint8_t code;
    const char* name;     // "SEL_CLASS_SUCCESS"
    const char* meaning;  // "completed"
};
const SelClass* selClass(std::uint8_t eventData);

// "0x0B" style.
std::string hex2(unsigned value);

}  // namespace svfsim
