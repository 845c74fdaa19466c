// The word-at-a-time forms that the record engines use, held against the
// byte-by-byte primitives (and their size estimates) and the C library on
// boundary and pseudo-random inputs.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/Text.h"
#include "fastcodec/FastPrimitives.h"

using namespace trdcomp::fast;
namespace d = trdcomp::detail;

namespace {

// Values at every byte-count boundary of both estimators, their
// neighbours and negations, the extremes, and random values of every width.
std::vector<std::int64_t> Values() {
    std::vector<std::int64_t> v = {0, 1, -1, INT64_MAX, INT64_MIN, INT64_MIN + 1};
    for (int bit = 1; bit < 63; ++bit) {
        const std::int64_t p = std::int64_t{1} << bit;
        for (std::int64_t x : {p - 1, p, p + 1}) {
            v.push_back(x);
            v.push_back(-x);
        }
    }
    std::mt19937_64 r(42);
    for (int i = 0; i < 2000; ++i) v.push_back(static_cast<std::int64_t>(r() >> (r() % 64)));
    return v;
}

TEST(WordCoders, WideWritersWriteTheBytesOfThePrimitives) {
    for (const std::int64_t v : Values()) {
        SCOPED_TRACE(v);
        byte a[16], b[16];
        std::memset(a, 0xEE, sizeof a);
        std::memset(b, 0xEE, sizeof b);
        const std::uint32_t n = FastPutInt64(a, v);
        // The bytes read back as v, except for the negative values of
        // magnitude 2^62 or more, whose bit 63 the format drops (FastPutInt64).
        std::int64_t back = 0;
        ASSERT_EQ(GetSignedAt(PtrSource{a}, 0, &back), n);
        if (v > -(std::int64_t{1} << 62)) EXPECT_EQ(back, v);
        ASSERT_EQ(PutInt64Wide(b, v), n);
        ASSERT_EQ(FastSizeInt64(v), n);
        EXPECT_EQ(0, std::memcmp(a, b, n));
        const auto u = static_cast<std::uint64_t>(v);
        const std::uint32_t m = FastPutUInt64(a, u);
        ASSERT_EQ(PutUInt64Wide(b, u), m);
        ASSERT_EQ(FastSizeUInt64(u), m);
        EXPECT_EQ(0, std::memcmp(a, b, m));
    }
}

template <class T>
void ReadBothWays(const byte* p) {
    T slow{}, fast{};
    const std::int64_t k = GetSignedAt(PtrSource{p}, 0, &slow);
    const std::int64_t w = GetWord(p, &fast);
    if (k <= 8) {
        ASSERT_EQ(w, k);
        EXPECT_EQ(fast, slow);
    } else {
        EXPECT_EQ(w, 0);  // left to the byte reader
    }
}

TEST(WordCoders, WordReaderReadsWhatTheByteReaderReads) {
    std::vector<std::vector<byte>> inputs;
    for (const std::int64_t v : Values()) {
        std::vector<byte> b(16, 0x80);
        FastPutInt64(b.data(), v);
        inputs.push_back(b);
    }
    std::mt19937_64 r(7);
    for (int i = 0; i < 3000; ++i) {
        std::vector<byte> b(16);
        for (auto& x : b) x = static_cast<byte>(r() >> 56) & 0x7F;
        b[r() % 12] |= 0x80;  // a stop byte within or past the word
        inputs.push_back(b);
    }
    for (const auto& b : inputs) {
        ReadBothWays<signed char>(b.data());
        ReadBothWays<std::int16_t>(b.data());
        ReadBothWays<std::int32_t>(b.data());
        ReadBothWays<std::int64_t>(b.data());
        std::uint16_t slow = 0, fast = 0;
        const std::int64_t k = GetUInt16At(PtrSource{b.data()}, 0, &slow);
        const std::int64_t w = GetWord<std::uint16_t, false>(b.data(), &fast);
        if (k <= 8) {
            ASSERT_EQ(w, k);
            EXPECT_EQ(fast, slow);
        }
    }
}

// Two records' worth of bytes: the field at `at`, then bytes behind it.
template <std::uint32_t W>
void CompareTexts(std::mt19937_64& r) {
    const char alphabet[] = {'a', 'b', '\0'};
    for (int i = 0; i < 4000; ++i) {
        char a[W + 8], b[W + 8];
        for (std::uint32_t k = 0; k < W + 8; ++k) {
            a[k] = alphabet[r() % (k < W ? 2 : 3)];
            b[k] = r() % 4 ? a[k] : alphabet[r() % 3];
        }
        if (r() % 2) a[r() % W] = '\0';
        if (r() % 2) b[r() % W] = '\0';
        const std::size_t limit = W + r() % 9;
        SCOPED_TRACE(std::string(a, W + 8) + " / " + std::string(b, W + 8));
        EXPECT_EQ(d::TextDiffers<W>(a, b, limit), std::strncmp(a, b, limit) != 0);
        EXPECT_EQ(d::TextLength<W>(a), ::strnlen(a, W));
        EXPECT_EQ(d::BlockDiffers<W>(a, b), std::memcmp(a, b, W) != 0);
        bool any = false;
        for (std::uint32_t k = 0; k < W; ++k) any |= a[k] != 0;
        EXPECT_EQ(d::AnyNonZero<W>(a), any);
    }
}

TEST(WordCoders, TextsCompareAndMeasureAsTheCLibraryDoes) {
    std::mt19937_64 r(99);
    CompareTexts<8>(r);
    CompareTexts<12>(r);
    CompareTexts<16>(r);
    CompareTexts<24>(r);
    CompareTexts<64>(r);
}

TEST(WordCoders, ShortCopiesCopyExactlyTheirBytes) {
    char src[48], dst[64];
    for (int k = 0; k < 48; ++k) src[k] = static_cast<char>('A' + k);
    for (std::size_t n = 0; n <= 40; ++n) {
        std::memset(dst, '.', sizeof dst);
        d::CopyShort(dst + 8, src, n);
        for (std::size_t k = 0; k < sizeof dst; ++k)
            EXPECT_EQ(dst[k], k >= 8 && k < 8 + n ? src[k - 8] : '.') << n << " " << k;
    }
}

}  // namespace
