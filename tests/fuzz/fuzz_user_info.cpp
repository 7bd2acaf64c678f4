// Reads the input as the active BMC user information file with
// svfBumReadUserInfoInternal into a record of exactly its size (so the
// address sanitizer sees any write past it), checks the outcome and the
// record against a plain model of the file layout, and runs
// svfChkBmcUserInfoDiff on it: the record as read, taken as the backup copy,
// must compare equal.

#include "archive/comparers.h"
#include "fuzz.h"

constexpr std::size_t kInfoHeaderSize = sizeof(bumInfoHeader_t),
                      kAttrHeaderSize = sizeof(bumUserAttr_t::header);

// The record a sound file reads into: the info header (users capped at 12),
// then each record's bytes from the start of its slot.  False when the file
// is not sound: a record cut short, or a length outside 5..60.
static bool expectedRecord(const std::uint8_t* data, std::size_t size, bumUserInfo_t& out) {
    std::memset(&out, 0, sizeof out);
    if (size < kInfoHeaderSize) return false;
    std::memcpy(&out.header, data, kInfoHeaderSize);
    out.header.users = std::min<unsigned>(out.header.users, SVF_BUM_MAX_USERS);
    for (std::size_t i = 0, at = kInfoHeaderSize; i < out.header.users; at += data[at], ++i) {
        if (size - at < kAttrHeaderSize || data[at] <= kAttrHeaderSize || data[at] > sizeof out.user[i] ||
            size - at < data[at])
            return false;
        std::memcpy(&out.user[i], data + at, data[at]);
    }
    return true;
}

// The verdict on `image` as the backup copy: a sound one, -2 only when short.
static int compareWith(const std::uint8_t* image, std::size_t size) {
    test::writeBytes("/tmp/backup", {image, image + size});
    FILE* bak = std::fopen("/tmp/backup", "rb");
    const int result = fuzz::quietly([&] { return svfChkBmcUserInfoDiff(bak); });
    assert(std::fclose(bak) == 0 && (result == 0 || result == 1 || result == -2));
    assert((result == -2) == (size < sizeof(bumUserInfo_t)));
    return result;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) { return fuzz::enterSandbox(argc, argv); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::writeBytes(paths::kBmcUserInfoFile, {data, data + size});
    const auto info = std::make_unique<bumUserInfo_t>();
    std::memset(info.get(), 0xA5, sizeof *info);  // the reader must clear it first
    const int32_t result = fuzz::quietly([&] { return svfBumReadUserInfoInternal(info.get()); });
    bumUserInfo_t expected;
    const bool wellFormed = expectedRecord(data, size, expected);
    assert((result == 0 || result == -1) && (result == 0) == wellFormed);
    // The record as read is the backup copy's image: nothing differs.
    assert(!wellFormed ||
           (std::memcmp(info.get(), &expected, sizeof expected) == 0 &&
            compareWith(reinterpret_cast<const std::uint8_t*>(info.get()), sizeof *info) == 0));
    // A failed read leaves the slots past the stated users untouched (a header
    // read short may hold a count above 12: nothing is read then).
    for (unsigned i = std::min<unsigned>(info->header.users, SVF_BUM_MAX_USERS);
         !wellFormed && i < SVF_BUM_MAX_USERS; ++i) {
        const auto* user = reinterpret_cast<const std::uint8_t*>(&info->user[i]);
        assert(std::all_of(user, user + sizeof info->user[i], [](std::uint8_t b) { return b == 0; }));
    }
    (void)compareWith(data, size);  // the raw input as a backup copy
    return 0;
}
