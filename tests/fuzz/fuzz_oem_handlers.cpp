// The three OEM command handlers with arbitrary request bytes and lengths.
// The request and the response live in buffers of their exact size, so the
// address sanitizer sees any read past the request or write past the answer.
// Every answer is checked against the command's table of outcomes: result,
// completion code and SEL entries; the status area is never written and the
// pending restore never changes.
//
// Input: [handler][world][12 status bytes][request...].  handler % 3: Get
// Backup/Restore Event, Set Backup Event, Execute Restore Event.  world bit 0:
// a reboot countdown runs; bit 1: a kill-process countdown runs; bits 4-7:
// the firmware-update state.  The file semaphore is refused, so a backup or a
// restore that gets that far fails at once instead of running for real (the
// integration tests run those).
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "common/eventCodes.h"
#include "eventAnswer.h"
#include "fuzzCheck.h"
#include "fuzzSandbox.h"

using namespace brask;

namespace {

constexpr std::size_t kPrefix = 2 + SVF_EVENT_SLOT_COUNT;
constexpr unsigned kBackupBmcWeb = slotIndex(EventKind::Backup, BMC_WEB_CONSOLE, BMC_FILE);

// The request's SEL entry and, when given, the outcome's.
std::vector<INT8U> entries(unsigned slot, std::initializer_list<unsigned> classes) {
    std::vector<INT8U> codes;
    for (unsigned selClass : classes) codes.push_back(selEventCode(slot, selClass));
    return codes;
}

std::vector<INT8U> selEvents() {
    std::vector<hostSelRecord_T> records(64);
    const int n = hostSelRead(records.data(), static_cast<int>(records.size()));
    FUZZ_CHECK(n >= 0 && n <= static_cast<int>(records.size()));
    std::vector<INT8U> events;
    for (int i = 0; i < n; ++i) events.push_back(records[static_cast<std::size_t>(i)].EventData);
    return events;
}

struct Call {
    const INT8U* req;
    std::size_t reqLen;
    svfSemiVol_T svf;
    bool countdown;
    INT8U fwUpdate;
};

void checkGet(const Call& c, const INT8U* res, int length) {
    if (c.reqLen != 0) {
        FUZZ_CHECK(res[0] == 0xC7 && length == 1);
        for (int i = 1; i < 8; ++i) FUZZ_CHECK(res[i] == 0);
    } else {
        fuzz::checkEventAnswer(c.svf, res, length);
    }
    FUZZ_CHECK(selEvents().empty());
}

void checkSet(const Call& c, INT8U cc, int length) {
    FUZZ_CHECK(length == 1);
    const std::vector<INT8U> sel = selEvents();
    const INT8U fileType = c.reqLen > 0 ? c.req[0] : 0;
    const INT8U function = c.reqLen > 1 ? c.req[1] : 0;
    if (c.reqLen != 6) {
        FUZZ_CHECK(cc == 0xC7 && sel.empty());
    } else if (fileType > BMC_FILE || function > 5) {
        FUZZ_CHECK(cc == 0xC9 && sel.empty());
    } else if (fileType == EFI_FILE || function != BMC_WEB_CONSOLE) {
        FUZZ_CHECK(cc == 0x00 && sel.empty());
    } else if (c.countdown) {
        FUZZ_CHECK(cc == 0xD5 && sel.empty());
    } else if (fuzz::anyEvent(c.svf)) {
        FUZZ_CHECK(cc == 0xD5 && sel == entries(kBackupBmcWeb, {SEL_CLASS_GENERATED, SEL_CLASS_OTHER_RUNNING}));
    } else {
        // The change detection cannot take the file semaphore.
        FUZZ_CHECK(cc == 0x80 && sel == entries(kBackupBmcWeb, {SEL_CLASS_GENERATED, SEL_CLASS_FAIL}));
    }
}

void checkExe(const Call& c, INT8U cc, int length) {
    FUZZ_CHECK(length == 1);
    const std::vector<INT8U> sel = selEvents();
    const INT8U fileType = c.reqLen > 0 ? c.req[0] : 0;
    const INT8U function = c.reqLen > 1 ? c.req[1] : 0;
    const unsigned slot = slotIndex(EventKind::Restore, function, fileType);
    const std::vector<INT8U> failed = entries(slot, {SEL_CLASS_GENERATED, SEL_CLASS_FAIL});
    const bool web = function == BMC_WEB_CONSOLE;
    if (c.reqLen != 6) {
        FUZZ_CHECK(cc == 0xC7 && sel.empty());
    } else if (fileType == EFI_FILE) {
        FUZZ_CHECK(cc == 0x00 && sel.empty());
    } else if (fileType > BMC_FILE) {
        FUZZ_CHECK(cc == 0xC9 && sel.empty());
    } else if (c.countdown) {
        FUZZ_CHECK(cc == 0xD5);
        FUZZ_CHECK(web ? sel == failed : sel.empty());
    } else if (function == N_P_M || function == SVP_CONSOL) {
        FUZZ_CHECK(cc == 0x00 && sel.empty());
    } else if (function > BMC_WEB_CONSOLE) {
        FUZZ_CHECK(cc == 0xC9 && sel.empty());
    } else if (fuzz::anyEvent(c.svf)) {
        FUZZ_CHECK(cc == 0xD5 && sel == failed);
    } else if (c.fwUpdate >= 1 && c.fwUpdate <= 8) {
        FUZZ_CHECK(cc == 0x80 && sel == entries(slot, {SEL_CLASS_GENERATED}));
    } else {
        FUZZ_CHECK(cc == 0x88 && sel == failed);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::enterSandbox(argc, argv);
    // The trace file exists from here on, so no query has to make it.
    INT8U res[8];
    fuzz::Quiet quiet;
    (void)svfGetBackupRestoreEvent(nullptr, 0, res);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kPrefix) return 0;
    const unsigned handler = data[0] % 3;
    const std::uint8_t world = data[1];
    Call c{};
    std::memcpy(c.svf.svfStatusList, data + 2, SVF_EVENT_SLOT_COUNT);
    c.reqLen = std::min<std::size_t>(size - kPrefix, 255);
    c.countdown = (world & 3) != 0;
    c.fwUpdate = static_cast<INT8U>(world >> 4);

    hslSemiVolatileArea_T area{};
    FUZZ_CHECK(hostSemiVolRead(&area) == 0);
    area.svf = c.svf;
    FUZZ_CHECK(hostSemiVolWrite(&area) == 0);
    gRebootAfterRestoreTimer = (world & 1) != 0 ? 30 : 0;
    gKillProcessAfterFileChkTimer = (world & 2) != 0 ? 3 : 0;
    const INT8U killBefore = gKillProcessAfterFileChkTimer;
    hostSetFwUpdateState(c.fwUpdate);
    FUZZ_CHECK(hostSelClear() == 0);
    FUZZ_CHECK(hostFailCall("hslAcquireSysvSemaphore", 0, 1, EAGAIN) == 0);
    const svfRestoreType_T restoreBefore = gRestoreType;

    const std::unique_ptr<INT8U[]> req(new INT8U[c.reqLen]);
    std::memcpy(req.get(), data + kPrefix, c.reqLen);
    c.req = req.get();
    const std::size_t resLen = handler == 0 ? 8 : 1;
    const std::unique_ptr<INT8U[]> res(new INT8U[resLen]);
    std::memset(res.get(), 0xEE, resLen);
    const auto reqLen = static_cast<INT8U>(c.reqLen);
    int length;
    {
        fuzz::Quiet quiet;
        switch (handler) {
            case 0: length = svfGetBackupRestoreEvent(req.get(), reqLen, res.get()); break;
            case 1: length = svfOEMSetBackupEvent(req.get(), reqLen, res.get(), 0); break;
            default: length = svfOEMExeRestoreEvent(req.get(), reqLen, res.get(), 0); break;
        }
    }
    switch (handler) {
        case 0: checkGet(c, res.get(), length); break;
        case 1: checkSet(c, res[0], length); break;
        default: checkExe(c, res[0], length); break;
    }

    FUZZ_CHECK(hostSemiVolRead(&area) == 0);
    FUZZ_CHECK(std::memcmp(&area.svf, &c.svf, sizeof c.svf) == 0);
    FUZZ_CHECK(std::memcmp(&gRestoreType, &restoreBefore, sizeof restoreBefore) == 0);
    FUZZ_CHECK(gKillProcessAfterFileChkTimer == killBefore);
    hostResetFaults();
    hostResetCounters();
    return 0;
}
