#include "hardeningSupport.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "BraskSvf/svfPlatform.h"
#include "archive/catalogue.h"
#include "common/eventCodes.h"
#include "common/paths.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr int kProbeWaitMs = 300;
constexpr std::size_t kTraceHeader = 16;
constexpr std::size_t kTraceRecord = 32;
constexpr int kTraceSlots = 201;

// Runs `f` on a response buffer with both standard streams captured: the
// flows print a line per step and the sweep runs them hundreds of times.
Outcome run(const std::function<int(INT8U*)>& f) {
    Outcome o;
    INT8U res[8] = {0xEE};
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const int length = f(res);
    o.output = ::testing::internal::GetCapturedStdout();
    o.output += ::testing::internal::GetCapturedStderr();
    // Reaps the KVM stop child of the Execute Restore Event handler.
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    o.code = res[0];
    o.response.assign(res, res + std::clamp(length, 0, 8));
    o.sel = selEvents();
    return o;
}

// A web-console request on the BMC files.
int webRequest(int (*handler)(INT8U*, INT8U, INT8U*, int), INT8U* res) {
    INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
    return handler(req, sizeof req, res, 0);
}

bool knownState(INT8U s) { return s <= ST_INVALID_DATA || (s >= 0x13 && s <= 0x16); }

}  // namespace

std::string blockFile(unsigned block) {
    char name[SVF_FILE_PASS_SIZE] = {};
    return catalogue::blockFileName(name, paths::kBmcBackupFile, block) ? name : "";
}

Held heldNow() { return Held{openDescriptorCount(), mappingCount()}; }

LockState probeLocks() {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        hostResetFaults();  // the parent's plans are not the probe's
        int bits = 0;
        Mutex_T* handle = nullptr;
        if (hslCreateMutex(&handle, paths::kSemiVolMutex) == 0) {
            if (hslAcquireMutex(handle, kProbeWaitMs) == 0) {
                bits |= 1;
                (void)hslReleaseMutex(handle);
            }
            (void)hslDestroyMutex(handle);
        }
        int semId = -1;
        if (hslAcquireSysvSemaphore(&semId, paths::kFileSemaphore, kProbeWaitMs) == 0) {
            bits |= 2;
            (void)hslReleaseSysvSemaphore(semId);
        }
        ::_exit(bits);
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return {};
    const int bits = WEXITSTATUS(status);
    return LockState{(bits & 1) != 0, (bits & 2) != 0};
}

void expectNothingHeld(const Held& before) {
    const Held after = heldNow();
    EXPECT_EQ(after, before) << "descriptors " << before.fds << " -> " << after.fds << ", mappings "
                             << before.maps << " -> " << after.maps;
    const LockState locks = probeLocks();
    EXPECT_TRUE(locks.mutexFree) << "the status-area mutex is left held";
    EXPECT_TRUE(locks.semaphoreFree) << "the file semaphore is left held";
}

Outcome getEvent() {
    return run([](INT8U* res) { return svfGetBackupRestoreEvent(nullptr, 0, res); });
}
Outcome setBackup() {
    return run([](INT8U* res) { return webRequest(svfOEMSetBackupEvent, res); });
}
Outcome exeRestore() {
    return run([](INT8U* res) { return webRequest(svfOEMExeRestoreEvent, res); });
}

Outcome restoreConfigFile() {
    Outcome o = run([](INT8U*) { return svfRestoreConfigFile(), 0; });
    o.code = gRebootAfterRestoreTimer;
    hslSemiVolatileArea_T area{};
    if (hostSemiVolRead(&area) == 0) {
        o.slot =
            area.svf
                .svfStatusList[slotIndex(EventKind::Restore, gRestoreType.Function, gRestoreType.FileType)];
        o.restoreFlag = area.svfAutoBack.BmcRestoreFlag;
    }
    return o;
}

void prepareBackupSource() { populateConf({.optionalFiles = true, .backupCopies = true}); }

void prepareRestoreSource() {
    static std::vector<std::uint8_t> bytes;  // made once by a real backup
    if (bytes.empty()) {
        populateConf();
        ASSERT_EQ(setBackup().code, 0x00) << "the backup the restore cases start from failed";
        bytes = readBytes(paths::kBmcWebBackupFile);
        ASSERT_FALSE(bytes.empty());
        // The same start whether or not this call made the backup.
        resetState();
    }
    populateConf();
    writeBytes(paths::kBmcWebBackupFile, bytes);
}

