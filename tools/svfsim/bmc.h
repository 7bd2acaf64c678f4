// The simulated BMC: what the IPMI dispatcher and the periodic task of the
// firmware do with the library, and what svfsim reads back from the host
// platform.  One svfsim run is one short firmware life, so the library's
// process globals (the two countdowns and the pending restore) are kept in
// the state directory between runs.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "BraskSvf/svfTypes.h"
#include "library.h"

namespace svfsim {

// svfsim's own files inside the sandbox.
inline constexpr char kStateDir[] = "/var/svfsim";
inline constexpr char kInitializedMark[] = "/var/svfsim/initialized";
inline constexpr char kTimersFile[] = "/var/svfsim/timers";
// A copy of the last web backup: the restore consumes the web console's
// backup file (brask::paths::kBmcWebBackupFile).
inline constexpr char kLastWebBackup[] = "/var/svfsim/last-web-backup.bak";

struct Status {
    std::array<std::uint8_t, SVF_EVENT_SLOT_COUNT> slots{};
    std::uint8_t restoreAddedInfo = 0;
    svfAutoBack_T flags{};
};

struct SelEntry {
    unsigned index = 0;
    std::uint8_t eventData = 0;
    std::uint32_t time = 0;
};

struct EventAnswer {
    int length = 0;
    OEM_GetBackupRestoreEventRes_T res{};
};

// What one tick did, as seen from outside the library.
struct TickReport {
    unsigned killBefore = 0, killAfter = 0;
    unsigned rebootBefore = 0, rebootAfter = 0;
    std::vector<std::string> commands;  // lines the stub init scripts / reboot logged
    std::vector<SelEntry> sel;          // SEL entries added
    bool restoreRan() const { return killBefore == 1 && killAfter == 0; }
    bool rebootRequested() const;
};

class Bmc {
public:
    explicit Bmc(const Library& lib) : lib_(lib) {}

    // Process globals of the library from and to the state directory.
    void loadTimers();
    void saveTimers() const;
    unsigned killTimer() const { return *lib_.killProcessTimer; }
    unsigned rebootTimer() const { return *lib_.rebootTimer; }
    const svfRestoreType_T& pendingRestore() const { return *lib_.restoreType; }

    EventAnswer event();
    std::uint8_t setBackupEvent(std::uint8_t fileType, std::uint8_t function);
    std::uint8_t exeRestoreEvent(std::uint8_t fileType, std::uint8_t function);
    TickReport tick();
    // Applies `operation` to a slot's status byte under the status-area lock.
    bool applyOperation(unsigned slot, std::uint8_t operation, std::uint8_t& before, std::uint8_t& after,
                        std::string& error);
    bool readStatus(Status& out, std::string& error);

    std::vector<SelEntry> sel() const;
    std::vector<std::string> commandLogLines() const;
    std::string backupCopyPath(const char* active) const;
    const BackupFileList_T* catalogue() const { return lib_.catalogue; }
    // This server's identity as a restore reads it from the FRU; false when
    // the FRU cannot be read.
    bool identity(svfBraskBackupFileHeader_T& out) const { return lib_.getProductIdFru(&out) == 0; }
    // What the firmware does at start: empty FRU backup file and copy, so
    // that the next change detection reads the FRU itself.
    bool initFruLogFile() const { return lib_.initFruLogFile() == 0; }

private:
    // Runs `use` on the status area under its lock; false (with `error`)
    // when the lock cannot be had.
    template <typename Use>
    bool withStatusArea(std::string& error, Use use);
    const Library& lib_;
};

}  // namespace svfsim
