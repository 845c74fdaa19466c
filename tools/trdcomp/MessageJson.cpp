// Messages as JSON both ways: a decoded message described value by value
// (the JSON document `trdcomp decode --json` prints, the Python module's
// dict), and a message packed from that JSON.
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
std::vector<char> WholeHead(const Decoded& m) {
    std::vector<char> h(m.request ? head::kRequestLength : head::kAnswerLength, 0);
    std::copy_n(m.wire.begin(), std::min(h.size(), m.wire.size()), h.begin());
    return h;
}

void IntegerMember(ValueSink& out, const char* key, std::int64_t v) {
    out.Key(key);
    out.Integer(v);
}

}  // namespace

void DescribeHead(const Decoded& m, ValueSink& out) {
    const std::vector<char> bytes = WholeHead(m);
    const head::Routing routing = head::ReadRouting(bytes.data());
    out.BeginObject();
    IntegerMember(out, "nHeadLen", routing.length);
    IntegerMember(out, "nFuncId", routing.functionId);
    IntegerMember(out, "nFlags", routing.flags);
    if (m.request) {
        const tagREQ_HEAD h = head::ReadRequestHead(bytes.data());
        out.Key("nUser");
        out.BeginList();
        for (int user : h.nUser) out.Integer(user);
        out.EndList();
        const head::Array a = head::RequestArray(bytes.data());
        IntegerMember(out, "nRecCount", a.count);
        IntegerMember(out, "nRecSize", a.size);
    } else {
        const tagANS_HEAD h = head::ReadAnswerHead(bytes.data());
        out.Key("cReserved");
        out.String(Hex(h.cReserved, sizeof h.cReserved));
        out.Key("szShort");
        DescribeText(h.szShort, sizeof h.szShort, out);
        out.Key("szLong");
        DescribeText(h.szLong, sizeof h.szLong, out);
        const head::Array a = head::AnswerArray(bytes.data());
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
            out.String(Hex(s.records.data() + off, static_cast<std::size_t>(s.slot)));
    }
}

void DescribeMessage(const Decoded& m, ValueSink& out, bool records) {
    out.BeginObject();
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
        out.String(Hex(m.trailing.data(), m.trailing.size()));
    }
    if (m.restoredNothing) {
        out.Key("restored");
        out.String("nothing: the restore handed back no records");
    }
    out.EndObject();
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

