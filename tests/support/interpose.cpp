// The C library calls the library makes, defined in the test binary so that
// tests can fail them, count them and end the process before one (see
// interpose.h).  The wrappers run before main, inside sanitizer start-up and
// in forked children: they take no lock and never allocate, and all state is
// fixed-size and zero-initialised.
//
// This file is built without large-file, 64-bit-time and fortify macros, so
// that each name below is that very symbol: a 32-bit build that uses the
// 64-bit forms finds them defined beside the plain ones.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS
#undef _FORTIFY_SOURCE
#include "support/interpose.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <type_traits>

// Every real function a wrapper forwards to.
#define BRASK_REAL_CALLS(X)                                                                    \
    X(fopen) X(fopen64) X(fclose) X(fflush) X(fread) X(fwrite) X(fputs) X(fputc) X(putc)       \
    X(fseek) X(fseeko) X(fseeko64) X(ftell) X(ftello) X(ftello64) X(fileno) X(open) X(open64)  \
    X(openat) X(openat64) X(creat) X(creat64) X(close) X(dup2) X(write) X(pwrite) X(pwrite64)  \
    X(fsync) X(fdatasync) X(syncfs) X(sync) X(stat) X(stat64) X(lstat) X(lstat64) X(fstat)     \
    X(fstat64) X(fstatfs) X(fstatfs64) X(mmap) X(mmap64) X(munmap) X(chmod) X(fchmod)          \
    X(chown) X(lchown) X(fchown) X(rename) X(renameat) X(renameat2) X(unlink) X(unlinkat)      \
    X(system) X(fork) X(waitpid) X(time)

// A sanitizer runtime linked into the executable (clang's) defines its
// interceptors here too, where RTLD_NEXT would skip them; a shared one
// (gcc's libasan) is found either way.  Null without a sanitizer.
#define BRASK_DECLARE_INTERCEPTOR(name) extern "C" void __interceptor_##name() __attribute__((weak));
BRASK_REAL_CALLS(BRASK_DECLARE_INTERCEPTOR)

namespace {

using brask::test::Call;
using brask::test::kCrashStatus;

#define BRASK_ENUM(name) k_##name,
#define BRASK_NAME(name) #name,
#define BRASK_INTERCEPTOR(name) &__interceptor_##name,
enum Real { BRASK_REAL_CALLS(BRASK_ENUM) kRealCount };
constexpr const char* kRealName[] = {BRASK_REAL_CALLS(BRASK_NAME)};
void (*const kInterceptor[])() = {BRASK_REAL_CALLS(BRASK_INTERCEPTOR)};
std::atomic<void*> gReal[kRealCount];

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "interpose: %s\n", what);
    std::abort();
}

void* lookup(int i) {
    void* p = gReal[i].load(std::memory_order_relaxed);
    if (p == nullptr) {
        p = kInterceptor[i] != nullptr ? reinterpret_cast<void*>(kInterceptor[i])
                                       : ::dlsym(RTLD_NEXT, kRealName[i]);
        gReal[i].store(p, std::memory_order_relaxed);
    }
    return p;
}

void* realOf(int i) {
    void* p = lookup(i);
    if (p == nullptr) die(kRealName[i]);
    return p;
}

// Resolved up front, so that a child forked from a threaded parent never
// needs the dynamic loader's lock; lookup() covers calls made before this.
__attribute__((constructor)) void resolveAll() {
    for (int i = 0; i < kRealCount; ++i) (void)lookup(i);
}

#define REAL(name) reinterpret_cast<decltype(&::name)>(realOf(k_##name))

constexpr int kMaxFd = 1024;
constexpr std::size_t kPathMax = 256;  // longer paths are kept cut, which prefixes survive
constexpr int kMaxFaults = 8;
constexpr int kLogMax = 2048;
constexpr int kDirtyMax = 512;
constexpr int kViolationMax = 64;
using Path = char[kPathMax];

void copyPath(char* to, const char* from) {
    std::size_t n = 0;
    for (; from != nullptr && from[n] != '\0' && n < kPathMax - 1; ++n) to[n] = from[n];
    to[n] = '\0';
}

// The path each descriptor was opened with ("" when we did not see it open).
Path gFdPath[kMaxFd];

