// Writes the seed inputs of every fuzz target under CORPUS_DIR/<target>/:
// small sound instances of each format from the suites' builders, and the
// files the library itself makes inside the sandbox over the scenario's
// /conf (FRU backup, user information, BIOS configuration, a trace file).
// The output is kept in the tree (README.md).
//   fuzz_make_seeds CORPUS_DIR      (an absolute path, existing)
#include <sys/stat.h>

#include "BraskSvf/svfApi.h"
#include "common/paths.h"
#include "fuzz.h"
#include "support/builders.h"

using namespace brask;
using test::Bytes;

namespace {

Bytes cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A block of the scenario's copies of `paths`, as a backup packs them.
Bytes blockOf(std::initializer_list<const char*> paths) {
    std::vector<test::StoredEntry> entries;
    for (const char* path : paths) entries.push_back(test::entry(path, test::readFile(path)));
    return test::block(entries);
}

}  // namespace

int main(int argc, char** argv) {
    FUZZ_CHECK(argc == 2 && argv[1][0] == '/');
    sandbox::enterSandbox(argc, argv, {.readWritePaths = {argv[1]}});
    test::resetState();
    (void)test::populateConf();
    sandbox::writeBiosConfig();
    INT8U res[8];
    FUZZ_CHECK(svfBackupFRU() == 1 && svfGetBackupRestoreEvent(nullptr, 0, res) == 1);

    const Bytes two =
        test::block({test::entry("/conf/backup/a.conf", "alpha=1\n"),
                     test::entry("/conf/backup/b.key", std::string_view("\0\1\2", 3), 0100600)});
    const Bytes file =
        test::backup({.blocks = {test::block({}), two}, .model = "MODEL-1", .serial = "SN0001"});
    // Extraction: flags (bits 0-1 BlockNum, bit 2 maintenance), then blocks
    // of entries that reach every restore action.
    const Bytes actions =
        blockOf({paths::kInterfacesFile, "/conf/hid.conf", paths::kPostCheckCodeFile,
                 paths::kWatchdogParametersFile, "/conf/brask/rkvm_port", paths::kPmConfigFile});
    const Bytes fru = test::readBytes(paths::kFruBackupFile),
                bios = test::readBytes("/conf/brask/BIOSConfig.dat");
    const Bytes trace = test::readBytes(paths::kTraceFile);
    const Bytes split = {std::uint8_t(bios.size()), std::uint8_t(bios.size() >> 8)};
    // OEM handlers: [handler][world][12 status bytes][request].
    const Bytes idle(14), web = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
    const std::tuple<const char*, const char*, Bytes> seeds[] = {
        {"fuzz_archive_block", "two-entries", two},
        {"fuzz_backup_file", "two-blocks", file},
        {"fuzz_backup_file", "header-only", test::backup({.model = "MODEL-1", .serial = "SN0001"})},
        {"fuzz_roundtrip", "records",
         cat(Bytes(two.begin(), two.begin() + 28), Bytes(file.begin(), file.begin() + 112))},
        {"fuzz_extract_archive", "block1-restore-actions", cat({1}, actions)},
        {"fuzz_extract_archive", "block1-user-info",
         cat({1}, blockOf({paths::kBmcUserInfoFile, "/conf/shadow", paths::kFruBackupFile}))},
        {"fuzz_fru_restore", "fru-backup", cat({0}, fru)},
        {"fuzz_fru_restore", "fru-backup-refused", cat({1}, Bytes(fru.begin(), fru.begin() + 300))},
        {"fuzz_user_info", "bmcUserInfo", test::readBytes(paths::kBmcUserInfoFile)},
        {"fuzz_bios_config", "equal", cat(cat(split, bios), bios)},
        {"fuzz_bios_config", "differ", cat(cat(split, bios), Bytes(bios.size()))},
        {"fuzz_trace_header", "one-record", cat(Bytes(16, 2), Bytes(trace.begin(), trace.begin() + 16 + 32))},
        {"fuzz_oem_handlers", "get", idle},
        {"fuzz_oem_handlers", "set-web-bmc", cat({1, 0}, cat(Bytes(12), web))},
        {"fuzz_oem_handlers", "exe-web-bmc", cat({2, 0}, cat(Bytes(12), web))}};
    for (const auto& [target, name, bytes] : seeds) {
        ::mkdir((std::string(argv[1]) + "/" + target).c_str(), 0755);
        test::writeBytes(std::string(argv[1]) + "/" + target + "/" + name, bytes);
    }
    return 0;
}
