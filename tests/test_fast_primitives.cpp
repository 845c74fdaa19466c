// Byte-exact behaviour of the Fast stop-bit primitives, both directions.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "FastPrimitives.h"

using namespace trdcomp::fast;
using Bytes = std::vector<unsigned char>;

namespace {

// A text in a zero-padded field of `width` bytes, as records hold them.
std::string Field(const char* text, std::size_t width) {
    std::string f(text);
    f.resize(width < f.size() ? f.size() : width, '\0');
    return f;
}

Bytes Written(const std::function<std::uint32_t(byte*)>& write) {
    Bytes buf(64, 0xEE);
    buf.resize(write(buf.data()));
    return buf;
}

// A reader on `wire` followed by filler bytes: the count it returns and what it stored.
struct Read {
    std::int64_t count;
    std::string value;
    bool operator==(const Read&) const = default;
};
std::ostream& operator<<(std::ostream& o, const Read& r) { return o << r.count << " \"" << r.value << '"'; }

template <class T>
Read Number(std::int64_t (*get)(const byte*, T*), Bytes wire) {
    wire.resize(wire.size() + 16, 0x99);
    T v{};
    const std::int64_t n = get(wire.data(), &v);
    return {n, std::to_string(v)};
}
Read Text(std::int64_t (*get)(const byte*, char*, int), Bytes wire, int max) {
    wire.resize(wire.size() + 16, 0x99);
    char s[64];
    std::memset(s, 'Z', sizeof s);
    const std::int64_t n = get(wire.data(), s, max);
    return {n, std::string(s, ::strnlen(s, sizeof s))};
}

struct SignedCase { std::int64_t value; Bytes wire; std::int64_t readBack; };

const SignedCase kSigned[] = {
    {0, {0x80}, 0},
    {1, {0x81}, 1},
    {11, {0x8b}, 11},
    {63, {0xbf}, 63},
    {64, {0x00, 0xc0}, 64},
    {65, {0x00, 0xc1}, 65},
    {127, {0x00, 0xff}, 127},
    {128, {0x01, 0x80}, 128},
    {8191, {0x3f, 0xff}, 8191},
    {8192, {0x00, 0x40, 0x80}, 8192},
    {1048576, {0x00, 0x40, 0x00, 0x80}, 1048576},
    {-1, {0xff}, -1},
    {-63, {0xc1}, -63},
    {-64, {0x7f, 0xc0}, -64},
    {-65, {0x7f, 0xbf}, -65},
    {-8192, {0x7f, 0x40, 0x80}, -8192},
    {INT64_MAX, {0x00, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0xff}, INT64_MAX},
    // Bit 63 is cleared on the way out: INT64_MIN reads back as 0, -2^62 as +2^62.
    {INT64_MIN, {0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80}, 0},
    {-(std::int64_t{1} << 62), {0x40, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80}, std::int64_t{1} << 62},
};

}  // namespace

TEST(FastPrimitives, SignedWriterAndReaderMatchTheWireTable) {
    for (const auto& c : kSigned) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(Written([&](byte* p) { return FastPutInt64(p, c.value); }), c.wire);
        EXPECT_EQ(FastSizeInt64(c.value), c.wire.size());
        EXPECT_EQ(Number(FastGetInt64, c.wire), (Read{static_cast<std::int64_t>(c.wire.size()), std::to_string(c.readBack)}));
    }
}

