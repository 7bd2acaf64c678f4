// Snapshots of folders of the sandbox: what a call created, removed or
// changed, told in words, and changed paths put back as they were.
#pragma once

#include <sys/types.h>

#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace brask::test {

// One path as far as a change to it matters.  Times are left out: a file
// rewritten with the same bytes, mode and owner is unchanged for every
// caller, and a folder's times move whenever a file inside comes or goes.
struct Node {
    mode_t mode = 0;  // type and permission bits, as lstat gives them
    uid_t uid = 0;
    gid_t gid = 0;
    std::string content;  // a regular file's bytes, a symbolic link's target
    bool operator==(const Node&) const = default;
};
using Tree = std::map<std::string, Node>;

// Every path under the roots, the roots included.  Symbolic links are not
// followed, nothing on another file system than its root's is entered (a
// checkout under /tmp is mounted there), and a missing root adds nothing.
Tree snapshotTree(std::initializer_list<std::string_view> roots = {"/conf", "/var/brask"});

// One line per path that differs, in path order, "" when none:
//   created /conf/a (file 0644 0:0, 12 bytes)
//   removed /conf/b
//   changed /conf/c: mode 0644 -> 0600, content 12 -> 14 bytes, first difference at byte 3
std::string diffTrees(const Tree& before, const Tree& after);

// The paths created, removed or changed, in path order.
std::vector<std::string> changedPaths(const Tree& before, const Tree& after);

// Puts `paths` back as `snapshot` has them: paths it lacks are removed (with
// everything below them), the others recreated with their content, mode and
// owner.  False when one could not be put back.
bool restoreTree(const Tree& snapshot, const std::vector<std::string>& paths);

}  // namespace brask::test
