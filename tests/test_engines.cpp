// Both record engines over test layouts written in the catalogue's notation:
// exact bytes of the framings, the kept rules of each coding, and hostile
// input (truncated or corrupted messages) restored without a stray access.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "codec2008/Engine2008.h"
#include "common/LayoutMacros.h"
#include "fastcodec/FastEngine.h"
#include "support/Messages.h"

#include "engine_layouts.def"

using namespace testmsg;
using Bytes = std::vector<unsigned char>;
namespace d = trdcomp::detail;

namespace {

template <class T>
void Put(std::vector<char>& rec, int off, T v) {
    std::memcpy(rec.data() + off, &v, sizeof v);
}
void PutText(std::vector<char>& rec, int off, const std::string& s) { std::memcpy(rec.data() + off, s.data(), s.size()); }

// A request message: head (count, size) then the records coded by `pack`.
template <class Pack>
std::vector<char> Request(int flags, int count, int size, const std::vector<char>& data, Pack pack) {
    std::vector<char> out(1 << 16, '\0');
    tagREQ_HEAD head = ReqHead(9000, flags, count, size);
    std::memcpy(out.data(), &head, 76);
    int len = 76;
    pack(out.data(), len, data.data(), static_cast<int>(data.size()));
    out.resize(static_cast<std::size_t>(len));
    return out;
}

Bytes Body(const std::vector<char>& m, std::size_t from = 76) { return Bytes(m.begin() + static_cast<long>(from), m.end()); }

std::vector<char> Concat(std::initializer_list<std::vector<char>> parts) {
    std::vector<char> all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

std::vector<char> Seven(char c0, char c1, int i32, long long i64, double dbl, const std::string& text, char b0, char b1) {
    std::vector<char> r(28, 0);
    r[0] = c0;
    r[1] = c1;
    Put(r, 2, i32);
    Put(r, 6, i64);
    Put(r, 14, dbl);
    PutText(r, 22, text);
    r[26] = b0;
    r[27] = b1;
    return r;
}

std::vector<char> Order(char c0, char c1, char c2, const std::string& a, const std::string& b, const std::string& c) {
    std::vector<char> r(83, 0);
    r[0] = c0;
    r[1] = c1;
    r[2] = c2;
    PutText(r, 3, a);
    PutText(r, 35, b);
    PutText(r, 59, c);
    return r;
}

template <const auto& L>
std::vector<char> FastReq(int count, const std::vector<char>& data, int version = 1) {
    return Request(version << 4, count, static_cast<int>(L.size), data, [&](char* o, int& len, const char* p, int n) {
        trdcomp::fast::PackRequest<L>(o, len, p, n, version);
    });
}

template <const auto& L>
std::vector<char> ReqOf2008(int count, const std::vector<char>& data, char flag = 0) {
    return Request(0, count, static_cast<int>(L.size), data,
                   [&](char* o, int& len, const char* p, int n) { trdcomp::codec2008::PackRequest<L>(o, len, p, n, flag); });
}

template <const auto& L>
void FastRestoreReq(Restored& r, std::vector<char> m, int version = 1) {
    Exact in(m);
    r.rc = trdcomp::fast::RestoreRequest<L>(in.data(), in.size(), &r.p, r.len, version);
}

template <const auto& L>
void Restore2008Req(Restored& r, std::vector<char> m, char flag = 0) {
    Exact in(m);
    r.rc = trdcomp::codec2008::RestoreRequest<L>(in.data(), in.size(), &r.p, r.len, flag);
}

std::vector<char> RecordOf(const Restored& r, int i, int size, int head = 76) {
    return std::vector<char>(r.p + head + i * size, r.p + head + (i + 1) * size);
}

}  // namespace

// ---- layout model: the coding order, checked when this file compiles ----

static_assert(kT_SEVEN.fields.size() == 7);
static_assert(kT_NOTHING.fields.size() == 0);
static_assert(kT_GAP.fields.size() == 2 && kT_GAP.fields[1].offset == 8);
// Late texts go behind the int.
static_assert(kT_LATE.fields[0].offset == 12 && kT_LATE.fields[1].offset == 0 && kT_LATE.fields[2].offset == 4);
// A counted array is its entries' fields, entry by entry.
static_assert(kT_COUNTED.fields.size() == 1 + 3 * 2 + 1);
static_assert(kT_COUNTED.fields[3].offset == 7 && kT_COUNTED.fields[3].entry == 1);
static_assert(kT_COUNTED.countOffset == 0 && kT_COUNTED.countMax == 3);
// A sized block is the block and its length.
static_assert(kT_BLOCK.fields.size() == 3 && kT_BLOCK.fields[1].offset == 16);
static_assert(kT_LIMIT.fields[0].limit == 12 && kT_LIMIT.fields[0].width == 8);

// ---- Fast framing ----

TEST(FastFraming, CountZeroCodesTheCountOnly) {
    const auto m = FastReq<kT_SEVEN>(0, std::vector<char>(28, 'x'));
    EXPECT_EQ(Body(m), Bytes({0x00, 0x00}));
    EXPECT_EQ(Word(m.data(), 8) & 1, 1);
}

TEST(FastFraming, ExactBytesOfDeltaCodedRecords) {
    const auto first = Order('B', 11, 'x', "ABC", "HELLO", "");
    const auto second = Order('B', 12, 'x', "ABC", "HELLO", "Z");
    const auto m = FastReq<kT_ORDER>(3, Concat({first, second, second}));
    const Bytes expected = {0x03, 0x00,                                                       // count
                            0x0f, 0x00, 0xde, 0x00, 0xc2, 0x00, 0xf8, 0x83, 'A', 'B', 'C',  // first record
                            'H', 'E', 'L', 'L', 'O' | 0x80, 0x80,                            //
                            0x04, 0x00, 0xa2, 0x8c, 0x81, 'Z',                               // only what changed
                            0x01, 0x00, 0x80};                                               // identical: map only
    EXPECT_EQ(Body(m), expected);

    Restored r;
    FastRestoreReq<kT_ORDER>(r, m);
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(r.len, 76 + 3 * 83);
    EXPECT_EQ(RecordOf(r, 0, 83), first);
    EXPECT_EQ(RecordOf(r, 1, 83), second);
    EXPECT_EQ(RecordOf(r, 2, 83), second);
    EXPECT_EQ(Word(r.p, 72), 83);
}

TEST(FastFraming, ClassicPackersWriteNothingPastTheMessage) {
    // The classic packers are not told their capacity: records are coded in
    // place only where the records still to come prove the room, so a buffer
    // of exactly the message's length suffices (AddressSanitizer watches the
    // exact-size block). Records that repeat code short; texts that change
    // code long; a head count above the records the data holds stops early.
    const auto repeat = Order('A', 11, 'x', "SAME", "SAME", "SAME");
    const auto change = [](int i) {
        const std::string t(static_cast<std::size_t>(1 + i % 31), static_cast<char>('a' + i % 26));
        return Order('B', static_cast<char>(i), 'y', t, t.substr(0, 23), t.substr(0, 23));
    };
    struct Case {
        int records, headCount;
        bool changing;
    };
    for (const Case c : {Case{1, 1, false}, Case{7, 7, false}, Case{40, 40, false}, Case{40, 40, true},
                         Case{12, 30, true}, Case{3, 3, true}}) {
        SCOPED_TRACE(std::to_string(c.records) + " records, head count " + std::to_string(c.headCount));
        std::vector<char> data;
        for (int i = 0; i < c.records; ++i) {
            const auto r = c.changing ? change(i) : repeat;
            data.insert(data.end(), r.begin(), r.end());
        }
        const auto expected = FastReq<kT_ORDER>(c.headCount, data);
        Exact out(std::vector<char>(expected.size(), 0));
        tagREQ_HEAD head = ReqHead(9000, 0x10, c.headCount, 83);
        std::memcpy(out.data(), &head, 76);
        int len = 76;
        Exact in(data);
        ASSERT_EQ(trdcomp::fast::PackRequest<kT_ORDER>(out.data(), len, in.data(), in.size(), 1), 1);
        ASSERT_EQ(len, static_cast<int>(expected.size()));
        EXPECT_EQ(std::vector<char>(out.data() + 76, out.data() + len), std::vector<char>(expected.begin() + 76, expected.end()));
    }
}

TEST(FastFraming, FirstRecordAtTheDefaultsStillSendsItsTexts) {
    const auto m = FastReq<kT_ORDER>(1, Order('A', 11, 0, "", "", ""));
    EXPECT_EQ(Body(m), Bytes({0x01, 0x00, 0x04, 0x00, 0x8e, 0x80, 0x80, 0x80}));
    // A char that differs from its default 11 is sent; an all-zero block is not.
    const auto z = FastReq<kT_SEVEN>(1, std::vector<char>(28, 0));
    EXPECT_EQ(Body(z), Bytes({0x01, 0x00, 0x03, 0x00, 0xa2, 0x80, 0x80}));
}

TEST(FastFraming, PresenceMapOfEightFieldsTakesTwoBytes) {
    std::vector<char> rec(8, 0);
    rec[7] = 'x';
    const auto m = FastReq<kT_EIGHT>(1, rec);
    EXPECT_EQ(Body(m), Bytes({0x01, 0x00, 0x04, 0x00, 0x00, 0xc0, 0x00, 0xf8}));
    Restored r;
    FastRestoreReq<kT_EIGHT>(r, m);
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(RecordOf(r, 0, 8), rec);
}

TEST(FastFraming, MapWithoutStopBitDecodesAsNothingSent) {
    auto m = FastReq<kT_SEVEN>(1, Seven('a', 'b', 1, 2, 3.0, "x", 1, 2));
    // Replace the record by two bytes without a stop bit.
    m.resize(76 + 2);
    m.insert(m.end(), {0x02, 0x00, 0x7f, 0x7f});
    Restored r;
    FastRestoreReq<kT_SEVEN>(r, m);
    ASSERT_EQ(r.rc, 1);
    std::vector<char> defaults(28, 0);
    defaults[1] = 11;
    EXPECT_EQ(RecordOf(r, 0, 28), defaults);
}

TEST(FastFraming, FullWidthTextsLoseTheirLastCharacter) {
    const std::string full32(32, 'S');
    const auto m = FastReq<kT_ORDER>(1, Order('A', 11, 0, full32, "", "tail"));
    Restored r;
    FastRestoreReq<kT_ORDER>(r, m);
    ASSERT_EQ(r.rc, 1);
    const auto rec = RecordOf(r, 0, 83);
    EXPECT_EQ(std::string(rec.data() + 3), std::string(31, 'S'));
    EXPECT_EQ(std::string(rec.data() + 59), "tail");  // a counted string does not misalign
}

TEST(FastFraming, DoublesKeepThreeDecimalsAndNaNAlwaysTravels) {
    const auto a = Seven(0, 11, 0, 0, 1.23456, "", 0, 0);
    const auto b = Seven(0, 11, 0, 0, std::nan(""), "", 0, 0);
    const auto m = FastReq<kT_SEVEN>(3, Concat({a, b, b}));
    Restored r;
    FastRestoreReq<kT_SEVEN>(r, m);
    ASSERT_EQ(r.rc, 1);
    double v;
    std::memcpy(&v, r.p + 76 + 14, 8);
    EXPECT_DOUBLE_EQ(v, 1.234);
    // The NaN is sent in both records (INT64_MIN on the wire, read back as 0).
    EXPECT_EQ(Body(m).size(), 2u + (2 + 4) + (2 + 1 + 10) + (2 + 1 + 10));
}

TEST(FastFraming, SeveralArraysRefusedOnRequests) {
    auto m = FastReq<kT_SEVEN>(1, Seven(1, 2, 3, 4, 5, "a", 0, 0));
    SetWord(m.data(), 8, Word(m.data(), 8) | 2);
    Restored r;
    FastRestoreReq<kT_SEVEN>(r, m);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.p, nullptr);
}

