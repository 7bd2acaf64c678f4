#include "textFormat.h"

#include <cstdio>

namespace tools {

std::string modeString(std::uint32_t mode) {
    char s[11];
    switch (mode & 0170000u) {
        case 0100000u:
            s[0] = '-';
            break;
        case 0040000u:
            s[0] = 'd';
            break;
        case 0120000u:
            s[0] = 'l';
            break;
        case 0020000u:
            s[0] = 'c';
            break;
        case 0060000u:
            s[0] = 'b';
            break;
        case 0010000u:
            s[0] = 'p';
            break;
        case 0140000u:
            s[0] = 's';
            break;
        default:
            s[0] = '?';
            break;
    }
    static constexpr char kRwx[] = "rwxrwxrwx";
    for (int i = 0; i < 9; ++i) s[1 + i] = (mode & (0400u >> i)) != 0 ? kRwx[i] : '-';
    // A set-id or sticky bit shows in the execute column, capital when x is off.
    const struct {
        std::uint32_t bit;
        int column;
        char on, off;
    } special[] = {{04000u, 3, 's', 'S'}, {02000u, 6, 's', 'S'}, {01000u, 9, 't', 'T'}};
    for (const auto& sp : special) {
        if ((mode & sp.bit) != 0) s[sp.column] = s[sp.column] == 'x' ? sp.on : sp.off;
    }
    return std::string(s, 10);
}

std::string escaped(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (const char ch : bytes) {
        const auto c = static_cast<unsigned char>(ch);
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out += ch;
        } else {
            char e[5];
            (void)std::snprintf(e, sizeof e, "\\x%02x", c);
            out += e;
        }
    }
    return out;
}

}  // namespace tools
