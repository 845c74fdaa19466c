// CTrdCompData: the four dispatchers, their raw paths and ReleaseAnsData.
//
// The dispatchers read the head, route by function id and coding, and either
// hand the message to the routed codec or move the bytes raw. Their return
// conventions differ on purpose (requests pack to 1, answers pack to 0, the
// two raw restores differ on allocation failure) and are relied on by callers.
//
// Every read stays inside in[0, inLen) and every write inside the caller's
// buffer as sized: where a head describes more than the message holds, or a
// size cannot be represented, the call is refused with the entry point's
// refusal code (docs/hostile-input.md).
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Routing.h"
#include "common/Framing.h"
#include "trdcomp/trdcomp.hpp"
#include "common/Bytes.h"
#include "trdcomp/TrdCompData.h"

using trdcomp::Reason;
using trdcomp::detail::Cell;
using trdcomp::detail::Refuse;
using trdcomp::detail::IntoCallerBlock;
using trdcomp::detail::LoadI32;
using trdcomp::detail::OpenBlock;
using trdcomp::detail::StoreI32;

namespace {

constexpr int kReqHead = TRDCOMP_REQ_HEAD_LEN;
constexpr int kAnsHead = TRDCOMP_ANS_HEAD_LEN;

// Head words every dispatcher reads (byte offsets).
constexpr int kWordHeadLen = 0;
constexpr int kWordFuncId = 4;
constexpr int kWordFlags = 8;
constexpr int kReqWordCount = 68;
constexpr int kAnsWordCount = 88;
constexpr int kAnsWordSize = 92;
constexpr int kAnsTable = 96;

// Bytes a restore must be able to read before it routes: head length, id, flags.
constexpr int kRoutingBytes = 12;

constexpr int kRawSpare = 10;
constexpr int kMaxTableEntries = 5;

int FastVersion(std::int32_t flags) { return (flags >> TRDCOMP_FLAG_FAST_SHIFT) & 0xF; }

// Copies the text of a fixed field the way strncpy does: at most `width`
// characters, NUL padding after a shorter text, no terminator after a full one.
void CopyText(char* dst, const char* src, std::size_t width) {
    const std::size_t n = ::strnlen(src, width);
    std::memcpy(dst, src, n);
    std::memset(dst + n, 0, width - n);
}

}  // namespace

CTrdCompData::CTrdCompData() = default;
CTrdCompData::CTrdCompData(const CTrdCompData&) = default;
CTrdCompData& CTrdCompData::operator=(const CTrdCompData&) { return *this; }
CTrdCompData::~CTrdCompData() = default;

void CTrdCompData::ReleaseAnsData(char* p) {
    if (p != nullptr) ::operator delete(p);
}

