// Host platform state shared through /var/hsl: the semi-volatile area, SEL,
// EEPROM, made files, hooks; per-function fault injection and bad arguments.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "platformTestSupport.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

TEST(HostState, InitMakesTheDefaultFiles) {
    struct stat st;
    ASSERT_EQ(stat(HOST_SEMIVOL_FILE, &st), 0);
    EXPECT_EQ(st.st_size, 3016);
    ASSERT_EQ(stat(HOST_EEPROM_FILE, &st), 0);
    EXPECT_EQ(st.st_size, HOST_EEPROM_SIZE);
    EXPECT_EQ(hostSelRead(nullptr, 0), 0);
    const std::vector<std::uint8_t> fru = readBytes(HOST_FRU_FILE);
    ASSERT_EQ(fru.size(), 2048u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&fru[0xA1])), "BRASK-MODEL");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&fru[0xCD])), "SN0001");
}

TEST(HostState, TwoProcessesShareTheArea) {
    hslSemiVolatileMng_T mng = {};
    hslSemiVolatileArea_T* area = hslGetSemiVolatileArea(&mng);
    ASSERT_NE(area, nullptr);
    ASSERT_EQ(area, mng.SemiVolatile_ptr);
    auto* bytes = reinterpret_cast<volatile INT8U*>(area);
    bytes[752] = 0x5A;
    const pid_t child = spawn([] {
        hslSemiVolatileMng_T own = {};
        auto* b = reinterpret_cast<volatile INT8U*>(hslGetSemiVolatileArea(&own));
        if (b == nullptr || b[752] != 0x5A) return false;
        b[3015] = 0xA5;
        return hslFreeSemiVolatileArea(&own) == 0;
    });
    ASSERT_TRUE(succeeded(child));
    EXPECT_EQ(bytes[3015], 0xA5);
    EXPECT_EQ(hslFreeSemiVolatileArea(&mng), 0);
    hslSemiVolatileArea_T copy;
    ASSERT_EQ(hostSemiVolRead(&copy), 0);
    EXPECT_EQ(reinterpret_cast<INT8U*>(&copy)[752], 0x5A);
}

TEST(HostState, SelRecordsReadBackAsWritten) {
    const INT32U before = static_cast<INT32U>(time(nullptr));
    ASSERT_EQ(hslAddSEL(0, 0x80, 0x11), 0);
    ASSERT_EQ(hslAddSEL(1, 2, 3), 0);
    hostSelRecord_T recs[4] = {};
    ASSERT_EQ(hostSelRead(recs, 1), 2);  // copies one, counts both
    EXPECT_EQ(recs[1].Arg1, 0);
    ASSERT_EQ(hostSelRead(recs, 4), 2);
    EXPECT_EQ(std::tuple(recs[0].Arg2, recs[0].EventData, recs[1].Arg1), std::tuple(0x80, 0x11, 1));
    EXPECT_GE(recs[1].TimeStamp, before);
    ASSERT_EQ(hostSelClear(), 0);
    EXPECT_EQ(hostSelRead(recs, 4), 0);
}

TEST(HostState, EepromAndMadeFiles) {
    INT8U out[4] = {};
    INT8U in[4] = {1, 2, 3, 4};
    ASSERT_EQ(brask_ReadWriteEEPROM(0, 0, 0xA0, out, HOST_EEPROM_SIZE - 4, 4, 0), 4);
    EXPECT_EQ(out[3], 0xFF);
    ASSERT_EQ(brask_ReadWriteEEPROM(0, 0, 0xA0, in, 100, 4, 1), 4);
    ASSERT_EQ(hostEepromRead(100, out, 4), 0);
    EXPECT_EQ(std::vector<INT8U>(out, out + 4), std::vector<INT8U>(in, in + 4));

    ASSERT_EQ(hslChkMakeFile("/var/hsl/made", 10), 0);
    EXPECT_EQ(readBytes("/var/hsl/made"), std::vector<std::uint8_t>(10, 0));
    writeFile("/var/hsl/made", "kept");
    ASSERT_EQ(hslChkMakeFile("/var/hsl/made", 10), 0);
    EXPECT_EQ(readFile("/var/hsl/made"), "kept");
}

