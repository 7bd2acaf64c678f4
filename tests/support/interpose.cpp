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
// clang-format off
#define BRASK_REAL_CALLS(X)                                                                    \
    X(fopen) X(fopen64) X(fclose) X(fflush) X(fread) X(fwrite) X(fputs) X(fputc)       \
    X(fseek) X(fseeko) X(fseeko64) X(ftell) X(ftello) X(ftello64) X(fileno) X(open) X(open64)  \
    X(openat) X(openat64) X(close) X(dup2) X(write) X(pwrite) X(pwrite64)  \
    X(fsync) X(syncfs) X(sync) X(stat) X(stat64) X(lstat) X(lstat64) X(fstat)     \
    X(fstat64) X(fstatfs) X(fstatfs64) X(mmap) X(mmap64) X(munmap) X(chmod) X(fchmod)          \
    X(chown) X(lchown) X(fchown) X(rename) X(renameat) X(renameat2) X(unlink) X(unlinkat)      \
    X(system) X(fork) X(waitpid) X(time)
// clang-format on

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

void* realOf(int i) {
    void* p = gReal[i].load(std::memory_order_relaxed);
    if (p == nullptr) {
        p = kInterceptor[i] != nullptr ? reinterpret_cast<void*>(kInterceptor[i])
                                       : ::dlsym(RTLD_NEXT, kRealName[i]);
        if (p == nullptr) die(kRealName[i]);
        gReal[i].store(p, std::memory_order_relaxed);
    }
    return p;
}

// Resolved up front, so that a child forked from a threaded parent never
// needs the dynamic loader's lock; realOf() covers calls made before this.
__attribute__((constructor)) void resolveAll() {
    for (int i = 0; i < kRealCount; ++i) (void)realOf(i);
}

#define REAL(name) reinterpret_cast<decltype(&::name)>(realOf(k_##name))

constexpr int kMaxFd = 1024;
constexpr std::size_t kPathMax = 256;  // longer paths are kept cut, which prefixes survive
constexpr int kMaxFaults = 8;
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

// A *at path as one path; `slot` keeps rename's two apart.
const char* atPath(int dirfd, const char* path, int slot) {
    static Path joined[2];
    if (path == nullptr || path[0] == '/' || dirfd == AT_FDCWD) return path;
    std::snprintf(joined[slot], kPathMax, "%s/%s", fdPath(dirfd), path);
    return joined[slot];
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
    Path path, to;
};

struct Counter {
    bool active;
    Path prefix;
    int count, crashAt, violated;
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

bool touches(const char* prefix, const Site& s) { return matches(prefix, s.path) || matches(prefix, s.to); }

// Marks `path` as holding unflushed data or not; returns whether it did.
bool setDirty(const char* path, bool dirty) {
    Path* free = nullptr;
    for (Path& p : gCounter.dirty) {
        if (p[0] == '\0') {
            free = free != nullptr ? free : &p;
        } else if (std::strcmp(p, path) == 0) {
            if (!dirty) p[0] = '\0';
            return true;
        }
    }
    if (dirty && free != nullptr) copyPath(*free, path);
    return false;
}

void forgetUnflushed() {
    for (Path& p : gCounter.dirty) p[0] = '\0';
}

void noteWriteLike(const Site& s, bool goesAhead) {
    Counter& c = gCounter;
    if (!c.active || !touches(c.prefix, s)) return;
    if (++c.count == c.crashAt) ::_exit(kCrashStatus);
    if (!goesAhead) return;
    if (s.call == Call::Write || s.call == Call::Fwrite || s.call == Call::Fflush || s.call == Call::Fclose) {
        (void)setDirty(s.path, true);
    } else if (s.call == Call::Fsync || s.call == Call::Unlink) {
        (void)setDirty(s.path, false);
    } else if (s.call == Call::Rename) {
        const bool unflushed = setDirty(s.path, false);
        (void)setDirty(s.to, unflushed);  // a replaced file's own data is gone
        if (unflushed && c.violated < kViolationMax) {
            Logged& v = c.violations[c.violated++];
            copyPath(v.path, s.path);
            copyPath(v.to, s.to);
        }
    }
}

// Runs the real call unless an armed fault picks this one; counts it first.
// A failed fclose, close or munmap has still given its resource back.
template <class R, class F>
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
    if (s.call == Call::Fclose || s.call == Call::Close || s.call == Call::Munmap) (void)real();
    if (fault->err != 0) errno = fault->err;
    if constexpr (std::is_arithmetic_v<R>) {
        if (fault->hasValue) return static_cast<R>(fault->value);
    }
    return failed;
}