namespace {

// An integer member of the JSON, or `fallback` when it has none.
template <class T>
T IntOf(const Json& j, const char* key, T fallback, const std::string& where = "") {
    if (!j.is_object() || !j.contains(key)) return fallback;
    const Json& v = j.at(key);
    const std::string name = (where.empty() ? "" : where + ": ") + "\"" + key + "\"";
    if (!v.is_number_integer()) throw std::runtime_error(name + " must be an integer");
    const long long x = v.is_number_unsigned() && v.get<unsigned long long>() > LLONG_MAX ? LLONG_MAX : v.get<long long>();
    if (x < INT32_MIN || x > static_cast<long long>(UINT32_MAX))
        throw std::runtime_error(name + " is " + v.dump() + ", out of range of a 32-bit word");
    return static_cast<T>(x);
}

const Json* Member(const Json& j, const char* key) { return j.is_object() && j.contains(key) ? &j.at(key) : nullptr; }

// One record array as encode packs it: its layout (null: raw records), the
// count and record size it states, and the records `size` bytes apart.
struct Array {
    const Layout* layout = nullptr;
    std::int32_t count = 0;
    std::int32_t size = 0;
    std::vector<char> bytes;
};

// What the JSON says of one section, checked against itself and against the
// layout the function id packs (`expected`, null for raw records): a count
// and a size that match the records given, within the limits, so that
// nothing is dropped or read past the records. `count` and `size` are the
// defaults when the section names none; `total` sums the record bytes of the
// message so far.
Array ReadArray(const Json& sec, const Layout* expected, const std::string& expectedWhy, std::optional<std::int32_t> count,
                std::optional<std::int32_t> size, std::int64_t& total, bool fast, const std::string& where) {
    if (!sec.is_object()) throw std::runtime_error(where + " must be an object");
    static const Json kNone = Json::array();
    const Json* recs = Member(sec, "records");
    if (recs && !recs->is_array()) throw std::runtime_error(where + ": \"records\" must be a list");
    const Json& records = recs ? *recs : kNone;
    const std::int64_t given = static_cast<std::int64_t>(records.size());
    Array a;
    a.count = IntOf<std::int32_t>(sec, "count", count ? *count : static_cast<std::int32_t>(std::min<std::int64_t>(given, INT32_MAX)), where);
    if (given != std::max<std::int64_t>(a.count, 0))
        throw std::runtime_error(where + ": its count is " + std::to_string(a.count) + " but it lists " + Plural(given, "record") +
                                 ": the count must be the number of records listed");
    a.layout = expected;
    if (const Json* l = Member(sec, "layout"); l && !l->is_null()) {
        if (!l->is_string()) throw std::runtime_error(where + ": \"layout\" must be a layout's name or null (raw records)");
        const auto it = Get().layouts.find(l->get<std::string>());
        if (it == Get().layouts.end()) throw std::runtime_error(where + ": no layout named " + l->get<std::string>());
        if (expected && expected != &it->second)
            throw std::runtime_error(where + " holds " + it->first + " records, but " + expectedWhy + " packs " + expected->name +
                                     " records");
        a.layout = &it->second;
    } else if (l) {
        a.layout = nullptr;  // raw records, as hex
    }
    a.size = IntOf<std::int32_t>(sec, "size", size ? *size : a.layout ? a.layout->size : 0, where);
    if (a.size < 0) throw std::runtime_error(where + ": the record size is negative (" + std::to_string(a.size) + ")");
    if (given > 0 && a.size == 0)
        throw std::runtime_error(where + " lists " + Plural(given, "record") + " but no record size: say \"size\" (raw records have "
                                 "no layout to take it from)");
    // A codec reads whole records of its layout, a record size apart.
    if (expected && given > 0 && a.size < expected->size)
        throw std::runtime_error(where + ": a record size of " + std::to_string(a.size) + " is less than " + expected->name +
                                 "'s " + Plural(expected->size, "byte") + ", which the codec reads of every record");
    if (a.size > kMaxRecordSize)
        throw std::runtime_error(where + ": a record size of " + std::to_string(a.size) + " bytes is more than encode packs (at most " +
                                 ByteLimitText(kMaxRecordSize) + " a record)");
    total += given * a.size;
    if (total > kMaxRecordBytes)
        throw std::runtime_error(where + ": the records of the message come to " + std::to_string(total) +
                                 " bytes or more, more than encode packs (at most " + ByteLimitText(kMaxRecordBytes) + ")");
    a.bytes.assign(static_cast<std::size_t>(given * a.size), 0);
    for (std::size_t i = 0; i < records.size(); ++i) {
        char* rec = a.bytes.data() + i * static_cast<std::size_t>(a.size);
        const std::string what = where + " record " + std::to_string(i);
        if (a.layout) {
            // The layout's record, of which the record size keeps its first bytes.
            std::vector<char> full(static_cast<std::size_t>(a.layout->size), 0);
            try {
                RecordFromJson(*a.layout, records[i], full.data(), fast);
            } catch (const std::exception& e) {
                throw std::runtime_error(what + ": " + e.what());
            }
            std::memcpy(rec, full.data(), std::min(full.size(), static_cast<std::size_t>(a.size)));
            continue;
        }
        std::vector<char> raw;
        if (!records[i].is_string() || !ParseHex(records[i].get<std::string>(), raw))
            throw std::runtime_error(what + ": a raw record is a string of hex digits");
        if (raw.size() > static_cast<std::size_t>(a.size))
            throw std::runtime_error(what + " has " + Plural(static_cast<long long>(raw.size()), "byte") + ", more than the record size (" +
                                     std::to_string(a.size) + ")");
        std::memcpy(rec, raw.data(), raw.size());
    }
    return a;
}

// Encode writes only messages the library restores: a head the JSON set up
// against the restore's checks (a request's flag bit 1, the coded bit of a
// raw id, ...) is refused with the check that would fail.
std::vector<char> Restorable(std::vector<char> wire, bool request, char flag) {
    const trdcomp::span<const char> in(wire.data(), wire.size());
    const trdcomp::Restored r = request ? trdcomp::RestoreRequest(in, flag) : trdcomp::RestoreAnswer(in, flag);
    if (!r && r.Error() != trdcomp::Errc::out_of_memory) {
        const int version = head::FastVersion(HeadWord(wire, head::kFlagsAt));
        throw std::runtime_error("the message would not restore: " + WhyRefused(r, wire, version));
    }
    return wire;
}

}  // namespace

