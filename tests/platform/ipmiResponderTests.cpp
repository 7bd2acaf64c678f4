// API_ExecuteCmd as the library's IPMI peer: the four Storage requests, the
// FRU image it serves, its fault controls and request counts.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "platformTestSupport.h"

namespace brask::test {
namespace {

using Bytes = std::vector<INT8U>;

Bytes image() {
    Bytes img(0x10000);
    const int size = hostFruReadImage(img.data(), static_cast<INT32U>(img.size()));
    img.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return img;
}

Bytes readFru(unsigned offset, INT8U count) {
    return storage(SVF_CMD_READ_FRU_DATA,
                   {0, static_cast<INT8U>(offset), static_cast<INT8U>(offset >> 8), count});
}

unsigned sum(const Bytes& b, size_t from, size_t to) {
    unsigned s = 0;
    for (size_t i = from; i < to; ++i) s += b[i];
    return s & 0xFF;
}

class IpmiResponder : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(hostFruMakeImage(1024, "MODEL-X", "SERIAL-9"), 0); }
};

TEST_F(IpmiResponder, MadeImageCarriesIdentityWhereTheLibraryReadsIt) {
    const Bytes img = image();
    ASSERT_EQ(img.size(), 1024u);
    EXPECT_EQ(sum(img, 0, 8), 0u) << "common header checksum";
    EXPECT_EQ(img[0x80], 1) << "product area format version";
    EXPECT_EQ(sum(img, 0x80, 0x80 + img[0x81] * 8u), 0u) << "product area checksum";
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&img[0xA1])), "MODEL-X");
    EXPECT_EQ(Bytes(img.begin() + 0xA1 + 7, img.begin() + 0xA1 + 32), Bytes(25, 0));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&img[0xCD])), "SERIAL-9");
    EXPECT_EQ(Bytes(img.begin() + 0xF8, img.begin() + 0xFA), (Bytes{0x01, 0x02}));
    EXPECT_NE(Bytes(img.begin() + 0x15E, img.begin() + 0x16E), Bytes(16, 0));
    EXPECT_EQ(img.back(), 0xFF);
}

TEST_F(IpmiResponder, AnswersTheFourRequests) {
    EXPECT_EQ(storage(SVF_CMD_GET_FRU_INVENTORY_AREA_INFO, {0}), (Bytes{0, 0x00, 0x04, 0}));

    Bytes model = readFru(0xA1, 8);
    EXPECT_EQ(model, (Bytes{0, 8, 'M', 'O', 'D', 'E', 'L', '-', 'X', 0}));
    Bytes tail = readFru(1020, 10);  // past the end: what is there
    ASSERT_EQ(tail.size(), 6u);
    EXPECT_EQ(tail[1], 4);
    EXPECT_EQ(readFru(1024, 1), Bytes{0xC9});

    EXPECT_EQ(storage(SVF_CMD_WRITE_FRU_DATA, {0, 0x10, 0x02, 0xAA, 0xBB, 0xCC}), (Bytes{0, 3}));
    EXPECT_EQ(readFru(0x210, 3), (Bytes{0, 3, 0xAA, 0xBB, 0xCC}));
    EXPECT_EQ(storage(SVF_CMD_WRITE_FRU_DATA, {0, 0xFF, 0x03, 1, 2}), Bytes{0xC9});

    const INT32U before = static_cast<INT32U>(time(nullptr));
    const Bytes t = storage(SVF_CMD_GET_SEL_TIME, {});
    const INT32U after = static_cast<INT32U>(time(nullptr));
    ASSERT_EQ(t.size(), 5u);
    EXPECT_EQ(t[0], 0);
    const INT32U value = INT32U{t[1]} << 24 | INT32U{t[2]} << 16 | INT32U{t[3]} << 8 | t[4];
    EXPECT_GE(value, before);
    EXPECT_LE(value, after);
}

