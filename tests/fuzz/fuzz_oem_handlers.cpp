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
#include <cerrno>

#include "fuzz.h"

// Completion code and SEL entries of Set Backup Event (handler 1) and Execute
// Restore Event (2) as the commands' tables of outcomes say.
static std::pair<INT8U, test::Bytes> expected(unsigned handler, std::size_t reqLen, INT8U fileType,
                                              INT8U function, bool any, bool countdown, INT8U fwUpdate) {
    const unsigned slot = handler == 1 ? slotIndex(EventKind::Backup, BMC_WEB_CONSOLE, BMC_FILE)
                                       : slotIndex(EventKind::Restore, function, fileType);
    const INT8U generated = selEventCode(slot, SEL_CLASS_GENERATED),
                failed = selEventCode(slot, SEL_CLASS_FAIL);
    if (reqLen != 6) return {0xC7, {}};
    if (handler == 1) {
        if (fileType > BMC_FILE || function > 5) return {0xC9, {}};
        if (fileType == EFI_FILE || function != BMC_WEB_CONSOLE) return {0x00, {}};
        if (countdown) return {0xD5, {}};
        // The change detection cannot take the file semaphore.
        if (!any) return {0x80, {generated, failed}};
        return {0xD5, {generated, selEventCode(slot, SEL_CLASS_OTHER_RUNNING)}};
    }
    if (fileType == EFI_FILE) return {0x00, {}};
    if (fileType > BMC_FILE) return {0xC9, {}};
    if (countdown)
        return {0xD5, function == BMC_WEB_CONSOLE ? test::Bytes{generated, failed} : test::Bytes{}};
    if (function == N_P_M || function == SVP_CONSOL) return {0x00, {}};
    if (function > BMC_WEB_CONSOLE) return {0xC9, {}};
    if (any) return {0xD5, {generated, failed}};
    if (fwUpdate >= 1 && fwUpdate <= 8) return {0x80, {generated}};
    return {0x88, {generated, failed}};
}

// The trace file exists from then on, so no query has to make it.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::enterSandbox(argc, argv);
    INT8U res[8];
    (void)fuzz::quietly([&] { return svfGetBackupRestoreEvent(nullptr, 0, res); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kPrefix = 2 + SVF_EVENT_SLOT_COUNT;
    if (size < kPrefix) return 0;
    const unsigned handler = data[0] % 3;
    const std::size_t reqLen = std::min<std::size_t>(size - kPrefix, 255), resLen = handler == 0 ? 8 : 1;
    svfSemiVol_T svf{};
    for (unsigned i = 0; i < SVF_EVENT_SLOT_COUNT; ++i)
        test::setStatusByte(i, svf.svfStatusList[i] = data[2 + i]);
    gRebootAfterRestoreTimer = (data[1] & 1) != 0 ? 30 : 0;
    gKillProcessAfterFileChkTimer = (data[1] & 2) != 0 ? 3 : 0;
    hostSetFwUpdateState(INT8U(data[1] >> 4));
    assert(hostSelClear() == 0 && hostFailCall("hslAcquireSysvSemaphore", 0, 1, EAGAIN) == 0);
    const svfRestoreType_T restoreBefore = gRestoreType;

    const std::unique_ptr<INT8U[]> req(new INT8U[reqLen]), res(new INT8U[resLen]);
    std::memcpy(req.get(), data + kPrefix, reqLen);
    std::memset(res.get(), 0xEE, resLen);
    const int length = fuzz::quietly([&, n = INT8U(reqLen)] {
        return handler == 0   ? svfGetBackupRestoreEvent(req.get(), n, res.get())
               : handler == 1 ? svfOEMSetBackupEvent(req.get(), n, res.get(), 0)
                              : svfOEMExeRestoreEvent(req.get(), n, res.get(), 0);
    });
    const test::Bytes sel = test::selEvents();
    if (handler == 0 && reqLen == 0) fuzz::checkEventAnswer(svf, res.get(), length);
    assert(handler != 0 || reqLen == 0 ||
           (length == 1 && res[0] == 0xC7 && std::all_of(&res[1], &res[8], [](INT8U b) { return b == 0; })));
    assert(handler == 0 ? sel.empty() : length == 1);
    assert(handler == 0 ||
           std::pair(res[0], sel) == expected(handler, reqLen, reqLen > 0 ? data[kPrefix] : 0,
                                              reqLen > 1 ? data[kPrefix + 1] : 0, fuzz::anyEvent(svf),
                                              (data[1] & 3) != 0, INT8U(data[1] >> 4)));
    hslSemiVolatileArea_T area{};
    assert(hostSemiVolRead(&area) == 0 && std::memcmp(&area.svf, &svf, sizeof svf) == 0);
    assert(std::memcmp(&gRestoreType, &restoreBefore, sizeof restoreBefore) == 0);
    assert(gKillProcessAfterFileChkTimer == ((data[1] & 2) != 0 ? 3 : 0));
    hostResetFaults();
    return 0;
}
