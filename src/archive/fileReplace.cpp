// Atomic replacement of configuration files.  Unit svfBraskArchiver.
#include "archive/fileReplace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/shellCommand.h"

namespace brask::replace {
namespace {

constexpr char kTempSuffix[] = ".svf-new";

Outcome failed(Failure what) { return {what, errno}; }

// Writes all of `n` bytes, retrying short writes.
bool writeAll(int fd, const void* data, std::size_t n) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    while (n > 0) {
        const ssize_t w = ::write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
            if (w == 0) errno = EIO;
            return false;
        }
        p += w;
        n -= static_cast<std::size_t>(w);
    }
    return true;
}

// Copies what is left to read of `from` into `to`.
bool copyAll(int from, int to, Failure& what) {
    std::uint8_t buf[16 * 1024];
    for (;;) {
        const ssize_t r = ::read(from, buf, sizeof buf);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            what = Failure::Read;
            return false;
        }
        if (r == 0) return true;
        if (!writeAll(to, buf, static_cast<std::size_t>(r))) {
            what = Failure::Write;
            return false;
        }
    }
}

// A fresh temporary for `target`, opened for writing.
ScopedFd createTemp(const char* target) {
    char temp[PATH_MAX];
    if (!tempPathFor(target, temp)) return ScopedFd();
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    ScopedFd fd(::open(temp, kFlags, 0600));
    if (!fd && errno == EEXIST) {  // left by a restore that was killed
        (void)::unlink(temp);
        fd.reset(::open(temp, kFlags, 0600));
    }
    return fd;
}

// The owner and mode come before the rename, so the file is never published
// with other ones.  Failures are not judged here: the restore sets both on
// the target again afterwards and reports them there.
void setOwnerAndMode(int fd, const svfBraskArchiveEntryInfo_T& info) {
    (void)::fchown(fd, static_cast<uid_t>(info.FileUid), static_cast<gid_t>(info.FileGid));
    (void)::fchmod(fd, static_cast<mode_t>(info.FilePermission & 07777u));
}

// Everything after the temporary has been filled: owner, mode, the file
// system noted for the batch's flush, and the descriptor closed.
Outcome finish(const char* target, ScopedFd& fd, const svfBraskArchiveEntryInfo_T& info, SyncSet& sync) {
    setOwnerAndMode(fd.get(), info);
    sync.add(fd.get());
    if (::close(fd.release()) != 0) {
        const Outcome out = failed(Failure::Write);
        discard(target);
        return out;
    }
    return {};
}

}  // namespace

bool tempPathFor(const char* target, char (&out)[PATH_MAX]) {
    const char* slash = std::strrchr(target, '/');
    const int dirLength = slash == nullptr ? 0 : static_cast<int>(slash - target + 1);
    const char* name = target + dirLength;
    return formatInto(out, "%.*s.%s%s", dirLength, target, name, kTempSuffix);
}

void discard(const char* target) {
    char temp[PATH_MAX];
    if (tempPathFor(target, temp)) (void)::unlink(temp);
}

void SyncSet::add(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        overflow_ = true;
        return;
    }
    for (int i = 0; i < count_; ++i) {
        if (devices_[i] == st.st_dev) return;
    }
    if (count_ == kMaxFileSystems) {
        overflow_ = true;
        return;
    }
    ScopedFd copy(::dup(fd));
    if (!copy) {
        overflow_ = true;
        return;
    }
    devices_[count_] = st.st_dev;
    fds_[count_++] = std::move(copy);
}

bool SyncSet::sync() {
    if (overflow_) ::sync();  // cannot fail, but also cannot report
    for (int i = 0; i < count_; ++i) {
        if (::syncfs(fds_[i].get()) != 0) return false;
    }
    return true;
}

Outcome stageWhole(const char* target, format::Bytes data, const svfBraskArchiveEntryInfo_T& info,
                   SyncSet& sync) {
    ScopedFd fd = createTemp(target);
    if (!fd) return failed(Failure::Create);
    if (!writeAll(fd.get(), data.data(), data.size())) {
        const Outcome out = failed(Failure::Write);
        discard(target);
        return out;
    }
    return finish(target, fd, info, sync);
}

Outcome stageParts(const char* target, format::Bytes data, std::span<const PartOffsetList_T> parts,
                   const svfBraskArchiveEntryInfo_T& info, SyncSet& sync) {
    // The file's own bytes, never through a link: what is restored is the
    // file named in the catalogue.
    ScopedFd own(::open(target, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!own) return failed(Failure::Read);
    if (::fstat(own.get(), &st) != 0) return failed(Failure::Read);
    if (!S_ISREG(st.st_mode)) {
        errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        return failed(Failure::Read);
    }
    ScopedFd fd = createTemp(target);
    if (!fd) return failed(Failure::Create);
    Outcome out;
    if (!copyAll(own.get(), fd.get(), out.failure)) {
        out.error = errno;
    } else {
        for (const PartOffsetList_T& part : parts) {
            if (::lseek(fd.get(), static_cast<off_t>(part.Offset), SEEK_SET) < 0) {
                out = failed(Failure::Seek);
                break;
            }
            if (!writeAll(fd.get(), data.data() + part.Offset, part.Size)) {
                out = failed(Failure::Write);
                break;
            }
        }
    }
    if (!out.ok()) {
        discard(target);
        return out;
    }
    return finish(target, fd, info, sync);
}

Outcome publish(const char* target) {
    char temp[PATH_MAX];
    if (!tempPathFor(target, temp)) return failed(Failure::Publish);
    if (::rename(temp, target) != 0) {
        const Outcome out = failed(Failure::Publish);
        (void)::unlink(temp);
        return out;
    }
    return {};
}

bool syncDirectory(const char* path) {
    const ScopedFd dir(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return dir && ::fsync(dir.get()) == 0;
}

}  // namespace brask::replace