TEST(HostState, Hooks) {
    EXPECT_EQ(lanCheckMaintenanceMode(), 0);
    for (int mode : {1, 0}) {
        ASSERT_EQ(hostSetMaintenanceMode(mode), 0);
        EXPECT_EQ(lanCheckMaintenanceMode(), mode);
    }
    EXPECT_EQ(svfApplyTimeInfo(), 0);
    EXPECT_EQ(Svp_update_next_schedule(1234), 0);
    EXPECT_EQ(hostApplyTimeInfoCount(), 1);
    EXPECT_EQ(hostUpdateScheduleCount(), 1);
    EXPECT_EQ(hostLastScheduleArgument(), 1234u);
    hostSetFwUpdateState(3);
    EXPECT_EQ(FwUpdateStateFlag, 3);
}

// One successful-looking use of each platform function that can be made to fail.
struct FaultCase {
    const char* name;
    std::function<bool()> call;
};

std::vector<FaultCase> faultCases() {
    static Mutex_T* mutex = nullptr;
    static bool mutexHeld = false, semHeld = false;
    static int semId = -1;
    mutex = nullptr;
    mutexHeld = semHeld = false;
    const auto needMutex = [] { return mutex != nullptr || hslCreateMutex(&mutex, "/var/hsl/fm") == 0; };
    return {
        {"API_ExecuteCmd", [] { return storage(SVF_CMD_GET_SEL_TIME, {}).size() == 5; }},
        {"hslCreateMutex",
         [] { Mutex_T* m = nullptr; return hslCreateMutex(&m, "/var/hsl/fm") == 0 && hslDestroyMutex(m) == 0; }},
        {"hslAcquireMutex",
         [=] { return needMutex() && hslAcquireMutex(mutex, 1000) == 0 && hslReleaseMutex(mutex) == 0; }},
        {"hslReleaseMutex",
         [=] {
             if (!needMutex() || (!mutexHeld && hslAcquireMutex(mutex, 1000) != 0)) return false;
             mutexHeld = hslReleaseMutex(mutex) != 0;
             return !mutexHeld;
         }},
        {"hslDestroyMutex",
         [] {
             Mutex_T* m = nullptr;
             if (hslCreateMutex(&m, "/var/hsl/fm") != 0) return false;
             if (hslDestroyMutex(m) == 0) return true;
             std::free(m);
             return false;
         }},
        {"hslGetSemiVolatileArea",
         [] {
             hslSemiVolatileMng_T mng = {};
             return hslGetSemiVolatileArea(&mng) != nullptr && hslFreeSemiVolatileArea(&mng) == 0;
         }},
        {"hslFreeSemiVolatileArea",
         [] {
             hslSemiVolatileMng_T mng = {};
             if (hslGetSemiVolatileArea(&mng) == nullptr) return false;
             if (hslFreeSemiVolatileArea(&mng) == 0) return true;
             munmap(mng.SemiVolatile_ptr, sizeof(hslSemiVolatileArea_T));
             close(mng.fd);
             return false;
         }},
        {"hslAcquireSysvSemaphore",
         [] {
             return hslAcquireSysvSemaphore(&semId, "/var/hsl/fs", 1000) == 0 &&
                    hslReleaseSysvSemaphore(semId) == 0;
         }},
        {"hslReleaseSysvSemaphore",
         [] {
             if (!semHeld && hslAcquireSysvSemaphore(&semId, "/var/hsl/fs", 1000) != 0) return false;
             semHeld = hslReleaseSysvSemaphore(semId) != 0;
             return !semHeld;
         }},
        {"hslAddSEL", [] { return hslAddSEL(0, 0x80, 1) == 0; }},
        {"hslChkMakeFile", [] { return hslChkMakeFile("/var/hsl/made", 1) == 0; }},
        {"brask_ReadWriteEEPROM", [] { INT8U b[2]; return brask_ReadWriteEEPROM(0, 0, 0, b, 0, 2, 0) == 2; }},
    };
}

