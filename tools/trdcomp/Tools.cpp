// trdcomp encode and catalogue (the routing of every id, an id's layouts
// field by field), and the tool's file input and output.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

#include "Commands.h"
#include "Input.h"
#include "Message.h"
#include "model/Samples.h"

namespace tool {

std::vector<char> ReadAll(const std::string& file, std::size_t limit, const std::string& limitHint) {
    InputFile in;
    std::string error;
    if (!in.Open(file, error)) throw std::runtime_error(error);
    std::vector<char> bytes;
    if (!in.ReadAll(bytes, limit)) {
        if (!in.Error().empty()) throw std::runtime_error(in.Error());
        throw std::runtime_error(in.Name() + " holds more than the limit of " + ByteLimitText(limit) + limitHint);
    }
    return bytes;
}

namespace {

using catalogue_model::Get;

void WriteAll(const std::string& file, const std::vector<char>& bytes) {
    if (file == "-") {
        std::cout.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        std::cout.flush();
        if (!std::cout) throw std::runtime_error("cannot write to standard output");
        return;
    }
    std::ofstream out(file, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + file);
}

// A cell as the routing table prints it: its kind's name in lower case,
// words apart ("no records"), and the codec's id when it is another id's.
std::string CellText(const catalogue_model::Cell& cell, int id) {
    std::string text = catalogue_model::CellKindName(cell.kind);
    for (char& c : text) c = c == '_' ? ' ' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return cell.IsCodec() && cell.codec != id ? text + " " + std::to_string(cell.codec) : text;
}

// "REQ_1002"; "sections A + B"; "switched NARROW / WIDE".
std::string ShapeText(int codec) {
    const auto& s = Get().AnswerShape(codec);
    std::string lead, between;
    switch (s.kind) {
        case catalogue_model::ShapeKind::Single: break;
        case catalogue_model::ShapeKind::Sections: lead = "sections ", between = " + "; break;
        case catalogue_model::ShapeKind::Switched: lead = "switched ", between = " / "; break;
    }
    std::string t = lead;
    for (std::size_t i = 0; i < s.layouts.size(); ++i) t += (i ? between : "") + s.layouts[i];
    return t;
}

// The notes column of a layout's table.
std::string FieldNote(const catalogue_model::Field& f) {
    switch (f.kind) {
        case FieldKind::Char: return f.def ? "Fast first-record default " + std::to_string(f.def) : "";
        case FieldKind::Sized: return "length: int32 at " + std::to_string(f.offset + f.width);
        case FieldKind::Array:
            return Plural(f.entries, "entry", "entries") + " of " + f.entry + ", count at " + std::to_string(f.countOffset);
        case FieldKind::Uncoded: return "never coded";
        case FieldKind::Text:
        case FieldKind::Ascii:
        case FieldKind::Bytes:
        case FieldKind::Int32:
        case FieldKind::Int64:
        case FieldKind::Double: return "";
    }
    return "";
}

void PrintLayout(const catalogue_model::Layout& l, const std::string& indent) {
    std::cout << indent << l.name << ", " << Plural(l.size, "byte") << "\n";
    std::cout << indent << "  " << std::left << std::setw(8) << "offset" << std::setw(9) << "kind" << std::setw(7) << "width"
              << "notes\n";
    for (const auto& f : l.fields) {
        std::ostringstream row;
        row << indent << "  " << std::left << std::setw(8) << f.offset << std::setw(9) << FieldKindName(f.kind)
            << std::setw(7) << f.width << FieldNote(f);
        std::string line = row.str();
        line.erase(line.find_last_not_of(' ') + 1);
        std::cout << line << "\n";
    }
    for (const auto& f : l.fields)
        if (f.kind == FieldKind::Array) PrintLayout(Get().At(f.entry), indent + "  ");
}

}  // namespace

int RunEncode(const EncodeCommandOptions& o) {
    std::vector<char> text = ReadAll(o.in, static_cast<std::size_t>(-1), "");
    EncodeOptions e;
    e.direction = o.request ? 1 : o.answer ? 2 : 0;
    e.id = o.id;
    e.fastVersion = o.coding.empty() ? -1 : ParseCoding(o.coding);
    e.flag = o.flag;
    e.classic = o.classic;
    const std::vector<char> wire = EncodeText(std::move(text), e);
    if (o.hex) {
        const std::string h = Hex(wire.data(), wire.size()) + "\n";
        WriteAll(o.out, std::vector<char>(h.begin(), h.end()));
    } else {
        if (o.out == "-" && isatty(STDOUT_FILENO))
            throw std::runtime_error("refusing to write a binary message to a terminal: redirect it, or use --hex or --out FILE");
        WriteAll(o.out, wire);
    }
    return 0;
}

int RunCatalogue(int id) {
    const auto& c = Get();
    if (id == 0) {
        std::cout << std::left << std::setw(6) << "id" << std::setw(14) << "request" << std::setw(58)
                  << "request: pack 2008 / fast | restore 2008 / fast" << "answer: pack 2008 / fast | restore 2008 / fast\n";
        for (int i : catalogue_model::RoutedIds()) {
            const auto* rq = c.RequestRoute(i);
            const auto* an = c.AnswerRoute(i);
            if (!rq && !an) continue;
            auto cells = [&](const catalogue_model::Route* r) {
                if (!r) return std::string("raw");
                std::string s;
                for (int k = 0; k < 4; ++k) s += (k ? k == 2 ? " | " : " / " : "") + CellText(r->cell[k], i);
                return s;
            };
            const auto layout = c.requestLayoutOf.find(i);
            std::cout << std::left << std::setw(6) << i << std::setw(14) << (layout != c.requestLayoutOf.end() ? layout->second : "-")
                      << std::setw(58) << cells(rq) + "  " << cells(an) << "\n";
        }
        std::cout << "\nOther ids travel raw in both directions. `trdcomp catalogue ID` shows an id's layouts field by field.\n";
        return 0;
    }
    const auto* rq = c.RequestRoute(id);
    const auto* an = c.AnswerRoute(id);
    if (!rq && !an) {
        std::cout << "function id " << id << " has no codec: requests and answers travel raw\n";
        return 0;
    }
    const char* const column[4] = {"pack 2008", "pack fast", "restore 2008", "restore fast"};
    for (int dir = 0; dir < 2; ++dir) {
        const auto* r = dir == 0 ? rq : an;
        std::cout << (dir == 0 ? "request" : "answer") << " " << id << "\n";
        if (!r) {
            std::cout << "  raw in both codings\n\n";
            continue;
        }
        std::vector<std::string> shown;
        for (int k = 0; k < 4; ++k) {
            std::cout << "  " << std::left << std::setw(14) << column[k] << CellText(r->cell[k], id);
            if (r->cell[k].IsCodec()) {
                const int codec = r->cell[k].codec;
                const std::string what = dir == 0 ? c.requestLayoutOf.at(codec) : ShapeText(codec);
                std::cout << ": " << what;
                if (dir == 0) shown.push_back(what);
                else
                    for (const auto& l : c.AnswerShape(codec).layouts) shown.push_back(l);
            }
            std::cout << "\n";
        }
        std::sort(shown.begin(), shown.end());
        shown.erase(std::unique(shown.begin(), shown.end()), shown.end());
        for (const auto& l : shown) {
            std::cout << "\n";
            PrintLayout(c.At(l), "  ");
        }
        std::cout << "\n";
    }
    return 0;
}

}  // namespace tool
