// Decodes a backup file or a lone archive block through the format layer and
// records every integrity failure; never stops at the first one, so the
// report shows all that can still be read.
#include "inspect.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "archive/catalogue.h"

namespace svfdump {
namespace {

std::string printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string printf(const char* fmt, ...) {
    char line[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    return line;
}

// The path a restore writes the entry to, as the block reader derives it:
// the name in a 152-byte buffer (so up to a NUL), cut at the first ".bak".
std::string targetOf(std::string_view storedName) {
    char name[SVF_FILE_PASS_SIZE] = {};
    std::memcpy(name, storedName.data(), std::min(storedName.size(), sizeof name - 1));
    if (!brask::catalogue::cutAtBackupSuffix(name)) return {};
    return name;
}

// `where` prefixes every failure and remark of this block: "block 1: " or "".
void inspectBlock(format::Bytes bytes, const std::string& where, Block& block, Inspection& r) {
    std::vector<std::string>& failures = r.failures;
    block.located = true;
    block.size = bytes.size();
    format::ArchiveEntryWalk walk(bytes);
    block.headerOk = walk.headerOk();
    block.header = walk.header();
    block.checksum.stored = block.header.ChkSum;
    block.checksum.sum = format::wordSum(bytes);
    if (!block.headerOk) {
        failures.push_back(
            printf("%sshorter than the 8-byte block header (%zu bytes)", where.c_str(), bytes.size()));
        return;
    }
    if (!block.checksum.ok()) {
        failures.push_back(printf("%schecksum mismatch: words sum to 0x%08x, ChkSum 0x%08x should be 0x%08x",
                                  where.c_str(), block.checksum.sum, block.checksum.stored,
                                  block.checksum.expected()));
    }
    if (block.header.Version != format::kArchiveVersion) {
        failures.push_back(printf("%sunknown block version %u", where.c_str(), block.header.Version));
    }
    format::ArchiveEntry raw;
    while (walk.next(raw)) {
        Entry e{raw, targetOf(raw.name)};
        if (e.target.empty()) {
            failures.push_back(printf("%sentry %zu: stored name names no file before a \".bak\"",
                                      where.c_str(), block.entries.size()));
        }
        block.entries.push_back(std::move(e));
    }
    if (walk.trailingBytes() > 0) {
        r.remarks.push_back(printf("%s%zu bytes after the last entry (a restore ignores them)", where.c_str(),
                                   walk.trailingBytes()));
    } else if (walk.status() != format::Status::Ok) {
        failures.push_back(printf("%sentry %u at offset %zu: %s", where.c_str(), walk.decoded(),
                                  walk.offset(), format::statusText(walk.status())));
    }
}

void inspectBackup(format::Bytes file, Inspection& r) {
    if (format::decodeBackupHeader(file, r.header) != format::Status::Ok) {
        r.failures.push_back(
            printf("shorter than the %zu-byte header (%zu bytes)", format::kBackupHeaderSize, file.size()));
        return;
    }
    r.headerOk = true;
    const svfBraskBackupFileHeader_T& h = r.header;
    format::Bytes area;
    r.headerAreaOk = format::headerAreaBytes(file, h, area) == format::Status::Ok;
    r.headerChecksum.stored = h.ChkSum;
    if (!r.headerAreaOk) {
        r.failures.push_back(
            printf("header and block table (%zu bytes) run past the end of the file (%zu bytes)",
                   format::backupHeaderAreaSize(h.NumOfBlock), file.size()));
    } else {
        r.headerChecksum.sum = format::wordSum(area);
        if (!r.headerChecksum.ok()) {
            r.failures.push_back(
                printf("header checksum mismatch: words sum to 0x%08x, ChkSum 0x%08x should be 0x%08x",
                       r.headerChecksum.sum, r.headerChecksum.stored, r.headerChecksum.expected()));
        }
    }
    if (h.Version != format::kBackupVersion)
        r.failures.push_back(printf("unknown file format: Version %u", h.Version));
    if (h.FwType > BMC_FILE) r.failures.push_back(printf("unknown firmware type %u", h.FwType));
    if (h.FwType == BMC_FILE && h.DataRev != format::kBackupDataRev) {
        r.failures.push_back(printf("unknown data revision %u", h.DataRev));
    }
    if (h.NumOfBlock < 1 || h.NumOfBlock > 3) {
        r.failures.push_back(printf("NumOfBlock %u outside 1 to 3", h.NumOfBlock));
    }

    for (unsigned i = 0; i < h.NumOfBlock; ++i) {
        svfBraskBackupFileBlockInfo_T info{};
        if (format::decodeBlockInfo(file, i, info) != format::Status::Ok) break;  // reported above
        Block& block = r.blocks.emplace_back();
        block.info = info;
        const std::string where = printf("block %u: ", i);
        format::Bytes bytes;
        const format::Status st = format::blockBytes(file, info, bytes);
        if (st != format::Status::Ok) {
            r.failures.push_back(printf("%sBlockOffset %u, BlockSize %d: %s", where.c_str(), info.BlockOffset,
                                        info.BlockSize, format::statusText(st)));
            continue;
        }
        inspectBlock(bytes, where, block, r);
    }
}

}  // namespace

Inspection inspect(format::Bytes file, std::optional<format::ContentKind> kind) {
    Inspection r;
    r.kind = kind ? *kind : format::classifyContent(file);
    r.fileSize = file.size();
    if (r.kind == format::ContentKind::BackupFile) {
        inspectBackup(file, r);
    } else {
        inspectBlock(file, "", r.blocks.emplace_back(), r);
    }
    return r;
}

}  // namespace svfdump
