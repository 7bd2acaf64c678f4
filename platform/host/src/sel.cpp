// The System Event Log: a file of hostSelRecord_T records, appended to in
// one write each so that concurrent writers never interleave a record.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "BraskSvf/svfPlatform.h"
#include "controls.h"
#include "hostFiles.h"

extern "C" {

int hslAddSEL(INT8U Arg1, INT8U Arg2, INT8U EventData) {
    if (hostplat::enterCall(hostplat::Fn::AddSel)) return -1;
    hostSelRecord_T rec = {};
    rec.Arg1 = Arg1;
    rec.Arg2 = Arg2;
    rec.EventData = EventData;
    rec.TimeStamp = static_cast<INT32U>(std::time(nullptr));
    hostplat::Fd fd(::open(HOST_SEL_FILE, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!fd.ok()) return -1;
    ssize_t n;
    do {
        n = ::write(fd.get(), &rec, sizeof rec);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(sizeof rec)) {
        if (n >= 0) errno = EIO;
        return -1;
    }
    return 0;
}

int hostSelRead(hostSelRecord_T* out, int max) {
    if (max < 0 || (out == nullptr && max > 0)) {
        errno = EINVAL;
        return -1;
    }
    hostplat::Fd fd(::open(HOST_SEL_FILE, O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) return errno == ENOENT ? 0 : -1;
    const off_t size = ::lseek(fd.get(), 0, SEEK_END);
    if (size < 0) return -1;
    const off_t records = size / static_cast<off_t>(sizeof(hostSelRecord_T));
    if (records > 0x7FFFFFFF) {
        errno = EOVERFLOW;
        return -1;
    }
    const int count = static_cast<int>(records);
    const int copy = count < max ? count : max;
    if (copy > 0 &&
        hostplat::readAt(fd.get(), out, sizeof(hostSelRecord_T) * static_cast<size_t>(copy), 0) != 0) {
        return -1;
    }
    return count;
}

int hostSelClear(void) {
    hostplat::Fd fd(::open(HOST_SEL_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return fd.ok() ? 0 : -1;
}

}  // extern "C"
