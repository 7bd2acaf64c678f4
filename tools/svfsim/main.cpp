// svfsim, "BMC in a box": libBraskSvf.so.1 driven as the firmware drives it,
// against the host platform, inside the sandbox with a persistent state
// directory.  The command line is parsed twice: on the host, to know the state
// directory and the files to make visible, and again inside the sandbox, where
// the command runs.  Started inside a sandbox already (the test suites), it
// uses that sandbox's /conf and /var as they are.
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "console.h"
#include "library.h"
#include "names.h"
#include "sandbox/sandbox.h"

namespace {

namespace fs = std::filesystem;
namespace sb = brask::sandbox;
using namespace svfsim;

std::uint8_t requesterCode(const std::string& name) {
    return name == "svp" ? SVP_CONSOL : name == "auto" ? N_P_M : BMC_WEB_CONSOLE;
}

// Re-executes in the sandbox; returns only on a usage error.
int enterSandbox(int argc, char** argv, bool temporary, const std::string& root,
                 const std::string& restoreFile) {
    sb::Options options;
    std::vector<std::string> args(argv, argv + argc);
    std::error_code ec;
    if (!temporary) {
        const bool existed = fs::exists(root, ec);
        fs::create_directories(root, ec);
        const fs::path real = fs::canonical(root, ec);
        if (ec) {
            std::fprintf(stderr, "svfsim: cannot use %s as state directory: %s\n", root.c_str(),
                         ec.message().c_str());
            return 1;
        }
        if (!existed) std::fprintf(stderr, "svfsim: state directory %s created\n", real.c_str());
        options.stateDir = real;
        (void)::setenv("BRASK_SVFSIM_HOST_ROOT", real.c_str(), 1);
    } else {
        (void)::unsetenv("BRASK_SVFSIM_HOST_ROOT");
    }
    if (!restoreFile.empty()) {
        // Visible inside at the same absolute path, read-only.
        const fs::path real = fs::canonical(restoreFile, ec);
        if (ec) {
            std::fprintf(stderr, "svfsim: %s: %s\n", restoreFile.c_str(), ec.message().c_str());
            return 1;
        }
        options.readOnlyPaths.push_back(real);
        for (std::size_t i = 1; i < args.size(); ++i) {
            if (args[i] == restoreFile && args[i - 1] == "--file")
                args[i] = real;
            else if (args[i] == "--file=" + restoreFile)
                args[i] = "--file=" + real.string();
        }
    }
    std::vector<char*> raw;
    for (std::string& a : args) raw.push_back(a.data());
    raw.push_back(nullptr);
    sb::enterSandbox(argc, raw.data(), options);
    return 1;  // not reached
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"svfsim: a simulated BMC running libBraskSvf.so.1 in a sandbox"};
    app.require_subcommand(1);
    app.fallthrough();
    std::string root = "./bmc-root";
    bool verbose = false;
    app.add_option("--root", root, "State directory, created on first use and kept")->capture_default_str();
    app.add_flag("-v,--verbose", verbose, "Show the library's diagnostic lines as they come");

    InitOptions initOptions;
    auto* init = app.add_subcommand("init", "Populate a realistic BMC: /conf, FRU, EEPROM, firmware info");
    init->add_flag("--force", initOptions.force, "Start over on a BMC that was initialized before");
    init->add_option("--model", initOptions.model, "Model number in the FRU")->capture_default_str();
    init->add_option("--serial", initOptions.serial, "Serial number in the FRU")->capture_default_str();

    bool json = false;
    auto* event = app.add_subcommand("event", "Send Get Backup/Restore Event and decode the answer");
    event->add_flag("--json", json, "Print JSON");

    std::string requester = "web", fileType = "bmc";
    auto* backup =
        app.add_subcommand("backup", "Send Set Backup Event; show SEL entries and the backup file");
    backup->add_option("--requester", requester, "Who asks")
        ->check(CLI::IsMember({"web", "svp", "auto"}))
        ->capture_default_str();
    backup->add_option("--file-type", fileType, "Which files")
        ->check(CLI::IsMember({"bmc", "efi"}))
        ->capture_default_str();

