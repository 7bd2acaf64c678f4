// The EEPROM: a 32 KiB image file (erased bytes are 0xFF).  Bus, channel and
// slave address name the one device there is.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "BraskSvf/svfPlatform.h"
#include "controls.h"
#include "hostFiles.h"

namespace {

bool inRange(INT32U offset, INT32U length) noexcept {
    return offset <= HOST_EEPROM_SIZE && length <= HOST_EEPROM_SIZE - offset;
}

int openEeprom(int flags) noexcept {
    if (hostplat::ensureFile(HOST_EEPROM_FILE, HOST_EEPROM_SIZE, 0xFF) != 0) return -1;
    return ::open(HOST_EEPROM_FILE, flags | O_CLOEXEC);
}

}  // namespace

extern "C" {

int brask_ReadWriteEEPROM(INT8U Bus, INT8U Channel, INT8U SlaveAddr, INT8U* pBuf, INT32U Offset,
                          INT32U Length, INT8U Write) {
    (void)Bus;
    (void)Channel;
    (void)SlaveAddr;
    if (hostplat::enterCall(hostplat::Fn::ReadWriteEeprom)) return -1;
    if (pBuf == nullptr || !inRange(Offset, Length) || Length > 0x7FFFFFFF) {
        errno = EINVAL;
        return -1;
    }
    const bool write = Write == 1;
    hostplat::Fd fd(openEeprom(write ? O_RDWR : O_RDONLY));
    if (!fd.ok()) return -1;
    const int rc = write ? hostplat::writeAt(fd.get(), pBuf, Length, static_cast<off_t>(Offset))
                         : hostplat::readAt(fd.get(), pBuf, Length, static_cast<off_t>(Offset));
    return rc == 0 ? static_cast<int>(Length) : -1;
}

int hostEepromRead(INT32U offset, INT8U* out, INT32U length) {
    if (out == nullptr || !inRange(offset, length)) {
        errno = EINVAL;
        return -1;
    }
    hostplat::Fd fd(openEeprom(O_RDONLY));
    if (!fd.ok()) return -1;
    return hostplat::readAt(fd.get(), out, length, static_cast<off_t>(offset));
}

}  // extern "C"
