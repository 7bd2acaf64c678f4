// The whole story on a fresh BMC: init, backup, the backup's contents, three
// files damaged, restore with ticks until the reboot request, the files back.
// Every line reports something that was done or checked just now.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "commands.h"
#include "common/paths.h"
#include "console.h"
#include "listing.h"
#include "sandbox/sandbox.h"
#include "sandbox/scenario.h"

namespace svfsim {
namespace {

namespace sb = brask::sandbox;

struct Damage {
    const char* path;
    const char* what;     // how the demo changes it
    const char* content;  // new content; nullptr deletes the file
};

constexpr Damage kDamage[] = {
    {"/conf/resolv.conf", "name servers replaced", "nameserver 203.0.113.66\n"},
    {"/conf/sshd_config", "root login allowed", "Port 22\nPermitRootLogin yes\n"},
    {"/conf/brask/bum_home/bmcuser1/.ssh/authorized_keys", "deleted", nullptr},
};

struct Snapshot {
    bool exists = false;
    std::string content;
    mode_t mode = 0;
};

Snapshot snapshot(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return {};
    return {true, sb::readFile(path), st.st_mode & 07777};
}

void heading(const char* text) { say("\n== %s", text); }

}  // namespace

int runDemo(Bmc& bmc) {
    say("svfsim demo: a fresh simulated BMC, thrown away afterwards");
    heading("init");
    InitOptions init;
    init.force = true;
    if (int rc = runInit(bmc, init); rc != 0) return rc;

    heading("backup from the web console");
    if (int rc = runBackup(bmc, BMC_WEB_CONSOLE, BMC_FILE); rc != 0) return rc;
    std::vector<Snapshot> before;
    for (const Damage& d : kDamage) before.push_back(snapshot(d.path));

    heading("backup contents (svfdump shows everything)");
    std::string error;
    if (!listBackup(brask::paths::kBmcWebBackupFile, 5, error)) return fail(error);

    heading("damage");
    for (const Damage& d : kDamage) {
        if (d.content == nullptr) {
            if (::unlink(d.path) != 0) return fail(std::string("cannot delete ") + d.path);
        } else {
            sb::writeFile(d.path, d.content);
        }
        say("%s: %s", d.path, d.what);
    }

    heading("restore from the web console, ticking until the reboot request");
    if (int rc = runRestore(bmc, "", BMC_WEB_CONSOLE, true); rc != 0) return rc;

    heading("files after the restore");
    bool allBack = true;
    for (std::size_t i = 0; i < std::size(kDamage); ++i) {
        const Snapshot now = snapshot(kDamage[i].path);
        const bool same =
            now.exists == before[i].exists && now.content == before[i].content && now.mode == before[i].mode;
        allBack = allBack && same;
        if (same) {
            say("%s: back, identical to the backed-up file (%zu bytes, mode %04o)", kDamage[i].path,
                now.content.size(), static_cast<unsigned>(now.mode));
        } else {
            say("%s: DIFFERS from the backed-up file", kDamage[i].path);
        }
    }

    heading("SEL");
    (void)runSel(bmc, false);
    heading("reboot request");
    unsigned reboots = 0;
    for (const std::string& line : bmc.commandLogLines()) reboots += line.starts_with("reboot") ? 1u : 0u;
    say("the stub reboot ran %u time(s) (%s)", reboots, sb::kCommandLog);

    if (!allBack) return fail("the restore did not bring every file back");
    say("\ndemo finished: every damaged file is back");
    return 0;
}

}  // namespace svfsim