const char* fdPath(int fd) { return fd >= 0 && fd < kMaxFd ? gFdPath[fd] : ""; }
void track(int fd, const char* path) {
    if (fd >= 0 && fd < kMaxFd) copyPath(gFdPath[fd], path);
}
int streamFd(FILE* fp) { return fp != nullptr ? REAL(fileno)(fp) : -1; }
const char* streamPath(FILE* fp) { return fdPath(streamFd(fp)); }
bool pending(FILE* fp) { return fp != nullptr && __fpending(fp) > 0; }

const char* atPath(int dirfd, const char* path, Path& joined) {
    if (path == nullptr || path[0] == '/' || dirfd == AT_FDCWD) return path;
    std::snprintf(joined, kPathMax, "%s/%s", fdPath(dirfd), path);
    return joined;
}

bool matches(const char* prefix, const char* path) {
    if (path == nullptr) return false;
    const std::size_t n = std::strlen(prefix);
    if (std::strncmp(path, prefix, n) == 0) return true;
    // "/conf/" also names the folder itself, as fsync of the folder sees it.
    return n > 1 && prefix[n - 1] == '/' && std::strlen(path) == n - 1 &&
           std::strncmp(path, prefix, n - 1) == 0;
}

struct Fault {
    bool used;
    Call call;
    int err;
    Path prefix;
    int nth, times, matched, fired;
    bool hasValue;
    long value;
};
Fault gFaults[kMaxFaults];

struct Logged {
    Call call;
    Path path, to;
};

struct Counter {
    bool active;
    Path prefix;
    int count, crashAt, violated;
    Logged log[kLogMax];
    Path dirty[kDirtyMax];  // paths written since their last flush
    Logged violations[kViolationMax];
};
Counter gCounter;

std::atomic<int> gArmed;  // faults armed, plus one for an active counter
int gUnwatched;

bool watching() { return gArmed.load(std::memory_order_relaxed) != 0 && gUnwatched == 0; }

// What a call touches.
struct Site {
    Call call;
    const char* path;
    bool writeLike = false;
    const char* to = nullptr;  // rename's new path
};

bool touches(const char* prefix, const Site& s) {
    return matches(prefix, s.path) || matches(prefix, s.to);
}

int findDirty(const char* path) {
    for (int i = 0; i < kDirtyMax; ++i) {
        if (gCounter.dirty[i][0] != '\0' && std::strcmp(gCounter.dirty[i], path) == 0) return i;
    }
    return -1;
}

void setDirty(const char* path, bool dirty) {
    int i = findDirty(path);
    if (!dirty && i >= 0) gCounter.dirty[i][0] = '\0';
    if (!dirty || i >= 0) return;
    for (i = 0; i < kDirtyMax && gCounter.dirty[i][0] != '\0'; ++i) {
    }
    if (i < kDirtyMax) copyPath(gCounter.dirty[i], path);
}

void forgetUnflushed() {
    for (Path& p : gCounter.dirty) p[0] = '\0';
}

void noteWriteLike(const Site& s, bool goesAhead) {
    Counter& c = gCounter;
    if (!c.active || !touches(c.prefix, s)) return;
    if (++c.count == c.crashAt) ::_exit(kCrashStatus);
    if (c.count <= kLogMax) {
        Logged& e = c.log[c.count - 1];
        e.call = s.call;
        copyPath(e.path, s.path);
        copyPath(e.to, s.to);
    }
    if (!goesAhead) return;
    switch (s.call) {
    case Call::Write:
    case Call::Fwrite:
    case Call::Fflush:
    case Call::Fclose:
        setDirty(s.path, true);
        break;
    case Call::Fsync:
    case Call::Fdatasync:
    case Call::Unlink:
        setDirty(s.path, false);
        break;
    case Call::Rename: {
        const bool unflushed = findDirty(s.path) >= 0;
        if (unflushed && c.violated < kViolationMax) {
            Logged& v = c.violations[c.violated++];
            copyPath(v.path, s.path);
            copyPath(v.to, s.to);
        }
        setDirty(s.path, false);
        setDirty(s.to, unflushed);
        break;
    }
    default:
        break;
    }
}