TEST(FastFraming, ShortDataTravelsRawAndIsRestoredFromTheMessageStart) {
    const std::vector<char> data = {'r', 'a', 'w', '!', '!'};
    const auto m = FastReq<kT_GAP>(1, data);
    ASSERT_EQ(m.size(), 81u);
    EXPECT_EQ(Word(m.data(), 8) & 1, 0);
    EXPECT_EQ(std::string(m.data() + 76, 5), "raw!!");
    Restored r;
    FastRestoreReq<kT_GAP>(r, m);
    ASSERT_EQ(r.rc, 1);
    // Raw records are copied from the message start, head included.
    EXPECT_EQ(RecordOf(r, 0, 12), std::vector<char>(m.begin(), m.begin() + 12));
}

TEST(FastFraming, VersionZeroWritesNothing) {
    const auto m = FastReq<kT_SEVEN>(1, Seven(1, 2, 3, 4, 5, "a", 0, 0), 0);
    EXPECT_EQ(m.size(), 76u);
    EXPECT_EQ(Word(m.data(), 8) & 1, 0);
}

// ---- 2008 framing ----

TEST(Framing2008, ExactBytesAndTheInt32FlagRule) {
    const auto rec = Seven('a', 0x7f, -5, 300, 1.5, "AB", 1, 0);
    const Bytes fields = {'a', 0x7f, 0x09, 0xd8, 0x04, 0xb0, 0xea, 0x01, 0x02, 'A', 'B', 0x01, 0x01};
    Bytes withLen = {13, 0, 0, 0};
    withLen.insert(withLen.end(), fields.begin(), fields.end());
    EXPECT_EQ(Body(ReqOf2008<kT_SEVEN>(1, rec, 0)), withLen);
    EXPECT_EQ(Body(ReqOf2008<kT_SEVEN>(1, rec, 1)), withLen);  // int32 as int64: same zigzag bytes
    // Flag 2: the int32 is left out...
    Bytes noInt = {12, 0, 0, 0, 'a', 0x7f, 0xd8, 0x04, 0xb0, 0xea, 0x01, 0x02, 'A', 'B', 0x01, 0x01};
    const auto m2 = ReqOf2008<kT_SEVEN>(1, rec, 2);
    EXPECT_EQ(Body(m2), noInt);
    // ...while the decoder reads it as an int64, so the record comes back wrong.
    Restored r;
    Restore2008Req<kT_SEVEN>(r, m2, 2);
    ASSERT_EQ(r.rc, 1);
    EXPECT_NE(RecordOf(r, 0, 28), rec);

    Restored ok;
    Restore2008Req<kT_SEVEN>(ok, ReqOf2008<kT_SEVEN>(1, rec, 1), 1);
    EXPECT_EQ(RecordOf(ok, 0, 28), rec);
}

