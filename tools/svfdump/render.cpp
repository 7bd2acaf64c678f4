// Text and JSON views of an inspection.
#include "render.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

namespace svfdump {
namespace {

using Json = nlohmann::ordered_json;

std::string hex32(std::uint32_t v) {
    char s[16];
    std::snprintf(s, sizeof s, "0x%08" PRIx32, v);
    return s;
}

std::string revision(const FwRev_T& rev) {
    return std::to_string(rev.Major) + "." + std::to_string(rev.Minor);
}

const char* fwTypeName(std::uint8_t t) { return t == EFI_FILE ? "EFI" : t == BMC_FILE ? "BMC" : "unknown"; }

std::string moduleTypeText(const std::uint8_t (&m)[2]) {
    char s[8];
    std::snprintf(s, sizeof s, "%02x %02x", m[0], m[1]);
    return s;
}

std::string checksumText(const Checksum& c) {
    if (c.ok()) return "ok (ChkSum " + hex32(c.stored) + ")";
    return "MISMATCH (ChkSum " + hex32(c.stored) + ", should be " + hex32(c.expected()) + ")";
}

// "ls -l"-like: mode, uid/gid, size, stored name.
void entryLine(std::ostream& out, const Entry& e) {
    const auto& info = e.raw.info;
    char head[64];
    std::snprintf(head, sizeof head, "  %s %5" PRIu32 "/%-5" PRIu32 " %9" PRId32 "  ",
                  modeString(info.FilePermission).c_str(), info.FileUid, info.FileGid, info.FileSize);
    out << head << escaped(e.raw.name);
    if (e.target.empty()) out << "  (no file before \".bak\")";
    out << '\n';
}

void field(std::ostream& out, const char* name, const std::string& value) {
    char label[16];
    std::snprintf(label, sizeof label, "%-13s", name);
    out << label << value << '\n';
}

void blockText(std::ostream& out, unsigned index, const Block& b) {
    std::string title = "block " + std::to_string(index);
    if (b.info) {
        const auto& d = *b.info;
        field(out, title.c_str(),
              "offset " + std::to_string(d.BlockOffset) + ", size " + std::to_string(d.BlockSize) +
                  ", CrypticType " + std::to_string(d.CrypticType) + ", InheritanceType " +
                  std::to_string(d.InheritanceType) + (b.located ? "" : ": not inside the file"));
    } else {
        field(out, title.c_str(), "the whole file, " + std::to_string(b.size) + " bytes");
    }
    if (!b.located) return;
    if (!b.headerOk) {
        field(out, "  sum", "not checked: no block header");
        return;
    }
    field(out, "  sum",
          checksumText(b.checksum) + ", version " + std::to_string(b.header.Version) + ", " +
              std::to_string(b.header.NumOfEntry) + " entries");
    for (const Entry& e : b.entries) entryLine(out, e);
    if (b.entries.size() < b.header.NumOfEntry) {
        out << "  ... " << (b.header.NumOfEntry - b.entries.size()) << " entries unreadable\n";
    }
}

Json blockJson(unsigned index, const Block& b) {
    Json j;
    j["index"] = index;
    if (b.info) {
        j["blockOffset"] = b.info->BlockOffset;
        j["blockSize"] = b.info->BlockSize;
        j["crypticType"] = b.info->CrypticType;
        j["inheritanceType"] = b.info->InheritanceType;
    }
    j["located"] = b.located;
    if (b.located && b.headerOk) {
        j["version"] = b.header.Version;
        j["numOfEntry"] = b.header.NumOfEntry;
        j["chkSum"] = b.checksum.stored;
        j["checksumOk"] = b.checksum.ok();
        Json entries = Json::array();
        for (const Entry& e : b.entries) {
            const auto& info = e.raw.info;
            entries.push_back({{"name", escaped(e.raw.name)},
                               {"path", escaped(e.target)},
                               {"offset", e.raw.entryOffset},
                               {"size", info.FileSize},
                               {"uid", info.FileUid},
                               {"gid", info.FileGid},
                               {"mode", info.FilePermission},
                               {"modeString", modeString(info.FilePermission)}});
        }
        j["entries"] = std::move(entries);
    }
    return j;
}

}  // namespace

std::string fixedText(const std::uint8_t* field, std::size_t size) {
    std::size_t n = 0;
    while (n < size && field[n] != 0) ++n;
    while (n > 0 && field[n - 1] == ' ') --n;
    return escaped(std::string_view(reinterpret_cast<const char*>(field), n));
}

std::string uuidText(const std::uint8_t (&uuid)[16]) {
    std::string s;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) s += '-';
        char h[3];
        std::snprintf(h, sizeof h, "%02x", uuid[i]);
        s += h;
    }
    return s;
}

