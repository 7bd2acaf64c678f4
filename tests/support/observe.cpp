#include "support/observe.h"

#include <algorithm>

#include "support/sandbox.h"
#include "support/transcript.h"
#include "support/tree.h"

namespace brask::test {

Observed observe(const std::function<long()>& call) {
    Observed o;
    const std::size_t sel = selEvents().size();
    const std::size_t commands = commandLog().size();
    const Tree before = snapshotTree();
    const int descriptors = openDescriptorCount();
    const int mappings = mappingCount();
    const Transcript t = captureOutput([&] { o.result = call(); });
    o.leakedDescriptors = openDescriptorCount() - descriptors;
    o.leakedMappings = mappingCount() - mappings;
    o.out = maskLineNumbers(t.out);
    o.err = maskLineNumbers(t.err);
    const std::vector<std::uint8_t> all = selEvents();
    o.sel.assign(all.begin() + static_cast<std::ptrdiff_t>(std::min(sel, all.size())), all.end());
    const std::string log = commandLog();
    o.commands = log.size() > commands ? log.substr(commands) : "";
    o.changes = diffTrees(before, snapshotTree());
    return o;
}

std::string linesInOrder(std::string_view text, std::initializer_list<std::string_view> wanted) {
    const std::vector<std::string> have = lines(text);
    auto at = have.begin();
    for (std::string_view w : wanted) {
        at = std::find(at, have.end(), w);
        if (at == have.end()) return "missing, in order: \"" + std::string(w) + "\" in\n" + std::string(text);
        ++at;
    }
    return "";
}

}  // namespace brask::test
