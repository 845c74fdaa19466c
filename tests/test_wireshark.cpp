// The Wireshark plugin under tshark: every golden message written into a
// capture of a loopback connection (the suite's own pcap writer) and shown by
// tshark with the same id, counts and field values as `trdcomp decode --pcap
// --jsonl` of the same capture; transport prefixes; the filters; damaged messages and mutated
// captures, which must give expert items and never a dissector bug.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Message.h"
#include "model/CatalogueModel.h"
#include "support/Golden.h"
#include "support/PcapWriter.h"
#include "support/Tshark.h"
#include "trdcomp/trdcomp.hpp"

namespace {

using tool::Json;
constexpr std::uint16_t kPort = 7300;
constexpr std::uint16_t kClientPort = 51000;
const std::string kDecodeAs = "tcp.port==7300,trdcomp";

std::string Cat(std::initializer_list<std::string> parts) {
    std::string s;
    for (const std::string& p : parts) s += p;
    return s;
}

// What tshark must show for the messages of a capture: what `trdcomp decode
// --pcap --jsonl` prints of the same capture, a JSON object a message, split
// by direction ([0]: requests, [1]: answers) in the order they came. The one
// place the expectation comes from.
std::array<std::vector<Json>, 2> ToolsView(const std::string& capture, const std::vector<std::string>& options) {
    std::string command = tshark::Quote(TRDCOMP_TOOL) + " decode --pcap --jsonl --port " + std::to_string(kPort);
    for (const std::string& o : options) command.append(1, ' ').append(tshark::Quote(o));
    command.append(1, ' ').append(tshark::Quote(capture)).append(" 2>/dev/null");
    std::FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("cannot run " + command);
    std::string text;
    char chunk[1 << 16];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) text.append(chunk, n);
    ::pclose(pipe);
    std::array<std::vector<Json>, 2> out;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        Json line = Json::parse(text.substr(at, end - at));
        at = end + 1;
        if (line.contains("head")) out[line.at("direction") == "answer" ? 1 : 0].push_back(std::move(line));
    }
    return out;
}

const tshark::Runner& Tshark() {
    static const tshark::Runner runner(TRDCOMP_WS_PLUGIN, {TRDCOMP_WS_LIBRARIES}, TRDCOMP_WS_SERIES);
    return runner;
}

tshark::Result RunTshark(const std::vector<std::string>& args, bool plugin = true) {
    return Tshark().Run(TRDCOMP_TSHARK, args, plugin);
}

struct Message {
    std::string name;
    std::vector<char> wire;
};

// The golden messages of one direction; `framed`: only those whose length
// is in their own bytes.
std::vector<Message> Golden(bool requests, bool framed) {
    std::vector<Message> out;
    for (const std::string& name : golden::Names()) {
        if ((name.rfind("req_", 0) == 0) != requests) continue;
        std::vector<char> w = golden::Wire(name);
        if (framed && trdcomp::MessageLength({w.data(), w.size()}).status != trdcomp::Framing::complete) continue;
        out.push_back({name, std::move(w)});
    }
    return out;
}

// The messages back to back, each behind a prefix of `width` bytes
// (big-endian) when width is not 0.
std::vector<char> Stream(const std::vector<Message>& messages, int width) {
    std::vector<char> s;
    for (const Message& m : messages) {
        for (int i = width - 1; i >= 0; --i) s.push_back(static_cast<char>(m.wire.size() >> (8 * i)));
        s.insert(s.end(), m.wire.begin(), m.wire.end());
    }
    return s;
}

std::vector<char> Capture(const std::vector<Message>& up, const std::vector<Message>& down, int width, std::size_t mss) {
    pcap::PcapWriter w;
    pcap::Connection(w, pcap::kLoopback, kClientPort, pcap::kLoopback, kPort, Stream(up, width), Stream(down, width), mss);
    return w.Bytes();
}

// One message a segment: each frame holds exactly one message.
std::vector<char> OneMessageAFrame(const std::vector<Message>& messages) {
    pcap::PcapWriter w;
    std::uint32_t seq = 1000;
    for (const Message& m : messages) {
        w.Segment(pcap::kLoopback, kClientPort, pcap::kLoopback, kPort, seq, false, m.wire.data(), m.wire.size());
        seq += static_cast<std::uint32_t>(m.wire.size());
    }
    return w.Bytes();
}

