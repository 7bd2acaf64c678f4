#include "support/tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>

#include "support/interpose.h"

namespace brask::test {
namespace {

std::string readAll(const std::string& path) {
    std::string content;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return content;
    char buf[65536];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) content.append(buf, static_cast<std::size_t>(n));
    ::close(fd);
    return content;
}

bool writeAll(const std::string& path, const std::string& content) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    return ::close(fd) == 0 && done == content.size();
}

void walk(const std::string& path, dev_t device, Tree& tree) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || st.st_dev != device) return;
    Node& node = tree[path];
    node = Node{st.st_mode, st.st_uid, st.st_gid, {}};
    if (S_ISREG(st.st_mode)) {
        node.content = readAll(path);
    } else if (S_ISLNK(st.st_mode)) {
        std::error_code ec;
        node.content = std::filesystem::read_symlink(path, ec).string();
    } else if (S_ISDIR(st.st_mode)) {
        std::vector<std::string> names;
        if (DIR* dir = ::opendir(path.c_str())) {
            while (const dirent* e = ::readdir(dir)) {
                const std::string name = e->d_name;
                if (name != "." && name != "..") names.push_back(name);
            }
            ::closedir(dir);
        }
        for (const std::string& name : names)
            walk(path == "/" ? "/" + name : path + "/" + name, device, tree);
    }
}

std::string describe(const Node& n) {
    std::ostringstream out;
    if (S_ISREG(n.mode))
        out << "file ";
    else if (S_ISDIR(n.mode))
        out << "folder ";
    else if (S_ISLNK(n.mode))
        out << "link to " << n.content << ' ';
    else
        out << "type " << std::oct << (n.mode & S_IFMT) << ' ';
    out << std::oct << '0' << (n.mode & 07777) << std::dec << ' ' << n.uid << ':' << n.gid;
    if (S_ISREG(n.mode)) out << ", " << n.content.size() << " bytes";
    return out.str();
}

std::string changes(const Node& a, const Node& b) {
    std::ostringstream out;
    const auto item = [&out]() -> std::ostream& { return out << (out.tellp() > 0 ? ", " : ""); };
    if ((a.mode & S_IFMT) != (b.mode & S_IFMT)) {
        item() << describe(a) << " -> " << describe(b);
        return out.str();
    }
    if (a.mode != b.mode)
        item() << std::oct << "mode 0" << (a.mode & 07777) << " -> 0" << (b.mode & 07777) << std::dec;
    if (a.uid != b.uid || a.gid != b.gid) {
        item() << "owner " << a.uid << ':' << a.gid << " -> " << b.uid << ':' << b.gid;
    }
    if (a.content != b.content) {
        const auto at = std::mismatch(a.content.begin(), a.content.end(), b.content.begin(), b.content.end());
        item() << (S_ISLNK(a.mode) ? "target " : "content ") << a.content.size() << " -> " << b.content.size()
               << " bytes, first difference at byte " << (at.first - a.content.begin());
    }
    return out.str();
}

// Calls `each(path, before, after)` for every path of either tree, in order;
// a side without the path passes nullptr.
template <class F>
void merge(const Tree& before, const Tree& after, F each) {
    auto b = before.begin();
    auto a = after.begin();
    while (b != before.end() || a != after.end()) {
        if (a == after.end() || (b != before.end() && b->first < a->first)) {
            each(b->first, &b->second, nullptr);
            ++b;
        } else if (b == before.end() || a->first < b->first) {
            each(a->first, nullptr, &a->second);
            ++a;
        } else {
            each(a->first, &b->second, &a->second);
            ++a;
            ++b;
        }
    }
}

bool putBack(const std::string& path, const Node& node) {
    if (S_ISDIR(node.mode)) {
        if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
    } else {
        (void)::unlink(path.c_str());
        if (S_ISREG(node.mode) ? !writeAll(path, node.content)
                               : !S_ISLNK(node.mode) || ::symlink(node.content.c_str(), path.c_str()) != 0) {
            return false;
        }
    }
    return ::lchown(path.c_str(), node.uid, node.gid) == 0 &&
           (S_ISLNK(node.mode) || ::chmod(path.c_str(), node.mode & 07777) == 0);
}

}  // namespace

Tree snapshotTree(std::initializer_list<std::string_view> roots) {
    Unwatched own;  // armed faults and counters are for the code under test
    Tree tree;
    for (std::string_view root : roots) {
        struct stat st {};
        const std::string path(root);
        if (::lstat(path.c_str(), &st) == 0) walk(path, st.st_dev, tree);
    }
    return tree;
}

std::string diffTrees(const Tree& before, const Tree& after) {
    std::string text;
    merge(before, after, [&](const std::string& path, const Node* b, const Node* a) {
        if (a == nullptr)
            text += "removed " + path + "\n";
        else if (b == nullptr)
            text += "created " + path + " (" + describe(*a) + ")\n";
        else if (!(*a == *b))
            text += "changed " + path + ": " + changes(*b, *a) + "\n";
    });
    return text;
}

std::vector<std::string> changedPaths(const Tree& before, const Tree& after) {
    std::vector<std::string> paths;
    merge(before, after, [&](const std::string& path, const Node* b, const Node* a) {
        if (a == nullptr || b == nullptr || !(*a == *b)) paths.push_back(path);
    });
    return paths;
}

bool restoreTree(const Tree& snapshot, const std::vector<std::string>& paths) {
    Unwatched own;
    std::vector<std::string> sorted = paths;
    std::sort(sorted.begin(), sorted.end());  // folders before what they hold
    bool ok = true;
    for (auto it = sorted.rbegin(); it != sorted.rend(); ++it) {
        struct stat st {};
        const auto kept = snapshot.find(*it);
        if (::lstat(it->c_str(), &st) == 0 &&
            (kept == snapshot.end() || (st.st_mode & S_IFMT) != (kept->second.mode & S_IFMT))) {
            std::error_code ec;
            std::filesystem::remove_all(*it, ec);
            ok = ok && !ec;
        }
    }
    for (const std::string& path : sorted) {
        const auto kept = snapshot.find(path);
        if (kept != snapshot.end()) ok = putBack(path, kept->second) && ok;
    }
    return ok;
}

}  // namespace brask::test
