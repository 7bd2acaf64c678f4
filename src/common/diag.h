// Diagnostic lines of the library: one formatted line, one write, one flush,
// so lines never tear or double up when the process forks or other threads log.
#pragma once

#include <cstdarg>

namespace brask::diag {

// "BRASK_DEBUG  : unit(line) : msg" on stdout; a line feed is added when msg has none.
void debug(const char* unit, int line, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
// As debug, but never adds a line end ("Non Check" is printed that way).
void debugNoEol(const char* unit, int line, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
// "BRASK_ERR  : unit(line) : msg" on stderr (two blanks).
void error(const char* unit, int line, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
// "BRASK_ERR    : unit(line) : msg" on stderr (four blanks, svfOEMSetBackupEvent's tag).
void error4(const char* unit, int line, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
// "BRASK_MSG[level] : unit(line) : func() : msg" on stdout.
void message(int level, const char* unit, int line, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));
// A bare line on stderr with no tag (the user-information reader's messages).
void plainError(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace brask::diag

// Each source file defines `static constexpr const char kUnit[] = "<unit name>";`
// before using these.
#define SVF_DEBUG(...) ::brask::diag::debug(kUnit, __LINE__, __VA_ARGS__)
#define SVF_DEBUG_NOEOL(...) ::brask::diag::debugNoEol(kUnit, __LINE__, __VA_ARGS__)
#define SVF_ERR(...) ::brask::diag::error(kUnit, __LINE__, __VA_ARGS__)
#define SVF_ERR4(...) ::brask::diag::error4(kUnit, __LINE__, __VA_ARGS__)
#define SVF_MSG(level, ...) ::brask::diag::message((level), kUnit, __LINE__, __func__, __VA_ARGS__)
