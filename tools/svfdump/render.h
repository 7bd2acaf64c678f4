// svfdump's two ways of showing an inspection: aligned text for people and
// JSON for scripts.  Names and text fields from the file are escaped, so a
// hostile file cannot put control sequences on a terminal.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "inspect.h"
#include "textFormat.h"

namespace svfdump {

// The outcome of --extract, when it was asked for.
struct ExtractOutcome {
    std::string dir;
    bool ok = false;
    unsigned written = 0;
    std::string reason;  // why nothing or not everything was written
};

using tools::escaped;
using tools::modeString;
// A fixed-width text field: up to its first NUL, trailing blanks dropped.
std::string fixedText(const std::uint8_t* field, std::size_t size);
// 8-4-4-4-12 hexadecimal digits, bytes in stored order.
std::string uuidText(const std::uint8_t (&uuid)[16]);
// SEL time: seconds since 1970 as a UTC date; IPMI keeps values up to
// 0x20000000 for time since start-up and 0xFFFFFFFF for "not set".
std::string timeText(std::uint32_t selTime);

void renderText(std::ostream& out, const std::string& path, const Inspection& r,
                const std::optional<ExtractOutcome>& extract);
void renderJson(std::ostream& out, const std::string& path, const Inspection& r,
                const std::optional<ExtractOutcome>& extract);

}  // namespace svfdump
