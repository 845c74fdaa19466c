// Byte-exact behaviour of the Fast stop-bit primitives, both directions.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "fastcodec/FastPrimitives.h"

using namespace trdcomp::fast;
using Bytes = std::vector<unsigned char>;

namespace {

// A text in a zero-padded field of `width` bytes, as records hold them.
std::string Field(const char* text, std::size_t width) {
    std::string f(text);
    f.resize(width < f.size() ? f.size() : width, '\0');
    return f;
}

template <class Fn>
Bytes Written(Fn write) {
    Bytes buf(64, 0xEE);
    const auto n = write(buf.data());
    buf.resize(n);
    return buf;
}

struct SignedCase {
    std::int64_t value;
    Bytes wire;
    std::int64_t readBack;
};

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
    {-(std::int64_t{1} << 62), {0x40, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80},
     std::int64_t{1} << 62},
};

}  // namespace

TEST(FastPrimitives, SignedWriterAndReaderMatchTheWireTable) {
    for (const auto& c : kSigned) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(Written([&](byte* p) { return FastPutInt64(p, c.value); }), c.wire);
        EXPECT_EQ(FastSizeInt64(c.value), c.wire.size());
        std::int64_t back = 12345;
        EXPECT_EQ(FastGetInt64(c.wire.data(), &back), static_cast<std::int64_t>(c.wire.size()));
        EXPECT_EQ(back, c.readBack);
    }
}

TEST(FastPrimitives, SizesFollowMagnitudeThresholds) {
    // Each step: the largest value of n bytes and the smallest of n + 1, signed
    // (both signs) and unsigned.
    for (std::uint32_t n = 1; n <= 9; ++n) {
        SCOPED_TRACE(n);
        const std::int64_t s = std::int64_t{1} << (7 * n - 1);
        const std::uint64_t u = std::uint64_t{1} << (7 * n);
        const std::pair<std::uint32_t, std::uint32_t> sizes[] = {
            {FastSizeInt64(s - 1), n},  {FastSizeInt64(s), n + 1},  {FastSizeInt64(-(s - 1)), n},
            {FastSizeInt64(-s), n + 1}, {FastSizeUInt64(u - 1), n}, {FastSizeUInt64(u), n + 1}};
        for (const auto& [got, want] : sizes) EXPECT_EQ(got, want);
    }
    EXPECT_EQ(FastSizeUInt64(UINT64_MAX), 10u);
}

TEST(FastPrimitives, UnsignedWriters) {
    // One byte for 64..127 unsigned, where the signed writer needs two.
    const std::pair<std::uint64_t, Bytes> cases[] = {
        {0, {0x80}}, {64, {0xc0}}, {127, {0xff}}, {UINT64_MAX, {0x01, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0xff}}};
    for (const auto& c : cases) EXPECT_EQ(Written([&](byte* p) { return FastPutUInt64(p, c.first); }), c.second) << c.first;
    EXPECT_EQ(Written([](byte* p) { return FastPutUInt16(p, 0xFFFF); }), Bytes({0x03, 0x7f, 0xff}));
}

TEST(FastPrimitives, NarrowReadersKeepTheirWidth) {
    const Bytes minus64 = {0xc0};  // the short coding of -64 is accepted too
    std::int64_t v64;
    EXPECT_EQ(FastGetInt64(minus64.data(), &v64), 1);
    EXPECT_EQ(v64, -64);

    // A character at or above 0x80 travels as a negative number.
    const Bytes c8 = Written([](byte* p) { return FastPutInt8(p, static_cast<signed char>(0xC8)); });
    EXPECT_EQ(c8, Bytes({0xc8}));
    signed char ch = 0;
    EXPECT_EQ(FastGetInt8(c8.data(), &ch), 1);
    EXPECT_EQ(static_cast<unsigned char>(ch), 0xC8);

    std::int16_t s16;
    const Bytes wide = Written([](byte* p) { return FastPutInt64(p, 0x12345); });
    EXPECT_EQ(FastGetInt16(wide.data(), &s16), static_cast<std::int64_t>(wide.size()));
    EXPECT_EQ(s16, static_cast<std::int16_t>(0x2345));

    std::int32_t s32;
    const Bytes neg = Written([](byte* p) { return FastPutInt32(p, INT32_MIN); });
    EXPECT_EQ(FastGetInt32(neg.data(), &s32), 5);
    EXPECT_EQ(s32, INT32_MIN);

    // The unsigned reader ignores the 0x40 sign bit.
    std::uint16_t u16;
    const Bytes u = {0xc0};
    EXPECT_EQ(FastGetUInt16(u.data(), &u16), 1);
    EXPECT_EQ(u16, 64);
}

TEST(FastPrimitives, AsciiStrings) {
    EXPECT_EQ(Written([](byte* p) { return FastPutAscii(p, Field("", 8).c_str(), 8); }), Bytes({0x80}));
    EXPECT_EQ(Written([](byte* p) { return FastPutAscii(p, Field("AB", 8).c_str(), 8); }), Bytes({0x41, 0xc2}));
    EXPECT_EQ(Written([](byte* p) { return FastPutAscii(p, "ABCDEF", 3); }), Bytes({0x41, 0x42, 0xc3}));

    char s[32];
    Bytes empty(16, 0xEE);
    empty[0] = 0x80;
    EXPECT_EQ(FastGetAscii(empty.data(), s, 8), 1);
    EXPECT_STREQ(s, "");
    Bytes ab(16, 0x99);
    ab[0] = 0x41;
    ab[1] = 0xc2;
    EXPECT_EQ(FastGetAscii(ab.data(), s, 8), 2);
    EXPECT_STREQ(s, "AB");
}