// The trdcomp PDUs of tshark's JSON output, in order, with the source port
// of the frame that completed each.
struct Pdu {
    int sport;
    Json tree;
};
std::vector<Pdu> Pdus(const std::string& json) {
    std::vector<Pdu> out;
    const Json packets = Json::parse(json);
    for (const Json& p : packets) {
        const Json& layers = p.at("_source").at("layers");
        if (!layers.contains("trdcomp")) continue;
        const int sport = std::stoi(layers.at("tcp").at("tcp.srcport").get<std::string>());
        const Json& t = layers.at("trdcomp");
        if (t.is_array()) {
            for (const Json& one : t) out.push_back({sport, one});
        } else {
            out.push_back({sport, t});
        }
    }
    return out;
}

// The member of `o` whose key starts with `prefix` (a subtree's label).
const Json* Child(const Json& o, const std::string& prefix) {
    for (auto it = o.begin(); it != o.end(); ++it)
        if (it.key().rfind(prefix, 0) == 0) return &it.value();
    return nullptr;
}

std::string Text(const Json& o, const std::string& key) {
    return o.contains(key) && o.at(key).is_string() ? o.at(key).get<std::string>() : Cat({"<missing ", key, ">"});
}

// Hex digits without separators, trailing zero bytes dropped.
std::string TrimmedHex(std::string hex) {
    hex.erase(std::remove(hex.begin(), hex.end(), ':'), hex.end());
    while (hex.size() >= 2 && hex.compare(hex.size() - 2, 2, "00") == 0) hex.resize(hex.size() - 2);
    return hex;
}

// The hex of a field's bytes, from tshark's raw view (-x).
std::string RawHex(const Json& record, const std::string& key) {
    const std::string raw = key + "_raw";
    if (!record.contains(raw)) return Cat({"<missing ", raw, ">"});
    const Json& r = record.at(raw);
    return TrimmedHex(r.is_array() && !r.empty() ? r[0].get<std::string>() : "");
}

// The code of a char field as tshark shows it: 'A', '\0', '\t', '\xc5';
// -1 for anything else.
int CharCode(const std::string& shown) {
    if (shown.size() < 3 || shown.front() != '\'' || shown.back() != '\'') return -1;
    const std::string c = shown.substr(1, shown.size() - 2);
    if (c.size() == 1) return static_cast<unsigned char>(c[0]);
    if (c[0] != '\\') return -1;
    if (c[1] == 'x') return std::stoi(c.substr(2), nullptr, 16);
    if (c.size() > 2) return std::stoi(c.substr(1), nullptr, 8);
    const std::string names = "0abtnvfr\\'";
    const std::string codes("\0\a\b\t\n\v\f\r\\'", 10);
    const std::size_t at = names.find(c[1]);
    return at == std::string::npos ? -1 : static_cast<unsigned char>(codes[at]);
}

