#include "model/Samples.h"

#include <cstdio>
#include <cstring>
#include <random>

#include "model/CatalogueModel.h"

namespace catalogue_model {

namespace {

// Three records per array, one of the 32 KB block layouts.
int SampleCount(const Layout& l) { return l.size > 4096 ? 1 : 3; }

}  // namespace

std::vector<int> RoutedIds() {
    std::vector<int> ids;
    for (const auto& range : trdcomp::generated::kCatalogueSlotRanges)
        for (int i = 0; i < range.count; ++i) ids.push_back(range.first + i);
    return ids;
}

std::vector<char> SampleRecords(const Layout& l, int count, std::mt19937& rng) {
    std::vector<char> all, prev;
    for (int i = 0; i < count; ++i) {
        auto r = MakeRecord(l, rng, i ? &prev : nullptr);
        all.insert(all.end(), r.begin(), r.end());
        prev = r;
    }
    return all;
}

bool SampleRequest(int id, Coding coding, RequestSample& out) {
    const auto& c = Get();
    const bool fast = coding == Coding::kFast;
    const auto* route = c.RequestRoute(id);
    if (!route || !route->cell[fast ? 1 : 0].IsCodec()) return false;
    out.layout = &c.At(c.requestLayoutOf.at(route->cell[fast ? 1 : 0].codec));
    std::mt19937 rng(static_cast<unsigned>(id * 2 + fast));
    const int count = SampleCount(*out.layout);
    out.data = SampleRecords(*out.layout, count, rng);
    out.head = tagREQ_HEAD{};
    out.head.nHeadLen = 76;
    out.head.nFuncId = id;
    out.head.nFlags = fast ? 0x10 : 0;
    for (int i = 0; i < 14; ++i) out.head.nUser[i] = 1000 * id + i;
    out.head.nRecCount = count;
    out.head.nRecSize = out.layout->size;
    return true;
}

std::vector<AnswerSample> SampleAnswers(int id, Coding coding) {
    const auto& c = Get();
    const bool fast = coding == Coding::kFast;
    std::vector<AnswerSample> out;
    const auto* route = c.AnswerRoute(id);
    if (!route || !route->cell[fast ? 1 : 0].IsCodec()) return out;
    const auto& shape = c.AnswerShape(id);
    // Record counts per array, one list per sample.
    std::vector<std::vector<int>> variants;
    switch (shape.kind) {
        case ShapeKind::Switched: variants = {{1}, {2}}; break;
        case ShapeKind::Sections:
            variants = {shape.layouts.size() == 2 ? std::vector<int>{2, 3} : std::vector<int>{2, 3, 1}};
            break;
        case ShapeKind::Single: variants = {{SampleCount(c.At(shape.layouts[0]))}}; break;
    }
    for (const auto& counts : variants) {
        std::mt19937 rng(static_cast<unsigned>(id * 8 + fast * 4 + counts[0]));
        AnswerSample s;
        if (shape.kind == ShapeKind::Switched) s.variant = "_n" + std::to_string(counts[0]);
        s.proc.nFuncId = id;
        std::memcpy(s.proc.szShort, "OK", 2);
        std::snprintf(s.proc.szLong, sizeof s.proc.szLong, "answer %d", id);
        s.proc.nArrayCount = static_cast<int>(counts.size());
        for (std::size_t j = 0; j < counts.size(); ++j) {
            const std::string& name = shape.LayoutOf(static_cast<int>(j), counts[0]);
            const Layout& l = c.At(name);
            s.layouts.push_back(&l);
            s.proc.nRecCount[j] = counts[j];
            s.proc.nRecSize[j] = l.size;
            s.arrays[j] = SampleRecords(l, counts[j], rng);
        }
        out.push_back(std::move(s));
    }
    return out;
}

}  // namespace catalogue_model
