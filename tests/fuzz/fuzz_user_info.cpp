// Reads the input as the active BMC user information file with
// svfBumReadUserInfoInternal into a record allocated at its exact size (so
// the address sanitizer sees any write past it), checks the outcome and the
// record against a plain model of the file layout, and runs svfChkBmcUserInfoDiff on it: an image of
// what was read, taken as the backup copy, must compare equal.
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "BraskSvf/svfApi.h"
#include "archive/comparers.h"
#include "common/paths.h"
#include "fuzzCheck.h"
#include "fuzzSandbox.h"

using namespace brask;

namespace {

constexpr char kBackupImage[] = "/tmp/bmcUserInfo.data.bak";
constexpr std::size_t kInfoHeaderSize = sizeof(bumInfoHeader_t);
constexpr std::size_t kAttrHeaderSize = sizeof(bumUserAttr_t::header);

bool allZero(const void* p, std::size_t n) {
    const auto* b = static_cast<const std::uint8_t*>(p);
    for (std::size_t i = 0; i < n; ++i) {
        if (b[i] != 0) return false;
    }
    return true;
}

// The record a sound file reads into: the info header (users capped at 12),
// then each record's bytes from the start of its slot.  False when the file
// is not sound: a record cut short, or a length outside 5..60.
bool expectedRecord(const std::uint8_t* data, std::size_t size, bumUserInfo_t& out) {
    std::memset(&out, 0, sizeof out);
    if (size < kInfoHeaderSize) return false;
    std::memcpy(&out.header, data, kInfoHeaderSize);
    if (out.header.users > SVF_BUM_MAX_USERS) out.header.users = SVF_BUM_MAX_USERS;
    std::size_t at = kInfoHeaderSize;
    for (unsigned i = 0; i < out.header.users; ++i) {
        if (size - at < kAttrHeaderSize) return false;
        const std::size_t length = data[at];
        if (length <= kAttrHeaderSize || length > sizeof out.user[i] || size - at < length) return false;
        std::memcpy(&out.user[i], data + at, length);
        at += length;
    }
    return true;
}

int compareWith(const std::uint8_t* image, std::size_t size) {
    fuzz::writeFile(kBackupImage, image, size);
    FILE* bak = std::fopen(kBackupImage, "rb");
    FUZZ_CHECK(bak != nullptr);
    int result;
    {
        fuzz::Quiet quiet;
        result = svfChkBmcUserInfoDiff(bak);
    }
    FUZZ_CHECK(std::fclose(bak) == 0);
    FUZZ_CHECK(result == 0 || result == 1 || result == -2);
    FUZZ_CHECK((result == -2) == (size < sizeof(bumUserInfo_t)));
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::enterSandbox(argc, argv);
    ::mkdir("/conf/brask/bum_home", 0755);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::writeFile(paths::kBmcUserInfoFile, data, size);

    std::unique_ptr<bumUserInfo_t, decltype(&std::free)> info(
        static_cast<bumUserInfo_t*>(std::malloc(sizeof(bumUserInfo_t))), &std::free);
    FUZZ_CHECK(info != nullptr);
    std::memset(info.get(), 0xA5, sizeof *info);  // the reader must clear it first
    int32_t result;
    {
        fuzz::Quiet quiet;
        result = svfBumReadUserInfoInternal(info.get());
    }
    FUZZ_CHECK(result == 0 || result == -1);

    bumUserInfo_t expected;
    const bool wellFormed = expectedRecord(data, size, expected);
    FUZZ_CHECK((result == 0) == wellFormed);
    if (wellFormed) {
        FUZZ_CHECK(std::memcmp(info.get(), &expected, sizeof expected) == 0);
        // The record as read is the backup copy's image: nothing differs.
        FUZZ_CHECK(compareWith(reinterpret_cast<const std::uint8_t*>(info.get()), sizeof *info) == 0);
    } else {
        // A failed read leaves the slots past the stated users untouched (a
        // header read short may hold a count above 12: nothing is read then).
        for (unsigned i = std::min<unsigned>(info->header.users, SVF_BUM_MAX_USERS);
             i < SVF_BUM_MAX_USERS; ++i) {
            FUZZ_CHECK(allZero(&info->user[i], sizeof info->user[i]));
        }
    }
    // The raw input as a backup copy: any verdict, but a sound one.
    (void)compareWith(data, size);
    return 0;
}
