// The dissector's calls into the library, the message library and the
// catalogue model, each behind a catch-all: nothing thrown here reaches the
// C frames of Wireshark.
#include "TrdcompBridge.h"

#include <cstddef>
#include <cstring>
#include <exception>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "Message.h"
#include "model/CatalogueModel.h"
#include "trdcomp/Inspect.hpp"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace {

namespace head = trdcomp::head;
using catalogue_model::FieldKind;

trdcomp_ws_kind KindOf(FieldKind k) {
    switch (k) {
        case FieldKind::Char: return TRDCOMP_WS_CHAR;
        case FieldKind::Text: return TRDCOMP_WS_TEXT;
        case FieldKind::Ascii: return TRDCOMP_WS_ASCII;
        case FieldKind::Bytes: return TRDCOMP_WS_BYTES;
        case FieldKind::Int32: return TRDCOMP_WS_INT32;
        case FieldKind::Int64: return TRDCOMP_WS_INT64;
        case FieldKind::Double: return TRDCOMP_WS_DOUBLE;
        case FieldKind::Uncoded: return TRDCOMP_WS_UNCODED;
        case FieldKind::Sized: return TRDCOMP_WS_SIZED;
        case FieldKind::Array: return TRDCOMP_WS_ARRAY;
    }
    return TRDCOMP_WS_BYTES;
}

// A function id's restore route in one direction and coding, as a key.
std::uint64_t RouteKey(bool request, std::int32_t id, bool fast) {
    return static_cast<std::uint64_t>(static_cast<std::uint32_t>(id)) << 2 | (request ? 2u : 0u) | (fast ? 1u : 0u);
}

// The catalogue's layouts as C tables, and the names a summary shows, built
// once.
struct Tables {
    std::vector<trdcomp_ws_layout> layouts;
    std::vector<std::vector<trdcomp_ws_field>> fields;
    std::map<std::string, int> index;
    std::unordered_map<const catalogue_model::Layout*, int> indexOf;
    std::unordered_map<std::uint64_t, std::string> routes;  // the restore route of every routed id
    std::string unrouted;                                   // the route of the others
    std::string codings[16];                                // by Fast version, 0: the 2008 coding

    Tables() {
        const catalogue_model::Catalogue& c = catalogue_model::Get();
        for (const bool request : {true, false})
            for (const catalogue_model::Route& r : request ? c.requestRoutes : c.answerRoutes)
                for (const bool fast : {false, true}) routes[RouteKey(request, r.id, fast)] = c.RestoreCell(request, r.id, fast).Text();
        unrouted = catalogue_model::Cell{}.Text();
        for (int v = 0; v < 16; ++v) codings[v] = tool::CodingName(v);
        for (const auto& [name, layout] : c.layouts) index.emplace(name, static_cast<int>(index.size()));
        fields.resize(c.layouts.size());
        for (const auto& [name, layout] : c.layouts) {
            std::vector<trdcomp_ws_field>& out = fields[static_cast<std::size_t>(index.at(name))];
            for (const catalogue_model::Field& f : layout.fields) {
                const auto entry = index.find(f.entry);
                out.push_back(trdcomp_ws_field{KindOf(f.kind), catalogue_model::FieldKindName(f.kind), f.offset, f.width,
                                               entry == index.end() ? -1 : entry->second, f.entries, f.countOffset});
            }
            layouts.push_back(trdcomp_ws_layout{layout.name.c_str(), layout.size, static_cast<int>(out.size()), out.data()});
            indexOf.emplace(&layout, index.at(name));
        }
    }

    const std::string& Route(bool request, std::int32_t id, bool fast) const {
        const auto r = routes.find(RouteKey(request, id, fast));
        return r == routes.end() ? unrouted : r->second;
    }
};

const Tables* TheTables() noexcept {
    try {
        static const Tables tables;
        return &tables;
    } catch (...) {
        return nullptr;
    }
}

// A copy of `text` from the dissector's allocator.
const char* Copy(const std::string& text, trdcomp_ws_alloc alloc, void* context) {
    char* p = static_cast<char*>(alloc(context, text.size() + 1));
    std::memcpy(p, text.c_str(), text.size() + 1);
    return p;
}

