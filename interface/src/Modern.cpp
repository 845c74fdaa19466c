// The modern face: the library's entry points behind trdcomp.hpp. Each makes
// a modern call (the caller's capacity, limits and strict mode; negative
// counts refused; a pack that reports the bytes it needs) into the core's
// dispatchers, never through a classic member, and turns the call's outcome
// into a PackResult or a view. Nothing here allocates but the owned restore.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Dispatch.h"
#include "PackRouting.h"
#include "RestoreRouting.h"
#include "Call.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace trdcomp::detail {

// Makes the views and owned results the modern restores return.
struct ViewAccess {
    static RestoredView Done(bool request, char* p, int len) noexcept { return RestoredView(request, p, len); }
    static RestoredView Refused(bool request, Reason why, std::size_t needed = 0) noexcept {
        return RestoredView(request, why, needed);
    }
    static void Own(Restored& r, bool request, char* p, int len, Reason why, std::size_t needed) noexcept {
        r.p_ = p;
        r.len_ = len;
        r.request_ = request;
        r.why_ = why;
        r.error_ = ErrcOf(why);
        r.needed_ = needed;
    }
};

namespace {

std::uint64_t Limit(std::size_t n) noexcept {
    return n == static_cast<std::size_t>(-1) ? UINT64_MAX : static_cast<std::uint64_t>(n);
}

Call ModernRestoreCall(const RestoreOptions& options) noexcept {
    return ModernCall(options.strict, Limit(options.maxBytes), Limit(options.maxRecords));
}

// A pack's capacity as the call counts it: no more than an int's worth is
// ever written.
std::int64_t PackCapacity(std::size_t n) noexcept {
    return n > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<std::int64_t>(n);
}

PackResult Fail(Reason r, std::size_t needed = 0) noexcept { return PackResult{0, ErrcOf(r), needed, r}; }

PackResult Outcome(const Call& call, int rc, int len) noexcept {
    if (rc == 1) return PackResult{static_cast<std::size_t>(len), Errc::ok, 0, Reason::none};
    const Reason why = call.reason != Reason::none ? call.reason : Reason::buffer_too_small;
    return Fail(why, why == Reason::buffer_too_small ? static_cast<std::size_t>(call.needed) : 0);
}

Reason CheckCoding(const Coding& c) noexcept {
    return c.fastVersion < 0 || c.fastVersion > 15 ? Reason::invalid_fast_version : Reason::none;
}

}  // namespace

namespace {

// What a request's arguments refuse before anything is written, or none.
Reason RequestArgumentsRefused(const char* out, const tagREQ_HEAD& given, std::size_t dataLen,
                               const Coding& coding) noexcept {
    if (out == nullptr) return Reason::null_argument;
    if (dataLen > static_cast<std::size_t>(INT_MAX)) return Reason::length_too_large;
    if (const Reason why = CheckCoding(coding); why != Reason::none) return why;
    if (coding.IsFast() && given.nRecCount > 0xFFFF) return Reason::too_many_fast_records;
    return Reason::none;
}

// A request packed by a modern call: the caller's capacity, and a pack that
// measures what it cannot write.
template <bool kHeadFits>
[[gnu::always_inline]] inline PackResult PackModernRequest(char* out, std::size_t capacity, const tagREQ_HEAD& given,
                                                           const char* data, std::size_t dataLen,
                                                           const Coding& coding) noexcept {
    // The head goes as given, its coding bits replaced by the coding's.
    const std::int32_t flags =
        (given.nFlags & ~TRDCOMP_FLAG_FAST_MASK) | (coding.fastVersion << TRDCOMP_FLAG_FAST_SHIFT);
    Call call = ModernCall(coding.strict);
    call.capacity = PackCapacity(capacity);
    call.capacityKnown = true;
    if constexpr (kHeadFits) {
        if (call.capacity < static_cast<std::int64_t>(head::kRequestLength)) __builtin_unreachable();
    }
    int len = 0;
    const int rc = PackRequestMessage(call, out, len, given, flags, data, static_cast<int>(dataLen), coding.flag);
    return Outcome(call, rc, len);
}

// The refusals and a capacity below the head, out of the sender's way.
[[gnu::noinline]] PackResult PackRequestCold(char* out, std::size_t capacity, const tagREQ_HEAD& given,
                                             const char* data, std::size_t dataLen, const Coding& coding) noexcept {
    if (const Reason why = RequestArgumentsRefused(out, given, dataLen, coding); why != Reason::none) return Fail(why);
    return PackModernRequest<false>(out, capacity, given, data, dataLen, coding);
}

}  // namespace

PackResult PackRequestInto(char* out, std::size_t capacity, const tagREQ_HEAD& given, const char* data,
                           std::size_t dataLen, const Coding& coding) noexcept {
    const bool plain = out != nullptr && dataLen <= static_cast<std::size_t>(INT_MAX) &&
                       static_cast<unsigned>(coding.fastVersion) <= 15u &&
                       (coding.fastVersion == 0 || given.nRecCount <= 0xFFFF) &&
                       capacity >= static_cast<std::size_t>(head::kRequestLength);
    if (!plain) [[unlikely]]
        return PackRequestCold(out, capacity, given, data, dataLen, coding);
    return PackModernRequest<true>(out, capacity, given, data, dataLen, coding);
}

