// Shared harness of the fuzz targets that run library code on files: they
// enter the bubblewrap sandbox before libFuzzer starts, keep the library's
// diagnostics off the terminal, and compare the sandbox tree before and after
// an input to prove what changed and to put it back.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace brask::fuzz {

// From LLVMFuzzerInitialize: re-executes the binary inside the sandbox (the
// fuzz work folder of the build, where scripts/fuzz keeps corpora and
// artifacts, bound writable), then inside lays out a fresh tree, initialises
// the host platform and sends standard output (the library's debug lines) to
// /dev/null.  Returns only inside the sandbox.
void enterSandbox(int* argc, char*** argv);

// Sends standard error to /dev/null while alive: hostile inputs make the
// library report every refusal.  Sanitizer reports and FUZZ_CHECK keep their
// own copy of the real standard error.
class Quiet {
public:
    Quiet();
    ~Quiet();
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    int saved_;
};

// Descriptors open in this process: a call must leave as many as it found.
int openDescriptorCount();

// Replaces `path` with `size` bytes (mode 0644); aborts when it cannot.
void writeFile(const char* path, const std::uint8_t* data, std::size_t size);
// The whole file, or empty when it cannot be read.
std::vector<std::uint8_t> readFile(const char* path);

// What lstat says of one path, as far as a change to it matters.  Folders
// are compared by type, mode and owner only: creating or removing a file
// inside touches their times, and that file shows up on its own.
struct Node {
    mode_t mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    off_t size = 0;
    timespec mtime{};
};
using Tree = std::map<std::string, Node>;

// Every path under the given roots (symbolic links are not followed).
Tree snapshot(std::initializer_list<const char*> roots);
// Paths created, removed or changed between two snapshots, in order.
std::vector<std::string> changedPaths(const Tree& before, const Tree& after);

// Content, mode, owner and modification time of every file and folder of a
// snapshot, so that changed paths can be put back exactly as they were (the
// next snapshot then equals the first one again).
class Pristine {
public:
    explicit Pristine(const Tree& tree);
    // Removes paths that did not exist, rewrites the others.
    void restore(const std::vector<std::string>& paths) const;

private:
    struct Saved {
        Node node;
        std::vector<std::uint8_t> content;
    };
    std::map<std::string, Saved> saved_;
};

}  // namespace brask::fuzz
