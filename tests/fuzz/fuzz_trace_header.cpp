// Get Backup/Restore Event over an arbitrary trace file: whatever the header
// says, the record must land in one of the 201 slots, the header must name
// the next one, and no other byte of the file may change.  The answer is
// checked for sanity against the status slots the input sets, and the query
// never writes the status area.
//
// Input: [the 16 status bytes of the area][trace file...].
#include <ctime>

#include "command/eventTrace.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) { return fuzz::enterSandbox(argc, argv); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kStatus = sizeof(svfSemiVol_T);
    if (size < kStatus) return 0;
    hslSemiVolatileArea_T area{};
    assert(hostSemiVolRead(&area) == 0);
    std::memcpy(&area.svf, data, kStatus);
    assert(hostSemiVolWrite(&area) == 0);
    const test::Bytes file(data + kStatus, data + size);
    test::writeBytes(paths::kTraceFile, file);

    INT8U res[8];  // the size the command's answer has: the sanitizer sees any write past it
    const auto before = INT32U(std::time(nullptr));
    const int length = fuzz::quietly([&] { return svfGetBackupRestoreEvent(nullptr, 0, res); });
    const auto after = INT32U(std::time(nullptr));
    fuzz::checkEventAnswer(area.svf, res, length);

    // The file as the append must leave it: header bytes 1..15 as they were
    // (zeros where the file was shorter), the index, the record.
    const unsigned index = !file.empty() && file[0] <= trace::kLastIndex ? file[0] : 0;
    const auto at = std::size_t(trace::recordOffset(index));
    test::Bytes expected = file;
    expected.resize(std::max(expected.size(), at + 28), 0);
    std::memcpy(&expected[at], &area.svf, kStatus);
    std::memcpy(&expected[at + 16], res, 8);
    expected[0] = std::uint8_t(index == trace::kLastIndex ? 0 : index + 1);
    const test::Bytes written = test::readBytes(paths::kTraceFile);
    INT32U stamp = 0;
    assert(written.size() == expected.size());
    assert(format::ByteCursor(format::Bytes(written).subspan(at + 24)).u32(stamp) && stamp >= before &&
           stamp <= after);
    std::copy_n(written.begin() + std::ptrdiff_t(at + 24), 4, expected.begin() + std::ptrdiff_t(at + 24));
    assert(written == expected);

    assert(hostSemiVolRead(&area) == 0 && std::memcmp(&area.svf, data, kStatus) == 0);
    return 0;
}
