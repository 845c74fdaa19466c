// A decoded message printed as text: its head word by word, then every
// section's records field by field (with each Fast field's origin when
// asked), as `trdcomp decode` shows it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iomanip>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "Message.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace head = trdcomp::head;

std::string FlagsText(std::int32_t flags) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%x", static_cast<unsigned>(flags));
    std::string bits;
    if (head::Coded(flags)) bits += ", coded";
    if (head::SeveralArrays(flags)) bits += ", several arrays";
    if (const int v = head::FastVersion(flags)) bits += ", fast:" + std::to_string(v);
    return bits.empty() ? hex : std::string(hex) + " (" + bits.substr(2) + ")";
}

std::string HeadValueText(const std::string& key, const Json& v) {
    return key == "nFlags" && v.is_number_integer() ? FlagsText(v.get<std::int32_t>()) : v.dump();
}

void PrintText(const Decoded& m, std::ostream& out, bool sent) {
    const Json head = HeadJson(m);
    const auto origins = sent ? SentFields(m) : std::vector<std::vector<std::map<int, Origin>>>();
    const int id = HeadWord(m.wire, head::kFunctionIdAt);
    out << (m.request ? "request " : "answer ") << id << ", " << Plural(static_cast<long long>(m.wire.size()), "byte") << ", coding "
        << CodingName(m.fastVersion) << (m.fastVersion == 0 ? " (flag " + std::to_string(static_cast<int>(m.flag)) + ")" : "")
        << "\n\nhead\n";
    for (const auto& [key, v] : head.items()) out << "  " << std::left << std::setw(10) << key << " " << HeadValueText(key, v) << "\n";
    if (m.restoredNothing) out << "\nthe restore handed back no records\n";
    for (std::size_t j = 0; j < m.sections.size(); ++j) {
        const Section& s = m.sections[j];
        out << "\nsection " << j + 1 << ": " << (s.layout ? s.layout->name : std::string("raw records")) << ", "
            << Plural(s.count, "record") << " of " << Plural(s.slot, "byte")
            << (s.size != s.slot ? " (sender's size " + std::to_string(s.size) + ")" : "") << "\n";
        for (std::size_t i = 0; s.slot > 0 && (i + 1) * static_cast<std::size_t>(s.slot) <= s.records.size(); ++i) {
            const char* rec = s.records.data() + i * static_cast<std::size_t>(s.slot);
            out << "record " << i << "\n";
            if (!s.layout) {
                out << "  " << Hex(rec, static_cast<std::size_t>(s.slot)) << "\n";
                continue;
            }
            const std::vector<Row> rows = RecordRows(*s.layout, rec);
            std::size_t kindWidth = 4;
            for (const Row& r : rows) kindWidth = std::max(kindWidth, r.kind.size());
            const std::map<int, Origin>* origin = j < origins.size() && i < origins[j].size() ? &origins[j][i] : nullptr;
            out << "  " << std::left << std::setw(7) << "offset" << std::setw(static_cast<int>(kindWidth) + 2) << "kind"
                << std::setw(7) << "width" << (origin ? "origin    " : "") << "value\n";
            for (const Row& r : rows) {
                out << "  " << std::left << std::setw(7) << r.offset << std::setw(static_cast<int>(kindWidth) + 2) << r.kind
                    << std::setw(7) << r.width;
                if (origin) {
                    const auto o = origin->find(r.offset);
                    out << std::setw(10) << (o != origin->end() ? OriginName(o->second) : "-");
                }
                out << r.value << "\n";
            }
        }
    }
    if (!m.trailing.empty()) out << "\ntrailing bytes: " << Hex(m.trailing.data(), m.trailing.size()) << "\n";
}

}  // namespace tool
