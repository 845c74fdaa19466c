// Routing of function ids to codecs: one entry per id and direction, with a
// cell for each coding. Ids 1000..1261 index a dense table; 8996..8999 follow
// it; every other id takes the raw path without a table look-up. A codec
// cell holds the engine's instance for the id's layout or shape, which takes
// the explicit call (common/Call.h); the classic per-id members are thin
// adapters over the same instances.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Call.h"
#include "CatalogueKinds.h"
#include "RouteSlots.h"
#include "trdcomp/TrdCompData.h"

namespace trdcomp::detail {

// What a routing cell says, as the catalogue generator types it for every
// reader of the routing: codec (the cell's function codes the records), raw
// (the bytes travel as they stand), no_records (request packing: head alone,
// record count forced to 0), head_only (packing: head alone, count kept),
// nothing (restoring: succeed with nothing allocated).
using Cell = generated::CellKind;

// The engines' entry points: the call, then the classic arguments (the 2008
// codings take the flag, the Fast ones the version). Answer packers take the
// arrays as one table.
using PackReq2008Fn = int (*)(Call&, char*, int&, const char*, int, char);
using PackReqFastFn = int (*)(Call&, char*, int&, const char*, int, int);
using RestoreReq2008Fn = int (*)(Call&, const char*, int, char**, int&, char);
using RestoreReqFastFn = int (*)(Call&, const char*, int, char**, int&, int);
using PackAns2008Fn = int (*)(Call&, char*, int&, const tagANS_Proc*, char* const*, char);
using PackAnsFastFn = int (*)(Call&, char*, int&, const tagANS_Proc*, char* const*, int);
using RestoreAns2008Fn = int (*)(Call&, const char*, int, char**, int&, char);
using RestoreAnsFastFn = int (*)(Call&, const char*, int, char**, int&, int);

template <class Fn>
struct Route {
    Cell cell = Cell::raw;
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

// kDenseFirst, kDenseCount, kHighFirst, kHighCount: RouteSlots.h, written
// by the catalogue generator.
inline constexpr int kRouteSlots = kDenseCount + kHighCount;

// Slot of a function id in the route tables, or -1 for an id without one.
constexpr int RouteSlot(int id) noexcept {
    if (id > kHighFirst - 1) return id < kHighFirst + kHighCount ? kDenseCount + (id - kHighFirst) : -1;
    const unsigned dense = static_cast<unsigned>(id) - static_cast<unsigned>(kDenseFirst);
    return dense < static_cast<unsigned>(kDenseCount) ? static_cast<int>(dense) : -1;
}

struct ReqRow {
    int id;
    ReqRoutes routes;
};
struct AnsRow {
    int id;
    AnsRoutes routes;
};

using ReqTable = std::array<ReqRoutes, kRouteSlots>;
using AnsTable = std::array<AnsRoutes, kRouteSlots>;

// Spreads the rows of a routing table over the dense table; ids without a
// row stay raw. Evaluated at compile time: a row whose id has no slot, or
// two rows for one id, stop the build.
template <class Row, std::size_t N>
constexpr auto Dense(const Row (&rows)[N]) {
    std::array<decltype(Row::routes), kRouteSlots> table{};
    std::array<bool, kRouteSlots> seen{};
    for (const Row& row : rows) {
        const int slot = RouteSlot(row.id);
        if (slot < 0) throw "a routed id outside 1000..1261 and 8996..8999";
        if (seen[static_cast<std::size_t>(slot)]) throw "two routing rows for one id";
        seen[static_cast<std::size_t>(slot)] = true;
        table[static_cast<std::size_t>(slot)] = row.routes;
    }
    return table;
}

// The tables, generated from the catalogue's routing data.
extern const ReqTable kReqRouteTable;
extern const AnsTable kAnsRouteTable;

// The largest coded record of each array an id's packer may write, per
// coding (framing excluded; 0 where the coding codes no records): what the
// size bounds of the modern interface are computed from.
struct RecordBounds {
    std::array<std::uint32_t, 3> pack2008{};  // per array, in array order
    std::array<std::uint32_t, 3> packFast{};
    int arrays2008 = 0;  // arrays the packer codes
    int arraysFast = 0;
    std::array<std::uint32_t, 3> pack2008Exported{};  // 2008 with another KXPfdk (its contract)
};
struct BoundRow {
    int id;
    RecordBounds routes;
};
using BoundTable = std::array<RecordBounds, kRouteSlots>;
extern const BoundTable kReqBoundTable;
extern const BoundTable kAnsBoundTable;

inline const RecordBounds& FindBounds(const BoundTable& table, int id) noexcept {
    static constexpr RecordBounds none{};
    const int slot = RouteSlot(id);
    return slot < 0 ? none : table[static_cast<std::size_t>(slot)];
}

inline const ReqRoutes& FindReqRoutes(int id) noexcept {
    static constexpr ReqRoutes raw{};
    const int slot = RouteSlot(id);
    return slot < 0 ? raw : kReqRouteTable[static_cast<std::size_t>(slot)];
}

inline const AnsRoutes& FindAnsRoutes(int id) noexcept {
    static constexpr AnsRoutes raw{};
    const int slot = RouteSlot(id);
    return slot < 0 ? raw : kAnsRouteTable[static_cast<std::size_t>(slot)];
}

}  // namespace trdcomp::detail
