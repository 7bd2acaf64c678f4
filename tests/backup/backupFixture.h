// Shared fixture of the backup suite: clean fault controls, captured output,
// resource counts, stub commands that fail, and readers of the SEL and the
// FRU backup file.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfTypes.h"

namespace brask::test {

struct Output {
    std::string out;
    std::string err;
    bool has(const std::string& text) const {
        return out.find(text) != std::string::npos || err.find(text) != std::string::npos;
    }
    // Number of lines of both streams that contain `text`.
    int count(const std::string& text) const;
};

// Runs `f` with standard output and error captured.
template <class F>
Output capture(F&& f) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    f();
    Output o;
    o.out = ::testing::internal::GetCapturedStdout();
    o.err = ::testing::internal::GetCapturedStderr();
    return o;
}

// Open descriptors and mapped regions of this process: equal before and
// after an operation means it left nothing behind.
struct Resources {
    std::size_t fds = 0;
    std::size_t maps = 0;
    bool operator==(const Resources&) const = default;
};
Resources resources();

// While alive, the named shell command (cp, mv, rm) fails with status 1:
// a stub of that name is placed first in PATH.
class FailingCommand {
public:
    explicit FailingCommand(const std::string& name);
    ~FailingCommand();
    FailingCommand(const FailingCommand&) = delete;
    FailingCommand& operator=(const FailingCommand&) = delete;

private:
    std::string savedPath_;
};

// The FRU accesses the IPMI responder served since the last clear.
std::vector<hostFruAccess_T> fruAccesses();
// Size field of the FRU backup file header (-1 when the file is shorter).
long fruHeaderSize(const std::string& path);

// Runs `f` in a forked child and returns its result (an int in 0..255 after
// the child's exit status, or -1000 when the child died).  For operations
// that may leave a lock held: the child's exit gives it back.
int runInChild(int (*f)());

class BackupTest : public ::testing::Test {
protected:
    void SetUp() override {
        hostResetFaults();
        hostResetCounters();
        hostFruClearAccessLog();
    }
    void TearDown() override { hostResetFaults(); }
};

}  // namespace brask::test
