// Both record engines over test layouts written in the catalogue's notation:
// one table of framings (bytes on the wire and records restored), the
// and the classic packers inside the caller's buffers. (Damaged messages of
// every layout: the catalogue sweep and the fuzz job; counts beyond the
// message: the refusal table of test_hostile_heads.cpp; the exact Fast
// encoder against the wide one: fuzz_coders.)
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Engine2008.h"
#include "LayoutMacros.h"
#include "FastEngine.h"
#include "support/Messages.h"

#include "engine_layouts.def"

using namespace testmsg;
using Bytes = std::vector<unsigned char>;
using Chars = std::vector<char>;
namespace d = trdcomp::detail;

namespace {

template <class T>
void Put(Chars& rec, int off, T v) {
    std::memcpy(rec.data() + off, &v, sizeof v);
}
void PutText(Chars& rec, int off, const std::string& s) { std::memcpy(rec.data() + off, s.data(), s.size()); }

Chars Concat(std::initializer_list<Chars> parts) {
    Chars all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

Chars Seven(char c0, char c1, int i32, long long i64, double dbl, const std::string& text, char b0, char b1) {
    Chars r(28, 0);
    r[0] = c0, r[1] = c1, r[26] = b0, r[27] = b1;
    Put(r, 2, i32), Put(r, 6, i64), Put(r, 14, dbl), PutText(r, 22, text);
    return r;
}

Chars Order(char c0, char c1, char c2, const std::string& a, const std::string& b, const std::string& c) {
    Chars r(83, 0);
    r[0] = c0, r[1] = c1, r[2] = c2;
    PutText(r, 3, a), PutText(r, 35, b), PutText(r, 59, c);
    return r;
}

// T_COUNTED: the count, three entries "aA", "bB", "cC", the text "end";
// `entries` of them kept, the others zero.
Chars Counted(int count, int entries = 3) {
    Chars r(17, 0);
    Put(r, 0, count);
    for (int e = 0; e < entries; ++e) r[4 + 3 * e] = static_cast<char>('a' + e), r[5 + 3 * e] = static_cast<char>('A' + e);
    PutText(r, 13, "end");
    return r;
}

// T_BLOCK: a block of 1..16 with `len` behind it, `kept` bytes of it kept.
Chars Block(int len, int kept = 16) {
    Chars r(24, 0);
    for (int i = 0; i < kept; ++i) r[static_cast<std::size_t>(i)] = static_cast<char>(i + 1);
    Put(r, 16, len);
    PutText(r, 20, "tx");
    return r;
}

Chars Words(std::initializer_list<std::int32_t> w) {
    Chars r(4 * w.size());
    std::memcpy(r.data(), std::data(w), r.size());
    return r;
}

// A classic call told its capacity, or, with kCapacityUnknown, one that is
// not (the classic PackReq2008's).
constexpr std::int64_t kCapacityUnknown = -1;
d::Call CallFor(std::int64_t cap) { return cap == kCapacityUnknown ? d::ClassicCall() : d::ClassicCall(cap); }

// One layout's request codec in one coding (Fast version or 2008 flag).
struct Codec {
    int size, param;
    bool fast;
    std::function<int(char*, int&, const char*, int, std::int64_t)> pack;
    std::function<int(char*, int, char**, int&)> restore;
    int Flags() const { return fast ? param << 4 : 0; }
};
// A codec over an engine's pack and restore (each taking the call first):
// packs with a classic call told `cap` (or not told one), restores with a
// classic call.
template <class Pack, class Restore>
Codec MakeCodec(std::uint32_t size, int param, bool fast, Pack pack, Restore restore) {
    return {static_cast<int>(size), param, fast,
            [=](char* o, int& n, const char* p, int k, std::int64_t cap) {
                d::Call call = CallFor(cap);
                return pack(call, o, n, p, k);
            },
            [=](char* i, int k, char** o, int& n) {
                d::Call call = d::ClassicCall();
                return restore(call, i, k, o, n);
            }};
}
template <const auto& L>
Codec Fast(int version = 1) {
    return MakeCodec(L.size, version, true, [=](auto&... a) { return trdcomp::fast::PackRequest<L>(a..., version); },
                     [=](auto&... a) { return trdcomp::fast::RestoreRequest<L>(a..., version); });
}
template <const auto& L>
Codec C2008(char flag = 0) {
    return MakeCodec(L.size, flag, false, [=](auto&... a) { return trdcomp::codec2008::PackRequest<L>(a..., flag); },
                     [=](auto&... a) { return trdcomp::codec2008::RestoreRequest<L>(a..., flag); });
}

Chars Head(const Codec& c, int flags, int count) {
    const tagREQ_HEAD head = ReqHead(9000, flags, count, c.size);
    return Chars(reinterpret_cast<const char*>(&head), reinterpret_cast<const char*>(&head) + 76);
}

Chars Pack(const Codec& c, int count, const Chars& data) {
    Chars out = Head(c, c.Flags(), count);
    out.resize(1 << 16);
    int len = 76;
    EXPECT_EQ(c.pack(out.data(), len, data.data(), static_cast<int>(data.size()), kCapacityUnknown), 1);
    out.resize(static_cast<std::size_t>(len));
    return out;
}

void Restore(const Codec& c, Restored& r, const Chars& m) {
    Exact in(m);
    r.rc = c.restore(in.data(), in.size(), &r.p, r.len);
}

// A row of the framing table: records packed by the codec (or, without
// `data`, a message made by hand: a head marked coded, then `body`).
struct Row {
    const char* what;
    Codec codec;
    int count;
    std::optional<Chars> data;
    std::optional<Bytes> body;      // the bytes behind the head
    bool coded;                     // flag bit 0 of the packed message
    std::optional<Chars> restored;  // the bytes from offset 76 (may reach into the decoder's spare bytes)
};

std::vector<Row> FramingRows() {
    const auto first = Order('B', 11, 'x', "ABC", "HELLO", ""), second = Order('B', 12, 'x', "ABC", "HELLO", "Z");
    const auto seven = Seven('a', 0x7f, -5, 300, 1.5, "AB", 1, 0);
    const Bytes seven2008 = {13, 0, 0, 0, 'a', 0x7f, 0x09, 0xd8, 0x04, 0xb0, 0xea, 0x01, 0x02, 'A', 'B', 0x01, 0x01};
    Chars sevenDefaults(28, 0);
    sevenDefaults[1] = 11;
    Chars eight(8, 0);
    eight[7] = 'x';
    Chars gap(12, 'g'), gapKept(12, 0);
    Put(gap, 8, 77);
    gapKept[0] = 'g';
    Put(gapKept, 8, 77);
    Chars late(16, 0);
    PutText(late, 0, "ab");
    PutText(late, 4, "cdefg");
    Put(late, 12, 1);
    auto block2008 = Block(5);
    block2008[22] = 0, block2008[23] = '#';  // byte 23 behind the terminator is not carried
    auto block2008Back = Block(5, 5);
    block2008Back[22] = 0;
    const auto a4 = Seven('a', 'b', -7, -1234567890123LL, -1.5, "xyz", 9, 8), b4 = Seven(0, 0, 0, 0, 1.23456, "full", 0, 0);
    const auto dbl = Seven(0, 11, 0, 0, 1.23456, "", 0, 0), nan = Seven(0, 11, 0, 0, std::nan(""), "", 0, 0);
    std::vector<Row> rows = {
        // ---- Fast ----
        {"fast: count 0 codes the count only", Fast<kT_SEVEN>(), 0, Chars(28, 'x'), Bytes{0x00, 0x00}, true, Chars{}},
        {"fast: delta-coded records, an identical one is its map only", Fast<kT_ORDER>(), 3, Concat({first, second, second}),
         Bytes{0x03, 0x00,                                                       // count
               0x0f, 0x00, 0xde, 0x00, 0xc2, 0x00, 0xf8, 0x83, 'A', 'B', 'C',  // first record
               'H', 'E', 'L', 'L', 'O' | 0x80, 0x80,                            //
               0x04, 0x00, 0xa2, 0x8c, 0x81, 'Z',                               // only what changed
               0x01, 0x00, 0x80},
         true, Concat({first, second, second})},
        {"fast: a first record at the defaults still sends its texts", Fast<kT_ORDER>(), 1, Order('A', 11, 0, "", "", ""),
         Bytes{0x01, 0x00, 0x04, 0x00, 0x8e, 0x80, 0x80, 0x80}, true, Order('A', 11, 0, "", "", "")},
        {"fast: a char off its default 11 is sent, a zero block is not", Fast<kT_SEVEN>(), 1, Chars(28, 0),
         Bytes{0x01, 0x00, 0x03, 0x00, 0xa2, 0x80, 0x80}, true, Chars(28, 0)},
        {"fast: eight fields take two map bytes", Fast<kT_EIGHT>(), 1, eight, Bytes{0x01, 0x00, 0x04, 0x00, 0x00, 0xc0, 0x00, 0xf8},
         true, eight},
        {"fast: a map without stop bit sends nothing", Fast<kT_SEVEN>(), 1, std::nullopt, Bytes{0x01, 0x00, 0x02, 0x00, 0x7f, 0x7f},
         true, sevenDefaults},
        {"fast: full-width texts lose their last character", Fast<kT_ORDER>(), 1, Order('A', 11, 0, std::string(32, 'S'), "", "tail"),
         std::nullopt, true, Order('A', 11, 0, std::string(31, 'S'), "", "tail")},
        {"fast: doubles keep three decimals, NaN always travels (back as 0)", Fast<kT_SEVEN>(), 3, Concat({dbl, nan, nan}),
         Bytes{0x03, 0x00, 0x04, 0x00, 0x86, 0x09, 0xd2, 0x80, 0x0b, 0x00, 0x84, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
               0x00, 0x80, 0x0b, 0x00, 0x84, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80},
         true, Concat({Seven(0, 11, 0, 0, 1.234, "", 0, 0), Seven(0, 11, 0, 0, 0.0, "", 0, 0), Seven(0, 11, 0, 0, 0.0, "", 0, 0)})},
        {"fast: short data travels raw, restored from the message start", Fast<kT_GAP>(), 1, Chars{'r', 'a', 'w', '!', '!'},
         Bytes{'r', 'a', 'w', '!', '!'}, false, Words({76, 9000, 0x10})},
        {"fast: version 0 writes nothing", Fast<kT_SEVEN>(0), 1, seven, Bytes{}, false, std::nullopt},
        {"fast: uncoded bytes are not carried", Fast<kT_GAP>(), 1, gap, std::nullopt, true, gapKept},
        {"fast: a layout without coded fields", Fast<kT_NOTHING>(), 2, Chars{'x', 'y'}, Bytes{2, 0, 0, 0, 0, 0}, true, Chars{0, 0}},
        {"fast: late fields", Fast<kT_LATE>(), 1, late, std::nullopt, true, late},
        // ---- 2008 ----
        {"2008 flag 0: exact bytes", C2008<kT_SEVEN>(0), 1, seven, seven2008, true, seven},
        {"2008 flag 1: an int32 as int64 gives the same bytes", C2008<kT_SEVEN>(1), 1, seven, seven2008, true, seven},
        // ...so each field behind it decodes its neighbour's bytes.
        {"2008 flag 2: the int32 is left out but read back as an int64", C2008<kT_SEVEN>(2), 1, seven,
         Bytes{12, 0, 0, 0, 'a', 0x7f, 0xd8, 0x04, 0xb0, 0xea, 0x01, 0x02, 'A', 'B', 0x01, 0x01}, true,
         Chars{'a', 0x7f, 0x2c, 0x01, 0, 0, static_cast<char>(0x98), 0x3a, 0, 0, 0, 0, 0, 0, 0x2d, 0x43, 0x1c,
               static_cast<char>(0xeb), static_cast<char>(0xe2), 0x36, 0x1a, 0x3f, 'B', 1, 1, 0, 0, 0}},
        {"2008: below one record travels raw", C2008<kT_SEVEN>(), 1, Chars(27, 'q'), Bytes(27, 'q'), false, std::nullopt},
        {"2008: one zero record", C2008<kT_SEVEN>(), 1, Chars(28, 0), Bytes{7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, true, Chars(28, 0)},
        {"2008: no record, still marked coded", C2008<kT_SEVEN>(), 0, Chars(28, 0), Bytes{}, true, Chars{}},
        {"2008: four decimals, the half unit added whatever the sign", C2008<kT_SEVEN>(), 2, Concat({a4, b4}), std::nullopt, true,
         Concat({Seven('a', 'b', -7, -1234567890123LL, -14999 * 0.0001, "xyz", 9, 8), Seven(0, 0, 0, 0, 12346 * 0.0001, "full", 0, 0)})},
        {"2008: a record that ends early leaves the rest zero", C2008<kT_SEVEN>(), 1, std::nullopt,
         Bytes{2, 0, 0, 0, 'a', 'b', 0x09, 0x09}, true, Seven('a', 'b', 0, 0, 0, "", 0, 0)},
        {"2008: a text decoded with a limit past its width", C2008<kT_LIMIT>(), 1, std::nullopt,
         Bytes{13, 0, 0, 0, 11, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 0x02}, true,
         Concat({Chars{'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'}, Words({1})})},
        {"2008: a last text decoded past its record", C2008<kT_TAIL_LIMIT>(), 1, std::nullopt,
         Bytes{12, 0, 0, 0, 0x02, 10, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j'}, true,
         Concat({Words({1}), Chars{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j'}})},
        // A length that ends inside the text: the text decodes from what the
        // record holds, alone or with a next record behind it.
        {"2008: a record cut inside its text", C2008<kT_SEVEN>(), 1, std::nullopt,
         Bytes{8, 0, 0, 0, 'x', 'y', 0x02, 0x04, 0x00, 0x04, 'a', 'b'}, true, Seven('x', 'y', 1, 2, 0, "ab", 0, 0)},
        {"2008: a record cut inside its text, another behind", C2008<kT_SEVEN>(), 2, std::nullopt,
         Bytes{8, 0, 0, 0, 'x', 'y', 0x02, 0x04, 0x00, 0x04, 'a', 'b', 8, 0, 0, 0, 'p', 'q', 0x06, 0x08, 0x00, 0x01, 'z', 0x00}, true,
         Concat({Seven('x', 'y', 1, 2, 0, "ab", 0, 0), Seven('p', 'q', 3, 4, 0, "z", 0, 0)})},
        {"2008: a sized block is limited by its length", C2008<kT_BLOCK>(), 1, block2008, std::nullopt, true, block2008Back},
        {"2008: uncoded bytes are not carried", C2008<kT_GAP>(), 1, gap, std::nullopt, true, gapKept},
        {"2008: a layout without coded fields", C2008<kT_NOTHING>(), 2, Chars{'x', 'y'}, Bytes{0, 0, 0, 0, 0, 0, 0, 0}, true,
         Chars{0, 0}},
        {"2008: late fields are coded last", C2008<kT_LATE>(), 1, late, Bytes{10, 0, 0, 0, 0x02, 0x02, 'a', 'b', 0x05, 'c', 'd', 'e', 'f', 'g'},
         true, late},
    };
    // A counted array: 2008 codes the entries its count names, Fast every entry.
    for (const auto& [count, entries] : {std::pair{5, 3}, {2, 2}, {0, 0}, {-4, 0}}) {
        rows.push_back({"2008: counted array", C2008<kT_COUNTED>(), 1, Counted(count), std::nullopt, true, Counted(count, entries)});
        rows.push_back({"fast: counted array", Fast<kT_COUNTED>(), 1, Counted(count), std::nullopt, true, Counted(count)});
    }
    // 2008 codes the bytes its length names, clamped to 0..16.
    for (const auto& [len, kept] : {std::pair{100, 16}, {16, 16}, {-1, 0}})
        rows.push_back({"2008: sized block", C2008<kT_BLOCK>(), 1, Block(len), std::nullopt, true, Block(len, kept)});
    // A sized block always travels in the Fast coding, its length clamped to 0..16.
    for (const auto& [len, sent] : {std::pair{5, 5}, {16, 16}, {100, 16}, {-1, 16}, {0, 0}}) {
        Bytes body = {0x01, 0x00, 0x00, 0x00, 0xf0, static_cast<unsigned char>(0x80 | sent)};
        for (int i = 1; i <= sent; ++i) body.push_back(static_cast<unsigned char>(i));
        body.push_back(static_cast<unsigned char>(len < 0 ? 0xff : len < 64 ? 0x80 | len : 0));  // the length as sent
        if (len >= 64) body.push_back(static_cast<unsigned char>(0x80 | len));
        body.insert(body.end(), {0x82, 't', 'x'});
        body[2] = static_cast<unsigned char>(body.size() - 4);
        auto back = Block(len, sent);
        rows.push_back({"fast: sized block", Fast<kT_BLOCK>(), 1, Block(len), body, true, back});
    }
    // Text lengths of one byte (-1 here: an empty text, and the cursor moves
    // back over the length, which the block behind reads again) and of two;
    // eight bytes behind the record let the word readers run.
    rows.push_back({"fast: a negative one-byte text length", Fast<kT_SEVEN>(), 1, std::nullopt,
                    Bytes{0x01, 0x00, 0x06, 0x00, 0x93, 0x85, 0xff, 'a', 'b', 'c', 0, 0, 0, 0, 0, 0, 0, 0}, true,
                    Seven(0, 11, 5, 0, 0.0, "", 0, 0)});
    rows.push_back({"fast: a text length in two bytes", Fast<kT_ORDER>(), 1, std::nullopt,
                    Bytes{0x01, 0x00, 0x06, 0x00, 0x88, 0x00, 0x83, 'x', 'y', 'z', 0, 0, 0, 0, 0, 0, 0, 0}, true,
                    Order('A', 11, 0, "xyz", "", "")});
    return rows;
}

}  // namespace

TEST(Framing, WireBytesAndRestoredRecords) {
    for (const Row& row : FramingRows()) {
        SCOPED_TRACE(std::string(row.what) + ", count " + std::to_string(row.count));
        const Codec& c = row.codec;
        Chars m;
        if (row.data) {
            m = Pack(c, row.count, *row.data);
            EXPECT_EQ(Word(m.data(), 8) & 1, row.coded ? 1 : 0);
            if (row.body) {
                EXPECT_EQ(Bytes(m.begin() + 76, m.end()), *row.body);
            }
        } else {
            m = Head(c, c.Flags() | 1, row.count);
            m.insert(m.end(), row.body->begin(), row.body->end());
        }
        if (!row.restored) continue;
        Restored r;
        Restore(c, r, m);
        ASSERT_EQ(r.rc, 1);
        EXPECT_EQ(r.len, 76 + row.count * c.size);
        EXPECT_EQ(Word(r.p, 68), row.count);
        EXPECT_EQ(Word(r.p, 72), c.size);
        EXPECT_EQ(Chars(r.p + 76, r.p + 76 + row.restored->size()), *row.restored);
    }
}

// The classic packers are not told their capacity: records are coded in
// place only where the records still to come prove the room (small Fast
// records by the exact encoder), so a buffer of exactly the message's length
// suffices (AddressSanitizer watches the exact-size blocks) and the bytes are
// those of a call told its capacity. Records that repeat code short, texts
// that change code long. A head count above the records the data holds codes
// those inside it, which restore with the rest of the count zero.
TEST(Framing, ClassicPackersStayInsideTheCallersBuffers) {
    const auto order = [](int i, bool changing) {
        if (!changing) return Order('A', 11, 'x', "SAME", "SAME", "SAME");
        const std::string t(static_cast<std::size_t>(1 + i % 31), static_cast<char>('a' + i % 26));
        return Order('B', static_cast<char>(i), 'y', t, t.substr(0, 23), t.substr(0, 23));
    };
    const auto seven = [](int i, bool) {
        return Seven('a', static_cast<char>(i), -70000 * i, 1LL << (8 * i), 1.25 * i, "abc", 1, 2);
    };
    struct Case {
        Codec codec;
        std::function<Chars(int, bool)> record;
        int records, headCount;
        bool changing;
    };
    const Case cases[] = {
        {Fast<kT_ORDER>(), order, 1, 1, false},  {Fast<kT_ORDER>(), order, 7, 7, false},
        {Fast<kT_ORDER>(), order, 40, 40, false}, {Fast<kT_ORDER>(), order, 40, 40, true},
        {Fast<kT_ORDER>(), order, 12, 30, true},  {Fast<kT_ORDER>(), order, 3, 3, true},
        {Fast<kT_SEVEN>(), seven, 1, 1, true},    {Fast<kT_SEVEN>(), seven, 5, 5, true},
        {Fast<kT_SEVEN>(), seven, 2, 4, true},    {C2008<kT_SEVEN>(), seven, 2, 4, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.codec.size) + "-byte records, " + (c.codec.fast ? "fast, " : "2008, ") +
                     std::to_string(c.records) + " of them, head count " + std::to_string(c.headCount));
        Chars data;
        for (int i = 0; i < c.records; ++i) {
            const Chars r = c.record(i, c.changing);
            data.insert(data.end(), r.begin(), r.end());
        }
        Chars told = Head(c.codec, c.codec.Flags(), c.headCount);
        told.resize(1 << 16);
        int toldLen = 76;
        ASSERT_EQ(c.codec.pack(told.data(), toldLen, data.data(), static_cast<int>(data.size()), 1 << 16), 1);
        told.resize(static_cast<std::size_t>(toldLen));
        Exact out(told), in(data);
        std::memset(out.data() + 76, 0, told.size() - 76);
        int len = 76;
        ASSERT_EQ(c.codec.pack(out.data(), len, in.data(), in.size(), kCapacityUnknown), 1);
        ASSERT_EQ(len, toldLen);
        EXPECT_EQ(Chars(out.data(), out.data() + len), told);
        Restored r;
        Restore(c.codec, r, told);
        ASSERT_EQ(r.rc, 1);
        ASSERT_EQ(r.len, 76 + c.headCount * c.codec.size);
        EXPECT_EQ(Chars(r.p + 76, r.p + 76 + data.size()), data);
        EXPECT_EQ(Chars(r.p + 76 + data.size(), r.p + r.len), Chars(static_cast<std::size_t>(r.len - 76) - data.size(), 0));
    }
}
