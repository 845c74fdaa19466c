// The trdcomp tool's subcommands, called directly: every golden message
// decodes field by field and its JSON packs back to the same message (or,
// where the coding dropped information, to one that restores identically
// and is a fixed point), and bad input gets an error that names the problem.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Message.h"
#include "support/Golden.h"

namespace {

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
        n += 1 + (f.kind == catalogue_model::FieldKind::Array ? f.entries * Rows(catalogue_model::Get().At(f.entry)) : 0);
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

// Every golden message: a text row for every field, decode --json | encode
// gives the message back (or, where the Fast coding dropped a text's last
// character, one that restores identically and is a fixed point), and what
// the id determines (layout, record size, count) may be left out. (The
// streamed JSON against the document: fuzz_tool_json.)
TEST(Tool, EveryGoldenMessageDecodesAndPacksBack) {
    int messages = 0, identical = 0, derived = 0;
    for (const std::string& name : golden::Names()) {
        SCOPED_TRACE(name);
        ++messages;
        const std::vector<char> wire = golden::Wire(name);
        const tool::Decoded m = tool::Decode(wire, 0);

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

        tool::Json j = tool::ToJson(m);
        const std::vector<char> again = tool::Encode(ThroughText(j), {});
        if (again == wire) {
            ++identical;
        } else {
            EXPECT_NE(m.fastVersion, 0) << "a 2008 message must come back byte for byte";
            EXPECT_EQ(Content(again), Content(wire));
            EXPECT_EQ(tool::Encode(ThroughText(tool::ToJson(tool::Decode(again, 0))), {}), again);
        }
        bool left = false;
        for (auto& sec : j["sections"]) {
            if (sec["layout"].is_null() || sec["size"] != catalogue_model::Get().At(sec["layout"].get<std::string>()).size) continue;
            sec.erase("layout"), sec.erase("size"), sec.erase("count");
            left = true;
        }
        if (!left) continue;
        if (j["direction"] == "request") j["head"].erase("nRecSize"), j["head"].erase("nRecCount");
        ++derived;
        EXPECT_EQ(tool::Encode(j, {}), again);
    }
    EXPECT_EQ(messages, 472);
    EXPECT_GT(identical, 280);
    EXPECT_GT(derived, 400);
}

// Decode reports the library's own reason for a refusal, and refuses a
// restore beyond --max-bytes (every reason of the library:
// test_hostile_heads.cpp).
TEST(Tool, DecodeNamesTheCheckThatFailed) {
    const std::vector<char> request = golden::Wire("req_1002_2008"), answer = golden::Wire("ans_1110_2008");
    auto with = [](std::vector<char> m, std::size_t off, int word) {
        std::memcpy(m.data() + off, &word, 4);
        return m;
    };
    const std::string restored = std::to_string(tool::Decode(answer, 0).restoredBytes);
    const std::string beyond = "restores to " + restored + " bytes, more than the limit of ";
    struct Case {
        const char* what;
        std::vector<char> message;
        const char* error;  // nullptr: decodes
        std::string maxBytes = tool::kDefaultMaxBytes;
        bool strict = false;
    };
    const Case cases[] = {
        {"three bytes", {1, 2, 3}, "no head"},
        {"no head length", Bytes({5, 1002, 0}), "head word 0 is 5"},
        {"request count beyond the message", with(request, 68, 100000), "record count past what the message can hold"},
        {"Fast request count unlike the head's", with(golden::Wire("req_1002_fast"), 68, 5),
         "stream count differs from the head's count"},
        {"a byte after the last record", [&] { auto m = request; m.push_back(0); return m; }(), nullptr},
        {"strict: a byte after the last record", [&] { auto m = request; m.push_back(0); return m; }(), "trailing bytes",
         tool::kDefaultMaxBytes, true},
        {"a limit of the restored size", answer, nullptr, restored},
        {"no limit", answer, nullptr, "unlimited"},
        {"a limit of 0: none", answer, nullptr, "0"},
        {"one byte below the restored size", answer, beyond.c_str(), std::to_string(std::stoul(restored) - 1)},
        {"a limit of 256", answer, "than the limit of 256 bytes (--max-bytes N raises it", "256"},
        {"a limit that is no size", answer, "expected a number of bytes", "12Q"},
        {"a negative limit", answer, "expected a number of bytes", "-5"},
        {"a limit beyond 64 bits", answer, "expected a number of bytes", "99999999999999G"},
    };
    const std::string file = ::testing::TempDir() + "trdcomp_decode_refusals.bin";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::ofstream(file, std::ios::binary).write(c.message.data(), static_cast<std::streamsize>(c.message.size()));
        tool::DecodeOptions o;
        o.file = file;
        o.maxBytes = c.maxBytes;
        o.strict = c.strict;
        std::ostringstream out;
        try {
            std::ostringstream err;
            EXPECT_EQ(tool::RunDecode(o, out, err), 0);
            EXPECT_EQ(c.error, nullptr) << "decoded";
        } catch (const std::exception& e) {
            ASSERT_NE(c.error, nullptr) << e.what();
            EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
        }
    }
    std::remove(file.c_str());
    EXPECT_EQ(tool::ParseByteLimit("256M"), std::size_t{256} << 20);
    EXPECT_EQ(tool::ParseByteLimit(tool::kDefaultMaxBytes), std::size_t{256} << 20);
    EXPECT_EQ(tool::ByteLimitText(tool::ParseByteLimit("3K")), "3072 bytes (3 KiB)");
    EXPECT_EQ(tool::ByteLimitText(tool::ParseByteLimit("2G")), "2147483648 bytes (2 GiB)");
}