TEST(FastPrimitives, FullWidthAsciiKeepsMaxMinusOneAndSearchesFromMax) {
    const std::string full(24, 'X');
    Bytes wire = Written([&](byte* p) { return FastPutAscii(p, full.c_str(), 24); });
    ASSERT_EQ(wire.size(), 24u);
    EXPECT_EQ(wire[23], 'X' | 0x80);

    struct Case {
        Bytes after;
        std::int64_t count;
    };
    // The search starts at offset 24, past the string's own stop byte at 23.
    const Case cases[] = {{{0x81}, 24}, {{0x01, 0x02, 0x83}, 26}};
    for (const auto& c : cases) {
        Bytes in = wire;
        in.insert(in.end(), c.after.begin(), c.after.end());
        char s[32];
        std::memset(s, 'Z', sizeof s);
        EXPECT_EQ(FastGetAscii(in.data(), s, 24), c.count);
        EXPECT_EQ(std::string(s), std::string(23, 'X'));
    }
}

TEST(FastPrimitives, CountedStringsAndBlocks) {
    EXPECT_EQ(Written([](byte* p) { return FastPutString(p, Field("", 8).c_str(), 8); }), Bytes({0x80}));
    EXPECT_EQ(Written([](byte* p) { return FastPutString(p, Field("AB", 8).c_str(), 8); }), Bytes({0x82, 'A', 'B'}));
    EXPECT_EQ(Written([](byte* p) { return FastPutString(p, "ABCDEF", 4); }), Bytes({0x84, 'A', 'B', 'C', 'D'}));
    EXPECT_EQ(Written([](byte* p) { return FastPutString(p, "AB", 0); }), Bytes({0x80}));
    // Bytes of 0x80 and above travel as they are.
    EXPECT_EQ(Written([](byte* p) { return FastPutString(p, Field("\xC8\xFF", 8).c_str(), 8); }), Bytes({0x82, 0xC8, 0xFF}));

    // 32 characters with max 32 are sent whole and read back as 31; the full length is skipped.
    const std::string full(32, 'Q');
    Bytes wire = Written([&](byte* p) { return FastPutString(p, full.c_str(), 32); });
    ASSERT_EQ(wire.size(), 33u);
    char s[40];
    EXPECT_EQ(FastGetString(wire.data(), s, 32), 33);
    EXPECT_EQ(std::string(s), std::string(31, 'Q'));

    // A negative length returns k + L and stores "".
    const Bytes negative = {0xff};
    s[0] = 'x';
    EXPECT_EQ(FastGetString(negative.data(), s, 8), 0);
    EXPECT_STREQ(s, "");

    const unsigned char block[3] = {0x00, 0x80, 0xFF};
    EXPECT_EQ(Written([&](byte* p) { return FastPutBytes(p, block, 3); }), Bytes({0x83, 0x00, 0x80, 0xFF}));
    EXPECT_EQ(Written([&](byte* p) { return FastPutBytes(p, block, 0); }), Bytes({0x80}));
    const Bytes blockWire = {0x83, 0x01, 0x02, 0x03};
    unsigned char dst[4] = {9, 9, 9, 9};
    EXPECT_EQ(FastGetBytes(blockWire.data(), dst, 2), 4);  // copies max, skips L
    EXPECT_EQ(dst[0], 1);
    EXPECT_EQ(dst[1], 2);
    EXPECT_EQ(dst[2], 9);
}

TEST(FastPrimitives, PricesKeepThreeDecimals) {
    struct Case {
        double value;
        Bytes wire;
        double back;
    };
    const Case cases[] = {
        {12.3456, {0x00, 0x60, 0xb9}, 12.345},
        {-0.0004, {0x80}, 0.0},
        {0.0, {0x80}, 0.0},
        {1.0, {0x07, 0xe8}, 1.0},
        {-1.5, {0x74, 0xa5}, -1.499},  // -1499.99995 truncates toward zero
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        Bytes wire = Written([&](byte* p) { return FastPutPrice(p, c.value); });
        EXPECT_EQ(wire, c.wire);
        double back = 99;
        EXPECT_EQ(FastGetPrice(wire.data(), &back), static_cast<std::int64_t>(wire.size()));
        EXPECT_DOUBLE_EQ(back, c.back);
    }
}

TEST(FastPrimitives, DoublesOutsideTheInt64RangeTravelAsInt64Min) {
    const Bytes minWire = Written([](byte* p) { return FastPutInt64(p, INT64_MIN); });
    for (double v : {std::nan(""), std::numeric_limits<double>::infinity(),
                     -std::numeric_limits<double>::infinity(), 1e300, -1e300}) {
        SCOPED_TRACE(v);
        EXPECT_EQ(Written([&](byte* p) { return FastPutPrice(p, v); }), minWire);
    }
}
