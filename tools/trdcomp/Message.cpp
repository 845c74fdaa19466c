#include "Message.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <ostream>

#include "model/Samples.h"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace {

using catalogue_model::Get;
using catalogue_model::Shape;

constexpr int kReqHead = TRDCOMP_REQ_HEAD_LEN;
constexpr int kAnsHead = TRDCOMP_ANS_HEAD_LEN;

std::int32_t Word(const std::vector<char>& b, std::size_t off) {
    std::int32_t v = 0;
    if (off + 4 <= b.size()) std::memcpy(&v, b.data() + off, 4);
    return v;
}
std::uint16_t U16(const std::vector<char>& b, std::size_t off) {
    return static_cast<std::uint16_t>(static_cast<unsigned char>(b[off]) | static_cast<unsigned char>(b[off + 1]) << 8);
}
std::int64_t Records(std::int64_t count) { return count > 0 ? count : 0; }

// The routing cell of `id` for restoring (or packing) in a coding.
catalogue_model::Cell RestoreCell(bool request, int id, bool fast) {
    const auto* r = request ? Get().RequestRoute(id) : Get().AnswerRoute(id);
    return r ? r->cell[2 + fast] : catalogue_model::Cell{};
}
catalogue_model::Cell PackCell(bool request, int id, bool fast) {
    const auto* r = request ? Get().RequestRoute(id) : Get().AnswerRoute(id);
    return r ? r->cell[fast] : catalogue_model::Cell{};
}

int ShapeArrays(const Shape& s) { return s.kind == "sections" ? static_cast<int>(s.layouts.size()) : 1; }

const Layout* AnswerLayout(const Shape& s, int j, int count) {
    const std::string& name = s.LayoutOf(j, count);
    return name.empty() ? nullptr : &Get().At(name);
}

std::string Plural(std::int64_t n, const char* what) { return std::to_string(n) + " " + what + (n == 1 ? "" : "s"); }

// Why the library refused a message: the checks the restores make, in their
// order, named after the head words they read.
std::string WhyRefused(const std::vector<char>& w, bool request, int version) {
    const std::int64_t n = static_cast<std::int64_t>(w.size());
    const std::int32_t headLen = Word(w, 0), id = Word(w, 4), flags = Word(w, 8);
    const bool fast = version != 0;
    const std::string coding = CodingName(version);
    const catalogue_model::Cell cell = RestoreCell(request, id, fast);
    if (n < 12) return "the message has " + Plural(n, "byte") + "; a restore reads 12 (head length, function id, flags)";
    if (headLen > n) return "the head length word says " + std::to_string(headLen) + " bytes but the message has only " + std::to_string(n);
    const std::int32_t minHead = request ? kReqHead : kAnsHead;
    if (cell.kind == catalogue_model::Cell::Kind::raw) {
        if (flags & TRDCOMP_FLAG_CODED)
            return "function id " + std::to_string(id) + " has no codec for the " + coding +
                   " coding, and flag bit 0 says its records are coded";
        if (!request) {
            if (n < kAnsHead || headLen < 0) return "an answer head is 96 bytes and its length word must lie inside the message";
            if (flags & TRDCOMP_FLAG_SECTIONS) {
                const std::int32_t table = Word(w, static_cast<std::size_t>(headLen));
                if (n - headLen < 4 || table < 4 || table > n - headLen)
                    return "flag bit 1 announces a section table, but its length word (" + std::to_string(table) +
                           ") does not lie between 4 and the " + Plural(n - headLen, "byte") + " behind the head";
                return "the section table describes more record bytes than the message holds";
            }
            return "the head's record count times record size (" + std::to_string(Word(w, 88)) + " x " +
                   std::to_string(Word(w, 92)) + ") is more than the " + Plural(n - headLen, "byte") + " behind the head";
        }
        return "the raw restore refused the message";
    }
    if (n < minHead) return std::string(request ? "a request head is 76" : "an answer head is 96") + " bytes; the message has " + std::to_string(n);
    if (headLen < 0) return "the head length word is negative (" + std::to_string(headLen) + ")";
    const std::int64_t room = n - headLen;
    if (request) {
        if (flags & TRDCOMP_FLAG_SECTIONS) return "flag bit 1 (several record arrays) is set on a request";
        const std::int64_t count = Records(Word(w, 68));
        const bool coded = (flags & TRDCOMP_FLAG_CODED) != 0;
        if (coded && fast && room < 2) return "the Fast record count behind the head is missing";
        const std::int64_t most = coded ? (fast ? (room - 2) / 2 : room / 4) : n;
        if (count > most)
            return "the head's record count (" + std::to_string(count) + ") is more than the " + Plural(room, "byte") +
                   " behind the head can hold (at most " + std::to_string(most) + ")";
        return "the restored size (record count times layout size) does not fit an int, or the allocation failed";
    }
    const Shape& shape = Get().AnswerShape(cell.codec);
    const int k = ShapeArrays(shape);
    std::int64_t records = 0;
    if (fast) {
        if (room < 2 * k) return "the Fast record counts behind the head are missing (" + std::to_string(2 * k) + " bytes)";
        if (k == 1 && U16(w, static_cast<std::size_t>(headLen)) != Word(w, 88))
            return "the Fast stream counts " + std::to_string(U16(w, static_cast<std::size_t>(headLen))) +
                   " records but the head's record count is " + std::to_string(Word(w, 88));
        for (int j = 0; j < k; ++j) records += k == 1 ? Records(Word(w, 88)) : U16(w, static_cast<std::size_t>(headLen + 2 * j));
        if (records > room / 2)
            return "the counts announce " + std::to_string(records) + " records, more than the " + Plural(room, "byte") +
                   " behind the head can hold";
    } else {
        std::int64_t cursor = headLen;
        if (k == 1) {
            records = Records(Word(w, 88));
        } else {
            const std::int32_t table = room >= 4 ? Word(w, static_cast<std::size_t>(headLen)) : 0;
            if (room < 4 || table < 4 + 8 * k || table > room)
                return "the section table's length word (" + std::to_string(table) + ") must lie between " +
                       std::to_string(4 + 8 * k) + " (" + std::to_string(k) + " arrays) and the " + Plural(room, "byte") +
                       " behind the head";
            for (int j = 0; j < k; ++j) records += Records(Word(w, static_cast<std::size_t>(headLen + 4 + 8 * j)));
            cursor += table;
        }
        if (records > (n - cursor) / 4)
            return "the counts announce " + std::to_string(records) + " records, more than the " +
                   Plural(n - cursor, "byte") + " of records can hold (4 bytes at least each)";
    }
    return "the restored size does not fit an int, or the allocation failed";
}

