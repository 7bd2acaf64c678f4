// Get Backup/Restore Event over an arbitrary trace file: whatever the header
// says, the record must land in one of the 201 slots, the header must name
// the next one, and no other byte of the file may change.  The answer is
// checked for sanity against the status slots the input sets.
//
// Input: [the 16 status bytes of the area][trace file...].
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "command/eventTrace.h"
#include "common/paths.h"
#include "eventAnswer.h"
#include "fuzzCheck.h"
#include "fuzzSandbox.h"

using namespace brask;

namespace {

constexpr std::size_t kStatusBytes = sizeof(svfSemiVol_T);

void setStatus(const std::uint8_t* bytes) {
    hslSemiVolatileArea_T area{};
    FUZZ_CHECK(hostSemiVolRead(&area) == 0);
    std::memcpy(&area.svf, bytes, kStatusBytes);
    FUZZ_CHECK(hostSemiVolWrite(&area) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::enterSandbox(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kStatusBytes) return 0;
    svfSemiVol_T svf{};
    std::memcpy(&svf, data, kStatusBytes);
    setStatus(data);
    const std::uint8_t* file = data + kStatusBytes;
    const std::size_t fileSize = size - kStatusBytes;
    fuzz::writeFile(paths::kTraceFile, file, fileSize);

    INT8U res[8];  // the size the command's answer has: the sanitizer sees any write past it
    const auto before = static_cast<INT32U>(std::time(nullptr));
    int length;
    {
        fuzz::Quiet quiet;
        length = svfGetBackupRestoreEvent(nullptr, 0, res);
    }
    const auto after = static_cast<INT32U>(std::time(nullptr));
    fuzz::checkEventAnswer(svf, res, length);

    // The file as the append must leave it.
    const unsigned index = fileSize > 0 && file[0] <= trace::kLastIndex ? file[0] : 0;
    const auto at = static_cast<std::size_t>(trace::recordOffset(index));
    std::vector<std::uint8_t> expected(file, file + fileSize);
    expected.resize(std::max(expected.size(), at + 28), 0);
    std::memcpy(&expected[at], &svf, kStatusBytes);
    std::memcpy(&expected[at + 16], res, 8);
    expected[0] = static_cast<std::uint8_t>(index == trace::kLastIndex ? 0 : index + 1);
    for (std::size_t i = 1; i < trace::kHeaderSize; ++i) expected[i] = i < fileSize ? file[i] : 0;

    std::vector<std::uint8_t> written = fuzz::readFile(paths::kTraceFile);
    FUZZ_CHECK(written.size() == expected.size());
    INT32U stamp = 0;
    FUZZ_CHECK(format::ByteCursor(format::Bytes(&written[at + 24], 4)).u32(stamp));
    FUZZ_CHECK(stamp >= before && stamp <= after);
    std::memcpy(&expected[at + 24], &written[at + 24], 4);
    FUZZ_CHECK(written == expected);

    // The query never writes the status area.
    hslSemiVolatileArea_T area{};
    FUZZ_CHECK(hostSemiVolRead(&area) == 0);
    FUZZ_CHECK(std::memcmp(&area.svf, &svf, kStatusBytes) == 0);
    return 0;
}