// Compares one restored record's fields, as tshark shows them, with the
// library's description; adds every difference to `faults`.
void CompareRecord(const catalogue_model::Layout& l, const Json& want, const Json& got, const std::string& where,
                   std::vector<std::string>& faults) {
    for (const catalogue_model::Field& f : l.fields) {
        const std::string key = Cat({"trdcomp.", l.name, ".f", std::to_string(f.offset)});
        const Json& e = want.at(Cat({"f", std::to_string(f.offset)}));
        const std::string at = where + " " + key;
        const std::string shown = Text(got, key);
        bool same = true;
        std::string expected = e.dump();
        using K = catalogue_model::FieldKind;
        switch (f.kind) {
            case K::Char: {
                const int code = e.is_string() ? static_cast<unsigned char>(e.get<std::string>()[0]) : e.get<int>();
                same = CharCode(shown) == code;
                break;
            }
            case K::Text:
            case K::Ascii:
                if (e.is_string()) {
                    same = shown == e.get<std::string>();
                } else {
                    expected = e.at("hex").get<std::string>();
                    same = RawHex(got, key) == expected;
                }
                break;
            case K::Bytes:
            case K::Uncoded: same = TrimmedHex(shown) == e.get<std::string>(); break;
            case K::Int32:
            case K::Int64: same = shown == std::to_string(e.get<std::int64_t>()); break;
            case K::Double:
                if (e.is_object()) {
                    same = RawHex(got, key) == TrimmedHex(e.at("hex").get<std::string>());
                } else {
                    const double v = e.get<double>(), g = std::strtod(shown.c_str(), nullptr);
                    same = std::fabs(v - g) <= 1e-12 * std::max(1.0, std::fabs(v));
                }
                break;
            case K::Sized:
                same = TrimmedHex(shown) == e.at("hex").get<std::string>() &&
                       Text(got, key + ".length") == std::to_string(e.at("length").get<int>());
                break;
            case K::Array: {
                const Json* entries = got.contains(key) && got.at(key).is_object() ? &got.at(key) : nullptr;
                const catalogue_model::Layout& entry = catalogue_model::Get().At(f.entry);
                for (int k = 0; k < f.entries; ++k) {
                    const Json* g = entries ? Child(*entries, Cat({"Entry ", std::to_string(k)})) : nullptr;
                    if (g == nullptr) {
                        faults.push_back(at + " entry " + std::to_string(k) + " missing");
                        break;
                    }
                    CompareRecord(entry, e.at(static_cast<std::size_t>(k)), *g, at + "[" + std::to_string(k) + "]", faults);
                }
                continue;
            }
        }
        if (!same) faults.push_back(at + ": tshark shows " + shown + ", the library " + expected);
    }
}

// Compares one message as tshark shows it with the tool's description.
std::vector<std::string> CompareMessage(const Message& m, const Json& want, const Json& got) {
    std::vector<std::string> faults;
    auto check = [&](const std::string& what, const std::string& shown, const std::string& expected) {
        if (shown != expected) faults.push_back(m.name + " " + what + ": tshark shows " + shown + ", the library " + expected);
    };
    const Json& head = want.at("head");
    const Json* h = Child(got, "Head");
    check("direction", Text(got, "trdcomp.direction"), want.at("direction") == "request" ? "1" : "2");
    check("coding", Text(got, "trdcomp.coding"), want.at("coding").get<std::string>());
    check("length", Text(got, "trdcomp.wire_length"), std::to_string(m.wire.size()));
    if (h == nullptr) return {m.name + ": no head in tshark's tree"};
    check("func_id", Text(*h, "trdcomp.func_id"), std::to_string(head.at("nFuncId").get<int>()));
    check("rec_count", Text(*h, "trdcomp.rec_count"), std::to_string(head.at("nRecCount").get<int>()));
    check("rec_size", Text(*h, "trdcomp.rec_size"), std::to_string(head.at("nRecSize").get<int>()));
    const Json* sections = Child(got, "Sections:");
    if (sections == nullptr) return {m.name + ": no sections in tshark's tree"};
    const Json& ws = want.at("sections");
    check("sections", std::to_string(sections->size()), std::to_string(ws.size()));
    for (std::size_t j = 0; j < ws.size(); ++j) {
        const std::string where = m.name + " section " + std::to_string(j + 1);
        const Json* s = Child(*sections, Cat({"Section ", std::to_string(j + 1), ":"}));
        if (s == nullptr) {
            faults.push_back(where + " missing");
            continue;
        }
        const Json& w = ws.at(j);
        check("section count", Text(*s, "trdcomp.section.count"), std::to_string(w.at("count").get<int>()));
        check("section size", Text(*s, "trdcomp.section.size"), std::to_string(w.at("size").get<int>()));
        check("section layout", Text(*s, "trdcomp.section.layout"), w.at("layout").is_null() ? "raw" : w.at("layout").get<std::string>());
        const Json& records = w.at("records");
        for (std::size_t i = 0; i < records.size(); ++i) {
            const std::string rw = where + " record " + std::to_string(i + 1);
            const std::string label = Cat({"Record ", std::to_string(i + 1)});
            const Json* r = s->contains(label) ? &s->at(label) : nullptr;
            if (r == nullptr) {
                faults.push_back(rw + " missing");
                continue;
            }
            if (w.at("layout").is_null())
                check(Cat({"record ", std::to_string(i + 1)}), TrimmedHex(Text(*r, "trdcomp.record.raw")), TrimmedHex(records[i].get<std::string>()));
            else
                CompareRecord(catalogue_model::Get().At(w.at("layout").get<std::string>()), records[i], *r, rw, faults);
        }
        if (s->contains(Cat({"Record ", std::to_string(records.size() + 1)}))) faults.push_back(where + ": more records than the library restores");
    }
    return faults;
}