void Refuse(const std::string& why, trdcomp_ws_alloc alloc, void* context, trdcomp_ws_message* out) {
    out->ok = 0;
    out->why = Copy(why, alloc, context);
}

void Describe(const tool::Decoded& m, const Tables& tables, trdcomp_ws_alloc alloc, void* context,
              trdcomp_ws_message* out) {
    out->restored_nothing = m.restoredNothing ? 1 : 0;
    out->restored_bytes = m.restoredBytes;
    out->array_count = m.arrayCount;
    out->trailing_length = m.trailing.size();
    out->section_count = static_cast<int>(m.sections.size());
    auto* sections = static_cast<trdcomp_ws_section*>(alloc(context, sizeof(trdcomp_ws_section) * (m.sections.size() + 1)));
    for (std::size_t j = 0; j < m.sections.size(); ++j) {
        const tool::Section& s = m.sections[j];
        auto* records = static_cast<uint8_t*>(alloc(context, s.records.size() + 1));
        if (!s.records.empty()) std::memcpy(records, s.records.data(), s.records.size());
        const auto at = s.layout ? tables.indexOf.find(s.layout) : tables.indexOf.end();
        sections[j] = trdcomp_ws_section{at == tables.indexOf.end() ? -1 : at->second, s.count, s.size, s.slot, records,
                                         s.records.size()};
        out->records += s.count > 0 ? static_cast<std::uint64_t>(s.count) : 0;
    }
    out->sections = sections;
    const std::size_t coded = trdcomp::CodedRecords(m.wire.data(), m.wire.size(), nullptr, 0);
    std::vector<trdcomp::CodedRecord> records(coded);
    trdcomp::CodedRecords(m.wire.data(), m.wire.size(), records.data(), records.size());
    auto* described = static_cast<trdcomp_ws_coded_record*>(alloc(context, sizeof(trdcomp_ws_coded_record) * (coded + 1)));
    for (std::size_t i = 0; i < coded; ++i)
        described[i] = trdcomp_ws_coded_record{records[i].array, records[i].index, records[i].offset, records[i].length};
    out->coded_record_count = coded;
    out->coded_records = described;
    out->ok = 1;
}

// What a summary line shows, from a restore into the dissector's memory:
// false when the library refuses the message or restores nothing, which the
// full decode then tells apart and words as the tool does.
bool Summarise(const uint8_t* p, std::size_t size, const trdcomp::RestoreOptions& options, trdcomp_ws_alloc alloc,
               void* context, trdcomp_ws_message* out) {
    const trdcomp::span<const char> msg(reinterpret_cast<const char*>(p), size);
    const std::size_t needed = trdcomp::RestoredSize(msg, options);
    if (needed == 0) return false;
    char* dst = static_cast<char*>(alloc(context, needed));
    const trdcomp::RestoredView r = trdcomp::RestoreInto({dst, needed}, msg, options);
    if (!r) return false;
    out->restored_bytes = r.Size();
    out->section_count = r.Sections();
    for (int j = 0; j < out->section_count; ++j) {
        const std::int32_t count = r.GetSection(j).count;
        out->records += count > 0 ? static_cast<std::uint64_t>(count) : 0;
    }
    out->ok = 1;
    return true;
}

}  // namespace

