// Shared harness of the fuzz targets that run library code on files: they
// enter the bubblewrap sandbox before libFuzzer starts and keep the library's
// diagnostics off the terminal.  support/tree.h compares the sandbox tree
// before and after an input and puts it back.
#pragma once

#include <cstddef>
#include <cstdint>
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

}  // namespace brask::fuzz
