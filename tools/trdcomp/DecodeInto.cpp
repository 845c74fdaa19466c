// A received message restored once into the caller's block and described by
// where its sections lie there (MessageView.h).
#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <unordered_map>
#include <utility>

#include "MessageView.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace {

namespace head = trdcomp::head;
using catalogue_model::Get;

// The head word at byte `at`, 0 where the message ends before it.
std::int32_t WordAt(const char* wire, std::size_t n, std::size_t at) {
    return at + sizeof(head::Word) <= n ? head::Load(wire, at) : 0;
}

// The bytes the sender put behind a message that tells its length.
void TrailingOf(DecodedView& v, const char* wire, std::size_t n) {
    const trdcomp::FrameLength f = trdcomp::MessageLength(wire, n);
    if (f.status == trdcomp::Framing::complete && f.length < n) {
        v.trailingRestored = false;
        v.trailingAt = f.length;
        v.trailingSize = n - f.length;
    }
}

// The record size the sender stated for section j: the request head, the
// answer's section table (2008 coding, several arrays) or head (first array).
std::int32_t StatedSize(const DecodedView& v, const char* wire, std::size_t n, std::int32_t flags, int j, std::int32_t slot) {
    if (v.request) return WordAt(wire, n, head::kRequestSizeAt);
    if (v.fastVersion == 0 && head::SeveralArrays(flags) && j < head::kMaxSectionEntries) {
        const std::size_t entryEnd = head::kSectionTableAt + 4 + 8 * (static_cast<std::size_t>(j) + 1);
        return n >= entryEnd ? head::SectionEntry(wire + head::kSectionTableAt, j).size : 0;
    }
    return j == 0 ? WordAt(wire, n, head::kAnswerSizeAt) : slot;
}

// What the catalogue says of one function id in one direction and coding:
// looked up by name once a thread, then kept.
struct Route {
    catalogue_model::Cell cell;
    const Layout* requestLayout = nullptr;           // a request's records, when a codec restores them
    const catalogue_model::Shape* shape = nullptr;   // an answer's arrays, when a codec restores them
};

const Route& RouteOf(bool request, std::int32_t id, bool fast) {
    thread_local std::unordered_map<std::uint64_t, Route> routes;
    const std::uint64_t key = (static_cast<std::uint64_t>(static_cast<std::uint32_t>(id)) << 2) | (request ? 2u : 0u) | (fast ? 1u : 0u);
    const auto it = routes.find(key);
    if (it != routes.end()) return it->second;
    Route r;
    r.cell = Get().RestoreCell(request, id, fast);
    if (r.cell.IsCodec()) {
        if (request) r.requestLayout = &Get().At(Get().requestLayoutOf.at(r.cell.codec));
        else r.shape = &Get().AnswerShape(r.cell.codec);
    }
    return routes.emplace(key, r).first->second;
}

}  // namespace

OverLimit::OverLimit(std::size_t needed_, std::size_t limit_)
    : std::runtime_error("the message restores to " + Plural(static_cast<long long>(needed_), "byte") + ", more than the limit of " +
                         ByteLimitText(limit_)),
      needed(needed_),
      limit(limit_) {}

