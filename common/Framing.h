// Pieces both record engines frame messages with: where record i of a
// caller's array lies, capacity-checked output, answer shapes (plain sections
// or a layout chosen by record count) and the head words the framings touch.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Bytes.h"
#include "Call.h"
#include "Layout.h"
#include "Text.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/TrdCompData.h"

namespace trdcomp::detail {

inline constexpr int kReqHeadLen = head::kRequestLength;
inline constexpr int kAnsHeadLen = head::kAnswerLength;
inline constexpr int kReqSpare = 1024;  // spare zero bytes behind a restored request
inline constexpr int kAnsSpare = 10;    // behind a restored answer

inline void SetFlags(char* msg, std::int32_t bits) { head::Store(msg, head::kFlagsAt, head::Load(msg, head::kFlagsAt) | bits); }

// Record i of an array of `extent` bytes read with `stride`, or null when its
// `size` bytes do not lie inside the array: the caller's records are never
// read outside the bytes the caller handed over.
inline const char* RecordAt(const char* data, std::int64_t extent, std::int64_t i, std::int32_t stride,
                            std::uint32_t size) {
    const std::int64_t start = i * stride;
    if (data == nullptr || start < 0 || start > extent - static_cast<std::int64_t>(size)) return nullptr;
    return data + start;
}

// Encodes one record of at most Max bytes at dst when the worst case and
// Slack bytes behind it (which an encoder may use as scratch) are known to
// be writable, else into a scratch copy that is kept only if the real bytes
// fit `room`. `writable` is the room itself when the caller's capacity is
// known; the classic members, which are not told it, pass what the message
// still to be written proves (the caller's buffer holds the whole message).
// Returns the bytes encoded; more than `room` when they do not fit (nothing
// is then written at dst: a pack that measures goes on counting). One call
// site, so each layout's encoder is instantiated once.
template <std::size_t Max, std::size_t Slack = 0, class Encode>
inline std::int64_t EncodeBounded(const Encode& encode, char* dst, std::int64_t room, std::int64_t writable) {
    char scratch[Max + Slack > 0 ? Max + Slack : 1];
    const bool direct = writable >= static_cast<std::int64_t>(Max + Slack);
    const std::int64_t n = encode(direct ? dst : scratch);
    if (direct || n > room) return n;
    // A short record takes a few word moves, not a call.
    if constexpr (sizeof scratch <= 64) {
        CopyAtMost<sizeof scratch>(dst, scratch, static_cast<std::size_t>(n));
    } else if (n <= 64) {
        CopyAtMost<64>(dst, scratch, static_cast<std::size_t>(n));
    } else {
        std::memcpy(dst, scratch, static_cast<std::size_t>(n));
    }
    return n;
}

// How many of `count` records of `size` bytes, `stride` apart, lie inside
// the array of `extent` bytes at `data` before the first that does not (the
// records RecordAt hands out one by one).
inline std::int64_t RecordsInside(const char* data, std::int64_t extent, std::int64_t count, std::int32_t stride,
                                  std::uint32_t size) {
    if (data == nullptr || count <= 0 || extent < static_cast<std::int64_t>(size)) return 0;
    if (stride == 0) return count;
    if (stride < 0) return 1;
    // All of them (the common case) without a division.
    if (count - 1 <= INT_MAX && (count - 1) * stride <= extent - static_cast<std::int64_t>(size)) return count;
    const std::int64_t fit = (extent - static_cast<std::int64_t>(size)) / stride + 1;
    return fit < count ? fit : count;
}

// Answer shapes: the record layout of each section. Visit calls
// fn.template operator()<L>() with the layout of section j for `count`
// records of `size` bytes (the size the caller's records have, when packing).
template <const auto&... Ls>
struct Sections {
    static constexpr int kCount = sizeof...(Ls);
    template <class Fn>
    static bool Visit(int j, std::int32_t, std::int32_t, const Fn& fn) {
        bool result = true;
        int k = 0;
        static_cast<void>(((k++ == j ? (result = fn.template operator()<Ls>(), true) : false) || ...));
        return result;
    }
    static std::uint32_t Size(int j, std::int32_t) {
        constexpr std::uint32_t sizes[] = {Ls.size...};
        return sizes[j];
    }
};

// One section whose layout is Narrow below two records and Wide otherwise.
template <const auto& Narrow, const auto& Wide>
struct Switched {
    static constexpr int kCount = 1;
    template <class Fn>
    static bool Visit(int, std::int32_t count, std::int32_t, const Fn& fn) {
        return count < 2 ? fn.template operator()<Narrow>() : fn.template operator()<Wide>();
    }
    static std::uint32_t Size(int, std::int32_t count) { return count < 2 ? Narrow.size : Wide.size; }
};

// One section packed by an encoder shared by layouts that code the same
// kinds of field: the records take the layout whose size they have; records
// of another stride (padded structs, a larger record size) take First when
// it fits inside one record, else the widest layout that does, else First
// (its records are then coded while they lie inside the array).
template <const auto& First, const auto&... Others>
struct SizeFamily {
    static_assert((model::SameKinds(First, Others) && ...), "a shared encoder serves layouts of the same field kinds");
    static constexpr int kCount = 1;
    static constexpr std::uint32_t kSizes[] = {First.size, Others.size...};

