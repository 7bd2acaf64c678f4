// Content comparers of the BIOS configuration file and the user information.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "archive/comparers.h"
#include "backupFixture.h"

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
        f.insert(f.end(), {s.type, 0, static_cast<std::uint8_t>(s.len), static_cast<std::uint8_t>(s.len >> 8)});
        f.insert(f.end(), s.len < 4 ? 0 : s.len - 4, s.fill);
    }
    return f;
}

Bytes changed(Bytes b, std::size_t at) {
    b.at(at) ^= 0x01;
    return b;
}

TEST(BiosConfigComparer, ComparesOnlyTheRegionBeforeTheFirstTypeTwoSection) {
    // Region of `base`: header (8) + type-1 section of 12 = 20 bytes; the
    // type-2 section at 20..35 and the type-1 section after it are outside.
    const Bytes base = biosFile(0x1000, {{1, 12, 0x11}, {2, 16, 0x22}, {1, 8, 0x33}});
    const Bytes tooShortRecord = biosFile(8, {{1, 12, 0x11}});
    // RecordLen 10 is passed inside the first section, which is compared
    // whole; the second section lies beyond RecordLen.
    const Bytes crossing = biosFile(10, {{1, 12, 0x11}, {1, 8, 0x44}});
    Bytes longerCopy = base;
    longerCopy.push_back(0x99);
    const Bytes cutHeader = {0x01, 0x20, 0x00}, cutSection = {0x01, 0x20, 0, 0, 0, 0, 0, 0, 0x01, 0x00};
    const Bytes tinySection = biosFile(0x100, {{1, 3, 0x11}}), runsOff = biosFile(0x100, {{1, 12, 0x11}});
    struct Case {
        const char* name;
        Bytes act, bak;
        int expected;
    };
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
        {"empty copy", base, {}, -1},
        // A damaged active file.
        {"header of 3 bytes", cutHeader, cutHeader, -2},
        {"section header cut short", cutSection, cutSection, -2},
        {"section length below 4", tinySection, tinySection, -2},
        {"walk runs off the end", runsOff, runsOff, -2},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        writeBytes(kActBios, tc.act);
        writeBytes(kBakBios, tc.bak);
        FILE* a = std::fopen(kActBios, "rb");
        FILE* b = std::fopen(kBakBios, "rb");
        const Resources before;
        Output o;
        EXPECT_EQ(captured(o, [&] { return svfChkBIOSConfFileDiff(a, b); }), tc.expected);
        EXPECT_EQ(Resources(), before);
        std::fclose(a);
        std::fclose(b);
    }
}

// ---- User information ---------------------------------------------------------

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

