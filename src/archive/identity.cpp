// The identity a backup records: product model, serial, module type and UUID
// from the FRU inventory, the BMC and EFI firmware revisions; and the rewrite
// of the FRU product info area.  Unit svfBraskArchiver.
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "BraskSvf/svfApi.h"
#include "common/diag.h"
#include "common/ipmiRequest.h"
#include "common/paths.h"
#include "common/scoped.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

namespace {

using brask::ScopedFile;

// ---- FRU layout -------------------------------------------------------------
// The product info area image lies at FRU offset 0x80.  The identity read
// takes the model and serial number from 0xA1 and 0xCD, one byte further on
// than the rewrite puts them (image offsets 32 and 76: 0xA0 and 0xCC).  Which
// base matches the platform's FRU image is not settled, so both operations
// keep the offsets the firmware has always used; change them together.
constexpr unsigned kProductAreaOffset = 0x80;
constexpr unsigned kReadModelNumberOffset = 0xA1;
constexpr unsigned kReadSerialNumberOffset = 0xCD;
constexpr unsigned kWriteModelNumberOffset =
    offsetof(FruProductInfoArea_T, ProductModelNumber);  // 0xA0 in the FRU
constexpr unsigned kWriteSerialNumberOffset =
    offsetof(FruProductInfoArea_T, ProductSerialNumber);  // 0xCC in the FRU
constexpr unsigned kModuleTypeOffset = 0xF8;
constexpr unsigned kUuidOffset = 0x15E;
static_assert(kProductAreaOffset + kWriteModelNumberOffset + 1 == kReadModelNumberOffset);
static_assert(kProductAreaOffset + kWriteSerialNumberOffset + 1 == kReadSerialNumberOffset);

constexpr std::size_t kProductAreaSize = sizeof(FruProductInfoArea_T);  // 111
constexpr std::size_t kChunkSize = 20;
constexpr std::size_t kModelNumberSize = sizeof(FruProductInfoArea_T::ProductModelNumber);
constexpr std::size_t kSerialNumberSize = sizeof(FruProductInfoArea_T::ProductSerialNumber);

// Read FRU Data of `count` bytes at `offset` of device 0; the data start at
// Data[2], after the completion code and the count returned.
bool readFru(MsgPkt_T& pkt, unsigned offset, std::size_t count) {
    const INT8U request[4] = {SVF_FRU_DEVICE_ID, static_cast<INT8U>(offset & 0xFF),
                              static_cast<INT8U>(offset >> 8), static_cast<INT8U>(count)};
    if (!brask::executeStorageRequest(pkt, SVF_CMD_READ_FRU_DATA, request, sizeof request)) {
        SVF_ERR("API_ExecuteCmd Fail\n");
        return false;
    }
    return true;
}

bool writeFru(MsgPkt_T& pkt, unsigned offset, const INT8U* data, std::size_t count) {
    INT8U request[3 + kChunkSize];
    request[0] = SVF_FRU_DEVICE_ID;
    request[1] = static_cast<INT8U>(offset & 0xFF);
    request[2] = static_cast<INT8U>(offset >> 8);
    std::memcpy(request + 3, data, count);
    if (!brask::executeStorageRequest(pkt, SVF_CMD_WRITE_FRU_DATA, request, 3 + count)) {
        SVF_ERR("API_ExecuteCmd Fail\n");
        return false;
    }
    return true;
}

}  // namespace

int svfGetProductIdFru(svfBraskBackupFileHeader_T* pHeader) {
    MsgPkt_T pkt{};
    const INT8U* data = pkt.Data + 2;

    if (!readFru(pkt, kReadModelNumberOffset, sizeof pHeader->ModelNumber)) return -1;
    std::memcpy(pHeader->ModelNumber, data, sizeof pHeader->ModelNumber);
    // The field is not NUL-terminated when it is full.
    SVF_DEBUG("ModelNumber = %.*s\n", static_cast<int>(sizeof pHeader->ModelNumber),
              reinterpret_cast<const char*>(pHeader->ModelNumber));

    if (!readFru(pkt, kReadSerialNumberOffset, sizeof pHeader->SerialNumber)) return -1;
    std::memcpy(pHeader->SerialNumber, data, sizeof pHeader->SerialNumber);
    SVF_DEBUG("SerialNumber = %.*s\n", static_cast<int>(sizeof pHeader->SerialNumber),
              reinterpret_cast<const char*>(pHeader->SerialNumber));

    if (!readFru(pkt, kModuleTypeOffset, sizeof pHeader->ModuleType)) return -1;
    std::memcpy(pHeader->ModuleType, data, sizeof pHeader->ModuleType);
    SVF_DEBUG("ModuleType = %d %d\n", pHeader->ModuleType[1], pHeader->ModuleType[0]);

    if (!readFru(pkt, kUuidOffset, sizeof pHeader->UUID)) return -1;
    std::memcpy(pHeader->UUID, data, sizeof pHeader->UUID);
    const INT8U* u = pHeader->UUID;
    SVF_DEBUG("UUID = %x %x %x %x %x %x %x %x %x %x.....\n", u[0], u[1], u[2], u[3], u[4], u[5], u[6], u[7],
              u[8], u[9]);
    return 0;
}

