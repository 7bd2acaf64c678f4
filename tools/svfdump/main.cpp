// svfdump: shows what a backup file or a single archive block holds, checks
// every checksum, and on request extracts the files under a directory or
// previews what restoring the file would do to a copy of a BMC's /conf.
//
// Exit status: 0 sound (or, with --plan, accepted by a restore); 1 an
// integrity failure (or refused by a restore); 2 usage error or FILE
// unreadable; 3 extraction refused or failed.  Every non-zero status comes
// with one line "svfdump: FILE: reason" on the error stream.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <map>

#include <CLI/CLI.hpp>

#include "common/scoped.h"
#include "extract.h"
#include "inspect.h"
#include "previewRender.h"
#include "render.h"

namespace {

enum Exit { kSound = 0, kIntegrity = 1, kUsage = 2, kExtract = 3 };

int fail(const std::string& file, const std::string& reason, int status) {
    std::cerr << "svfdump: " << svfdump::escaped(file) << ": " << reason << '\n';
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Shows a backup file or an archive block: identity, revisions, time, block table,\n"
        "every entry and a verdict per checksum.  Writes nothing unless --extract is given."};
    std::string file;
    bool json = false;
    std::string extractDir;
    std::optional<brask::format::ContentKind> kind;
    app.add_option("FILE", file, "backup file or archive block (detected from its content)")->required();
    app.add_flag("--json", json, "print the same as JSON");
    app.add_option("--extract", extractDir,
                   "write the entries under DIR (paths taken relative to it; \"..\" refused; "
                   "nothing is written unless every checksum holds)")
        ->option_text("DIR");
    const std::map<std::string, brask::format::ContentKind> kinds = {
        {"backup", brask::format::ContentKind::BackupFile},
        {"block", brask::format::ContentKind::ArchiveBlock}};
    app.add_option("--as", kind, "read FILE as this kind instead of detecting it")
        ->transform(CLI::CheckedTransformer(kinds))
        ->option_text("backup|block");
    std::string planRoot;
    bool maintenance = false;
    auto* planOption =
        app.add_option("--plan", planRoot,
                       "instead, show what restoring the backup FILE would do to the BMC whose /conf is "
                       "ROOT/conf (ROOT/ for a BMC's own tree); the identity is not checked")
            ->option_text("ROOT");
    app.add_flag("--maintenance", maintenance, "with --plan: the BMC is in maintenance mode")
        ->needs(planOption);
    planOption->excludes("--extract")->excludes("--as");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kSound : kUsage;
    }

    // The file is mapped, not read: its length is the file system's, and no
    // length taken from inside the file decides how much memory is used.
    brask::ScopedFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) return fail(file, std::strerror(errno), kUsage);
    if (!S_ISREG(st.st_mode)) return fail(file, "not a regular file", kUsage);
    brask::ScopedMapping mapping(fd.get(), static_cast<std::size_t>(st.st_size));
    if (!mapping.ok()) return fail(file, std::string("cannot map: ") + std::strerror(errno), kUsage);

    const brask::format::Bytes bytes(mapping.data(), mapping.size());
    if (!planRoot.empty()) {
        while (planRoot.size() > 1 && planRoot.back() == '/') planRoot.pop_back();
        if (planRoot == "/") planRoot.clear();
        preview::PreviewTree tree(planRoot, maintenance);
        const preview::Preview p = preview::previewBackup(bytes, preview::Request{}, tree);
        if (json)
            std::cout << preview::toJson(file, p).dump(2) << '\n';
        else
            preview::renderText(std::cout, file + " on " + (planRoot.empty() ? "/" : planRoot) + "/conf", p);
        std::cout.flush();
        return p.verdict.accepted ? kSound
                                  : fail(file, "a restore refuses it: " + p.verdict.reason, kIntegrity);
    }

    const svfdump::Inspection r = svfdump::inspect(bytes, kind);
    std::optional<svfdump::ExtractOutcome> extract;
    if (!extractDir.empty()) extract = svfdump::extractAll(r, extractDir);

    if (json)
        svfdump::renderJson(std::cout, file, r, extract);
    else
        svfdump::renderText(std::cout, file, r, extract);
    std::cout.flush();

    if (!r.sound()) return fail(file, r.failures.front(), kIntegrity);
    if (extract && !extract->ok) return fail(file, "extraction refused: " + extract->reason, kExtract);
    return kSound;
}
