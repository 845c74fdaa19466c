// Build-time generator: reads the catalogue (layouts, the layout of every
// request id, answer shapes and aliases, both routing tables) and writes
//   trdcomp/TrdCompMembers.inc  the per-id codec members of CTrdCompData
//                               (exactly those the routing names, plus the
//                               aliases and stubs), included by TrdCompData.h;
//   trdcomp/TrdCompRecords.h    a packed struct for every record layout,
//                               fields named by offset (f145);
//   CatalogueRequests.cpp,      the member definitions, each one line over
//   CatalogueAnswers.cpp        the generic engines, and the route rows;
//   CatalogueFingerprint.h      the catalogue's fingerprint: FNV-1a 64 of its
//                               canonical text (below);
//   RecordFields.h              every layout's fields as NumPy formats, for
//                               the Python module's record arrays;
//   CatalogueTables.h           the whole catalogue as constant run-time data
//                               (fields with kinds, limits and coding order;
//                               typed routing cells; shapes), for the model
//                               that the tool, tests and fuzzers use.
// The generated code holds no logic of its own: the engines do the coding.
//
// The canonical text lists what was read, one line per catalogue line and in
// catalogue order, with every argument (kinds, offsets, widths, limits,
// defaults, routing cells): the same catalogue gives the same text however
// its files are spaced or commented, and any change of layouts, routing,
// field kinds or limits changes it.
//
// usage: trdcomp_catalogue_gen OUTPUT_DIR | --canonical | --hash
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Entry {
    std::string kind;  // char text ascii bytes int32 int64 double uncoded sized array
    int offset = 0;
    int width = 0;
    std::string sub;   // array: entry layout
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

struct Route {
    int id;
    std::string cell[4];  // pack 2008, pack Fast, restore 2008, restore Fast
};

struct Shape {
    std::string kind;  // single, sections, switched
    std::vector<std::string> layouts;
};

std::vector<Layout> g_req_layouts, g_ans_layouts;
std::map<int, std::string> g_req_layout_of;  // function id -> request layout
std::vector<Route> g_req_routes, g_ans_routes;
std::map<int, Shape> g_shapes;
std::map<int, int> g_aliases;
std::vector<std::pair<std::string, std::string>> g_req_shared;  // layout, layout whose encoder packs it

std::vector<Layout>* g_target = nullptr;
std::string g_canonical;

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
Entry& Add(const char* kind, int off, int width, const char* sub = "", int entries = 0) {
    Current().entries.push_back(Entry{kind, off, width, sub, entries});
    return Current().entries.back();
}

#define TRD_LAYOUT(NAME, SIZE) Begin(#NAME, SIZE), Canon("LAYOUT", #NAME, SIZE);
#define TRD_END(NAME) Canon("END", #NAME);
#define TRD_CHAR(OFF) Add("char", OFF, 1), Canon("CHAR", OFF);
#define TRD_CHAR_DEF(OFF, D) Add("char", OFF, 1).def = D, Canon("CHAR_DEF", OFF, static_cast<int>(D));
#define TRD_TEXT(OFF, N) Add("text", OFF, N), Canon("TEXT", OFF, N);
#define TRD_TEXT_LIMIT(OFF, N, LIMIT) Add("text", OFF, N).limit = LIMIT, Canon("TEXT_LIMIT", OFF, N, LIMIT);
#define TRD_TEXT_LAST(OFF, N) Add("text", OFF, N).last = true, Canon("TEXT_LAST", OFF, N);
#define TRD_ASCII(OFF, N) Add("ascii", OFF, N), Canon("ASCII", OFF, N);
#define TRD_BYTES(OFF, N) Add("bytes", OFF, N), Canon("BYTES", OFF, N);
#define TRD_INT32(OFF) Add("int32", OFF, 4), Canon("INT32", OFF);
#define TRD_INT64(OFF) Add("int64", OFF, 8), Canon("INT64", OFF);
#define TRD_DOUBLE(OFF) Add("double", OFF, 8), Canon("DOUBLE", OFF);
#define TRD_UNCODED(OFF, N) Add("uncoded", OFF, N), Canon("UNCODED", OFF, N);
#define TRD_SIZED_BLOCK(OFF, N) Add("sized", OFF, N), Canon("SIZED_BLOCK", OFF, N);
#define TRD_COUNTED_ARRAY(OFF, E, ENTRY, COUNT_OFF) \
    Add("array", OFF, 0, #ENTRY, E).countOffset = COUNT_OFF, Canon("COUNTED_ARRAY", OFF, E, #ENTRY, COUNT_OFF);
#define TRD_REQ_LAYOUT_IDS(NAME, ...)                                     \
    for (int id : std::vector<int>{__VA_ARGS__}) g_req_layout_of[id] = #NAME; \
    Canon("REQ_LAYOUT_IDS", #NAME, __VA_ARGS__);
#define TRD_ROUTE(ID, P8, PF, R8, RF) \
    g_routes->push_back(Route{ID, {#P8, #PF, #R8, #RF}}), Canon(g_route_tag, ID, #P8, #PF, #R8, #RF);
#define TRD_ANS_SINGLE(ID, L) g_shapes[ID] = Shape{"single", {#L}}, Canon("ANS_SINGLE", ID, #L);
#define TRD_ANS_SECTIONS2(ID, L1, L2) g_shapes[ID] = Shape{"sections", {#L1, #L2}}, Canon("ANS_SECTIONS", ID, #L1, #L2);
#define TRD_ANS_SECTIONS3(ID, L1, L2, L3) \
    g_shapes[ID] = Shape{"sections", {#L1, #L2, #L3}}, Canon("ANS_SECTIONS", ID, #L1, #L2, #L3);
#define TRD_ANS_SWITCHED(ID, N, E) g_shapes[ID] = Shape{"switched", {#N, #E}}, Canon("ANS_SWITCHED", ID, #N, #E);
#define TRD_ANS_ALIAS(ID, OF) g_aliases[ID] = OF, Canon("ANS_ALIAS", ID, OF);
#define TRD_REQ_SHARED_ENCODER(LAYOUT, ENCODER) \
    g_req_shared.push_back({#LAYOUT, #ENCODER}), Canon("REQ_SHARED_ENCODER", #LAYOUT, #ENCODER);

std::vector<Route>* g_routes = nullptr;
const char* g_route_tag = "";

// Request stubs: the head alone on packing (1000, 1001, 1017), nothing on restoring 1017.
const std::set<int> kReqPackStubs = {1000, 1001, 1017};
const std::set<int> kReqRestoreStubs = {1017};
// Answer stubs of 1017, which codes nothing.
const int kAnsStub = 1017;

void Load() {
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

// FNV-1a, 64 bits.
std::uint64_t Fnv1a64(const std::string& text) {
    std::uint64_t h = 0xcbf29ce484222325ULL;
    for (unsigned char c : text) {
        h ^= c;
        h *= 0x100000001b3ULL;
    }
    return h;
}

std::string HexOf(std::uint64_t h) {
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
    return buf;
}

bool IsCodec(const std::string& cell) { return !cell.empty() && cell[0] >= '0' && cell[0] <= '9'; }

const char* const kFamily[4] = {"PackReq2008_", "PackReq2011_Fast_", "RestoreReq2008_", "RestoreReq2011_Fast_"};
const char* const kAnsFamily[4] = {"PackAns2008_", "PackAns2011_Fast_", "RestoreAns2008_", "RestoreAns2011_Fast_"};
const char* const kReqSig[4] = {
    "(char* out, int& outLen, char* data, int dataLen, char flag)",
    "(char* out, int& outLen, char* data, int dataLen, int version)",
    "(char* in, int inLen, char** out, int& outLen, char flag)",
    "(char* in, int inLen, char** out, int& outLen, int version)",
};
const char* const kAnsSig[4] = {
    "(char* out, int& outLen, tagANS_Proc* proc, char* a1, char* a2, char* a3, char* a4, char* a5, char flag)",
    "(char* out, int& outLen, tagANS_Proc* proc, char* a1, char* a2, char* a3, char* a4, char* a5, int version)",
    "(char* in, int inLen, char** out, int& outLen, char flag)",
    "(char* in, int inLen, char** out, int& outLen, int version)",
};

std::string Sig(const char* sig, bool named) {
    if (named) return sig;
    // Unnamed parameters for stubs, so that nothing is reported unused.
    std::string s = sig, out;
    std::string cur;
    for (char c : s) {
        if (c == ',' || c == ')') {
            const auto space = cur.rfind(' ');
            out += cur.substr(0, space == std::string::npos ? cur.size() : space);
            out += c;
            cur.clear();
        } else if (c == '(') {
            out += c;
        } else {
            cur += c;
        }
    }
    return out;
}

// ---- members ----

struct Members {
    std::set<int> req[4];
    std::set<int> ans[4];
};

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

std::string ShapeType(const Shape& s) {
    std::string t = s.kind == "switched" ? "::trdcomp::detail::Switched<" : "::trdcomp::detail::Sections<";
    for (std::size_t i = 0; i < s.layouts.size(); ++i) {
        t += i ? ", k" : "k";
        t += s.layouts[i];
    }
    return t + ">";
}

// The 2008 answer encoder of a codec packs the records of every id routed to
// it; where those ids have different single layouts (that code the same kinds
// of field), the encoder takes the layout whose size the caller's records have.
// Returns those layouts, own first (one layout: no family).
std::vector<std::string> PackFamily(int codec) {
    const Shape& own = AnswerShape(codec);
    std::vector<std::string> family = {own.kind == "single" ? own.layouts[0] : ""};
    for (const Route& r : g_ans_routes) {
        if (r.cell[0] != std::to_string(codec)) continue;
        const Shape& s = AnswerShape(r.id);
        if (own.kind != "single" || s.kind != "single") continue;
        bool seen = false;
        for (const auto& l : family) seen |= l == s.layouts[0];
        if (!seen) family.push_back(s.layouts[0]);
    }
    return family;
}

std::string PackShapeType(int codec) {
    const std::vector<std::string> family = PackFamily(codec);
    if (family.size() < 2) return ShapeType(AnswerShape(codec));
    std::string t = "::trdcomp::detail::SizeFamily<";
    for (std::size_t i = 0; i < family.size(); ++i) {
        t += i ? ", k" : "k";
        t += family[i];
    }
    return t + ">";
}

// The layouts an answer packer may code in each of its arrays.
std::vector<std::vector<std::string>> PackSectionLayouts(int codec, bool fast) {
    const Shape& own = AnswerShape(codec);
    if (!fast && PackFamily(codec).size() > 1) return {PackFamily(codec)};
    if (own.kind == "switched") return {own.layouts};
    std::vector<std::vector<std::string>> sections;
    for (const auto& l : own.layouts) sections.push_back({l});
    return sections;
}

// C++ expression of the largest coded record among `layouts` with the coder
// of a coding: "e8::MaxRecord" (2008, our KXPfdk), "e8::MaxRecordExported"
// (2008, another KXPfdk keeping the contract) or "ef::MaxRecord" (Fast).
std::string MaxRecordOf(const std::vector<std::string>& layouts, const std::string& coder) {
    std::string e = "std::max<std::uint32_t>({";
    for (std::size_t i = 0; i < layouts.size(); ++i) e += (i ? ", " : "") + coder + "<k" + layouts[i] + ">()";
    return e + "})";
}

// One row of a record-bound table: per coding, the largest coded record of
// each array ({} where the coding packs no records); the 2008 coding once
// with our KXPfdk and once with another.
std::string BoundRowOf(int id, const std::vector<std::vector<std::string>> (&sections)[2]) {
    const char* const coder[3] = {"e8::MaxRecord", "ef::MaxRecord", "e8::MaxRecordExported"};
    const int coding[3] = {0, 1, 0};
    std::string row = "        {" + std::to_string(id) + ", {";
    for (int c = 0; c < 3; ++c) {
        if (c == 2)
            row += ", " + std::to_string(sections[0].size()) + ", " + std::to_string(sections[1].size());
        row += c ? ", {" : "{";
        const auto& arrays = sections[coding[c]];
        for (std::size_t j = 0; j < arrays.size(); ++j) row += (j ? ", " : "") + MaxRecordOf(arrays[j], coder[c]);
        row += "}";
    }
    return row + "}},\n";
}

// ---- writers ----

void WriteMembers(std::ostream& o, const Members& m) {
    o << "/* Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
         " * The per-id codec members of CTrdCompData (private; the dispatchers\n"
         " * route to them). This file is included inside the class. */\n";
    for (int f = 0; f < 4; ++f) {
        std::set<int> ids = m.req[f];
        if (f == 0) ids.insert(kReqPackStubs.begin(), kReqPackStubs.end());
        if (f == 2) ids.insert(kReqRestoreStubs.begin(), kReqRestoreStubs.end());
        for (int id : ids) o << "static int " << kFamily[f] << id << kReqSig[f] << ";\n";
    }
    for (int f = 0; f < 4; ++f) {
        std::set<int> ids = m.ans[f];
        ids.insert(kAnsStub);
        for (int id : ids) o << "static int " << kAnsFamily[f] << id << kAnsSig[f] << ";\n";
    }
}

std::string CType(const Entry& e) {
    if (e.kind == "int32") return "int";
    if (e.kind == "int64") return "long long";
    if (e.kind == "double") return "double";
    if (e.kind == "array") return "tag" + e.sub;
    return "char";
}

void WriteStruct(std::ostream& o, const Layout& l) {
    o << "struct tag" << l.name << " {\n";
    for (const Entry& e : l.entries) {
        std::ostringstream fieldName;
        fieldName << 'f' << e.offset;
        const std::string name = fieldName.str();
        if (e.kind == "char")
            o << "    char " << name << ";\n";
        else if (e.kind == "int32" || e.kind == "int64" || e.kind == "double")
            o << "    " << CType(e) << " " << name << ";\n";
        else if (e.kind == "array")
            o << "    " << CType(e) << " " << name << "[" << e.entries << "];\n";
        else if (e.kind == "sized")
            o << "    char " << name << "[" << e.width << "];\n    int f" << e.offset + e.width
              << "; /* the block's length */\n";
        else if (e.kind == "uncoded")
        {
            o << "    char " << name;
            if (e.width > 1) o << '[' << e.width << ']';
            o << "; /* not carried */\n";
        }
        else
            o << "    char " << name << "[" << e.width << "];\n";
    }
    o << "};\n";
    o << "TRDCOMP_RECORD_SIZE(tag" << l.name << ", " << l.size << ");\n\n";
}

void WriteRecords(std::ostream& o) {
    o << "/* Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
         " * Packed record layouts of every request and answer, fields named by\n"
         " * their byte offset. Valid C++11. */\n"
         "#ifndef TRDCOMP_TRDCOMPRECORDS_H\n#define TRDCOMP_TRDCOMPRECORDS_H\n\n"
         "#define TRDCOMP_RECORD_SIZE(T, N) static_assert(sizeof(T) == N, #T \" is \" #N \" bytes\")\n\n"
         "#pragma pack(push, 1)\n\n";
    for (const Layout& l : g_req_layouts) WriteStruct(o, l);
    for (const Layout& l : g_ans_layouts) WriteStruct(o, l);
    o << "#pragma pack(pop)\n\n#undef TRDCOMP_RECORD_SIZE\n\n#endif\n";
}

void WriteOffsetChecks(std::ostream& o, const std::vector<Layout>& layouts) {
    for (const Layout& l : layouts) {
        o << "static_assert(sizeof(tag" << l.name << ") == k" << l.name << ".size);\n";
        for (const Entry& e : l.entries)
            o << "static_assert(offsetof(tag" << l.name << ", f" << e.offset << ") == " << e.offset << ");\n";
    }
}

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
std::vector<CodedField> CodedFields(const Layout& l) {
    std::vector<CodedField> early, late;
    const auto key = [](const std::string& kind, int offset, int width, int limit, int def) {
        return kind + ':' + std::to_string(offset) + ':' + std::to_string(width) + ':' + std::to_string(limit) + ':' +
               std::to_string(def);
    };
    for (const Entry& e : l.entries) {
        if (e.kind == "uncoded") continue;
        if (e.kind == "sized") {
            early.push_back({e.offset, key("sized", e.offset, e.width, 0, 0)});
            early.push_back({e.offset + e.width, key("length", e.offset + e.width, 4, 0, 0)});
        } else if (e.kind == "array") {
            const Layout& sub = LayoutNamed(e.sub);
            for (int k = 0; k < e.entries; ++k)
                for (const Entry& f : sub.entries)
                    (f.last ? late : early).push_back({e.offset + k * sub.size + f.offset, ""});
        } else {
            (e.last ? late : early).push_back({e.offset, key(e.kind, e.offset, e.width, e.limit, e.def)});
        }
    }
    early.insert(early.end(), late.begin(), late.end());
    return early;
}

// Marks the chunks of seven coded fields that more than one layout of the
// group holds field for field (model::kSharedChunks): the engines code each
// of them out of line, once.
void WriteSharedChunks(std::ostream& o, const std::vector<Layout>& layouts) {
    constexpr std::size_t kChunk = 7;
    std::map<std::string, int> uses;
    std::vector<std::vector<std::string>> chunks;
    for (const Layout& l : layouts) {
        const std::vector<CodedField> fields = CodedFields(l);
        std::vector<std::string> mine;
        for (std::size_t first = 0; first < fields.size() && first / kChunk < 64; first += kChunk) {
            std::string chunk;
            for (std::size_t i = first; i < fields.size() && i < first + kChunk; ++i) {
                if (fields[i].key.empty()) {
                    chunk.clear();
                    break;
                }
                chunk += fields[i].key + ' ';
            }
            mine.push_back(chunk);
            if (!chunk.empty()) ++uses[chunk];
        }
        chunks.push_back(mine);
    }
    o << "\nnamespace trdcomp::model {\nstatic_assert(kChunk == " << kChunk
      << ", \"the generator's chunks are the engines'\");\n";
    for (std::size_t j = 0; j < layouts.size(); ++j) {
        std::uint64_t bits = 0;
        for (std::size_t k = 0; k < chunks[j].size(); ++k)
            if (!chunks[j][k].empty() && uses[chunks[j][k]] > 1) bits |= std::uint64_t{1} << k;
        if (bits != 0)
            o << "template <>\ninline constexpr std::uint64_t kSharedChunks<::k" << layouts[j].name << "> = 0x" << std::hex
              << bits << std::dec << ";\n";
    }
    o << "}  // namespace trdcomp::model\n\n";
}

const char* const kHeader =
    "// Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
    "#include <algorithm>\n"
    "#include <cstddef>\n\n"
    "#include \"Routing.h\"\n"
    "#include \"codec2008/Engine2008.h\"\n"
    "#include \"common/LayoutMacros.h\"\n"
    "#include \"fastcodec/FastEngine.h\"\n"
    "#include \"trdcomp/TrdCompData.h\"\n"
    "#include \"trdcomp/TrdCompRecords.h\"\n\n"
    "using trdcomp::detail::Call;\n"
    "using trdcomp::detail::Cell;\n"
    "using trdcomp::detail::ClassicCall;\n\n";

// A routing cell as a route: a codec cell names the engine instance `fn`
// gives for the codec's id.
template <class Fn>
std::string CellOf(const std::string& cell, const Fn& fn) {
    if (cell == "RAW") return "{}";
    if (cell == "NO_RECORDS") return "{Cell::NoRecords}";
    if (cell == "HEAD_ONLY") return "{Cell::HeadOnly}";
    if (cell == "NOTHING") return "{Cell::Nothing}";
    return "{Cell::Codec, " + fn(std::stoi(cell)) + "}";
}

// The engine instance of each request family for a codec id.
std::string RequestEngine(int f, int codec) {
    const char* const engine[4] = {"&e8::PackRequest<k", "&ef::PackRequest<k", "&e8::RestoreRequest<k",
                                   "&ef::RestoreRequest<k"};
    return engine[f] + RequestLayout(codec) + ">";
}

// The engine instance of each answer family for a codec id.
std::string AnswerEngine(int f, int codec) {
    switch (f) {
        case 0: return "&e8::PackAnswer<" + PackShapeType(codec) + ">";
        case 1: return "&ef::PackAnswer<" + ShapeType(AnswerShape(codec)) + ">";
        case 2: return "&e8::RestoreAnswer<" + ShapeType(AnswerShape(codec)) + ">";
        default: return "&ef::RestoreAnswer<" + ShapeType(AnswerShape(codec)) + ">";
    }
}

void WriteRequests(std::ostream& o, const Members& m) {
    o << kHeader << "#include \"request_layouts.def\"\n";
    WriteSharedChunks(o, g_req_layouts);
    WriteOffsetChecks(o, g_req_layouts);
    for (const auto& [layout, encoder] : g_req_shared)
        o << "static_assert(::trdcomp::model::SameKinds(k" << layout << ", k" << encoder << "), \"" << layout
          << " is packed by the encoder of " << encoder << "\");\n";
    o << "\nnamespace e8 = trdcomp::codec2008;\nnamespace ef = trdcomp::fast;\n\n";
    for (int id : kReqPackStubs)
        o << "int CTrdCompData::" << kFamily[0] << id << Sig(kReqSig[0], false) << " { return 1; }\n";
    for (int id : kReqRestoreStubs)
        o << "int CTrdCompData::" << kFamily[2] << id << Sig(kReqSig[2], false) << " { return 1; }\n";
    // The members: a classic call into the engine instance the routes name.
    const char* const args[4] = {"(call, out, outLen, data, dataLen, flag)", "(call, out, outLen, data, dataLen, version)",
                                 "(call, in, inLen, out, outLen, flag)", "(call, in, inLen, out, outLen, version)"};
    for (int f = 0; f < 4; ++f) {
        for (int id : m.req[f])
            o << "int CTrdCompData::" << kFamily[f] << id << kReqSig[f] << " {\n    Call call = ClassicCall();\n"
              << "    return " << RequestEngine(f, id).substr(1) << args[f] << ";\n}\n";
    }
    o << "\nnamespace trdcomp::detail {\n\nconstexpr ReqRow kReqRouteRows[] = {\n";
    for (const Route& r : g_req_routes) {
        o << "    {" << r.id << ", {";
        for (int f = 0; f < 4; ++f)
            o << (f ? ", " : "") << CellOf(r.cell[f], [f](int codec) { return RequestEngine(f, codec); });
        o << "}},\n";
    }
    o << "};\nconstinit const ReqTable kReqRouteTable = Dense(kReqRouteRows);\n\n";
    o << "constexpr BoundRow kReqBoundRows[] = {\n";
    for (const Route& r : g_req_routes) {
        std::vector<std::vector<std::string>> sections[2];
        for (int f = 0; f < 2; ++f)
            if (IsCodec(r.cell[f])) sections[f] = {{RequestLayout(std::stoi(r.cell[f]))}};
        if (!sections[0].empty() || !sections[1].empty()) o << BoundRowOf(r.id, sections);
    }
    o << "};\nconst BoundTable kReqBoundTable = Dense(kReqBoundRows);\n\n}  // namespace trdcomp::detail\n";
}

void WriteAnswers(std::ostream& o, const Members& m) {
    o << kHeader << "#include \"answer_layouts.def\"\n";
    WriteSharedChunks(o, g_ans_layouts);
    WriteOffsetChecks(o, g_ans_layouts);
    o << "\nnamespace e8 = trdcomp::codec2008;\nnamespace ef = trdcomp::fast;\n\n";
    o << "int CTrdCompData::PackAns2008_" << kAnsStub << Sig(kAnsSig[0], false) << " { return 1; }\n";
    o << "int CTrdCompData::PackAns2011_Fast_" << kAnsStub << Sig(kAnsSig[1], false) << " { return 1; }\n";
    o << "int CTrdCompData::RestoreAns2008_" << kAnsStub << Sig(kAnsSig[2], false) << " { return 1; }\n";
    o << "int CTrdCompData::RestoreAns2011_Fast_" << kAnsStub << Sig(kAnsSig[3], false) << " { return 1; }\n\n";
    // The members: a classic call into the engine instance the routes name.
    const char* const family[4] = {"PackAns2008_", "PackAns2011_Fast_", "RestoreAns2008_", "RestoreAns2011_Fast_"};
    for (int f = 0; f < 4; ++f) {
        for (int id : m.ans[f]) {
            o << "int CTrdCompData::" << family[f] << id << kAnsSig[f] << " {\n";
            if (f < 2) o << "    char* const arrays[5] = {a1, a2, a3, a4, a5};\n";
            o << "    Call call = ClassicCall();\n    return " << AnswerEngine(f, id).substr(1)
              << (f == 0   ? "(call, out, outLen, proc, arrays, flag)"
                  : f == 1 ? "(call, out, outLen, proc, arrays, version)"
                  : f == 2 ? "(call, in, inLen, out, outLen, flag)"
                           : "(call, in, inLen, out, outLen, version)")
              << ";\n}\n";
        }
    }
    o << "\nnamespace trdcomp::detail {\n\nconstexpr AnsRow kAnsRouteRows[] = {\n";
    for (const Route& r : g_ans_routes) {
        o << "    {" << r.id << ", {";
        for (int f = 0; f < 4; ++f)
            o << (f ? ", " : "") << CellOf(r.cell[f], [f](int codec) { return AnswerEngine(f, codec); });
        o << "}},\n";
    }
    o << "};\nconstinit const AnsTable kAnsRouteTable = Dense(kAnsRouteRows);\n\n";
    o << "constexpr BoundRow kAnsBoundRows[] = {\n";
    for (const Route& r : g_ans_routes) {
        std::vector<std::vector<std::string>> sections[2];
        for (int f = 0; f < 2; ++f)
            if (IsCodec(r.cell[f])) sections[f] = PackSectionLayouts(std::stoi(r.cell[f]), f == 1);
        if (!sections[0].empty() || !sections[1].empty()) o << BoundRowOf(r.id, sections);
    }
    o << "};\nconst BoundTable kAnsBoundTable = Dense(kAnsBoundRows);\n\n}  // namespace trdcomp::detail\n";
}

void WriteFingerprint(std::ostream& o) {
    o << "// Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
         "// FNV-1a 64 of the catalogue's canonical text (trdcomp_catalogue_gen --canonical).\n"
         "#pragma once\n\n#define TRDCOMP_CATALOGUE_HASH 0x"
      << HexOf(Fnv1a64(g_canonical)) << "ULL\n";
}

// A field's NumPy format: byte strings for chars and texts, unsigned byte
// arrays for blocks, little-endian numbers; "" for a counted array (its
// entries are records of another layout).
std::string NumpyFormat(const Entry& e) {
    const std::string w = std::to_string(e.width);
    if (e.kind == "char") return "S1";
    if (e.kind == "text" || e.kind == "ascii") return "S" + w;
    if (e.kind == "int32") return "<i4";
    if (e.kind == "int64") return "<i8";
    if (e.kind == "double") return "<f8";
    if (e.kind == "array") return "";
    return e.width == 1 ? "u1" : "(" + w + ",)u1";  // bytes, sized, uncoded
}

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
                if (e.kind == "sized") {  // the block's length behind it
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
const Layout& LayoutNamed(const std::string& name) {
    for (const auto* group : {&g_req_layouts, &g_ans_layouts})
        for (const Layout& l : *group)
            if (l.name == name) return l;
    throw std::runtime_error("no layout " + name);
}

std::string CellOf(const std::string& cell) {
    if (IsCodec(cell)) return "{CellKind::codec, " + cell + "}";
    static const std::map<std::string, std::string> kKinds = {
        {"RAW", "raw"}, {"NO_RECORDS", "no_records"}, {"HEAD_ONLY", "head_only"}, {"NOTHING", "nothing"}};
    const auto it = kKinds.find(cell);
    if (it == kKinds.end()) throw std::runtime_error("unknown routing cell " + cell);
    return "{CellKind::" + it->second + ", 0}";
}

// The offsets of a layout's coded fields in the order the engines code them.
std::vector<int> CodingOrder(const Layout& l) {
    std::vector<int> order;
    for (const CodedField& f : CodedFields(l)) order.push_back(f.offset);
    return order;
}

void WriteModelTables(std::ostream& o) {
    o << "// Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
         "// The catalogue as run-time data (see catalogue/model/CatalogueModel.h).\n"
         "#pragma once\n\nnamespace trdcomp::generated {\n\n"
         "enum class CellKind { codec, raw, no_records, head_only, nothing };\n"
         "struct CatalogueField {\n"
         "    const char* kind;  // char text ascii bytes int32 int64 double uncoded sized array\n"
         "    int offset, width, def, limit;\n    bool last;\n"
         "    const char* entry;\n    int entries, countOffset;\n};\n"
         "struct CatalogueLayout {\n    const char* name;\n    int size, first, count;  // fields [first, first + count)\n"
         "    int orderFirst, orderCount;  // coding order: kCatalogueCodingOrder[orderFirst, + orderCount)\n};\n"
         "struct CatalogueRequestLayout {\n    int id;\n    const char* layout;\n};\n"
         "struct CatalogueCell {\n    CellKind kind;\n    int codec;\n};\n"
         "struct CatalogueRoute {\n    int id;\n    CatalogueCell cell[4];  // pack 2008, pack Fast, restore 2008, restore Fast\n};\n"
         "struct CatalogueShape {\n    int id;\n    const char* kind;  // single sections switched\n"
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
                const int width = e.kind == "array" ? e.entries * LayoutNamed(e.sub).size : e.width;
                o << "    {\"" << e.kind << "\", " << e.offset << ", " << width << ", " << e.def << ", " << e.limit
                  << ", " << (e.last ? "true" : "false") << ", \"" << e.sub << "\", " << e.entries << ", "
                  << e.countOffset << "},\n";
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
    o << "};\n\ninline constexpr CatalogueShape kCatalogueShapes[] = {\n";
    for (const auto& [id, shape] : g_shapes) {
        o << "    {" << id << ", \"" << shape.kind << "\", " << shape.layouts.size() << ", {";
        for (std::size_t i = 0; i < shape.layouts.size(); ++i) o << (i ? ", " : "") << '"' << shape.layouts[i] << '"';
        o << "}},\n";
    }
    o << "};\n\ninline constexpr CatalogueAlias kCatalogueAliases[] = {\n";
    for (const auto& [id, of] : g_aliases) o << "    {" << id << ", " << of << "},\n";
    o << "};\n\n}  // namespace trdcomp::generated\n";
}

// Writes a file only when its content changed, so builds stay incremental.
void Emit(const std::string& path, const std::string& text) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream old;
    old << in.rdbuf();
    if (in && old.str() == text) return;
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string arg = argc == 2 ? argv[1] : "";
    if (argc != 2 || arg == "--help") {
        std::cerr << "usage: trdcomp_catalogue_gen OUTPUT_DIR | --canonical | --hash\n"
                     "OUTPUT_DIR: writes trdcomp/TrdCompMembers.inc, trdcomp/TrdCompRecords.h, CatalogueRequests.cpp,\n"
                     "  CatalogueAnswers.cpp, CatalogueFingerprint.h, RecordFields.h and CatalogueTables.h from the\n"
                     "  catalogue compiled into this program\n"
                     "--canonical: prints the catalogue's canonical text, of which the fingerprint is the hash\n"
                     "--hash: prints the fingerprint (FNV-1a 64, 16 hex digits) of the text on standard input\n";
        return argc == 2 ? 0 : 2;
    }
    try {
        Load();
        if (arg == "--canonical") {
            std::cout << g_canonical;
            return 0;
        }
        if (arg == "--hash") {
            std::ostringstream text;
            text << std::cin.rdbuf();
            std::cout << HexOf(Fnv1a64(text.str())) << "\n";
            return 0;
        }
        const Members m = Collect();
        const std::string dir = arg;
        std::ostringstream members, records, requests, answers, fingerprint, fields, tables;
        WriteMembers(members, m);
        WriteRecords(records);
        WriteRequests(requests, m);
        WriteAnswers(answers, m);
        WriteFingerprint(fingerprint);
        WriteRecordFields(fields);
        WriteModelTables(tables);
        Emit(dir + "/trdcomp/TrdCompMembers.inc", members.str());
        Emit(dir + "/trdcomp/TrdCompRecords.h", records.str());
        Emit(dir + "/CatalogueRequests.cpp", requests.str());
        Emit(dir + "/CatalogueAnswers.cpp", answers.str());
        Emit(dir + "/CatalogueFingerprint.h", fingerprint.str());
        Emit(dir + "/RecordFields.h", fields.str());
        Emit(dir + "/CatalogueTables.h", tables.str());
    } catch (const std::exception& e) {
        std::cerr << "trdcomp_catalogue_gen: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
