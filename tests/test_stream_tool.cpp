// The tool on streams: golden messages back to back, cut by their own
// lengths or a transport prefix as the bytes come in pieces, picked up in
// their middle, across gaps; a pipe fed slowly; the JSON lines and the
// summaries of decode and stats; diff on golden pairs; the origin of every
// Fast field.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "Commands.h"
#include "Input.h"
#include "Message.h"
#include "MessageStream.h"
#include "support/Golden.h"
#include "trdcomp/trdcomp.hpp"

namespace fs = std::filesystem;

namespace {

using golden::Wire;

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

// Every cut of a cutter: its messages (offset and bytes) and its reports
// (kind, offset, bytes), in order.
struct Cuts {
    std::vector<std::pair<std::uint64_t, std::vector<char>>> messages;
    std::vector<std::string> reports;
};
std::string ReportText(const tool::Report& r) {
    return std::string(tool::ReportKindName(r.kind)) + " " + std::to_string(r.offset) + " " + std::to_string(r.bytes);
}
void Drain(tool::StreamCutter& c, Cuts& out) {
    tool::Cut cut;
    while (c.Next(cut)) {
        if (cut.isReport) out.reports.push_back(ReportText(cut.report));
        else out.messages.emplace_back(cut.offset, std::vector<char>(cut.data, cut.data + cut.size));
    }
}
// `stream` pushed in pieces of 1 to 700 bytes, the cuts taken after each.
Cuts CutInPieces(const std::vector<char>& stream, tool::StreamCutter::Options o, std::mt19937& rng) {
    tool::StreamCutter c(o);
    Cuts out;
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t n = std::min<std::size_t>(stream.size() - at, 1 + rng() % 700);
        c.Push(stream.data() + at, n);
        at += n;
        Drain(c, out);
    }
    c.Finish();
    Drain(c, out);
    return out;
}

}  // namespace

TEST(Stream, CutsGoldenMessagesByTheirOwnLengthsAndByTransportPrefixes) {
    const auto requests = Framed(true), answers = Framed(false);
    ASSERT_GT(requests.size(), 100u);
    ASSERT_GT(answers.size(), 200u);
    std::vector<std::vector<char>> all = requests;
    all.insert(all.end(), answers.begin(), answers.end());
    std::mt19937 rng(28);
    struct Case { tool::Frame frame; int width; bool big; };
    for (const Case c : {Case{tool::Frame::message, 0, false}, Case{tool::Frame::u32le, 4, false}, Case{tool::Frame::u32be, 4, true},
                         Case{tool::Frame::u16le, 2, false}, Case{tool::Frame::u16be, 2, true}}) {
        SCOPED_TRACE(c.width);
        std::vector<char> stream;
        std::vector<std::uint64_t> offsets;
        for (const auto& m : all) {
            for (int i = 0; i < c.width; ++i)
                stream.push_back(static_cast<char>(m.size() >> (8 * (c.big ? c.width - 1 - i : i))));
            offsets.push_back(stream.size());
            stream.insert(stream.end(), m.begin(), m.end());
        }
        tool::StreamCutter::Options o;
        o.frame = c.frame;
        const Cuts whole = CutInPieces(stream, o, rng);
        EXPECT_TRUE(whole.reports.empty()) << whole.reports.front();
        ASSERT_EQ(whole.messages.size(), all.size());
        for (std::size_t i = 0; i < all.size(); ++i) {
            ASSERT_EQ(whole.messages[i].second, all[i]) << "message " << i;
            ASSERT_EQ(whole.messages[i].first, offsets[i]) << "message " << i;
        }
        // Cut short: every whole message before the cut, then what is left.
        const Cuts cut = CutInPieces(std::vector<char>(stream.begin(), stream.end() - 3), o, rng);
        EXPECT_EQ(cut.messages.size(), all.size() - 1);
        ASSERT_EQ(cut.reports.size(), 1u);
        EXPECT_EQ(cut.reports[0], "incomplete " + std::to_string(offsets.back() - c.width) + " " +
                                      std::to_string(all.back().size() + c.width - 3));
        // Picked up 50 bytes into the stream: from the first message that
        // frames with the one behind it, the bytes before it reported.
        o.pickup = true;
        o.resync = true;
        const Cuts picked = CutInPieces(std::vector<char>(stream.begin() + 50, stream.end()), o, rng);
        ASSERT_EQ(picked.messages.size(), all.size() - 1);
        EXPECT_EQ(picked.messages[0].second, all[1]);
        ASSERT_EQ(picked.reports.size(), 1u);
        EXPECT_EQ(picked.reports[0], "skipped 0 " + std::to_string(offsets[1] - c.width - 50));
    }
}