namespace {

tool::Json GoldenJson(const std::string& name) {
    return tool::ToJson(tool::Decode(golden::Wire(name), 0));
}

std::string EncodeError(const tool::Json& j, const tool::EncodeOptions& o = {}) {
    try {
        tool::Encode(j, o);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "accepted";
}

// A raw answer of function id 4321: two arrays (a section table), records of 4 and 2 bytes.
tool::Json RawAnswer() {
    return tool::Json::parse(R"({"direction": "answer", "coding": "2008", "head": {"nFuncId": 4321}, "arrays": 2,
        "sections": [{"layout": null, "count": 2, "size": 4, "records": ["01020304", "05060708"]},
                     {"layout": null, "count": 1, "size": 2, "records": ["0a0b"]}]})");
}

}  // namespace

TEST(Tool, EncodeRefusesJsonThatCannotBeRight) {
    const tool::Json request = GoldenJson("req_1002_2008"), answer = GoldenJson("ans_1110_2008");
    auto edit = [](tool::Json j, auto change) {
        change(j);
        return j;
    };
    auto record = [&](auto change) { return edit(request, [&](tool::Json& j) { change(j["sections"][0]["records"][0]); }); };
    tool::EncodeOptions otherId;
    otherId.id = 1003;
    struct Case { const char* what; tool::Json message; tool::EncodeOptions options; const char* error; };
    const Case cases[] = {
        {"unknown field", record([](tool::Json& r) { r["f4"] = 1; }), {}, "\"f4\" is no field of REQ_1002"},
        {"text too long", record([](tool::Json& r) { r["f3"] = std::string(40, 'x'); }), {}, "does not fit in 32"},
        {"char of two letters", record([](tool::Json& r) { r["f0"] = "AB"; }), {}, "one character"},
        {"char out of range", record([](tool::Json& r) { r["f1"] = 300; }), {}, "out of range"},
        {"bad hex", record([](tool::Json& r) { r["f59"] = tool::Json{{"hex", "zz"}}; }), {}, "hex digits"},
        {"no direction", edit(request, [](tool::Json& j) { j.erase("direction"); }), {}, "--request or --answer"},
        {"bad coding", edit(request, [](tool::Json& j) { j["coding"] = "fast:0"; }), {}, "fast:V"},
        {"no such layout", edit(request, [](tool::Json& j) { j["sections"][0]["layout"] = "REQ_4242"; }), {},
         "no layout named REQ_4242"},
        {"two arrays in a request", edit(request, [](tool::Json& j) { j["sections"].push_back(j["sections"][0]); }), {},
         "one record array"},
        {"not an object", tool::Json::array(), {}, "JSON object"},
        {"no function id", edit(request, [](tool::Json& j) { j["head"].erase("nFuncId"); }), {}, "head has no nFuncId"},
        {"records for an id that sends the head alone",
         edit(RawAnswer(), [](tool::Json& j) { j["head"]["nFuncId"] = 1017, j["arrays"] = 1, j["sections"].erase(1); }), {},
         "function id 1017 in the 2008 coding sends the head alone"},
        {"answer count beyond its records", edit(answer, [](tool::Json& j) { j["sections"][0]["count"] = 100; }), {},
         "count is 100 but it lists 3 records"},
        {"request count beyond its records",
         edit(request, [](tool::Json& j) { j["head"]["nRecCount"] = j["sections"][0]["count"] = 9; }), {}, "count is 9 but it lists 3"},
        {"head count unlike the section's", edit(request, [](tool::Json& j) { j["head"]["nRecCount"] = 2; }), {},
         "differ from section 1's count and size (3, 83)"},
        {"fewer records than counted by none", edit(answer, [](tool::Json& j) { j["sections"][0]["count"] = -1; }), {},
         "count is -1 but it lists 3 records"},
        {"an answer's head record size negative", edit(answer, [](tool::Json& j) { j.erase("sections"), j["head"]["nRecSize"] = -28; }),
         {}, "head: the record size is negative (-28)"},
        {"an answer's head count without records",
         edit(answer, [](tool::Json& j) { j.erase("sections"), j["head"]["nRecCount"] = 5; }), {}, "lists no records"},
        {"raw records without a size", edit(RawAnswer(), [](tool::Json& j) { j["sections"][0].erase("size"); }), {},
         "section 1 lists 2 records but no record size"},
        {"a record size below the codec's layout", edit(answer, [](tool::Json& j) { j["sections"][0]["size"] = 192; }), {},
         "section 1: a record size of 192 is less than ANS_1110's 193 bytes"},
        {"raw record longer than its size", edit(RawAnswer(), [](tool::Json& j) { j["sections"][1]["records"][0] = "0a0b0c"; }), {},
         "section 2 record 0 has 3 bytes, more than the record size (2)"},
        {"--id of another layout", request, otherId, "holds REQ_1002 records, but function id 1003 in the 2008 coding packs REQ_1003"},
        {"a record size of 2 GiB", edit(request, [](tool::Json& j) { j["head"]["nRecSize"] = j["sections"][0]["size"] = 2147483647; }),
         {}, "a record size of 2147483647 bytes is more than encode packs (at most 1048576 bytes (1 MiB) a record)"},
        {"records of 300 MiB",
         edit(answer, [](tool::Json& j) {
             j["sections"][0]["size"] = 1 << 20;
             j["sections"][0]["count"] = 300;
             j["sections"][0]["records"] = tool::Json(std::vector<tool::Json>(300, tool::Json::object()));
         }),
         {}, "more than encode packs (at most 268435456 bytes (256 MiB))"},
        {"several raw arrays in the Fast coding", edit(RawAnswer(), [](tool::Json& j) { j["coding"] = "fast:2"; }), {},
         "raw answers in the Fast coding carry no section table"},
        {"more arrays than the codec packs", edit(answer, [](tool::Json& j) { j["arrays"] = 8; }), {},
         "\"arrays\" is 8, but function id 1110 in the 2008 coding packs 1 record array"},
        {"fewer arrays than sections", edit(RawAnswer(), [](tool::Json& j) { j["arrays"] = 1; }), {}, "\"arrays\" is 1"},
        {"a request head the restore refuses", edit(request, [](tool::Json& j) { j["head"]["nFlags"] = 3; }), {},
         "the message would not restore: request head says several record arrays"},
        {"a layout that is no name", edit(request, [](tool::Json& j) { j["sections"][0]["layout"] = 7; }), {},
         "\"layout\" must be a layout's name"},
        {"a count that is no integer", edit(answer, [](tool::Json& j) { j["sections"][0]["count"] = "3"; }), {},
         "section 1: \"count\" must be an integer"},
        // Every key is one a message has, or it is named with the nearest that is.
        {"a misspelt key of the message", edit(request, [](tool::Json& j) { j["sektions"] = j["sections"], j.erase("sections"); }), {},
         "\"sektions\" is no key of a message: the nearest is \"sections\""},
        {"a misspelt key of a section", edit(request, [](tool::Json& j) { j["sections"][0]["recrods"] = 1; }), {},
         "section 1: \"recrods\" is no key of a section: the nearest is \"records\""},
        {"a misspelt key of the head", edit(request, [](tool::Json& j) { j["head"]["nFlag"] = 1; }), {},
         "\"nFlag\" is no key of the head: the nearest is \"nFlags\""},
        {"a field a record does not have", record([](tool::Json& r) { r["f36"] = "x"; }), {},
         "section 1 record 0: \"f36\" is no field of REQ_1002: the nearest is \"f3\""},
        {"a misspelt key of a text's value", record([](tool::Json& r) { r["f3"] = tool::Json{{"hx", "00"}}; }), {},
         "\"hx\" is no key of a value of field f3: the nearest is \"hex\""},
        {"a list where a field takes one value", record([](tool::Json& r) { r["f1"] = tool::Json::array({1}); }), {},
         "field f1 (char) takes no list"},
        {"a list where the message has a value", edit(request, [](tool::Json& j) { j["coding"] = tool::Json::array(); }), {},
         "\"coding\" must be a single value, not a list"},
        // Words the heads hold in 32 bits.
        {"a count of 2^31", edit(answer, [](tool::Json& j) { j["sections"][0]["count"] = 2147483648u; }), {},
         "section 1: \"count\" is 2147483648, out of range of a 32-bit word"},
        {"a user word beyond 32 bits", edit(request, [](tool::Json& j) { j["head"]["nUser"][3] = 4294967296ll; }), {},
         "head nUser[3] is 4294967296, out of range of a 32-bit word"},
        // What the library refuses, in its own words.
        {"more records than a Fast array counts",
         edit(request, [](tool::Json& j) {
             j["coding"] = "fast:1";
             j["head"].erase("nRecCount");
             j["sections"][0]["records"] = tool::Json(std::vector<tool::Json>(70000, tool::Json::object()));
             j["sections"][0].erase("count");
         }),
         {}, "section 1 lists 70000 records: too many records for the Fast coding (65535 per array)"},
        {"a byte the Fast coding's ascii field cannot carry",
         edit(request, [](tool::Json& j) { j["coding"] = "fast:1", j["sections"][0]["records"][0]["f35"] = "Z\xc3\xbcrich"; }), {},
         "REQ_1002 field f35 (ascii, 24 bytes): byte 1 is 0xc3, which the Fast coding cannot carry"},
        {"a line of a refused message", edit(request, [](tool::Json& j) { j["refused"] = "negative record count"; }), {},
         "the message was refused when it was decoded (negative record count)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string error = EncodeError(c.message, c.options);
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    // Nesting no message has, and keys by the hundred thousand, are refused
    // where they stand.
    const std::string nested = std::string(150000, '[') + std::string(150000, ']');
    const std::string deep = R"({"direction": "request", "sections": [{"records": [)" + nested + "]}]}";
    std::string keys = R"({"direction": "request", "head": {"nFuncId": 1002}, "coding": "2008", "sections": [{"records": [{"f0": 1)";
    for (int i = 0; i < 100000; ++i) keys += ",\"k" + std::to_string(i) + "\": 1";
    keys += "}]}]}";
    for (const auto& [text, error] : {std::pair{nested, "the input must be a JSON object"},
                                      std::pair{deep, "the JSON nests deeper than 64 levels"},
                                      std::pair{keys, "section 1 record 0: \"k0\" is no field of REQ_1002"}}) {
        try {
            tool::EncodeText(text, {});
            ADD_FAILURE() << "accepted " << error;
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(error), std::string::npos) << e.what();
        }
    }
    // --classic packs the byte as the classic members do: the field behind
    // it is garbled on restore, which is why it must be asked for.
    tool::EncodeOptions classic;
    classic.classic = true;
    tool::Json zurich = edit(request, [](tool::Json& j) { j["coding"] = "fast:1", j["sections"][0]["records"][0]["f35"] = "Z\xc3\xbcrich"; });
    const tool::Json back = tool::ToJson(tool::Decode(tool::Encode(zurich, classic), 0));
    EXPECT_NE(back["sections"][0]["records"][0]["f35"], zurich["sections"][0]["records"][0]["f35"]);
    EXPECT_NE(back["sections"][0]["records"][0]["f59"], zurich["sections"][0]["records"][0]["f59"]);

    // The options override the JSON: the same records as a Fast request.
    tool::EncodeOptions o;
    o.fastVersion = 2;
    const std::vector<char> fast = tool::Encode(request, o);
    EXPECT_EQ(tool::Decode(fast, 0).fastVersion, 2);
    EXPECT_EQ(Content(fast)["sections"], Content(golden::Wire("req_1002_2008"))["sections"]);
}

// Messages with bytes behind their records (raw) or behind their end
// (coded) come back byte for byte.
TEST(Tool, MessagesKeepTheirTrailingBytes) {
    tool::Json oneArray = RawAnswer();
    oneArray["arrays"] = 1;
    oneArray["sections"].erase(1);
    tool::Json fast = oneArray;
    fast["coding"] = "fast:1";
    const tool::Json request = tool::Json::parse(R"({"direction": "request", "coding": "2008", "head": {"nFuncId": 4321},
        "sections": [{"layout": null, "size": 3, "records": ["aabbcc"]}]})");
    const tool::Json noRecords = tool::Json::parse(R"({"direction": "answer", "coding": "2008", "head": {"nFuncId": 4321}, "arrays": 2})");
    const std::vector<char> behind = {'\x7f', 0, '\x01'};
    for (const tool::Json& j : {RawAnswer(), oneArray, fast, request, noRecords, GoldenJson("req_1002_2008"), GoldenJson("ans_1003_fast")}) {
        SCOPED_TRACE(j.dump());
        std::vector<char> wire = tool::Encode(j, {});
        wire.insert(wire.end(), behind.begin(), behind.end());
        const tool::Decoded m = tool::Decode(wire, 0);
        EXPECT_EQ(m.trailing, behind);
        EXPECT_EQ(tool::Encode(ThroughText(tool::ToJson(m)), {}), wire);
    }
}