// Runs the real call unless an armed fault picks this one; counts it first.
template <bool GiveBackFirst = false, class R, class F>
R guard(const Site& s, R failed, F real) {
    if (!watching()) return real();
    Fault* fault = nullptr;
    for (Fault& f : gFaults) {
        if (!f.used || f.call != s.call || !touches(f.prefix, s)) continue;
        ++f.matched;
        if (fault == nullptr && f.matched >= f.nth && (f.times == 0 || f.matched < f.nth + f.times)) {
            ++f.fired;
            fault = &f;
        }
    }
    if (s.writeLike) noteWriteLike(s, fault == nullptr);
    if (fault == nullptr) return real();
    if constexpr (GiveBackFirst) (void)real();
    if (fault->err != 0) errno = fault->err;
    if constexpr (std::is_arithmetic_v<R>) {
        if (fault->hasValue) return static_cast<R>(fault->value);
    }
    return failed;
}

bool opensForWriting(int flags) {
    return (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC | O_APPEND)) != 0;
}
bool takesMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

}  // namespace

// ---- Streams ------------------------------------------------------------------
#define BRASK_WRAP_FOPEN(name)                                                            \
    extern "C" FILE* name(const char* path, const char* mode) {                           \
        FILE* fp = guard({Call::Fopen, path, std::strpbrk(mode, "wa+") != nullptr},       \
                         static_cast<FILE*>(nullptr), [&] { return REAL(name)(path, mode); }); \
        if (fp != nullptr) track(REAL(fileno)(fp), path);                                 \
        return fp;                                                                        \
    }
BRASK_WRAP_FOPEN(fopen)
BRASK_WRAP_FOPEN(fopen64)

extern "C" int fclose(FILE* fp) {
    const int fd = streamFd(fp);
    const int r = guard<true>({Call::Fclose, fdPath(fd), pending(fp)}, EOF,
                              [&] { return REAL(fclose)(fp); });
    track(fd, nullptr);
    return r;
}

extern "C" int fflush(FILE* fp) {
    return guard({Call::Fflush, streamPath(fp), pending(fp)}, EOF, [&] { return REAL(fflush)(fp); });
}

extern "C" size_t fread(void* buf, size_t size, size_t n, FILE* fp) {
    return guard({Call::Fread, streamPath(fp)}, size_t{0}, [&] { return REAL(fread)(buf, size, n, fp); });
}

extern "C" size_t fwrite(const void* buf, size_t size, size_t n, FILE* fp) {
    return guard({Call::Fwrite, streamPath(fp), true}, size_t{0},
                 [&] { return REAL(fwrite)(buf, size, n, fp); });
}

extern "C" int fputs(const char* s, FILE* fp) {
    return guard({Call::Fwrite, streamPath(fp), true}, EOF, [&] { return REAL(fputs)(s, fp); });
}

#define BRASK_WRAP_PUTC(name)                                                                   \
    extern "C" int name(int c, FILE* fp) {                                                      \
        return guard({Call::Fwrite, streamPath(fp), true}, EOF, [&] { return REAL(name)(c, fp); }); \
    }
BRASK_WRAP_PUTC(fputc)
BRASK_WRAP_PUTC(putc)

#define BRASK_WRAP_FSEEK(name, offset)                                                              \
    extern "C" int name(FILE* fp, offset at, int whence) {                                          \
        return guard({Call::Fseek, streamPath(fp)}, -1, [&] { return REAL(name)(fp, at, whence); }); \
    }
BRASK_WRAP_FSEEK(fseek, long)
BRASK_WRAP_FSEEK(fseeko, off_t)
BRASK_WRAP_FSEEK(fseeko64, off64_t)

#define BRASK_WRAP_FTELL(name, offset)                                                                   \
    extern "C" offset name(FILE* fp) {                                                                   \
        return guard({Call::Ftell, streamPath(fp)}, static_cast<offset>(-1), [&] { return REAL(name)(fp); }); \
    }
BRASK_WRAP_FTELL(ftell, long)
BRASK_WRAP_FTELL(ftello, off_t)
BRASK_WRAP_FTELL(ftello64, off64_t)

extern "C" int fileno(FILE* fp) {
    return guard({Call::Fileno, streamPath(fp)}, -1, [&] { return REAL(fileno)(fp); });
}

// The C library's headers may name this __isoc99_fscanf; this definition
// takes the same name, and vfscanf the matching one.
extern "C" int fscanf(FILE* fp, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int r = guard({Call::Fscanf, streamPath(fp)}, EOF, [&] { return std::vfscanf(fp, format, args); });
    va_end(args);
    return r;
}

