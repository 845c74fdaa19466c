// trdcomp demo: every function id with a codec, requests and answers, packed
// and restored in both codings through the classic interface, each restored
// record checked against what the coding keeps of it.
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Commands.h"
#include "Fields.h"
#include "model/Samples.h"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace {

using catalogue_model::Coding;
using catalogue_model::Get;
using catalogue_model::Layout;

struct Outcome {
    bool coded = false;  // the coding has a codec for this id
    std::size_t bytes = 0;
    std::string problem;  // "" when every record came back as expected
};

// Compares `count` restored records at `got` with the sample's records.
std::string CheckRecords(const Layout& l, const std::vector<char>& sent, int count, const char* got, Coding coding) {
    for (int i = 0; i < count; ++i) {
        const std::vector<char> rec(sent.begin() + static_cast<std::ptrdiff_t>(i) * l.size,
                                    sent.begin() + static_cast<std::ptrdiff_t>(i + 1) * l.size);
        const std::string diff = catalogue_model::Compare(l, catalogue_model::Expected(l, rec, coding), got + static_cast<std::ptrdiff_t>(i) * l.size);
        if (!diff.empty()) return "record " + std::to_string(i) + ": " + diff;
    }
    return "";
}

Outcome RunRequest(const catalogue_model::RequestSample& base, Coding coding) {
    Outcome o;
    const bool fast = coding == Coding::kFast;
    const auto* route = Get().RequestRoute(base.head.nFuncId);
    if (!route || !route->cell[fast].IsCodec()) return o;
    o.coded = true;
    // A coding whose codec reads another layout gets records of that layout.
    catalogue_model::RequestSample own;
    const bool sameLayout = Get().requestLayoutOf.at(route->cell[fast].codec) == base.layout->name;
    if (!sameLayout) catalogue_model::SampleRequest(base.head.nFuncId, coding, own);
    const catalogue_model::RequestSample& s = sameLayout ? base : own;
    const trdcomp::Coding c = fast ? trdcomp::Coding::Fast() : trdcomp::Coding::C2008();
    std::vector<char> wire(static_cast<std::size_t>(trdcomp::RequestSizeBound(s.head, s.data.size(), c)));
    const trdcomp::PackResult packed = trdcomp::PackRequest(wire, s.head, trdcomp::span<const char>(s.data.data(), s.data.size()), c);
    if (!packed) return o.problem = std::string("pack: ") + trdcomp::Message(packed.error), o;
    o.bytes = packed.size;
    const trdcomp::Restored back = trdcomp::RestoreRequest(trdcomp::span<const char>(wire.data(), packed.size));
    if (!back) return o.problem = "restore refused", o;
    const trdcomp::Restored::Section sec = back.GetSection(0);
    if (sec.data == nullptr || sec.count != s.head.nRecCount || sec.size != s.layout->size)
        return o.problem = "restored " + Plural(sec.count, "record") + " of " + Plural(sec.size, "byte"), o;
    o.problem = CheckRecords(*s.layout, s.data, sec.count, sec.data, coding);
    return o;
}

Outcome RunAnswer(const catalogue_model::AnswerSample& s, Coding coding) {
    Outcome o;
    const bool fast = coding == Coding::kFast;
    const auto* route = Get().AnswerRoute(s.proc.nFuncId);
    if (!route || !route->cell[fast].IsCodec()) return o;
    o.coded = true;
    const trdcomp::Coding c = fast ? trdcomp::Coding::Fast() : trdcomp::Coding::C2008();
    std::vector<trdcomp::Array> arrays;
    for (std::size_t j = 0; j < s.layouts.size(); ++j)
        arrays.emplace_back(s.arrays[j].data(), s.proc.nRecCount[j], s.proc.nRecSize[j]);
    std::vector<char> wire(static_cast<std::size_t>(trdcomp::AnswerSizeBound(s.proc, c)));
    const trdcomp::PackResult packed =
        trdcomp::PackAnswer(wire, s.proc, trdcomp::span<const trdcomp::Array>(arrays.data(), arrays.size()), c);
    if (!packed) return o.problem = std::string("pack: ") + trdcomp::Message(packed.error), o;
    o.bytes = packed.size;
    const trdcomp::Restored back = trdcomp::RestoreAnswer(trdcomp::span<const char>(wire.data(), packed.size));
    if (!back) return o.problem = "restore refused", o;
    if (back.Sections() != static_cast<int>(s.layouts.size()))
        return o.problem = "restored " + std::to_string(back.Sections()) + " arrays", o;
    for (std::size_t j = 0; j < s.layouts.size() && o.problem.empty(); ++j) {
        const trdcomp::Restored::Section sec = back.GetSection(static_cast<int>(j));
        if (sec.data == nullptr || sec.count != s.proc.nRecCount[j] || sec.size != s.layouts[j]->size)
            o.problem = "array " + std::to_string(j + 1) + ": restored " + Plural(sec.count, "record") + " of " + Plural(sec.size, "byte");
        else
            o.problem = CheckRecords(*s.layouts[j], s.arrays[j], sec.count, sec.data, coding);
    }
    return o;
}