TEST(FastPrimitives, Writers) {
    const unsigned char block[3] = {0x00, 0x80, 0xFF};
    const std::string full24(24, 'X'), full32(32, 'Q');
    Bytes ascii24(23, 'X'), string32(1, 0xa0);
    ascii24.push_back('X' | 0x80);
    string32.insert(string32.end(), 32, 'Q');
    const std::pair<Bytes, Bytes> cases[] = {
        // One byte for 64..127 unsigned, where the signed writer needs two.
        {Written([](byte* p) { return FastPutUInt64(p, 0); }), {0x80}},
        {Written([](byte* p) { return FastPutUInt64(p, 64); }), {0xc0}},
        {Written([](byte* p) { return FastPutUInt64(p, 127); }), {0xff}},
        {Written([](byte* p) { return FastPutUInt64(p, UINT64_MAX); }), {0x01, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0xff}},
        // A character at or above 0x80 travels as a negative number.
        {Written([](byte* p) { return FastPutInt8(p, static_cast<signed char>(0xC8)); }), {0xc8}},
        // Ascii: the last character carries the stop bit, an empty text is 0x80.
        {Written([](byte* p) { return FastPutAscii(p, Field("", 8).c_str(), 8); }), {0x80}},
        {Written([](byte* p) { return FastPutAscii(p, Field("AB", 8).c_str(), 8); }), {0x41, 0xc2}},
        {Written([](byte* p) { return FastPutAscii(p, "ABCDEF", 3); }), {0x41, 0x42, 0xc3}},
        {Written([&](byte* p) { return FastPutAscii(p, full24.c_str(), 24); }), ascii24},
        // Counted strings: length, then the bytes as they are.
        {Written([](byte* p) { return FastPutString(p, Field("", 8).c_str(), 8); }), {0x80}},
        {Written([](byte* p) { return FastPutString(p, Field("AB", 8).c_str(), 8); }), {0x82, 'A', 'B'}},
        {Written([](byte* p) { return FastPutString(p, "ABCDEF", 4); }), {0x84, 'A', 'B', 'C', 'D'}},
        {Written([](byte* p) { return FastPutString(p, "AB", 0); }), {0x80}},
        {Written([](byte* p) { return FastPutString(p, Field("\xC8\xFF", 8).c_str(), 8); }), {0x82, 0xC8, 0xFF}},
        {Written([&](byte* p) { return FastPutString(p, full32.c_str(), 32); }), string32},
        {Written([&](byte* p) { return FastPutBytes(p, block, 3); }), {0x83, 0x00, 0x80, 0xFF}},
        {Written([&](byte* p) { return FastPutBytes(p, block, 0); }), {0x80}},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
}

TEST(FastPrimitives, Readers) {
    Bytes ascii24(23, 'X'), string32(1, 0xa0);
    ascii24.push_back('X' | 0x80);
    string32.insert(string32.end(), 32, 'Q');
    Bytes ascii24More = ascii24;  // stop bytes of later values behind the text
    for (unsigned char b : {0x01, 0x02, 0x83}) ascii24More.push_back(b);
    const std::pair<Read, Read> cases[] = {
        {Number(FastGetInt64, {0xc0}), {1, "-64"}},  // the short coding of -64 is accepted too
        {Number(FastGetInt8, {0xc8}), {1, "-56"}},
        {Number(FastGetInt16, {0x04, 0x46, 0xc5}), {3, std::to_string(std::int16_t{0x2345})}},  // 0x12345 kept to its width
        {Number(FastGetInt32, {0x78, 0x00, 0x00, 0x00, 0x80}), {5, std::to_string(INT32_MIN)}},
        {Number(FastGetUInt16, {0xc0}), {1, "64"}},  // the unsigned reader ignores the 0x40 sign bit
        {Text(FastGetAscii, {0x80}, 8), {1, ""}},
        {Text(FastGetAscii, {0x41, 0xc2}, 8), {2, "AB"}},
        // A full-width text keeps max - 1 characters; the search for its end
        // starts at max, past the text's own stop byte.
        {Text(FastGetAscii, [&] { auto b = ascii24; b.push_back(0x81); return b; }(), 24), {24, std::string(23, 'X')}},
        {Text(FastGetAscii, ascii24More, 24), {26, std::string(23, 'X')}},
        // 32 characters with max 32 are read back as 31; the full length is skipped.
        {Text(FastGetString, string32, 32), {33, std::string(31, 'Q')}},
        {Text(FastGetString, {0xff}, 8), {0, ""}},  // a negative length returns k + L and stores ""
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;

    const Bytes blockWire = {0x83, 0x01, 0x02, 0x03};
    unsigned char dst[4] = {9, 9, 9, 9};
    EXPECT_EQ(FastGetBytes(blockWire.data(), dst, 2), 4);  // copies max, skips L
    EXPECT_EQ(Bytes(dst, dst + 4), Bytes({1, 2, 9, 9}));
}

TEST(FastPrimitives, PricesKeepThreeDecimals) {
    const Bytes int64Min = {0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80};
    struct Case { double value; Bytes wire; double back; };
    const Case cases[] = {
        {12.3456, {0x00, 0x60, 0xb9}, 12.345},
        {-0.0004, {0x80}, 0.0},
        {1.0, {0x07, 0xe8}, 1.0},
        {-1.5, {0x74, 0xa5}, -1.499},  // -1499.99995 truncates toward zero
        // NaN, infinities and values outside the int64 range: INT64_MIN on the wire, read back as 0.
        {std::nan(""), int64Min, 0.0},
        {-std::numeric_limits<double>::infinity(), int64Min, 0.0},
        {1e300, int64Min, 0.0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(Written([&](byte* p) { return FastPutPrice(p, c.value); }), c.wire);
        double back = 99;
        EXPECT_EQ(FastGetPrice(c.wire.data(), &back), static_cast<std::int64_t>(c.wire.size()));
        EXPECT_DOUBLE_EQ(back, c.back);
    }
}

// The record engine's character coders against the general signed ones:
// every character, the same bytes both ways; the exact writer writes
// nothing behind them; and the word reader gives the general reader's
// count and char value for values of one to eight bytes, including longer
// codings of a character (a sender that codes wider values into it).
TEST(FastPrimitives, CharacterCodersMatchTheSignedOnes) {
    for (int i = -128; i <= 127; ++i) {
        const auto v = static_cast<signed char>(i);
        SCOPED_TRACE(i);
        const Bytes general = Written([&](byte* p) { return FastPutInt8(p, v); });
        EXPECT_EQ(Written([&](byte* p) { return PutInt8Wide(p, v); }), general);
        Bytes exact(4, 0xEE);
        ASSERT_EQ(PutInt8Exact(exact.data(), v), general.size());
        EXPECT_EQ(Bytes(exact.begin(), exact.begin() + static_cast<std::ptrdiff_t>(general.size())), general);
        for (std::size_t j = general.size(); j < exact.size(); ++j) EXPECT_EQ(exact[j], 0xEE);
    }
    const std::int64_t values[] = {0,    1,     -1,         63,      -63,       64,        -64,      127,
                                   -128, 128,   -129,       255,     8191,      -8192,     8192,     1000000,
                                   -1000000, 0x12345678, -0x12345678, 0x7FFFFFFFFFFFll, -0x7FFFFFFFFFFFll};
    for (const std::int64_t value : values) {
        SCOPED_TRACE(value);
        Bytes wire = Written([&](byte* p) { return FastPutInt64(p, value); });
        ASSERT_LE(wire.size(), 8u);
        wire.resize(8, 0x00);  // filler without a stop bit behind the value
        signed char general = 0, word = 0;
        const std::int64_t n = FastGetInt8(wire.data(), &general);
        EXPECT_EQ(GetInt8Word(wire.data(), &word), n);
        EXPECT_EQ(word, general);
    }
    // No stop bit among the eight bytes: the word reader leaves it to the bounded one.
    const Bytes none(8, 0x01);
    signed char v = 0;
    EXPECT_EQ(GetInt8Word(none.data(), &v), 0);
}
