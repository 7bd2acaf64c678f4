// svfdump as support staff run it: on a backup the library made in the
// sandbox, on every kind of damage to it, and extracting hostile archives.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include <nlohmann/json.hpp>

#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "inspect.h"
#include "restoreTestSupport.h"
#include "support/scenario.h"
#include "support/tree.h"
#include "svfsim/runTool.h"

namespace brask::test {
namespace {

constexpr char kBackup[] = "/var/brask/BmcWeb.bak";
constexpr char kCopy[] = "/tmp/input";

using Outcome = ToolRun;

// `quick` turns the sanitizers' leak check off: it doubles the start-up time
// of each run and is kept for the runs on sound files.
Outcome svfdump(const std::vector<std::string>& args, bool quick = false) {
    return runTool(SVFDUMP_BINARY, args, quick ? std::vector<std::string>{"ASAN_OPTIONS=detect_leaks=0"}
                                               : std::vector<std::string>{});
}

// A web-console backup of a realistic /conf, as the firmware would make it.
// `small` cuts the larger files to 256 bytes first, so that every truncation
// of the backup can be tried in-process.
ByteVec makeBackup(bool small = false) {
    for (const std::string& path : populateConf()) {
        ByteVec bytes = readBytes(path);
        if (small && bytes.size() > 1024) {
            bytes.resize(256);
            writeBytes(path, bytes);
        }
    }
    INT8U req[6] = {BMC_FILE, BMC_WEB_CONSOLE, 0, 0, 0, 0};
    INT8U res[1] = {0xEE};
    EXPECT_EQ(svfOEMSetBackupEvent(req, 6, res, 0), 1);
    EXPECT_EQ(res[0], 0x00);
    return readBytes(kBackup);
}

ByteVec blockOf(const ByteVec& file, unsigned index) {
    const format::Bytes bytes(file.data(), file.size());
    svfBraskBackupFileBlockInfo_T info{};
    format::Bytes block;
    EXPECT_EQ(format::decodeBlockInfo(bytes, index, info), format::Status::Ok);
    EXPECT_EQ(format::blockBytes(bytes, info, block), format::Status::Ok);
    return ByteVec(block.begin(), block.end());
}

// The whole backup file and its block 1 alone, with where the block starts.
struct Sample {
    const char* what;
    ByteVec bytes;
    std::size_t blockAt;
};
std::vector<Sample> samples(const ByteVec& file) {
    return {{"backup file", file, format::backupHeaderAreaSize(2) + 8}, {"block 1 alone", blockOf(file, 1), 0}};
}

// Where to cut or flip: in the header's fields, its checksum and the block
// table, in a block header, in the first entry's descriptor and name, at the
// last entry's data and at the last byte.
std::set<std::size_t> samplePoints(const ByteVec& file, std::size_t blockAt) {
    std::set<std::size_t> at = {5, 60, 93, 100, blockAt + 3, file.size() - 1};
    format::ArchiveEntryWalk walk(format::Bytes(file.data() + blockAt, file.size() - blockAt));
    for (format::ArchiveEntry e; walk.next(e);) {
        if (walk.decoded() == 1) at.insert({blockAt + e.entryOffset + 5, blockAt + e.info.FileOffset - 1});
        if (walk.decoded() == walk.header().NumOfEntry) at.insert(blockAt + e.info.FileOffset);
    }
    at.erase(at.lower_bound(file.size()), at.end());
    return at;
}

TEST(Svfdump, ShowsAndExtractsARealBackup) {
    const ByteVec file = makeBackup();
    const Outcome text = svfdump({kBackup});
    ASSERT_EQ(text.exit, 0) << text.err;
    EXPECT_EQ(text.err, "");
    for (const char* line : {"kind         backup file", "firmware     BMC (1)", "BMC revision 2.17",
                             "blocks       2 (header and table: 128 bytes)", "header sum   ok",
                             "InheritanceType 7", "InheritanceType 6", "-rw-------",
                             "/conf/passwd.bak", "verdict      OK"}) {
        EXPECT_NE(text.out.find(line), std::string::npos) << line << "\n" << text.out;
    }

    const Outcome run = svfdump({"--json", kBackup});
    ASSERT_EQ(run.exit, 0) << run.err;
    const auto j = nlohmann::json::parse(run.out);
    EXPECT_TRUE(j["ok"].get<bool>());
    EXPECT_EQ(j["kind"], "backup");
    EXPECT_EQ(j["size"], file.size());
    svfBraskBackupFileHeader_T h{};
    ASSERT_EQ(format::decodeBackupHeader(format::Bytes(file.data(), file.size()), h), format::Status::Ok);
    EXPECT_EQ(j["header"]["model"], std::string(reinterpret_cast<const char*>(h.ModelNumber)));
    EXPECT_EQ(j["header"]["serial"], std::string(reinterpret_cast<const char*>(h.SerialNumber)));
    EXPECT_EQ(j["header"]["timeStamp"], h.TimeStamp);
    EXPECT_EQ(j["header"]["numOfBlock"], 2);
    ASSERT_EQ(j["blocks"].size(), 2u);
    EXPECT_EQ(j["blocks"][0]["entries"].size(), 0u);
    const auto& entries = j["blocks"][1]["entries"];
    ASSERT_GT(entries.size(), 13u);
    EXPECT_EQ(entries.size(), j["blocks"][1]["numOfEntry"]);
    const Outcome extracted = svfdump({"--extract", "/tmp/out", kBackup});
    ASSERT_EQ(extracted.exit, 0) << extracted.err << extracted.out;
    // Every entry as the backup copy it was packed from, and extracted as it.
    for (const auto& e : entries) {
        const std::string name = e["name"], path = e["path"];
        struct stat st{}, out{};
        ASSERT_EQ(::stat(name.c_str(), &st), 0) << name;
        EXPECT_EQ(e["size"], st.st_size) << name;
        EXPECT_EQ(e["mode"], st.st_mode) << name;
        EXPECT_EQ(e["uid"], st.st_uid) << name;
        EXPECT_EQ(path, name.substr(0, name.size() - 4)) << name;
        ASSERT_EQ(::lstat(("/tmp/out" + path).c_str(), &out), 0) << path;
        EXPECT_TRUE(S_ISREG(out.st_mode)) << path;
        EXPECT_EQ(out.st_mode & 0777u, st.st_mode & 0777u) << path;
        EXPECT_EQ(readFile("/tmp/out" + path), readFile(name)) << path;
    }
}

// In-process, over every length and every byte outside the packed data (a
// stride through that): the sanitizers see any read outside the file, and
// no damaged copy may pass as sound.
TEST(Svfdump, EveryTruncationAndFlippedByteIsAFailure) {
    const ByteVec file = makeBackup(true);
    ASSERT_LT(file.size(), 20000u);
    for (const auto& [what, bytes, blockAt] : samples(file)) {
        SCOPED_TRACE(what);
        ASSERT_TRUE(svfdump::inspect(format::Bytes(bytes.data(), bytes.size())).sound());
        for (std::size_t n = 0; n < bytes.size(); ++n) {
            ASSERT_FALSE(svfdump::inspect(format::Bytes(bytes.data(), n)).sound()) << "cut at " << n;
        }
        std::vector<bool> data(bytes.size(), false);
        format::ArchiveEntryWalk walk(format::Bytes(bytes.data() + blockAt, bytes.size() - blockAt));
        for (format::ArchiveEntry e; walk.next(e);) {
            std::fill_n(data.begin() + static_cast<long>(blockAt + e.info.FileOffset), e.data.size(), true);
        }
        ByteVec bad = bytes;
        for (std::size_t at = 0; at < bad.size(); ++at) {
            if (data[at] && at % 61 != 0) continue;
            bad[at] ^= 0x10;
            ASSERT_FALSE(svfdump::inspect(format::Bytes(bad.data(), bad.size())).sound()) << "flipped at " << at;
            bad[at] ^= 0x10;
        }
    }
}

// The tool itself on a sample of damaged copies: status 1, no signal, and
// exactly one line naming the file on the error stream.
TEST(Svfdump, DamagedCopiesExitWithOneLine) {
    const ByteVec file = makeBackup();
    for (const Sample& c : samples(file)) {
        writeBytes(kCopy, c.bytes);
        const Outcome whole = svfdump({kCopy});
        ASSERT_EQ(whole.exit, 0) << c.what << ": " << whole.err;
        for (std::size_t n : samplePoints(c.bytes, c.blockAt)) {
            for (const bool cut : {true, false}) {
                ByteVec bad(c.bytes.begin(), c.bytes.begin() + static_cast<long>(cut ? n : c.bytes.size()));
                if (!cut) bad[n] ^= 0x01;
                writeBytes(kCopy, bad);
                const Outcome r = svfdump({kCopy}, true);
                const std::string what = std::string(c.what) + (cut ? " cut at " : " flipped at ") + std::to_string(n);
                ASSERT_EQ(r.signal, 0) << what;
                ASSERT_EQ(r.exit, 1) << what << "\n" << r.out;
                ASSERT_EQ(r.err.rfind("svfdump: /tmp/input: ", 0), 0u) << what << r.err;
                ASSERT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << what << r.err;
            }
        }
    }
}

// Hostile archives: a refused extraction writes nothing anywhere, and an
// accepted one writes nothing outside DIR.
TEST(Svfdump, ExtractionNeverLeavesItsDirectory) {
    struct Case {
        const char* what;
        std::vector<std::string> names;  // stored names
        int exit;
        bool linkConfOutside = false;   // DIR/conf is a link to /tmp/outside
        bool hardLinkVictim = false;    // DIR/conf/a is a hard link to /tmp/outside/victim
    } cases[] = {
        {"dot-dot after the root", {"/conf/../../../tmp/escape.bak"}, 3},
        {"relative dot-dot", {"../escape.bak"}, 3},
        {"dot-dot behind a sound entry", {"/conf/ok.bak", "/conf/x/../../../escape.bak"}, 3},
        {"name without .bak", {"/conf/plain"}, 1},
        {"only a .bak", {".bak"}, 1},
        {"link to outside", {"/conf/a.bak"}, 3, true},
        {"hard link to outside", {"/conf/a.bak"}, 0, false, true},
        {"absolute names stay inside", {"/conf/a.bak", "//conf/./b/c.bak"}, 0},
    };
    for (const Case& c : cases) {
        std::filesystem::remove_all("/tmp/dir");
        std::filesystem::remove_all("/tmp/outside");
        writeFile("/tmp/outside/victim", "victim\n");
        if (c.linkConfOutside) {
            std::filesystem::create_directories("/tmp/dir");
            std::filesystem::create_directory_symlink("/tmp/outside", "/tmp/dir/conf");
        }
        if (c.hardLinkVictim) {
            std::filesystem::create_directories("/tmp/dir/conf");
            std::filesystem::create_hard_link("/tmp/outside/victim", "/tmp/dir/conf/a");
        }
        std::vector<EntrySpec> entries;
        EntrySpec e;
        e.data = {'x', '\n'};
        e.mode = 0100600;
        for (const auto& n : c.names) entries.push_back((e.name = n, e));
        writeBytes("/tmp/hostile", test::block(entries));
        // What may change: the tool's own output files, and DIR when accepted.
        const auto unjudged = [&](const auto& kv) {
            return (c.exit == 0 && kv.first.rfind("/tmp/dir", 0) == 0) || kv.first.rfind("/tmp/tool.", 0) == 0;
        };
        auto before = snapshotTree({"/tmp"});
        const Outcome r = svfdump({"--extract", "/tmp/dir", "/tmp/hostile"});
        ASSERT_EQ(r.signal, 0) << c.what;
        EXPECT_EQ(r.exit, c.exit) << c.what << "\n" << r.err << r.out;
        auto after = snapshotTree({"/tmp"});
        std::erase_if(before, unjudged);
        std::erase_if(after, unjudged);
        EXPECT_EQ(diffTrees(before, after), "") << c.what;
        EXPECT_EQ(readFile("/tmp/outside/victim"), "victim\n") << c.what;
        if (c.exit == 0) {
            EXPECT_EQ(readFile("/tmp/dir/conf/a"), "x\n") << c.what;
        }
    }
}

// Usage errors and unreadable input exit 2; a lone empty block is read as
// what it is, and fails when forced to be read as a backup.
TEST(Svfdump, UsageAndUnreadableInput) {
    std::filesystem::create_directories("/tmp/folder");
    writeBytes(kCopy, test::block({}));
    const struct {
        std::vector<std::string> args;
        int exit;
    } cases[] = {
        {{"--help"}, 0}, {{}, 2}, {{"--bogus", "/tmp/x"}, 2}, {{"/tmp/missing"}, 2}, {{"/tmp/folder"}, 2},
        {{"--as", "zip", "/tmp/folder"}, 2}, {{kCopy}, 0}, {{"--as", "backup", kCopy}, 1},
    };
    for (const auto& c : cases) {
        const Outcome r = svfdump(c.args);
        EXPECT_EQ(r.exit, c.exit) << ::testing::PrintToString(c.args) << "\n" << r.err;
    }
}

}  // namespace
}  // namespace brask::test