bool opensForWriting(int flags) { return (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC | O_APPEND)) != 0; }

template <class F>
int opening(const char* path, int flags, F real) {
    const int fd = guard(Site{Call::Open, path, opensForWriting(flags)}, -1, real);
    track(fd, path);
    return fd;
}

}  // namespace

// ---- The wrappers ---------------------------------------------------------------
// Most share one shape: what the call touches (a Site), its failure value, the
// forward.
#define BRASK_WRAP(ret, name, params, args, failed, ...)                                            \
    extern "C" ret name params {                                                                    \
        return guard(Site{__VA_ARGS__}, static_cast<ret>(failed), [&] { return REAL(name) args; }); \
    }
#define BRASK_STREAM(ret, name, params, args, failed, call, ...) \
    BRASK_WRAP(ret, name, params, args, failed, call, streamPath(fp) __VA_OPT__(, ) __VA_ARGS__)
#define BRASK_FD(ret, name, params, args, failed, call, ...) \
    BRASK_WRAP(ret, name, params, args, failed, call, fdPath(fd) __VA_OPT__(, ) __VA_ARGS__)

BRASK_STREAM(int, fflush, (FILE * fp), (fp), EOF, Call::Fflush, pending(fp))
BRASK_STREAM(size_t, fread, (void* b, size_t size, size_t n, FILE* fp), (b, size, n, fp), 0, Call::Fread)
BRASK_STREAM(size_t, fwrite, (const void* b, size_t size, size_t n, FILE* fp), (b, size, n, fp), 0,
             Call::Fwrite, true)
BRASK_STREAM(int, fputs, (const char* s, FILE* fp), (s, fp), EOF, Call::Fwrite, true)
BRASK_STREAM(int, fputc, (int c, FILE* fp), (c, fp), EOF, Call::Fwrite, true)
BRASK_STREAM(int, fseek, (FILE * fp, long at, int whence), (fp, at, whence), -1, Call::Fseek)
BRASK_STREAM(int, fseeko, (FILE * fp, off_t at, int whence), (fp, at, whence), -1, Call::Fseek)
BRASK_STREAM(int, fseeko64, (FILE * fp, off64_t at, int whence), (fp, at, whence), -1, Call::Fseek)
BRASK_STREAM(long, ftell, (FILE * fp), (fp), -1, Call::Ftell)
BRASK_STREAM(off_t, ftello, (FILE * fp), (fp), -1, Call::Ftell)
BRASK_STREAM(off64_t, ftello64, (FILE * fp), (fp), -1, Call::Ftell)
BRASK_STREAM(int, fileno, (FILE * fp), (fp), -1, Call::Fileno)
BRASK_FD(ssize_t, write, (int fd, const void* b, size_t n), (fd, b, n), -1, Call::Write, true)
BRASK_FD(ssize_t, pwrite, (int fd, const void* b, size_t n, off_t at), (fd, b, n, at), -1, Call::Write, true)
BRASK_FD(ssize_t, pwrite64, (int fd, const void* b, size_t n, off64_t at), (fd, b, n, at), -1, Call::Write,
         true)
