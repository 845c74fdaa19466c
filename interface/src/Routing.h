// Routing of function ids to codecs: one entry per id and direction, with a
// cell for each coding. Ids 1000..1261 index a dense table; 8996..8999 follow
// it; every other id takes the raw path without a table look-up.
#pragma once

#include "trdcomp/TrdCompData.h"

namespace trdcomp::detail {

enum class Cell : unsigned char {
    Raw,        // no codec: the bytes travel as they stand
    Codec,      // the cell's function codes the records
    NoRecords,  // request packing: head alone, record count forced to 0
    HeadOnly,   // packing: head alone, record count kept
    Nothing,    // restoring: succeed with nothing allocated
};

using PackReq2008Fn = int (*)(char*, int&, char*, int, char);
using PackReqFastFn = int (*)(char*, int&, char*, int, int);
using RestoreReq2008Fn = int (*)(char*, int, char**, int&, char);
using RestoreReqFastFn = int (*)(char*, int, char**, int&, int);
using PackAns2008Fn = int (*)(char*, int&, tagANS_Proc*, char*, char*, char*, char*, char*, char);
using PackAnsFastFn = int (*)(char*, int&, tagANS_Proc*, char*, char*, char*, char*, char*, int);
using RestoreAns2008Fn = int (*)(char*, int, char**, int&, char);
using RestoreAnsFastFn = int (*)(char*, int, char**, int&, int);

template <class Fn>
struct Route {
    Cell cell = Cell::Raw;
    Fn fn = nullptr;
};

struct ReqRoutes {
    Route<PackReq2008Fn> pack2008;
    Route<PackReqFastFn> packFast;
    Route<RestoreReq2008Fn> restore2008;
    Route<RestoreReqFastFn> restoreFast;
};

struct AnsRoutes {
    Route<PackAns2008Fn> pack2008;
    Route<PackAnsFastFn> packFast;
    Route<RestoreAns2008Fn> restore2008;
    Route<RestoreAnsFastFn> restoreFast;
};

inline constexpr int kDenseFirst = 1000;
inline constexpr int kDenseCount = 262;  // 1000..1261
inline constexpr int kHighFirst = 8996;
inline constexpr int kHighCount = 4;     // 8996..8999
inline constexpr int kRouteSlots = kDenseCount + kHighCount;

// Slot of a function id in the route tables, or -1 for an id without one.
constexpr int RouteSlot(int id) noexcept {
    if (id > kHighFirst - 1) return id < kHighFirst + kHighCount ? kDenseCount + (id - kHighFirst) : -1;
    const unsigned dense = static_cast<unsigned>(id) - static_cast<unsigned>(kDenseFirst);
    return dense < static_cast<unsigned>(kDenseCount) ? static_cast<int>(dense) : -1;
}

const ReqRoutes& FindReqRoutes(int id) noexcept;
const AnsRoutes& FindAnsRoutes(int id) noexcept;

}  // namespace trdcomp::detail