// ---- Descriptors --------------------------------------------------------------
#define BRASK_WRAP_OPEN(name)                                                               \
    extern "C" int name(const char* path, int flags, ...) {                                 \
        va_list args;                                                                       \
        va_start(args, flags);                                                              \
        const mode_t mode = takesMode(flags) ? va_arg(args, mode_t) : 0;                    \
        va_end(args);                                                                       \
        const int fd = guard({Call::Open, path, opensForWriting(flags)}, -1,                \
                             [&] { return REAL(name)(path, flags, mode); });                \
        track(fd, path);                                                                    \
        return fd;                                                                          \
    }
BRASK_WRAP_OPEN(open)
BRASK_WRAP_OPEN(open64)

#define BRASK_WRAP_OPENAT(name)                                                              \
    extern "C" int name(int dirfd, const char* path, int flags, ...) {                       \
        va_list args;                                                                        \
        va_start(args, flags);                                                               \
        const mode_t mode = takesMode(flags) ? va_arg(args, mode_t) : 0;                     \
        va_end(args);                                                                        \
        Path joined;                                                                         \
        const char* full = atPath(dirfd, path, joined);                                      \
        const int fd = guard({Call::Open, full, opensForWriting(flags)}, -1,                 \
                             [&] { return REAL(name)(dirfd, path, flags, mode); });          \
        track(fd, full);                                                                     \
        return fd;                                                                           \
    }
BRASK_WRAP_OPENAT(openat)
BRASK_WRAP_OPENAT(openat64)

#define BRASK_WRAP_CREAT(name)                                                                     \
    extern "C" int name(const char* path, mode_t mode) {                                           \
        const int fd = guard({Call::Open, path, true}, -1, [&] { return REAL(name)(path, mode); }); \
        track(fd, path);                                                                           \
        return fd;                                                                                 \
    }
BRASK_WRAP_CREAT(creat)
BRASK_WRAP_CREAT(creat64)

extern "C" int close(int fd) {
    const int r = guard<true>({Call::Close, fdPath(fd)}, -1, [&] { return REAL(close)(fd); });
    track(fd, nullptr);
    return r;
}

// Not a Call of its own: only keeps the table right when a descriptor is
// replaced (a test redirecting its output, say).
extern "C" int dup2(int from, int to) {
    const int r = REAL(dup2)(from, to);
    if (r >= 0 && from != to) track(to, fdPath(from));
    return r;
}

extern "C" ssize_t write(int fd, const void* buf, size_t n) {
    return guard({Call::Write, fdPath(fd), true}, ssize_t{-1}, [&] { return REAL(write)(fd, buf, n); });
}

#define BRASK_WRAP_PWRITE(name, offset)                                                  \
    extern "C" ssize_t name(int fd, const void* buf, size_t n, offset at) {              \
        return guard({Call::Write, fdPath(fd), true}, ssize_t{-1},                       \
                     [&] { return REAL(name)(fd, buf, n, at); });                        \
    }
BRASK_WRAP_PWRITE(pwrite, off_t)
BRASK_WRAP_PWRITE(pwrite64, off64_t)

#define BRASK_WRAP_FD(name, call, writeLike)                                                          \
    extern "C" int name(int fd) {                                                                      \
        return guard({call, fdPath(fd), writeLike}, -1, [&] { return REAL(name)(fd); });               \
    }
BRASK_WRAP_FD(fsync, Call::Fsync, true)
BRASK_WRAP_FD(fdatasync, Call::Fdatasync, true)

// A file-system-wide flush leaves nothing unflushed, whichever descriptor names it.
extern "C" int syncfs(int fd) {
    const int r = guard({Call::Syncfs, fdPath(fd), true}, -1, [&] { return REAL(syncfs)(fd); });
    if (r == 0) forgetUnflushed();
    return r;
}

extern "C" void sync() {
    REAL(sync)();
    forgetUnflushed();
}

// ---- File status ----------------------------------------------------------------
#define BRASK_WRAP_PATH_STAT(name, call, type)                                                       \
    extern "C" int name(const char* path, struct type* st) {                                         \
        return guard({call, path}, -1, [&] { return REAL(name)(path, st); });                        \
    }
