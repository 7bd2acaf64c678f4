// Shared fixture of the backup suite: clean fault controls, captured output,
// resource counts and stub commands that fail.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfTypes.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {

struct Output {
    std::string out, err;
    bool has(const std::string& text) const {
        return out.find(text) != std::string::npos || err.find(text) != std::string::npos;
    }
    // Lines of both streams containing `text` (a trailing newline of `text` ignored).
    int count(std::string text) const {
        if (!text.empty() && text.back() == '\n') text.pop_back();
        int n = 0;
        for (const std::string* s : {&out, &err}) {
            std::istringstream lines(*s);
            for (std::string line; std::getline(lines, line);) n += line.find(text) != std::string::npos;
        }
        return n;
    }
};

// Calls `f` with standard output and error captured into `o`; returns its result.
template <class F>
auto captured(Output& o, F&& f) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const auto rc = f();
    o.out = ::testing::internal::GetCapturedStdout();
    o.err = ::testing::internal::GetCapturedStderr();
    return rc;
}

// Open descriptors and mapped regions at construction: equal before and after
// an operation means it left nothing behind.
struct Resources {
    int fds = openDescriptorCount(), maps = mappingCount();
    bool operator==(const Resources&) const = default;
};

// While alive, the named shell command (cp, mv, rm) fails with status 1: a
// stub of that name comes first in PATH.
class FailingCommand {
public:
    explicit FailingCommand(const std::string& name) : savedPath_(std::getenv("PATH") ? std::getenv("PATH") : "") {
        writeFile("/tmp/failing-commands/" + name, "#!/bin/sh\nexit 1\n", 0755);
        ::setenv("PATH", ("/tmp/failing-commands:" + savedPath_).c_str(), 1);
    }
    ~FailingCommand() {
        ::setenv("PATH", savedPath_.c_str(), 1);
        std::system("rm -rf /tmp/failing-commands");
    }
    FailingCommand(const FailingCommand&) = delete;

private:
    std::string savedPath_;
};

// User information with `users` distinct records of 60 bytes, and its image
// (the file in its full form: twelve records of 60 bytes).
inline bumUserInfo_t sampleUsers(std::uint8_t users) {
    bumUserInfo_t info{};
    info.header.version = 1;
    info.header.users = users;
    for (unsigned i = 0; i < users && i < 12; ++i) {
        bumUserAttr_t& u = info.user[i];
        u.header.length = 60;
        u.bmcUid = static_cast<std::uint8_t>(i + 1);
        u.passwdFlag = 1;
        u.role_value = 0x100u + i;
        std::memset(u.hashedPasswd, static_cast<int>(0x40 + i), sizeof u.hashedPasswd);
        for (auto& t : u.prevLogin) t = 1700000000u + i;
    }
    return info;
}

inline std::vector<std::uint8_t> image(const bumUserInfo_t& info) {
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&info);
    return {raw, raw + sizeof info};
}

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
