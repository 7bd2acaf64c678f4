// Content comparers: only the part of the BIOS configuration file and of the
// BMC user information that a backup has to preserve decides whether the
// backup copy is stale.
#include "archive/comparers.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "common/diag.h"
#include "common/paths.h"
#include "common/scoped.h"

namespace {

static constexpr const char kUnit[] = "svfBraskArchiver";

// The 4-byte records the BIOS configuration walk reads from the active file.
struct RecordHeader {
    INT8U FormatRecv;
    INT8U Len[3];
};
struct SectionHeader {
    INT8U Type;
    INT8U reserved;
    INT8U Len[2];
};
static_assert(sizeof(RecordHeader) == 4 && sizeof(SectionHeader) == 4);

// Bytes 0..7: record header, the two revision bytes and two bytes not looked at.
constexpr INT32U kBiosFileHeaderSize = 8;
// A section of this type and everything after it lie outside the compared region.
constexpr INT8U kSectionTypeEndOfRegion = 2;

}  // namespace

int svfChkBIOSConfFileDiff(FILE* ActFp, FILE* BakFp) {
    RecordHeader recordHeader{};
    if (std::fread(&recordHeader, 1, sizeof recordHeader, ActFp) != sizeof recordHeader) return -2;
    INT32U CompSize = sizeof recordHeader;
    const INT32U RecordLen = static_cast<INT32U>(recordHeader.Len[0]) |
                             static_cast<INT32U>(recordHeader.Len[1]) << 8 |
                             static_cast<INT32U>(recordHeader.Len[2]) << 16;
    SVF_DEBUG("RecordLen = %lx\n", static_cast<unsigned long>(RecordLen));

    if (std::fseek(ActFp, kBiosFileHeaderSize - sizeof recordHeader, SEEK_CUR) != 0) return -2;
    CompSize = kBiosFileHeaderSize;

    for (;;) {
        SVF_DEBUG("CompSize = %lx\n", static_cast<unsigned long>(CompSize));
        if (CompSize >= RecordLen) {
            SVF_DEBUG("break");
            break;
        }
        SectionHeader sectionHeader{};
        if (std::fread(&sectionHeader, 1, sizeof sectionHeader, ActFp) != sizeof sectionHeader) {
            return -2;
        }
        const auto SectionLen = static_cast<INT16U>(sectionHeader.Len[0] | sectionHeader.Len[1] << 8);
        SVF_DEBUG("SectionType = %d\n", sectionHeader.Type);
        SVF_DEBUG("SectionLen = %x\n", SectionLen);
        if (sectionHeader.Type == kSectionTypeEndOfRegion) {
            SVF_DEBUG("break");
            break;
        }
        // A length below its own header would stand the walk still or move it
        // backwards: the file is damaged.
        if (SectionLen < sizeof sectionHeader) return -2;
        CompSize += SectionLen;
        if (std::fseek(ActFp, static_cast<long>(SectionLen - sizeof sectionHeader), SEEK_CUR) != 0) {
            return -2;
        }
    }

    const INT32S ActFileSize = svfGetFileSize(ActFp);
    const INT32S BakFileSize = svfGetFileSize(BakFp);
    // An empty file cannot be mapped: it fails like any mapping.
    if (ActFileSize <= 0 || BakFileSize <= 0) return -1;
    brask::ScopedMapping pActFileAddr(fileno(ActFp), static_cast<size_t>(ActFileSize));
    if (!pActFileAddr.ok()) return -1;
    brask::ScopedMapping pBakFileAddr(fileno(BakFp), static_cast<size_t>(BakFileSize));
    if (!pBakFileAddr.ok()) return -1;

    // Each file's region is its first CompSize bytes, or all of it when it is
    // shorter.  The regions are equal only when they have the same length and
    // the same bytes, so a truncated copy counts as different and is refreshed.
    const size_t actRegion = std::min<size_t>(CompSize, pActFileAddr.size());
    const size_t bakRegion = std::min<size_t>(CompSize, pBakFileAddr.size());
    const size_t common = std::min(actRegion, bakRegion);
    const int cmp = common > 0 ? std::memcmp(pActFileAddr.data(), pBakFileAddr.data(), common) : 0;
    SVF_DEBUG("memcmp = %d\n", cmp);
    return (cmp != 0 || actRegion != bakRegion) ? 1 : 0;
}