BRASK_WRAP_PATH_STAT(stat, Call::Stat, stat)
BRASK_WRAP_PATH_STAT(stat64, Call::Stat, stat64)
BRASK_WRAP_PATH_STAT(lstat, Call::Lstat, stat)
BRASK_WRAP_PATH_STAT(lstat64, Call::Lstat, stat64)

#define BRASK_WRAP_FD_STAT(name, call, type)                                                         \
    extern "C" int name(int fd, struct type* st) {                                                   \
        return guard({call, fdPath(fd)}, -1, [&] { return REAL(name)(fd, st); });                    \
    }
BRASK_WRAP_FD_STAT(fstat, Call::Fstat, stat)
BRASK_WRAP_FD_STAT(fstat64, Call::Fstat, stat64)
BRASK_WRAP_FD_STAT(fstatfs, Call::Fstatfs, statfs)
BRASK_WRAP_FD_STAT(fstatfs64, Call::Fstatfs, statfs64)

// ---- Mappings -------------------------------------------------------------------
#define BRASK_WRAP_MMAP(name, offset)                                                                \
    extern "C" void* name(void* addr, size_t n, int prot, int flags, int fd, offset at) {            \
        return guard({Call::Mmap, fdPath(fd)}, MAP_FAILED,                                           \
                     [&] { return REAL(name)(addr, n, prot, flags, fd, at); });                     \
    }
BRASK_WRAP_MMAP(mmap, off_t)
BRASK_WRAP_MMAP(mmap64, off64_t)

extern "C" int munmap(void* addr, size_t n) {
    return guard<true>({Call::Munmap, ""}, -1, [&] { return REAL(munmap)(addr, n); });
}

// ---- Names, modes and owners ------------------------------------------------------
extern "C" int chmod(const char* path, mode_t mode) {
    return guard({Call::Chmod, path, true}, -1, [&] { return REAL(chmod)(path, mode); });
}

extern "C" int fchmod(int fd, mode_t mode) {
    return guard({Call::Fchmod, fdPath(fd), true}, -1, [&] { return REAL(fchmod)(fd, mode); });
}

#define BRASK_WRAP_CHOWN(name)                                                                      \
    extern "C" int name(const char* path, uid_t uid, gid_t gid) {                                   \
        return guard({Call::Chown, path, true}, -1, [&] { return REAL(name)(path, uid, gid); });     \
    }
BRASK_WRAP_CHOWN(chown)
BRASK_WRAP_CHOWN(lchown)

extern "C" int fchown(int fd, uid_t uid, gid_t gid) {
    return guard({Call::Fchown, fdPath(fd), true}, -1, [&] { return REAL(fchown)(fd, uid, gid); });
}

extern "C" int rename(const char* from, const char* to) {
    return guard({Call::Rename, from, true, to}, -1, [&] { return REAL(rename)(from, to); });
}

extern "C" int renameat(int fromDir, const char* from, int toDir, const char* to) {
    Path a, b;
    return guard({Call::Rename, atPath(fromDir, from, a), true, atPath(toDir, to, b)}, -1,
                 [&] { return REAL(renameat)(fromDir, from, toDir, to); });
}

extern "C" int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned flags) {
    Path a, b;
    return guard({Call::Rename, atPath(fromDir, from, a), true, atPath(toDir, to, b)}, -1,
                 [&] { return REAL(renameat2)(fromDir, from, toDir, to, flags); });
}

extern "C" int unlink(const char* path) {
    return guard({Call::Unlink, path, true}, -1, [&] { return REAL(unlink)(path); });
}

extern "C" int unlinkat(int dirfd, const char* path, int flags) {
    Path joined;
    return guard({Call::Unlink, atPath(dirfd, path, joined), true}, -1,
                 [&] { return REAL(unlinkat)(dirfd, path, flags); });
}

// ---- Processes and time -------------------------------------------------------------
// Weak: a program may count shell commands with a system() of its own (the
// benchmarks do), which then replaces this one.  No sanitizer intercepts it.
extern "C" __attribute__((weak)) int system(const char* command) {
    return guard({Call::System, command}, -1, [&] { return REAL(system)(command); });
}

extern "C" pid_t fork() {
    return guard({Call::Fork, ""}, pid_t{-1}, [&] { return REAL(fork)(); });
}

