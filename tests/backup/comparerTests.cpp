// Content comparers of the BIOS configuration file and the user information.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "archive/comparers.h"
#include "backupFixture.h"
#include "support/scenario.h"

namespace brask::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr char kActBios[] = "/conf/brask/BIOSConfig.dat";
constexpr char kBakBios[] = "/conf/brask/BIOSConfig.dat.bak";
constexpr char kUserInfo[] = "/conf/brask/bum_home/bmcUserInfo.data";
constexpr char kUserInfoCopy[] = "/conf/brask/bum_home/bmcUserInfo.data.bak";

struct Section {
    std::uint8_t type;
    std::uint16_t len;  // whole section, header included
    std::uint8_t fill;
};

Bytes biosFile(std::uint32_t recordLen, const std::vector<Section>& sections) {
    Bytes f = {0x01, static_cast<std::uint8_t>(recordLen), static_cast<std::uint8_t>(recordLen >> 8),
               static_cast<std::uint8_t>(recordLen >> 16), 0x02, 0x10, 0xAB, 0xCD};
    for (const Section& s : sections) {
        f.push_back(s.type);
        f.push_back(0);
        f.push_back(static_cast<std::uint8_t>(s.len));
        f.push_back(static_cast<std::uint8_t>(s.len >> 8));
        for (int i = 4; i < s.len; ++i) f.push_back(s.fill);
    }
    return f;
}

Bytes changed(Bytes b, std::size_t at) {
    b.at(at) ^= 0x01;
    return b;
}

int compareBios(const Bytes& act, const Bytes& bak, Output* out = nullptr) {
    writeBytes(kActBios, act);
    writeBytes(kBakBios, bak);
    FILE* a = std::fopen(kActBios, "rb");
    FILE* b = std::fopen(kBakBios, "rb");
    int rc = 99;
    Output o = capture([&] { rc = svfChkBIOSConfFileDiff(a, b); });
    std::fclose(a);
    std::fclose(b);
    if (out != nullptr) *out = o;
    return rc;
}

TEST(BiosConfigComparer, ComparesOnlyTheRegionBeforeTheFirstTypeTwoSection) {
    // Region of `base`: header (8) + type-1 section of 12 = 20 bytes; the
    // type-2 section at 20..35 and the type-1 section after it are outside.
    const Bytes base = biosFile(0x1000, {{1, 12, 0x11}, {2, 16, 0x22}, {1, 8, 0x33}});
    const Bytes tooShortRecord = biosFile(8, {{1, 12, 0x11}});
    // RecordLen 10 is passed inside the first section, which is compared
    // whole; the second section lies beyond RecordLen.
    const Bytes crossing = biosFile(10, {{1, 12, 0x11}, {1, 8, 0x44}});
    struct Case {
        const char* name;
        Bytes act, bak;
        int expected;
    };
    Bytes longerCopy = base;
    longerCopy.push_back(0x99);
    const std::vector<Case> cases = {
        {"identical", base, base, 0},
        {"differs in a revision byte", base, changed(base, 5), 1},
        {"differs in the first section", base, changed(base, 19), 1},
        {"differs in the type-2 section header", base, changed(base, 22), 0},
        {"differs inside the type-2 section", base, changed(base, 30), 0},
        {"differs after the type-2 section", base, changed(base, 40), 0},
        {"copy longer after the region", base, longerCopy, 0},
        {"RecordLen 8: only the header counts", tooShortRecord, changed(tooShortRecord, 12), 0},
        {"RecordLen 8: header differs", tooShortRecord, changed(tooShortRecord, 7), 1},
        {"section crossing RecordLen is compared whole", crossing, changed(crossing, 19), 1},
        {"section after RecordLen is not compared", crossing, changed(crossing, 22), 0},
        {"copy shorter than the region", base, Bytes(base.begin(), base.begin() + 15), 1},
        {"empty copy", base, {}, 1},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        EXPECT_EQ(compareBios(tc.act, tc.bak), tc.expected);
    }
}

TEST(BiosConfigComparer, DamagedActiveFilesGiveMinusTwo) {
    const std::vector<std::pair<const char*, Bytes>> cases = {
        {"header of 3 bytes", {0x01, 0x20, 0x00}},
        {"section header cut short", Bytes{0x01, 0x20, 0x00, 0x00, 0, 0, 0, 0, 0x01, 0x00}},
        {"section length below 4", biosFile(0x100, {{1, 3, 0x11}})},
        {"walk runs off the end", biosFile(0x100, {{1, 12, 0x11}})},
    };
    for (const auto& [name, act] : cases) {
        SCOPED_TRACE(name);
        const Resources before = resources();
        EXPECT_EQ(compareBios(act, act), -2);
        EXPECT_EQ(resources(), before);
    }
}

