// Fixed-width text fields read eight bytes at a time: the length of a text
// inside its field, whether two texts compare equal the way strcmp would,
// and short copies. Every load stays inside the W bytes of the field (the
// last word overlaps the one before when W is not a multiple of 8), so
// nothing outside the record is read.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "Inline.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#define TRDCOMP_TEXT_MASKS 1
#endif

namespace trdcomp::detail {

inline std::uint64_t LoadWord(const void* p) {
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

// High bit of every byte of w that is zero. Only the lowest set bit is exact
// (a borrow can mark a byte above it too), which is all the callers use.
inline std::uint64_t ZeroBytes(std::uint64_t w) {
    return (w - 0x0101010101010101ull) & ~w & 0x8080808080808080ull;
}

// Offsets of the words that cover a field of W >= 8 bytes: 0, 8, ... and a
// last one at W - 8.
template <std::uint32_t W>
inline constexpr std::uint32_t kWords = (W + 7) / 8;
template <std::uint32_t W>
constexpr std::uint32_t WordAt(std::uint32_t k) {
    return 8 * k + 8 <= W ? 8 * k : W - 8;
}

// strnlen(p, W).
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE std::uint32_t TextLength(const char* p) {
    if constexpr (W < 8 || W > 64) {
        return static_cast<std::uint32_t>(::strnlen(p, W));
    } else {
        std::uint32_t len = W;
        [&]<std::uint32_t... K>(std::integer_sequence<std::uint32_t, K...>) TRDCOMP_LAMBDA_INLINE {
            static_cast<void>(((len == W ? [&]() TRDCOMP_LAMBDA_INLINE {
                const std::uint64_t z = ZeroBytes(LoadWord(p + WordAt<W>(K)));
                if (z) len = WordAt<W>(K) + static_cast<std::uint32_t>(std::countr_zero(z)) / 8;
                return 0;
            }() : 0), ...));
        }(std::make_integer_sequence<std::uint32_t, kWords<W>>{});
        return len;
    }
}

// strncmp(a, b, limit) != 0 for a text field of W bytes at a and b, with
// limit >= W the bytes of the record from the field on: decided inside the
// field unless the two fields are equal and hold no zero byte, and then by
// the bytes behind them (up to limit).
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE bool TextDiffers(const char* a, const char* b, std::size_t limit) {
    if constexpr (W < 8 || W > 64) {
        return std::strncmp(a, b, limit) != 0;
    } else {
        int state = 0;  // 0 undecided, 1 equal, 2 different
        [&]<std::uint32_t... K>(std::integer_sequence<std::uint32_t, K...>) TRDCOMP_LAMBDA_INLINE {
            static_cast<void>(((state == 0 ? [&]() TRDCOMP_LAMBDA_INLINE {
                const std::uint64_t x = LoadWord(a + WordAt<W>(K));
                const std::uint64_t diff = x ^ LoadWord(b + WordAt<W>(K));
                const std::uint64_t z = ZeroBytes(x);
                // Bytes up to and including a's first zero decide; without a
                // zero, any difference does.
                if (z) state = (diff & (z ^ (z - 1))) ? 2 : 1;
                else if (diff) state = 2;
                return 0;
            }() : 0), ...));
        }(std::make_integer_sequence<std::uint32_t, kWords<W>>{});
        if (state != 0) return state == 2;
        return limit > W && std::strncmp(a + W, b + W, limit - W) != 0;
    }
}

#if TRDCOMP_TEXT_MASKS
// A text field of W bytes (16 to 64) at a, against the same field at b, as
// bit masks over its bytes, 16 at a time (the last load overlaps the one
// before when W is not a multiple of 16): bit i of `same` when byte i is
// equal in both, of `zero` when a's byte i is zero.
struct TextMasks {
    std::uint64_t same;
    std::uint64_t zero;
};
template <std::uint32_t W>
inline constexpr bool kMaskedText = W >= 16 && W <= 64;
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE TextMasks CompareText(const char* a, const char* b) {
    static_assert(kMaskedText<W>);
    const __m128i zero = _mm_setzero_si128();
    TextMasks m{0, 0};
    [&]<std::uint32_t... K>(std::integer_sequence<std::uint32_t, K...>) TRDCOMP_LAMBDA_INLINE {
        (([&]() TRDCOMP_LAMBDA_INLINE {
             constexpr std::uint32_t at = 16 * K + 16 <= W ? 16 * K : W - 16;
             const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + at));
             const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + at));
             m.same |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, y)))) << at;
             m.zero |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, zero)))) << at;
         }()),
         ...);
    }(std::make_integer_sequence<std::uint32_t, (W + 15) / 16>{});
    return m;
}
// The text's length (strnlen(a, W)) from its masks.
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE std::uint32_t MaskedLength(const TextMasks& m) {
    return m.zero ? static_cast<std::uint32_t>(std::countr_zero(m.zero)) : W;
}
// TextDiffers from the masks: the bytes up to and including a's first zero
// decide; without a zero, any difference does, else the bytes behind the
// field (limit: the bytes of the record from the field on).
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE bool MaskedTextDiffers(const TextMasks& m, const char* a, const char* b, std::size_t limit) {
    constexpr std::uint64_t kField = W == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << W) - 1;
    if (m.zero) return (~m.same & (m.zero ^ (m.zero - 1))) != 0;
    if (~m.same & kField) return true;
    return limit > W && std::strncmp(a + W, b + W, limit - W) != 0;
}
#endif