BRASK_FD(int, fsync, (int fd), (fd), -1, Call::Fsync, true)
BRASK_FD(int, fstat, (int fd, struct stat* st), (fd, st), -1, Call::Fstat)
BRASK_FD(int, fstat64, (int fd, struct stat64* st), (fd, st), -1, Call::Fstat)
BRASK_FD(int, fstatfs, (int fd, struct statfs* st), (fd, st), -1, Call::Fstatfs)
BRASK_FD(int, fstatfs64, (int fd, struct statfs64* st), (fd, st), -1, Call::Fstatfs)
BRASK_FD(void*, mmap, (void* a, size_t n, int prot, int flags, int fd, off_t at), (a, n, prot, flags, fd, at),
         MAP_FAILED, Call::Mmap)
BRASK_FD(void*, mmap64, (void* a, size_t n, int prot, int flags, int fd, off64_t at),
         (a, n, prot, flags, fd, at), MAP_FAILED, Call::Mmap)
BRASK_FD(int, fchmod, (int fd, mode_t mode), (fd, mode), -1, Call::Fchmod, true)
BRASK_FD(int, fchown, (int fd, uid_t uid, gid_t gid), (fd, uid, gid), -1, Call::Fchown, true)
BRASK_WRAP(int, stat, (const char* p, struct stat* st), (p, st), -1, Call::Stat, p)
BRASK_WRAP(int, stat64, (const char* p, struct stat64* st), (p, st), -1, Call::Stat, p)
BRASK_WRAP(int, lstat, (const char* p, struct stat* st), (p, st), -1, Call::Lstat, p)
BRASK_WRAP(int, lstat64, (const char* p, struct stat64* st), (p, st), -1, Call::Lstat, p)
BRASK_WRAP(int, munmap, (void* a, size_t n), (a, n), -1, Call::Munmap, "")
BRASK_WRAP(int, chmod, (const char* p, mode_t mode), (p, mode), -1, Call::Chmod, p, true)
BRASK_WRAP(int, chown, (const char* p, uid_t uid, gid_t gid), (p, uid, gid), -1, Call::Chown, p, true)
BRASK_WRAP(int, lchown, (const char* p, uid_t uid, gid_t gid), (p, uid, gid), -1, Call::Chown, p, true)
BRASK_WRAP(int, rename, (const char* a, const char* b), (a, b), -1, Call::Rename, a, true, b)
BRASK_WRAP(int, renameat, (int da, const char* a, int db, const char* b), (da, a, db, b), -1, Call::Rename,
           atPath(da, a, 0), true, atPath(db, b, 1))
BRASK_WRAP(int, renameat2, (int da, const char* a, int db, const char* b, unsigned flags),
           (da, a, db, b, flags), -1, Call::Rename, atPath(da, a, 0), true, atPath(db, b, 1))
BRASK_WRAP(int, unlink, (const char* p), (p), -1, Call::Unlink, p, true)
BRASK_WRAP(int, unlinkat, (int d, const char* p, int flags), (d, p, flags), -1, Call::Unlink, atPath(d, p, 0),
           true)
BRASK_WRAP(pid_t, fork, (), (), -1, Call::Fork, "")
BRASK_WRAP(pid_t, waitpid, (pid_t pid, int* status, int options), (pid, status, options), -1, Call::Waitpid,
           "")
BRASK_WRAP(time_t, time, (time_t * out), (out), -1, Call::Time, "")
// Weak: a program may count shell commands with a system() of its own (the
// benchmarks do), which then replaces this one.  No sanitizer intercepts it.
extern "C" __attribute__((weak)) int system(const char*);
BRASK_WRAP(int, system, (const char* command), (command), -1, Call::System, command)

// The rest also keep the descriptor table, or take variable arguments.
#define BRASK_FOPEN(name)                                                                   \
    extern "C" FILE* name(const char* p, const char* mode) {                                \
        FILE* fp = guard(Site{Call::Fopen, p, std::strpbrk(mode, "wa+") != nullptr},        \
                         static_cast<FILE*>(nullptr), [&] { return REAL(name)(p, mode); }); \
        track(streamFd(fp), p);                                                             \
        return fp;                                                                          \
    }
BRASK_FOPEN(fopen)
BRASK_FOPEN(fopen64)

