// Helpers of the event suite: the shared area through the host platform's
// backing file, and counts of what the process holds (descriptors, mappings).
#pragma once

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <dirent.h>
#include <fstream>
#include <string>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfTypes.h"

namespace brask::test {

inline hslSemiVolatileArea_T readArea() {
    hslSemiVolatileArea_T area{};
    EXPECT_EQ(hostSemiVolRead(&area), 0);
    return area;
}

inline void writeArea(const hslSemiVolatileArea_T& area) { ASSERT_EQ(hostSemiVolWrite(&area), 0); }

// Sets the twelve status bytes (and the four bytes reported beside them).
inline void setStates(const std::array<INT8U, 12>& states, INT8U addedInfo = 0,
                      std::array<INT8U, 3> reserve = {}) {
    hslSemiVolatileArea_T area = readArea();
    for (size_t i = 0; i < states.size(); ++i) area.svf.svfStatusList[i] = states[i];
    area.svf.RestoreAddedInfo = addedInfo;
    for (size_t i = 0; i < reserve.size(); ++i) area.svf.Reserve[i] = reserve[i];
    writeArea(area);
}

// What the process holds, to compare before and after a call.
struct Held {
    int fds;
    int maps;
    bool operator==(const Held&) const = default;
};
inline Held held() { return {brask::test::openDescriptorCount(), brask::test::mappingCount()}; }
inline std::ostream& operator<<(std::ostream& os, const Held& h) {
    return os << "{fds " << h.fds << ", maps " << h.maps << "}";
}

// Calls of the status-area lock's platform functions since the last reset.
struct LockCalls {
    int create, acquire, map, unmap, release, destroy;
    bool operator==(const LockCalls&) const = default;
};
inline LockCalls lockCalls() {
    return {hostCallCount("hslCreateMutex"),         hostCallCount("hslAcquireMutex"),
            hostCallCount("hslGetSemiVolatileArea"), hostCallCount("hslFreeSemiVolatileArea"),
            hostCallCount("hslReleaseMutex"),        hostCallCount("hslDestroyMutex")};
}
inline std::ostream& operator<<(std::ostream& os, const LockCalls& c) {
    return os << "{create " << c.create << ", acquire " << c.acquire << ", map " << c.map
              << ", unmap " << c.unmap << ", release " << c.release << ", destroy " << c.destroy
              << "}";
}

// Strips the "(<line>)" of every diagnostic tag so tests compare texts, not line numbers.
inline std::string withoutLineNumbers(const std::string& s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '(') {
            size_t j = i + 1;
            while (j < s.size() && s[j] >= '0' && s[j] <= '9') ++j;
            if (j > i + 1 && s.compare(j, 4, ") : ") == 0) {
                out += "(N)";
                i = j;
                continue;
            }
        }
        out += s[i];
    }
    return out;
}

}  // namespace brask::test
