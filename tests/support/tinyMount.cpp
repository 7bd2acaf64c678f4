#include "support/tinyMount.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>

namespace brask::test {

TinyMount::TinyMount(std::string dir, const std::string& size) : dir_(std::move(dir)) {
    const std::string options = "size=" + size;
    if (::mount("tmpfs", dir_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0) {
        mounted_ = true;
    } else {
        reason_ = "cannot mount a tmpfs on " + dir_ + " here: " + std::strerror(errno);
    }
}

TinyMount::~TinyMount() {
    if (mounted_) (void)::umount2(dir_.c_str(), MNT_DETACH);
}

}  // namespace brask::test