// The reports of a stream, each where it belongs among the messages.
TEST(Stream, ReportsWhatCannotBeCutAndGoesOnWhereItCan) {
    const std::vector<char> a = Wire("req_1002_2008"), b = Wire("ans_1110_2008"), c = Wire("ans_1003_fast");
    const std::vector<char> abc = Concat({a, b, c}), garbage(37, '\x11');
    struct Case {
        const char* what;
        std::vector<std::vector<char>> pieces;  // pushed one by one; an empty piece: 25 bytes lost (a gap)
        tool::StreamCutter::Options options;
        std::size_t messages;
        std::vector<std::string> reports;
    };
    tool::StreamCutter::Options stop, resync, tight;
    resync.resync = true;
    tight.maxMessage = 300;
    const std::string at = std::to_string(a.size());
    const Case cases[] = {
        {"bytes that are no message stop a stream", {a, garbage, b}, stop, 1, {"stopped " + at + " " + std::to_string(garbage.size())}},
        {"... or are skipped", {a, garbage, b, c}, resync, 3, {"skipped " + at + " " + std::to_string(garbage.size())}},
        {"a gap inside a message: the message is lost, the next one found",
         {a, std::vector<char>(b.begin(), b.begin() + 100), {}, std::vector<char>(b.begin() + 125, b.end()), c},
         resync,
         2,
         {"skipped " + at + " 100", "gap " + std::to_string(a.size() + 100) + " 25", "skipped " + std::to_string(a.size() + 125) + " " + std::to_string(b.size() - 125)}},
        {"a message longer than the limit is left out", {a, b, c}, tight, 2, {"too_long " + at + " " + std::to_string(b.size())}},
        {"a raw request does not tell its length", {a, [] { std::vector<char> r(80, 0); const int h[] = {76, 777, 0}; std::memcpy(r.data(), h, sizeof h); return r; }()}, stop, 1,
         {"stopped " + at + " 80"}},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        tool::StreamCutter cutter(k.options);
        Cuts got;
        for (const auto& piece : k.pieces) {
            if (piece.empty()) cutter.Gap(25, "");
            else cutter.Push(piece.data(), piece.size());
            Drain(cutter, got);
        }
        cutter.Finish();
        Drain(cutter, got);
        EXPECT_EQ(got.messages.size(), k.messages);
        EXPECT_EQ(got.reports, k.reports);
    }
    // What the cutter holds is the message in progress, not the stream.
    tool::StreamCutter cutter({});
    Cuts got;
    for (int i = 0; i < 2000; ++i) {
        cutter.Push(abc.data(), abc.size());
        Drain(cutter, got);
    }
    EXPECT_EQ(got.messages.size(), 6000u);
    EXPECT_EQ(cutter.Held(), 0u);
}

// A pipe whose writer waits for the first message to come out before it
// writes the second: the reader hands it out before the input ends.
TEST(Stream, APipeFedSlowlyGivesEachMessageAsItsLastByteArrives) {
    const std::vector<char> first = Wire("req_1002_2008"), second = Wire("ans_1110_2008");
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    std::mutex m;
    std::condition_variable seen;
    bool firstOut = false, secondWritten = false;
    std::thread writer([&] {
        // The first message, and only its last byte after a pause.
        (void)!::write(fds[1], first.data(), first.size() - 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        (void)!::write(fds[1], first.data() + first.size() - 1, 1);
        {
            std::unique_lock<std::mutex> lock(m);
            seen.wait_for(lock, std::chrono::seconds(20), [&] { return firstOut; });
            secondWritten = true;
        }
        (void)!::write(fds[1], second.data(), second.size());
        ::close(fds[1]);
    });
    tool::InputFile in;
    std::string error;
    ASSERT_TRUE(in.Open("/dev/fd/" + std::to_string(fds[0]), error)) << error;
    tool::StreamReader reader(in, {});
    tool::Cut cut;
    std::vector<std::vector<char>> got;
    while (reader.Next(cut)) {
        ASSERT_FALSE(cut.isReport) << cut.report.text;
        got.emplace_back(cut.data, cut.data + cut.size);
        std::lock_guard<std::mutex> lock(m);
        if (got.size() == 1) {
            EXPECT_FALSE(secondWritten) << "the first message came out only after the writer went on";
        }
        firstOut = true;
        seen.notify_one();
    }
    writer.join();
    ::close(fds[0]);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], first);
    EXPECT_EQ(got[1], second);
}