Json HeadJson(const Decoded& m) {
    const std::vector<char>& w = m.wire;
    Json h;
    h["nHeadLen"] = Word(w, 0);
    h["nFuncId"] = Word(w, 4);
    h["nFlags"] = Word(w, 8);
    if (m.request) {
        Json user = Json::array();
        for (int i = 0; i < 14; ++i) user.push_back(Word(w, 12 + 4 * static_cast<std::size_t>(i)));
        h["nUser"] = user;
        h["nRecCount"] = Word(w, 68);
        h["nRecSize"] = Word(w, 72);
    } else {
        h["cReserved"] = Hex(w.data() + 12, 8);
        h["szShort"] = TextJson(w.data() + 20, 4);
        h["szLong"] = TextJson(w.data() + 24, 64);
        h["nRecCount"] = Word(w, 88);
        h["nRecSize"] = Word(w, 92);
    }
    return h;
}

template <class T>
T IntOf(const Json& j, const char* key, T fallback) {
    if (!j.contains(key)) return fallback;
    const Json& v = j.at(key);
    if (!v.is_number_integer()) throw std::runtime_error(std::string("\"") + key + "\" must be an integer");
    const long long x = v.get<long long>();
    if (x < INT32_MIN || x > static_cast<long long>(UINT32_MAX)) throw std::runtime_error(std::string("\"") + key + "\" is out of range");
    return static_cast<T>(x);
}

// The records of a section as bytes `stride` apart: each record's JSON fills
// a zeroed record of its layout (or its hex, raw), of which min(stride, size)
// bytes are kept.
std::vector<char> SectionBytes(const Json& sec, int stride, bool fast, const std::string& where) {
    std::vector<char> data;
    if (!sec.contains("records")) return data;
    const Json& recs = sec.at("records");
    if (!recs.is_array()) throw std::runtime_error(where + ": \"records\" must be a list");
    const Layout* layout = nullptr;
    if (sec.contains("layout") && !sec.at("layout").is_null()) {
        const std::string name = sec.at("layout").get<std::string>();
        const auto it = Get().layouts.find(name);
        if (it == Get().layouts.end()) throw std::runtime_error(where + ": no layout named " + name);
        layout = &it->second;
    }
    if (stride < 0) throw std::runtime_error(where + ": negative record size");
    for (std::size_t i = 0; i < recs.size(); ++i) {
        std::vector<char> rec;
        const std::string what = where + " record " + std::to_string(i);
        if (layout) {
            rec.assign(static_cast<std::size_t>(layout->size), 0);
            try {
                RecordFromJson(*layout, recs[i], rec.data(), fast);
            } catch (const std::exception& e) {
                throw std::runtime_error(what + ": " + e.what());
            }
        } else if (!recs[i].is_string() || !ParseHex(recs[i].get<std::string>(), rec)) {
            throw std::runtime_error(what + ": a raw record is a string of hex digits");
        }
        rec.resize(static_cast<std::size_t>(stride), 0);
        data.insert(data.end(), rec.begin(), rec.end());
    }
    return data;
}

}  // namespace

