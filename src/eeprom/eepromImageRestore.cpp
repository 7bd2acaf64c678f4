// Shared body of the EEPROM restores; each caller supplies its own unit name.
#include "eeprom/eepromImageRestore.h"

#include <cerrno>
#include <cstdio>

#include "BraskSvf/svfPlatform.h"
#include "common/diag.h"
#include "common/scoped.h"
#include "eeprom/eepromLayout.h"

namespace brask::eeprom {
namespace {

constexpr INT8U kEepromBus = 0x11;
constexpr INT8U kEepromChannel = 2;
constexpr INT8U kEepromSlaveAddr = 0x52;
constexpr INT8U kEepromWrite = 1;
constexpr int kStartLevel = 4;
constexpr int kEepromFailureLevel = 2;
constexpr INT8S kFileError = static_cast<INT8S>(0xC0);

void reportCloseError(const EepromImage& image) {
    diag::message(image.errorLevel, image.unit, __LINE__, image.function, "%s() : file close error(%d)\n",
                  image.function, errno);
}

}  // namespace

INT8S restoreEepromImage(const EepromImage& image) {
    if (image.announceStart) {
        diag::message(kStartLevel, image.unit, __LINE__, image.function, "%s() : Start.\n", image.function);
    }
    ScopedFile fp(image.path, "rb+");  // the image must be writable as well as readable
    if (!fp) {
        if (errno == ENOENT) return 0;  // nothing to restore
        diag::message(image.errorLevel, image.unit, __LINE__, image.function, "%s() : error(%d)\n",
                      image.function, errno);
        return kFileError;
    }
    INT8U l_buf[kImageLength] = {};
    if (std::fread(l_buf, 1, sizeof l_buf, fp.get()) != sizeof l_buf) {
        diag::message(image.errorLevel, image.unit, __LINE__, image.function, "%s() : error(%d)\n",
                      image.function, errno);
        if (fp.close() != 0) reportCloseError(image);
        return kFileError;
    }
    if (fp.close() != 0) reportCloseError(image);

    const int written = brask_ReadWriteEEPROM(kEepromBus, kEepromChannel, kEepromSlaveAddr, l_buf,
                                              image.offset, kImageLength, kEepromWrite);
    if (written != static_cast<int>(kImageLength) && image.reportEepromFailure) {
        diag::message(kEepromFailureLevel, image.unit, __LINE__, image.function,
                      "%s() : brask_ReadWriteEEPROM failed.\n", image.function);
    }
    return 0;
}

}  // namespace brask::eeprom
