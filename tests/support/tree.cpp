#include "support/tree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "support/interpose.h"

namespace brask::test {
namespace {

namespace fs = std::filesystem;

void walk(const std::string& path, dev_t device, Tree& tree) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || st.st_dev != device) return;
    Node& node = tree[path] = Node{st.st_mode, st.st_uid, st.st_gid, {}};
    std::error_code ec;
    if (S_ISREG(st.st_mode)) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream bytes;  // in bulk: a character iterator crawls in a sanitizer build
        bytes << in.rdbuf();
        node.content = std::move(bytes).str();
    } else if (S_ISLNK(st.st_mode)) {
        node.content = fs::read_symlink(path, ec).string();
    } else if (S_ISDIR(st.st_mode)) {
        for (const fs::directory_entry& e : fs::directory_iterator(path, ec))
            walk(e.path().string(), device, tree);
    }
}

std::string describe(const Node& n) {
    std::ostringstream out;
    const char* type = S_ISREG(n.mode) ? "file " : S_ISDIR(n.mode) ? "folder " : nullptr;
    if (type != nullptr)
        out << type;
    else if (S_ISLNK(n.mode))
        out << "link to " << n.content << ' ';
    else
        out << "type " << std::oct << (n.mode & S_IFMT) << ' ';
    out << std::oct << '0' << (n.mode & 07777) << std::dec << ' ' << n.uid << ':' << n.gid;
    if (S_ISREG(n.mode)) out << ", " << n.content.size() << " bytes";
    return out.str();
}

std::string changes(const Node& a, const Node& b) {
    if ((a.mode & S_IFMT) != (b.mode & S_IFMT)) return describe(a) + " -> " + describe(b);
    std::ostringstream out;
    const auto item = [&out]() -> std::ostream& { return out << (out.tellp() > 0 ? ", " : ""); };
    if (a.mode != b.mode)
        item() << std::oct << "mode 0" << (a.mode & 07777) << " -> 0" << (b.mode & 07777) << std::dec;
    if (a.uid != b.uid || a.gid != b.gid)
        item() << "owner " << a.uid << ':' << a.gid << " -> " << b.uid << ':' << b.gid;
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
    std::set<std::string> paths;
    for (const Tree* t : {&before, &after})
        for (const auto& [path, node] : *t) paths.insert(path);
    for (const std::string& path : paths) {
        const auto b = before.find(path), a = after.find(path);
        each(path, b == before.end() ? nullptr : &b->second, a == after.end() ? nullptr : &a->second);
    }
}

bool putBack(const std::string& path, const Node& node) {
    std::error_code ec;
    if (S_ISDIR(node.mode)) {
        fs::create_directory(path, ec);
    } else if (S_ISLNK(node.mode)) {
        fs::remove(path, ec);
        if (::symlink(node.content.c_str(), path.c_str()) != 0) return false;
    } else if (S_ISREG(node.mode)) {
        fs::remove(path, ec);
        std::ofstream out(path, std::ios::binary);
        if (!(out << node.content).flush()) return false;
    } else {
        return false;
    }
    return !ec && ::lchown(path.c_str(), node.uid, node.gid) == 0 &&
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
            fs::remove_all(*it, ec);
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
