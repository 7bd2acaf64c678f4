// svfdump as support staff run it: on a backup the library made in the
// sandbox, on every kind of damage to it, and extracting hostile archives.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include <nlohmann/json.hpp>

#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "inspect.h"
#include "restoreTestSupport.h"
#include "sandbox/sandbox.h"
#include "support/scenario.h"

extern char** environ;

namespace brask::test {
namespace {

constexpr char kBackup[] = "/var/brask/BmcWeb.bak";
constexpr char kCopy[] = "/tmp/input";

struct Outcome {
    int exit = -1;    // exit status, -1 when killed
    int signal = 0;   // the signal that killed it
    std::string out, err;
};

// `quick` turns the sanitizers' leak check off: it doubles the start-up time
// of each run and is kept for the runs on sound files.
Outcome svfdump(const std::vector<std::string>& args, bool quick = false) {
    // A cross build starts it through the emulator, as ctest starts this suite.
    std::vector<std::string> words = sandbox::emulatorPrefix();
    words.push_back(SVFDUMP_BINARY);
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t io;
    posix_spawn_file_actions_init(&io);
    posix_spawn_file_actions_addopen(&io, 1, "/tmp/svfdump.out", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&io, 2, "/tmp/svfdump.err", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    Outcome r;
    std::vector<char*> env;
    for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
    std::string noLeakCheck = "ASAN_OPTIONS=detect_leaks=0";
    if (quick) env.push_back(noLeakCheck.data());
    env.push_back(nullptr);
    const int rc = posix_spawn(&pid, argv[0], &io, nullptr, argv.data(), env.data());
    posix_spawn_file_actions_destroy(&io);
    int status = 0;
    if (rc != 0 || ::waitpid(pid, &status, 0) != pid) return r;
    if (WIFEXITED(status)) r.exit = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) r.signal = WTERMSIG(status);
    r.out = readFile("/tmp/svfdump.out");
    r.err = readFile("/tmp/svfdump.err");
    return r;
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

TEST(Svfdump, ShowsARealBackupAsTextAndJson) {
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
    // Every entry as the backup copy it was packed from.
    for (const auto& e : entries) {
        const std::string name = e["name"];
        struct stat st{};
        ASSERT_EQ(::stat(name.c_str(), &st), 0) << name;
        EXPECT_EQ(e["size"], st.st_size) << name;
        EXPECT_EQ(e["mode"], st.st_mode) << name;
        EXPECT_EQ(e["uid"], st.st_uid) << name;
        EXPECT_EQ(e["path"], name.substr(0, name.size() - 4)) << name;
    }
}

// In-process, over every length and every byte outside the packed data (a
// stride through that): the sanitizers see any read outside the file, and
// no damaged copy may pass as sound.
TEST(Svfdump, EveryTruncationAndFlippedByteIsAFailure) {
    const ByteVec file = makeBackup(true);
    ASSERT_LT(file.size(), 20000u);
    const std::size_t block1 = format::backupHeaderAreaSize(2) + 8;
    for (const auto& [bytes, blockAt] : {std::pair{file, block1}, std::pair{blockOf(file, 1), std::size_t{0}}}) {
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
    const std::size_t block1 = format::backupHeaderAreaSize(2) + 8;
    struct Case {
        const char* what;
        ByteVec bytes;
        std::size_t blockAt;
    } cases[] = {{"backup file", file, block1}, {"block 1 alone", blockOf(file, 1), 0}};
    for (const Case& c : cases) {
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

TEST(Svfdump, ExtractsARealBackupWithModes) {
    makeBackup();
    const Outcome r = svfdump({"--extract", "/tmp/out", kBackup});
    ASSERT_EQ(r.exit, 0) << r.err << r.out;
    const auto j = nlohmann::json::parse(svfdump({"--json", kBackup}).out);
    for (const auto& e : j["blocks"][1]["entries"]) {
        const std::string path = e["path"], name = e["name"];
        struct stat st{};
        ASSERT_EQ(::lstat(("/tmp/out" + path).c_str(), &st), 0) << path;
        EXPECT_TRUE(S_ISREG(st.st_mode)) << path;
        EXPECT_EQ(st.st_mode & 0777u, e["mode"].get<unsigned>() & 0777u) << path;
        EXPECT_EQ(readFile("/tmp/out" + path), readFile(name)) << path;
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
        std::filesystem::create_directories("/tmp/outside");
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
        for (const auto& n : c.names) {
            EntrySpec e;
            e.storedName = n;
            e.data = {'x', '\n'};
            e.mode = 0100600;
            entries.push_back(e);
        }
        writeBytes("/tmp/hostile", buildBlock(entries));
        auto before = snapshotTree("/tmp");
        const Outcome r = svfdump({"--extract", "/tmp/dir", "/tmp/hostile"});
        ASSERT_EQ(r.signal, 0) << c.what;
        EXPECT_EQ(r.exit, c.exit) << c.what << "\n" << r.err << r.out;
        auto after = snapshotTree("/tmp");
        for (auto it = after.begin(); it != after.end();) {
            const bool written = c.exit == 0 && it->first.rfind("/tmp/dir", 0) == 0;
            it = written || it->first.rfind("/tmp/svfdump.", 0) == 0 ? after.erase(it) : std::next(it);
        }
        std::erase_if(before, [&](const auto& kv) {
            return (c.exit == 0 && kv.first.rfind("/tmp/dir", 0) == 0) || kv.first.rfind("/tmp/svfdump.", 0) == 0;
        });
        EXPECT_EQ(diffSnapshots(before, after), "") << c.what;
        EXPECT_EQ(readFile("/tmp/outside/victim"), "victim\n") << c.what;
        if (c.exit == 0) {
            EXPECT_EQ(readFile("/tmp/dir/conf/a"), "x\n") << c.what;
        }
    }
}

TEST(Svfdump, UsageAndUnreadableInput) {
    std::filesystem::create_directories("/tmp/folder");
    const struct {
        std::vector<std::string> args;
        int exit;
    } cases[] = {
        {{"--help"}, 0}, {{}, 2}, {{"--bogus", "/tmp/x"}, 2}, {{"/tmp/missing"}, 2},
        {{"/tmp/folder"}, 2}, {{"--as", "zip", "/tmp/folder"}, 2},
    };
    for (const auto& c : cases) {
        const Outcome r = svfdump(c.args);
        EXPECT_EQ(r.exit, c.exit) << ::testing::PrintToString(c.args) << "\n" << r.err;
    }
    // A lone empty block read as what it is, and forced to be read as a backup.
    writeBytes(kCopy, buildBlock({}));
    EXPECT_EQ(svfdump({kCopy}).exit, 0);
    EXPECT_EQ(svfdump({"--as", "backup", kCopy}).exit, 1);
}

}  // namespace
}  // namespace brask::test