// decode --stream --jsonl: each line a JSON document (read by nlohmann-json,
// not a shell tool) holding where the message was found and the message as
// --json describes it; the line packs back to the message. The table and
// the summary beside it.
TEST(Stream, DecodeWritesOneJsonObjectALineThatPacksBack) {
    const auto requests = Framed(true), answers = Framed(false);
    std::vector<std::vector<char>> all(requests.begin(), requests.begin() + 40);
    all.insert(all.end(), answers.begin(), answers.begin() + 40);
    std::vector<char> refused = Wire("req_1002_fast");
    refused[68] = 5;  // its head's count unlike the stream's
    all.push_back(refused);
    const fs::path file = Temp("jsonl.bin");
    Write(file, Concat(all));
    tool::DecodeOptions o;
    o.file = file.string();
    o.stream = true;
    o.jsonl = true;
    std::ostringstream out, err;
    EXPECT_EQ(tool::RunDecode(o, out, err), 1);  // one refused
    EXPECT_EQ(err.str(), "");
    std::istringstream lines(out.str());
    std::string line;
    std::size_t n = 0, offset = 0;
    while (std::getline(lines, line)) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, all.size());
        const tool::Json j = tool::Json::parse(line);  // throws on anything that is not JSON
        EXPECT_EQ(j.at("message"), n + 1);
        EXPECT_EQ(j.at("offset"), offset);
        if (n + 1 == all.size()) {
            EXPECT_EQ(j.at("refused"), "stream count differs from the head's count (function id 1002, fast:1 coding)");
            EXPECT_THROW(tool::EncodeText(line, {}), std::runtime_error);
        } else {
            tool::Json doc = tool::ToJson(tool::Decode(all[n], 0));
            tool::Json members = j;
            members.erase("message"), members.erase("offset"), members.erase("id");
            EXPECT_EQ(members, doc);
            EXPECT_EQ(j.at("id"), doc["head"]["nFuncId"]);
            // (A Fast text that filled its field comes back one character
            // shorter: the message restores the same, in other bytes.)
            tool::Json back = tool::ToJson(tool::Decode(tool::EncodeText(line, {}), 0));
            back.erase("bytes"), doc.erase("bytes");
            EXPECT_EQ(back.dump(), doc.dump());
        }
        offset += all[n].size();
        ++n;
    }
    EXPECT_EQ(n, all.size());

    // The table, and the summary whose columns stay apart.
    o.jsonl = false;
    o.ids = "1002-1003,1110";
    std::ostringstream text;
    EXPECT_EQ(tool::RunDecode(o, text, err), 1);
    const std::string summary = LastLines(text.str(), std::to_string(all.size()) + " messages");
    EXPECT_EQ(summary.substr(0, summary.find('\n')), "81 messages, 9 of them kept by --id/--dir (1 refused)");
    EXPECT_NE(summary.find("  direction  id    coding  messages  refused\n  request    1002  2008           1        0\n"), std::string::npos)
        << summary;
    // A filter that leaves out the first message (and every request).
    o.ids.clear();
    o.dir = "answer";
    for (const bool jsonl : {false, true}) {
        o.jsonl = jsonl;
        std::ostringstream answersOnly;
        EXPECT_EQ(tool::RunDecode(o, answersOnly, err), 0);
        const std::string printed = answersOnly.str();
        if (jsonl) {
            EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 40);
            EXPECT_EQ(printed.rfind("{\"message\":41,", 0), 0u) << printed.substr(0, 100);
        } else {
            EXPECT_NE(printed.find("\n81 messages, 40 of them kept by --id/--dir\n"), std::string::npos);
        }
    }
    fs::remove(file);
}

// stats: the counts per direction, id and coding, the refusals by reason,
// and the same counts whether a message is restored in full or not.
TEST(Stream, StatsCountsEveryMessageAndEveryRefusal) {
    std::vector<char> refused = Wire("req_1002_fast");
    refused[68] = 5;
    std::vector<char> frame(8, 0);  // framed bytes that are no message
    const fs::path file = Temp("stats.bin"), framed = Temp("stats-framed.bin");
    Write(file, Concat({Wire("req_1002_2008"), Wire("req_1002_2008"), Wire("ans_1110_2008"), refused}));
    std::vector<char> prefixed;
    for (const auto& m : {Wire("req_1002_2008"), frame}) {
        const std::uint32_t n = static_cast<std::uint32_t>(m.size());
        prefixed.insert(prefixed.end(), reinterpret_cast<const char*>(&n), reinterpret_cast<const char*>(&n) + 4);
        prefixed.insert(prefixed.end(), m.begin(), m.end());
    }
    Write(framed, prefixed);
    for (const bool strict : {false, true}) {
        SCOPED_TRACE(strict);
        tool::FeedOptions o;
        o.file = file.string();
        o.stream = true;
        o.strict = strict;
        o.progress = false;
        std::ostringstream out, err;
        EXPECT_EQ(tool::RunStats(o, out, err), 1);
        const std::string s = out.str();
        EXPECT_EQ(s.substr(0, s.find('\n')), "4 messages: 1056 bytes coded, 1325 bytes restored (coded/restored 0.80), 9 records, 1 refused");
        EXPECT_NE(s.find("\n  request    1002  2008           2        6    438       650            0.67        0\n"
                         "  request    1002  fast:1         1        0    170         0               -        1\n"
                         "  answer     1110  2008           1        3    448       675            0.66        0\n"),
                  std::string::npos)
            << s;
        EXPECT_NE(s.find("refusals by reason\n  reason                                      refused\n"
                         "  stream count differs from the head's count        1\n"),
                  std::string::npos)
            << s;
    }
    tool::FeedOptions o;
    o.file = framed.string();
    o.frame = "u32le";
    o.progress = false;
    std::ostringstream out, err;
    EXPECT_EQ(tool::RunStats(o, out, err), 1);
    EXPECT_NE(out.str().find("  no message  -     -              1        0      8         0               -        1\n"), std::string::npos) << out.str();
    fs::remove(file);
    fs::remove(framed);
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