// Runs tshark over `capture` and compares every trdcomp PDU, a direction at a
// time, with the messages written.
void ExpectSameAsLibrary(const std::vector<char>& capture, const std::vector<Message>& up, const std::vector<Message>& down,
                         const std::vector<std::string>& options, const std::vector<std::string>& toolOptions) {
    const auto file = Tshark().Place("capture.pcap", capture);
    std::vector<std::string> args = {"-r", file.string(), "-d", kDecodeAs,
                                     "-T", "json", "--no-duplicate-keys", "-x", "-O", "trdcomp"};
    args.insert(args.end(), options.begin(), options.end());
    const tshark::Result r = RunTshark(args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.find("Dissector bug"), std::string::npos) << r.err;
    std::vector<const Json*> got[2];
    const std::vector<Pdu> pdus = Pdus(r.out);
    for (const Pdu& p : pdus) got[p.sport == kPort ? 1 : 0].push_back(&p.tree);
    ASSERT_EQ(got[0].size(), up.size());
    ASSERT_EQ(got[1].size(), down.size());
    std::vector<std::string> faults;
    const std::array<std::vector<Json>, 2> tool = ToolsView(file.string(), toolOptions);
    for (int d = 0; d < 2; ++d) {
        const std::vector<Message>& sent = d == 0 ? up : down;
        const std::vector<Json>& want = tool[static_cast<std::size_t>(d)];
        ASSERT_EQ(want.size(), sent.size()) << "messages trdcomp decode --pcap --jsonl shows " << (d == 0 ? "up" : "down");
        for (std::size_t i = 0; i < sent.size(); ++i) {
            const std::vector<std::string> f = CompareMessage(sent[i], want[i], *got[d][i]);
            faults.insert(faults.end(), f.begin(), f.end());
        }
    }
    EXPECT_TRUE(faults.empty()) << faults.size() << " differences, the first: " << faults.front();
}

}  // namespace