TEST(FaultInjection, SkipThenCountCallsFailWithTheGivenErrno) {
    for (const FaultCase& c : faultCases()) {
        SCOPED_TRACE(c.name);
        hostResetCounters();
        ASSERT_EQ(hostFailCall(c.name, 1, 2, ENOSPC), 0);
        EXPECT_TRUE(c.call());
        errno = 0;
        EXPECT_FALSE(c.call());
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_FALSE(c.call());
        EXPECT_TRUE(c.call());
        EXPECT_EQ(hostCallCount(c.name), 4);
        ASSERT_EQ(hostFailCall(c.name, 0, 1, 0), 0);
        hostResetFaults();
        EXPECT_TRUE(c.call()) << "armed after hostResetFaults";
    }
    errno = 0;
    EXPECT_EQ(hostFailCall("hslNoSuchCall", 0, 1, EIO), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(hostCallCount("hslNoSuchCall"), -1);
    EXPECT_EQ(hostCallCount(nullptr), -1);
}

TEST(FaultInjection, ZeroErrnoLeavesErrnoAlone) {
    ASSERT_EQ(hostFailCall("hslAddSEL", 0, 1, 0), 0);
    errno = EXDEV;
    EXPECT_NE(hslAddSEL(0, 0, 0), 0);
    EXPECT_EQ(errno, EXDEV);
}

TEST(BadArguments, FailWithEinval) {
    Mutex_T* m = nullptr;
    int semId = -1;
    INT8U buf[4];
    hslSemiVolatileMng_T mng = {};
    const struct {
        const char* what;
        std::function<bool()> fails;
    } cases[] = {
        {"mutex without handle slot", [] { return hslCreateMutex(nullptr, "/var/hsl/x") != 0; }},
        {"mutex without name", [&] { return hslCreateMutex(&m, nullptr) != 0; }},
        {"mutex with empty name", [&] { return hslCreateMutex(&m, "") != 0; }},
        {"acquire null mutex", [] { return hslAcquireMutex(nullptr, -1) != 0; }},
        {"release null mutex", [] { return hslReleaseMutex(nullptr) != 0; }},
        {"destroy null mutex", [] { return hslDestroyMutex(nullptr) != 0; }},
        {"area without record", [] { return hslGetSemiVolatileArea(nullptr) == nullptr; }},
        {"free without record", [] { return hslFreeSemiVolatileArea(nullptr) != 0; }},
        {"free of an unmapped record", [&] { return hslFreeSemiVolatileArea(&mng) != 0; }},
        {"semaphore without id slot", [] { return hslAcquireSysvSemaphore(nullptr, "/var/hsl/x", -1) != 0; }},
        {"semaphore without name", [&] { return hslAcquireSysvSemaphore(&semId, nullptr, -1) != 0; }},
        {"semaphore with timeout -2", [&] { return hslAcquireSysvSemaphore(&semId, "/var/hsl/x", -2) != 0; }},
        {"release of no semaphore", [] { return hslReleaseSysvSemaphore(-1) != 0; }},
        {"make file without path", [] { return hslChkMakeFile(nullptr, 1) != 0; }},
        {"make file of negative size", [] { return hslChkMakeFile("/var/hsl/y", -1) != 0; }},
        {"EEPROM without buffer", [] { return brask_ReadWriteEEPROM(0, 0, 0, nullptr, 0, 1, 0) == -1; }},
        {"EEPROM offset at the end",
         [&] { return brask_ReadWriteEEPROM(0, 0, 0, buf, HOST_EEPROM_SIZE, 1, 0) == -1; }},
        {"EEPROM length past the end",
         [&] { return brask_ReadWriteEEPROM(0, 0, 0, buf, HOST_EEPROM_SIZE - 1, 2, 1) == -1; }},
        {"EEPROM huge length", [&] { return brask_ReadWriteEEPROM(0, 0, 0, buf, 1, 0xFFFFFFFFu, 0) == -1; }},
        {"FRU image too small", [] { return hostFruMakeImage(511, "M", "S") != 0; }},
        {"FRU image without model", [] { return hostFruMakeImage(1024, nullptr, "S") != 0; }},
        {"SEL read into nothing", [] { return hostSelRead(nullptr, 2) == -1; }},
        {"EEPROM read past the end", [&] { return hostEepromRead(HOST_EEPROM_SIZE - 1, buf, 2) != 0; }},
    };
    for (const auto& c : cases) {
        errno = 0;
        EXPECT_TRUE(c.fails()) << c.what;
        EXPECT_EQ(errno, EINVAL) << c.what;
    }
    EXPECT_FALSE(exists("/var/hsl/y"));
}

}  // namespace
}  // namespace brask::test
