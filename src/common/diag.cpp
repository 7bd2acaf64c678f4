// Unit-independent diagnostics: every line is formatted into one buffer and
// handed to the kernel in a single write after the stdio buffer is flushed.
#include "common/diag.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace brask::diag {
namespace {

constexpr size_t kLineMax = 2048;

enum class Eol { AddIfMissing, Never };

__attribute__((format(printf, 4, 0))) void emit(int fd, FILE* stream, const char* head, const char* fmt,
                                                va_list ap, Eol eol) {
    const int savedErrno = errno;  // callers log errno and may use it afterwards
    char line[kLineMax];
    size_t len = 0;
    int n = std::snprintf(line, sizeof line, "%s", head);
    len = n < 0 ? 0 : static_cast<size_t>(n);
    if (len >= sizeof line) len = sizeof line - 1;
    n = std::vsnprintf(line + len, sizeof line - len, fmt, ap);
    if (n > 0) len += static_cast<size_t>(n);
    if (len >= sizeof line - 1) len = sizeof line - 2;  // keep room for the line feed
    if (eol == Eol::AddIfMissing && (len == 0 || line[len - 1] != '\n')) line[len++] = '\n';
    (void)std::fflush(stream);
    size_t off = 0;
    while (off < len) {
        ssize_t w = ::write(fd, line + off, len - off);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) break;
        off += static_cast<size_t>(w);
    }
    errno = savedErrno;
}

__attribute__((format(printf, 6, 0))) void emitTagged(int fd, FILE* stream, const char* tag, const char* unit,
                                                      int line, const char* fmt, va_list ap, Eol eol) {
    char head[160];
    (void)std::snprintf(head, sizeof head, "%s%s(%d) : ", tag, unit, line);
    emit(fd, stream, head, fmt, ap, eol);
}

}  // namespace

void debug(const char* unit, int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emitTagged(STDOUT_FILENO, stdout, "BRASK_DEBUG  : ", unit, line, fmt, ap, Eol::AddIfMissing);
    va_end(ap);
}

void debugNoEol(const char* unit, int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emitTagged(STDOUT_FILENO, stdout, "BRASK_DEBUG  : ", unit, line, fmt, ap, Eol::Never);
    va_end(ap);
}

void error(const char* unit, int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emitTagged(STDERR_FILENO, stderr, "BRASK_ERR  : ", unit, line, fmt, ap, Eol::AddIfMissing);
    va_end(ap);
}

void error4(const char* unit, int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emitTagged(STDERR_FILENO, stderr, "BRASK_ERR    : ", unit, line, fmt, ap, Eol::AddIfMissing);
    va_end(ap);
}

void message(int level, const char* unit, int line, const char* func, const char* fmt, ...) {
    char head[256];
    (void)std::snprintf(head, sizeof head, "BRASK_MSG[%1d] : %s(%d) : %s() : ", level, unit, line, func);
    va_list ap;
    va_start(ap, fmt);
    emit(STDOUT_FILENO, stdout, head, fmt, ap, Eol::AddIfMissing);
    va_end(ap);
}

void plainError(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emit(STDERR_FILENO, stderr, "", fmt, ap, Eol::AddIfMissing);
    va_end(ap);
}

}  // namespace brask::diag