    std::string restoreFile;
    bool noTicks = false;
    auto* restore =
        app.add_subcommand("restore", "Send Execute Restore Event, then tick until the reboot request");
    restore->add_option("--file", restoreFile, "Backup file to restore (default: the last web backup)");
    restore->add_option("--requester", requester, "Who asks")
        ->check(CLI::IsMember({"web", "svp", "auto"}))
        ->capture_default_str();
    restore->add_flag("--no-ticks", noTicks, "Stop after the command; 'svfsim tick' goes on");

    std::string previewFile;
    auto* previewCommand =
        app.add_subcommand("preview", "Show what restoring the last web backup would do; changes nothing");
    previewCommand->add_option("--file", previewFile,
                               "Backup file to preview instead of the last web backup");
    previewCommand->add_flag("--json", json, "Print JSON");

    unsigned ticks = 1;
    auto* tick = app.add_subcommand("tick", "Advance the library's timer by N ticks");
    tick->add_option("N", ticks, "Number of ticks")->check(CLI::Range(1u, 1000u))->capture_default_str();

    auto* status =
        app.add_subcommand("status", "Show the twelve event slots, processing flags and countdowns");
    status->add_flag("--json", json, "Print JSON");

    std::string operation, slot;
    auto* svp = app.add_subcommand("svp", "Apply a state-machine operation to an event slot");
    svp->add_option("OPERATION", operation, "Operation name, e.g. SVP_BACKUP_TRANS_REQ")->required();
    svp->add_option("SLOT", slot, "Slot name, e.g. Backup.SvpConsole.Bmc, or 0-11")->required();

    auto* sel = app.add_subcommand("sel", "List the SEL, decoded");
    sel->add_flag("--json", json, "Print JSON");
    auto* files = app.add_subcommand("files", "List the catalogue: presence, size, backup copy");
    auto* demo = app.add_subcommand("demo", "The whole story on a fresh temporary BMC");

    CLI11_PARSE(app, argc, argv);

    if (!sb::insideSandbox()) {
        return enterSandbox(argc, argv, demo->parsed(), root,
                            restore->parsed()          ? restoreFile
                            : previewCommand->parsed() ? previewFile
                                                       : "");
    }
    sb::enterSandbox(argc, argv);  // inside: only completes the stub /proc

    std::string error;
    if (!console().begin(verbose, error)) {
        std::fprintf(stderr, "svfsim: %s\n", error.c_str());
        return 1;
    }
    const Library* lib = loadLibrary(error);
    if (lib == nullptr) return fail("cannot load the library: " + error);
    Bmc bmc(*lib);
    if (!init->parsed() && !demo->parsed() && !initialized()) {
        return fail("this BMC is not initialized: run 'svfsim init' first");
    }
    bmc.loadTimers();

    int rc = 1;
    if (init->parsed())
        rc = runInit(bmc, initOptions);
    else if (event->parsed())
        rc = runEvent(bmc, json);
    else if (backup->parsed())
        rc = runBackup(bmc, requesterCode(requester), fileType == "efi" ? EFI_FILE : BMC_FILE);
    else if (restore->parsed())
        rc = runRestore(bmc, restoreFile, requesterCode(requester), !noTicks);
    else if (previewCommand->parsed())
        rc = runPreview(bmc, previewFile, json);
    else if (tick->parsed())
        rc = runTick(bmc, ticks);
    else if (status->parsed())
        rc = runStatus(bmc, json);
    else if (svp->parsed())
        rc = runSvp(bmc, operation, slot);
    else if (sel->parsed())
        rc = runSel(bmc, json);
    else if (files->parsed())
        rc = runFiles(bmc);
    else if (demo->parsed())
        rc = runDemo(bmc);

    if (initialized()) bmc.saveTimers();
    console().end();
    return rc;
}