namespace {

// The 76-byte head, which may overlap out: all of it is read before a byte
// is written, in words whose stores the codec's reads of the count (offset
// 68) and record size (72) find whole (a call, or a copy through the
// stack, would make those reads wait).
void MoveRequestHead(char* out, const void* head) {
    static_assert(kReqHead == 76);
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

}  // namespace

int CTrdCompData::PackReq2008(char* out, int& outLen, tagREQ_HEAD* head, char* data, int dataLen,
                              char flag) {
    if (out == nullptr || head == nullptr) return 0;
    const std::int32_t id = head->nFuncId;
    const int version = FastVersion(head->nFlags);
    const auto& routes = trdcomp::detail::FindReqRoutes(id);
    const Cell cell = version != 0 ? routes.packFast.cell : routes.pack2008.cell;
    // The raw path copies dataLen bytes of data: a negative length, or bytes
    // without a buffer, cannot be copied.
    if (cell == Cell::Raw && (dataLen < 0 || (dataLen > 0 && data == nullptr))) return 0;

    outLen = 0;
    MoveRequestHead(out, head);
    StoreI32(out + kWordHeadLen, kReqHead);
    outLen = kReqHead;

    switch (cell) {
        case Cell::NoRecords:
            StoreI32(out + kReqWordCount, 0);
            return 1;
        case Cell::HeadOnly:
        case Cell::Nothing:
            return 1;
        case Cell::Codec:
            // The codec's own result is not looked at.
            if (version != 0)
                routes.packFast.fn(out, outLen, data, dataLen, version);
            else
                routes.pack2008.fn(out, outLen, data, dataLen, flag);
            return 1;
        case Cell::Raw:
            break;
    }
    if (dataLen > 0) std::memcpy(out + kReqHead, data, static_cast<std::size_t>(dataLen));
    outLen += dataLen;
    return 1;
}

namespace {

// The checks a request restore makes before it routes.
bool RequestRoutable(const char* in, int inLen) {
    if (in == nullptr) return Refuse(Reason::null_argument);
    if (inLen < kRoutingBytes) return Refuse(Reason::head_too_short);
    if (LoadI32(in + kWordHeadLen) > inLen) return Refuse(Reason::head_too_short);
    return true;
}

// The raw path of a request restore: an id without a codec, whose records
// travel as they stand. Out of line: the codec ids' restore stays small.
[[gnu::noinline]] int RestoreRequestRaw(char* in, int inLen, std::int32_t flags, char** out, int& outLen) {
    // Coded records of an id this side cannot decode are refused.
    if (flags & TRDCOMP_FLAG_CODED) return Refuse(Reason::unknown_function_id);
    if (inLen >= kReqWordCount + 4 && LoadI32(in + kReqWordCount) < 0 && trdcomp::detail::Modern())
        return Refuse(Reason::negative_count);
    const std::int32_t count = inLen >= kReqWordCount + 4 ? LoadI32(in + kReqWordCount) : 0;
    char* buf = OpenBlock(out, outLen, inLen, kRawSpare, inLen, 0, count > 0 ? count : 0);
    // The request raw path reports success even when the allocation failed
    // (*out is then null and outLen is inLen): callers depend on it. A limit
    // of the caller's refuses before that.
    if (buf == nullptr) {
        const Reason why = trdcomp::detail::Why();
        if (why == Reason::bytes_over_limit || why == Reason::records_over_limit) return 0;
        return IntoCallerBlock(out) ? 0 : 1;
    }
    std::memcpy(buf, in, static_cast<std::size_t>(inLen));
    return 1;
}

// Routes a restore whose block comes from *out (see OpenBlock): a fresh
// allocation when *out is null, else the caller's memory of outLen bytes.
// `routes` are those of the message's id; an id without a codec in the
// message's coding takes `raw`. Inlined into its callers: the restore's own
// call is the codec's.
template <class Routes>
[[gnu::always_inline]] inline int RestoreRouted(const Routes& routes, char* in, int inLen, char** out, int& outLen,
                                                char flag, int (*raw)(char*, int, std::int32_t, char**, int&)) {
    const std::int32_t flags = LoadI32(in + kWordFlags);
    const int version = FastVersion(flags);
    const Cell cell = version != 0 ? routes.restoreFast.cell : routes.restore2008.cell;

    switch (cell) {
        case Cell::Nothing:
        case Cell::HeadOnly:
        case Cell::NoRecords:
            outLen = 0;
            return 1;
        case Cell::Codec:
            return version != 0 ? routes.restoreFast.fn(in, inLen, out, outLen, version)
                                : routes.restore2008.fn(in, inLen, out, outLen, flag);
        case Cell::Raw:
            break;
    }
    return raw(in, inLen, flags, out, outLen);
}

[[gnu::always_inline]] inline int RestoreRequestRouted(char* in, int inLen, char** out, int& outLen, char flag) {
    const auto& routes = trdcomp::detail::FindReqRoutes(LoadI32(in + kWordFuncId));
    return RestoreRouted(routes, in, inLen, out, outLen, flag, RestoreRequestRaw);
}

}  // namespace

int CTrdCompData::RestoreReq2008(char* in, int inLen, char** out, int& outLen, char flag) {
    if (out == nullptr || !RequestRoutable(in, inLen)) return 0;
    *out = nullptr;
    outLen = 0;
    return RestoreRequestRouted(in, inLen, out, outLen, flag);
}

int CTrdCompData::PackAns2008(char* out, int outSize, int& outLen, tagANS_Proc* proc, char* a1,
                              char* a2, char* a3, char* a4, char* a5, char flag, int coding) {
    outLen = 0;
    if (out == nullptr || proc == nullptr) return Refuse(Reason::null_argument);
    // outSize is an unsigned capacity: -1 is the largest. The message's
    // length is an int, so no more than INT_MAX of it is ever used.
    const std::int64_t cap = static_cast<unsigned>(outSize) < static_cast<unsigned>(INT_MAX)
                                 ? static_cast<std::int64_t>(static_cast<unsigned>(outSize))
                                 : std::int64_t{INT_MAX};
    if (cap < kAnsHead) return Refuse(Reason::buffer_too_small);

    const std::int32_t n = proc->nArrayCount;
    const int version = FastVersion(coding);
    const std::int64_t tableLen = n > 1 ? 8 * static_cast<std::int64_t>(n) + 4 : 0;
    const bool writeTable = n > 1 && version == 0;
    std::int64_t length = kAnsHead + (writeTable ? tableLen : 0);
    // The capacity bounds every write: a table that does not fit is refused.
    if (length > cap) return Refuse(Reason::buffer_too_small);

    StoreI32(out + kWordFuncId, proc->nFuncId);
    CopyText(out + 20, proc->szShort, sizeof proc->szShort);
    CopyText(out + 24, proc->szLong, sizeof proc->szLong);
    StoreI32(out + kWordHeadLen, kAnsHead);
    // The flags word is only or-ed into: the caller's buffer holds zero there.
    std::int32_t flags = LoadI32(out + kWordFlags);
    if (n > 1) flags |= TRDCOMP_FLAG_SECTIONS;
    if (version != 0) flags |= 1 << TRDCOMP_FLAG_FAST_SHIFT;  // version 1 whatever was chosen
    StoreI32(out + kWordFlags, flags);
    StoreI32(out + kAnsWordCount, proc->nRecCount[0]);
    StoreI32(out + kAnsWordSize, proc->nRecSize[0]);

    const int entries = n < kMaxTableEntries ? n : kMaxTableEntries;
    if (writeTable) {
        // The length counts all n arrays; only the first five get entries.
        StoreI32(out + kAnsTable, static_cast<std::int32_t>(tableLen));
        for (int i = 0; i < entries; ++i) {
            StoreI32(out + kAnsTable + 4 + 8 * i, proc->nRecCount[i]);
            StoreI32(out + kAnsTable + 8 + 8 * i, proc->nRecSize[i]);
        }
    }

    const auto& routes = trdcomp::detail::FindAnsRoutes(proc->nFuncId);
    const Cell cell = version != 0 ? routes.packFast.cell : routes.pack2008.cell;
    switch (cell) {
        case Cell::HeadOnly:
        case Cell::NoRecords:
        case Cell::Nothing:
            outLen = static_cast<int>(length);
            return 0;
        case Cell::Codec: {
            // The codec appends behind the running length, bounded by outSize;
            // its result only tells whether the message fitted.
            char* const arrays[kMaxTableEntries] = {a1, a2, a3, a4, a5};
            int len = static_cast<int>(length);
            const int fitted = version != 0 ? routes.packFast.fn(out, len, proc, arrays, version, cap)
                                            : routes.pack2008.fn(out, len, proc, arrays, flag, cap);
            outLen = fitted ? len : 0;
            return 0;
        }
        case Cell::Raw:
            break;
    }

    // Raw path: the arrays one after the other, none past the fifth.
    char* const arrays[kMaxTableEntries] = {a1, a2, a3, a4, a5};
    for (int i = 0; i < entries; ++i) {
        const std::int64_t bytes =
            static_cast<std::int64_t>(proc->nRecCount[i]) * proc->nRecSize[i];
        if (bytes == 0) continue;
        if (bytes < 0) return Refuse(Reason::negative_count);
        if (arrays[i] == nullptr) return Refuse(Reason::null_argument);
        if (bytes > cap - length) return Refuse(Reason::buffer_too_small);
        std::memcpy(out + length, arrays[i], static_cast<std::size_t>(bytes));
        length += bytes;
    }
    outLen = static_cast<int>(length);
    return 0;
}

namespace {

bool AnswerRoutable(const char* in, int inLen) {
    if (in == nullptr) return Refuse(Reason::null_argument);
    if (inLen < kRoutingBytes) return Refuse(Reason::head_too_short);
    if (inLen < LoadI32(in + kWordHeadLen)) return Refuse(Reason::head_too_short);
    return true;
}

// The raw path of an answer restore: head, section table (T bytes) and
// records (D bytes) as sent. Out of line, as the request's.
[[gnu::noinline]] int RestoreAnswerRaw(char* in, int inLen, std::int32_t flags, char** out, int& outLen) {
    const std::int32_t headLen = LoadI32(in + kWordHeadLen);
    if (flags & TRDCOMP_FLAG_CODED) return Refuse(Reason::unknown_function_id);
    // The head is copied whole and the table and records are read behind the
    // head length: all of it has to lie inside the message.
    if (inLen < kAnsHead) return Refuse(Reason::head_too_short);
    if (headLen < 0) return Refuse(Reason::head_length_invalid);
    const std::int64_t room = static_cast<std::int64_t>(inLen) - headLen;
    std::int64_t tableLen = 0;
    std::int64_t bytes = 0;
    std::int64_t records = 0;
    if (flags & TRDCOMP_FLAG_SECTIONS) {
        if (room < 4) return Refuse(Reason::section_table_invalid);
        tableLen = LoadI32(in + headLen);
        if (tableLen < 4 || tableLen > room) return Refuse(Reason::section_table_invalid);
        // Every entry describes records that lie inside the message: no
        // negative count or size, and a sum that stays below the room (each
        // term is checked before it is added, so nothing overflows).
        const std::int64_t entries = (tableLen - 4) / 8;
        const char* entry = in + headLen + 4;
        for (std::int64_t i = 0; i < entries; ++i, entry += 8) {
            const std::int64_t count = LoadI32(entry);
            const std::int64_t size = LoadI32(entry + 4);
            if (count < 0 || size < 0) return Refuse(Reason::section_entry_invalid);
            const std::int64_t term = count * size;
            if (term > room - tableLen - bytes) return Refuse(Reason::section_entry_invalid);
            bytes += term;
            records += count;
        }
    } else {
        const std::int64_t count = LoadI32(in + kAnsWordCount);
        const std::int64_t size = LoadI32(in + kAnsWordSize);
        bytes = count * size;
        if (count < 0 && trdcomp::detail::Modern()) return Refuse(Reason::negative_count);
        if (bytes < 0 || bytes > room - tableLen) return Refuse(Reason::records_past_end);
        records = count > 0 ? count : 0;
    }
    const std::int64_t dataLen = bytes;
    const std::int64_t total = kAnsHead + tableLen + dataLen;
    if (total > INT32_MAX) return Refuse(Reason::size_not_representable);
    if (dataLen < room - tableLen && trdcomp::detail::Strict()) return Refuse(Reason::trailing_bytes);

    char* buf = OpenBlock(out, outLen, total, kRawSpare, total, 0, records);
    if (buf == nullptr) return 0;
    std::memcpy(buf, in, kAnsHead);
    StoreI32(buf + kWordHeadLen, kAnsHead);
    std::memcpy(buf + kAnsHead, in + headLen, static_cast<std::size_t>(tableLen));
    std::memcpy(buf + kAnsHead + tableLen, in + headLen + tableLen, static_cast<std::size_t>(dataLen));
    return 1;
}

[[gnu::always_inline]] inline int RestoreAnswerRouted(char* in, int inLen, char** out, int& outLen, char flag) {
    const auto& routes = trdcomp::detail::FindAnsRoutes(LoadI32(in + kWordFuncId));
    return RestoreRouted(routes, in, inLen, out, outLen, flag, RestoreAnswerRaw);
}

}  // namespace

int CTrdCompData::RestoreAns2008(char* in, int inLen, char** out, int& outLen, char flag) {
    if (out == nullptr || !AnswerRoutable(in, inLen)) return 0;
    *out = nullptr;
    outLen = 0;
    return RestoreAnswerRouted(in, inLen, out, outLen, flag);
}

namespace trdcomp::detail {

TRDCOMP_API constinit thread_local CallContext* tCall = nullptr;

namespace {
// The context of the scope EnterCall opens (the modern calls of the header).
constinit thread_local CallContext tScope;
}  // namespace

void EnterCall(bool strict, std::uint64_t maxBytes, std::uint64_t maxRecords) noexcept {
    CallContext& c = tScope;
    c = CallContext{strict, Reason::none, maxBytes, maxRecords, 0};
    tCall = &c;
}

Reason LeaveCall(std::uint64_t* needed) noexcept {
    tCall = nullptr;
    if (needed != nullptr) *needed = tScope.needed;
    return tScope.reason;
}

// Makes the views RestoreRequestIntoView and RestoreAnswerIntoView return.
struct ViewAccess {
    static RestoredView Done(bool request, char* p, int len) noexcept { return RestoredView(request, p, len); }
    static RestoredView Refused(bool request, Reason why, std::size_t needed = 0) noexcept {
        return RestoredView(request, why, needed);
    }
};

namespace {

// Restores `in` into dst[0, capacity): 1 done (*len: the restored length), 0
// refused, -1 dst too small (*len: the bytes needed). Inlined into
// RestoreIntoBlock and IntoView.
template <bool kRequest>
[[gnu::always_inline]] inline int RestoreIntoCallerBlock(char* dst, std::size_t capacity, const char* in,
                                                         std::size_t inLen, char flag, std::size_t* len) noexcept {
    if (dst == nullptr) return Refuse(Reason::null_argument);
    if (inLen > static_cast<std::size_t>(INT_MAX)) return Refuse(Reason::length_too_large);
    char* msg = const_cast<char*>(in);
    const int n = static_cast<int>(inLen);
    if (!(kRequest ? RequestRoutable(msg, n) : AnswerRoutable(msg, n))) return 0;
    char* block = dst;
    const int room = capacity > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(capacity);
    int outLen = room;
    const int rc = kRequest ? RestoreRequestRouted(msg, n, &block, outLen, flag)
                            : RestoreAnswerRouted(msg, n, &block, outLen, flag);
    *len = outLen > 0 ? static_cast<std::size_t>(outLen) : 0;
    if (rc == 1) [[likely]] return 1;
    // A refusal leaves outLen within the capacity; a block too small, above.
    return outLen > room ? -1 : 0;
}

// The view of a restore RestoreIntoCallerBlock did not complete: rc 0
// refused (the scope's reason), -1 dst too small.
[[gnu::noinline]] RestoredView Unrestored(bool request, int rc, std::size_t len, const CallContext& scope) noexcept {
    if (rc < 0) return ViewAccess::Refused(request, Reason::buffer_too_small, len);
    // A refusal of the dispatcher's own checks records no reason.
    const Reason r = scope.reason != Reason::none ? scope.reason : Reason::head_length_invalid;
    const bool limit = trdcomp::ErrcOf(r) == trdcomp::Errc::limit_exceeded;
    return ViewAccess::Refused(request, r, limit ? static_cast<std::size_t>(scope.needed) : 0);
}

// The body of RestoreRequestIntoView and RestoreAnswerIntoView, the hot path
// of a receiver: the scope's context lives on this stack (EnterCall's is
// thread-local, which every access reaches through the thread pointer) and
// everything but the codec's own restore is inlined.
template <bool kRequest>
[[gnu::always_inline]] inline RestoredView IntoView(char* dst, std::size_t capacity, const char* in,
                                                    std::size_t inLen, const RestoreOptions& options) noexcept {
    if (in == nullptr || (dst == nullptr && capacity != 0))
        return ViewAccess::Refused(kRequest, Reason::null_argument);
    char none = 0;  // a zero-sized block still needs an address
    CallContext scope{options.strict, Reason::none, Limit(options.maxBytes), Limit(options.maxRecords), 0};
    tCall = &scope;
    std::size_t len = 0;
    char* const block = dst != nullptr ? dst : &none;
    const int rc = RestoreIntoCallerBlock<kRequest>(block, capacity, in, inLen, options.flag, &len);
    tCall = nullptr;
    if (rc == 1) [[likely]] return ViewAccess::Done(kRequest, len > 0 ? dst : nullptr, static_cast<int>(len));
    return Unrestored(kRequest, rc, len, scope);
}

}  // namespace

int RestoreIntoBlock(bool request, char* dst, std::size_t capacity, const char* in, std::size_t inLen, char flag,
                     std::size_t* len) noexcept {
    *len = 0;
    return request ? RestoreIntoCallerBlock<true>(dst, capacity, in, inLen, flag, len)
                   : RestoreIntoCallerBlock<false>(dst, capacity, in, inLen, flag, len);
}

RestoredView RestoreRequestIntoView(char* dst, std::size_t capacity, const char* in, std::size_t inLen,
                                    const RestoreOptions& options) noexcept {
    return IntoView<true>(dst, capacity, in, inLen, options);
}

RestoredView RestoreAnswerIntoView(char* dst, std::size_t capacity, const char* in, std::size_t inLen,
                                   const RestoreOptions& options) noexcept {
    return IntoView<false>(dst, capacity, in, inLen, options);
}

std::size_t RestoredBytes(bool request, const char* in, std::size_t inLen, char flag) noexcept {
    char none = 0;
    std::size_t len = 0;
    const int rc = RestoreIntoBlock(request, &none, 0, in, inLen, flag, &len);
    return rc == 0 ? 0 : len;
}

}  // namespace trdcomp::detail
