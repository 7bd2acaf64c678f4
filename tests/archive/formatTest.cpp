// The format layer: encode/decode round trips, refusal of every malformed
// or truncated block and of block descriptors outside the backup file.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "archiveTestSupport.h"

namespace {

namespace f = brask::format;
using brask::test::decodesFully;
using Bytes = std::vector<std::uint8_t>;

struct Entry {
    std::string name;
    Bytes data;
    std::uint32_t uid = 0, gid = 0, mode = 0100644;
};

Bytes buildBlock(const std::vector<Entry>& entries) {
    Bytes block(f::kArchiveHeaderSize);
    for (const Entry& e : entries) {
        svfBraskArchiveEntryInfo_T info{};
        info.FileOffset = static_cast<INT32U>(block.size() + f::kArchiveEntryInfoSize + e.name.size());
        info.FileSize = static_cast<INT32S>(e.data.size());
        info.FileUid = e.uid;
        info.FileGid = e.gid;
        info.FilePermission = e.mode;
        const auto raw = f::encodeArchiveEntryInfo(info);
        block.insert(block.end(), raw.begin(), raw.end());
        block.insert(block.end(), e.name.begin(), e.name.end());
        block.insert(block.end(), e.data.begin(), e.data.end());
    }
    svfBraskArchiveFileHeader_T h{1, 0, static_cast<INT16U>(entries.size()), 0};
    auto raw = f::encodeArchiveHeader(h);
    std::copy(raw.begin(), raw.end(), block.begin());
    h.ChkSum = f::zeroSumComplement(f::wordSum(block));
    raw = f::encodeArchiveHeader(h);
    std::copy(raw.begin(), raw.end(), block.begin());
    return block;
}

TEST(FormatLayer, EntryRoundTripOfRandomEntries) {
    std::mt19937 rng(99);
    for (int round = 0; round < 200; ++round) {
        std::vector<Entry> entries(rng() % 5);
        for (Entry& e : entries) {
            e.name = "/conf/" + std::string(rng() % 140, 'n') + ".bak";
            e.data.resize(rng() % 300);
            for (auto& b : e.data) b = static_cast<std::uint8_t>(rng());
            e.uid = rng();
            e.gid = rng();
            e.mode = rng();
        }
        const Bytes block = buildBlock(entries);
        EXPECT_EQ(f::wordSum(block), 0u);
        std::vector<f::ArchiveEntry> decoded;
        ASSERT_TRUE(decodesFully(block, &decoded));
        ASSERT_EQ(decoded.size(), entries.size());
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const f::ArchiveEntry& d = decoded[i];
            EXPECT_EQ(d.name, entries[i].name);
            EXPECT_EQ(Bytes(d.data.begin(), d.data.end()), entries[i].data);
            EXPECT_EQ(d.info.FileUid, entries[i].uid);
            EXPECT_EQ(d.info.FileGid, entries[i].gid);
            EXPECT_EQ(d.info.FilePermission, entries[i].mode);
            const auto again = f::encodeArchiveEntryInfo(d.info);
            EXPECT_EQ(0, std::memcmp(again.data(), block.data() + d.entryOffset, again.size()));
        }
    }
}

TEST(FormatLayer, EveryTruncatedBlockIsRefused) {
    const Bytes block = buildBlock({{"/conf/a.bak", {1, 2, 3}}, {"/conf/ab.bak", {}},
                                    {"/conf/brask/net.cfg.bak", Bytes(40, 9)}});
    ASSERT_TRUE(decodesFully(block));
    for (std::size_t n = 0; n < block.size(); ++n) {
        const Bytes cut(block.begin(), block.begin() + n);
        EXPECT_FALSE(decodesFully(cut)) << "length " << n;
    }
}

struct EntryFault {
    const char* name;
    std::uint32_t fileOffset;  // relative to the end of the descriptor
    std::int32_t fileSize;
    std::size_t blockBytesAfterDescriptor;
    f::Status expected;
};

TEST(FormatLayer, MalformedEntriesAreRefused) {
    const std::vector<EntryFault> cases = {
        {"name of 151 bytes", 151, 0, 151, f::Status::Ok},
        {"name of 152 bytes", 152, 0, 152, f::Status::NameTooLong},
        {"huge name length", 0xFFFFFFF0u - 28, 0, 16, f::Status::NameTooLong},
        {"data offset inside the descriptor", static_cast<std::uint32_t>(-1), 0, 8,
         f::Status::OffsetBeforeName},
        {"negative size", 4, -1, 16, f::Status::NegativeSize},
        {"data past the end", 4, 13, 16, f::Status::DataPastEnd},
        {"data up to the end", 4, 12, 16, f::Status::Ok},
        {"name past the end", 20, 0, 10, f::Status::Truncated},
    };
    for (const EntryFault& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes block(8 + 20 + c.blockBytesAfterDescriptor, 'x');
        svfBraskArchiveEntryInfo_T info{};
        info.FileOffset = 8 + 20 + c.fileOffset;
        info.FileSize = c.fileSize;
        const auto raw = f::encodeArchiveEntryInfo(info);
        std::copy(raw.begin(), raw.end(), block.begin() + 8);
        f::ArchiveEntry e;
        EXPECT_EQ(f::decodeArchiveEntry(block, 8, e), c.expected);
    }
    f::ArchiveEntry e;
    EXPECT_EQ(f::decodeArchiveEntry(Bytes(30), 31, e), f::Status::Truncated);
    EXPECT_EQ(f::decodeArchiveEntry(Bytes(27), 8, e), f::Status::Truncated);
}

TEST(FormatLayer, BlockDescriptorsOutsideTheFileAreRefused) {
    const Bytes file(200);
    f::Bytes out;
    const struct {
        std::uint32_t offset;
        std::int32_t size;
        f::Status expected;
    } cases[] = {{112, 88, f::Status::Ok},          {112, 89, f::Status::DataPastEnd},
                 {201, 0, f::Status::DataPastEnd},  {0xFFFFFFFFu, 8, f::Status::DataPastEnd},
                 {112, -8, f::Status::NegativeSize}, {200, 0, f::Status::Ok}};
    for (const auto& c : cases) {
        svfBraskBackupFileBlockInfo_T info{};
        info.BlockOffset = c.offset;
        info.BlockSize = c.size;
        EXPECT_EQ(f::blockBytes(file, info, out), c.expected) << c.offset << "+" << c.size;
    }
}

TEST(FormatLayer, CursorNeverMovesOnAFailedRead) {
    const Bytes b = {1, 2, 3};
    f::ByteCursor c(b);
    std::uint32_t v = 0;
    EXPECT_FALSE(c.u32(v));
    EXPECT_EQ(c.pos(), 0u);
    std::uint16_t w = 0;
    EXPECT_TRUE(c.u16(w));
    EXPECT_EQ(w, 0x0201);
    EXPECT_FALSE(c.skip(2));
    EXPECT_FALSE(c.seek(4));
    EXPECT_TRUE(c.seek(3));
    EXPECT_EQ(c.remaining(), 0u);
}

}  // namespace
