// The trdcomp tool's subcommands, called directly: every golden message
// decodes field by field and its JSON packs back to the same message (or,
// where the coding dropped information, to one that restores identically
// and is a fixed point), and bad input gets an error that names the problem.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "Message.h"

namespace fs = std::filesystem;

namespace {

std::vector<char> ReadFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The JSON as it crosses a pipe: printed, then parsed.
tool::Json ThroughText(const tool::Json& j) { return tool::Json::parse(j.dump(2)); }

tool::Json Content(const std::vector<char>& wire) {
    tool::Json j = tool::ToJson(tool::Decode(wire, 0));
    j.erase("bytes");
    return j;
}

std::size_t Rows(const catalogue_model::Layout& l) {
    std::size_t n = 0;
    for (const auto& f : l.fields)
        n += 1 + (f.kind == "array" ? f.entries * Rows(catalogue_model::Get().At(f.entry)) : 0);
    return n;
}

std::size_t Count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

std::vector<char> Bytes(std::initializer_list<int> words) {
    std::vector<char> b(4 * words.size());
    std::size_t at = 0;
    for (int w : words) {
        std::memcpy(b.data() + at, &w, 4);
        at += 4;
    }
    return b;
}

}  // namespace

TEST(Tool, EveryGoldenMessageDecodesAndPacksBack) {
    int messages = 0, identical = 0;
    for (const auto& entry : fs::directory_iterator(TRDCOMP_GOLDEN_DIR)) {
        if (entry.path().extension() != ".wire") continue;
        const std::string name = entry.path().stem().string();
        SCOPED_TRACE(name);
        ++messages;
        const std::vector<char> wire = ReadFile(entry.path());
        const tool::Decoded m = tool::Decode(wire, 0);

        // The text table has a row for every field of every record.
        std::ostringstream text;
        tool::PrintText(m, text);
        std::size_t records = 0, rows = 0;
        for (const auto& s : m.sections) {
            ASSERT_NE(s.layout, nullptr) << "a golden message has a codec";
            const std::size_t n = s.records.size() / static_cast<std::size_t>(s.slot);
            records += n;
            rows += n * Rows(*s.layout);
        }
        EXPECT_EQ(Count(text.str(), "\nrecord "), records);
        EXPECT_EQ(Count(text.str(), "\n  ") - Count(text.str(), "\n  offset") - 6 - (m.request ? 0 : 2), rows);

        // decode --json | encode
        const std::vector<char> again = tool::Encode(ThroughText(tool::ToJson(m)), {});
        if (again == wire) {
            ++identical;
            continue;
        }
        // Only the Fast coding drops anything a restore cannot give back (the
        // last character of a text that fills its field).
        EXPECT_NE(m.fastVersion, 0) << "a 2008 message must come back byte for byte";
        EXPECT_EQ(Content(again), Content(wire));
        EXPECT_EQ(tool::Encode(ThroughText(tool::ToJson(tool::Decode(again, 0))), {}), again);
    }
    EXPECT_EQ(messages, 472);
    EXPECT_GT(identical, 280);
}

TEST(Tool, DecodeNamesTheCheckThatFailed) {
    const std::vector<char> answer = ReadFile(fs::path(TRDCOMP_GOLDEN_DIR) / "ans_1110_2008.wire");
    const std::vector<char> request = ReadFile(fs::path(TRDCOMP_GOLDEN_DIR) / "req_1002_2008.wire");
    const std::vector<char> fastAnswer = ReadFile(fs::path(TRDCOMP_GOLDEN_DIR) / "ans_1110_fast.wire");
    auto with = [](std::vector<char> m, std::size_t off, int word) {
        std::memcpy(m.data() + off, &word, 4);
        return m;
    };
    struct Case {
        const char* what;
        std::vector<char> message;
        const char* error;
    };
    const Case cases[] = {
        {"three bytes", {1, 2, 3}, "no head"},
        {"no head length", Bytes({5, 1002, 0}), "head word 0 is 5"},
        {"cut answer", std::vector<char>(answer.begin(), answer.begin() + 90), "head length word says 96"},
        {"request of several arrays", with(request, 8, 3), "flag bit 1"},
        {"request count beyond the message", with(request, 68, 100000), "record count (100000)"},
        {"Fast count unlike the head's", with(fastAnswer, 88, 9), "Fast stream counts"},
        {"raw id with coded records", with(with(request, 4, 4321), 8, 1), "no codec"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        try {
            tool::Decode(c.message, 0);
            ADD_FAILURE() << "accepted";
        } catch (const std::exception& e) {
            EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
        }
    }
}

TEST(Tool, EncodeNamesWhatIsWrong) {
    const std::vector<char> request = ReadFile(fs::path(TRDCOMP_GOLDEN_DIR) / "req_1002_2008.wire");
    const tool::Json good = tool::ToJson(tool::Decode(request, 0));
    auto edit = [&](auto change) {
        tool::Json j = good;
        change(j);
        return j;
    };
    auto record = [](tool::Json& j) -> tool::Json& { return j["sections"][0]["records"][0]; };
    struct Case {
        const char* what;
        tool::Json message;
        const char* error;
    };
    const Case cases[] = {
        {"unknown field", edit([&](tool::Json& j) { record(j)["f4"] = 1; }), "\"f4\" is no field of REQ_1002"},
        {"text too long", edit([&](tool::Json& j) { record(j)["f3"] = std::string(40, 'x'); }), "does not fit in 32"},
        {"char of two letters", edit([&](tool::Json& j) { record(j)["f0"] = "AB"; }), "one character"},
        {"char out of range", edit([&](tool::Json& j) { record(j)["f1"] = 300; }), "out of range"},
        {"bad hex", edit([&](tool::Json& j) { record(j)["f59"] = tool::Json{{"hex", "zz"}}; }), "hex digits"},
        {"no direction", edit([&](tool::Json& j) { j.erase("direction"); }), "--request or --answer"},
        {"bad coding", edit([&](tool::Json& j) { j["coding"] = "fast:0"; }), "fast:V"},
        {"no such layout", edit([&](tool::Json& j) { j["sections"][0]["layout"] = "REQ_4242"; }), "no layout named REQ_4242"},
        {"two arrays in a request", edit([&](tool::Json& j) { j["sections"].push_back(j["sections"][0]); }), "one record array"},
        {"not an object", tool::Json::array(), "JSON object"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        try {
            tool::Encode(c.message, {});
            ADD_FAILURE() << "accepted";
        } catch (const std::exception& e) {
            EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
        }
    }
    // The options override the JSON: the same records as a Fast request of 1003's twin id.
    tool::EncodeOptions o;
    o.fastVersion = 2;
    const std::vector<char> fast = tool::Encode(good, o);
    EXPECT_EQ(tool::Decode(fast, 0).fastVersion, 2);
    EXPECT_EQ(Content(fast)["sections"], Content(request)["sections"]);
}
