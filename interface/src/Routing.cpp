#include "Routing.h"

#include <array>

namespace trdcomp::detail {

namespace {

struct ReqRow {
    int id;
    ReqRoutes routes;
};
struct AnsRow {
    int id;
    AnsRoutes routes;
};

// Spreads the listed rows over the dense table; unlisted ids stay raw.
template <class Row, std::size_t N>
constexpr auto Dense(const Row (&rows)[N]) {
    std::array<decltype(Row::routes), kRouteSlots> table{};
    for (const Row& row : rows) table[static_cast<std::size_t>(RouteSlot(row.id))] = row.routes;
    return table;
}

}  // namespace

// Builds the route tables; a friend of CTrdCompData, so it can name the
// private codec members.
struct CodecAccess {
    static constexpr ReqRoutes kReqHeadOnly{{Cell::HeadOnly}, {Cell::HeadOnly}, {Cell::Nothing}, {Cell::Nothing}};
    static constexpr ReqRoutes kReqNoRecords{{Cell::NoRecords}, {Cell::NoRecords}, {}, {}};
    static constexpr AnsRoutes kAnsHeadOnly{{Cell::HeadOnly}, {Cell::HeadOnly}, {Cell::Nothing}, {Cell::Nothing}};

    static constexpr ReqRow kReqRows[] = {
        {1000, kReqNoRecords},
        {1001, kReqNoRecords},
        {1017, kReqHeadOnly},
    };
    static constexpr AnsRow kAnsRows[] = {
        {1017, kAnsHeadOnly},
    };

    static constexpr auto kReqTable = Dense(kReqRows);
    static constexpr auto kAnsTable = Dense(kAnsRows);
};

namespace {
constexpr ReqRoutes kReqRaw{};
constexpr AnsRoutes kAnsRaw{};
}  // namespace

const ReqRoutes& FindReqRoutes(int id) noexcept {
    const int slot = RouteSlot(id);
    return slot < 0 ? kReqRaw : CodecAccess::kReqTable[static_cast<std::size_t>(slot)];
}

const AnsRoutes& FindAnsRoutes(int id) noexcept {
    const int slot = RouteSlot(id);
    return slot < 0 ? kAnsRaw : CodecAccess::kAnsTable[static_cast<std::size_t>(slot)];
}

}  // namespace trdcomp::detail
