// Shell commands (and the names built beside them): formatted into the
// buffer the caller names, gTmpStr or a local one, then run by the system
// shell.  One rule for a text that does not fit: it is never used.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <span>

namespace brask {

// Clears all of `buffer` and formats into it.  False when the text does not
// fit or cannot be formatted: the buffer is left cleared and errno says why
// (ENAMETOOLONG unless the formatter set one).  errno is kept on success.
// Inline, so that code which only builds names needs nothing else linked.
[[nodiscard]] inline bool formatInto(std::span<char> buffer, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

inline bool formatInto(std::span<char> buffer, const char* fmt, ...) {
    std::fill(buffer.begin(), buffer.end(), '\0');
    const int savedErrno = errno;
    errno = 0;
    va_list args;
    va_start(args, fmt);
    const int n = std::vsnprintf(buffer.data(), buffer.size(), fmt, args);
    va_end(args);
    if (n >= 0 && static_cast<std::size_t>(n) < buffer.size()) {
        errno = savedErrno;
        return true;
    }
    // A cut command could run something else entirely; a cut name would
    // open another file.
    std::fill(buffer.begin(), buffer.end(), '\0');
    if (n >= 0 || errno == 0) errno = ENAMETOOLONG;
    return false;
}

// Runs `command` through the system shell; true when it exited with status 0.
// errno is left as the shell call left it, for the caller's message.
[[nodiscard]] bool runShell(const char* command);

}  // namespace brask
