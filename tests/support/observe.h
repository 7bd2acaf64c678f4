// Everything a call of the library leaves that a case compares: its result,
// its transcript with line numbers masked, the SEL entries and commands it
// added, what it changed under /conf and /var/brask, and whether it left a
// descriptor open or a file mapped.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace brask::test {

struct Observed {
    long result = 0;
    std::string out;                // standard output, line numbers masked
    std::string err;                // standard error, line numbers masked
    std::vector<std::uint8_t> sel;  // event data of the SEL entries added
    std::string commands;           // command-log lines added
    std::string changes;            // diffTrees of /conf and /var/brask
    int leakedDescriptors = 0;
    int leakedMappings = 0;
};

Observed observe(const std::function<long()>& call);

// "" when every one of `wanted` is a line of `text`, each after the one
// before it; otherwise which one is missing, with the text.
std::string linesInOrder(std::string_view text, std::initializer_list<std::string_view> wanted);

}  // namespace brask::test
