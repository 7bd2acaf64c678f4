#include "previewRender.h"

#include <cstdio>
#include <map>

#include "textFormat.h"

namespace preview {
namespace {

using Json = nlohmann::ordered_json;

std::string octal(std::uint32_t mode) {
    char s[8];
    (void)std::snprintf(s, sizeof s, "%04o", mode & 07777u);
    return s;
}

std::string owner(std::uint32_t uid, std::uint32_t gid) {
    return std::to_string(uid) + "/" + std::to_string(gid);
}

// "67 -> 72 bytes, mode 0644 -> 0600, owner 0/0 -> 33/33", naming only what changes.
std::string change(const Line& l) {
    const auto& b = l.before;
    const bool had = b.exists();
    std::string s = had && l.existsAfter && b.size == l.after.size()
                        ? std::to_string(b.size) + " bytes"
                        : (had ? std::to_string(b.size) : std::string("-")) + " -> " +
                              (l.existsAfter ? std::to_string(l.after.size()) : std::string("-")) + " bytes";
    if (!l.existsAfter) return s;
    if (!had || (b.mode & 07777u) != l.modeAfter)
        s += ", mode " + (had ? octal(b.mode) + " -> " : "") + octal(l.modeAfter);
    if (!had || b.uid != l.uidAfter || b.gid != l.gidAfter) {
        s += ", owner " + (had ? owner(b.uid, b.gid) + " -> " : "") + owner(l.uidAfter, l.gidAfter);
    }
    return s;
}

std::map<std::string, unsigned> counts(const Preview& p) {
    std::map<std::string, unsigned> n;
    for (const Line& l : p.lines) ++n[l.action];
    return n;
}

std::string verdictText(const Verdict& v) {
    char cc[8];
    (void)std::snprintf(cc, sizeof cc, "0x%02x", v.completionCode);
    if (v.accepted) return std::string("accepted (Execute Restore Event answers ") + cc + ")";
    return "refused: " + v.reason + " (result " + std::to_string(v.result) +
           ", Execute Restore Event answers " + cc + "); nothing would change";
}

Json fileJson(const plan::LiveFile& f) {
    if (!f.exists()) return Json{{"exists", false}};
    return Json{{"exists", true}, {"size", f.size}, {"mode", octal(f.mode)}, {"uid", f.uid}, {"gid", f.gid}};
}

}  // namespace

void renderText(std::ostream& out, const std::string& what, const Preview& p) {
    out << "restore preview of " << tools::escaped(what) << '\n';
    out << "  " << verdictText(p.verdict) << '\n';
    for (const std::string& n : p.notes) out << "  note: " << n << '\n';
    unsigned block = ~0u;
    for (const Line& l : p.lines) {
        if (l.block != block) {
            block = l.block;
            out << "  block " << block << ":\n";
        }
        char head[80];
        (void)std::snprintf(head, sizeof head, "    %-7s %-52s", l.action.c_str(),
                            tools::escaped(l.path.empty() ? "(block)" : l.path).c_str());
        out << head;
        if (l.action != "skip" && l.action != "fail" && l.action != "refused") out << ' ' << change(l);
        if (!l.note.empty()) out << "  (" << l.note << ')';
        out << '\n';
    }
    if (!p.verdict.accepted) return;
    std::string summary;
    for (const auto& [action, n] : counts(p))
        summary += (summary.empty() ? "" : ", ") + std::to_string(n) + " " + action;
    out << "  summary: " << (summary.empty() ? "no file changes" : summary) << '\n';
}

Json toJson(const std::string& file, const Preview& p) {
    Json j;
    j["file"] = tools::escaped(file);
    j["verdict"] = {{"accepted", p.verdict.accepted},
                    {"result", p.verdict.result},
                    {"completionCode", p.verdict.completionCode},
                    {"reason", p.verdict.reason}};
    j["notes"] = p.notes;
    Json files = Json::array();
    for (const Line& l : p.lines) {
        Json after = Json{{"exists", l.existsAfter}};
        if (l.existsAfter) {
            after = {{"exists", true},
                     {"size", l.after.size()},
                     {"mode", octal(l.modeAfter)},
                     {"uid", l.uidAfter},
                     {"gid", l.gidAfter}};
        }
        files.push_back({{"block", l.block},
                         {"action", l.action},
                         {"path", tools::escaped(l.path)},
                         {"before", fileJson(l.before)},
                         {"after", after},
                         {"note", l.note}});
    }
    j["files"] = std::move(files);
    Json summary = Json::object();
    for (const auto& [action, n] : counts(p)) summary[action] = n;
    j["summary"] = std::move(summary);
    return j;
}

}  // namespace preview
