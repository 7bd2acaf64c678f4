// svfsim preview: the restore preview of the tools, against this simulated
// BMC's own /conf, FRU identity and maintenance mode.
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <vector>

#include "BraskSvf/svfPlatform.h"
#include "bmc.h"
#include "command/exeRestoreEvent.h"
#include "commands.h"
#include "console.h"
#include "previewRender.h"

namespace svfsim {

int runPreview(Bmc& bmc, const std::string& file, bool json) {
    const std::string path = file.empty() ? kLastWebBackup : file;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return fail(file.empty() ? "no web backup yet: run 'svfsim backup' first" : "cannot read " + file);
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                          std::istreambuf_iterator<char>()};

    preview::Request request;
    preview::Preview p;
    svfBraskBackupFileHeader_T own{};
    if (!bmc.identity(own)) {
        p.verdict = {false, SVF_EXTRACT_FAIL, brask::restore::completionCodeForExtraction(SVF_EXTRACT_FAIL),
                     "svfGetProductIdFru fail: the FRU cannot be read"};
    } else {
        request.identity = own;
        preview::PreviewTree tree("", (lanCheckMaintenanceMode() & 0xFF) != 0);
        p = preview::previewBackup(brask::format::Bytes(bytes.data(), bytes.size()), request, tree);
    }
    console().sync();
    const std::string shown = file.empty() ? "the last web backup" : file;
    if (json) {
        std::fprintf(console().out(), "%s\n", preview::toJson(shown, p).dump(2).c_str());
    } else {
        std::ostringstream text;
        preview::renderText(text, shown, p);
        std::fputs(text.str().c_str(), console().out());
    }
    return p.verdict.accepted ? 0 : 1;
}

}  // namespace svfsim