// Is any of the W bytes at p non-zero? Are the W bytes at a and b different?
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE bool AnyNonZero(const char* p) {
    if constexpr (W < 8 || W > 256) {
        for (std::uint32_t i = 0; i < W; ++i)
            if (p[i] != 0) return true;
        return false;
    } else {
        std::uint64_t any = 0;
        [&]<std::uint32_t... K>(std::integer_sequence<std::uint32_t, K...>) TRDCOMP_LAMBDA_INLINE {
            ((any |= LoadWord(p + WordAt<W>(K))), ...);
        }(std::make_integer_sequence<std::uint32_t, kWords<W>>{});
        return any != 0;
    }
}
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE bool BlockDiffers(const char* a, const char* b) {
    if constexpr (W < 8 || W > 256) {
        return std::memcmp(a, b, W) != 0;
    } else {
        std::uint64_t any = 0;
        [&]<std::uint32_t... K>(std::integer_sequence<std::uint32_t, K...>) TRDCOMP_LAMBDA_INLINE {
            ((any |= LoadWord(a + WordAt<W>(K)) ^ LoadWord(b + WordAt<W>(K))), ...);
        }(std::make_integer_sequence<std::uint32_t, kWords<W>>{});
        return any != 0;
    }
}

// memcmp(a, b, N) == 0 for 16 <= N <= 512: 16-byte compares (the last one
// overlapping), a branch every 32 bytes, so that records differing early
// (an account that changes from record to record) stop early.
template <std::size_t N>
TRDCOMP_FORCE_INLINE bool BytesEqual(const char* a, const char* b) {
    static_assert(N >= 16 && N <= 512);
#if TRDCOMP_TEXT_MASKS
    constexpr std::size_t kBlocks = (N + 15) / 16;
    const auto same = [&](std::size_t k) TRDCOMP_LAMBDA_INLINE {
        const std::size_t at = 16 * k + 16 <= N ? 16 * k : N - 16;
        return _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a + at)),
                              _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + at)));
    };
    bool equal = true;
    [&]<std::size_t... K>(std::index_sequence<K...>) TRDCOMP_LAMBDA_INLINE {
        static_cast<void>(((equal = _mm_movemask_epi8(2 * K + 1 < kBlocks ? _mm_and_si128(same(2 * K), same(2 * K + 1))
                                                                          : same(2 * K)) == 0xFFFF) &&
                           ...));
    }(std::make_index_sequence<(kBlocks + 1) / 2>{});
    return equal;
#else
    return std::memcmp(a, b, N) == 0;
#endif
}

// memcpy(dst, src, n) for 32 < n <= 64: the first and the last 32 bytes,
// all loaded before any is stored. (A copy whose length the compiler knows
// to be bounded would otherwise become a string move, slow to start.)
TRDCOMP_FORCE_INLINE void CopyHalves32(void* dst, const void* src, std::size_t n) {
    struct Half {
        std::uint64_t w[4];
    };
    auto* d = static_cast<unsigned char*>(dst);
    const auto* s = static_cast<const unsigned char*>(src);
    Half a, b;
    std::memcpy(&a, s, 32);
    std::memcpy(&b, s + n - 32, 32);
    std::memcpy(d, &a, 32);
    std::memcpy(d + n - 32, &b, 32);
}

// memcpy(dst, src, N) for a whole record of a size known when compiling:
// 16-byte moves, the last overlapping the one before (fewer than 16 bytes:
// memcpy). The compiler makes a fixed copy of a few hundred bytes a string
// move, whose start costs more than the copy of a record.
template <std::size_t N>
TRDCOMP_FORCE_INLINE void CopyRecordBytes(void* dst, const void* src) {
    auto* d = static_cast<unsigned char*>(dst);
    const auto* s = static_cast<const unsigned char*>(src);
#if defined(__SSE2__)
    if constexpr (N < 16) {
        std::memcpy(d, s, N);
    } else {
        [&]<std::size_t... K>(std::index_sequence<K...>) TRDCOMP_LAMBDA_INLINE {
            (_mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16 * K),
                              _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16 * K))),
             ...);
        }(std::make_index_sequence<N / 16>{});
        if constexpr (N % 16 != 0)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + N - 16),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + N - 16)));
    }
#else
    std::memcpy(d, s, N);
#endif
}

