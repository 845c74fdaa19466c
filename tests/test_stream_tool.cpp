// The tool on streams and captures: golden messages back to back, cut by
// their own lengths or a transport prefix, and a capture the test writes
// itself of TCP segments cut at arbitrary points, reordered and duplicated;
// diff on golden pairs; the origin of every Fast field.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "Commands.h"
#include "Message.h"
#include "Stream.h"
#include "support/Golden.h"
#include "support/PcapWriter.h"
#include "trdcomp/trdcomp.hpp"

namespace fs = std::filesystem;

namespace {

using golden::Wire;
using pcap::PcapWriter;

// Every golden message whose length is in its bytes, requests or answers.
std::vector<std::vector<char>> Framed(bool requests) {
    std::vector<std::vector<char>> out;
    for (const std::string& name : golden::Names()) {
        if ((name.rfind("req_", 0) == 0) != requests) continue;
        std::vector<char> w = Wire(name);
        if (trdcomp::MessageLength({w.data(), w.size()}).status == trdcomp::Framing::complete) out.push_back(w);
    }
    return out;
}

std::vector<char> Concat(const std::vector<std::vector<char>>& messages) {
    std::vector<char> s;
    for (const auto& m : messages) s.insert(s.end(), m.begin(), m.end());
    return s;
}

fs::path Temp(const std::string& name) { return fs::temp_directory_path() / ("trdcomp_test_" + std::to_string(::getpid()) + "_" + name); }

void Write(const fs::path& p, const std::vector<char>& bytes) {
    std::ofstream out(p, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string LastLines(const std::string& text, const std::string& from) { return text.substr(text.rfind(from)); }

// One direction's stream as segments cut at random points, some swapped
// with their neighbour, some sent twice, some retransmitted overlapping,
// some first sent in part and then retransmitted whole.
void Segments(PcapWriter& w, std::uint32_t src, std::uint16_t sport, std::uint32_t dst, std::uint16_t dport,
              const std::vector<char>& stream, std::uint32_t isn, std::mt19937& rng, bool syn) {
    struct Seg { std::size_t at, n; };
    std::vector<Seg> segs;
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t n = std::min<std::size_t>(stream.size() - at, 1 + rng() % 700);
        segs.push_back({at, n});
        at += n;
    }
    for (std::size_t i = 0; i + 1 < segs.size(); i += 3) std::swap(segs[i], segs[i + 1]);  // out of order
    std::vector<Seg> sent;
    for (std::size_t i = 0; i < segs.size(); ++i) {
        if (i % 4 == 1 && segs[i].n > 2) sent.push_back({segs[i].at, segs[i].n / 2});  // cut short, then whole
        sent.push_back(segs[i]);
        if (i % 5 == 0) sent.push_back(segs[i]);                                                       // duplicated
        if (i % 7 == 0 && segs[i].n > 2) sent.push_back({segs[i].at + 1, segs[i].n - 1});              // overlapping
    }
    if (syn) w.Segment(src, sport, dst, dport, isn - 1, true, nullptr, 0);
    for (const Seg& s : sent) w.Segment(src, sport, dst, dport, isn + static_cast<std::uint32_t>(s.at), false, stream.data() + s.at, s.n);
}

}  // namespace

TEST(Stream, CutsGoldenMessagesByTheirOwnLengthsAndByTransportPrefixes) {
    const auto requests = Framed(true), answers = Framed(false);
    ASSERT_GT(requests.size(), 100u);
    ASSERT_GT(answers.size(), 200u);
    std::vector<std::vector<char>> all = requests;
    all.insert(all.end(), answers.begin(), answers.end());
    struct Case { tool::Frame frame; int width; bool big; };
    for (const Case c : {Case{tool::Frame::message, 0, false}, Case{tool::Frame::u32le, 4, false}, Case{tool::Frame::u32be, 4, true},
                         Case{tool::Frame::u16le, 2, false}, Case{tool::Frame::u16be, 2, true}}) {
        std::vector<char> stream;
        for (const auto& m : all) {
            for (int i = 0; i < c.width; ++i)
                stream.push_back(static_cast<char>(m.size() >> (8 * (c.big ? c.width - 1 - i : i))));
            stream.insert(stream.end(), m.begin(), m.end());
        }
        const tool::Pieces p = tool::CutStream(stream.data(), stream.size(), c.frame);
        EXPECT_EQ(p.problem, "");
        ASSERT_EQ(p.messages.size(), all.size());
        for (std::size_t i = 0; i < all.size(); ++i) ASSERT_EQ(p.messages[i].bytes, all[i]) << "message " << i;
        // Cut short anywhere: every whole message before the cut, then a problem.
        const tool::Pieces cut = tool::CutStream(stream.data(), stream.size() - 3, c.frame);
        EXPECT_EQ(cut.messages.size(), all.size() - 1);
        EXPECT_NE(cut.problem.find(c.width ? "only" : "incomplete"), std::string::npos) << cut.problem;
    }
}

TEST(Stream, DecodeStreamCountsEveryMessagePerIdAndDirection) {
    const std::vector<std::vector<char>> messages = {Wire("req_1002_2008"), Wire("ans_1110_2008"), Wire("req_1002_fast"),
                                                     Wire("ans_1003_fast")};
    const fs::path file = Temp("stream.bin");
    Write(file, Concat(messages));
    tool::DecodeOptions o;
    o.file = file.string();
    o.stream = true;
    std::ostringstream out;
    EXPECT_EQ(tool::RunDecode(o, out), 0);
    EXPECT_EQ(LastLines(out.str(), "4 messages"),
              "4 messages\n  answer  1003    1\n  answer  1110    1\n  request 1002    2\n");
    // A raw request cannot be cut by its bytes: the tool says to name the prefix.
    std::vector<char> raw(80, 0);
    const int head[] = {76, 777, 0};
    std::memcpy(raw.data(), head, sizeof head);
    Write(file, raw);
    std::ostringstream refused;
    EXPECT_EQ(tool::RunDecode(o, refused), 1);
    EXPECT_NE(refused.str().find("--frame"), std::string::npos) << refused.str();
    fs::remove(file);
}

TEST(Pcap, FindsEveryMessageOfBothDirectionsInReorderedDuplicatedSegments) {
#if !TRDCOMP_HAVE_PCAP
    GTEST_SKIP() << "built without libpcap";
#endif
    const auto requests = Framed(true), answers = Framed(false);
    const std::vector<char> up = Concat(requests), down = Concat(answers);
    std::mt19937 rng(15);
    PcapWriter w;
    // Two connections; the second without its SYN and with sequence numbers
    // that wrap around, plus one on another port that --port leaves out,
    // whose segment of bytes 50..99 the capture missed.
    Segments(w, 0x0A000001, 40000, 0x0A000002, 9000, up, 1000, rng, true);
    Segments(w, 0x0A000002, 9000, 0x0A000001, 40000, down, 0xFFFFFF00u, rng, false);
    const std::vector<char> gapped = Concat({Wire("req_1002_2008"), Wire("req_1003_2008")});
    w.Segment(0x0A000003, 41000, 0x0A000002, 9001, 99, true, nullptr, 0);
    w.Segment(0x0A000003, 41000, 0x0A000002, 9001, 100, false, gapped.data(), 50);
    w.Segment(0x0A000003, 41000, 0x0A000002, 9001, 200, false, gapped.data() + 100, gapped.size() - 100);
    const fs::path file = Temp("capture.pcap");
    Write(file, w.Bytes());
    const std::vector<tool::Flow> gap = tool::ReadCapture(file.string(), 9001);
    ASSERT_EQ(gap.size(), 1u);
    EXPECT_EQ(gap[0].bytes, std::vector<char>(gapped.begin(), gapped.begin() + 50));
    EXPECT_EQ(gap[0].problem, "50 bytes missing from the capture at stream offset 50");

    const std::vector<tool::Flow> flows = tool::ReadCapture(file.string(), 9000);
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(flows[0].name, "10.0.0.1:40000 -> 10.0.0.2:9000");
    EXPECT_EQ(flows[0].bytes, up);
    EXPECT_EQ(flows[1].bytes, down);
    EXPECT_EQ(flows[0].problem + flows[1].problem, "");

    tool::DecodeOptions o;
    o.pcap = file.string();
    o.port = 9000;
    std::ostringstream out;
    EXPECT_EQ(tool::RunDecode(o, out), 0);
    const std::string total = std::to_string(requests.size() + answers.size()) + " messages\n";
    EXPECT_NE(out.str().find(total), std::string::npos) << LastLines(out.str(), "== message");
    EXPECT_EQ(out.str().find("refused"), std::string::npos);
    fs::remove(file);
    EXPECT_THROW(tool::ReadCapture(file.string(), 0), std::runtime_error);
}

TEST(Diff, GoldenPairs) {
    // Record 1's char at offset 2 changed.
    tool::Json j = tool::ToJson(tool::Decode(Wire("req_1002_2008"), 0));
    j["sections"][0]["records"][1]["f2"] = "Q";
    const std::vector<char> edited = tool::Encode(j, {});
    struct Case { const char* what; std::vector<char> a, b; int status; std::vector<std::string> lines; };
    const Case cases[] = {
        {"a message and itself", Wire("ans_1110_2008"), Wire("ans_1110_2008"), 0, {"identical messages"}},
        {"one field of one record", Wire("req_1002_2008"), edited, 1,
         {"section 1 record 1 offset 2 (char, 1 byte): ", "-> 'Q' (81)", "1 difference"}},
        {"the same records in the other coding", Wire("req_1002_2008"), Wire("req_1002_fast"), 1, {"head nFlags: 0x1 (coded) -> 0x11 (coded, fast:1)"}},
        {"another id", Wire("ans_1002_2008"), Wire("ans_1003_2008"), 1, {"head nFuncId: 1002 -> 1003", "section 1 layout"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const fs::path a = Temp("a.bin"), b = Temp("b.bin");
        Write(a, c.a);
        Write(b, c.b);
        tool::DiffOptions o;
        o.a = a.string();
        o.b = b.string();
        std::ostringstream out;
        EXPECT_EQ(tool::RunDiff(o, out), c.status);
        for (const std::string& line : c.lines) EXPECT_NE(out.str().find(line), std::string::npos) << out.str();
        fs::remove(a);
        fs::remove(b);
    }
}

TEST(Sent, EveryFastGoldenRecordsOriginsAgreeWithTheRestoredValues) {
    int checked = 0;
    for (const std::string& name : golden::Names()) {
        if (name.find("_fast") == std::string::npos) continue;
        SCOPED_TRACE(name);
        const tool::Decoded m = tool::Decode(Wire(name), 0);
        const auto origins = tool::SentFields(m);
        ASSERT_EQ(origins.size(), m.sections.size());
        for (std::size_t j = 0; j < m.sections.size(); ++j) {
            const tool::Section& s = m.sections[j];
            if (!s.layout || s.count <= 0) continue;
            ASSERT_EQ(origins[j].size(), static_cast<std::size_t>(std::min(s.count, 0xFFFF)));
            for (std::size_t i = 0; i < origins[j].size(); ++i) {
                const char* rec = s.records.data() + i * static_cast<std::size_t>(s.slot);
                for (const auto& [offset, origin] : origins[j][i]) {
                    ASSERT_NE(origin, i == 0 ? tool::Origin::fromPrevious : tool::Origin::fromDefault);
                    if (origin != tool::Origin::fromPrevious) continue;
                    // A field not sent holds the previous record's value.
                    const auto f = std::find_if(s.layout->fields.begin(), s.layout->fields.end(),
                                                [at = offset](const auto& x) { return x.offset == at; });
                    // Inside a counted array, the entry's own fields (the first at the array's offset).
                    int width = f != s.layout->fields.end() ? f->width : 1;
                    if (f != s.layout->fields.end() && f->kind == catalogue_model::FieldKind::Array)
                        width = catalogue_model::Get().At(f->entry).fields.front().width;
                    EXPECT_EQ(std::memcmp(rec + offset, rec - s.slot + offset, static_cast<std::size_t>(width)), 0)
                        << "record " << i << " offset " << offset;
                    ++checked;
                }
            }
        }
    }
    EXPECT_GT(checked, 1000);
    // The table marks the column.
    std::ostringstream out;
    tool::PrintText(tool::Decode(Wire("req_1002_fast"), 0), out, true);
    EXPECT_NE(out.str().find("origin    value"), std::string::npos);
    EXPECT_NE(out.str().find("previous"), std::string::npos);
}
