// Helpers of the event suite: the shared area through the host platform's
// backing file, what the process holds, the status-area lock, captured output.
#pragma once

#include "support/sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <regex>
#include <string>
#include <utility>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "BraskSvf/svfTypes.h"

namespace brask::test {

inline hslSemiVolatileArea_T readArea() {
    hslSemiVolatileArea_T area{};
    EXPECT_EQ(hostSemiVolRead(&area), 0);
    return area;
}

inline void writeArea(const hslSemiVolatileArea_T& area) { ASSERT_EQ(hostSemiVolWrite(&area), 0); }

// Sets the twelve status bytes and the four bytes reported beside them.
inline void setStates(const std::array<INT8U, 12>& states, INT8U addedInfo = 0,
                      std::array<INT8U, 3> reserve = {}) {
    hslSemiVolatileArea_T area = readArea();
    std::copy(states.begin(), states.end(), area.svf.svfStatusList);
    area.svf.RestoreAddedInfo = addedInfo;
    std::copy(reserve.begin(), reserve.end(), area.svf.Reserve);
    writeArea(area);
}

// Descriptors and mappings the process holds, to compare before and after a call.
inline std::pair<int, int> held() { return {openDescriptorCount(), mappingCount()}; }

// Calls since the last counter reset of the lock's platform functions: create,
// acquire, map, unmap, release, destroy.
using LockCalls = std::array<int, 6>;
inline LockCalls lockCalls() {
    return {hostCallCount("hslCreateMutex"),         hostCallCount("hslAcquireMutex"),
            hostCallCount("hslGetSemiVolatileArea"), hostCallCount("hslFreeSemiVolatileArea"),
            hostCallCount("hslReleaseMutex"),        hostCallCount("hslDestroyMutex")};
}

// Takes the status-area lock, runs f on the area, gives all back; false when
// any step fails.
template <class F>
bool withLockedArea(F&& f) {
    Mutex_T* mutex = nullptr;
    hslSemiVolatileMng_T mng{};
    hslSemiVolatileArea_T* area = nullptr;
    if (svfGetMutexAndSemiVolatileArea(&mutex, &mng, &area) != 0) return false;
    f(*area);
    return (hslFreeSemiVolatileArea(&mng) == 0) & (hslReleaseMutex(mutex) == 0) &
           (hslDestroyMutex(mutex) == 0);
}

// For forked children: their output goes nowhere.
inline void silence() {
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDOUT_FILENO);
    dup2(devnull, STDERR_FILENO);
}

// Replaces the "(<line>)" of every diagnostic tag so tests compare texts, not line numbers.
inline std::string withoutLineNumbers(const std::string& s) {
    return std::regex_replace(s, std::regex(R"(\(\d+\) : )"), "(N) : ");
}

// What f printed on stdout and stderr, line numbers replaced.
struct Output {
    std::string out, err;
};
template <class F>
Output captured(F&& f) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    f();
    const std::string err = testing::internal::GetCapturedStderr();
    return {withoutLineNumbers(testing::internal::GetCapturedStdout()), withoutLineNumbers(err)};
}

}  // namespace brask::test