TEST_F(IpmiResponder, AnythingElseIsAnInvalidCommand) {
    const struct {
        const char* what;
        INT8U netFnLun, cmd;
        Bytes request;
    } cases[] = {
        {"other NetFn", 0x18, SVF_CMD_READ_FRU_DATA, {0, 0, 0, 1}},
        {"other command", SVF_NETFNLUN_STORAGE, 0x13, {0}},
        {"info of device 1", SVF_NETFNLUN_STORAGE, SVF_CMD_GET_FRU_INVENTORY_AREA_INFO, {1}},
        {"read of device 1", SVF_NETFNLUN_STORAGE, SVF_CMD_READ_FRU_DATA, {1, 0, 0, 1}},
        {"write to device 2", SVF_NETFNLUN_STORAGE, SVF_CMD_WRITE_FRU_DATA, {2, 0, 0, 9}},
    };
    for (const auto& c : cases) EXPECT_EQ(ipmi(c.netFnLun, c.cmd, c.request), Bytes{0xC1}) << c.what;
    errno = 0;
    EXPECT_EQ(API_ExecuteCmd(nullptr, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(IpmiResponder, FaultControls) {
    const struct {
        const char* what;
        void (*arm)();
        INT8U cmd;
        Bytes request;
        Bytes expected;
    } cases[] = {
        {"completion code per command",
         [] { hostIpmiFailCmd(SVF_CMD_READ_FRU_DATA, 0, 1, 0xD5); }, SVF_CMD_READ_FRU_DATA,
         {0, 0xA1, 0, 2}, {0xD5}},
        {"short read", [] { hostFruSetShortRead(3); }, SVF_CMD_READ_FRU_DATA, {0, 0xA1, 0, 5},
         {0, 2, 'M', 'O'}},
        {"refused write", [] { hostFruRefuseWrites(0xD4); }, SVF_CMD_WRITE_FRU_DATA,
         {0, 0, 2, 7}, {0xD4}},
        {"access type", [] { hostFruSetAccessType(1); }, SVF_CMD_GET_FRU_INVENTORY_AREA_INFO,
         {0}, {0, 0x00, 0x04, 1}},
        {"SEL time", [] { const INT8U t[4] = {1, 2, 3, 4}; hostSetSelTime(t); },
         SVF_CMD_GET_SEL_TIME, {}, {0, 1, 2, 3, 4}},
    };
    for (const auto& c : cases) {
        hostResetFaults();
        c.arm();
        EXPECT_EQ(storage(c.cmd, c.request), c.expected) << c.what;
        hostResetFaults();
        EXPECT_EQ(storage(c.cmd, c.request).at(0), 0) << c.what << ": still armed after hostResetFaults";
    }

    // skip / count of one command, the others untouched.
    ASSERT_EQ(hostIpmiFailCmd(SVF_CMD_READ_FRU_DATA, 1, 2, 0xCA), 0);
    EXPECT_EQ(storage(SVF_CMD_GET_FRU_INVENTORY_AREA_INFO, {0})[0], 0);
    EXPECT_EQ(readFru(0, 1)[0], 0);
    EXPECT_EQ(readFru(0, 1)[0], 0xCA);
    EXPECT_EQ(readFru(0, 1)[0], 0xCA);
    EXPECT_EQ(readFru(0, 1)[0], 0);
    errno = 0;
    EXPECT_EQ(hostIpmiFailCmd(0x47, 0, 1, 0xC0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(IpmiResponder, SecondReadOfAPieceDiffers) {
    hostFruSetReadsDiffer(1);
    const Bytes first = readFru(0xA1, 16), second = readFru(0xA1, 16);
    EXPECT_EQ(readFru(0xCD, 16)[2], 'S');
    EXPECT_EQ(readFru(0xA1, 16), first);
    ASSERT_EQ(first.size(), second.size());
    int changed = 0;
    for (size_t i = 0; i < first.size(); ++i) changed += first[i] != second[i];
    EXPECT_EQ(changed, 1);
}

TEST_F(IpmiResponder, AccessLogRecordsServedReadsAndWrites) {
    hostFruClearAccessLog();
    readFru(0x100, 16);
    storage(SVF_CMD_WRITE_FRU_DATA, {0, 0x20, 0x01, 1, 2, 3, 4});
    storage(SVF_CMD_GET_SEL_TIME, {});
    hostFruAccess_T log[4] = {};
    ASSERT_EQ(hostFruAccessLog(log, 4), 2);
    const auto entry = [](const hostFruAccess_T& a) { return std::tuple(int(a.Cmd), a.Offset, a.Count); };
    EXPECT_EQ(entry(log[0]), std::tuple(int(SVF_CMD_READ_FRU_DATA), 0x100u, 16u));
    EXPECT_EQ(entry(log[1]), std::tuple(int(SVF_CMD_WRITE_FRU_DATA), 0x120u, 4u));
}

TEST(IpmiCounts, CountedPerCommandUntilReset) {
    hostResetCounters();
    (void)storage(0x10, {0});
    (void)storage(0x11, {0, 0, 0, 8});
    (void)storage(0x11, {0, 8, 0, 8});
    (void)storage(0x48, {});
    EXPECT_EQ(hostIpmiCommandCount(0x10), 1);
    EXPECT_EQ(hostIpmiCommandCount(0x11), 2);
    EXPECT_EQ(hostIpmiCommandCount(0x12), 0);
    EXPECT_EQ(hostIpmiCommandCount(0x48), 1);
    EXPECT_EQ(hostIpmiCommandCount(0x20), -1);
    hostResetCounters();
    EXPECT_EQ(hostIpmiCommandCount(0x11), 0);
}

}  // namespace
}  // namespace brask::test