TEST(Wireshark, RegistersTheProtocolAndOneFieldPerCatalogueField) {
    const tshark::Result r = RunTshark({"-G", "fields"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::size_t expected = 0;
    for (const auto& [name, layout] : catalogue_model::Get().layouts)
        for (const catalogue_model::Field& f : layout.fields) expected += f.kind == catalogue_model::FieldKind::Sized ? 2 : 1;
    std::size_t record = 0;
    bool protocol = false;
    std::size_t at = 0;
    while (at < r.out.size()) {
        const std::size_t end = std::min(r.out.find('\n', at), r.out.size());
        const std::string line = r.out.substr(at, end - at);
        at = end + 1;
        protocol |= line.rfind("P\ttrdcomp message\ttrdcomp", 0) == 0;
        const std::size_t tab = line.find("\ttrdcomp.");
        if (line.rfind("F\t", 0) == 0 && tab != std::string::npos) {
            const std::string abbrev = line.substr(tab + 1, line.find('\t', tab + 1) - tab - 1);
            const std::size_t dot = abbrev.find('.', 8);
            if (dot != std::string::npos && catalogue_model::Get().layouts.count(abbrev.substr(8, dot - 8))) ++record;
        }
    }
    EXPECT_TRUE(protocol);
    EXPECT_EQ(record, expected);
    EXPECT_NE(r.out.find("\ttrdcomp.REQ_1002.f35\tFT_STRINGZPAD\ttrdcomp\t"), std::string::npos);
    // Without the plugin tshark knows no trdcomp.
    const tshark::Result bare = RunTshark({"-G", "protocols"}, false);
    EXPECT_EQ(bare.out.find("\ttrdcomp\t"), std::string::npos);
}

TEST(Wireshark, EveryFramedGoldenMessageShowsWhatTheLibraryRestores) {
    const auto up = Golden(true, true), down = Golden(false, true);
    ASSERT_GT(up.size(), 100u);
    ASSERT_GT(down.size(), 200u);
    ExpectSameAsLibrary(Capture(up, down, 0, 1460), up, down, {}, {});
}

TEST(Wireshark, TransportPrefixesCarryEveryGoldenMessageRawOnesToo) {
    // And requests of an id without a codec, whose records travel raw: only
    // the prefix tells where they end.
    auto up = Golden(true, false);
    const auto down = Golden(false, false);
    for (int count : {0, 1, 3}) {
        std::vector<char> raw(trdcomp::head::kRequestLength + 10 * static_cast<std::size_t>(count));
        for (std::size_t i = trdcomp::head::kRequestLength; i < raw.size(); ++i) raw[i] = static_cast<char>(i * 7);
        trdcomp::head::Store(raw.data(), trdcomp::head::kLengthAt, trdcomp::head::kRequestLength);
        trdcomp::head::Store(raw.data(), trdcomp::head::kFunctionIdAt, 777);
        trdcomp::head::Store(raw.data(), trdcomp::head::kRequestCountAt, count);
        trdcomp::head::Store(raw.data(), trdcomp::head::kRequestSizeAt, 10);
        ASSERT_EQ(trdcomp::MessageLength({raw.data(), raw.size()}).status, trdcomp::Framing::cannot_tell);
        up.push_back({Cat({"raw request of ", std::to_string(count)}), raw});
    }
    ExpectSameAsLibrary(Capture(up, down, 4, 1460), up, down, {"-o", "trdcomp.frame:u32be"}, {"--frame", "u32be"});
}

TEST(Wireshark, TinySegmentsReassembleThroughHeadsCutAnywhere) {
    // Segments of 5 bytes: a head's length, id and flags arrive in pieces,
    // and MessageLength asks for one more segment until it can tell.
    auto up = Golden(true, true), down = Golden(false, true);
    up.resize(6);
    down.resize(6);
    ExpectSameAsLibrary(Capture(up, down, 0, 5), up, down, {}, {});
}

TEST(Wireshark, ThePortPreferenceAndTheHeuristicFindTheStream) {
    auto up = Golden(true, true), down = Golden(false, true);
    const auto file = Tshark().Place("heuristic.pcap", Capture(up, down, 0, 1460));
    const tshark::Result off = RunTshark({"-r", file.string(), "-Y", "trdcomp"});
    EXPECT_EQ(off.out, "") << "no port and the heuristic off by default: no trdcomp";
    for (const std::vector<std::string>& how : {std::vector<std::string>{"--enable-heuristic", "trdcomp_tcp"},
                                                std::vector<std::string>{"-o", "trdcomp.tcp.port:7300"}}) {
        SCOPED_TRACE(how[0]);
        std::vector<std::string> args = {"-r", file.string(), "-T", "fields", "-e", "trdcomp.func_id", "-E", "occurrence=a",
                                         "-E", "aggregator=\n"};
        args.insert(args.end(), how.begin(), how.end());
        const tshark::Result on = RunTshark(args);
        ASSERT_EQ(on.status, 0) << on.err;
        std::size_t ids = 0;
        for (std::size_t at = 0; (at = on.out.find_first_of("0123456789", at)) != std::string::npos; at = on.out.find('\n', at)) ++ids;
        EXPECT_EQ(ids, up.size() + down.size());
    }
}

TEST(Wireshark, FiltersSelectWhatTheySay) {
    // Orders for stock 600000 among others: two of them in either coding.
    std::vector<Message> messages;
    auto order = [&](const std::string& code, const std::string& golden) {
        Json j = tool::ToJson(tool::Decode(golden::Wire(golden), 0));
        for (Json& r : j["sections"][0]["records"]) r["f35"] = code;
        messages.push_back({golden + " for " + code, tool::Encode(j, {})});
    };
    order("600000", "req_1002_2008");
    order("600001", "req_1002_2008");
    order("600000", "req_1002_fast");
    for (const char* name : {"req_1003_2008", "req_1003_fast", "ans_1002_2008", "ans_1110_fast", "ans_1001_fast"})
        messages.push_back({name, golden::Wire(name)});
    const auto file = Tshark().Place("filters.pcap", OneMessageAFrame(messages));
    struct Case {
        std::string filter;
        std::vector<int> frames;  // the frames it selects, from 1
    };
    const Case cases[] = {
        {"trdcomp.REQ_1002.f35 == \"600000\"", {1, 3}},
        {"trdcomp.func_id == 1002", {1, 2, 3, 6}},
        {"trdcomp.direction == 2", {6, 7, 8}},
        {"trdcomp.coding == \"fast:1\"", {3, 5, 7, 8}},
        {"trdcomp.func_id == 1003 && trdcomp.coding == \"2008\"", {4}},
        {"trdcomp.rec_count >= 1 && trdcomp.direction == 1", {1, 2, 3, 4, 5}},
        {"trdcomp.malformed", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.filter);
        const tshark::Result r = RunTshark({"-r", file.string(), "-d", kDecodeAs, "-Y",
                                            c.filter, "-T", "fields", "-e", "frame.number"});
        ASSERT_EQ(r.status, 0) << r.err;
        std::string want;
        for (int f : c.frames) want += std::to_string(f) + "\n";
        EXPECT_EQ(r.out, want);
    }
}

// The summary line of a message: what the Info column says of it.
std::string Summary(const Message& m) {
    const trdcomp::head::Routing r = trdcomp::head::ReadRouting(m.wire.data());
    const bool request = r.length == trdcomp::head::kRequestLength;
    const int version = trdcomp::head::FastVersion(r.flags);
    char text[512];
    try {
        const tool::Decoded d = tool::Decode(m.wire, 0);
        long long records = 0;
        for (const tool::Section& s : d.sections) records += s.count > 0 ? s.count : 0;
        std::snprintf(text, sizeof text, "%s %d, %s, route %s, %lld record%s, %zu -> %zu bytes (%.2f:1)",
                      request ? "Request" : "Answer", r.functionId, tool::CodingName(version).c_str(),
                      catalogue_model::Get().RestoreCell(request, r.functionId, version != 0).Text().c_str(), records,
                      records == 1 ? "" : "s", m.wire.size(), d.restoredBytes,
                      static_cast<double>(d.restoredBytes) / static_cast<double>(m.wire.size()));
    } catch (const tool::Refused& e) {
        std::snprintf(text, sizeof text, "%s %d, %s, refused: %s", request ? "Request" : "Answer", r.functionId,
                      tool::CodingName(version).c_str(), e.what());
    }
    return text;
}

// The suite's own damage to a request: cut short, a count raised, bytes of
// the records overwritten.
std::vector<char> Damaged(const std::vector<char>& wire, int kind, std::mt19937& rng) {
    std::vector<char> w = wire;
    if (kind == 0) w.resize(w.size() - 1 - rng() % std::min<std::size_t>(w.size() - 1, 40));
    if (kind == 1) trdcomp::head::Store(w.data(), trdcomp::head::kRequestCountAt, 1000 + static_cast<int>(rng() % 1000));
    if (kind == 2)
        for (int i = 0; i < 8; ++i)
            w[trdcomp::head::kRequestLength + rng() % (w.size() - trdcomp::head::kRequestLength)] = static_cast<char>(rng());
    return w;
}

TEST(Wireshark, SummaryLinesSayWhatTheLibrarySays) {
    // tshark's plain output builds no tree: the dissector then restores for
    // the summary alone. One message a frame, behind a prefix, so that each
    // line is one message's.
    std::vector<Message> messages = Golden(true, false);
    for (Message& m : Golden(false, false)) messages.push_back(std::move(m));
    std::mt19937 rng(31);
    for (std::size_t i = 0; i < 60; ++i)
        messages.push_back({"damaged", Damaged(messages[i].wire, static_cast<int>(i % 3), rng)});
    pcap::PcapWriter w;
    std::uint32_t seq = 1000;
    for (const Message& m : messages) {
        const std::vector<char> framed = Stream({m}, 4);
        w.Segment(pcap::kLoopback, kClientPort, pcap::kLoopback, kPort, seq, false, framed.data(), framed.size());
        seq += static_cast<std::uint32_t>(framed.size());
    }
    const auto file = Tshark().Place("summary.pcap", w.Bytes());
    const tshark::Result r = RunTshark({"-r", file.string(), "-d", kDecodeAs, "-o", "trdcomp.frame:u32be"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; at < r.out.size(); at = end + 1) {
        end = std::min(r.out.find('\n', at), r.out.size());
        const std::size_t info = r.out.find(" trdcomp ", at);
        if (info < end) lines.push_back(r.out.substr(r.out.find(' ', info + 9) + 1, end - r.out.find(' ', info + 9) - 1));
    }
    ASSERT_EQ(lines.size(), messages.size());
    int refused = 0;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const std::string want = Summary(messages[i]);
        refused += want.find("refused") != std::string::npos;
        EXPECT_EQ(lines[i], want) << messages[i].name;
    }
    EXPECT_GT(refused, 15);
}

TEST(Wireshark, DamagedMessagesGetTheLibrarysReasonAsExpertItems) {
    // The suite's own damage, framed by a transport prefix so that each
    // damaged message stays one PDU. Every one the library refuses must give
    // one expert item with the library's reason.
    std::mt19937 rng(30);
    std::vector<Message> damaged;
    std::vector<std::string> reasons;
    for (const Message& m : Golden(true, true)) {
        for (int kind = 0; kind < 3; ++kind) {
            std::vector<char> w = Damaged(m.wire, kind, rng);
            try {
                tool::Decode(w, 0);
            } catch (const tool::Refused& e) {
                reasons.push_back(e.what());
            }
            damaged.push_back({m.name, std::move(w)});
        }
    }
    ASSERT_GT(reasons.size(), 100u);
    pcap::PcapWriter w;
    pcap::Connection(w, pcap::kLoopback, kClientPort, pcap::kLoopback, kPort, Stream(damaged, 4), {});
    const auto file = Tshark().Place("damaged.pcap", w.Bytes());
    const tshark::Result r = RunTshark({"-r", file.string(), "-d", kDecodeAs, "-o",
                                        "trdcomp.frame:u32be", "-V", "-Y", "trdcomp"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.find("Dissector bug"), std::string::npos) << r.err;
    std::map<std::string, int> want, got;
    for (const std::string& why : reasons) ++want[Cat({"The library refuses the message: ", why})];
    const std::string mark = "[The library refuses the message: ";
    for (std::size_t at = 0; (at = r.out.find(mark, at)) != std::string::npos;) {
        const std::size_t end = r.out.find(']', at);
        const std::string item = r.out.substr(at + 1, end - at - 1);
        ++got[item];
        at = end;
    }
    EXPECT_EQ(got, want);
}

TEST(Wireshark, MutatedCapturesGiveExpertItemsAndNoDissectorBug) {
    const auto up = Golden(true, true), down = Golden(false, true);
    const auto clean = Tshark().Place("clean.pcap", Capture(up, down, 0, 1460));
    int expert = 0;
    for (const char* seed : {"1", "2", "3"}) {
        SCOPED_TRACE(seed);
        const std::string mutated = (Tshark().Dir() / (std::string("mutated") + seed + ".pcap")).string();
        const tshark::Result e = Tshark().Run(TRDCOMP_EDITCAP, {"-E", "0.02", "--seed", seed, clean.string(), mutated});
        ASSERT_EQ(e.status, 0) << e.err;
        for (const std::vector<std::string>& view : {std::vector<std::string>{"-V"}, std::vector<std::string>{"-T", "json"}}) {
            std::vector<std::string> args = {"-r", mutated, "-d", kDecodeAs};
            args.insert(args.end(), view.begin(), view.end());
            const tshark::Result r = RunTshark(args);
            ASSERT_EQ(r.status, 0) << r.err;
            EXPECT_EQ(r.err.find("Dissector bug"), std::string::npos) << r.err;
            EXPECT_EQ(r.out.find("Dissector bug"), std::string::npos);
        }
        const tshark::Result x = RunTshark({"-r", mutated, "-d", kDecodeAs, "-Y",
                                            "trdcomp.malformed || trdcomp.no_message", "-T", "fields", "-e", "frame.number"});
        ASSERT_EQ(x.status, 0) << x.err;
        expert += static_cast<int>(std::count(x.out.begin(), x.out.end(), '\n'));
    }
    EXPECT_GT(expert, 0) << "2% of the bytes mutated must break some messages";
}