PackResult PackAnswerInto(char* out, std::size_t capacity, const tagANS_Proc& given, const Array* arrays,
                          std::size_t arrayCount, const Coding& coding) noexcept {
    if (out == nullptr) return Fail(Reason::null_argument);
    if (arrayCount > 5) return Fail(Reason::too_many_arrays);
    if (const Reason why = CheckCoding(coding); why != Reason::none) return Fail(why);
    tagANS_Proc proc = given;
    char* a[5] = {};
    proc.nArrayCount = static_cast<int>(arrayCount);
    for (std::size_t j = 0; j < arrayCount; ++j) {
        if (coding.IsFast() && arrays[j].count > 0xFFFF) return Fail(Reason::too_many_fast_records);
        a[j] = const_cast<char*>(arrays[j].data);
        proc.nRecCount[j] = arrays[j].count;
        proc.nRecSize[j] = arrays[j].size;
    }
    Call call = ModernCall(coding.strict);
    call.capacity = PackCapacity(capacity);
    call.capacityKnown = true;
    // The flags word is or-ed into, and bytes 12..19 are not written: a
    // buffer that takes the head starts with them clear.
    if (capacity >= static_cast<std::size_t>(TRDCOMP_ANS_HEAD_LEN)) std::memset(out, 0, 20);
    int len = 0;
    const int rc = DispatchPackAnswer(call, out, len, proc, a, coding.flag, coding.fastVersion << TRDCOMP_FLAG_FAST_SHIFT);
    return Outcome(call, rc, len);
}

namespace {

template <bool kRequest>
Restored Owned(const char* in, std::size_t inLen, const RestoreOptions& options) noexcept {
    Restored r;
    if (in == nullptr || inLen > static_cast<std::size_t>(INT_MAX)) {
        ViewAccess::Own(r, kRequest, nullptr, 0, in == nullptr ? Reason::null_argument : Reason::length_too_large, 0);
        return r;
    }
    Call call = ModernRestoreCall(options);
    char* p = nullptr;
    int len = 0;
    const int rc = kRequest ? DispatchRestoreRequest(call, in, static_cast<int>(inLen), &p, len, options.flag)
                            : DispatchRestoreAnswer(call, in, static_cast<int>(inLen), &p, len, options.flag);
    Reason why = Reason::none;
    if (rc != 1) {
        why = call.reason != Reason::none ? call.reason : Reason::head_length_invalid;
    } else if (p == nullptr && len > 0) {
        why = Reason::out_of_memory;  // the raw request path's allocation failed
    }
    if (why != Reason::none) {
        CTrdCompData::ReleaseAnsData(p);  // a refusal after the block was handed out
        const bool limit = ErrcOf(why) == Errc::limit_exceeded;
        ViewAccess::Own(r, kRequest, nullptr, 0, why, limit ? static_cast<std::size_t>(call.needed) : 0);
        return r;
    }
    ViewAccess::Own(r, kRequest, p, len, Reason::none, 0);
    return r;
}

// The view of a restore into the caller's block that did not complete.
[[gnu::noinline]] RestoredView Unrestored(bool request, const Call& call) noexcept {
    const Reason why = call.reason != Reason::none ? call.reason : Reason::head_length_invalid;
    const Errc e = ErrcOf(why);
    const bool sized = e == Errc::limit_exceeded || e == Errc::buffer_too_small;
    return ViewAccess::Refused(request, why, sized ? static_cast<std::size_t>(call.needed) : 0);
}

// The hot path of a receiver: the call lives on this stack and everything
// but the engine's own restore is inlined.
template <bool kRequest>
[[gnu::always_inline]] inline RestoredView IntoView(char* dst, std::size_t capacity, const char* in, std::size_t inLen,
                                                    const RestoreOptions& options) noexcept {
    if (in == nullptr || (dst == nullptr && capacity != 0)) return ViewAccess::Refused(kRequest, Reason::null_argument);
    if (inLen > static_cast<std::size_t>(INT_MAX)) return ViewAccess::Refused(kRequest, Reason::length_too_large);
    char none = 0;  // a zero-sized block still needs an address
    Call call = ModernRestoreCall(options);
    call.source = BlockSource::caller;
    call.block = dst != nullptr ? dst : &none;
    call.capacity = capacity > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<std::int64_t>(capacity);
    char* block = nullptr;
    int len = 0;
    const int rc = RestoreMessage<kRequest>(call, in, static_cast<int>(inLen), &block, len, options.flag);
    if (rc == 1) [[likely]] return ViewAccess::Done(kRequest, len > 0 ? dst : nullptr, len);
    return Unrestored(kRequest, call);
}

}  // namespace

Restored RestoreRequestOwned(const char* in, std::size_t inLen, const RestoreOptions& options) noexcept {
    return Owned<true>(in, inLen, options);
}

Restored RestoreAnswerOwned(const char* in, std::size_t inLen, const RestoreOptions& options) noexcept {
    return Owned<false>(in, inLen, options);
}

RestoredView RestoreRequestIntoView(char* dst, std::size_t capacity, const char* in, std::size_t inLen,
                                    const RestoreOptions& options) noexcept {
    return IntoView<true>(dst, capacity, in, inLen, options);
}

RestoredView RestoreAnswerIntoView(char* dst, std::size_t capacity, const char* in, std::size_t inLen,
                                   const RestoreOptions& options) noexcept {
    return IntoView<false>(dst, capacity, in, inLen, options);
}

std::size_t RestoredBytes(bool request, const char* in, std::size_t inLen, const RestoreOptions& options) noexcept {
    // A restore into an empty block: refused as too small with the bytes it
    // needs, or done when it keeps nothing. Within the caller's limits; the
    // strict checks need the records decoded, so they do not apply.
    RestoreOptions lenient = options;
    lenient.strict = false;
    const RestoredView v = request ? IntoView<true>(nullptr, 0, in, inLen, lenient)
                                   : IntoView<false>(nullptr, 0, in, inLen, lenient);
    if (v) return v.Size();
    return v.Error() == Errc::buffer_too_small ? v.Needed() : 0;
}

}  // namespace trdcomp::detail
