// An invariant check for the fuzz targets: report the broken condition and
// abort, which libFuzzer records as a crash with the input that caused it.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "archive/format.h"

namespace brask::fuzz {

// A copy of the original standard error taken before anything can redirect
// it (libFuzzer's -close_fd_mask, or the sandboxed targets silencing the
// library's own error lines), so a broken invariant is always reported.
inline const int kReportFd = ::dup(STDERR_FILENO);

}  // namespace brask::fuzz

#define FUZZ_CHECK(cond)                                                                       \
    do {                                                                                       \
        if (!(cond)) {                                                                         \
            ::dprintf(::brask::fuzz::kReportFd >= 0 ? ::brask::fuzz::kReportFd : STDERR_FILENO, \
                      "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #cond);             \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)

namespace brask::fuzz {

// True when `part` lies wholly within `whole` (an empty span anywhere in or at
// the end of it counts as within).
inline bool within(format::Bytes whole, const void* data, std::size_t size) {
    const auto* begin = whole.data();
    const auto* p = static_cast<const std::uint8_t*>(data);
    if (size == 0 && p == nullptr) return true;
    return p >= begin && p <= begin + whole.size() &&
           size <= static_cast<std::size_t>(begin + whole.size() - p);
}

}  // namespace brask::fuzz
