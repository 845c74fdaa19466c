// The catalogue reader: the catalogue's .def files are compiled into the
// generator, each of their macros (TRD_LAYOUT, TRD_CHAR, TRD_ROUTE, ...)
// adding what it declares to the catalogue of Catalogue.h and one line to the
// canonical text.
//
// The canonical text lists what was read, one line per catalogue line and in
// catalogue order, with every argument (kinds, offsets, widths, limits,
// defaults, routing cells): the same catalogue gives the same text however
// its files are spaced or commented, and any change of layouts, routing,
// field kinds or limits changes it.
#include <sstream>
#include <string>
#include <vector>

#include "gen/Catalogue.h"

namespace catalogue_gen {

namespace {

std::vector<Layout>* g_target = nullptr;
std::vector<Route>* g_routes = nullptr;
const char* g_route_tag = "";

// One line of the canonical text: a tag and the line's arguments.
template <class... A>
void Canon(const char* tag, const A&... args) {
    std::ostringstream line;
    line << tag;
    ((line << ' ' << args), ...);
    g_canonical += line.str() + '\n';
}

Layout& Current() { return g_target->back(); }
void Begin(const char* name, int size) { g_target->push_back(Layout{name, size, {}}); }
Entry& Add(FieldKind kind, int off, int width, const char* sub = "", int entries = 0) {
    Current().entries.push_back(Entry{kind, off, width, sub, entries});
    return Current().entries.back();
}

#define TRD_LAYOUT(NAME, SIZE) Begin(#NAME, SIZE), Canon("LAYOUT", #NAME, SIZE);
#define TRD_END(NAME) Canon("END", #NAME);
#define TRD_CHAR(OFF) Add(FieldKind::Char, OFF, 1), Canon("CHAR", OFF);
#define TRD_CHAR_DEF(OFF, D) Add(FieldKind::Char, OFF, 1).def = D, Canon("CHAR_DEF", OFF, static_cast<int>(D));
#define TRD_TEXT(OFF, N) Add(FieldKind::Text, OFF, N), Canon("TEXT", OFF, N);
#define TRD_TEXT_LIMIT(OFF, N, LIMIT) Add(FieldKind::Text, OFF, N).limit = LIMIT, Canon("TEXT_LIMIT", OFF, N, LIMIT);
#define TRD_TEXT_LAST(OFF, N) Add(FieldKind::Text, OFF, N).last = true, Canon("TEXT_LAST", OFF, N);
#define TRD_ASCII(OFF, N) Add(FieldKind::Ascii, OFF, N), Canon("ASCII", OFF, N);
#define TRD_BYTES(OFF, N) Add(FieldKind::Bytes, OFF, N), Canon("BYTES", OFF, N);
#define TRD_INT32(OFF) Add(FieldKind::Int32, OFF, 4), Canon("INT32", OFF);
#define TRD_INT64(OFF) Add(FieldKind::Int64, OFF, 8), Canon("INT64", OFF);
#define TRD_DOUBLE(OFF) Add(FieldKind::Double, OFF, 8), Canon("DOUBLE", OFF);
#define TRD_UNCODED(OFF, N) Add(FieldKind::Uncoded, OFF, N), Canon("UNCODED", OFF, N);
#define TRD_SIZED_BLOCK(OFF, N) Add(FieldKind::Sized, OFF, N), Canon("SIZED_BLOCK", OFF, N);
#define TRD_COUNTED_ARRAY(OFF, E, ENTRY, COUNT_OFF) \
    Add(FieldKind::Array, OFF, 0, #ENTRY, E).countOffset = COUNT_OFF, Canon("COUNTED_ARRAY", OFF, E, #ENTRY, COUNT_OFF);
#define TRD_REQ_LAYOUT_IDS(NAME, ...)                                     \
    for (int id : std::vector<int>{__VA_ARGS__}) g_req_layout_of[id] = #NAME; \
    Canon("REQ_LAYOUT_IDS", #NAME, __VA_ARGS__);
#define TRD_ROUTE(ID, P8, PF, R8, RF) \
    g_routes->push_back(Route{ID, {CellNamed(#P8), CellNamed(#PF), CellNamed(#R8), CellNamed(#RF)}}), \
        Canon(g_route_tag, ID, #P8, #PF, #R8, #RF);
#define TRD_ANS_SINGLE(ID, L) g_shapes[ID] = Shape{ShapeKind::Single, {#L}}, Canon("ANS_SINGLE", ID, #L);
#define TRD_ANS_SECTIONS2(ID, L1, L2) \
    g_shapes[ID] = Shape{ShapeKind::Sections, {#L1, #L2}}, Canon("ANS_SECTIONS", ID, #L1, #L2);
#define TRD_ANS_SECTIONS3(ID, L1, L2, L3) \
    g_shapes[ID] = Shape{ShapeKind::Sections, {#L1, #L2, #L3}}, Canon("ANS_SECTIONS", ID, #L1, #L2, #L3);
#define TRD_ANS_SWITCHED(ID, N, E) \
    g_shapes[ID] = Shape{ShapeKind::Switched, {#N, #E}}, Canon("ANS_SWITCHED", ID, #N, #E);
#define TRD_ANS_ALIAS(ID, OF) g_aliases[ID] = OF, Canon("ANS_ALIAS", ID, OF);
#define TRD_REQ_SHARED_ENCODER(LAYOUT, ENCODER) \
    g_req_shared.push_back({#LAYOUT, #ENCODER}), Canon("REQ_SHARED_ENCODER", #LAYOUT, #ENCODER);

}  // namespace

void ReadCatalogue() {
    Canon("trdcomp-catalogue", 1);
    g_target = &g_req_layouts;
#include "request_layouts.def"
    g_target = &g_ans_layouts;
#include "answer_layouts.def"
    g_routes = &g_req_routes;
    g_route_tag = "REQ_ROUTE";
#include "request_routes.def"
    g_routes = &g_ans_routes;
    g_route_tag = "ANS_ROUTE";
#include "answer_routes.def"
#include "answer_shapes.def"
    // The stubs are part of what goes on the wire for their ids.
    for (int id : kReqPackStubs) Canon("REQ_PACK_STUB", id);
    for (int id : kReqRestoreStubs) Canon("REQ_RESTORE_STUB", id);
    Canon("ANS_STUB", kAnsStub);
}

}  // namespace catalogue_gen
