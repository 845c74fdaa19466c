// The routing of a restore, in line: the checks a received message passes
// before it is routed, and the hand-over to the routed engine instance or to
// the raw path of its direction. Dispatch.cpp makes the dispatchers of it;
// the modern RestoreInto (Modern.cpp) inlines it, so that a receiver's hot
// path pays one call into the library and the engine's own.
#pragma once

#include "Routing.h"
#include "Call.h"
#include "trdcomp/MessageHead.hpp"

namespace trdcomp::detail {

// The raw paths (ids without a codec in the message's coding): out of line,
// so that the codec ids' restore stays small.
int RestoreRequestRaw(Call& call, const char* in, int inLen, std::int32_t flags, char** out, int& outLen);
int RestoreAnswerRaw(Call& call, const char* in, int inLen, std::int32_t flags, char** out, int& outLen);

// The checks every restore makes before it routes: the routing words
// readable and the head length word not past the end.
[[gnu::always_inline]] inline bool Routable(Call& call, const char* in, int inLen) {
    if (in == nullptr) return call.Refuse(Reason::null_argument);
    if (inLen < static_cast<int>(head::kRoutingBytes)) return call.Refuse(Reason::head_too_short);
    if (head::Load(in, head::kLengthAt) > inLen) return call.Refuse(Reason::head_too_short);
    return true;
}

// Routes a restore by the message's id and coding. `routes` are those of the
// id; an id without a codec in the message's coding takes `raw`.
template <class Routes>
[[gnu::always_inline]] inline int RestoreRouted(Call& call, const Routes& routes, const char* in, int inLen,
                                                char** out, int& outLen, char flag,
                                                int (*raw)(Call&, const char*, int, std::int32_t, char**, int&)) {
    const std::int32_t flags = head::Load(in, head::kFlagsAt);
    const int version = head::FastVersion(flags);
    const Cell cell = version != 0 ? routes.restoreFast.cell : routes.restore2008.cell;
    switch (cell) {
        case Cell::nothing:
        case Cell::head_only:
        case Cell::no_records:
            outLen = 0;
            return 1;
        case Cell::codec:
            return version != 0 ? routes.restoreFast.fn(call, in, inLen, out, outLen, version)
                                : routes.restore2008.fn(call, in, inLen, out, outLen, flag);
        case Cell::raw:
            break;
    }
    return raw(call, in, inLen, flags, out, outLen);
}

template <bool kRequest>
[[gnu::always_inline]] inline int RestoreMessage(Call& call, const char* in, int inLen, char** out, int& outLen,
                                                 char flag) {
    if (!Routable(call, in, inLen)) return 0;
    *out = nullptr;
    outLen = 0;
    const std::int32_t id = head::Load(in, head::kFunctionIdAt);
    if constexpr (kRequest) {
        return RestoreRouted(call, FindReqRoutes(id), in, inLen, out, outLen, flag, RestoreRequestRaw);
    } else {
        return RestoreRouted(call, FindAnsRoutes(id), in, inLen, out, outLen, flag, RestoreAnswerRaw);
    }
}

}  // namespace trdcomp::detail
