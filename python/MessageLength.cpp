#include "MessageLength.h"

#include <cstdint>
#include <string>

#include "model/CatalogueModel.h"
#include "model/Samples.h"
#include "trdcomp/TrdCompData.h"

namespace trdcomp_python {

namespace {

using catalogue_model::Get;

struct Reader {
    const unsigned char* p;
    std::uint64_t n;

    bool Has(std::uint64_t at, std::uint64_t bytes) const { return at <= n && bytes <= n - at; }
    std::uint32_t U32(std::uint64_t at) const {
        return p[at] | p[at + 1] << 8 | p[at + 2] << 16 | static_cast<std::uint32_t>(p[at + 3]) << 24;
    }
    std::int32_t I32(std::uint64_t at) const { return static_cast<std::int32_t>(U32(at)); }
    std::uint32_t U16(std::uint64_t at) const { return p[at] | p[at + 1] << 8; }
};

std::uint64_t Records(std::int64_t count) { return count > 0 ? static_cast<std::uint64_t>(count) : 0; }

// Steps over `count` records of a length prefix of `prefix` bytes each from
// `at`; the end of the last one, or nullopt when the bytes end first.
std::optional<std::size_t> Walk(const Reader& r, std::uint64_t at, std::uint64_t count, int prefix) {
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!r.Has(at, static_cast<std::uint64_t>(prefix))) return std::nullopt;
        const std::uint64_t len = prefix == 4 ? r.U32(at) : r.U16(at);
        at += static_cast<std::uint64_t>(prefix) + len;
    }
    if (!r.Has(0, at)) return std::nullopt;
    return static_cast<std::size_t>(at);
}

}  // namespace

std::optional<std::size_t> FramedMessageLength(const unsigned char* prefix, std::size_t size) {
    const Reader r{prefix, size};
    if (prefix == nullptr || !r.Has(0, 12)) return std::nullopt;
    const std::int32_t headLen = r.I32(0), id = r.I32(4), flags = r.I32(8);
    const bool request = headLen == TRDCOMP_REQ_HEAD_LEN;
    if (!request && headLen != TRDCOMP_ANS_HEAD_LEN) return std::nullopt;
    if (!r.Has(0, static_cast<std::uint64_t>(headLen))) return std::nullopt;
    const int version = (flags & TRDCOMP_FLAG_FAST_MASK) >> TRDCOMP_FLAG_FAST_SHIFT;
    const catalogue_model::Route* route = request ? Get().RequestRoute(id) : Get().AnswerRoute(id);
    const std::string cell = route ? route->cell[version != 0 ? 3 : 2] : "RAW";
    if (!catalogue_model::IsCodec(cell)) return std::nullopt;
    const std::uint64_t head = static_cast<std::uint64_t>(headLen);

    if (request) {
        // Flag bit 0 clear: the records were copied, not coded.
        if (!(flags & TRDCOMP_FLAG_CODED) || (flags & TRDCOMP_FLAG_SECTIONS)) return std::nullopt;
        const std::uint64_t count = Records(r.I32(68));
        if (version == 0) return Walk(r, head, count, 4);
        // The stream's u16 count must equal the head's, or the restore refuses.
        if (!r.Has(head, 2) || r.U16(head) != static_cast<std::int64_t>(r.I32(68))) return std::nullopt;
        return Walk(r, head + 2, count, 2);
    }

    const catalogue_model::Shape& shape = Get().AnswerShape(std::stoi(cell));
    const int arrays = shape.kind == "sections" ? static_cast<int>(shape.layouts.size()) : 1;
    std::uint64_t count = 0;
    if (version != 0) {
        // The counts of all arrays first, u16 each.
        if (!r.Has(head, 2 * static_cast<std::uint64_t>(arrays))) return std::nullopt;
        for (int j = 0; j < arrays; ++j) count += r.U16(head + 2 * static_cast<std::uint64_t>(j));
        if (arrays == 1) {
            if (r.U16(head) != static_cast<std::int64_t>(r.I32(88))) return std::nullopt;
            count = Records(r.I32(88));
        }
        return Walk(r, head + 2 * static_cast<std::uint64_t>(arrays), count, 2);
    }
    if (arrays == 1) return Walk(r, head, Records(r.I32(88)), 4);
    // Several arrays: the section table (its length counts itself), then the records.
    if (!r.Has(head, 4)) return std::nullopt;
    const std::int32_t table = r.I32(head);
    if (table < 4 + 8 * arrays) return std::nullopt;
    if (!r.Has(head, static_cast<std::uint64_t>(table))) return std::nullopt;
    for (int j = 0; j < arrays; ++j) count += Records(r.I32(head + 4 + 8 * static_cast<std::uint64_t>(j)));
    return Walk(r, head + static_cast<std::uint64_t>(table), count, 4);
}

}  // namespace trdcomp_python
