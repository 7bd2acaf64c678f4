// File size, the additive checksum both file formats carry, and the shell
// copy that refreshes backup copies.  Unit svfBraskArchiver.
#include "archive/fileUtils.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>
#include <new>

#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "common/diag.h"
#include "common/shellCommand.h"

static constexpr const char kUnit[] = "svfBraskArchiver";

// Shared by every unit that builds a shell command or a block-file name.
char gTmpStr[SVF_TMPSTR_SIZE];

namespace {

using brask::archive::kSumBlockSize;
using brask::archive::kSumMapWindow;
constexpr std::size_t kFallbackBlockSize = 4 * 1024;

// tmpfs maps a page per fault, which makes a mapping slower than reading.
constexpr long kTmpfsMagic = 0x01021994;

bool worthMapping(int fd, const struct stat& st) {
    if (!S_ISREG(st.st_mode) || static_cast<std::uint64_t>(st.st_size) < brask::archive::kSumMapThreshold) {
        return false;
    }
    struct statfs fs {};
    return ::fstatfs(fd, &fs) == 0 && static_cast<long>(fs.f_type) != kTmpfsMagic;
}

// Sums the first `length` bytes of a regular file window by window; false
// when a window cannot be mapped (the caller then reads instead).
bool mappedSum(int fd, std::uint64_t length, std::uint32_t& sum) {
    std::uint32_t s = 0;
    for (std::uint64_t at = 0; at < length; at += kSumMapWindow) {
        const std::uint64_t rest = length - at;
        const auto size = static_cast<std::size_t>(rest < kSumMapWindow ? rest : kSumMapWindow);
        // Populating the whole window up front costs far less than a fault per page.
        void* p = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, static_cast<off_t>(at));
        if (p == MAP_FAILED) return false;
        s = brask::format::wordSum(brask::format::Bytes(static_cast<const std::uint8_t*>(p), size), s);
        (void)::munmap(p, size);
    }
    sum = s;
    return true;
}

}  // namespace

INT32S svfGetFileSize(FILE* fp) {
    if (std::fseek(fp, 0, SEEK_END) != 0) {
        SVF_ERR("fseek fail(%d)\n", errno);
        return -1;
    }
    const long pos = std::ftell(fp);
    if (pos < 0) {
        SVF_ERR("ftell fail(%d)\n", errno);
        return -1;
    }
    // The formats hold sizes in 32 signed bits; a larger file cannot be packed.
    if (pos > INT32_MAX) {
        SVF_ERR("file too large(%ld)\n", pos);
        return -1;
    }
    return static_cast<INT32S>(pos);
}

// Equal to summing one zero-cleared little-endian word per read:
// - whole file (LimitByte 0): every byte read counts, a final group of 1..3
//   bytes as a zero-padded word;
// - limited: groups of min(4, LimitByte - i) bytes below the limit; the sum
//   stops before the first group that could not be read completely.
// The stream is left after the last byte consumed, as the word reads would.
INT32U svfGetFileSum(FILE* fp, INT32U LimitByte) {
    std::rewind(fp);  // also writes out what the caller has buffered
    const bool whole = LimitByte == 0;

    const int fd = ::fileno(fp);
    struct stat st {};
    if (fd >= 0 && ::fstat(fd, &st) == 0 && worthMapping(fd, st) &&
        (whole || LimitByte >= brask::archive::kSumMapThreshold)) {
        const auto available = static_cast<std::uint64_t>(st.st_size);
        const std::uint64_t readable = whole || available < LimitByte ? available : LimitByte;
        // A limited sum that ran out of file drops the incomplete group.
        const std::uint64_t counted = whole || readable == LimitByte ? readable : readable - readable % 4;
        std::uint32_t sum = 0;
        if (mappedSum(fd, counted, sum) && ::fseeko(fp, static_cast<off_t>(readable), SEEK_SET) == 0) {
            return sum;
        }
        std::rewind(fp);
    }

    std::unique_ptr<unsigned char[]> heap(new (std::nothrow) unsigned char[kSumBlockSize]);
    unsigned char fallback[kFallbackBlockSize];
    unsigned char* buf = heap ? heap.get() : fallback;
    const std::size_t blockSize = heap ? kSumBlockSize : kFallbackBlockSize;

    std::uint64_t left = LimitByte;
    std::uint32_t sum = 0;
    for (;;) {
        const std::size_t want =
            whole ? blockSize : static_cast<std::size_t>(left < blockSize ? left : blockSize);
        if (want == 0) break;
        const std::size_t got = std::fread(buf, 1, want, fp);
        if (got == want) {
            // In limited mode a last block that ends inside a word is the
            // limit's own partial group: it counts, zero-padded.
            sum = brask::format::wordSum(brask::format::Bytes(buf, got), sum);
            if (!whole) left -= got;
            continue;
        }
        // End of file or a read error ends the sum.  A partial word counts
        // only in whole-file mode.
        const std::size_t counted = whole ? got : got - got % 4;
        sum = brask::format::wordSum(brask::format::Bytes(buf, counted), sum);
        break;
    }
    return sum;
}

int svfExeCopyCmd(char* SrcFile, char* DstFile) {
    if (!brask::formatInto(gTmpStr, "cp -p %s %s\n", SrcFile, DstFile)) {
        SVF_ERR("Command make fail.(%d)\n", errno);
        return -1;
    }
    const bool copied = brask::runShell(gTmpStr);
    SVF_DEBUG("cp %s %s\n", SrcFile, DstFile);
    if (!copied) {
        SVF_ERR("system cmd fail(%d)\n", errno);
        return -1;
    }
    return 0;
}
