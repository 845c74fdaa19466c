// Writers of the catalogue as data:
//   CatalogueFingerprint.h  the catalogue's fingerprint: FNV-1a 64 of its
//                           canonical text;
//   RecordFields.h          every layout's fields as NumPy formats, for the
//                           Python module's record arrays;
//   CatalogueTables.h       the whole catalogue as constant run-time data
//                           (fields with kinds, limits and coding order;
//                           typed routing cells; shapes; the kinds' enums and
//                           names), for the model that the tool, tests and
//                           fuzzers use.
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "gen/Catalogue.h"
#include "gen/Writers.h"

namespace catalogue_gen {

std::string FingerprintOf(const std::string& text) {
    std::uint64_t h = 0xcbf29ce484222325ULL;
    for (unsigned char c : text) {
        h ^= c;
        h *= 0x100000001b3ULL;
    }
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
    return buf;
}

void WriteFingerprint(std::ostream& o) {
    o << "// Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
         "// FNV-1a 64 of the catalogue's canonical text (trdcomp_catalogue_gen --canonical).\n"
         "#pragma once\n\n#define TRDCOMP_CATALOGUE_HASH 0x"
      << FingerprintOf(g_canonical) << "ULL\n";
}

namespace {

// A field's NumPy format: byte strings for chars and texts, unsigned byte
// arrays for blocks, little-endian numbers; "" for a counted array (its
// entries are records of another layout).
std::string NumpyFormat(const Entry& e) {
    const std::string w = std::to_string(e.width);
    switch (e.kind) {
        case FieldKind::Char: return "S1";
        case FieldKind::Text:
        case FieldKind::Ascii: return "S" + w;
        case FieldKind::Int32: return "<i4";
        case FieldKind::Int64: return "<i8";
        case FieldKind::Double: return "<f8";
        case FieldKind::Array: return "";
        case FieldKind::Bytes:
        case FieldKind::Sized:
        case FieldKind::Uncoded: return e.width == 1 ? "u1" : "(" + w + ",)u1";
    }
    throw std::logic_error("a field kind without a NumPy format");
}

}  // namespace

void WriteRecordFields(std::ostream& o) {
    o << "// Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
         "// The fields of every record layout as NumPy formats, named and placed as\n"
         "// in TrdCompRecords.h, for the Python module's record arrays.\n"
         "#pragma once\n\nnamespace trdcomp::generated {\n\n"
         "struct RecordField {\n"
         "    const char* name;    // as in TrdCompRecords.h\n"
         "    const char* format;  // NumPy format; \"\" for an array of `entry` records\n"
         "    int offset;\n"
         "    int entries;         // array: entry count\n"
         "    const char* entry;   // array: entry layout\n"
         "};\n\n"
         "struct RecordLayout {\n    const char* name;\n    int size;\n    int first;  // index into kRecordFields\n"
         "    int count;\n};\n\ninline constexpr RecordField kRecordFields[] = {\n";
    std::ostringstream layouts;
    int index = 0;
    for (const auto* group : {&g_req_layouts, &g_ans_layouts}) {
        for (const Layout& l : *group) {
            const int first = index;
            for (const Entry& e : l.entries) {
                o << "    {\"f" << e.offset << "\", \"" << NumpyFormat(e) << "\", " << e.offset << ", " << e.entries
                  << ", \"" << e.sub << "\"},\n";
                ++index;
                if (e.kind == FieldKind::Sized) {  // the block's length behind it
                    o << "    {\"f" << e.offset + e.width << "\", \"<i4\", " << e.offset + e.width << ", 0, \"\"},\n";
                    ++index;
                }
            }
            layouts << "    {\"" << l.name << "\", " << l.size << ", " << first << ", " << index - first << "},\n";
        }
    }
    o << "};\n\ninline constexpr RecordLayout kRecordLayouts[] = {\n" << layouts.str() << "};\n\n}  // namespace trdcomp::generated\n";
}

// The run-time description of the catalogue for the tool, the tests, the
// fuzzers and the Python module: every layout with each field's kind, limit
// and coding order, the request layout of each id, both routing tables with
// typed cells, the answer shapes and aliases. Nothing else reads the data.

namespace {

// A kind's enum, the list of its values, the function that names each value
// (a switch without a default, so that a value without a name does not
// compile cleanly) and the one that reads a name back.
template <class Kind, std::size_t N>
void WriteKind(std::ostream& o, const char* type, const char* what, const Kind (&kinds)[N]) {
    o << "// " << what << "\nenum class " << type << " {";
    for (std::size_t i = 0; i < N; ++i) o << (i ? ", " : " ") << SpellingOf(kinds[i]).enumerator;
    o << " };\ninline constexpr " << type << " k" << type << "s[] = {";
    for (std::size_t i = 0; i < N; ++i) o << (i ? ", " : "") << type << "::" << SpellingOf(kinds[i]).enumerator;
    o << "};\n// The name of a " << type << ".\nconstexpr const char* " << type << "Name(" << type << " k) {\n    switch (k) {\n";
    for (const Kind k : kinds)
        o << "        case " << type << "::" << SpellingOf(k).enumerator << ": return \"" << SpellingOf(k).name << "\";\n";
    o << "    }\n    return \"\";\n}\n"
      << "// The " << type << " a name stands for, or none.\nconstexpr std::optional<" << type << "> " << type
      << "Named(std::string_view name) {\n    for (const " << type << " k : k" << type << "s)\n"
      << "        if (name == " << type << "Name(k)) return k;\n    return std::nullopt;\n}\n\n";
}

std::string CellOf(const RouteCell& cell) {
    return "{CellKind::" + std::string(SpellingOf(cell.kind).enumerator) + ", " + std::to_string(cell.codec) + "}";
}

// The offsets of a layout's coded fields in the order the engines code them.
std::vector<int> CodingOrder(const Layout& l) {
    std::vector<int> order;
    for (const CodedField& f : CodedFields(l)) order.push_back(f.offset);
    return order;
}

}  // namespace

void WriteModelTables(std::ostream& o) {
    o << "// Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
         "// The catalogue as run-time data (see catalogue/model/CatalogueModel.h).\n"
         "#pragma once\n\n#include \"CatalogueKinds.h\"\n\nnamespace trdcomp::generated {\n\n";
    o << "struct CatalogueField {\n"
         "    FieldKind kind;\n"
         "    int offset, width, def, limit;\n    bool last;\n"
         "    const char* entry;\n    int entries, countOffset;\n};\n"
         "struct CatalogueLayout {\n    const char* name;\n    int size, first, count;  // fields [first, first + count)\n"
         "    int orderFirst, orderCount;  // coding order: kCatalogueCodingOrder[orderFirst, + orderCount)\n};\n"
         "struct CatalogueRequestLayout {\n    int id;\n    const char* layout;\n};\n"
         "struct CatalogueCell {\n    CellKind kind;\n    int codec;\n};\n"
         "struct CatalogueRoute {\n    int id;\n    CatalogueCell cell[4];  // pack 2008, pack Fast, restore 2008, restore Fast\n};\n"
         "struct CatalogueShape {\n    int id;\n    ShapeKind kind;\n"
         "    int count;\n    const char* layouts[3];\n};\n"
         "struct CatalogueAlias {\n    int id, of;\n};\n\n"
         "inline constexpr CatalogueField kCatalogueFields[] = {\n";
    std::ostringstream layouts, order;
    int index = 0, orderIndex = 0;
    for (const auto* group : {&g_req_layouts, &g_ans_layouts}) {
        for (const Layout& l : *group) {
            const int first = index;
            const std::vector<int> coding = CodingOrder(l);
            for (int offset : coding) order << offset << (++orderIndex % 16 ? ", " : ",\n    ");
            for (const Entry& e : l.entries) {
                const int width = e.kind == FieldKind::Array ? e.entries * LayoutNamed(e.sub).size : e.width;
                o << "    {FieldKind::" << SpellingOf(e.kind).enumerator << ", " << e.offset << ", " << width << ", "
                  << e.def << ", " << e.limit << ", " << (e.last ? "true" : "false") << ", \"" << e.sub << "\", "
                  << e.entries << ", " << e.countOffset << "},\n";
                ++index;
            }
            layouts << "    {\"" << l.name << "\", " << l.size << ", " << first << ", " << index - first << ", "
                    << orderIndex - static_cast<int>(coding.size()) << ", " << coding.size() << "},\n";
        }
    }
    o << "};\n\ninline constexpr CatalogueLayout kCatalogueLayouts[] = {\n" << layouts.str() << "};\n\n";
    o << "inline constexpr int kCatalogueCodingOrder[] = {\n    " << order.str() << "\n};\n\n";
    o << "inline constexpr CatalogueRequestLayout kCatalogueRequestLayouts[] = {\n";
    for (const auto& [id, name] : g_req_layout_of) o << "    {" << id << ", \"" << name << "\"},\n";
    for (const auto* routes : {&g_req_routes, &g_ans_routes}) {
        o << "};\n\ninline constexpr CatalogueRoute " << (routes == &g_req_routes ? "kCatalogueRequestRoutes" : "kCatalogueAnswerRoutes")
          << "[] = {\n";
        for (const Route& r : *routes) {
            o << "    {" << r.id << ", {";
            for (int k = 0; k < 4; ++k) o << (k ? ", " : "") << CellOf(r.cell[k]);
            o << "}},\n";
        }
    }
    o << "};\n\n// The function ids the routing tables hold a slot for: [first, first + count).\n"
         "struct CatalogueSlotRange {\n    int first, count;\n};\n"
         "inline constexpr CatalogueSlotRange kCatalogueSlotRanges[] = {";
    for (const SlotRange& r : kSlotRanges) o << "{" << r.first << ", " << r.count << "}" << (&r == &kSlotRanges[1] ? "" : ", ");
    o << "};\n\ninline constexpr CatalogueShape kCatalogueShapes[] = {\n";
    for (const auto& [id, shape] : g_shapes) {
        o << "    {" << id << ", ShapeKind::" << SpellingOf(shape.kind).enumerator << ", " << shape.layouts.size() << ", {";
        for (std::size_t i = 0; i < shape.layouts.size(); ++i) o << (i ? ", " : "") << '"' << shape.layouts[i] << '"';
        o << "}},\n";
    }
    o << "};\n\ninline constexpr CatalogueAlias kCatalogueAliases[] = {\n";
    for (const auto& [id, of] : g_aliases) o << "    {" << id << ", " << of << "},\n";
    o << "};\n\n}  // namespace trdcomp::generated\n";
}

void WriteKinds(std::ostream& o) {
    o << "// Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
         "// The one typing of the catalogue's kinds, for the library's routing, the\n"
         "// model, the tools and the Python module.\n"
         "#pragma once\n\n#include <optional>\n#include <string_view>\n\nnamespace trdcomp::generated {\n\n";
    WriteKind(o, "FieldKind", "The kinds of field a record layout holds.", kFieldKinds);
    WriteKind(o, "ShapeKind",
              "How an answer's arrays take their layouts: one layout, one per array, or the\n"
              "// narrow or the wide layout by the record count.",
              kShapeKinds);
    WriteKind(o, "CellKind",
              "What a routing cell says: a codec serves the id (its name CODEC), or what\n"
              "// happens instead (named as the catalogue's routing tables write it).",
              kCellKinds);
    o << "}  // namespace trdcomp::generated\n";
}

}  // namespace catalogue_gen