DecodedView DecodeInto(const char* wire, std::size_t n, const trdcomp::RestoreOptions& options, const Allocate& allocate,
                       char*& restored, trdcomp::span<char> first) {
    restored = nullptr;
    if (n < 4) throw std::runtime_error("the input has " + Plural(static_cast<long long>(n), "byte") + ": no head");
    if (n > static_cast<std::size_t>(INT_MAX)) throw std::runtime_error("the input is longer than a message can be (2 GiB)");
    const head::Direction direction = head::DirectionOf(wire, n);
    if (direction == head::kNoMessage)
        throw std::runtime_error("head word 0 is " + std::to_string(WordAt(wire, n, head::kLengthAt)) +
                                 ": a request head says 76, an answer head 96");
    DecodedView v;
    v.request = direction == head::kRequest;
    v.flag = options.flag;
    const std::int32_t flags = WordAt(wire, n, head::kFlagsAt);
    v.fastVersion = head::FastVersion(flags);
    v.functionId = WordAt(wire, n, head::kFunctionIdAt);
    const trdcomp::span<const char> in(wire, n);
    // Into the caller's first block (no room when it gives none: then only
    // the checks before any record is decoded, and the size); when that is
    // too small, once into a block of the size needed.
    trdcomp::RestoredView r = trdcomp::RestoreInto(first, in, options);
    if (r && r.Size() > 0) restored = first.data();
    if (!r && r.Error() == trdcomp::Errc::buffer_too_small) {
        restored = allocate(r.Needed());
        r = trdcomp::RestoreInto(trdcomp::span<char>(restored, r.Needed()), in, options);
    }
    if (!r) {
        if (r.Error() == trdcomp::Errc::limit_exceeded) throw OverLimit(r.Needed(), options.maxBytes);
        throw Refused(WhyRefused(r, std::vector<char>(wire, wire + std::min<std::size_t>(n, head::kRoutingBytes)), v.fastVersion));
    }
    v.restoredBytes = r.Size();
    if (r.Size() == 0) {
        v.restoredNothing = true;
        TrailingOf(v, wire, n);
        return v;
    }
    const Route& route = RouteOf(v.request, v.functionId, v.fastVersion != 0);
    const bool codec = route.cell.IsCodec();
    const char* p = r.Data();
    const std::int64_t size = static_cast<std::int64_t>(r.Size());
    std::int64_t end = v.request ? head::kRequestLength : head::kAnswerLength;
    const int sections = r.Sections();
    if (!v.request && head::SeveralArrays(flags)) {
        const std::int32_t table = WordAt(wire, n, head::kSectionTableAt);
        v.arrayCount = v.fastVersion == 0 && table >= 4 ? (table - 4) / 8 : sections;
    }
    v.sections.reserve(static_cast<std::size_t>(sections));
    for (int j = 0; j < sections; ++j) {
        const trdcomp::RestoredView::Section s = r.GetSection(j);
        SectionView out;
        out.count = s.count;
        out.slot = s.size;
        if (codec) {
            out.layout = v.request ? route.requestLayout : AnswerLayout(*route.shape, j, s.count);
            if (out.layout && out.layout->size != s.size) out.layout = nullptr;
        }
        out.size = StatedSize(v, wire, n, flags, j, out.slot);
        if (s.data != nullptr && s.size > 0) {
            std::int64_t records = s.count > 0 ? s.count : 0;
            const std::int64_t at = s.data - p;
            if (records > (size - at) / s.size) records = (size - at) / s.size;  // raw requests: whole records only
            out.at = static_cast<std::size_t>(at);
            out.records = static_cast<std::size_t>(records);
            end = at + records * s.size;
        }
        v.sections.push_back(out);
    }
    // A raw request restores to the message itself; a raw answer to its
    // head, section table and records, the bytes behind them only in the message.
    if (!codec && v.request && end < size) {
        v.trailingRestored = true;
        v.trailingAt = static_cast<std::size_t>(end);
        v.trailingSize = static_cast<std::size_t>(size - end);
    } else if (!codec && !v.request && size < static_cast<std::int64_t>(n)) {
        v.trailingAt = static_cast<std::size_t>(size);
        v.trailingSize = n - static_cast<std::size_t>(size);
    } else {
        TrailingOf(v, wire, n);
    }
    return v;
}

Decoded CopyOut(const DecodedView& v, const char* wire, std::size_t n, const char* restored) {
    return CopyOut(v, std::vector<char>(wire, wire + n), restored);
}

Decoded CopyOut(const DecodedView& v, std::vector<char>&& wire, const char* restored) {
    Decoded m;
    m.request = v.request;
    m.fastVersion = v.fastVersion;
    m.flag = v.flag;
    m.wire = std::move(wire);
    m.restoredNothing = v.restoredNothing;
    m.restoredBytes = v.restoredBytes;
    m.arrayCount = v.arrayCount;
    m.sections.reserve(v.sections.size());
    for (const SectionView& s : v.sections) {
        Section out;
        out.layout = s.layout;
        out.count = s.count;
        out.size = s.size;
        out.slot = s.slot;
        if (s.records > 0) out.records.assign(restored + s.at, restored + s.at + s.records * static_cast<std::size_t>(s.slot));
        m.sections.push_back(std::move(out));
    }
    const char* from = v.trailingRestored ? restored : m.wire.data();
    if (v.trailingSize > 0) m.trailing.assign(from + v.trailingAt, from + v.trailingAt + v.trailingSize);
    return m;
}

}  // namespace tool