// memcpy(dst, src, n) for the short copies of texts: overlapping word moves
// up to 64 bytes, the library call beyond.
TRDCOMP_FORCE_INLINE void CopyShort(void* dst, const void* src, std::size_t n) {
    auto* d = static_cast<unsigned char*>(dst);
    const auto* s = static_cast<const unsigned char*>(src);
    if (n >= 8) {
        if (n > 32) {
            if (n <= 64) {
                CopyHalves32(d, s, n);
            } else {
                std::memcpy(d, s, n);
            }
        } else if (n > 16) {
            std::uint64_t a, b, c, e;
            std::memcpy(&a, s, 8);
            std::memcpy(&b, s + 8, 8);
            std::memcpy(&c, s + n - 16, 8);
            std::memcpy(&e, s + n - 8, 8);
            std::memcpy(d, &a, 8);
            std::memcpy(d + 8, &b, 8);
            std::memcpy(d + n - 16, &c, 8);
            std::memcpy(d + n - 8, &e, 8);
        } else {
            std::uint64_t a, b;
            std::memcpy(&a, s, 8);
            std::memcpy(&b, s + n - 8, 8);
            std::memcpy(d, &a, 8);
            std::memcpy(d + n - 8, &b, 8);
        }
    } else if (n >= 4) {
        std::uint32_t a, b;
        std::memcpy(&a, s, 4);
        std::memcpy(&b, s + n - 4, 4);
        std::memcpy(d, &a, 4);
        std::memcpy(d + n - 4, &b, 4);
    } else if (n > 0) {
        d[0] = s[0];
        d[n / 2] = s[n / 2];
        d[n - 1] = s[n - 1];
    }
}

// CopyShort of at most W bytes (n is clamped to W), for a copy out of or
// into a field of W bytes: only the moves such a length can take are built.
template <std::size_t W>
TRDCOMP_FORCE_INLINE void CopyAtMost(void* dst, const void* src, std::size_t n) {
    n = n < W ? n : W;
    if constexpr (W < 8) {
        auto* d = static_cast<unsigned char*>(dst);
        const auto* s = static_cast<const unsigned char*>(src);
        for (std::size_t i = 0; i < n; ++i) d[i] = s[i];
    } else if constexpr (W <= 32) {
        CopyShort(dst, src, n);
    } else if constexpr (W <= 64) {
        if (n > 32) {
            CopyHalves32(dst, src, n);
        } else {
            CopyShort(dst, src, n);
        }
    } else {
        std::memcpy(dst, src, n);
    }
}

// A value of n bytes (n < 128) at src into a field of W bytes (8 to 64)
// that holds zeros: dst[i] = src[i] for i < n, dst stays zero from n on. The
// W bytes at src are loaded whole, 16 at a time (8 when W < 16; the last load
// overlaps the one before), and the bytes from n on masked to zero, so the
// copy takes no branch on n; all W bytes at src must be readable. Nothing
// outside the field is written.
template <std::uint32_t W>
inline constexpr bool kMaskedCopy =
#if defined(TRDCOMP_TEXT_MASKS)
    W >= 8 && W <= 64;
#else
    false;
#endif
#if defined(TRDCOMP_TEXT_MASKS)
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE void CopyMasked(char* dst, const char* src, std::uint32_t n) {
    static_assert(kMaskedCopy<W>);
    const __m128i count = _mm_set1_epi8(static_cast<char>(n));
    const __m128i iota = _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    constexpr std::uint32_t kStep = W >= 16 ? 16 : 8;
    [&]<std::uint32_t... K>(std::integer_sequence<std::uint32_t, K...>) TRDCOMP_LAMBDA_INLINE {
        (([&]() TRDCOMP_LAMBDA_INLINE {
             constexpr std::uint32_t at = kStep * K + kStep <= W ? kStep * K : W - kStep;
             const __m128i keep = _mm_cmpgt_epi8(count, _mm_add_epi8(iota, _mm_set1_epi8(static_cast<char>(at))));
             if constexpr (kStep == 16) {
                 const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + at));
                 _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + at), _mm_and_si128(x, keep));
             } else {
                 const __m128i x = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + at));
                 _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + at), _mm_and_si128(x, keep));
             }
         }()),
         ...);
    }(std::make_integer_sequence<std::uint32_t, (W + kStep - 1) / kStep>{});
}
#endif

// memset(p, 0, N) for a size known when compiling: 16-byte stores (the last
// one overlapping), not a string store, which is slow to start on short runs.
// Large runs keep the library's memset.
template <std::size_t N>
TRDCOMP_FORCE_INLINE void ZeroFixed(void* p) {
    auto* d = static_cast<unsigned char*>(p);
    if constexpr (N < 16 || N > 256) {
        std::memset(d, 0, N);
    } else {
        constexpr unsigned char zero[16] = {};
        [&]<std::size_t... K>(std::index_sequence<K...>) TRDCOMP_LAMBDA_INLINE {
            ((std::memcpy(d + (16 * K + 16 <= N ? 16 * K : N - 16), zero, 16)), ...);
        }(std::make_index_sequence<(N + 15) / 16>{});
    }
}

}  // namespace trdcomp::detail
