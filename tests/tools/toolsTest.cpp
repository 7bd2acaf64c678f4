// One golden output per tool and output mode, run as a user would inside the
// sandbox.  What a mode shows comes from the library (format layer, restore
// plan, event flows) and is tested by its suites; these check that the tools
// show it.  Rerun with BRASK_SHOW_GOLDEN=1 to see each output whole.

#include <iostream>
#include <regex>

#include "support/suite.h"

namespace brask::test {
namespace {

// Standard output and error of one run through the build's emulator, then its
// exit status.  Clock times, SEL time stamps and the source lines of the
// library's diagnostics are masked; JSON is compacted
// to one line, keeping the golden files short.
std::string run(const std::string& tool, const std::string& args) {
    std::string command;
    for (const std::string& word : sandbox::emulatorPrefix()) command += word + " ";
    const int status = std::system((command + tool + " " + args + " >/tmp/tool.out 2>&1").c_str());
    std::string out = readFile("/tmp/tool.out");
    if (args.find("--json") != std::string::npos)
        out = std::regex_replace(out, std::regex("\n *"), "") + "\n";
    out = std::regex_replace(out, std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC"), "<time>");
    out = std::regex_replace(out, std::regex("\"time\": \\d+"), "\"time\": 0");
    return maskLineNumbers(out) + "exit " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) +
           "\n";
}

void expectGolden(const std::string& name, const std::string& actual) {
    if (std::getenv("BRASK_SHOW_GOLDEN") != nullptr) std::cout << "=== " << name << "\n" << actual;
    EXPECT_EQ(actual, readFile(std::string(GOLDEN_DIR) + "/" + name)) << name;
}

// A backup of two files, and a BMC tree (/tmp/bmc/conf) where one of them
// differs and the other is missing.  Three bytes follow the last entry: a
// restore does not look at them, svfdump remarks on them.
TEST(Tools, SvfdumpShowsPlansAndExtracts) {
    const Bytes data = block({entry("/conf/resolv.conf", "nameserver 10.0.0.1\n"),
                              entry("/conf/passwd", "root:x:0:0::/root:/bin/sh\n", 0100600)},
                             Bytes(3, 0xEE));
    writeBytes("/tmp/web.bak", backup({.blocks = {block({}), data}}));
    writeFile("/tmp/bmc/conf/resolv.conf", "nameserver 10.9.9.9\n");
    const std::string text = run(SVFDUMP, "/tmp/web.bak");
    expectGolden("svfdump.txt", text);
    expectGolden("svfdump.json", run(SVFDUMP, "--json /tmp/web.bak"));
    expectGolden("svfdump-plan.txt", run(SVFDUMP, "--plan /tmp/bmc /tmp/web.bak"));
    expectGolden("svfdump-plan.json", run(SVFDUMP, "--json --plan /tmp/bmc /tmp/web.bak"));
    // Extraction shows what the text mode shows, then what it wrote.
    const std::string extracted = run(SVFDUMP, "--extract /tmp/out /tmp/web.bak");
    const std::size_t same = text.rfind("exit ");
    EXPECT_EQ(extracted.substr(0, same), text.substr(0, same));
    expectGolden("svfdump-extract.txt", extracted.substr(same) + diffTrees({}, snapshotTree({"/tmp/out"})));
}

// The story of the README: a backup and a restore ticked to the reboot.
TEST(Tools, SvfsimTellsTheStory) {
    std::string text;
    for (const std::string args : {"init", "backup", "restore", "--verbose event"})
        text += "$ svfsim " + args + "\n" + run(SVFSIM, args);
    expectGolden("svfsim.txt", text);
    expectGolden("svfsim.json", run(SVFSIM, "sel --json"));
}

}  // namespace
}  // namespace brask::test
