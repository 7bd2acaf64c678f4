#include "listing.h"

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <vector>

#include "archive/format.h"
#include "console.h"
#include "textFormat.h"

namespace svfsim {
namespace {

namespace format = brask::format;

std::string fixedText(const INT8U* bytes, std::size_t size) {
    std::string s;
    for (std::size_t i = 0; i < size && bytes[i] != 0; ++i) s += static_cast<char>(bytes[i]);
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

}  // namespace

bool listBackup(const std::string& path, unsigned entriesPerBlock, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                          std::istreambuf_iterator<char>()};
    const format::Bytes file(bytes);
    svfBraskBackupFileHeader_T header{};
    if (const format::Status s = format::decodeBackupHeader(file, header); s != format::Status::Ok) {
        error = path + ": " + format::statusText(s);
        return false;
    }
    format::Bytes area;
    const bool headerSumOk =
        format::headerAreaBytes(file, header, area) == format::Status::Ok && format::wordSum(area) == 0;
    say("%s: %zu bytes, model %s, serial %s, BMC firmware %u.%u, %u block(s), header checksum %s",
        path.c_str(), bytes.size(), fixedText(header.ModelNumber, sizeof header.ModelNumber).c_str(),
        fixedText(header.SerialNumber, sizeof header.SerialNumber).c_str(), header.BmcRev.Major,
        header.BmcRev.Minor, header.NumOfBlock, headerSumOk ? "ok" : "BAD");
    for (unsigned b = 0; b < header.NumOfBlock; ++b) {
        svfBraskBackupFileBlockInfo_T info{};
        format::Bytes block;
        if (format::decodeBlockInfo(file, b, info) != format::Status::Ok ||
            format::blockBytes(file, info, block) != format::Status::Ok) {
            error = path + ": block " + std::to_string(b + 1) + " is not inside the file";
            return false;
        }
        format::ArchiveEntryWalk walk(block);
        std::vector<format::ArchiveEntry> entries;
        for (format::ArchiveEntry e; walk.next(e);) entries.push_back(e);
        say("  block %u: %zu bytes, %zu entries, checksum %s", b + 1, block.size(), entries.size(),
            format::wordSum(block) == 0 ? "ok" : "BAD");
        for (std::size_t i = 0; i < entries.size() && i < entriesPerBlock; ++i) {
            const format::ArchiveEntry& e = entries[i];
            say("    %s %4u/%-4u %7d  %.*s", tools::modeString(e.info.FilePermission).c_str(), e.info.FileUid,
                e.info.FileGid, e.info.FileSize, static_cast<int>(e.name.size()), e.name.data());
        }
        if (entries.size() > entriesPerBlock) say("    ... and %zu more", entries.size() - entriesPerBlock);
        if (walk.status() != format::Status::Ok) {
            error = path + ": block " + std::to_string(b + 1) + ": " + format::statusText(walk.status());
            return false;
        }
    }
    return true;
}

}  // namespace svfsim
