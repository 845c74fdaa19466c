// Writers of the library's generated code:
//   trdcomp/TrdCompMembers.inc  the per-id codec members of CTrdCompData
//                               (exactly those the routing names, plus the
//                               aliases and stubs), included by TrdCompData.h;
//   trdcomp/TrdCompRecords.h    a packed struct for every record layout,
//                               fields named by offset (f145);
//   CatalogueRequests.cpp,      the member definitions, each one line over
//   CatalogueAnswers.cpp        the generic engines, and the route rows.
// The generated code holds no logic of its own: the engines do the coding.
#include <cstdint>
#include <cstdio>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "gen/Catalogue.h"
#include "gen/Writers.h"

namespace catalogue_gen {

namespace {

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

std::string ShapeType(const Shape& s) {
    std::string t = s.kind == ShapeKind::Switched ? "::trdcomp::detail::Switched<" : "::trdcomp::detail::Sections<";
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
    std::vector<std::string> family = {own.kind == ShapeKind::Single ? own.layouts[0] : ""};
    for (const Route& r : g_ans_routes) {
        if (!r.cell[0].IsCodec() || r.cell[0].codec != codec) continue;
        const Shape& s = AnswerShape(r.id);
        if (own.kind != ShapeKind::Single || s.kind != ShapeKind::Single) continue;
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
    if (own.kind == ShapeKind::Switched) return {own.layouts};
    std::vector<std::vector<std::string>> sections;
    for (const auto& l : own.layouts) sections.push_back({l});
    return sections;
}

// C++ expression of the largest coded record among `layouts` with the coder
// of a coding: "codec2008::MaxRecord" (2008, our KXPfdk), "codec2008::MaxRecordExported"
// (2008, another KXPfdk keeping the contract) or "fast::MaxRecord" (Fast).
std::string MaxRecordOf(const std::vector<std::string>& layouts, const std::string& coder) {
    std::string e = "std::max<std::uint32_t>({";
    for (std::size_t i = 0; i < layouts.size(); ++i) e += (i ? ", " : "") + coder + "<k" + layouts[i] + ">()";
    return e + "})";
}

// One row of a record-bound table: per coding, the largest coded record of
// each array ({} where the coding packs no records); the 2008 coding once
// with our KXPfdk and once with another.
std::string BoundRowOf(int id, const std::vector<std::vector<std::string>> (&sections)[2]) {
    const char* const coder[3] = {"codec2008::MaxRecord", "fast::MaxRecord", "codec2008::MaxRecordExported"};
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

// The C type of a field of one value or of one array entry.
std::string CType(const Entry& e) {
    switch (e.kind) {
        case FieldKind::Int32: return "int";
        case FieldKind::Int64: return "long long";
        case FieldKind::Double: return "double";
        case FieldKind::Array: return "tag" + e.sub;
        case FieldKind::Char:
        case FieldKind::Text:
        case FieldKind::Ascii:
        case FieldKind::Bytes:
        case FieldKind::Uncoded:
        case FieldKind::Sized: return "char";
    }
    throw std::logic_error("a field kind without a C type");
}

void WriteStruct(std::ostream& o, const Layout& l) {
    o << "struct tag" << l.name << " {\n";
    for (const Entry& e : l.entries) {
        const std::string name = "f" + std::to_string(e.offset);
        switch (e.kind) {
            case FieldKind::Char: o << "    char " << name << ";\n"; break;
            case FieldKind::Int32:
            case FieldKind::Int64:
            case FieldKind::Double: o << "    " << CType(e) << " " << name << ";\n"; break;
            case FieldKind::Array: o << "    " << CType(e) << " " << name << "[" << e.entries << "];\n"; break;
            case FieldKind::Sized:
                o << "    char " << name << "[" << e.width << "];\n    int f" << e.offset + e.width
                  << "; /* the block's length */\n";
                break;
            case FieldKind::Uncoded:
                o << "    char " << name;
                if (e.width > 1) o << '[' << e.width << ']';
                o << "; /* not carried */\n";
                break;
            case FieldKind::Text:
            case FieldKind::Ascii:
            case FieldKind::Bytes: o << "    char " << name << "[" << e.width << "];\n"; break;
        }
    }
    o << "};\n";
    o << "TRDCOMP_RECORD_SIZE(tag" << l.name << ", " << l.size << ");\n\n";
}

}  // namespace

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

namespace {

void WriteOffsetChecks(std::ostream& o, const std::vector<Layout>& layouts) {
    for (const Layout& l : layouts) {
        o << "static_assert(sizeof(tag" << l.name << ") == k" << l.name << ".size);\n";
        for (const Entry& e : l.entries)
            o << "static_assert(offsetof(tag" << l.name << ", f" << e.offset << ") == " << e.offset << ");\n";
    }
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
    "#include \"Engine2008.h\"\n"
    "#include \"FastEngine.h\"\n"
    "#include \"LayoutMacros.h\"\n"
    "#include \"Routing.h\"\n"
    "#include \"trdcomp/TrdCompData.h\"\n"
    "#include \"trdcomp/TrdCompRecords.h\"\n\n"
    "using trdcomp::detail::Call;\n"
    "using trdcomp::detail::Cell;\n"
    "using trdcomp::detail::ClassicCall;\n\n";

// A routing cell as a route: a codec cell names the engine instance `fn`
// gives for the codec's id.
template <class Fn>
std::string RouteOf(const RouteCell& cell, const Fn& fn) {
    switch (cell.kind) {
        case CellKind::raw: return "{}";
        case CellKind::no_records: return "{Cell::no_records}";
        case CellKind::head_only: return "{Cell::head_only}";
        case CellKind::nothing: return "{Cell::nothing}";
        case CellKind::codec: return "{Cell::codec, " + fn(cell.codec) + "}";
    }
    throw std::logic_error("a routing cell of no kind");
}

// The engine instance of each request family for a codec id.
std::string RequestEngine(int f, int codec) {
    const char* const engine[4] = {"&trdcomp::codec2008::PackRequest<k", "&trdcomp::fast::PackRequest<k", "&trdcomp::codec2008::RestoreRequest<k",
                                   "&trdcomp::fast::RestoreRequest<k"};
    return engine[f] + RequestLayout(codec) + ">";
}

// The engine instance of each answer family for a codec id.
std::string AnswerEngine(int f, int codec) {
    switch (f) {
        case 0: return "&trdcomp::codec2008::PackAnswer<" + PackShapeType(codec) + ">";
        case 1: return "&trdcomp::fast::PackAnswer<" + ShapeType(AnswerShape(codec)) + ">";
        case 2: return "&trdcomp::codec2008::RestoreAnswer<" + ShapeType(AnswerShape(codec)) + ">";
        default: return "&trdcomp::fast::RestoreAnswer<" + ShapeType(AnswerShape(codec)) + ">";
    }
}

// The route rows of one direction ("Req", "Ans") and the dense table over
// them; `engine(f, codec)` names the engine instance of family f.
void WriteRouteRows(std::ostream& o, const std::string& dir, const std::vector<Route>& routes,
                    std::string (*engine)(int, int)) {
    o << "constexpr " << dir << "Row k" << dir << "RouteRows[] = {\n";
    for (const Route& r : routes) {
        o << "    {" << r.id << ", {";
        for (int f = 0; f < 4; ++f)
            o << (f ? ", " : "") << RouteOf(r.cell[f], [&](int codec) { return engine(f, codec); });
        o << "}},\n";
    }
    o << "};\nconstinit const " << dir << "Table k" << dir << "RouteTable = Dense(k" << dir << "RouteRows);\n\n";
}

// The size-bound rows of one direction, for the ids a packer codes:
// `sections(codec, fast)` gives the layouts of each array the codec packs.
template <class Sections>
void WriteBoundRows(std::ostream& o, const std::string& dir, const std::vector<Route>& routes,
                    const Sections& sections) {
    o << "constexpr BoundRow k" << dir << "BoundRows[] = {\n";
    for (const Route& r : routes) {
        std::vector<std::vector<std::string>> layouts[2];
        for (int f = 0; f < 2; ++f)
            if (r.cell[f].IsCodec()) layouts[f] = sections(r.cell[f].codec, f == 1);
        if (!layouts[0].empty() || !layouts[1].empty()) o << BoundRowOf(r.id, layouts);
    }
    o << "};\nconst BoundTable k" << dir << "BoundTable = Dense(k" << dir
      << "BoundRows);\n\n}  // namespace trdcomp::detail\n";
}

}  // namespace

void WriteRequests(std::ostream& o, const Members& m) {
    o << kHeader << "#include \"request_layouts.def\"\n";
    WriteSharedChunks(o, g_req_layouts);
    WriteOffsetChecks(o, g_req_layouts);
    for (const auto& [layout, encoder] : g_req_shared)
        o << "static_assert(::trdcomp::model::SameKinds(k" << layout << ", k" << encoder << "), \"" << layout
          << " is packed by the encoder of " << encoder << "\");\n";
    o << "\n";
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
    o << "\nnamespace trdcomp::detail {\n\n";
    WriteRouteRows(o, "Req", g_req_routes, RequestEngine);
    WriteBoundRows(o, "Req", g_req_routes, [](int codec, bool) {
        return std::vector<std::vector<std::string>>{{RequestLayout(codec)}};
    });
}

void WriteAnswers(std::ostream& o, const Members& m) {
    o << kHeader << "#include \"answer_layouts.def\"\n";
    WriteSharedChunks(o, g_ans_layouts);
    WriteOffsetChecks(o, g_ans_layouts);
    o << "\n";
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
    o << "\nnamespace trdcomp::detail {\n\n";
    WriteRouteRows(o, "Ans", g_ans_routes, AnswerEngine);
    WriteBoundRows(o, "Ans", g_ans_routes, PackSectionLayouts);
}

void WriteRouteSlots(std::ostream& o) {
    o << "// Generated from the catalogue by trdcomp_catalogue_gen: do not edit.\n"
         "// The function ids the routing tables hold a slot for.\n"
         "#pragma once\n\nnamespace trdcomp::detail {\n\n"
      << "inline constexpr int kDenseFirst = " << kSlotRanges[0].first << ";\n"
      << "inline constexpr int kDenseCount = " << kSlotRanges[0].count << ";  // " << kSlotRanges[0].first << ".."
      << kSlotRanges[0].first + kSlotRanges[0].count - 1 << "\n"
      << "inline constexpr int kHighFirst = " << kSlotRanges[1].first << ";\n"
      << "inline constexpr int kHighCount = " << kSlotRanges[1].count << ";  // " << kSlotRanges[1].first << ".."
      << kSlotRanges[1].first + kSlotRanges[1].count - 1 << "\n\n}  // namespace trdcomp::detail\n";
}

}  // namespace catalogue_gen