// The mode argument is there only when the call may make a file.
#define BRASK_MODE(flags)                                                          \
    va_list args;                                                                  \
    va_start(args, flags);                                                         \
    const bool makes = ((flags)&O_CREAT) != 0 || ((flags)&O_TMPFILE) == O_TMPFILE; \
    const mode_t mode = makes ? va_arg(args, mode_t) : 0;                          \
    va_end(args)
extern "C" int open(const char* p, int flags, ...) {
    BRASK_MODE(flags);
    return opening(p, flags, [&] { return REAL(open)(p, flags, mode); });
}
extern "C" int open64(const char* p, int flags, ...) {
    BRASK_MODE(flags);
    return opening(p, flags, [&] { return REAL(open64)(p, flags, mode); });
}
extern "C" int openat(int d, const char* p, int flags, ...) {
    BRASK_MODE(flags);
    return opening(atPath(d, p, 0), flags, [&] { return REAL(openat)(d, p, flags, mode); });
}
extern "C" int openat64(int d, const char* p, int flags, ...) {
    BRASK_MODE(flags);
    return opening(atPath(d, p, 0), flags, [&] { return REAL(openat64)(d, p, flags, mode); });
}

extern "C" int fclose(FILE* fp) {
    const int fd = streamFd(fp);
    const int r = guard(Site{Call::Fclose, fdPath(fd), pending(fp)}, EOF, [&] { return REAL(fclose)(fp); });
    track(fd, nullptr);
    return r;
}

extern "C" int close(int fd) {
    const int r = guard(Site{Call::Close, fdPath(fd)}, -1, [&] { return REAL(close)(fd); });
    track(fd, nullptr);
    return r;
}

// Only keeps the table right when a descriptor is replaced (a test
// redirecting its output, say).
extern "C" int dup2(int from, int to) {
    const int r = REAL(dup2)(from, to);
    if (r >= 0 && from != to) track(to, fdPath(from));
    return r;
}

// A file-system-wide flush leaves nothing unflushed, whichever descriptor names it.
extern "C" int syncfs(int fd) {
    const int r = guard(Site{Call::Syncfs, fdPath(fd), true}, -1, [&] { return REAL(syncfs)(fd); });
    if (r == 0) forgetUnflushed();
    return r;
}

extern "C" void sync() {
    REAL(sync)();
    forgetUnflushed();
}

// The C library's headers may name this __isoc99_fscanf; this definition
// takes the same name, and vfscanf the matching one.
extern "C" int fscanf(FILE* fp, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int r =
        guard(Site{Call::Fscanf, streamPath(fp)}, EOF, [&] { return std::vfscanf(fp, format, args); });
    va_end(args);
    return r;
}

// There is no execvp-like form of execlp to forward to: its list becomes an array.
extern "C" int execlp(const char* file, const char* arg, ...) {
    constexpr int kMaxArgs = 64;
    char* argv[kMaxArgs + 1] = {const_cast<char*>(arg)};
    va_list args;
    va_start(args, arg);
    for (int n = 1; argv[n - 1] != nullptr && n < kMaxArgs; ++n) argv[n] = va_arg(args, char*);
    va_end(args);
    return guard(Site{Call::Execlp, file}, -1, [&] { return ::execvp(file, argv); });
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
#define BRASK_CALL_NAME(value, name) #name,
    static constexpr const char* kNames[] = {BRASK_TEST_CALLS(BRASK_CALL_NAME)};
#undef BRASK_CALL_NAME
    return kNames[static_cast<int>(call)];
}

FailCall::FailCall(Call call, int err, std::string_view prefix, int nth, int times) : slot_(-1) {
    for (int i = 0; i < kMaxFaults && slot_ < 0; ++i) {
        if (!gFaults[i].used) slot_ = i;
    }
    if (slot_ < 0) die("more than 8 FailCalls armed");
    gFaults[slot_] = Fault{true, call, err, {}, nth, times, 0, 0, false, 0};
    copyPrefix(gFaults[slot_].prefix, prefix);
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