// ---- User information ---------------------------------------------------------

bumUserInfo_t sampleUsers(std::uint8_t users) {
    bumUserInfo_t info{};
    info.header.version = 1;
    info.header.users = users;
    for (unsigned i = 0; i < users && i < 12; ++i) {
        bumUserAttr_t& u = info.user[i];
        u.header.length = 60;
        u.bmcUid = static_cast<std::uint8_t>(i + 1);
        u.passwdFlag = 1;
        u.role_value = 0x100u + i;
        std::memset(u.hashedPasswd, static_cast<int>(0x40 + i), sizeof u.hashedPasswd);
        for (auto& t : u.prevLogin) t = 1700000000u + i;
    }
    return info;
}

// The file form: info header, then each record cut to its header.length.
Bytes userInfoFile(const bumUserInfo_t& info, unsigned records) {
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&info);
    Bytes f(raw, raw + 4);
    for (unsigned i = 0; i < records; ++i) {
        const auto* u = reinterpret_cast<const std::uint8_t*>(&info.user[i]);
        f.insert(f.end(), u, u + info.user[i].header.length);
    }
    return f;
}

Bytes image(const bumUserInfo_t& info) {
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&info);
    return Bytes(raw, raw + sizeof info);
}

int compareUsers(const Bytes& activeFile, const Bytes& copy, Output* out = nullptr) {
    writeBytes(kUserInfo, activeFile);
    writeBytes(kUserInfoCopy, copy);
    FILE* b = std::fopen(kUserInfoCopy, "rb");
    int rc = 99;
    Output o = capture([&] { rc = svfChkBmcUserInfoDiff(b); });
    std::fclose(b);
    if (out != nullptr) *out = o;
    return rc;
}

TEST(UserInfoComparer, ComparesIdentityRoleAndHashOnly) {
    const bumUserInfo_t base = sampleUsers(12);
    struct Case {
        const char* name;
        void (*mutate)(bumUserInfo_t&);
        int expected;
        const char* line;
    };
    const std::vector<Case> cases = {
        {"identical", [](bumUserInfo_t&) {}, 0, nullptr},
        {"passwdFlag", [](bumUserInfo_t& u) { u.user[3].passwdFlag = 0; }, 0, nullptr},
        {"prevLogin", [](bumUserInfo_t& u) { u.user[11].prevLogin[7] = 5; }, 0, nullptr},
        {"users", [](bumUserInfo_t& u) { u.header.users = 11; }, 1, "DIFF header\n"},
        {"version", [](bumUserInfo_t& u) { u.header.version = 2; }, 1, "DIFF header\n"},
        {"record header", [](bumUserInfo_t& u) { u.user[2].header.reserved[1] = 1; }, 1,
         "DIFF user[2].header\n"},
        {"bmcUid", [](bumUserInfo_t& u) { u.user[4].bmcUid = 99; }, 1, "DIFF user[4].bmcUid\n"},
        {"reserved", [](bumUserInfo_t& u) { u.user[5].reserved[0] = 1; }, 1, "DIFF user[5].reserved\n"},
        {"role_value", [](bumUserInfo_t& u) { u.user[6].role_value = 0; }, 1,
         "DIFF user[6].role_value\n"},
        {"hashedPasswd", [](bumUserInfo_t& u) { u.user[11].hashedPasswd[15] = 0; }, 1,
         "DIFF user[11].hashedPasswd\n"},
        {"first difference wins", [](bumUserInfo_t& u) {
             u.user[1].role_value = 0;
             u.user[1].bmcUid = 0;
         },
         1, "DIFF user[1].bmcUid\n"},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        bumUserInfo_t copy = base;
        tc.mutate(copy);
        Output o;
        EXPECT_EQ(compareUsers(userInfoFile(base, 12), image(copy), &o), tc.expected);
        if (tc.line != nullptr) {
            EXPECT_TRUE(o.has(tc.line)) << o.out;
        }
        EXPECT_EQ(o.count("DIFF"), tc.expected);
    }
}