TEST(Framing2008, RawBelowOneRecordCodedFromOne) {
    const auto shortData = ReqOf2008<kT_SEVEN>(1, std::vector<char>(27, 'q'));
    EXPECT_EQ(shortData.size(), 76u + 27);
    EXPECT_EQ(Word(shortData.data(), 8) & 1, 0);
    const auto full = ReqOf2008<kT_SEVEN>(1, std::vector<char>(28, 0));
    EXPECT_EQ(Word(full.data(), 8) & 1, 1);
    const auto none = ReqOf2008<kT_SEVEN>(0, std::vector<char>(28, 0));
    EXPECT_EQ(none.size(), 76u);
    EXPECT_EQ(Word(none.data(), 8) & 1, 1);  // no record, still marked coded

    Restored r;
    Restore2008Req<kT_SEVEN>(r, none);
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(r.len, 76);
    EXPECT_EQ(Word(r.p, 72), 28);
}

TEST(Framing2008, RecordsRoundTripWithFourDecimals) {
    const auto a = Seven('a', 'b', -7, -1234567890123LL, -1.5, "xyz", 9, 8);
    const auto b = Seven(0, 0, 0, 0, 1.23456, "full", 0, 0);  // a text that fills its field
    const auto m = ReqOf2008<kT_SEVEN>(2, Concat({a, b}));
    Restored r;
    Restore2008Req<kT_SEVEN>(r, m);
    ASSERT_EQ(r.rc, 1);
    auto expectA = a;
    Put(expectA, 14, -1.4999);  // the half unit is added before truncation, whatever the sign
    auto got = RecordOf(r, 0, 28);
    double v;
    std::memcpy(&v, got.data() + 14, 8);
    EXPECT_DOUBLE_EQ(v, -1.4999);
    Put(got, 14, -1.4999);
    EXPECT_EQ(got, expectA);
    const auto gotB = RecordOf(r, 1, 28);
    std::memcpy(&v, gotB.data() + 14, 8);
    EXPECT_DOUBLE_EQ(v, 1.2346);
    EXPECT_EQ(std::string(gotB.data() + 22, 4), "full");
}