// No execvp-like form of execlp exists to forward to: its list becomes an array.
extern "C" int execlp(const char* file, const char* arg, ...) {
    constexpr int kMaxArgs = 64;
    char* argv[kMaxArgs + 1];
    int n = 0;
    argv[n++] = const_cast<char*>(arg);
    va_list args;
    va_start(args, arg);
    while (argv[n - 1] != nullptr && n < kMaxArgs) argv[n++] = va_arg(args, char*);
    va_end(args);
    argv[n] = nullptr;
    return guard({Call::Execlp, file}, -1, [&] { return ::execvp(file, argv); });
}

extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
    return guard({Call::Waitpid, ""}, pid_t{-1}, [&] { return REAL(waitpid)(pid, status, options); });
}

extern "C" time_t time(time_t* out) {
    return guard({Call::Time, ""}, static_cast<time_t>(-1), [&] { return REAL(time)(out); });
}

// ---- Test API ------------------------------------------------------------------------
namespace brask::test {
namespace {

void copyPrefix(char* to, std::string_view prefix) {
    if (prefix.size() >= kPathMax) die("prefix too long");
    prefix.copy(to, prefix.size());
    to[prefix.size()] = '\0';
}

void armCounter(std::string_view prefix, int crashAt) {
    Counter& c = gCounter;
    copyPrefix(c.prefix, prefix);
    c.count = 0;
    c.crashAt = crashAt;
    c.violated = 0;
    forgetUnflushed();
    if (!c.active) gArmed.fetch_add(1);
    c.active = true;
}

}  // namespace

const char* callName(Call call) {
    static constexpr const char* kNames[] = {
        "fopen", "fclose", "fflush", "fread", "fwrite", "fseek", "ftell", "fileno",
        "fscanf", "open", "close", "write", "fsync", "fdatasync", "syncfs", "stat",
        "lstat", "fstat", "fstatfs", "mmap", "munmap", "chmod", "fchmod", "chown",
        "fchown", "rename", "unlink", "system", "fork", "execlp", "waitpid", "time"};
    static_assert(std::size(kNames) == static_cast<std::size_t>(Call::Time) + 1);
    return kNames[static_cast<int>(call)];
}

FailCall::FailCall(Call call, int err, std::string_view prefix, int nth, int times) : slot_(-1) {
    for (int i = 0; i < kMaxFaults && slot_ < 0; ++i) {
        if (!gFaults[i].used) slot_ = i;
    }
    if (slot_ < 0) die("more than 8 FailCalls armed");
    Fault& f = gFaults[slot_];
    f = Fault{};
    f.call = call;
    f.err = err;
    copyPrefix(f.prefix, prefix);
    f.nth = nth;
    f.times = times;
    f.used = true;
    gArmed.fetch_add(1);
}

FailCall::~FailCall() {
    gFaults[slot_].used = false;
    gArmed.fetch_sub(1);
}

FailCall& FailCall::returning(long value) {
    gFaults[slot_].hasValue = true;
    gFaults[slot_].value = value;
    return *this;
}

bool FailCall::fired() const { return gFaults[slot_].fired > 0; }
int FailCall::matched() const { return gFaults[slot_].matched; }

WriteLikeCounter::WriteLikeCounter(std::string_view prefix) {
    if (gCounter.active) die("one WriteLikeCounter at a time");
    armCounter(prefix, 0);
}

WriteLikeCounter::~WriteLikeCounter() {
    gCounter.active = false;
    gArmed.fetch_sub(1);
}

int WriteLikeCounter::count() const { return gCounter.count; }

std::vector<WriteLike> WriteLikeCounter::log() const {
    std::vector<WriteLike> entries;
    for (int i = 0; i < gCounter.count && i < kLogMax; ++i) {
        const Logged& e = gCounter.log[i];
        entries.push_back({e.call, e.path, e.to});
    }
    return entries;
}

std::vector<Violation> WriteLikeCounter::violations() const {
    std::vector<Violation> found;
    for (int i = 0; i < gCounter.violated; ++i) {
        found.push_back({gCounter.violations[i].path, gCounter.violations[i].to});
    }
    return found;
}

void crashBefore(int k, std::string_view prefix) { armCounter(prefix, k); }

Unwatched::Unwatched() { ++gUnwatched; }
Unwatched::~Unwatched() { --gUnwatched; }

}  // namespace brask::test