TEST(UserInfoComparer, ActiveFileFormsAndShortCopies) {
    // Twenty users announced: read as twelve, so the stored header says 12.
    bumUserInfo_t twenty = sampleUsers(12);
    twenty.header.users = 20;
    bumUserInfo_t twelve = twenty;
    twelve.header.users = 12;
    // Records of 28 bytes stop before prevLogin: the slots' prevLogin stay zero
    // on the active side, which the comparison ignores.
    bumUserInfo_t shortRecords = sampleUsers(3);
    for (unsigned i = 0; i < 3; ++i) shortRecords.user[i].header.length = 28;

    struct Case {
        const char* name;
        Bytes active, copy;
        int expected;
    };
    const std::vector<Case> cases = {
        {"20 users vs raw image saying 20", userInfoFile(twenty, 12), image(twenty), 1},
        {"20 users vs image saying 12", userInfoFile(twenty, 12), image(twelve), 0},
        {"short records", userInfoFile(shortRecords, 3), image(shortRecords), 0},
        {"copy of 723 bytes", userInfoFile(twelve, 12), Bytes(723, 0), -2},
        {"empty copy", userInfoFile(twelve, 12), {}, -2},
        {"unreadable active file vs real copy", Bytes{1, 12}, image(twelve), 1},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        EXPECT_EQ(compareUsers(tc.active, tc.copy), tc.expected);
    }
}

TEST(UserInfoReader, RefusesDamagedFilesWithoutWritingPastASlot) {
    bumUserInfo_t two = sampleUsers(2);
    Bytes tooLong = userInfoFile(two, 1);
    tooLong.push_back(61);  // second record claims 61 bytes
    tooLong.insert(tooLong.end(), 3 + 57 + 20, 0xEE);
    Bytes tooShort = userInfoFile(two, 1);
    tooShort.insert(tooShort.end(), {4, 0, 0, 0});
    Bytes cutBody = userInfoFile(two, 2);
    cutBody.resize(cutBody.size() - 10);

    struct Case {
        const char* name;
        Bytes file;  // empty: no file
        const char* message;  // nullptr: no message at all
        unsigned usersRead;
    };
    const std::vector<Case> cases = {
        {"missing", {}, "bumReadUserInfoInternal: fopen() failed. No such file or directory\n", 0},
        {"info header cut", Bytes{1, 2}, "bumReadUserInfoInternal: fread() for info header failed. ", 0},
        {"record header cut", Bytes{1, 2, 0, 0, 60}, "bumReadUserInfoInternal: fread() for attr header failed. ",
         0},
        {"record body cut", cutBody, "bumReadUserInfoInternal: fread() for attr failed. ", 1},
        {"record of length 4", tooShort, nullptr, 1},
        {"record longer than its slot", tooLong, nullptr, 1},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        std::remove(kUserInfo);
        if (!tc.file.empty()) writeBytes(kUserInfo, tc.file);
        bumUserInfo_t info;
        std::memset(&info, 0xCC, sizeof info);
        const Resources before = resources();
        int rc = 0;
        Output o = capture([&] { rc = svfBumReadUserInfoInternal(&info); });
        EXPECT_EQ(rc, -1);
        if (tc.message != nullptr) {
            EXPECT_EQ(o.err.rfind(tc.message, 0), 0u) << o.err;
        } else {
            EXPECT_EQ(o.err, "");
        }
        EXPECT_EQ(o.out, "");
        EXPECT_EQ(resources(), before);
        // Slots read in full hold their record; the slot being read when the
        // reader stopped is left aside; every later slot stays zero.
        for (unsigned i = 0; i < 12; ++i) {
            if (i < tc.usersRead) {
                EXPECT_EQ(std::memcmp(&info.user[i], &two.user[i], sizeof info.user[i]), 0) << i;
            } else if (i > tc.usersRead) {
                const bumUserAttr_t zero{};
                EXPECT_EQ(std::memcmp(&info.user[i], &zero, sizeof zero), 0) << i;
            }
        }
    }
    // A refused over-long record is not read at all: its slot's body stays zero.
    writeBytes(kUserInfo, tooLong);
    bumUserInfo_t info;
    capture([&] { EXPECT_EQ(svfBumReadUserInfoInternal(&info), -1); });
    EXPECT_EQ(info.user[1].header.length, 61);
    const bumUserAttr_t zero{};
    EXPECT_EQ(std::memcmp(&info.user[1].bmcUid, &zero.bmcUid, sizeof zero - 4), 0);
}

}  // namespace
}  // namespace brask::test
