// The test-only part of the sandbox: resetting the library's and the host
// platform's process state between cases, and probes tests compare with.
#include "support/sandbox.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"

namespace brask::test {

void resetState() {
    if (!sandbox::resetTree()) {
        std::fprintf(stderr, "sandbox: resetState() outside the sandbox refused\n");
        std::abort();
    }
    // The library's and the platform's process state from the previous case.
    gKillProcessAfterFileChkTimer = 0;
    gRebootAfterRestoreTimer = 0;
    gRestoreType = svfRestoreType_T{};
    hostResetFaults();
    hostResetCounters();
    hostClearSelTime();
    hostFruClearAccessLog();
    hostSetFwUpdateState(0);
    if (hostPlatformInit() != 0) {
        std::fprintf(stderr, "sandbox: hostPlatformInit() failed: %s\n", std::strerror(errno));
        std::abort();
    }
}

void setStatusByte(unsigned index, std::uint8_t state) {
    hslSemiVolatileArea_T area{};
    const bool read = hostSemiVolRead(&area) == 0;
    if (read) reinterpret_cast<std::uint8_t*>(&area.svf)[index] = state;  // 12: the byte after the list
    if (!read || hostSemiVolWrite(&area) != 0) {
        std::fprintf(stderr, "setStatusByte: the host's status area cannot be read or written\n");
        std::abort();
    }
}

std::vector<std::uint8_t> selEvents() {
    std::vector<hostSelRecord_T> records(256);
    const int n = hostSelRead(records.data(), static_cast<int>(records.size()));
    std::vector<std::uint8_t> events;
    for (int i = 0; i < n && i < static_cast<int>(records.size()); ++i) {
        events.push_back(records[i].EventData);
    }
    return events;
}

int openDescriptorCount() {
    std::error_code ec;
    const auto n = std::distance(std::filesystem::directory_iterator("/proc/self/fd", ec), {});
    return ec ? -1 : static_cast<int>(n) - 1;  // the iterator's own descriptor
}

int mappingCount() {
    // File-backed mappings only (inode field non-zero): sanitizers add and drop
    // anonymous mappings of their own at any allocation.
    std::ifstream in("/proc/self/maps");
    std::string line;
    int count = 0;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string range, perms, offset, device, inode;
        if (fields >> range >> perms >> offset >> device >> inode && inode != "0") ++count;
    }
    return count;
}

}  // namespace brask::test
