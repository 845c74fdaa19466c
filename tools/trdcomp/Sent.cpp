// Which fields of each Fast record were sent: the library frames the coded
// records (trdcomp::CodedRecords) and reads each one's presence map
// (trdcomp::FastSentFields); the tool lays the answer over the layout's
// fields in coding order (as the catalogue's description gives it).
#include <map>
#include <memory>
#include <vector>

#include "Message.h"
#include "trdcomp/Inspect.hpp"

namespace tool {

std::vector<std::vector<std::map<int, Origin>>> SentFields(const Decoded& m) {
    std::vector<std::vector<std::map<int, Origin>>> out(m.sections.size());
    if (m.fastVersion == 0) return out;
    const std::size_t n = trdcomp::CodedRecords(m.wire.data(), m.wire.size(), nullptr, 0);
    std::vector<trdcomp::CodedRecord> records(n);
    trdcomp::CodedRecords(m.wire.data(), m.wire.size(), records.data(), records.size());
    for (const trdcomp::CodedRecord& r : records) {
        const auto j = static_cast<std::size_t>(r.array);
        if (j >= m.sections.size() || m.sections[j].layout == nullptr) continue;
        const std::vector<int>& fields = m.sections[j].layout->codingOrder;
        const std::unique_ptr<bool[]> sent(new bool[fields.size() + 1]());
        trdcomp::FastSentFields(m.wire.data(), m.wire.size(), r, sent.get(), fields.size());
        std::map<int, Origin> rec;
        for (std::size_t k = 0; k < fields.size(); ++k)
            rec[fields[k]] = sent[k] ? Origin::sent : r.index == 0 ? Origin::fromDefault : Origin::fromPrevious;
        out[j].push_back(std::move(rec));
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
