// A decoded message described value by value: the JSON document `trdcomp
// decode --json` prints, the Python module's dict (packing one back from
// JSON is Encode.cpp's).
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Message.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace {

namespace head = trdcomp::head;
using catalogue_model::Get;
using catalogue_model::Shape;

// The head's bytes, zero-padded to a whole head of the message's direction.
struct WholeHead {
    explicit WholeHead(const Decoded& m) {
        const std::size_t n = m.request ? head::kRequestLength : head::kAnswerLength;
        std::memcpy(bytes, m.wire.data(), std::min(n, m.wire.size()));
    }
    char bytes[head::kAnswerLength > head::kRequestLength ? head::kAnswerLength : head::kRequestLength] = {};
};

void IntegerMember(ValueSink& out, const char* key, std::int64_t v) {
    out.Key(key);
    out.Integer(v);
}

}  // namespace

void DescribeHead(const Decoded& m, ValueSink& out) {
    const WholeHead whole(m);
    const char* bytes = whole.bytes;
    const head::Routing routing = head::ReadRouting(bytes);
    out.BeginObject();
    IntegerMember(out, "nHeadLen", routing.length);
    IntegerMember(out, "nFuncId", routing.functionId);
    IntegerMember(out, "nFlags", routing.flags);
    if (m.request) {
        const tagREQ_HEAD h = head::ReadRequestHead(bytes);
        out.Key("nUser");
        out.BeginList();
        for (int user : h.nUser) out.Integer(user);
        out.EndList();
        const head::Array a = head::RequestArray(bytes);
        IntegerMember(out, "nRecCount", a.count);
        IntegerMember(out, "nRecSize", a.size);
    } else {
        const tagANS_HEAD h = head::ReadAnswerHead(bytes);
        out.Key("cReserved");
        out.HexBytes(h.cReserved, sizeof h.cReserved);
        out.Key("szShort");
        DescribeText(h.szShort, sizeof h.szShort, out);
        out.Key("szLong");
        DescribeText(h.szLong, sizeof h.szLong, out);
        const head::Array a = head::AnswerArray(bytes);
        IntegerMember(out, "nRecCount", a.count);
        IntegerMember(out, "nRecSize", a.size);
    }
    out.EndObject();
}

Json HeadJson(const Decoded& m) {
    JsonSink sink;
    DescribeHead(m, sink);
    return sink.Take();
}

void DescribeRecords(const Section& s, ValueSink& out) {
    for (std::size_t off = 0; s.slot > 0 && off + static_cast<std::size_t>(s.slot) <= s.records.size();
         off += static_cast<std::size_t>(s.slot)) {
        if (s.layout)
            DescribeRecord(*s.layout, s.records.data() + off, out);
        else
            out.HexBytes(s.records.data() + off, static_cast<std::size_t>(s.slot));
    }
}

void DescribeMessage(const Decoded& m, ValueSink& out, bool records) {
    out.BeginObject();
    DescribeMembers(m, out, records);
    out.EndObject();
}

void DescribeMembers(const Decoded& m, ValueSink& out, bool records) {
    out.Key("direction");
    out.String(m.request ? "request" : "answer");
    out.Key("coding");
    out.String(CodingName(m.fastVersion));
    IntegerMember(out, "flag", m.flag);
    out.Key("bytes");
    out.Unsigned(m.wire.size());
    out.Key("head");
    DescribeHead(m, out);
    if (!m.request) IntegerMember(out, "arrays", m.arrayCount);
    out.Key("sections");
    out.BeginList();
    for (const Section& s : m.sections) {
        out.BeginObject();
        out.Key("layout");
        if (s.layout)
            out.String(s.layout->name);
        else
            out.Null();
        IntegerMember(out, "count", s.count);
        IntegerMember(out, "size", s.size);
        out.Key("records");
        out.BeginList();
        if (records) DescribeRecords(s, out);
        out.EndList();
        out.EndObject();
    }
    out.EndList();
    if (!m.trailing.empty()) {
        out.Key("trailing");
        out.HexBytes(m.trailing.data(), m.trailing.size());
    }
    if (m.restoredNothing) {
        out.Key("restored");
        out.String("nothing: the restore handed back no records");
    }
}

Json ToJson(const Decoded& m) {
    JsonSink sink;
    DescribeMessage(m, sink);
    return sink.Take();
}

namespace {

// Calls f with the JSON of each whole record of the section, one at a time.
template <class F>
void EachRecordJson(const Section& s, F f) {
    JsonSink sink([&](Json record) { f(std::move(record)); });
    DescribeRecords(s, sink);
}

// v.dump(2) as it reads `depth` levels down in a document.
std::string Nested(const Json& v, int depth) {
    std::string text = v.dump(2);
    const std::string indent(static_cast<std::size_t>(2 * depth), ' ');
    for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) text.insert(at + 1, indent);
    return text;
}

}  // namespace

void WriteJson(const Decoded& m, std::ostream& out) {
    // The document without its records, which follow one by one.
    JsonSink skeleton;
    DescribeMessage(m, skeleton, false);
    const Json j = skeleton.Take();
    const Json& sections = j.at("sections");
    out << "{";
    const char* comma = "\n";
    for (const auto& [key, v] : j.items()) {
        out << comma << "  " << Json(key).dump() << ": ";
        comma = ",\n";
        if (key != "sections" || sections.empty()) {
            out << Nested(v, 1);
            continue;
        }
        out << "[";
        for (std::size_t k = 0; k < sections.size(); ++k) {
            out << (k ? ",\n" : "\n") << "    {";
            for (const auto& [name, field] : sections[k].items())
                if (name != "records") out << "\n      " << Json(name).dump() << ": " << field.dump() << ",";
            out << "\n      \"records\": ";
            const char* sep = "[\n        ";
            EachRecordJson(m.sections[k], [&](const Json& r) {
                out << sep << Nested(r, 4);
                sep = ",\n        ";
            });
            out << (*sep == '[' ? "[]" : "\n      ]") << "\n    }";
        }
        out << "\n  ]";
    }
    out << "\n}\n";
}

}  // namespace tool
