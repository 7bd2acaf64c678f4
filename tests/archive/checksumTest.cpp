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

// The checksum exactly as defined: one zero-cleared 4-byte item per read.
INT32U referenceSum(FILE* fp, INT32U limit) {
    std::rewind(fp);
    INT32U sum = 0;
    if (limit == 0) {
        for (;;) {
            std::uint8_t w[4] = {0, 0, 0, 0};
            const size_t items = std::fread(w, 4, 1, fp);
            sum += w[0] | (w[1] << 8) | (w[2] << 16) | (INT32U{w[3]} << 24);
            if (std::feof(fp) || items != 1) break;
        }
        return sum;
    }
    for (INT32U i = 0; i < limit; i += 4) {
        std::uint8_t w[4] = {0, 0, 0, 0};
        const INT32U want = limit - i < 4 ? limit - i : 4;
        const size_t items = std::fread(w, want, 1, fp);
        if (std::feof(fp) || items != 1) break;
        sum += w[0] | (w[1] << 8) | (w[2] << 16) | (INT32U{w[3]} << 24);
    }
    return sum;
}

// The same definition over bytes in memory, with the stream position it
// leaves: a read that meets the end of the file consumes what is left and
// ends the loop; a read that ends exactly at the end does not.  Checked
// against the stream version on small files, used alone on large ones
// (a 4-byte fread per word is very slow under an emulator).
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

struct SumCase {
    const char* name;
    Bytes content;
    INT32U limit;
    INT32U expected;
};

TEST(FileSum, DefinedExamples) {
    const Bytes six = {0x01, 0x00, 0x00, 0x00, 0x02, 0x03};
    Bytes longer = six;
    longer.insert(longer.end(), {0xAA, 0xBB, 0xCC, 0xDD, 0xEE});
    const std::vector<SumCase> cases = {
        {"whole file, zero-padded last group", six, 0, 771},
        {"limit 6 over a longer file", longer, 6, 771},
        {"limit 8 over 6 bytes stops before the partial group", six, 8, 1},
        {"empty file, whole", {}, 0, 0},
        {"empty file, limited", {}, 16, 0},
        {"limit past a file of whole words", {1, 0, 0, 0, 2, 0, 0, 0}, 100, 3},
        {"sums wrap modulo 2^32", {0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0, 0, 0}, 0, 1},
    };
    for (const SumCase& c : cases) {
        SCOPED_TRACE(c.name);
        FILE* fp = openBytes(c.content);
        ASSERT_NE(fp, nullptr);
        EXPECT_EQ(svfGetFileSum(fp, c.limit), c.expected);
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
            if (size < 70000) {
                EXPECT_EQ(referenceSum(fp, limit), e.sum);
                EXPECT_EQ(std::ftell(fp), e.position);
            }
            const INT32U expected = e.sum;
            const long expectedPos = e.position;
            std::fseek(fp, 0, SEEK_SET);
            EXPECT_EQ(svfGetFileSum(fp, limit), expected);
            EXPECT_EQ(std::ftell(fp), expectedPos);
        }
        std::fclose(fp);
      }
    }
}

TEST(FileSum, ZeroSumFileSumsToZeroAndDetectsChange) {
    Bytes content = {0, 0, 0, 0, 9, 8, 7, 6, 5};
    INT32U s = 0;
    {
        FILE* fp = openBytes(content);
        s = svfGetFileSum(fp, 0);
        std::fclose(fp);
    }
    const INT32U c = 0u - s;
    for (int i = 0; i < 4; ++i) content[i] = static_cast<std::uint8_t>(c >> (8 * i));
    FILE* fp = openBytes(content);
    EXPECT_EQ(svfGetFileSum(fp, 0), 0u);
    std::fclose(fp);
    content[6] ^= 0x10;
    fp = openBytes(content);
    EXPECT_NE(svfGetFileSum(fp, 0), 0u);
    std::fclose(fp);
}

TEST(FileSize, ReturnsSizeAndLeavesPositionAtEnd) {
    FILE* fp = openBytes(Bytes(1234, 7));
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(svfGetFileSize(fp), 1234);
    EXPECT_EQ(std::ftell(fp), 1234);
    std::fclose(fp);
}

TEST(CopyCommand, CopiesWithModeAndBuildsCommandInTmpStr) {
    brask::test::writeFile("/conf/key", "secret\n", 0600);
    char src[] = "/conf/key";
    char dst[] = "/conf/key.bak";
    ASSERT_EQ(svfExeCopyCmd(src, dst), 0);
    EXPECT_STREQ(gTmpStr, "cp -p /conf/key /conf/key.bak\n");
    EXPECT_EQ(brask::test::readFile("/conf/key.bak"), "secret\n");
    struct stat st {};
    ASSERT_EQ(::stat("/conf/key.bak", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST(CopyCommand, FailedCopyAndOverlongCommandAreRefused) {
    char missing[] = "/conf/missing";
    char dst[] = "/conf/missing.bak";
    testing::internal::CaptureStderr();
    EXPECT_EQ(svfExeCopyCmd(missing, dst), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("system cmd fail("), std::string::npos);

    // Two 151-character paths still fit the 320-byte command; 160 do not.
    std::string a151 = "/conf/" + std::string(145, 'a');
    std::string b151 = "/conf/" + std::string(145, 'b');
    brask::test::writeFile(a151, "x");
    EXPECT_EQ(svfExeCopyCmd(a151.data(), b151.data()), 0);
    EXPECT_EQ(brask::test::readFile(b151), "x");

    std::string a160 = "/conf/" + std::string(154, 'c');
    std::string b160 = "/conf/" + std::string(154, 'd');
    testing::internal::CaptureStderr();
    EXPECT_EQ(svfExeCopyCmd(a160.data(), b160.data()), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Command make fail.("), std::string::npos);
    EXPECT_FALSE(brask::test::exists(b160));
}

}  // namespace
