// The additive checksum, file size and copy command.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "archive/fileUtils.h"
#include "support/scenario.h"

namespace {

using brask::test::writeBytes;
using Bytes = std::vector<std::uint8_t>;

// The checksum as defined (one zero-cleared 4-byte item per fread, up to
// the limit or, for limit 0, to the end) over bytes in memory, with the
// stream position it leaves: a read that meets the end of the file consumes
// what is left and ends the loop; a read that ends exactly at the end does
// not.  Pinned by the examples below; a 4-byte fread per word would be very
// slow under an emulator on the large files.
struct Expected {
    INT32U sum;
    long position;
};

Expected referenceSum(const std::vector<std::uint8_t>& bytes, INT32U limit) {
    const std::size_t size = bytes.size();
    auto word = [&](std::size_t at, std::size_t n) {
        INT32U w = 0;
        for (std::size_t k = 0; k < n && at + k < size; ++k) w |= INT32U{bytes[at + k]} << (8 * k);
        return w;
    };
    INT32U sum = 0;
    if (limit == 0) {
        for (std::size_t at = 0; at <= size; at += 4) sum += word(at, 4);
        return {sum, static_cast<long>(size)};
    }
    for (std::size_t at = 0; at < limit; at += 4) {
        const std::size_t want = limit - at < 4 ? limit - at : 4;
        if (size - std::min(at, size) < want) return {sum, static_cast<long>(size)};
        sum += word(at, want);
    }
    return {sum, static_cast<long>(limit)};
}

// /var lies on a disk file system in the sandbox, /tmp on tmpfs: the two
// take different read paths for large files.
FILE* openBytes(const Bytes& content, const std::string& path = "/var/sum.bin") {
    writeBytes(path, content);
    return std::fopen(path.c_str(), "rb");
}

TEST(FileSum, DefinedExamples) {
    const Bytes six = {0x01, 0x00, 0x00, 0x00, 0x02, 0x03};
    Bytes longer = six;
    longer.insert(longer.end(), {0xAA, 0xBB, 0xCC, 0xDD, 0xEE});
    const struct {
        const char* name;
        Bytes content;
        INT32U limit, expected;
        long position;
    } cases[] = {
        {"whole file, zero-padded last group", six, 0, 771, 6},
        {"limit 6 over a longer file", longer, 6, 771, 6},
        {"limit 8 over 6 bytes stops before the partial group", six, 8, 1, 6},
        {"empty file, whole", {}, 0, 0, 0},
        {"empty file, limited", {}, 16, 0, 0},
        {"limit past a file of whole words", {1, 0, 0, 0, 2, 0, 0, 0}, 100, 3, 8},
        {"limit inside a file of whole words", {1, 0, 0, 0, 2, 0, 0, 0}, 4, 1, 4},
        {"sums wrap modulo 2^32", {0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0, 0, 0}, 0, 1, 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Expected e = referenceSum(c.content, c.limit);
        EXPECT_EQ(e.sum, c.expected);
        EXPECT_EQ(e.position, c.position);
        FILE* fp = openBytes(c.content);
        ASSERT_NE(fp, nullptr);
        EXPECT_EQ(svfGetFileSum(fp, c.limit), c.expected);
        EXPECT_EQ(std::ftell(fp), c.position);
        std::fclose(fp);
    }
}

// The block-wise and mapped implementation against the word-at-a-time
// definition, for sizes and limits around the read-block size and the
// mapping threshold, and at random; the stream position afterwards must
// match too.
TEST(FileSum, MatchesWordAtATimeDefinition) {
    using namespace brask::archive;
    std::mt19937 rng(1234);
    std::vector<std::size_t> sizes = {0, 1, 2, 3, 4, 5, 7, 8, 9, 4095, 4096, 4097};
    for (std::size_t block : {kSumBlockSize, 2 * kSumBlockSize, kSumMapThreshold}) {
        for (int d = -5; d <= 5; ++d) sizes.push_back(block + d);
    }
    for (int i = 0; i < 20; ++i) sizes.push_back(rng() % 300000);

    for (std::size_t size : sizes) {
      for (const std::string path : {"/var/sum.bin", "/tmp/sum.bin"}) {
        Bytes content(size);
        for (auto& b : content) b = static_cast<std::uint8_t>(rng());
        FILE* fp = openBytes(content, path);
        ASSERT_NE(fp, nullptr);
        std::vector<INT32U> limits = {0, 1, 2, 3, 4, 5, 6, 7, 8, 65535, 65536, 65537, 65539};
        for (std::size_t edge : {kSumMapThreshold, kSumMapWindow}) {
            for (int d = -2; d <= 2; ++d) limits.push_back(static_cast<INT32U>(edge + d));
        }
        for (long d = -3; d <= 3; ++d) {
            if (static_cast<long>(size) + d > 0) limits.push_back(static_cast<INT32U>(size + d));
        }
        limits.push_back(static_cast<INT32U>(rng() % (size + 10) + 1));
        for (INT32U limit : limits) {
            SCOPED_TRACE(path + " size " + std::to_string(size) + " limit " + std::to_string(limit));
            const Expected e = referenceSum(content, limit);
            std::fseek(fp, 0, SEEK_SET);
            EXPECT_EQ(svfGetFileSum(fp, limit), e.sum);
            EXPECT_EQ(std::ftell(fp), e.position);
        }
        std::fclose(fp);
      }
    }
}

TEST(FileSize, ReturnsSizeAndLeavesPositionAtEnd) {
    FILE* fp = openBytes(Bytes(1234, 7));
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(svfGetFileSize(fp), 1234);
    EXPECT_EQ(std::ftell(fp), 1234);
    std::fclose(fp);
}

// "cp -p" through a command built in gTmpStr: two 151-character paths still
// fit the 320-byte command, two of 160 do not.
TEST(CopyCommand, CopiesWithModeOrRefuses) {
    const std::string a151 = "/conf/" + std::string(145, 'a'), a160 = "/conf/" + std::string(154, 'c');
    const struct {
        std::string src, dst;
        bool present;
        int result;
        const char* message;  // on stderr on failure
    } cases[] = {
        {"/conf/key", "/conf/key.bak", true, 0, ""},
        {a151, "/conf/" + std::string(145, 'b'), true, 0, ""},
        {"/conf/missing", "/conf/missing.bak", false, -1, "system cmd fail("},
        {a160, "/conf/" + std::string(154, 'd'), true, -1, "Command make fail.("},
    };
    for (auto c : cases) {
        SCOPED_TRACE(c.src);
        if (c.present) brask::test::writeFile(c.src, "secret\n", 0600);
        testing::internal::CaptureStderr();
        EXPECT_EQ(svfExeCopyCmd(c.src.data(), c.dst.data()), c.result);
        const std::string err = testing::internal::GetCapturedStderr();
        if (c.result != 0) {
            EXPECT_NE(err.find(c.message), std::string::npos) << err;
            EXPECT_FALSE(brask::test::exists(c.dst));
            continue;
        }
        EXPECT_EQ(std::string(gTmpStr), "cp -p " + c.src + " " + c.dst + "\n");
        EXPECT_EQ(brask::test::readFile(c.dst), "secret\n");
        struct stat st {};
        ASSERT_EQ(::stat(c.dst.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600u);
    }
}

}  // namespace
