// The call scope of the modern interface on this thread: the caller's limits
// and strict mode, and the reason of the last refusal. A call of the modern
// interface points tCall at its context for the length of the call; the
// engines and dispatchers read it once per message (never per field or
// record). Outside a scope tCall is null and the classic members behave as
// they always did: no limits, not strict, no reasons recorded.
#pragma once

#include <cstdint>

#include "trdcomp/Reasons.hpp"
#include "trdcomp/TrdCompExport.h"

#if defined(__GNUC__) || defined(__clang__)
// One load from the thread pointer, no call: the library is loaded with its
// program or early enough for the static TLS block.
#define TRDCOMP_TLS_FAST __attribute__((tls_model("initial-exec")))
#else
#define TRDCOMP_TLS_FAST
#endif

namespace trdcomp::detail {

struct CallContext {
    bool strict = false;
    Reason reason = Reason::none;
    std::uint64_t maxBytes = UINT64_MAX;
    std::uint64_t maxRecords = UINT64_MAX;
    std::uint64_t needed = 0;  // with a limit refusal: the bytes the restore needs
};

// Exported: engine code instantiated outside the library (tests, tools)
// shares the library's scope.
extern TRDCOMP_API constinit thread_local CallContext* tCall TRDCOMP_TLS_FAST;

// Inside a call of the modern interface?
inline bool Modern() noexcept { return tCall != nullptr; }
inline bool Strict() noexcept {
    const CallContext* c = tCall;
    return c != nullptr && c->strict;
}
// The reason the call stopped for (none outside a scope).
inline Reason Why() noexcept {
    const CallContext* c = tCall;
    return c != nullptr ? c->reason : Reason::none;
}

// Records why the call stops and returns the refusal code 0.
inline int Refuse(Reason r) noexcept {
    if (CallContext* c = tCall) c->reason = r;
    return 0;
}

// Checks the caller's limits before a restore allocates or writes: `records`
// the records it will fill, `needed` the bytes it needs. False (the reason
// recorded) when one is exceeded.
inline bool WithinLimits(std::int64_t records, std::int64_t needed) noexcept {
    CallContext* c = tCall;
    if (c == nullptr) return true;
    if (static_cast<std::uint64_t>(needed) > c->maxBytes) {
        c->reason = Reason::bytes_over_limit;
        c->needed = static_cast<std::uint64_t>(needed);
        return false;
    }
    if (static_cast<std::uint64_t>(records) > c->maxRecords) {
        c->reason = Reason::records_over_limit;
        c->needed = static_cast<std::uint64_t>(needed);
        return false;
    }
    return true;
}

// Where a strict restore stopped reading: the cursor after the last record it
// decoded (past inLen when a record's length passed the end), against the
// records decoded and those the message states.
inline Reason StrictEnd(std::int64_t cursor, std::int64_t inLen, std::int64_t decoded, std::int64_t records) noexcept {
    if (cursor > inLen) return Reason::ends_inside_record;
    if (decoded < records) return cursor < inLen ? Reason::ends_inside_record : Reason::count_not_held;
    if (cursor < inLen) return Reason::trailing_bytes;
    return Reason::none;
}

}  // namespace trdcomp::detail