int ParseCoding(const std::string& text) {
    if (text == "2008") return 0;
    if (text == "fast") return 1;
    if (text.rfind("fast:", 0) == 0) {
        const std::string v = text.substr(5);
        if (!v.empty() && v.size() <= 2 && v.find_first_not_of("0123456789") == std::string::npos) {
            const int n = std::stoi(v);
            if (n >= 1 && n <= 15) return n;
        }
    }
    throw std::runtime_error("coding \"" + text + "\": expected 2008, fast or fast:V with V from 1 to 15");
}

std::string CodingName(int fastVersion) { return fastVersion == 0 ? "2008" : "fast:" + std::to_string(fastVersion); }

Decoded Decode(const std::vector<char>& wire, char flag) {
    if (wire.size() < 4) throw std::runtime_error("the input has " + Plural(static_cast<std::int64_t>(wire.size()), "byte") + ": no head");
    if (wire.size() > static_cast<std::size_t>(INT_MAX)) throw std::runtime_error("the input is longer than a message can be (2 GiB)");
    Decoded m;
    m.wire = wire;
    m.flag = flag;
    const std::int32_t word0 = Word(wire, 0);
    if (word0 != kReqHead && word0 != kAnsHead)
        throw std::runtime_error("head word 0 is " + std::to_string(word0) + ": a request head says 76, an answer head 96");
    m.request = word0 == kReqHead;
    m.fastVersion = (Word(wire, 8) >> TRDCOMP_FLAG_FAST_SHIFT) & 0xF;
    const bool fast = m.fastVersion != 0;
    const std::int32_t id = Word(wire, 4);
    const trdcomp::span<const char> in(wire.data(), wire.size());
    const trdcomp::Restored r = m.request ? trdcomp::RestoreRequest(in, flag) : trdcomp::RestoreAnswer(in, flag);
    if (r.Error() == trdcomp::Errc::out_of_memory) throw Refused("the restore could not allocate its buffer");
    if (!r) throw Refused(WhyRefused(wire, m.request, m.fastVersion));
    m.restoredBytes = r.Size();
    if (r.Size() == 0) {
        m.restoredNothing = true;
        return m;
    }
    const catalogue_model::Cell cell = RestoreCell(m.request, id, fast);
    const bool codec = cell.IsCodec();
    const char* p = r.Data();
    const std::int64_t size = static_cast<std::int64_t>(r.Size());
    std::int64_t end = m.request ? kReqHead : kAnsHead;
    const int sections = r.Sections();
    if (!m.request) {
        m.arrayCount = 1;
        if (Word(wire, 8) & TRDCOMP_FLAG_SECTIONS) {
            const std::int32_t table = wire.size() >= kAnsHead + 4u ? Word(wire, kAnsHead) : 0;
            m.arrayCount = !fast && table >= 4 ? (table - 4) / 8 : sections;
        }
    }
    for (int j = 0; j < sections; ++j) {
        const trdcomp::Restored::Section s = r.GetSection(j);
        Section out;
        out.count = s.count;
        out.slot = s.size;
        if (codec) {
            out.layout = m.request ? &Get().At(Get().requestLayoutOf.at(cell.codec))
                                   : AnswerLayout(Get().AnswerShape(cell.codec), j, s.count);
            if (out.layout && out.layout->size != s.size) out.layout = nullptr;
        }
        // The size the sender stated: the request head, the answer's section
        // table (2008 coding, raw) or head (first array).
        out.size = out.slot;
        if (m.request) {
            out.size = Word(wire, 72);
        } else if (!fast && (Word(wire, 8) & TRDCOMP_FLAG_SECTIONS) && j < 5) {
            out.size = Word(wire, kAnsHead + 8 + 8 * static_cast<std::size_t>(j));
        } else if (j == 0) {
            out.size = Word(wire, 92);
        }
        if (s.data != nullptr && s.size > 0) {
            std::int64_t n = Records(s.count);
            const std::int64_t at = s.data - p;
            if (n > (size - at) / s.size) n = (size - at) / s.size;  // raw requests: whole records only
            out.records.assign(s.data, s.data + n * s.size);
            end = at + n * s.size;
        }
        m.sections.push_back(std::move(out));
    }
    if (!codec && end < size) m.trailing.assign(p + end, p + size);
    return m;
}