TEST(UserInfoComparer, ComparesIdentityRoleAndHashOnly) {
    const bumUserInfo_t base = sampleUsers(12);
    const Bytes active = userInfoFile(base, 12);
    auto copy = [&](void (*mutate)(bumUserInfo_t&)) {
        bumUserInfo_t u = base;
        mutate(u);
        return image(u);
    };
    // Twenty users announced: read as twelve, so the stored header says 12.
    bumUserInfo_t twenty = base;
    twenty.header.users = 20;
    // Records of 28 bytes stop before prevLogin: the slots' prevLogin stay zero
    // on the active side, which the comparison ignores.
    bumUserInfo_t shortRecords = sampleUsers(3);
    for (unsigned i = 0; i < 3; ++i) shortRecords.user[i].header.length = 28;
    struct Case {
        const char* name;
        Bytes active, copy;
        int expected;
        const char* line = nullptr;  // the one DIFF line, when known
    };
    const std::vector<Case> cases = {
        {"identical", active, image(base), 0},
        {"passwdFlag", active, copy([](bumUserInfo_t& u) { u.user[3].passwdFlag = 0; }), 0},
        {"prevLogin", active, copy([](bumUserInfo_t& u) { u.user[11].prevLogin[7] = 5; }), 0},
        {"users", active, copy([](bumUserInfo_t& u) { u.header.users = 11; }), 1, "DIFF header\n"},
        {"version", active, copy([](bumUserInfo_t& u) { u.header.version = 2; }), 1, "DIFF header\n"},
        {"record header", active, copy([](bumUserInfo_t& u) { u.user[2].header.reserved[1] = 1; }), 1,
         "DIFF user[2].header\n"},
        {"bmcUid", active, copy([](bumUserInfo_t& u) { u.user[4].bmcUid = 99; }), 1, "DIFF user[4].bmcUid\n"},
        {"reserved", active, copy([](bumUserInfo_t& u) { u.user[5].reserved[0] = 1; }), 1,
         "DIFF user[5].reserved\n"},
        {"role_value", active, copy([](bumUserInfo_t& u) { u.user[6].role_value = 0; }), 1,
         "DIFF user[6].role_value\n"},
        {"hashedPasswd", active, copy([](bumUserInfo_t& u) { u.user[11].hashedPasswd[15] = 0; }), 1,
         "DIFF user[11].hashedPasswd\n"},
        {"first difference wins",
         active,
         copy([](bumUserInfo_t& u) {
             u.user[1].role_value = 0;
             u.user[1].bmcUid = 0;
         }),
         1, "DIFF user[1].bmcUid\n"},
        {"20 users vs raw image saying 20", userInfoFile(twenty, 12), image(twenty), 1},
        {"20 users vs image saying 12", userInfoFile(twenty, 12), image(base), 0},
        {"short records", userInfoFile(shortRecords, 3), image(shortRecords), 0},
        {"copy of 723 bytes", active, Bytes(723, 0), -2},
        {"empty copy", active, {}, -2},
        {"unreadable active file vs real copy", Bytes{1, 12}, image(base), 1},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        writeBytes(kUserInfo, tc.active);
        writeBytes(kUserInfoCopy, tc.copy);
        FILE* b = std::fopen(kUserInfoCopy, "rb");
        Output o;
        EXPECT_EQ(captured(o, [&] { return svfChkBmcUserInfoDiff(b); }), tc.expected);
        std::fclose(b);
        if (tc.line != nullptr) {
            EXPECT_TRUE(o.has(tc.line)) << o.out;
        }
        if (tc.expected >= 0) {
            EXPECT_EQ(o.count("DIFF"), tc.expected) << o.out;
        }
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
        Bytes file;           // empty: no file
        const char* message;  // nullptr: no message at all
        unsigned usersRead;
        bool headerKept = false;  // the refused record's header is in its slot, its body is not read
    };
    const std::vector<Case> cases = {
        {"missing", {}, "bumReadUserInfoInternal: fopen() failed. No such file or directory\n", 0},
        {"info header cut", Bytes{1, 2}, "bumReadUserInfoInternal: fread() for info header failed. ", 0},
        {"record header cut", Bytes{1, 2, 0, 0, 60}, "bumReadUserInfoInternal: fread() for attr header failed. ",
         0},
        {"record body cut", cutBody, "bumReadUserInfoInternal: fread() for attr failed. ", 1},
        {"record of length 4", tooShort, nullptr, 1},
        {"record longer than its slot", tooLong, nullptr, 1, true},
    };
    const bumUserAttr_t zero{};
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        std::remove(kUserInfo);
        if (!tc.file.empty()) writeBytes(kUserInfo, tc.file);
        bumUserInfo_t info;
        std::memset(&info, 0xCC, sizeof info);
        const Resources before;
        Output o;
        EXPECT_EQ(captured(o, [&] { return svfBumReadUserInfoInternal(&info); }), -1);
        EXPECT_EQ(tc.message != nullptr ? o.err.rfind(tc.message, 0) : o.err.size(), 0u) << o.err;
        EXPECT_EQ(o.out, "");
        EXPECT_EQ(Resources(), before);
        // Slots read in full hold their record; the slot being read when the
        // reader stopped is left aside; every later slot stays zero.
        for (unsigned i = 0; i < 12; ++i) {
            if (i == tc.usersRead) continue;
            const bumUserAttr_t& want = i < tc.usersRead ? two.user[i] : zero;
            EXPECT_EQ(std::memcmp(&info.user[i], &want, sizeof want), 0) << i;
        }
        if (tc.headerKept) {
            EXPECT_EQ(info.user[1].header.length, 61);
            EXPECT_EQ(std::memcmp(&info.user[1].bmcUid, &zero.bmcUid, sizeof zero - 4), 0);
        }
    }
}

}  // namespace
}  // namespace brask::test