std::vector<char> Encode(const Json& msg, const EncodeOptions& o) {
    if (!msg.is_object()) throw std::runtime_error("the input must be a JSON object (the shape `trdcomp decode --json` prints)");
    const Json head = msg.contains("head") ? msg.at("head") : Json::object();
    if (!head.is_object()) throw std::runtime_error("\"head\" must be an object");
    bool request;
    if (o.direction != 0) {
        request = o.direction == 1;
    } else if (msg.contains("direction") && msg.at("direction").is_string()) {
        const std::string d = msg.at("direction").get<std::string>();
        if (d != "request" && d != "answer") throw std::runtime_error("\"direction\" must be \"request\" or \"answer\"");
        request = d == "request";
    } else {
        throw std::runtime_error("say --request or --answer (the JSON has no \"direction\")");
    }
    long long id = o.id;
    if (id < 0) {
        if (!head.contains("nFuncId")) throw std::runtime_error("say --id (the JSON's head has no nFuncId)");
        id = IntOf<std::int32_t>(head, "nFuncId", 0, "head");
    }
    if (id > INT32_MAX) throw std::runtime_error("--id " + std::to_string(id) + " does not fit a 32-bit id");
    int version = o.fastVersion;
    if (version < 0) {
        if (!msg.contains("coding") || !msg.at("coding").is_string()) throw std::runtime_error("say --coding (the JSON has no \"coding\")");
        version = ParseCoding(msg.at("coding").get<std::string>());
    }
    const int flagValue = o.flag >= 0 ? o.flag : IntOf<int>(msg, "flag", 0);
    if (flagValue < -128 || flagValue > 255) throw std::runtime_error("\"flag\" is " + std::to_string(flagValue) + ", not a byte");
    const char flag = static_cast<char>(flagValue);
    const Json sections = msg.contains("sections") ? msg.at("sections") : Json::array();
    if (!sections.is_array()) throw std::runtime_error("\"sections\" must be a list");
    const catalogue_model::Cell cell = Get().PackCell(request, static_cast<int>(id), version != 0);
    const bool raw = cell.kind == catalogue_model::CellKind::raw;
    std::vector<char> trailing;
    if (msg.contains("trailing")) {
        if (!msg.at("trailing").is_string() || !ParseHex(msg.at("trailing").get<std::string>(), trailing))
            throw std::runtime_error("\"trailing\" must be a string of hex digits");
        if (!raw && !trailing.empty())
            throw std::runtime_error("\"trailing\" bytes travel only behind raw records, and function id " + std::to_string(id) +
                                     " has a codec in the " + CodingName(version) + " coding");
    }
    const bool codec = cell.IsCodec();
    // The ids whose pack writes the head alone drop any records.
    const bool headAlone = !codec && !raw;
    // The records' layout is the one the receiver restores them with (ids
    // whose layouts code alike share one encoder, not one layout).
    const catalogue_model::Cell restoreCell = Get().RestoreCell(request, static_cast<int>(id), version != 0);
    const int layoutOf = restoreCell.IsCodec() ? restoreCell.codec : codec ? cell.codec : 0;
    const std::string packs = "function id " + std::to_string(id) + " in the " + CodingName(version) + " coding";
    const trdcomp::Coding coding = version ? trdcomp::Coding::Fast(version) : trdcomp::Coding::C2008(flag);
    std::int64_t total = 0;

    if (request) {
        if (sections.size() > 1) throw std::runtime_error("a request has one record array; the JSON has " + std::to_string(sections.size()));
        tagREQ_HEAD h{};
        h.nHeadLen = trdcomp::head::kRequestLength;
        h.nFuncId = static_cast<int>(id);
        h.nFlags = IntOf<std::int32_t>(head, "nFlags", 0, "head");
        if (codec) h.nFlags &= ~TRDCOMP_FLAG_CODED;  // the codec sets it
        if (head.contains("nUser")) {
            const Json& u = head.at("nUser");
            if (!u.is_array() || u.size() != 14) throw std::runtime_error("\"nUser\" must be a list of 14 integers");
            for (int i = 0; i < 14; ++i) {
                if (!u[static_cast<std::size_t>(i)].is_number_integer()) throw std::runtime_error("\"nUser\" must be a list of 14 integers");
                h.nUser[i] = static_cast<int>(u[static_cast<std::size_t>(i)].get<long long>());
            }
        }
        // The head's count and size are the section's unless it says otherwise.
        std::optional<std::int32_t> headCount, headSize;
        if (head.contains("nRecCount")) headCount = IntOf<std::int32_t>(head, "nRecCount", 0, "head");
        if (head.contains("nRecSize")) headSize = IntOf<std::int32_t>(head, "nRecSize", 0, "head");
        const Layout* expected = codec ? &Get().At(Get().requestLayoutOf.at(layoutOf)) : nullptr;
        Array a;
        if (!sections.empty()) {
            a = ReadArray(sections[0], expected, packs, headCount, headSize, total, version != 0, "section 1");
            if (headAlone && !a.bytes.empty())
                throw std::runtime_error("section 1 lists records, but " + packs + " sends the head alone");
        } else {
            a.count = headCount.value_or(0);
            a.size = headSize.value_or(0);
            if (a.count > 0 && !headAlone)
                throw std::runtime_error("the head's nRecCount is " + std::to_string(a.count) + " but the JSON lists no records");
        }
        if ((headCount && a.count != *headCount) || (headSize && a.size != *headSize))
            throw std::runtime_error("the head's nRecCount and nRecSize (" + std::to_string(headCount.value_or(a.count)) + ", " +
                                     std::to_string(headSize.value_or(a.size)) + ") differ from section 1's count and size (" +
                                     std::to_string(a.count) + ", " + std::to_string(a.size) + ")");
        h.nRecCount = a.count;
        h.nRecSize = a.size;
        a.bytes.insert(a.bytes.end(), trailing.begin(), trailing.end());
        const std::uint64_t bound = trdcomp::RequestSizeBound(h, a.bytes.size(), coding);
        if (bound > static_cast<std::uint64_t>(INT_MAX)) throw std::runtime_error("the message would exceed 2 GiB");
        std::vector<char> out(static_cast<std::size_t>(bound));
        const trdcomp::PackResult res = trdcomp::PackRequest(out, h, trdcomp::span<const char>(a.bytes.data(), a.bytes.size()), coding);
        if (!res) throw std::runtime_error(std::string("packing failed: ") + trdcomp::Message(res.error));
        out.resize(res.size);
        return Restorable(std::move(out), true, flag);
    }

    if (sections.size() > 5) throw std::runtime_error("an answer has at most 5 record arrays; the JSON has " + std::to_string(sections.size()));
    tagANS_Proc proc{};
    proc.nFuncId = static_cast<int>(id);
    if (head.contains("szShort")) TextFromJson(head.at("szShort"), proc.szShort, 4, "head szShort");
    if (head.contains("szLong")) TextFromJson(head.at("szLong"), proc.szLong, 64, "head szLong");
    const std::int64_t arrays = IntOf<std::int32_t>(msg, "arrays", static_cast<std::int32_t>(std::max<std::size_t>(sections.size(), 1)));
    if (arrays < static_cast<std::int64_t>(sections.size()) || arrays > kMaxArrays)
        throw std::runtime_error("\"arrays\" is " + std::to_string(arrays) + ": it must lie between the " +
                                 Plural(static_cast<long long>(sections.size()), "section") + " given and " + std::to_string(kMaxArrays));
    proc.nArrayCount = static_cast<std::int32_t>(arrays);
    const Shape* shape = codec ? &Get().AnswerShape(layoutOf) : nullptr;
    if (shape && arrays != ShapeArrays(*shape))
        throw std::runtime_error("\"arrays\" is " + std::to_string(arrays) + ", but " + packs + " packs " +
                                 Plural(ShapeArrays(*shape), "record array"));
    if (raw && version != 0 && arrays > 1)
        throw std::runtime_error(packs + " sends its records raw, and raw answers in the Fast coding carry no section table: "
                                 "an answer of " + Plural(arrays, "array") + " could not be restored");
    std::vector<Array> data(5);
    for (std::size_t j = 0; j < sections.size(); ++j) {
        const Json& sec = sections[j];
        const std::string where = "section " + std::to_string(j + 1);
        // A count-switched answer's layout follows the count.
        const Json* recs = Member(sec, "records");
        const std::int32_t count = IntOf<std::int32_t>(sec, "count", recs && recs->is_array() ? static_cast<std::int32_t>(recs->size()) : 0, where);
        const Layout* expected = shape ? AnswerLayout(*shape, static_cast<int>(j), count) : nullptr;
        if (shape && !expected) throw std::runtime_error(packs + " packs " + Plural(ShapeArrays(*shape), "record array") + ", not " + std::to_string(j + 1));
        data[j] = ReadArray(sec, expected, packs, std::nullopt, std::nullopt, total, version != 0, where);
        if (headAlone && !data[j].bytes.empty()) throw std::runtime_error(where + " lists records, but " + packs + " sends the head alone");
        proc.nRecCount[j] = data[j].count;
        proc.nRecSize[j] = data[j].size;
    }
    if (sections.empty()) {
        proc.nRecCount[0] = IntOf<std::int32_t>(head, "nRecCount", 0, "head");
        proc.nRecSize[0] = IntOf<std::int32_t>(head, "nRecSize", 0, "head");
        if (proc.nRecSize[0] < 0)
            throw std::runtime_error("head: the record size is negative (" + std::to_string(proc.nRecSize[0]) + ")");
        if (proc.nRecCount[0] > 0 && !headAlone)
            throw std::runtime_error("the head's nRecCount is " + std::to_string(proc.nRecCount[0]) + " but the JSON lists no records");
    }
    const std::uint64_t bound = trdcomp::AnswerSizeBound(proc, coding);
    if (bound + trailing.size() > static_cast<std::uint64_t>(INT_MAX)) throw std::runtime_error("the message would exceed 2 GiB");
    std::vector<char> out(static_cast<std::size_t>(bound), 0);
    // PackAns2008 or-s its bits into the flags word and leaves bytes 12..19:
    // the sender's other flag bits and reserved bytes are placed first.
    const std::int32_t keep = IntOf<std::int32_t>(head, "nFlags", 0, "head") &
                              ~(TRDCOMP_FLAG_CODED | TRDCOMP_FLAG_SECTIONS | TRDCOMP_FLAG_FAST_MASK);
    trdcomp::head::Store(out.data(), trdcomp::head::kFlagsAt, keep);
    if (head.contains("cReserved")) {
        std::vector<char> reserved;
        if (!head.at("cReserved").is_string() || !ParseHex(head.at("cReserved").get<std::string>(), reserved) || reserved.size() != 8)
            throw std::runtime_error("head cReserved must be 8 bytes of hex");
        std::memcpy(out.data() + trdcomp::head::kAnswerReservedAt, reserved.data(), reserved.size());
    }
    int len = 0;
    CTrdCompData::PackAns2008(out.data(), static_cast<int>(out.size()), len, &proc, data[0].bytes.data(), data[1].bytes.data(),
                              data[2].bytes.data(), data[3].bytes.data(), data[4].bytes.data(), flag, version << TRDCOMP_FLAG_FAST_SHIFT);
    if (len == 0) throw std::runtime_error("the library refused to pack the answer");
    out.resize(static_cast<std::size_t>(len));
    out.insert(out.end(), trailing.begin(), trailing.end());
    return Restorable(std::move(out), false, flag);
}

}  // namespace tool