Json ToJson(const Decoded& m) {
    Json j;
    j["direction"] = m.request ? "request" : "answer";
    j["coding"] = CodingName(m.fastVersion);
    j["flag"] = static_cast<int>(m.flag);
    j["bytes"] = m.wire.size();
    j["head"] = HeadJson(m);
    if (!m.request) j["arrays"] = m.arrayCount;
    Json sections = Json::array();
    for (const Section& s : m.sections) {
        Json sec;
        sec["layout"] = s.layout ? Json(s.layout->name) : Json(nullptr);
        sec["count"] = s.count;
        sec["size"] = s.size;
        Json recs = Json::array();
        for (std::size_t off = 0; s.slot > 0 && off + static_cast<std::size_t>(s.slot) <= s.records.size();
             off += static_cast<std::size_t>(s.slot))
            recs.push_back(s.layout ? RecordJson(*s.layout, s.records.data() + off)
                                    : Json(Hex(s.records.data() + off, static_cast<std::size_t>(s.slot))));
        sec["records"] = recs;
        sections.push_back(sec);
    }
    j["sections"] = sections;
    if (!m.trailing.empty()) j["trailing"] = Hex(m.trailing.data(), m.trailing.size());
    if (m.restoredNothing) j["restored"] = "nothing: the restore handed back no records";
    return j;
}

