// Which fields of each Fast record were sent: the presence map of every
// record, read by the Fast engine's own map reader, laid over the layout's
// fields in coding order (as the catalogue's description gives it).
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Message.h"
#include "fastcodec/FastPrimitives.h"
#include "trdcomp/MessageHead.hpp"

namespace tool {

namespace {

std::uint16_t U16(const std::vector<char>& b, std::size_t at) {
    return at + 2 <= b.size() ? static_cast<std::uint16_t>(static_cast<unsigned char>(b[at]) |
                                                           static_cast<unsigned char>(b[at + 1]) << 8)
                              : 0;
}

}  // namespace

std::vector<std::vector<std::map<int, Origin>>> SentFields(const Decoded& m) {
    std::vector<std::vector<std::map<int, Origin>>> out(m.sections.size());
    if (m.fastVersion == 0 || m.wire.size() < 4) return out;
    const std::int32_t headLen = HeadWord(m.wire, trdcomp::head::kLengthAt);
    const std::int32_t flags = HeadWord(m.wire, trdcomp::head::kFlagsAt);
    if (!trdcomp::head::Coded(flags) || headLen < 0) return out;
    // The stream: a u16 count per array, then each array's records, a u16
    // length and the coded record each.
    const std::size_t arrays = m.sections.size();
    std::int64_t cursor = headLen + 2 * static_cast<std::int64_t>(arrays);
    const trdcomp::fast::BoundedSource src{reinterpret_cast<const trdcomp::fast::byte*>(m.wire.data()),
                                           static_cast<std::int64_t>(m.wire.size())};
    for (std::size_t j = 0; j < arrays; ++j) {
        const Section& s = m.sections[j];
        const int coded = U16(m.wire, static_cast<std::size_t>(headLen) + 2 * j);
        const std::vector<int>* order = s.layout ? &s.layout->codingOrder : nullptr;
        for (int i = 0; i < coded && cursor + 2 <= src.size; ++i) {
            const std::int64_t len = U16(m.wire, static_cast<std::size_t>(cursor));
            if (order) {
                const std::vector<int>& fields = *order;
                std::vector<trdcomp::fast::byte> map((fields.size() + 6) / 7 + 1, 0);
                if (trdcomp::fast::ReadPresenceMap(src, cursor + 2, len, map.data(), map.size() - 1) == 0)
                    std::fill(map.begin(), map.end(), 0);
                std::map<int, Origin> rec;
                for (std::size_t k = 0; k < fields.size(); ++k) {
                    const bool sent = map[k / 7] & (0x40u >> (k % 7));
                    rec[fields[k]] = sent ? Origin::sent : i == 0 ? Origin::fromDefault : Origin::fromPrevious;
                }
                out[j].push_back(std::move(rec));
            }
            cursor += 2 + len;
        }
    }
    return out;
}

const char* OriginName(Origin o) {
    switch (o) {
        case Origin::sent: return "sent";
        case Origin::fromPrevious: return "previous";
        case Origin::fromDefault: return "default";
    }
    return "";
}

}  // namespace tool
