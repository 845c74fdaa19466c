// The catalogue as read: the spelling of each kind, and the lookups the
// writers share (a codec's layout or shape, a layout by name, the fields in
// coding order, the codec members the routing names).
#include "gen/Catalogue.h"

#include <iterator>
#include <stdexcept>

namespace catalogue_gen {

std::vector<Layout> g_req_layouts, g_ans_layouts;
std::map<int, std::string> g_req_layout_of;
std::vector<Route> g_req_routes, g_ans_routes;
std::map<int, Shape> g_shapes;
std::map<int, int> g_aliases;
std::vector<std::pair<std::string, std::string>> g_req_shared;
std::string g_canonical;

namespace {

// Each kind's spelling, as a table: the enumerator and the catalogue's name.
template <class K>
struct Spelled {
    K kind;
    Spelling spelling;
};
constexpr Spelled<FieldKind> kFieldSpellings[] = {
    {FieldKind::Char, {"Char", "char"}},       {FieldKind::Text, {"Text", "text"}},
    {FieldKind::Ascii, {"Ascii", "ascii"}},    {FieldKind::Bytes, {"Bytes", "bytes"}},
    {FieldKind::Int32, {"Int32", "int32"}},    {FieldKind::Int64, {"Int64", "int64"}},
    {FieldKind::Double, {"Double", "double"}}, {FieldKind::Uncoded, {"Uncoded", "uncoded"}},
    {FieldKind::Sized, {"Sized", "sized"}},    {FieldKind::Array, {"Array", "array"}},
};
constexpr Spelled<ShapeKind> kShapeSpellings[] = {
    {ShapeKind::Single, {"Single", "single"}},
    {ShapeKind::Sections, {"Sections", "sections"}},
    {ShapeKind::Switched, {"Switched", "switched"}},
};
constexpr Spelled<CellKind> kCellSpellings[] = {
    {CellKind::codec, {"codec", "CODEC"}},
    {CellKind::raw, {"raw", "RAW"}},
    {CellKind::no_records, {"no_records", "NO_RECORDS"}},
    {CellKind::head_only, {"head_only", "HEAD_ONLY"}},
    {CellKind::nothing, {"nothing", "NOTHING"}},
};
static_assert(std::size(kFieldSpellings) == std::size(kFieldKinds), "every field kind is spelled");
static_assert(std::size(kShapeSpellings) == std::size(kShapeKinds), "every shape kind is spelled");
static_assert(std::size(kCellSpellings) == std::size(kCellKinds), "every cell kind is spelled");

template <class K, std::size_t N>
Spelling Spell(const Spelled<K> (&table)[N], K k) {
    for (const Spelled<K>& s : table)
        if (s.kind == k) return s.spelling;
    throw std::logic_error("a kind without a spelling");
}

}  // namespace

Spelling SpellingOf(FieldKind k) { return Spell(kFieldSpellings, k); }
Spelling SpellingOf(ShapeKind k) { return Spell(kShapeSpellings, k); }
Spelling SpellingOf(CellKind k) { return Spell(kCellSpellings, k); }

RouteCell CellNamed(const std::string& cell) {
    if (!cell.empty() && cell[0] >= '0' && cell[0] <= '9') return RouteCell{CellKind::codec, std::stoi(cell)};
    for (CellKind k : kCellKinds)
        if (k != CellKind::codec && cell == SpellingOf(k).name) return RouteCell{k, 0};
    throw std::runtime_error("unknown routing cell " + cell);
}

Members Collect() {
    Members m;
    for (const Route& r : g_req_routes)
        for (int f = 0; f < 4; ++f)
            if (r.cell[f].IsCodec()) m.req[f].insert(r.cell[f].codec);
    for (const Route& r : g_ans_routes)
        for (int f = 0; f < 4; ++f)
            if (r.cell[f].IsCodec()) m.ans[f].insert(r.cell[f].codec);
    // Ids whose codecs are those of another id have them under their own number.
    for (const auto& [id, of] : g_aliases)
        for (int f = 0; f < 4; ++f) m.ans[f].insert(id), m.ans[f].insert(of);
    return m;
}

std::string RequestLayout(int codec) {
    const auto it = g_req_layout_of.find(codec);
    if (it == g_req_layout_of.end()) throw std::runtime_error("request codec " + std::to_string(codec) + " has no layout");
    return it->second;
}

const Shape& AnswerShape(int codec) {
    auto it = g_shapes.find(codec);
    if (it == g_shapes.end()) {
        const auto alias = g_aliases.find(codec);
        if (alias != g_aliases.end()) it = g_shapes.find(alias->second);
    }
    if (it == g_shapes.end()) throw std::runtime_error("answer codec " + std::to_string(codec) + " has no shape");
    return it->second;
}

const Layout& LayoutNamed(const std::string& name) {
    for (const auto* group : {&g_req_layouts, &g_ans_layouts})
        for (const Layout& l : *group)
            if (l.name == name) return l;
    throw std::runtime_error("no layout " + name);
}

std::vector<CodedField> CodedFields(const Layout& l) {
    std::vector<CodedField> early, late;
    const auto key = [](const std::string& kind, int offset, int width, int limit, int def) {
        return kind + ':' + std::to_string(offset) + ':' + std::to_string(width) + ':' + std::to_string(limit) + ':' +
               std::to_string(def);
    };
    for (const Entry& e : l.entries) {
        switch (e.kind) {
            case FieldKind::Uncoded: break;
            case FieldKind::Sized:
                early.push_back({e.offset, key("sized", e.offset, e.width, 0, 0)});
                early.push_back({e.offset + e.width, key("length", e.offset + e.width, 4, 0, 0)});
                break;
            case FieldKind::Array: {
                const Layout& sub = LayoutNamed(e.sub);
                for (int k = 0; k < e.entries; ++k)
                    for (const Entry& f : sub.entries)
                        (f.last ? late : early).push_back({e.offset + k * sub.size + f.offset, ""});
                break;
            }
            case FieldKind::Char:
            case FieldKind::Text:
            case FieldKind::Ascii:
            case FieldKind::Bytes:
            case FieldKind::Int32:
            case FieldKind::Int64:
            case FieldKind::Double:
                (e.last ? late : early)
                    .push_back({e.offset, key(SpellingOf(e.kind).name, e.offset, e.width, e.limit, e.def)});
                break;
        }
    }
    early.insert(early.end(), late.begin(), late.end());
    return early;
}

}  // namespace catalogue_gen