TEST(Framing2008, RecordThatEndsEarlyLeavesTheRestZero) {
    auto m = Request(1, 1, 28, {}, [](char*, int&, const char*, int) {});
    const Bytes rec = {2, 0, 0, 0, 'a', 'b', 0x09, 0x09};  // L = 2: only the chars
    m.insert(m.end(), rec.begin(), rec.end());
    Restored r;
    Restore2008Req<kT_SEVEN>(r, m);
    ASSERT_EQ(r.rc, 1);
    std::vector<char> expected(28, 0);
    expected[0] = 'a';
    expected[1] = 'b';
    EXPECT_EQ(RecordOf(r, 0, 28), expected);
}

TEST(Framing2008, DecodeLimitsBeyondTheWidthAreKept) {
    // An 11-character text for an 8-byte field decoded with limit 12: the int
    // decoded after it overwrites bytes 8..11.
    auto m = Request(1, 1, 12, {}, [](char*, int&, const char*, int) {});
    const Bytes rec = {13, 0, 0, 0, 11, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 0x02};
    m.insert(m.end(), rec.begin(), rec.end());
    Restored r;
    Restore2008Req<kT_LIMIT>(r, m);
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(std::string(r.p + 76, 8), "ABCDEFGH");
    EXPECT_EQ(Word(r.p, 84), 1);

    // A last text decoded past its record runs into the spare bytes.
    auto t = Request(1, 1, 8, {}, [](char*, int&, const char*, int) {});
    const Bytes tail = {12, 0, 0, 0, 0x02, 10, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j'};
    t.insert(t.end(), tail.begin(), tail.end());
    Restored rt;
    Restore2008Req<kT_TAIL_LIMIT>(rt, t);
    ASSERT_EQ(rt.rc, 1);
    EXPECT_EQ(rt.len, 84);
    EXPECT_EQ(std::string(rt.p + 80, 10), "abcdefghij");
}

TEST(Framing2008, CountedArrayCodesOnlyItsCount) {
    auto rec = [](int count) {
        std::vector<char> r(17, 0);
        Put(r, 0, count);
        for (int e = 0; e < 3; ++e) {
            r[4 + 3 * e] = static_cast<char>('a' + e);
            r[5 + 3 * e] = static_cast<char>('A' + e);
        }
        PutText(r, 13, "end");
        return r;
    };
    struct Case {
        int count;
        int entries;
    };
    for (const Case c : {Case{5, 3}, Case{2, 2}, Case{0, 0}, Case{-4, 0}}) {
        SCOPED_TRACE(c.count);
        const auto m = ReqOf2008<kT_COUNTED>(1, rec(c.count));
        Restored r;
        Restore2008Req<kT_COUNTED>(r, m);
        ASSERT_EQ(r.rc, 1);
        auto expected = rec(c.count);
        for (int e = c.entries; e < 3; ++e) expected[4 + 3 * e] = expected[5 + 3 * e] = 0;
        EXPECT_EQ(RecordOf(r, 0, 17), expected);
        // The Fast coding carries every entry.
        Restored f;
        FastRestoreReq<kT_COUNTED>(f, FastReq<kT_COUNTED>(1, rec(c.count)));
        ASSERT_EQ(f.rc, 1);
        EXPECT_EQ(RecordOf(f, 0, 17), rec(c.count));
    }
}

TEST(Framing2008, SizedBlockIsLimitedByItsLength) {
    std::vector<char> rec(24, '#');
    Put(rec, 16, 5);
    PutText(rec, 20, "tx");
    rec[22] = 0;  // byte 23 behind the terminator is not carried
    Restored r;
    Restore2008Req<kT_BLOCK>(r, ReqOf2008<kT_BLOCK>(1, rec));
    ASSERT_EQ(r.rc, 1);
    auto expected = rec;
    std::fill(expected.begin() + 5, expected.begin() + 16, 0);
    expected[23] = 0;
    EXPECT_EQ(RecordOf(r, 0, 24), expected);
}

TEST(FastFraming, SizedBlockAlwaysTravelsWithClampedLength) {
    struct Case {
        int len;
        int sent;
    };
    for (const Case c : {Case{5, 5}, Case{16, 16}, Case{100, 16}, Case{-1, 16}, Case{0, 0}}) {
        SCOPED_TRACE(c.len);
        std::vector<char> rec(24, 0);
        for (int i = 0; i < 16; ++i) rec[static_cast<std::size_t>(i)] = static_cast<char>(i + 1);
        Put(rec, 16, c.len);
        const auto m = FastReq<kT_BLOCK>(1, rec);
        const Bytes body = Body(m);
        // u16 count, u16 length, map (block, length and text bits), block length byte.
        ASSERT_GT(body.size(), 6u);
        EXPECT_EQ(body[4], 0x80 | 0x40 | 0x20 | 0x10);
        EXPECT_EQ(body[5], 0x80 | c.sent);
        Restored r;
        FastRestoreReq<kT_BLOCK>(r, m);
        ASSERT_EQ(r.rc, 1);
        auto expected = rec;
        for (int i = c.sent; i < 16; ++i) expected[static_cast<std::size_t>(i)] = 0;
        EXPECT_EQ(RecordOf(r, 0, 24), expected);
    }
}

TEST(BothCodings, UncodedBytesAndEmptyLayouts) {
    std::vector<char> gap(12, 'g');
    Put(gap, 8, 77);
    auto expected = gap;
    std::fill(expected.begin() + 1, expected.begin() + 8, 0);
    Restored a, b;
    Restore2008Req<kT_GAP>(a, ReqOf2008<kT_GAP>(1, gap));
    FastRestoreReq<kT_GAP>(b, FastReq<kT_GAP>(1, gap));
    ASSERT_EQ(a.rc, 1);
    ASSERT_EQ(b.rc, 1);
    EXPECT_EQ(RecordOf(a, 0, 12), expected);
    EXPECT_EQ(RecordOf(b, 0, 12), expected);

    // A layout with no coded field codes every record to length 0.
    const std::vector<char> two = {'x', 'y'};
    EXPECT_EQ(Body(ReqOf2008<kT_NOTHING>(2, two)), Bytes({0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Body(FastReq<kT_NOTHING>(2, two)), Bytes({2, 0, 0, 0, 0, 0}));
    Restored n;
    FastRestoreReq<kT_NOTHING>(n, FastReq<kT_NOTHING>(2, two));
    ASSERT_EQ(n.rc, 1);
    EXPECT_EQ(RecordOf(n, 0, 2), std::vector<char>(2, 0));
}

TEST(BothCodings, LateFieldsAreCodedLast) {
    std::vector<char> rec(16, 0);
    PutText(rec, 0, "ab");
    PutText(rec, 4, "cdefg");
    Put(rec, 12, 1);
    const Bytes fields = {0x02, 0x02, 'a', 'b', 0x05, 'c', 'd', 'e', 'f', 'g'};
    Bytes expected = {10, 0, 0, 0};
    expected.insert(expected.end(), fields.begin(), fields.end());
    EXPECT_EQ(Body(ReqOf2008<kT_LATE>(1, rec)), expected);
    Restored r;
    FastRestoreReq<kT_LATE>(r, FastReq<kT_LATE>(1, rec));
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(RecordOf(r, 0, 16), rec);
}
