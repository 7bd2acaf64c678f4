#include "bmc.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfPlatform.h"
#include "console.h"
#include "sandbox/sandbox.h"

namespace svfsim {

bool TickReport::rebootRequested() const {
    for (const std::string& c : commands) {
        if (c == "reboot" || c.starts_with("reboot ")) return true;
    }
    return false;
}

void Bmc::loadTimers() {
    std::ifstream in(kTimersFile);
    unsigned kill = 0, reboot = 0, fileType = 0, function = 0, blocks = 0;
    if (!(in >> kill >> reboot >> fileType >> function >> blocks)) return;
    *lib_.killProcessTimer = static_cast<INT8U>(kill);
    *lib_.rebootTimer = static_cast<INT8U>(reboot);
    *lib_.restoreType = svfRestoreType_T{static_cast<INT8U>(fileType), static_cast<INT8U>(function),
                                         static_cast<INT8U>(blocks)};
}

void Bmc::saveTimers() const {
    (void)::mkdir(kStateDir, 0755);
    std::ofstream out(kTimersFile, std::ios::trunc);
    const svfRestoreType_T& r = *lib_.restoreType;
    out << unsigned{*lib_.killProcessTimer} << ' ' << unsigned{*lib_.rebootTimer} << ' '
        << unsigned{r.FileType} << ' ' << unsigned{r.Function} << ' ' << unsigned{r.NumOfBlock} << '\n';
}

EventAnswer Bmc::event() {
    EventAnswer a;
    INT8U res[sizeof(OEM_GetBackupRestoreEventRes_T)] = {};
    a.length = lib_.getBackupRestoreEvent(nullptr, 0, res);
    console().sync();
    std::memcpy(&a.res, res, sizeof res);
    return a;
}

std::uint8_t Bmc::setBackupEvent(std::uint8_t fileType, std::uint8_t function) {
    OEM_SetBackupEventReq_T req{fileType, function, 0, {0, 0, 0}};
    INT8U res[1] = {0xFF};
    (void)lib_.setBackupEvent(reinterpret_cast<INT8U*>(&req), sizeof req, res, 0);
    console().sync();
    return res[0];
}

std::uint8_t Bmc::exeRestoreEvent(std::uint8_t fileType, std::uint8_t function) {
    OEM_ExeRestoreEventReq_T req{fileType, function, 0, {0, 0, 0}};
    INT8U res[1] = {0xFF};
    (void)lib_.exeRestoreEvent(reinterpret_cast<INT8U*>(&req), sizeof req, res, 0);
    console().sync();
    return res[0];
}

TickReport Bmc::tick() {
    TickReport r;
    const std::size_t commandsBefore = commandLogLines().size();
    const std::size_t selBefore = sel().size();
    r.killBefore = killTimer();
    r.rebootBefore = rebootTimer();
    lib_.restoreTimer();
    console().sync();
    r.killAfter = killTimer();
    r.rebootAfter = rebootTimer();
    const std::vector<std::string> commands = commandLogLines();
    r.commands.assign(commands.begin() + static_cast<long>(std::min(commandsBefore, commands.size())),
                      commands.end());
    const std::vector<SelEntry> entries = sel();
    r.sel.assign(entries.begin() + static_cast<long>(std::min(selBefore, entries.size())), entries.end());
    return r;
}

template <typename Use>
bool Bmc::withStatusArea(std::string& error, Use use) {
    Mutex_T* mutex = nullptr;
    hslSemiVolatileMng_T mng{};
    hslSemiVolatileArea_T* area = nullptr;
    if (lib_.getMutexAndSemiVolatileArea(&mutex, &mng, &area) != 0) {
        console().sync();
        error = "the status area lock was not obtained";
        return false;
    }
    use(*area);
    // Given back as the library's own holders do: unmap, release, destroy.
    (void)hslFreeSemiVolatileArea(&mng);
    (void)hslReleaseMutex(mutex);
    (void)hslDestroyMutex(mutex);
    console().sync();
    return true;
}

bool Bmc::applyOperation(unsigned slot, std::uint8_t operation, std::uint8_t& before, std::uint8_t& after,
                         std::string& error) {
    INT32S result = SVF_EVENT_REJECTED;
    const bool locked = withStatusArea(error, [&](hslSemiVolatileArea_T& area) {
        INT8U& status = area.svf.svfStatusList[slot];
        before = status;
        result = lib_.setSvfEvent(&status, operation);
        after = status;
    });
    if (!locked) return false;
    if (result == SVF_EVENT_REJECTED) error = "the state machine rejected the operation";
    return result != SVF_EVENT_REJECTED;
}

bool Bmc::readStatus(Status& out, std::string& error) {
    return withStatusArea(error, [&](const hslSemiVolatileArea_T& area) {
        std::memcpy(out.slots.data(), area.svf.svfStatusList, out.slots.size());
        out.restoreAddedInfo = area.svf.RestoreAddedInfo;
        out.flags = area.svfAutoBack;
    });
}

std::vector<SelEntry> Bmc::sel() const {
    std::vector<hostSelRecord_T> records(64);
    int n = hostSelRead(records.data(), static_cast<int>(records.size()));
    if (n > static_cast<int>(records.size())) {
        records.resize(static_cast<std::size_t>(n));
        n = hostSelRead(records.data(), n);
    }
    std::vector<SelEntry> entries;
    for (int i = 0; i < n && i < static_cast<int>(records.size()); ++i) {
        entries.push_back({static_cast<unsigned>(i + 1), records[static_cast<std::size_t>(i)].EventData,
                           records[static_cast<std::size_t>(i)].TimeStamp});
    }
    return entries;
}

std::vector<std::string> Bmc::commandLogLines() const {
    std::istringstream in(brask::sandbox::commandLog());
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string Bmc::backupCopyPath(const char* active) const {
    char buf[SVF_FILE_PASS_SIZE + 8] = {};
    char activeCopy[SVF_FILE_PASS_SIZE] = {};
    std::strncpy(activeCopy, active, sizeof activeCopy - 1);
    if (lib_.getBackupFilePass(activeCopy, buf) != 0) return std::string(active) + ".bak";
    return buf;
}

}  // namespace svfsim
