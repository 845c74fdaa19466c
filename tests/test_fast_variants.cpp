// The Fast record coders come in variants that must not be told apart on the
// wire or in a restored record: the coders built for BMI2 (chosen at run time
// where the processor has it) against the portable ones, and a chunk's fields
// read by their stop bits against the general reader. Each pair runs on the
// same records and the same bytes: chains the encoder wrote, and the same
// chains damaged (bytes changed, stop bits moved, the message cut short).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "FastEngine.h"
#include "LayoutMacros.h"

#include "engine_layouts.def"
#define TRD_REQ_LAYOUT_IDS(...)
#include "answer_layouts.def"
#include "request_layouts.def"

namespace f = trdcomp::fast;
using trdcomp::model::FastKind;
using trdcomp::model::Field;

namespace {

using Bytes = std::vector<unsigned char>;

// Records of layout L, each the one before with some fields changed: values
// of every magnitude and sign, doubles that are prices and doubles that are
// not (NaN, -0.0, out of range), texts of every length, bytes at and above
// 0x80 in counted texts and blocks.
template <const auto& L>
std::vector<char> Records(std::mt19937_64& rng, int count, double change) {
    std::vector<char> all(static_cast<std::size_t>(count) * L.size, 0);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    auto bits = [&](int most) {
        const int width = static_cast<int>(rng() % static_cast<unsigned>(most + 1));
        const std::uint64_t v = width == 0 ? 0 : rng() >> (64 - width);
        return rng() % 2 ? v : 0 - v;
    };
    for (int i = 0; i < count; ++i) {
        char* rec = all.data() + static_cast<std::size_t>(i) * L.size;
        if (i > 0) std::memcpy(rec, rec - L.size, L.size);
        for (const Field& fd : L.fields) {
            if (unit(rng) >= change) continue;
            char* c = rec + fd.offset;
            switch (fd.fast) {
                case FastKind::Char: *c = static_cast<char>(rng()); break;
                case FastKind::Int:
                case FastKind::BlockLength: {
                    // A block's length mostly within its block, sometimes not.
                    const auto v = static_cast<std::int32_t>(fd.fast == FastKind::BlockLength && rng() % 4
                                                                  ? rng() % 20
                                                                  : bits(32));
                    std::memcpy(c, &v, 4);
                    break;
                }
                case FastKind::Int64: {
                    const std::uint64_t v = bits(64);
                    std::memcpy(c, &v, 8);
                    break;
                }
                case FastKind::Double: {
                    double v;
                    switch (rng() % 8) {
                        case 0: v = std::numeric_limits<double>::quiet_NaN(); break;
                        case 1: v = -0.0; break;
                        case 2: v = 1e300 * (rng() % 2 ? 1 : -1); break;
                        case 3: {
                            const std::uint64_t b = rng();
                            std::memcpy(&v, &b, 8);
                            break;
                        }
                        default: v = static_cast<double>(static_cast<std::int64_t>(bits(50))) / 1000.0;
                    }
                    std::memcpy(c, &v, 8);
                    break;
                }
                case FastKind::String:
                case FastKind::Ascii:
                case FastKind::Bytes:
                case FastKind::SizedBlock: {
                    std::memset(c, 0, fd.width);
                    const std::uint32_t n = static_cast<std::uint32_t>(rng() % (fd.width + 1));
                    const bool high = fd.fast != FastKind::Ascii || rng() % 16 == 0;
                    for (std::uint32_t k = 0; k < n; ++k) {
                        const auto b = static_cast<unsigned char>(rng());
                        c[k] = static_cast<char>(high ? b : (b % 95) + 32);
                    }
                    break;
                }
            }
        }
    }
    return all;
}

// The chain of records as the run encoder writes it (a u16 length, then the
// record), by the coder chosen.
template <const auto& L, bool kBmi2>
Bytes Encode(const std::vector<char>& records, int count) {
    using Coder = f::RecordCoder<L, kBmi2>;
    Bytes out;
    std::vector<char> dst(Coder::kMaxRecord + Coder::kSlack);
    const char* prev = nullptr;
    for (int i = 0; i < count; ++i) {
        const char* rec = records.data() + static_cast<std::size_t>(i) * L.size;
        const auto n = static_cast<std::size_t>(Coder::Encode(rec, prev, dst.data()));
        out.push_back(static_cast<unsigned char>(n & 0xFF));
        out.push_back(static_cast<unsigned char>(n >> 8));
        out.insert(out.end(), dst.begin(), dst.begin() + static_cast<std::ptrdiff_t>(n));
        prev = rec;
    }
    return out;
}

// The exact encoder (the last record of a classic call) of one record.
template <const auto& L, bool kBmi2>
Bytes EncodeExact(const char* rec, const char* prev) {
    std::vector<unsigned char> dst(f::MaxRecord<L>() + 16, 0xA5);
    const auto n = static_cast<std::size_t>(f::RecordCoder<L, kBmi2>::EncodeExact(rec, prev, reinterpret_cast<char*>(dst.data())));
    return Bytes(dst.begin(), dst.begin() + static_cast<std::ptrdiff_t>(n));
}

struct Decoded {
    std::int64_t records = 0;
    std::int64_t cursor = 0;
    std::vector<char> slots;
    bool operator==(const Decoded&) const = default;
};

enum class Reader { general, stopBits, bmi2 };

template <const auto& L>
Decoded Decode(const Bytes& in, std::int64_t size, int count, Reader reader) {
    Decoded d;
    d.slots.assign(static_cast<std::size_t>(count) * L.size, 0);
    const f::BoundedSource source{in.data(), size};
    switch (reader) {
        case Reader::general:
            d.records = f::DecodeRunInLine<L, false, false>(source, d.cursor, count, d.slots.data());
            break;
        case Reader::stopBits: d.records = f::DecodeRunInLine<L>(source, d.cursor, count, d.slots.data()); break;
        case Reader::bmi2: d.records = f::DecodeRunBmi2<L>(source, d.cursor, count, d.slots.data()); break;
    }
    return d;
}

// Bytes the reader of a damaged chain is handed: changed bytes, stop bits
// set or cleared, a length word changed, or the chain cut short.
Bytes Damaged(const Bytes& chain, std::mt19937_64& rng, std::int64_t& size) {
    Bytes d = chain;
    size = static_cast<std::int64_t>(d.size());
    switch (rng() % 4) {
        case 0: d[rng() % d.size()] = static_cast<unsigned char>(rng()); break;
        case 1: d[rng() % d.size()] ^= 0x80u; break;
        case 2: size = static_cast<std::int64_t>(rng() % d.size()); break;
        default:
            for (int k = 0; k < 8; ++k) d[rng() % d.size()] ^= static_cast<unsigned char>(1u << (rng() % 8));
    }
    return d;
}

template <const auto& L>
void EveryVariantAgrees(const char* name, std::uint64_t seed) {
    SCOPED_TRACE(name);
    const bool bmi2 = trdcomp::detail::UseBmi2();
    std::mt19937_64 rng(seed);
    int stopBitChunks = 0;
    for (int round = 0; round < 40; ++round) {
        const int count = 1 + static_cast<int>(rng() % 12);
        const double change = round % 4 == 0 ? 0.1 : 0.8;
        const std::vector<char> records = Records<L>(rng, count, change);
        const Bytes chain = Encode<L, false>(records, count);
        if (bmi2) {
            ASSERT_EQ((Encode<L, true>(records, count)), chain) << "round " << round;
            const char* last = records.data() + static_cast<std::size_t>(count - 1) * L.size;
            const char* before = count > 1 ? last - L.size : nullptr;
            ASSERT_EQ((EncodeExact<L, true>(last, before)), (EncodeExact<L, false>(last, before)));
        }
        const auto size = static_cast<std::int64_t>(chain.size());
        const Decoded general = Decode<L>(chain, size, count, Reader::general);
        ASSERT_EQ(general.records, count);
        ASSERT_EQ(general.cursor, size);
        ASSERT_EQ(Decode<L>(chain, size, count, Reader::stopBits), general) << "round " << round;
        if (bmi2) {
            ASSERT_EQ(Decode<L>(chain, size, count, Reader::bmi2), general) << "round " << round;
        }
        stopBitChunks += size >= f::internal::kMaskedWindow;
        for (int k = 0; k < 25; ++k) {
            std::int64_t cut;
            const Bytes bad = Damaged(chain, rng, cut);
            const Decoded ref = Decode<L>(bad, cut, count, Reader::general);
            ASSERT_EQ(Decode<L>(bad, cut, count, Reader::stopBits), ref) << "round " << round << ", damage " << k;
            if (bmi2) {
                ASSERT_EQ(Decode<L>(bad, cut, count, Reader::bmi2), ref) << "round " << round << ", damage " << k;
            }
        }
    }
    // The chains were long enough for the stop-bit reads to run.
    EXPECT_GT(stopBitChunks, 10);
}

TEST(FastVariants, BothBuildsAndBothReadersGiveTheSameBytesAndRecords) {
    EveryVariantAgrees<kT_MIXED>("every kind", 1);
    EveryVariantAgrees<kT_SEVEN>("seven fields", 2);
    EveryVariantAgrees<kT_ORDER>("ascii between counted texts", 3);
    EveryVariantAgrees<kT_BLOCK>("a sized block", 4);
    EveryVariantAgrees<kANS_1110>("quotes", 5);
    EveryVariantAgrees<kREQ_1011>("orders", 6);
    EveryVariantAgrees<kREQ_1030>("a day of orders", 7);
}

// A shared chunk (the request prefix) is first tested as a whole: when that
// test says unchanged, the field-by-field coder sends none of its fields.
// The texts compare as C strings, on into the bytes behind a full text, so
// a prefix whose last text has no terminator is not unchanged when the bytes
// behind it differ.
TEST(FastVariants, AChunkTestedWholeAgreesWithItsFields) {
    constexpr auto kPrefix = trdcomp::model::ChunkFields<kREQ_1030, 0>();
    std::mt19937_64 rng(8);
    std::vector<char> prev(kREQ_1030.size), cur(kREQ_1030.size);
    unsigned char out[512];
    int unchanged = 0, full = 0;
    for (int round = 0; round < 2000; ++round) {
        for (char& c : prev) c = static_cast<char>(rng() % 4 == 0 ? 0 : 'a' + rng() % 26);
        if (round % 4 == 0)
            for (int k = 121; k < 145; ++k) prev[k] = static_cast<char>('a' + rng() % 26);  // a full last text
        cur = prev;
        switch (rng() % 4) {
            case 0: break;                                                      // the same record
            case 1: cur[rng() % cur.size()] ^= 1; break;                        // one byte anywhere
            case 2: cur[145 + rng() % (cur.size() - 145)] ^= 1; break;          // behind the prefix
            default: cur[rng() % 145] = prev[rng() % 145] == 0 ? 'x' : '\0';  // a terminator moved
        }
        const bool fullLast = std::memchr(cur.data() + 121, 0, 24) == nullptr;
        unsigned map = 0;
        const std::uint32_t n = f::internal::EncodeChunk<kPrefix, false, false>(cur.data(), prev.data(), false,
                                                                            kREQ_1030.size, out, 0, &map);
        if (f::internal::ChunkUnchanged<kPrefix>(cur.data(), prev.data())) {
            ++unchanged;
            ASSERT_EQ(map, 0u) << "round " << round;
            ASSERT_EQ(n, 0u);
        } else if (map == 0) {
            // Unchanged fields the whole test did not see: only a full last text.
            ASSERT_TRUE(fullLast || std::memcmp(cur.data(), prev.data(), 145) != 0) << "round " << round;
            full += fullLast;
        }
    }
    EXPECT_GT(unchanged, 100);
    EXPECT_GT(full, 0);
}

// The layouts whose chunks are read by their stop bits and which a run codes
// with the BMI2 coders: those with eight numbers or more. The quote layout is
// among them, the order layouts are not.
TEST(FastVariants, TheFastReadersServeTheLayoutsOfManyNumbers) {
    EXPECT_TRUE(f::internal::kManyNumbers<kANS_1110>);
    EXPECT_TRUE(f::internal::kManyNumbers<kT_MIXED>);
    EXPECT_FALSE(f::internal::kManyNumbers<kT_SEVEN>);
    EXPECT_FALSE(f::internal::kManyNumbers<kREQ_1030>);
    EXPECT_FALSE(f::internal::kManyNumbers<kREQ_1011>);
    EXPECT_EQ(f::internal::kBmi2Coded<kANS_1110>, TRDCOMP_HAVE_BMI2 == 1);
    EXPECT_EQ(f::internal::kBmi2Coded<kT_MIXED>, TRDCOMP_HAVE_BMI2 == 1);
    EXPECT_FALSE(f::internal::kBmi2Coded<kT_SEVEN>);
    EXPECT_FALSE(f::internal::kBmi2Coded<kT_ORDER>);
}

}  // namespace