struct Totals {
    int rows = 0, failed = 0;
    std::size_t raw = 0, bytes2008 = 0, bytesFast = 0, raw2008 = 0, rawFast = 0;
};

std::string Ratio(std::size_t part, std::size_t whole) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", whole ? static_cast<double>(part) / static_cast<double>(whole) : 0.0);
    return buf;
}

void PrintRow(const char* dir, int id, const std::string& layout, int records, std::size_t raw, const Outcome& a,
              const Outcome& b, bool quiet, Totals& t) {
    const bool ok = a.problem.empty() && b.problem.empty();
    ++t.rows;
    t.failed += !ok;
    t.raw += raw;
    if (a.coded) t.bytes2008 += a.bytes, t.raw2008 += raw;
    if (b.coded) t.bytesFast += b.bytes, t.rawFast += raw;
    if (quiet && ok) return;
    char line[256];
    std::snprintf(line, sizeof line, "%-4s %5d  %-36s %7d %8zu %8s %8s %9s %9s  %s", dir, id, layout.c_str(), records, raw,
                  a.coded ? std::to_string(a.bytes).c_str() : "-", b.coded ? std::to_string(b.bytes).c_str() : "-",
                  a.coded ? Ratio(a.bytes, raw).c_str() : "-", b.coded ? Ratio(b.bytes, raw).c_str() : "-",
                  ok ? "ok" : "MISMATCH");
    std::cout << line << "\n";
    if (!a.problem.empty()) std::cout << "      2008: " << a.problem << "\n";
    if (!b.problem.empty()) std::cout << "      fast: " << b.problem << "\n";
}

}  // namespace

int RunDemo(const DemoOptions& opt) {
    char header[256];
    std::snprintf(header, sizeof header, "%-4s %5s  %-36s %7s %8s %8s %8s %9s %9s  %s", "dir", "id", "layout", "records", "raw",
                  "2008", "fast", "2008/raw", "fast/raw", "ok");
    std::cout << (trdcomp::BuiltInValueCoders()
                      ? "2008 values: the coders of our KXPfdk, built in\n"
                      : "2008 values: the exported coders of the loaded KXPfdk (not ours: another value format)\n");
    std::cout << header << "\n";
    Totals t;
    int requests = 0, answers = 0;
    for (int id : catalogue_model::RoutedIds()) {
        if (opt.id != 0 && id != opt.id) continue;
        // The same records go through both codings: the 2008 sample, or the
        // Fast one for an id that only the Fast coding codes.
        catalogue_model::RequestSample req;
        if (catalogue_model::SampleRequest(id, Coding::k2008, req) || catalogue_model::SampleRequest(id, Coding::kFast, req)) {
            const std::size_t raw = sizeof(tagREQ_HEAD) + req.data.size();
            PrintRow("req", id, req.layout->name, req.head.nRecCount, raw, RunRequest(req, Coding::k2008),
                     RunRequest(req, Coding::kFast), opt.quiet, t);
            ++requests;
        }
        auto samples = catalogue_model::SampleAnswers(id, Coding::k2008);
        if (samples.empty()) samples = catalogue_model::SampleAnswers(id, Coding::kFast);
        for (const auto& s : samples) {
            std::string layouts;
            int records = 0;
            std::size_t raw = TRDCOMP_ANS_HEAD_LEN;
            for (std::size_t j = 0; j < s.layouts.size(); ++j) {
                layouts += (j ? "+" : "") + s.layouts[j]->name;
                records += s.proc.nRecCount[j];
                raw += s.arrays[j].size();
            }
            PrintRow("ans", id, layouts, records, raw, RunAnswer(s, Coding::k2008), RunAnswer(s, Coding::kFast), opt.quiet, t);
            ++answers;
        }
    }
    if (t.rows == 0) throw std::runtime_error("function id " + std::to_string(opt.id) + " has no codec in either direction");
    std::cout << "\ntotals: " << Plural(t.rows, "message") << " (" << Plural(requests, "request") << ", " << Plural(answers, "answer")
              << "), raw " << Plural(static_cast<long long>(t.raw), "byte") << "; 2008 " << Plural(static_cast<long long>(t.bytes2008), "byte") << " ("<< Ratio(t.bytes2008, t.raw2008) << " of raw); fast "
              << Plural(static_cast<long long>(t.bytesFast), "byte") << " ("<< Ratio(t.bytesFast, t.rawFast) << " of raw); "
              << (t.failed ? std::to_string(t.failed) + " MISMATCHED" : std::string("all ok")) << "\n";
    return t.failed ? 1 : 0;
}

}  // namespace tool
