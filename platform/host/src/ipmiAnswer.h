// Completion codes and answer helpers shared by the platforms' API_ExecuteCmd
// responders (the host one and the ipmi_sim module).
#pragma once

#include <cstddef>
#include <cstring>

#include "BraskSvf/svfPlatform.h"

namespace hostplat {

inline constexpr INT8U kCcOk = 0x00;
inline constexpr INT8U kCcInvalidCommand = 0xC1;
inline constexpr INT8U kCcBadLength = 0xC7;
inline constexpr INT8U kCcOutOfRange = 0xC9;
inline constexpr INT8U kCcNotPresent = 0xCB;
inline constexpr INT8U kCcUnspecified = 0xFF;

// Largest piece one Write FRU Data may carry: its count answers in one byte.
inline constexpr size_t kMaxWritePiece = 0xFF;

// The response replaces the request: completion code, then `len` body bytes
// (which may lie in the request itself).
inline void answer(MsgPkt_T* pkt, INT8U cc, const INT8U* body, size_t len) noexcept {
    pkt->Data[0] = cc;
    if (len > 0) std::memmove(&pkt->Data[1], body, len);
    pkt->Size = static_cast<INT32U>(1 + len);
}

inline void fail(MsgPkt_T* pkt, INT8U cc) noexcept { answer(pkt, cc, nullptr, 0); }

}  // namespace hostplat