int32_t svfBumReadUserInfoInternal(bumUserInfo_t* info) {
    std::memset(info, 0, sizeof *info);

    brask::ScopedFile fp(brask::paths::kBmcUserInfoFile, "rb");
    if (!fp) {
        brask::diag::plainError("bumReadUserInfoInternal: fopen() failed. %s\n", std::strerror(errno));
        return -1;
    }
    auto fail = [&fp]() -> int32_t {
        if (fp.close() != 0) {
            brask::diag::plainError("bumReadUserInfoInternal: fclose() in error path failed. %s\n",
                                    std::strerror(errno));
        }
        return -1;
    };

    if (std::fread(&info->header, sizeof info->header, 1, fp.get()) != 1) {
        brask::diag::plainError("bumReadUserInfoInternal: fread() for info header failed. %s\n",
                                std::strerror(errno));
        return fail();
    }
    if (info->header.users > SVF_BUM_MAX_USERS) info->header.users = SVF_BUM_MAX_USERS;

    for (unsigned i = 0; i < info->header.users; ++i) {
        bumUserAttr_t& user = info->user[i];
        if (std::fread(&user.header, sizeof user.header, 1, fp.get()) != 1) {
            brask::diag::plainError("bumReadUserInfoInternal: fread() for attr header failed. %s\n",
                                    std::strerror(errno));
            return fail();
        }
        // A record must carry at least one byte after its header and must fit
        // its 60-byte slot; anything else is not a file this reader knows.
        if (user.header.length <= sizeof user.header || user.header.length > sizeof user) {
            return fail();
        }
        if (std::fread(&user.bmcUid, user.header.length - sizeof user.header, 1, fp.get()) != 1) {
            brask::diag::plainError("bumReadUserInfoInternal: fread() for attr failed. %s\n",
                                    std::strerror(errno));
            return fail();
        }
    }

    if (fp.close() != 0) {
        brask::diag::plainError("bumReadUserInfoInternal: fclose() failed. %s\n", std::strerror(errno));
        return -1;
    }
    return 0;
}

int svfChkBmcUserInfoDiff(FILE* BakFp) {
    bumUserInfo_t ActBumUserInfo{};
    bumUserInfo_t BakBumUserInfo{};

    // An active file that cannot be read in full is compared as far as it was
    // read: the zero padding then shows up as a difference and the copy is
    // refreshed from the active file, which is what the backup must hold.
    (void)svfBumReadUserInfoInternal(&ActBumUserInfo);
    if (std::fread(&BakBumUserInfo, 1, sizeof BakBumUserInfo, BakFp) != sizeof BakBumUserInfo) {
        return -2;
    }

    if (std::memcmp(&ActBumUserInfo.header, &BakBumUserInfo.header, sizeof ActBumUserInfo.header) != 0) {
        SVF_DEBUG("DIFF header");
        return 1;
    }
    // passwdFlag and prevLogin change with every login and are not compared.
    for (int i = 0; i < SVF_BUM_MAX_USERS; ++i) {
        const bumUserAttr_t& act = ActBumUserInfo.user[i];
        const bumUserAttr_t& bak = BakBumUserInfo.user[i];
        if (std::memcmp(&act.header, &bak.header, sizeof act.header) != 0) {
            SVF_DEBUG("DIFF user[%d].header\n", i);
            return 1;
        }
        if (act.bmcUid != bak.bmcUid) {
            SVF_DEBUG("DIFF user[%d].bmcUid\n", i);
            return 1;
        }
        if (std::memcmp(act.reserved, bak.reserved, sizeof act.reserved) != 0) {
            SVF_DEBUG("DIFF user[%d].reserved\n", i);
            return 1;
        }
        if (act.role_value != bak.role_value) {
            SVF_DEBUG("DIFF user[%d].role_value\n", i);
            return 1;
        }
        if (std::memcmp(act.hashedPasswd, bak.hashedPasswd, sizeof act.hashedPasswd) != 0) {
            SVF_DEBUG("DIFF user[%d].hashedPasswd\n", i);
            return 1;
        }
    }
    return 0;
}