void PrintText(const Decoded& m, std::ostream& out, bool sent) {
    const Json head = HeadJson(m);
    const auto origins = sent ? SentFields(m) : std::vector<std::vector<std::map<int, Origin>>>();
    const int id = Word(m.wire, 4);
    out << (m.request ? "request " : "answer ") << id << ", " << m.wire.size() << " bytes, coding "
        << CodingName(m.fastVersion) << (m.fastVersion == 0 ? " (flag " + std::to_string(static_cast<int>(m.flag)) + ")" : "")
        << "\n\nhead\n";
    for (const auto& [key, v] : head.items()) out << "  " << std::left << std::setw(10) << key << " " << v.dump() << "\n";
    if (m.restoredNothing) out << "\nthe restore handed back no records\n";
    for (std::size_t j = 0; j < m.sections.size(); ++j) {
        const Section& s = m.sections[j];
        out << "\nsection " << j + 1 << ": " << (s.layout ? s.layout->name : std::string("raw records")) << ", "
            << Plural(s.count, "record") << " of " << s.slot << " bytes"
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
        id = IntOf<std::int32_t>(head, "nFuncId", 0);
    }
    if (id > INT32_MAX) throw std::runtime_error("--id " + std::to_string(id) + " does not fit a 32-bit id");
    int version = o.fastVersion;
    if (version < 0) {
        if (!msg.contains("coding") || !msg.at("coding").is_string()) throw std::runtime_error("say --coding (the JSON has no \"coding\")");
        version = ParseCoding(msg.at("coding").get<std::string>());
    }
    const char flag = static_cast<char>(o.flag >= 0 ? o.flag : IntOf<int>(msg, "flag", 0));
    const Json sections = msg.contains("sections") ? msg.at("sections") : Json::array();
    if (!sections.is_array()) throw std::runtime_error("\"sections\" must be a list");
    std::vector<char> trailing;
    if (msg.contains("trailing") && (!msg.at("trailing").is_string() || !ParseHex(msg.at("trailing").get<std::string>(), trailing)))
        throw std::runtime_error("\"trailing\" must be a string of hex digits");
    const bool codec = PackCell(request, static_cast<int>(id), version != 0).IsCodec();
    const trdcomp::Coding coding = version ? trdcomp::Coding::Fast(version) : trdcomp::Coding::C2008(flag);

    if (request) {
        if (sections.size() > 1) throw std::runtime_error("a request has one record array; the JSON has " + std::to_string(sections.size()));
        tagREQ_HEAD h{};
        h.nHeadLen = kReqHead;
        h.nFuncId = static_cast<int>(id);
        h.nFlags = IntOf<std::int32_t>(head, "nFlags", 0);
        if (codec) h.nFlags &= ~TRDCOMP_FLAG_CODED;  // the codec sets it
        if (head.contains("nUser")) {
            const Json& u = head.at("nUser");
            if (!u.is_array() || u.size() != 14) throw std::runtime_error("\"nUser\" must be a list of 14 integers");
            for (int i = 0; i < 14; ++i) {
                if (!u[static_cast<std::size_t>(i)].is_number_integer()) throw std::runtime_error("\"nUser\" must be a list of 14 integers");
                h.nUser[i] = static_cast<int>(u[static_cast<std::size_t>(i)].get<long long>());
            }
        }
        const Json sec = sections.empty() ? Json::object() : sections[0];
        const int recordCount = sec.contains("records") && sec.at("records").is_array() ? static_cast<int>(sec.at("records").size()) : 0;
        h.nRecCount = IntOf<std::int32_t>(head, "nRecCount", IntOf<std::int32_t>(sec, "count", recordCount));
        h.nRecSize = IntOf<std::int32_t>(head, "nRecSize", IntOf<std::int32_t>(sec, "size", 0));
        std::vector<char> data = SectionBytes(sec, IntOf<std::int32_t>(sec, "size", h.nRecSize), version != 0, "section 1");
        data.insert(data.end(), trailing.begin(), trailing.end());
        const std::uint64_t bound = trdcomp::RequestSizeBound(h, data.size(), coding);
        if (bound > static_cast<std::uint64_t>(INT_MAX)) throw std::runtime_error("the message would exceed 2 GiB");
        std::vector<char> out(static_cast<std::size_t>(bound));
        const trdcomp::PackResult res = trdcomp::PackRequest(out, h, trdcomp::span<const char>(data.data(), data.size()), coding);
        if (!res) throw std::runtime_error(std::string("packing failed: ") + trdcomp::Message(res.error));
        out.resize(res.size);
        return out;
    }

    if (sections.size() > 5) throw std::runtime_error("an answer has at most 5 record arrays; the JSON has " + std::to_string(sections.size()));
    tagANS_Proc proc{};
    proc.nFuncId = static_cast<int>(id);
    if (head.contains("szShort")) TextFromJson(head.at("szShort"), proc.szShort, 4, "head szShort");
    if (head.contains("szLong")) TextFromJson(head.at("szLong"), proc.szLong, 64, "head szLong");
    proc.nArrayCount = IntOf<std::int32_t>(msg, "arrays", static_cast<std::int32_t>(sections.size() ? sections.size() : 1));
    std::vector<std::vector<char>> arrays(5);
    for (std::size_t j = 0; j < sections.size(); ++j) {
        const Json& sec = sections[j];
        const std::string where = "section " + std::to_string(j + 1);
        const int recordCount = sec.contains("records") && sec.at("records").is_array() ? static_cast<int>(sec.at("records").size()) : 0;
        proc.nRecCount[j] = IntOf<std::int32_t>(sec, "count", recordCount);
        proc.nRecSize[j] = IntOf<std::int32_t>(sec, "size", 0);
        arrays[j] = SectionBytes(sec, proc.nRecSize[j], version != 0, where);
    }
    if (sections.empty()) {
        proc.nRecCount[0] = IntOf<std::int32_t>(head, "nRecCount", 0);
        proc.nRecSize[0] = IntOf<std::int32_t>(head, "nRecSize", 0);
    }
    const std::uint64_t bound = trdcomp::AnswerSizeBound(proc, coding);
    if (bound > static_cast<std::uint64_t>(INT_MAX)) throw std::runtime_error("the message would exceed 2 GiB");
    std::vector<char> out(static_cast<std::size_t>(bound), 0);
    // PackAns2008 or-s its bits into the flags word and leaves bytes 12..19:
    // the sender's other flag bits and reserved bytes are placed first.
    const std::int32_t keep = IntOf<std::int32_t>(head, "nFlags", 0) &
                              ~(TRDCOMP_FLAG_CODED | TRDCOMP_FLAG_SECTIONS | TRDCOMP_FLAG_FAST_MASK);
    std::memcpy(out.data() + 8, &keep, 4);
    if (head.contains("cReserved")) {
        std::vector<char> reserved;
        if (!head.at("cReserved").is_string() || !ParseHex(head.at("cReserved").get<std::string>(), reserved) || reserved.size() != 8)
            throw std::runtime_error("head cReserved must be 8 bytes of hex");
        std::memcpy(out.data() + 12, reserved.data(), 8);
    }
    int len = 0;
    CTrdCompData::PackAns2008(out.data(), static_cast<int>(out.size()), len, &proc, arrays[0].data(), arrays[1].data(),
                              arrays[2].data(), arrays[3].data(), arrays[4].data(), flag, version << TRDCOMP_FLAG_FAST_SHIFT);
    if (len == 0) throw std::runtime_error("the library refused to pack the answer");
    out.resize(static_cast<std::size_t>(len));
    return out;
}

}  // namespace tool
