// Safe extraction: a component-by-component openat walk with O_NOFOLLOW.
#include "extract.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "common/scoped.h"

namespace svfdump {
namespace {

using brask::ScopedFd;

constexpr mode_t kDirMode = 0755;
constexpr char kPartSuffix[] = ".svfdump-part";

std::string errorText(const std::string& what, int err) { return what + ": " + std::strerror(err); }

// Opens (creating when missing) the directory `name` inside `parent`,
// refusing a symbolic link or anything else that is not a directory.
ScopedFd enterDirectory(int parent, const std::string& name, std::string& why) {
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    ScopedFd fd(::openat(parent, name.c_str(), flags));
    if (!fd && errno == ENOENT) {
        if (::mkdirat(parent, name.c_str(), kDirMode) != 0 && errno != EEXIST) {
            why = errorText("cannot create folder " + name, errno);
            return ScopedFd();
        }
        fd.reset(::openat(parent, name.c_str(), flags));
    }
    if (!fd) why = errorText(name + " is not a folder we may enter", errno);
    return fd;
}

bool writeAll(int fd, format::Bytes data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Writes `leaf` inside `dir` through a fresh temporary file and a rename:
// whatever stood at `leaf` (a link, a hard link to a file elsewhere) is
// replaced, never written through.
bool writeLeaf(int dir, const std::string& leaf, const Entry& e, std::string& why) {
    const std::string part = leaf + kPartSuffix;
    ::unlinkat(dir, part.c_str(), 0);  // a left-over of an interrupted run
    ScopedFd fd(::openat(dir, part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) {
        why = errorText("cannot create " + leaf, errno);
        return false;
    }
    bool ok = writeAll(fd.get(), e.raw.data);
    if (!ok) why = errorText("cannot write " + leaf, errno);
    if (ok && ::fchmod(fd.get(), static_cast<mode_t>(e.raw.info.FilePermission & 0777u)) != 0) {
        why = errorText("cannot set the mode of " + leaf, errno);
        ok = false;
    }
    if (ok && ::close(fd.release()) != 0) {
        why = errorText("cannot write " + leaf, errno);
        ok = false;
    }
    if (ok && ::renameat(dir, part.c_str(), dir, leaf.c_str()) != 0) {
        why = errorText("cannot put " + leaf + " in place", errno);
        ok = false;
    }
    if (!ok) ::unlinkat(dir, part.c_str(), 0);
    return ok;
}

bool extractOne(int root, const std::vector<std::string>& parts, const Entry& e, std::string& why) {
    ScopedFd current;
    int at = root;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        ScopedFd next = enterDirectory(at, parts[i], why);
        if (!next) return false;
        current = std::move(next);
        at = current.get();
    }
    return writeLeaf(at, parts.back(), e, why);
}

}  // namespace

bool relativeComponents(const std::string& target, std::vector<std::string>& out, std::string& why) {
    out.clear();
    std::size_t start = 0;
    while (start <= target.size()) {
        std::size_t end = target.find('/', start);
        if (end == std::string::npos) end = target.size();
        const std::string part = target.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            why = "path has a \"..\" component";
            return false;
        }
        if (part.size() + sizeof kPartSuffix - 1 > NAME_MAX) {
            why = "path component too long";
            return false;
        }
        out.push_back(part);
    }
    if (out.empty()) {
        why = "path names no file";
        return false;
    }
    return true;
}

ExtractOutcome extractAll(const Inspection& r, const std::string& dir) {
    ExtractOutcome result;
    result.dir = dir;
    if (!r.sound()) {
        result.reason = r.failures.front();
        return result;
    }
    // Every path first: a refused entry must leave nothing behind.
    std::vector<std::vector<std::string>> paths;
    for (unsigned b = 0; b < r.blocks.size(); ++b) {
        for (unsigned i = 0; i < r.blocks[b].entries.size(); ++i) {
            const Entry& e = r.blocks[b].entries[i];
            std::string why;
            if (!relativeComponents(e.target, paths.emplace_back(), why)) {
                result.reason = "block " + std::to_string(b) + ", entry " + std::to_string(i) + " (" +
                                escaped(e.target) + "): " + why;
                return result;
            }
        }
    }
    if (::mkdir(dir.c_str(), kDirMode) != 0 && errno != EEXIST) {
        result.reason = errorText("cannot create " + escaped(dir), errno);
        return result;
    }
    ScopedFd root(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) {
        result.reason = errorText("cannot open " + escaped(dir), errno);
        return result;
    }
    std::size_t k = 0;
    for (const Block& block : r.blocks) {
        for (const Entry& e : block.entries) {
            std::string why;
            if (!extractOne(root.get(), paths[k++], e, why)) {
                result.reason = escaped(e.target) + ": " + escaped(why);
                return result;
            }
            ++result.written;
        }
    }
    result.ok = true;
    return result;
}

}  // namespace svfdump
