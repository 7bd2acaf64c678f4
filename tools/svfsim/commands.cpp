#include "commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <span>
#include <thread>

#include "BraskSvf/hostPlatformControl.h"
#include "command/eventSlots.h"
#include "common/eventCodes.h"
#include "common/paths.h"
#include "console.h"
#include "eeprom/eepromLayout.h"
#include "names.h"
#include "sandbox/sandbox.h"
#include "sandbox/scenario.h"

namespace svfsim {
namespace {

using nlohmann::json;
namespace sb = brask::sandbox;

namespace paths = brask::paths;

constexpr unsigned kMaxRestoreTicks = 64;

const char* requesterName(std::uint8_t function) {
    switch (function) {
        case N_P_M:
            return "auto / N+M";
        case SVP_CONSOL:
            return "SVP console";
        case BMC_WEB_CONSOLE:
            return "web console";
        default:
            return "unknown requester";
    }
}

const char* fileTypeName(std::uint8_t fileType) {
    return fileType == BMC_FILE ? "BMC files" : fileType == EFI_FILE ? "EFI files" : "unknown file type";
}

struct FileStamp {
    bool exists = false;
    long size = 0;
    ino_t inode = 0;
    timespec mtime{};
    bool operator==(const FileStamp& o) const {
        return exists == o.exists && size == o.size && inode == o.inode && mtime.tv_sec == o.mtime.tv_sec &&
               mtime.tv_nsec == o.mtime.tv_nsec;
    }
};

FileStamp stamp(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return {};
    return {true, static_cast<long>(st.st_size), st.st_ino, st.st_mtim};
}

// Where a path inside the sandbox lies on the host, for persistent roots.
std::string onHost(const std::string& path) {
    const char* root = std::getenv("BRASK_SVFSIM_HOST_ROOT");
    if (root == nullptr || *root == '\0') return "";
    return std::string(" (host: ") + root + path + ")";
}

bool copyFile(const std::string& from, const std::string& to) {
    const std::string data = sb::readFile(from);
    if (data.empty() && !sb::exists(from)) return false;
    try {
        sb::writeFile(to, data, 0644);
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

std::string timeText(std::uint32_t t) {
    const auto tt = static_cast<std::time_t>(t);
    std::tm tm{};
    (void)::gmtime_r(&tt, &tm);
    char buf[32];
    (void)std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

std::string selText(const SelEntry& e) {
    const SelClass* cls = selClass(e.eventData);
    return "#" + std::to_string(e.index) + "  " + timeText(e.time) + " UTC  " + hex2(e.eventData) + "  " +
           slotName(brask::selEventSlot(e.eventData)) + "  " +
           (cls != nullptr ? cls->meaning : "unknown class");
}

void printSel(const std::vector<SelEntry>& entries, const char* indent) {
    for (const SelEntry& e : entries) say("%sSEL %s", indent, selText(e).c_str());
}

std::vector<SelEntry> selSince(const Bmc& bmc, std::size_t before) {
    std::vector<SelEntry> all = bmc.sel();
    all.erase(all.begin(), all.begin() + static_cast<long>(std::min(before, all.size())));
    return all;
}

bool hasSel(const std::vector<SelEntry>& entries, std::uint8_t code) {
    for (const SelEntry& e : entries) {
        if (e.eventData == code) return true;
    }
    return false;
}

void printTick(const TickReport& r, unsigned n, std::uint8_t restoreBlocks) {
    if (r.killBefore > 0) {
        say("tick %u: kill-process countdown %u -> %u%s", n, r.killBefore, r.killAfter,
            r.restoreRan() ? ": the deferred restore ran" : "");
    } else if (r.rebootBefore > 0) {
        say("tick %u: reboot countdown %u -> %u", n, r.rebootBefore, r.rebootAfter);
    } else {
        say("tick %u: no countdown running", n);
    }
    std::string stopped;
    for (const std::string& c : r.commands) {
        if (!c.starts_with("reboot")) stopped += (stopped.empty() ? "" : ", ") + c;
    }
    if (!stopped.empty()) say("  services: %s", stopped.c_str());
    const unsigned restoreSlot = brask::slotIndex(brask::EventKind::Restore, BMC_WEB_CONSOLE, BMC_FILE);
    if (r.restoreRan() && hasSel(r.sel, brask::selEventCode(restoreSlot, SEL_CLASS_SUCCESS))) {
        say("  %u archive block(s) unpacked into /conf", restoreBlocks);
    }
    printSel(r.sel, "  ");
    if (r.rebootAfter > 0 && r.rebootBefore == 0) say("  reboot countdown set to %u", r.rebootAfter);
    if (r.rebootRequested()) say("  reboot requested: the reboot command ran");
}

// Ticks until the reboot request; false when no countdown is running first.
bool tickUntilReboot(Bmc& bmc, std::vector<SelEntry>& selAdded, bool& rebooted) {
    rebooted = false;
    for (unsigned n = 1; n <= kMaxRestoreTicks; ++n) {
        if (bmc.killTimer() == 0 && bmc.rebootTimer() == 0) return n > 1;
        const std::uint8_t blocks = bmc.pendingRestore().NumOfBlock;
        const TickReport r = bmc.tick();
        printTick(r, n, blocks);
        selAdded.insert(selAdded.end(), r.sel.begin(), r.sel.end());
        if (r.rebootRequested()) {
            rebooted = true;
            return true;
        }
    }
    return true;
}

void writeEepromImage() {
    std::fstream eeprom(HOST_EEPROM_FILE, std::ios::in | std::ios::out | std::ios::binary);
    // The EEPROM holds what the images say, as after a restore of them.
    const std::pair<INT32U, const char*> images[] = {
        {brask::eeprom::kWatchdogParametersOffset, paths::kWatchdogParametersFile},
        {brask::eeprom::kPostCheckCodeOffset, paths::kPostCheckCodeFile}};
    for (const auto& [offset, file] : images) {
        const std::string data = sb::readFile(file).substr(0, brask::eeprom::kImageLength);
        eeprom.seekp(offset);
        eeprom.write(data.data(), static_cast<std::streamsize>(data.size()));
    }
}

}  // namespace

bool initialized() { return sb::exists(kInitializedMark); }

int runInit(Bmc& bmc, const InitOptions& o) {
    if (initialized() && !o.force)
        return fail("this BMC is already initialized; 'svfsim init --force' starts over");
    if (!sb::resetTree()) return fail("init must run inside the sandbox");
    console().reopen();
    if (hostPlatformInit() != 0) return fail("the host platform could not create /var/hsl");
    std::vector<std::string> written;
    try {
        written = sb::populateConf(std::span(bmc.catalogue(), SVF_BMC_BACKUP_FILE_COUNT));
        sb::writeBiosConfig();
    } catch (const std::exception& e) {
        return fail(std::string("writing /conf failed: ") + e.what());
    }
    if (hostFruMakeImage(2048, o.model.c_str(), o.serial.c_str()) != 0)
        return fail("the FRU image could not be written");
    // The generated FRU backup file is not this FRU: a restore would write it
    // into the device and change the model and serial number.  Start from the
    // empty pair the firmware makes, so the first backup reads the real FRU.
    (void)::unlink(paths::kFruBackupFile);
    if (!bmc.initFruLogFile()) return fail("the FRU backup file could not be made");
    writeEepromImage();
    sb::setFwInfo(o.fwInfo + "\n");
    (void)::mkdir(kStateDir, 0755);
    sb::writeFile(kInitializedMark, "");
    bmc.saveTimers();
    say("init: %zu catalogued files written under /conf (of %d catalogue rows), plus %s", written.size(),
        SVF_BMC_BACKUP_FILE_COUNT, paths::kBiosConfigFile);
    say("init: FRU image 2048 bytes, model %s, serial %s", o.model.c_str(), o.serial.c_str());
    say("init: EEPROM image %s (%d bytes), firmware info \"%s\"", HOST_EEPROM_FILE, HOST_EEPROM_SIZE,
        o.fwInfo.c_str());
    return 0;
}

int runEvent(Bmc& bmc, bool asJson) {
    const EventAnswer a = bmc.event();
    const OEM_GetBackupRestoreEventRes_T& r = a.res;
    const bool found = r.CompletionCode == SVF_CC_NORMAL;
    const bool restore = brask::slots::isRestoreEventType(r.EventType);
    const unsigned slot = brask::slotIndex(restore ? brask::EventKind::Restore : brask::EventKind::Backup,
                                           r.Function, r.FileType);
    const std::uint8_t state = brask::slots::eventTypeState(r.EventType);
    const std::string meaning = completionMeaning(r.CompletionCode, Handler::Get);
    if (asJson) {
        json j = {{"completionCode", r.CompletionCode},
                  {"meaning", meaning},
                  {"length", a.length},
                  {"restoreAddedInfo", r.RestoreAddedInfo}};
        if (found) {
            j["event"] = {{"kind", restore ? "restore" : "backup"},
                          {"eventType", r.EventType},
                          {"state", state},
                          {"stateName", stateName(state)},
                          {"fileType", r.FileType},
                          {"function", r.Function},
                          {"slot", slot},
                          {"slotName", slotName(slot)}};
        } else {
            j["event"] = nullptr;
        }
        say("%s", j.dump(2).c_str());
    } else {
        say("Get Backup/Restore Event: completion code %s: %s", hex2(r.CompletionCode).c_str(),
            meaning.c_str());
        if (found) {
            say("  event: %s (%s of the %s, %s), state %s", slotName(slot).c_str(),
                restore ? "restore" : "backup", fileTypeName(r.FileType), requesterName(r.Function),
                stateName(state).c_str());
            say("  RestoreAddedInfo %s", hex2(r.RestoreAddedInfo).c_str());
        }
    }
    if (found || r.CompletionCode == SVF_CC_NO_EVENT_OR_FAIL) return 0;
    return fail("Get Backup/Restore Event answered " + hex2(r.CompletionCode) + " (" + meaning + ")");
}

int runBackup(Bmc& bmc, std::uint8_t function, std::uint8_t fileType) {
    const FileStamp before = stamp(paths::kBmcWebBackupFile);
    const std::size_t selBefore = bmc.sel().size();
    say("backup: Set Backup Event for the %s from the %s", fileTypeName(fileType), requesterName(function));
    const std::uint8_t cc = bmc.setBackupEvent(fileType, function);
    const std::string meaning = completionMeaning(cc, Handler::Set);
    say("  completion code %s: %s", hex2(cc).c_str(), meaning.c_str());
    printSel(selSince(bmc, selBefore), "  ");
    const FileStamp after = stamp(paths::kBmcWebBackupFile);
    if (after.exists && !(after == before)) {
        say("  backup file: %s, %ld bytes%s", paths::kBmcWebBackupFile, after.size,
            onHost(paths::kBmcWebBackupFile).c_str());
        (void)::mkdir(kStateDir, 0755);
        if (!copyFile(paths::kBmcWebBackupFile, kLastWebBackup))
            return fail("cannot keep a copy of the backup");
    } else {
        say("  no backup file written by this request");
    }
    if (cc != SVF_CC_NORMAL) return fail("Set Backup Event answered " + hex2(cc) + " (" + meaning + ")");
    return 0;
}

int runRestore(Bmc& bmc, const std::string& file, std::uint8_t function, bool ticks) {
    const std::string source = file.empty() ? kLastWebBackup : file;
    if (!sb::exists(source)) {
        return fail(file.empty() ? "no web backup yet: run 'svfsim backup' first or give --file"
                                 : source + " does not exist");
    }
    if (!copyFile(source, paths::kBmcWebBackupFile))
        return fail("cannot copy " + source + " to " + paths::kBmcWebBackupFile);
    say("restore: %s copied to %s (%ld bytes)", file.empty() ? "the last web backup" : source.c_str(),
        paths::kBmcWebBackupFile, stamp(paths::kBmcWebBackupFile).size);
    const std::size_t selBefore = bmc.sel().size();
    const std::size_t commandsBefore = bmc.commandLogLines().size();
    say("  Execute Restore Event for the BMC files from the %s", requesterName(function));
    const std::uint8_t cc = bmc.exeRestoreEvent(BMC_FILE, function);
    const std::string meaning = completionMeaning(cc, Handler::Execute);
    say("  completion code %s: %s", hex2(cc).c_str(), meaning.c_str());
    std::vector<SelEntry> added = selSince(bmc, selBefore);
    printSel(added, "  ");
    if (bmc.killTimer() > 0) {
        // The handler stops the KVM servers in a child of its own; give it a moment.
        for (int wait = 0; wait < 40; ++wait) {
            const std::vector<std::string> lines = bmc.commandLogLines();
            if (lines.size() > commandsBefore) {
                say("  services: %s", lines[commandsBefore].c_str());
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        say("  kill-process countdown set to %u ticks; %u archive block(s) waiting", bmc.killTimer(),
            bmc.pendingRestore().NumOfBlock);
    }
    if (cc != SVF_CC_NORMAL) return fail("Execute Restore Event answered " + hex2(cc) + " (" + meaning + ")");
    if (bmc.killTimer() == 0) {
        say("  no restore pending after this request");
        return 0;
    }
    if (!ticks) {
        say("  restore pending: 'svfsim tick %u' runs it", bmc.killTimer());
        return 0;
    }
    bool rebooted = false;
    (void)tickUntilReboot(bmc, added, rebooted);
    const unsigned slot = brask::slotIndex(brask::EventKind::Restore, function, BMC_FILE);
    if (hasSel(added, brask::selEventCode(slot, SEL_CLASS_FAIL))) return fail("the deferred restore failed");
    if (!rebooted)
        return fail("no reboot was requested within " + std::to_string(kMaxRestoreTicks) + " ticks");
    return 0;
}

int runTick(Bmc& bmc, unsigned count) {
    for (unsigned n = 1; n <= count; ++n) {
        const std::uint8_t blocks = bmc.pendingRestore().NumOfBlock;
        printTick(bmc.tick(), n, blocks);
    }
    return 0;
}

int runStatus(Bmc& bmc, bool asJson) {
    Status s;
    std::string error;
    if (!bmc.readStatus(s, error)) return fail(error);
    const std::pair<const char*, std::uint8_t> flags[] = {{"EfiBackFlag", s.flags.EfiBackFlag},
                                                          {"BmcBackFlag", s.flags.BmcBackFlag},
                                                          {"EfiRestoreFlag", s.flags.EfiRestoreFlag},
                                                          {"BmcRestoreFlag", s.flags.BmcRestoreFlag}};
    if (asJson) {
        json j;
        j["slots"] = json::array();
        for (unsigned i = 0; i < s.slots.size(); ++i) {
            j["slots"].push_back({{"index", i},
                                  {"name", slotName(i)},
                                  {"state", s.slots[i]},
                                  {"stateName", stateName(s.slots[i])}});
        }
        for (const auto& [name, value] : flags) j["flags"][name] = value;
        j["restoreAddedInfo"] = s.restoreAddedInfo;
        j["countdowns"] = {{"killProcess", bmc.killTimer()}, {"reboot", bmc.rebootTimer()}};
        say("%s", j.dump(2).c_str());
        return 0;
    }
    say("event slots:");
    for (unsigned i = 0; i < s.slots.size(); ++i) {
        say("  %2u  %-24s %s", i, slotName(i).c_str(), stateName(s.slots[i]).c_str());
    }
    std::string line;
    for (const auto& [name, value] : flags) {
        line += (line.empty() ? "" : ", ") + std::string(name) + " " + std::to_string(value);
    }
    say("processing flags: %s", line.c_str());
    say("countdowns: kill-process %u, reboot %u", bmc.killTimer(), bmc.rebootTimer());
    return 0;
}

int runSvp(Bmc& bmc, const std::string& operation, const std::string& slotText) {
    const std::optional<std::uint8_t> op = operationByName(operation);
    if (!op) return fail("unknown operation '" + operation + "'; one of: " + operationList());
    const std::optional<unsigned> slot = slotByName(slotText);
    if (!slot) return fail("unknown slot '" + slotText + "'; a name such as Backup.SvpConsole.Bmc or 0-11");
    std::uint8_t before = 0, after = 0;
    std::string error;
    const bool ok = bmc.applyOperation(*slot, *op, before, after, error);
    say("svp: %s on %s: %s -> %s", operationName(*op).c_str(), slotName(*slot).c_str(),
        stateName(before).c_str(), stateName(after).c_str());
    return ok ? 0 : fail(error);
}

int runSel(Bmc& bmc, bool asJson) {
    const std::vector<SelEntry> entries = bmc.sel();
    if (asJson) {
        json j = json::array();
        for (const SelEntry& e : entries) {
            const SelClass* cls = selClass(e.eventData);
            j.push_back({{"index", e.index},
                         {"time", e.time},
                         {"eventData", e.eventData},
                         {"slot", brask::selEventSlot(e.eventData)},
                         {"slotName", slotName(brask::selEventSlot(e.eventData))},
                         {"class", brask::selEventClass(e.eventData)},
                         {"className", cls != nullptr ? cls->name : "unknown"}});
        }
        say("%s", j.dump(2).c_str());
        return 0;
    }
    if (entries.empty()) say("SEL is empty");
    printSel(entries, "");
    return 0;
}

int runFiles(Bmc& bmc) {
    unsigned present = 0, current = 0;
    say("%-8s %8s  %-9s %s", "file", "size", "copy", "path");
    for (const BackupFileList_T& row : std::span(bmc.catalogue(), SVF_BMC_BACKUP_FILE_COUNT)) {
        const std::string path = row.FilePass;
        const std::string copy = bmc.backupCopyPath(row.FilePass);
        const FileStamp live = stamp(path);
        const bool hasCopy = sb::exists(copy);
        const char* copyState = !hasCopy                                   ? "none"
                                : !live.exists                             ? "left-over"
                                : sb::readFile(path) == sb::readFile(copy) ? "current"
                                                                           : "stale";
        present += live.exists ? 1u : 0u;
        current += std::string_view(copyState) == "current" ? 1u : 0u;
        say("%-8s %8s  %-9s %s", live.exists ? "present" : "absent",
            live.exists ? std::to_string(live.size).c_str() : "-", copyState, path.c_str());
    }
    say("%u of %d catalogued files present, %u with a current backup copy", present,
        SVF_BMC_BACKUP_FILE_COUNT, current);
    return 0;
}

}  // namespace svfsim