    // Index of the layout records of `size` bytes are coded with.
    static constexpr int Pick(std::int32_t size) {
        for (int i = 0; i < 1 + static_cast<int>(sizeof...(Others)); ++i)
            if (static_cast<std::int64_t>(size) == kSizes[i]) return i;
        if (static_cast<std::int64_t>(size) >= First.size) return 0;
        int best = 0;
        bool fits = false;
        for (int i = 1; i < 1 + static_cast<int>(sizeof...(Others)); ++i) {
            if (static_cast<std::int64_t>(size) < kSizes[i]) continue;
            if (!fits || kSizes[i] > kSizes[best]) best = i;
            fits = true;
        }
        return best;
    }

    template <class Fn>
    static bool Visit(int, std::int32_t, std::int32_t size, const Fn& fn) {
        const int pick = Pick(size);
        if (pick == 0) return fn.template operator()<First>();
        int k = 1;
        bool result = true;
        static_cast<void>(((k++ == pick ? (result = fn.template operator()<Others>(), true) : false) || ...));
        return result;
    }
    static std::uint32_t Size(int, std::int32_t) { return First.size; }
};

// The records a restore will fill: negative counts hold none.
inline std::int64_t FilledRecords(std::int32_t count) { return count > 0 ? count : 0; }

// Packs the sections of an answer in order: for section j, run is called
// with the layout of its records, the caller's array, its bytes, its count
// and its record size (from proc). False as soon as one does not fit.
template <class Shape, class Run>
bool PackSections(const tagANS_Proc* proc, char* const arrays[5], const Run& run) {
    for (int j = 0; j < Shape::kCount; ++j) {
        const std::int32_t count = proc->nRecCount[j];
        const std::int32_t size = proc->nRecSize[j];
        const std::int64_t extent = FilledRecords(count) * size;
        if (!Shape::Visit(j, count, size, [&]<const auto& L>() {
                return run.template operator()<L>(arrays[j], extent, count, size);
            }))
            return false;
    }
    return true;
}

// The head of a received request, checked by ReadRequestHead.
struct RequestHead {
    std::int32_t headLen;
    std::int32_t count;
    std::int32_t recordSize;
    bool coded;
};

// A request restore needs the whole head, refuses several record arrays
// and takes the head length word as its read cursor. Under the modern rules
// a negative record count is refused in both codings (the classic 2008
// restore accepts it, the Fast one refuses its coded records).
inline bool ReadRequestHead(Call& call, const char* in, int inLen, RequestHead& h) {
    if (in == nullptr || inLen < kReqHeadLen) return call.Refuse(Reason::head_too_short);
    const head::Routing r = head::ReadRouting(in);
    if (head::SeveralArrays(r.flags)) return call.Refuse(Reason::several_arrays_request);
    const head::Array a = head::RequestArray(in);
    h.headLen = r.length;
    h.count = a.count;
    h.recordSize = a.size;
    h.coded = head::Coded(r.flags);
    if (h.headLen < 0 || h.headLen > inLen) return call.Refuse(Reason::head_length_invalid);
    if (h.count < 0 && call.refuseNegativeCounts) return call.Refuse(Reason::negative_count);
    return true;
}

// Opens the block a restore writes (see Call::source): a fresh allocation of
// `total` bytes and `spare` more (*out set; null when it failed:
// out_of_memory), or the caller's block (the spare bytes are not written),
// in both with the bytes behind the `written` the restore writes itself
// zeroed, when `total` (at least `written`) and the `tail` a decoder may
// write behind the last record fit its capacity (else buffer_too_small with
// the bytes needed, *out unchanged). outLen is `total` when a block was
// handed out. A block of more than the call's limits allow is refused before
// anything is allocated or written: null, outLen and *out unchanged.
inline char* OpenBlock(Call& call, char** out, int& outLen, std::int64_t total, int spare, std::int64_t written,
                       std::int64_t tail, std::int64_t records) {
    // A request head with a negative count restores to fewer bytes than the
    // head the restore still writes.
    const std::int64_t needed = (total > written ? total : written) + tail;
    if (!call.WithinLimits(records, needed)) return nullptr;
    if (!call.IntoCallerBlock()) {
        outLen = static_cast<int>(total);
        *out = AllocZeroed(static_cast<std::uint64_t>(total + spare), static_cast<std::uint64_t>(written));
        if (*out == nullptr) call.Refuse(Reason::out_of_memory);
        return *out;
    }
    if (needed > call.capacity) {
        call.TooSmall(needed);
        return nullptr;
    }
    char* const block = call.block;
    if (total > written) {
        // A short run (a small record) is zeroed by a few overlapping fixed
        // stores, not a call.
        char* p = block + written;
        const auto n = static_cast<std::size_t>(total - written);
        if (n > 32) {
            std::memset(p, 0, n);
        } else if (n >= 16) {
            std::memset(p, 0, 16);
            std::memset(p + n - 16, 0, 16);
        } else if (n >= 8) {
            std::memset(p, 0, 8);
            std::memset(p + n - 8, 0, 8);
        } else {
            for (std::size_t i = 0; i < n; ++i) p[i] = 0;
        }
    }
    *out = block;
    outLen = static_cast<int>(total);
    return block;
}

// Opens a restored request: count * size + 76 bytes (outLen) and 1024 spare,
// all zero, with the received head copied to the start. Returns its first
// record slot, or null (sizes not representable, allocation failed, the
// caller's block too small). `recordsCleared`: the caller writes or clears
// every record itself, so only the head and the spare bytes are written here.
inline char* OpenRestoredRequest(Call& call, const char* in, const RequestHead& h, std::uint32_t size, char** out,
                                 int& outLen, std::int64_t tail = 0, bool recordsCleared = false) {
    const std::int64_t total = static_cast<std::int64_t>(h.count) * size + kReqHeadLen;
    if (total > INT_MAX || total + kReqSpare < kReqHeadLen) {
        call.Refuse(Reason::size_not_representable);
        return nullptr;
    }
    char* buf = OpenBlock(call, out, outLen, total, kReqSpare, recordsCleared ? total : kReqHeadLen, tail,
                          FilledRecords(h.count));
    if (buf == nullptr) return nullptr;
    // Two fixed copies, both inlined (one of 76 bytes becomes a call).
    std::memcpy(buf, in, 64);
    std::memcpy(buf + 64, in + 64, kReqHeadLen - 64);
    return buf + kReqHeadLen;
}

// The restored head states its own length and the layout size.
inline void CloseRestoredRequest(char* buf, std::uint32_t size) {
    head::Store(buf, head::kLengthAt, kReqHeadLen);
    head::Store(buf, head::kRequestSizeAt, static_cast<std::int32_t>(size));
}

// Copies the records of a request that travelled raw: record i comes from
// in + i * recordSize, counted from the start of the message, head included
// (as senders expect), min(recordSize, size) bytes of it, while inside the message.
inline void CopyRawRecords(const char* in, std::int64_t inLen, std::int32_t recordSize, std::uint32_t size,
                           std::int64_t records, char* slots) {
    const std::uint32_t copy = static_cast<std::uint32_t>(recordSize) < size ? static_cast<std::uint32_t>(recordSize) : size;
    for (std::int64_t i = 0; i < records; ++i) {
        const char* src = RecordAt(in, inLen, i, recordSize, copy);
        if (src == nullptr) return;
        std::memcpy(slots + i * size, src, copy);
    }
}

}  // namespace trdcomp::detail
