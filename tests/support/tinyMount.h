// A small tmpfs mounted over a folder of the sandbox for the length of a
// scope: full-disk cases without filling a real disk.  Mounting needs the
// mount right inside the sandbox; without it the object reports why and the
// test skips.
#pragma once

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace brask::test {

class TinyMount {
public:
    // Mounts a tmpfs of `size` ("64k", "1m", ...) over `dir`.
    TinyMount(std::string dir, const std::string& size) : dir_(std::move(dir)) {
        mounted_ =
            ::mount("tmpfs", dir_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, ("size=" + size).c_str()) == 0;
        if (!mounted_) reason_ = "cannot mount a tmpfs on " + dir_ + " here: " + std::strerror(errno);
    }
    ~TinyMount() {
        if (mounted_) (void)::umount2(dir_.c_str(), MNT_DETACH);
    }
    TinyMount(const TinyMount&) = delete;
    TinyMount& operator=(const TinyMount&) = delete;

    bool mounted() const { return mounted_; }
    // Why the mount was refused ("" when mounted).
    const std::string& reason() const { return reason_; }

private:
    std::string dir_;
    bool mounted_ = false;
    std::string reason_;
};

}  // namespace brask::test
