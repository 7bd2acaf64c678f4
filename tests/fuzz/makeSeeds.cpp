// Writes the seed inputs of the sandboxed fuzz targets from files the
// library itself makes inside the sandbox: a real BMC backup (block 1 cut
// down to a few entries that reach every restore action), the user
// information and FRU backup files of a realistic /conf, a trace file after
// a few queries.  make-corpus runs it; the output is kept in the tree.
//   fuzz_make_seeds CORPUS_DIR      (an absolute path)
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "common/paths.h"
#include "fuzzSandbox.h"
#include "sandbox/sandbox.h"
#include "sandbox/scenario.h"
#include "support/builders.h"

using namespace brask;
using Bytes = std::vector<std::uint8_t>;

namespace {

std::string gOut;

void seed(const char* target, const char* name, const Bytes& prefix, const Bytes& body) {
    const std::string dir = gOut + "/" + target;
    ::mkdir(dir.c_str(), 0755);
    Bytes all = prefix;
    all.insert(all.end(), body.begin(), body.end());
    fuzz::writeFile((dir + "/" + name).c_str(), all.data(), all.size());
}

Bytes fileBytes(const char* path) {
    Bytes b = fuzz::readFile(path);
    if (b.empty()) {
        std::fprintf(stderr, "make-seeds: %s is missing or empty\n", path);
        std::exit(1);
    }
    return b;
}

// Block 1 of a real backup, keeping only the entries of `keep` (by active
// path), re-laid and re-summed.
Bytes trimmedBlock(const Bytes& block, std::initializer_list<std::string_view> keep) {
    std::vector<test::EntrySpec> kept;
    format::ArchiveEntryWalk walk(block);
    format::ArchiveEntry e;
    while (walk.next(e)) {
        bool wanted = false;
        for (std::string_view k : keep) wanted = wanted || e.name == std::string(k) + ".bak";
        if (!wanted) continue;
        test::EntrySpec spec;
        spec.name = std::string(e.name);
        spec.data.assign(e.data.begin(), e.data.end());
        spec.mode = e.info.FilePermission;
        spec.uid = e.info.FileUid;
        spec.gid = e.info.FileGid;
        kept.push_back(std::move(spec));
    }
    if (!walk.complete()) std::exit(1);
    return test::block(kept);
}

// A BIOS configuration file: header, then sections of types 1, 3, 2 and 4;
// RecordLen covers all of them.
Bytes biosConfig(std::uint8_t salt) {
    Bytes f = {1, 0, 0, 0, 2, 17, 0, 0};
    for (std::uint8_t type : {1, 3, 2, 4}) {
        f.insert(f.end(), {type, 0, 12, 0});
        for (int i = 0; i < 8; ++i) f.push_back(static_cast<std::uint8_t>(type * 16 + i + salt));
    }
    f[1] = static_cast<std::uint8_t>(f.size());
    return f;
}

Bytes le16(std::size_t v) { return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8)}; }

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || argv[1][0] != '/') {
        std::fprintf(stderr, "usage: fuzz_make_seeds CORPUS_DIR (absolute)\n");
        return 2;
    }
    gOut = argv[1];
    sandbox::Options options;
    options.readWritePaths = {gOut};
    sandbox::enterSandbox(argc, argv, options);
    if (!sandbox::resetTree() || hostPlatformInit() != 0) return 1;

    (void)sandbox::populateConf(BmcBackupFileList, {.optionalFiles = true, .backupCopies = true});
    const Bytes userInfo = fileBytes(paths::kBmcUserInfoFile);
    if (svfBackupFRU() != 1) return 1;
    ::rename(paths::kFruBackupFile, paths::kFruBackupCopy);  // its backup copy is what gets packed
    if (svfCreateBraskBackupFile(BMC_FILE) != 0) return 1;
    const Bytes block0 = fileBytes("/var/brask/BMC.bak-0");
    const Bytes block1 = fileBytes("/var/brask/BMC.bak-1");
    const Bytes fruBackup = fileBytes(paths::kFruBackupCopy);

    // Extraction: flags, then the block (bits 0-1 BlockNum, bit 2 maintenance).
    const Bytes restoreActions = trimmedBlock(
        block1, {paths::kInterfacesFile, "/conf/hid.conf", paths::kPostCheckCodeFile,
                 paths::kWatchdogParametersFile, "/conf/brask/rkvm_port", paths::kPmConfigFile});
    seed("fuzz_extract_archive", "block1-restore-actions", {0x01}, restoreActions);
    seed("fuzz_extract_archive", "block1-maintenance", {0x05}, restoreActions);
    seed("fuzz_extract_archive", "block1-user-info",
         {0x01}, trimmedBlock(block1, {paths::kBmcUserInfoFile, "/conf/shadow", paths::kFruBackupFile}));
    seed("fuzz_extract_archive", "block0", {0x00}, block0);

    // FRU restore: flags (bit 0 the device refuses), then the file.
    seed("fuzz_fru_restore", "fru-backup", {0x00}, fruBackup);
    seed("fuzz_fru_restore", "fru-backup-refused", {0x01}, Bytes(fruBackup.begin(), fruBackup.begin() + 300));

    // User information: the file as the scenario writes it.
    seed("fuzz_user_info", "bmcUserInfo", {}, userInfo);

    // BIOS comparer: [split][active][backup copy].
    const Bytes bios = biosConfig(0);
    Bytes same = bios;
    same.insert(same.end(), bios.begin(), bios.end());
    seed("fuzz_bios_config", "equal", le16(bios.size()), same);
    Bytes later = bios;
    const Bytes other = biosConfig(1);
    later.insert(later.end(), other.begin(), other.end());
    seed("fuzz_bios_config", "differ", le16(bios.size()), later);

    // Trace header: the 16 status bytes, then a trace file after three
    // queries (cut after its records) and one whose header says 200.
    svfSemiVol_T svf{};
    svf.svfStatusList[11] = ST_GENERATED;
    svf.svfStatusList[5] = ST_PROCESSING_AND_GENERATED;
    svf.RestoreAddedInfo = 0x5A;
    hslSemiVolatileArea_T area{};
    for (int i = 0; i < 3; ++i) {
        if (hostSemiVolRead(&area) != 0) return 1;
        area.svf.svfStatusList[static_cast<unsigned>(i) * 4] = static_cast<INT8U>(i + 1);
        if (hostSemiVolWrite(&area) != 0) return 1;
        INT8U res[8];
        (void)svfGetBackupRestoreEvent(nullptr, 0, res);
    }
    Bytes trace = fileBytes(paths::kTraceFile);
    trace.resize(16 + 3 * 32);
    const Bytes status(reinterpret_cast<const std::uint8_t*>(&svf),
                       reinterpret_cast<const std::uint8_t*>(&svf) + sizeof svf);
    seed("fuzz_trace_header", "three-records", status, trace);
    Bytes last(16);
    last[0] = 200;
    seed("fuzz_trace_header", "index-200", Bytes(sizeof svf), last);

    // OEM handlers: [handler][world][12 status bytes][request].
    const Bytes idle(2 + SVF_EVENT_SLOT_COUNT);
    auto handler = [&](const char* name, std::uint8_t which, std::uint8_t world, Bytes req) {
        Bytes prefix = idle;
        prefix[0] = which;
        prefix[1] = world;
        seed("fuzz_oem_handlers", name, prefix, req);
    };
    handler("get", 0, 0, {});
    handler("set-web-bmc", 1, 0, {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0});
    handler("set-countdown", 1, 1, {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0});
    handler("exe-web-bmc", 2, 0, {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0});
    handler("exe-fw-update", 2, 0x30, {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0});
    handler("exe-svp", 2, 0, {BMC_FILE, SVP_CONSOL, 0, 0, 0, 0});
    return 0;
}