void preparePendingRestore(INT8U function) {
    // The accepted restore is made once; later cases start from a copy of
    // the block files it split out.
    static std::vector<std::pair<std::string, std::vector<std::uint8_t>>> split;
    static svfRestoreType_T pending{};
    if (split.empty()) {
        prepareRestoreSource();
        ASSERT_EQ(exeRestore().code, 0x00) << "the restore the deferred cases start from was refused";
        pending = gRestoreType;
        for (unsigned i = 0; i < pending.NumOfBlock; ++i) {
            const std::string block = blockFile(i);
            split.emplace_back(block, readBytes(block));
            ASSERT_FALSE(split.back().second.empty()) << block;
        }
        split.emplace_back(paths::kBmcBackupFile, readBytes(paths::kBmcBackupFile));
    } else {
        populateConf();
        for (const auto& [path, bytes] : split) writeBytes(path, bytes);
        gRestoreType = pending;
    }
    gKillProcessAfterFileChkTimer = 0;
    gRebootAfterRestoreTimer = 0;
    gRestoreType.Function = function;
    if (function == SVP_CONSOL)
        setStatusByte(slotIndex(EventKind::Restore, SVP_CONSOL, BMC_FILE), ST_PROCESSING);
    (void)hostSelClear();
    (void)::unlink(kCommandLog);
}

std::string checkTraceRing(std::uint32_t notBefore, int& records) {
    const std::vector<std::uint8_t> file = readBytes(paths::kTraceFile);
    const std::size_t made = kTraceHeader + (kTraceSlots - 1) * kTraceRecord;
    if (file.size() != made && file.size() != made + kTraceRecord - 4) {
        return "trace file of " + std::to_string(file.size()) + " bytes";
    }
    if (file[0] >= kTraceSlots) return "header index " + std::to_string(file[0]);
    for (std::size_t i = 1; i < kTraceHeader; ++i)
        if (file[i] != 0) return "header byte " + std::to_string(i) + " changed";
    const auto now = static_cast<std::uint32_t>(std::time(nullptr));
    int written = 0;
    for (int slot = 0; slot < kTraceSlots; ++slot) {
        const std::size_t at = kTraceHeader + static_cast<std::size_t>(slot) * kTraceRecord;
        if (at >= file.size()) break;
        const std::uint8_t* r = &file[at];
        const std::string where = "record " + std::to_string(slot) + ": ";
        const std::uint32_t when = r[24] | r[25] << 8 | r[26] << 16 | static_cast<std::uint32_t>(r[27]) << 24;
        if (when == 0) {
            if (std::any_of(r, r + 24, [](std::uint8_t b) { return b != 0; }))
                return where + "no time but data";
            continue;
        }
        ++written;
        if (when < notBefore || when > now) return where + "time " + std::to_string(when);
        if (at + kTraceRecord <= file.size() && (r[28] | r[29] | r[30] | r[31]) != 0)
            return where + "bytes 28..31 written";
        bool anyEvent = false;
        for (int s = 0; s < SVF_EVENT_SLOT_COUNT; ++s) {
            if (!knownState(r[s])) return where + "state " + std::to_string(r[s]);
            anyEvent = anyEvent || r[s] != ST_NOTHING;
        }
        const std::uint8_t* res = r + 16;
        if (std::memcmp(res + 4, r + 12, 4) != 0) return where + "response bytes 4..7 differ";
        if (res[0] == 0x80) {
            if (anyEvent || res[1] != 0 || res[2] != 0 || res[3] != 0)
                return where + "'no event' beside an event";
        } else if (res[0] == 0x00) {
            const unsigned kind = res[1] >> 4;
            if (!anyEvent || kind > 1 || res[2] > 1 || res[3] > 2) return where + "bad event";
            const unsigned index =
                slotIndex(kind == 1 ? EventKind::Restore : EventKind::Backup, res[3], res[2]);
            if ((r[index] & 0x0F) != (res[1] & 0x0F)) return where + "answer not of its snapshot";
        } else {
            return where + "completion code " + std::to_string(res[0]);
        }
    }
    records = written;
    return "";
}

}  // namespace brask::test
