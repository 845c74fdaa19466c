// The catalogue as read: the spelling of each kind, and the lookups the
// writers share (a codec's layout or shape, a layout by name, the fields in
// coding order, the codec members the routing names).
#include "gen/Catalogue.h"

#include <stdexcept>

namespace catalogue_gen {

std::vector<Layout> g_req_layouts, g_ans_layouts;
std::map<int, std::string> g_req_layout_of;
std::vector<Route> g_req_routes, g_ans_routes;
std::map<int, Shape> g_shapes;
std::map<int, int> g_aliases;
std::vector<std::pair<std::string, std::string>> g_req_shared;
std::string g_canonical;

Spelling SpellingOf(FieldKind k) {
    switch (k) {
        case FieldKind::Char: return {"Char", "char"};
        case FieldKind::Text: return {"Text", "text"};
        case FieldKind::Ascii: return {"Ascii", "ascii"};
        case FieldKind::Bytes: return {"Bytes", "bytes"};
        case FieldKind::Int32: return {"Int32", "int32"};
        case FieldKind::Int64: return {"Int64", "int64"};
        case FieldKind::Double: return {"Double", "double"};
        case FieldKind::Uncoded: return {"Uncoded", "uncoded"};
        case FieldKind::Sized: return {"Sized", "sized"};
        case FieldKind::Array: return {"Array", "array"};
    }
    throw std::logic_error("a field kind without a spelling");
}

Spelling SpellingOf(ShapeKind k) {
    switch (k) {
        case ShapeKind::Single: return {"Single", "single"};
        case ShapeKind::Sections: return {"Sections", "sections"};
        case ShapeKind::Switched: return {"Switched", "switched"};
    }
    throw std::logic_error("a shape kind without a spelling");
}

Spelling SpellingOf(CellKind k) {
    switch (k) {
        case CellKind::codec: return {"codec", "CODEC"};
        case CellKind::raw: return {"raw", "RAW"};
        case CellKind::no_records: return {"no_records", "NO_RECORDS"};
        case CellKind::head_only: return {"head_only", "HEAD_ONLY"};
        case CellKind::nothing: return {"nothing", "NOTHING"};
    }
    throw std::logic_error("a cell kind without a spelling");
}

bool IsCodec(const std::string& cell) { return !cell.empty() && cell[0] >= '0' && cell[0] <= '9'; }

CellKind CellKindOf(const std::string& cell) {
    if (IsCodec(cell)) return CellKind::codec;
    for (CellKind k : kCellKinds)
        if (k != CellKind::codec && cell == SpellingOf(k).name) return k;
    throw std::runtime_error("unknown routing cell " + cell);
}

Members Collect() {
    Members m;
    for (const Route& r : g_req_routes)
        for (int f = 0; f < 4; ++f)
            if (IsCodec(r.cell[f])) m.req[f].insert(std::stoi(r.cell[f]));
    for (const Route& r : g_ans_routes)
        for (int f = 0; f < 4; ++f)
            if (IsCodec(r.cell[f])) m.ans[f].insert(std::stoi(r.cell[f]));
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
