// Byte format of the KXPfdk value coders (CKXNetCompressHelper).
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "trdcomp/KXNetCompressHelper.h"

using H = CKXNetCompressHelper;
using Bytes = std::vector<unsigned char>;

namespace {

template <class Fn>
Bytes Written(Fn write) {
    std::vector<char> buf(256, '\xEE');
    const int n = write(buf.data());
    return Bytes(buf.begin(), buf.begin() + n);
}

std::vector<char> Chars(const Bytes& b) { return std::vector<char>(b.begin(), b.end()); }

}  // namespace

TEST(KXPfdk, IntegersAreZigzagLeb128) {
    struct Case { long long value; Bytes wire; bool int32; /* also coded by the int coder */ };
    const Case cases[] = {
        {0, {0x00}, true},
        {1, {0x02}, true},
        {-1, {0x01}, true},
        {-3, {0x05}, true},
        {63, {0x7e}, true},
        {64, {0x80, 0x01}, true},
        {-65, {0x81, 0x01}, true},
        {300, {0xd8, 0x04}, true},
        {INT_MAX, {0xfe, 0xff, 0xff, 0xff, 0x0f}, true},
        {INT_MIN, {0xff, 0xff, 0xff, 0xff, 0x0f}, true},
        {1LL << 35, {0x80, 0x80, 0x80, 0x80, 0x80, 0x02}, false},
        {LLONG_MAX, {0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}, false},
        {LLONG_MIN, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        auto in = Chars(c.wire);
        EXPECT_EQ(Written([&](char* p) { return H::NCH_compress_int64(p, c.value); }), c.wire);
        long long back64 = 7;
        EXPECT_EQ(H::NCH_decompress_int64(in.data(), back64), static_cast<int>(c.wire.size()));
        EXPECT_EQ(back64, c.value);
        if (!c.int32) continue;
        EXPECT_EQ(Written([&](char* p) { return H::NCH_compress_int(p, static_cast<int>(c.value)); }), c.wire);
        int back = 7;
        EXPECT_EQ(H::NCH_decompress_int(in.data(), back), static_cast<int>(c.wire.size()));
        EXPECT_EQ(back, c.value);
    }
    // Continuation bits on every byte: the int decoder stops after 5 bytes,
    // the int64 decoder after 10, so a corrupt value cannot run on.
    auto ones = Chars(Bytes(12, 0xff));
    int v32;
    long long v64;
    EXPECT_EQ(H::NCH_decompress_int(ones.data(), v32), 5);
    EXPECT_EQ(H::NCH_decompress_int64(ones.data(), v64), 10);
}

TEST(KXPfdk, StringsAreLengthThenText) {
    EXPECT_EQ(Written([](char* p) { return H::NCH_compress_string(p, ""); }), Bytes({0x00}));
    EXPECT_EQ(Written([](char* p) { return H::NCH_compress_string(p, "AB"); }), Bytes({0x02, 'A', 'B'}));
    Bytes long200(202, 'x');
    long200[0] = 0xc8, long200[1] = 0x01;  // 200
    EXPECT_EQ(Written([](char* p) { return H::NCH_compress_string(p, std::string(200, 'x').c_str()); }), long200);

    // Shorter than max: text and terminator. Max or longer: max bytes, no terminator.
    auto in = Chars({0x06, 'A', 'B', 'C', 'D', 'E', 'F'});
    struct Case { int max; std::string stored; /* what lands in the 8-byte destination */ };
    const Case cases[] = {{8, std::string("ABCDEF\0\x7f", 8)},
                          {7, std::string("ABCDEF\0\x7f", 8)},
                          {6, std::string("ABCDEF\x7f\x7f", 8)},
                          {4, std::string("ABCD\x7f\x7f\x7f\x7f", 8)},
                          {0, std::string(8, '\x7f')}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.max);
        char dest[8];
        std::memset(dest, 0x7f, sizeof dest);
        EXPECT_EQ(H::NCH_decompress_string(in.data(), dest, c.max), 7);
        EXPECT_EQ(std::string(dest, 8), c.stored);
    }
}

TEST(KXPfdk, BlocksDropTrailingZeros) {
    char block[6] = {1, 0, 2, 0, 0, 0}, zeros[4] = {};
    EXPECT_EQ(Written([&](char* p) { return H::NCH_compress_binData(p, block, 6); }), Bytes({0x03, 1, 0, 2}));
    EXPECT_EQ(Written([&](char* p) { return H::NCH_compress_binData(p, zeros, 4); }), Bytes({0x00}));
    // The decoder keeps at most max bytes and skips the rest.
    auto in = Chars({0x03, 1, 0, 2});
    for (const auto& [max, stored] :
         {std::pair{6, std::string("\x01\x00\x02\x55\x55\x55", 6)}, {2, std::string("\x01\x00\x55\x55\x55\x55", 6)}}) {
        char dest[6];
        std::memset(dest, 0x55, sizeof dest);
        int len = -1;
        EXPECT_EQ(H::NCH_decompress_binData(in.data(), dest, max, len), 4);
        EXPECT_EQ(len, 3);
        EXPECT_EQ(std::string(dest, 6), stored) << max;
    }
    // A length of 2^32 - 1 is clamped so that the count returned still fits an int.
    auto huge = Chars({0xff, 0xff, 0xff, 0xff, 0x0f});
    char dest[4] = {};
    int len = 0;
    EXPECT_EQ(H::NCH_decompress_binData(huge.data(), dest, 0, len), INT_MAX);
    EXPECT_EQ(len, INT_MAX - 5);
    EXPECT_EQ(H::NCH_decompress_string(huge.data(), dest, 0), INT_MAX);
}