int svfGetBmcRev(FwRev_T* pBmcRev) {
    ScopedFile fp(brask::paths::kFwInfoFile, "r");
    if (!fp) {
        SVF_DEBUG("FW_INFO_FILE open fail");
        return -1;
    }
    int major = 0;
    int minor = 0;
    if (std::fscanf(fp.get(), "FW_VERSION=%d.%d", &major, &minor) != 2) {
        major = 0;
        minor = 0;
    }
    (void)fp.close();
    pBmcRev->Major = static_cast<INT8U>(major);
    pBmcRev->Minor = static_cast<INT8U>(minor);
    SVF_DEBUG("BmcRev.Major = %x\n", pBmcRev->Major);
    SVF_DEBUG("BmcRev.Minor = %x\n", pBmcRev->Minor);
    return 0;
}

int svfGetEfiRev(INT8U FwTyep, FwRev_T* pEfiRev) {
    ScopedFile fp(brask::paths::kBiosConfigFile, "rb");
    if (!fp) {
        SVF_DEBUG("BIOS_CONF_FILE open fail");
        // Only an EFI backup needs the BIOS configuration.
        if (FwTyep == EFI_FILE) return -1;
        pEfiRev->Major = 0;
        pEfiRev->Minor = 0;
    } else {
        BiosConfigHeader_T header{};
        const bool complete = std::fread(&header, sizeof header, 1, fp.get()) == 1;
        (void)fp.close();
        const bool known = complete && header.FormatRev != 0;
        pEfiRev->Major = known ? header.RevMajor : 0;
        pEfiRev->Minor = known ? header.RevMinor : 0;
    }
    SVF_DEBUG("EfiRev.Major = %x\n", pEfiRev->Major);
    SVF_DEBUG("EfiRev.Minor = %x\n", pEfiRev->Minor);
    return 0;
}

int svfModFruProductInfoArea(INT8U* pNewModelNumber, INT8U* pNewSerialNumber) {
    INT8U image[kProductAreaSize] = {};
    MsgPkt_T pkt{};

    for (std::size_t at = 0; at < kProductAreaSize; at += kChunkSize) {
        const std::size_t len = kProductAreaSize - at < kChunkSize ? kProductAreaSize - at : kChunkSize;
        SVF_DEBUG("ReadWriteSize = %d\n", static_cast<int>(len));
        if (!readFru(pkt, kProductAreaOffset + static_cast<unsigned>(at), len)) return -1;
        std::memcpy(image + at, pkt.Data + 2, len);
    }

    std::memcpy(image + kWriteModelNumberOffset, pNewModelNumber, kModelNumberSize);
    std::memcpy(image + kWriteSerialNumberOffset, pNewSerialNumber, kSerialNumberSize);
    constexpr std::size_t kChkSumOffset = offsetof(FruProductInfoArea_T, ChkSum);
    INT8U sum = 0;
    for (std::size_t i = 0; i < kChkSumOffset; ++i) sum = static_cast<INT8U>(sum + image[i]);
    image[kChkSumOffset] = static_cast<INT8U>(0u - sum);

    for (std::size_t at = 0; at < kProductAreaSize; at += kChunkSize) {
        const std::size_t len = kProductAreaSize - at < kChunkSize ? kProductAreaSize - at : kChunkSize;
        SVF_DEBUG("ReadWriteSize = %d\n", static_cast<int>(len));
        if (!writeFru(pkt, kProductAreaOffset + static_cast<unsigned>(at), image + at, len)) return -1;
    }
    return 0;
}
