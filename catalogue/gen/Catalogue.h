// The catalogue as the generator read it: every record layout with its
// fields, the request layout of each function id, both routing tables (cells
// as the catalogue writes them: a codec's id, RAW, NO_RECORDS, HEAD_ONLY or
// NOTHING), the answer shapes and aliases, the stubs, and the canonical text
// of all of it. ReadCatalogue.cpp fills it; the writers (WriteLibraryCode.cpp,
// WriteTables.cpp) turn it into the generated files.
#pragma once

#include <cstddef>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace catalogue_gen {

// The kinds of field a layout holds, one per catalogue macro (TRD_CHAR,
// TRD_TEXT, ...). CatalogueTables.h gets the same enum, written from
// SpellingOf and kFieldKinds, so the run-time model and the generator agree.
enum class FieldKind { Char, Text, Ascii, Bytes, Int32, Int64, Double, Uncoded, Sized, Array };
// How an answer's arrays take their layouts: one layout, one layout per
// array, or the narrow or the wide layout by the record count.
enum class ShapeKind { Single, Sections, Switched };
// What a routing cell says: a codec serves the id, or what happens instead.
enum class CellKind { codec, raw, no_records, head_only, nothing };

inline constexpr FieldKind kFieldKinds[] = {FieldKind::Char,  FieldKind::Text,   FieldKind::Ascii,   FieldKind::Bytes,
                                            FieldKind::Int32, FieldKind::Int64,  FieldKind::Double,  FieldKind::Uncoded,
                                            FieldKind::Sized, FieldKind::Array};
inline constexpr ShapeKind kShapeKinds[] = {ShapeKind::Single, ShapeKind::Sections, ShapeKind::Switched};
inline constexpr CellKind kCellKinds[] = {CellKind::codec, CellKind::raw, CellKind::no_records, CellKind::head_only,
                                          CellKind::nothing};
static_assert(std::size(kFieldKinds) == static_cast<std::size_t>(FieldKind::Array) + 1, "every field kind listed");
static_assert(std::size(kShapeKinds) == static_cast<std::size_t>(ShapeKind::Switched) + 1, "every shape kind listed");
static_assert(std::size(kCellKinds) == static_cast<std::size_t>(CellKind::nothing) + 1, "every cell kind listed");

// How a kind is written out: its enumerator in the generated enum, and its
// name (what the tool prints and the Python catalogue gives; for a routing
// cell the catalogue's own spelling).
struct Spelling {
    const char* enumerator;
    const char* name;
};
Spelling SpellingOf(FieldKind k);
Spelling SpellingOf(ShapeKind k);
Spelling SpellingOf(CellKind k);

struct Entry {
    FieldKind kind = FieldKind::Char;
    int offset = 0;
    int width = 0;
    std::string sub;      // array: entry layout
    int entries = 0;
    int countOffset = 0;  // array: offset of its count
    int def = 0;          // char: the Fast first-record default
    int limit = 0;        // text: the decode limit when it differs from the width (0: none)
    bool last = false;    // text coded after every other field of the record
};

struct Layout {
    std::string name;
    int size = 0;
    std::vector<Entry> entries;
};

// A routing cell as read: what it says, and for a codec cell the id whose
// codec serves.
struct RouteCell {
    CellKind kind = CellKind::raw;
    int codec = 0;
    bool IsCodec() const { return kind == CellKind::codec; }
};

struct Route {
    int id;
    RouteCell cell[4];  // pack 2008, pack Fast, restore 2008, restore Fast
};

struct Shape {
    ShapeKind kind = ShapeKind::Single;
    std::vector<std::string> layouts;
};

extern std::vector<Layout> g_req_layouts, g_ans_layouts;
extern std::map<int, std::string> g_req_layout_of;  // function id -> request layout
extern std::vector<Route> g_req_routes, g_ans_routes;
extern std::map<int, Shape> g_shapes;
extern std::map<int, int> g_aliases;
extern std::vector<std::pair<std::string, std::string>> g_req_shared;  // layout, layout whose encoder packs it
// One line per catalogue line, in catalogue order, with every argument: the
// fingerprint is its hash.
extern std::string g_canonical;

// Request stubs: the head alone on packing (1000, 1001, 1017), nothing on restoring 1017.
inline const std::set<int> kReqPackStubs = {1000, 1001, 1017};
inline const std::set<int> kReqRestoreStubs = {1017};
// Answer stubs of 1017, which codes nothing.
inline constexpr int kAnsStub = 1017;

// The function ids the routing tables hold a slot for, as ranges [first,
// first + count): a dense table over the first, the second behind it. Every
// routed id lies in one of them; the library's look-up and the model's list
// of ids are both written from these (RouteSlots.h, CatalogueTables.h).
struct SlotRange {
    int first, count;
};
inline constexpr SlotRange kSlotRanges[2] = {{1000, 262}, {8996, 4}};

// Reads the catalogue compiled into the generator (the .def files) into the
// globals above and writes its canonical text.
void ReadCatalogue();

// A cell that names a codec (an id) rather than what happens instead.
// The kind of a cell as the catalogue writes it; throws on an unknown name.
// A routing cell as the catalogue writes it: a codec id, RAW, NO_RECORDS,
// HEAD_ONLY or NOTHING; throws on anything else.
RouteCell CellNamed(const std::string& cell);

// The codec members the routing names, per family (pack 2008, pack Fast,
// restore 2008, restore Fast).
struct Members {
    std::set<int> req[4];
    std::set<int> ans[4];
};
Members Collect();

std::string RequestLayout(int codec);
const Shape& AnswerShape(int codec);
const Layout& LayoutNamed(const std::string& name);

// A layout's coded fields in the order the engines code them (model::Build):
// offset order, a counted array entry by entry, a sized block as its block
// then its length, never-coded bytes left out, late texts behind all others.
// `key` is everything a field's coders depend on; empty for a counted-array
// entry, as a chunk holding one is never shared.
struct CodedField {
    int offset;
    std::string key;
};
std::vector<CodedField> CodedFields(const Layout& l);

}  // namespace catalogue_gen
