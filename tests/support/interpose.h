// Control over the C library calls the library makes, for tests that must
// reach its I/O error lines or end it part-way through a restore.
//
// A binary that links brask_test_core defines the C library functions listed
// under Call itself; the library's objects, linked statically into it, call
// these, and each one forwards to the real function (through a sanitizer's
// interceptor when there is one).  While nothing is armed a wrapper only
// forwards and remembers which path each descriptor was opened with, so a
// stream opened before arming is still recognised.
//
// Paths are matched by prefix: a call matches "/conf/" when its path starts
// with it, or is "/conf" itself.  The path of a descriptor or stream call is
// the one it was opened with (open, openat, fopen and their 64-bit forms;
// relative *at paths are joined to their directory's); a rename matches by
// either path; system matches by its command and execlp by its file.  Calls
// without a path (fork, waitpid, time, munmap, an untracked descriptor)
// match only the empty prefix.
//
// Arming and disarming are meant for one thread; a forked child inherits
// what its parent armed.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace brask::test {

// Each stands for the family of symbols a compiler may emit for it:
//   fopen: fopen, fopen64          fwrite: fwrite, fputs, fputc (GCC turns one into another)
//   fseek: fseek, fseeko(64)       ftell: ftell, ftello(64)
//   open: open(64), openat(64)     write: write, pwrite(64)
//   stat, lstat, fstat, fstatfs, mmap: and their 64-bit forms
//   chown: chown, lchown           rename: rename, renameat(2)      unlink: unlink, unlinkat
// fclose, close and munmap fail after giving their resource back.
// clang-format off
#define BRASK_TEST_CALLS(X)                                                                   \
    X(Fopen, fopen) X(Fclose, fclose) X(Fflush, fflush) X(Fread, fread) X(Fwrite, fwrite)     \
    X(Fseek, fseek) X(Ftell, ftell) X(Fileno, fileno) X(Fscanf, fscanf) X(Open, open)         \
    X(Close, close) X(Write, write) X(Fsync, fsync) X(Syncfs, syncfs) \
    X(Stat, stat) X(Lstat, lstat) X(Fstat, fstat) X(Fstatfs, fstatfs) X(Mmap, mmap)           \
    X(Munmap, munmap) X(Chmod, chmod) X(Fchmod, fchmod) X(Chown, chown) X(Fchown, fchown)     \
    X(Rename, rename) X(Unlink, unlink) X(System, system) X(Fork, fork) X(Execlp, execlp)     \
    X(Waitpid, waitpid) X(Time, time)
// clang-format on
#define BRASK_TEST_CALL_ENUM(value, name) value,
enum class Call { BRASK_TEST_CALLS(BRASK_TEST_CALL_ENUM) };
#undef BRASK_TEST_CALL_ENUM
const char* callName(Call call);

// While alive, the nth call of `call` that matches `prefix` and the
// times - 1 matching calls after it (times 0: every one from the nth on)
// fail with errno `err` (0 leaves errno alone) and the call's failure value:
// NULL for fopen, MAP_FAILED for mmap, (time_t)-1 for time, 0 items for
// fread and fwrite, EOF for fclose, fflush, fputs, fputc and fscanf, -1 for
// the rest.  fclose, close and munmap give their resource back first, as a
// failed call of theirs must.  At most 8 are armed at once.
class FailCall {
public:
    FailCall(Call call, int err, std::string_view prefix = {}, int nth = 1, int times = 1);
    ~FailCall();
    FailCall(const FailCall&) = delete;
    FailCall& operator=(const FailCall&) = delete;

    // Returns `value` instead of the failure value, for calls that return a
    // number: a short count of fread, fwrite or write, system's exit status
    // (with err 0 for a command that ran and failed).
    FailCall& returning(long value);
    // At least one call failed.
    bool fired() const;
    // Matching calls seen so far, failed or not: run once with a large nth
    // to learn how many there are.
    int matched() const;

private:
    int slot_;
};

// A rename whose source still held data not yet flushed to disk: written
// (write, fwrite, a stream flushed) after its last fsync or after the
// last syncfs or sync.  A crash after such a rename can leave the
// new name with missing data.
struct Violation {
    std::string from;
    std::string to;
    bool operator==(const Violation&) const = default;
};

// Counts the write-like calls under `prefix` while alive: those that change
// what is stored (open and fopen for writing, write, pwrite, fwrite and its
// fputs, fputc forms, fflush and fclose of buffered output, fsync, syncfs,
// chmod, chown, fchmod, fchown, rename, unlink), and keeps the flush order
// per path for violations().  One at a time.
class WriteLikeCounter {
public:
    explicit WriteLikeCounter(std::string_view prefix);
    ~WriteLikeCounter();
    WriteLikeCounter(const WriteLikeCounter&) = delete;
    WriteLikeCounter& operator=(const WriteLikeCounter&) = delete;

    int count() const;
    std::vector<Violation> violations() const;
};

// Exit status of a process ended by crashBefore.
inline constexpr int kCrashStatus = 86;

// Ends this process with _exit(kCrashStatus), without flushing anything,
// just before its k-th write-like call under `prefix` (k >= 1).  For a forked
// child: it stays armed until the process ends, and replaces any counter.
void crashBefore(int k, std::string_view prefix);

// Calls made while alive are neither counted nor failed: the tests' own file
// work in the middle of an armed scope.
class Unwatched {
public:
    Unwatched();
    ~Unwatched();
    Unwatched(const Unwatched&) = delete;
    Unwatched& operator=(const Unwatched&) = delete;
};

}  // namespace brask::test
