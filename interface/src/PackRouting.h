// The routing of a request's pack, in line: the classic PackReq2008
// (Classic.cpp) and the modern PackRequest (Modern.cpp) both inline it, so
// that a sender's pack pays its own call and the engine's.
#pragma once

#include <cstdint>
#include <cstring>

#include "Routing.h"
#include "Call.h"
#include "trdcomp/MessageHead.hpp"

namespace trdcomp::detail {

// The 76-byte head, which may overlap out: all of it is read before a byte
// is written, in words whose stores the codec's reads of the count and
// record size find whole (a call, or a copy through the stack, would make
// those reads wait).
[[gnu::always_inline]] inline void MoveRequestHead(char* out, const void* head) {
    static_assert(head::kRequestLength == 76);
    struct Pair {
        std::uint64_t a, b;
    };
    const char* s = static_cast<const char*>(head);
    Pair w0, w1, w2, w3;
    std::uint64_t w4;
    std::uint32_t w5;
    std::memcpy(&w0, s, 16);
    std::memcpy(&w1, s + 16, 16);
    std::memcpy(&w2, s + 32, 16);
    std::memcpy(&w3, s + 48, 16);
    std::memcpy(&w4, s + 64, 8);
    std::memcpy(&w5, s + 72, 4);
    std::memcpy(out, &w0, 16);
    std::memcpy(out + 16, &w1, 16);
    std::memcpy(out + 32, &w2, 16);
    std::memcpy(out + 48, &w3, 16);
    std::memcpy(out + 64, &w4, 8);
    std::memcpy(out + 72, &w5, 4);
}

// Packs a request into out (call.capacity bytes): the head (word 0 forced to
// 76, the flags word `flags`), then the coded or raw records. 1 packed
// (outLen: the message), 0 the codec stopped after the head was written
// (call.reason; the classic PackReq2008 still reports 1), -1 refused before
// anything was written (outLen untouched). With capacity below the head and
// a call that measures, nothing is written and call.needed says what the
// message takes.
[[gnu::always_inline]] inline int PackRequestMessage(Call& call, char* out, int& outLen, const tagREQ_HEAD& head,
                                                     std::int32_t flags, const char* data, int dataLen, char flag) {
    const int version = head::FastVersion(flags);
    const auto& routes = FindReqRoutes(head.nFuncId);
    const Cell cell = version != 0 ? routes.packFast.cell : routes.pack2008.cell;
    // The raw path copies dataLen bytes of data: a negative length, or bytes
    // without a buffer, cannot be copied.
    if (cell == Cell::raw && (dataLen < 0 || (dataLen > 0 && data == nullptr))) {
        call.Refuse(Reason::null_argument);
        return -1;
    }
    // A capacity below the head: a call that measures packs the head into a
    // block of its own, and the message is counted, not written.
    constexpr int kReqHead = head::kRequestLength;
    char own[kReqHead];
    const bool headFits = call.capacity >= kReqHead;
    if (!headFits && !call.measure) {
        call.TooSmall(kReqHead);
        return -1;
    }
    char* const msg = headFits ? out : own;
    outLen = 0;
    MoveRequestHead(msg, &head);
    head::Store(msg, head::kLengthAt, kReqHead);
    head::Store(msg, head::kFlagsAt, flags);
    outLen = kReqHead;

    int rc = 1;
    switch (cell) {
        case Cell::no_records:
            head::Store(msg, head::kRequestCountAt, 0);
            break;
        case Cell::head_only:
        case Cell::nothing:
            break;
        case Cell::codec:
            rc = version != 0 ? routes.packFast.fn(call, msg, outLen, data, dataLen, version)
                              : routes.pack2008.fn(call, msg, outLen, data, dataLen, flag);
            break;
        case Cell::raw:
            if (dataLen > call.capacity - outLen) {
                call.TooSmall(static_cast<std::int64_t>(outLen) + dataLen);
                return 0;
            }
            if (dataLen > 0) std::memcpy(msg + kReqHead, data, static_cast<std::size_t>(dataLen));
            outLen += dataLen;
            break;
    }
    if (rc == 1 && outLen > call.capacity) return call.TooSmall(outLen);
    return rc;
}

}  // namespace trdcomp::detail