extern "C" {

const trdcomp_ws_layout* trdcomp_ws_layouts(int* count) {
    const Tables* t = TheTables();
    *count = t ? static_cast<int>(t->layouts.size()) : 0;
    return t ? t->layouts.data() : nullptr;
}

const trdcomp_ws_head_layout* trdcomp_ws_head(void) {
    static const trdcomp_ws_head_layout layout = {
        static_cast<int>(head::kRequestLength), static_cast<int>(head::kAnswerLength),
        static_cast<int>(head::kLengthAt), static_cast<int>(head::kFunctionIdAt), static_cast<int>(head::kFlagsAt),
        static_cast<int>(offsetof(tagREQ_HEAD, nUser)), static_cast<int>(sizeof(tagREQ_HEAD::nUser) / sizeof(int)),
        static_cast<int>(head::kRequestCountAt), static_cast<int>(head::kRequestSizeAt),
        static_cast<int>(head::kAnswerReservedAt), static_cast<int>(sizeof(tagANS_HEAD::cReserved)),
        static_cast<int>(offsetof(tagANS_HEAD, szShort)), static_cast<int>(sizeof(tagANS_HEAD::szShort)),
        static_cast<int>(offsetof(tagANS_HEAD, szLong)), static_cast<int>(sizeof(tagANS_HEAD::szLong)),
        static_cast<int>(head::kAnswerCountAt), static_cast<int>(head::kAnswerSizeAt),
        static_cast<int>(head::kSectionTableAt),
        TRDCOMP_FLAG_CODED, TRDCOMP_FLAG_SECTIONS, TRDCOMP_FLAG_FAST_MASK, TRDCOMP_FLAG_FAST_SHIFT,
        static_cast<int>(head::kRoutingBytes)};
    return &layout;
}

trdcomp_ws_framing trdcomp_ws_message_length(const uint8_t* p, size_t size, uint64_t* length) {
    const trdcomp::FrameLength f = trdcomp::MessageLength(reinterpret_cast<const char*>(p), size);
    *length = f.length;
    switch (f.status) {
        case trdcomp::Framing::complete: return TRDCOMP_WS_COMPLETE;
        case trdcomp::Framing::need_more: return TRDCOMP_WS_NEED_MORE;
        case trdcomp::Framing::cannot_tell: return TRDCOMP_WS_CANNOT_TELL;
        case trdcomp::Framing::invalid: return TRDCOMP_WS_INVALID;
    }
    return TRDCOMP_WS_INVALID;
}

int trdcomp_ws_looks_like_message(const uint8_t* p, size_t size) {
    try {
        const char* c = reinterpret_cast<const char*>(p);
        const head::Direction direction = head::DirectionOf(c, size);
        if (direction == head::kNoMessage || size < head::kRoutingBytes) return 0;
        const head::Routing r = head::ReadRouting(c);
        if ((r.flags & ~(TRDCOMP_FLAG_CODED | TRDCOMP_FLAG_SECTIONS | TRDCOMP_FLAG_FAST_MASK)) != 0) return 0;
        const catalogue_model::Catalogue& cat = catalogue_model::Get();
        if ((direction == head::kRequest ? cat.RequestRoute(r.functionId) : cat.AnswerRoute(r.functionId)) == nullptr)
            return 0;
        return trdcomp::MessageLength(c, size).status != trdcomp::Framing::invalid ? 1 : 0;
    } catch (...) {
        return 0;
    }
}

void trdcomp_ws_decode(const uint8_t* p, size_t size, uint64_t max_bytes, int sections, trdcomp_ws_alloc alloc,
                       void* context, trdcomp_ws_message* out) {
    *out = trdcomp_ws_message{};
    try {
        const Tables* tables = TheTables();
        if (tables == nullptr) return Refuse("the catalogue could not be loaded", alloc, context, out);
        if (size >= head::kRoutingBytes) {
            const head::Routing r = head::ReadRouting(reinterpret_cast<const char*>(p));
            out->request = r.length == static_cast<head::Word>(head::kRequestLength);
            out->function_id = r.functionId;
            out->flags = r.flags;
            out->fast_version = head::FastVersion(r.flags);
            out->coding = tables->codings[out->fast_version].c_str();
            out->route = tables->Route(out->request, r.functionId, out->fast_version != 0).c_str();
        }
        trdcomp::RestoreOptions options;
        options.maxBytes = max_bytes > SIZE_MAX ? SIZE_MAX : static_cast<std::size_t>(max_bytes);
        if (!sections && Summarise(p, size, options, alloc, context, out)) return;
        const std::vector<char> wire(reinterpret_cast<const char*>(p), reinterpret_cast<const char*>(p) + size);
        Describe(tool::Decode(wire, options), *tables, alloc, context, out);
    } catch (const std::exception& e) {
        try {
            Refuse(e.what(), alloc, context, out);
        } catch (...) {
            out->ok = 0;
            out->why = "the message could not be decoded";
        }
    } catch (...) {
        out->ok = 0;
        out->why = "the message could not be decoded";
    }
}

}  // extern "C"