std::string timeText(std::uint32_t selTime) {
    if (selTime == 0xFFFFFFFFu) return "not set";
    if (selTime <= 0x20000000u) return std::to_string(selTime) + " s after start-up (clock not set)";
    const std::time_t t = static_cast<std::time_t>(selTime);
    std::tm tm{};
    char s[40];
    if (::gmtime_r(&t, &tm) == nullptr || std::strftime(s, sizeof s, "%Y-%m-%d %H:%M:%S UTC", &tm) == 0) {
        return hex32(selTime);
    }
    return s;
}

void renderText(std::ostream& out, const std::string& path, const Inspection& r,
                const std::optional<ExtractOutcome>& extract) {
    const bool backup = r.kind == format::ContentKind::BackupFile;
    field(out, "file", escaped(path));
    field(
        out, "kind",
        std::string(backup ? "backup file" : "archive block") + ", " + std::to_string(r.fileSize) + " bytes");
    if (backup && r.headerOk) {
        const auto& h = r.header;
        const std::uint32_t timeStamp = h.TimeStamp;
        field(out, "version", std::to_string(h.Version) + ", data revision " + std::to_string(h.DataRev));
        field(out, "model", "\"" + fixedText(h.ModelNumber, sizeof h.ModelNumber) + "\"");
        field(out, "serial", "\"" + fixedText(h.SerialNumber, sizeof h.SerialNumber) + "\"");
        field(out, "module type", moduleTypeText(h.ModuleType));
        field(out, "UUID", uuidText(h.UUID));
        field(out, "time", timeText(timeStamp) + " (SEL time " + hex32(timeStamp) + ")");
        field(out, "BMC revision", revision(h.BmcRev));
        field(out, "EFI revision", revision(h.EfiRev));
        field(out, "firmware", std::string(fwTypeName(h.FwType)) + " (" + std::to_string(h.FwType) + ")");
        field(out, "blocks",
              std::to_string(h.NumOfBlock) + " (header and table: " +
                  std::to_string(format::backupHeaderAreaSize(h.NumOfBlock)) + " bytes)");
        field(out, "header sum",
              r.headerAreaOk ? checksumText(r.headerChecksum) : "not checked: header and table incomplete");
    }
    for (unsigned i = 0; i < r.blocks.size(); ++i) {
        out << '\n';
        blockText(out, i, r.blocks[i]);
    }
    if (!r.blocks.empty()) out << "\nentries carry no checksum of their own: their block's sum covers them\n";
    out << '\n';
    field(out, "verdict", r.sound() ? "OK" : "FAILED");
    for (const std::string& f : r.failures) out << "  - " << f << '\n';
    for (const std::string& m : r.remarks) field(out, "remark", m);
    if (extract) {
        field(out, "extract",
              extract->ok ? std::to_string(extract->written) + " files written under " + escaped(extract->dir)
                          : "refused: " + extract->reason);
    }
}

void renderJson(std::ostream& out, const std::string& path, const Inspection& r,
                const std::optional<ExtractOutcome>& extract) {
    Json j;
    j["file"] = escaped(path);
    j["kind"] = r.kind == format::ContentKind::BackupFile ? "backup" : "block";
    j["size"] = r.fileSize;
    if (r.kind == format::ContentKind::BackupFile && r.headerOk) {
        const auto& h = r.header;
        const std::uint32_t timeStamp = h.TimeStamp;
        const std::uint32_t chkSum = h.ChkSum;
        j["header"] = {
            {"version", h.Version},
            {"dataRev", h.DataRev},
            {"model", fixedText(h.ModelNumber, sizeof h.ModelNumber)},
            {"serial", fixedText(h.SerialNumber, sizeof h.SerialNumber)},
            {"moduleType", {h.ModuleType[0], h.ModuleType[1]}},
            {"uuid", uuidText(h.UUID)},
            {"timeStamp", timeStamp},
            {"time", timeText(timeStamp)},
            {"bmcRev", revision(h.BmcRev)},
            {"efiRev", revision(h.EfiRev)},
            {"fwType", h.FwType},
            {"fwTypeName", fwTypeName(h.FwType)},
            {"numOfBlock", h.NumOfBlock},
            {"headerSize", format::backupHeaderAreaSize(h.NumOfBlock)},
            {"chkSum", chkSum},
            {"checksumOk", r.headerAreaOk && r.headerChecksum.ok()},
        };
    }
    Json blocks = Json::array();
    for (unsigned i = 0; i < r.blocks.size(); ++i) blocks.push_back(blockJson(i, r.blocks[i]));
    j["blocks"] = std::move(blocks);
    j["ok"] = r.sound();
    j["failures"] = r.failures;
    j["remarks"] = r.remarks;
    if (extract) {
        j["extract"] = {{"dir", escaped(extract->dir)},
                        {"ok", extract->ok},
                        {"written", extract->written},
                        {"reason", extract->reason}};
    }
    out << j.dump(2) << '\n';
}

}  // namespace svfdump
