// svfdump: shows what a backup file or a single archive block holds, checks
// every checksum, and on request extracts the files under a directory.
//
// Exit status: 0 sound; 1 an integrity failure; 2 usage error or FILE
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
#include "render.h"

namespace {

enum Exit { kSound = 0, kIntegrity = 1, kUsage = 2, kExtract = 3 };

int fail(const std::string& file, const std::string& reason, int status) {
    std::cerr << "svfdump: " << svfdump::escaped(file) << ": " << reason << '\n';
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Shows a backup file or an archive block: identity, revisions, time, block table,\n"
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
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kSound : kUsage;
    }

    // The file is mapped, not read: its length is the file system's, and no
    // length taken from inside the file decides how much memory is used.
    brask::ScopedFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st{};
    if (!fd || ::fstat(fd.get(), &st) != 0) return fail(file, std::strerror(errno), kUsage);
    if (!S_ISREG(st.st_mode)) return fail(file, "not a regular file", kUsage);
    brask::ScopedMapping mapping(fd.get(), static_cast<std::size_t>(st.st_size));
    if (!mapping.ok()) return fail(file, std::string("cannot map: ") + std::strerror(errno), kUsage);

    const svfdump::Inspection r =
        svfdump::inspect(brask::format::Bytes(mapping.data(), mapping.size()), kind);
    std::optional<svfdump::ExtractOutcome> extract;
    if (!extractDir.empty()) extract = svfdump::extractAll(r, extractDir);

    if (json) svfdump::renderJson(std::cout, file, r, extract);
    else svfdump::renderText(std::cout, file, r, extract);
    std::cout.flush();

    if (!r.sound()) return fail(file, r.failures.front(), kIntegrity);
    if (extract && !extract->ok) return fail(file, "extraction refused: " + extract->reason, kExtract);
    return kSound;
}
