// The value coders of KXPfdk, defined once: the exported members of
// CKXNetCompressHelper (KXNetCompressHelper.cpp) are these functions, and the
// 2008 record engine compiles them in when the process has loaded this
// KXPfdk (codec2008/ValueCoders.h).
//
//   int, int64   zigzag, then LEB128: 7 bits a byte, least significant group
//                first, 0x80 set on every byte but the last. A decoder stops
//                after 5 (int) or 10 (int64) bytes whatever the last byte says.
//   string       unsigned LEB128 length n (at most 5 bytes), then n bytes.
//   binData      unsigned LEB128 length n, then n bytes; the encoder drops the
//                block's trailing zero bytes (the decoders of the record
//                codecs zero-fill every record first, so nothing is lost).
//
// A length of more than INT_MAX - 5 is read as INT_MAX - 5, so that every
// count returned fits an int. Encoders write exactly the bytes they return.
#pragma once

#include <climits>
#include <cstdint>
#include <cstring>

#include "Inline.h"
#include "Text.h"

namespace trdcomp::kx {

using u8 = unsigned char;

// What KXPfdk_trdcomp_value_format() of this KXPfdk returns: "trdckx" and the
// format's version (1). No other KXPfdk exports that function with this value.
inline constexpr unsigned long long kFormatMark = 0x747264636B780001ull;

TRDCOMP_FORCE_INLINE int PutVarint(char* out, std::uint64_t v) {
    if (v < 0x80u) [[likely]] {
        out[0] = static_cast<char>(v);
        return 1;
    }
    int n = 0;
    while (v >= 0x80u) {
        out[n++] = static_cast<char>(static_cast<u8>(v) | 0x80u);
        v >>= 7;
    }
    out[n++] = static_cast<char>(v);
    return n;
}

TRDCOMP_FORCE_INLINE int GetVarint(const char* in, std::uint64_t& v, int maxBytes) {
    const u8 first = static_cast<u8>(in[0]);
    if (!(first & 0x80u)) [[likely]] {
        v = first;
        return 1;
    }
    std::uint64_t value = first & 0x7Fu;
    int n = 1;
    while (n < maxBytes) {
        const u8 b = static_cast<u8>(in[n]);
        value |= static_cast<std::uint64_t>(b & 0x7Fu) << (7 * n);
        ++n;
        if (!(b & 0x80u)) break;
    }
    v = value;
    return n;
}

inline constexpr std::uint64_t kMaxLength = INT_MAX - 5;

// A string or block length of two bytes or more, read out of line.
[[gnu::noinline]] inline int GetLongLength(const char* in, std::uint64_t& raw) { return GetVarint(in, raw, 5); }

// Reads a string or block length and clamps it so that header + length fits
// an int. A length below 128 is its one byte.
TRDCOMP_FORCE_INLINE int GetLength(const char* in, std::int64_t& len) {
    const auto first = static_cast<u8>(in[0]);
    if (first < 0x80u) [[likely]] {
        len = first;
        return 1;
    }
    std::uint64_t raw;
    const int k = GetLongLength(in, raw);
    len = static_cast<std::int64_t>(raw > kMaxLength ? kMaxLength : raw);
    return k;
}

// The bytes GetVarint reads at in when they all lie inside the `left` bytes
// there, else 0.
TRDCOMP_FORCE_INLINE int VarintWithin(const char* in, std::int64_t left, int maxBytes) {
    const int n = left < maxBytes ? static_cast<int>(left) : maxBytes;
    for (int i = 0; i < n; ++i)
        if (!(static_cast<u8>(in[i]) & 0x80u)) return i + 1;
    return n == maxBytes ? maxBytes : 0;
}

// Does DecompressString or DecompressBinData keeping at most `max` bytes
// read only inside the `left` bytes at in? (Both read the length and the
// bytes they keep, nothing more.)
[[gnu::noinline]] inline bool TextWithin(const char* in, std::int64_t left, int max) {
    const int k = VarintWithin(in, left, 5);
    if (k == 0) return false;
    std::int64_t n;
    GetLength(in, n);
    const std::int64_t keep = max <= 0 ? 0 : (n < max ? n : max);
    return k + keep <= left;
}

TRDCOMP_FORCE_INLINE int CompressInt(char* out, int value) {
    const auto u = static_cast<std::uint32_t>(value);
    const std::uint32_t zz = (u << 1) ^ (value < 0 ? 0xFFFFFFFFu : 0u);
    return PutVarint(out, zz);
}

TRDCOMP_FORCE_INLINE int DecompressInt(const char* in, int& value) {
    std::uint64_t zz;
    const int k = GetVarint(in, zz, 5);
    const auto z = static_cast<std::uint32_t>(zz);
    value = static_cast<int>((z >> 1) ^ (0u - (z & 1u)));
    return k;
}

TRDCOMP_FORCE_INLINE int CompressInt64(char* out, long long value) {
    const auto u = static_cast<std::uint64_t>(value);
    const std::uint64_t zz = (u << 1) ^ (value < 0 ? ~std::uint64_t{0} : 0u);
    return PutVarint(out, zz);
}

TRDCOMP_FORCE_INLINE int DecompressInt64(const char* in, long long& value) {
    std::uint64_t zz;
    const int k = GetVarint(in, zz, 10);
    value = static_cast<long long>((zz >> 1) ^ (std::uint64_t{0} - (zz & 1u)));
    return k;
}

// The string coding of a text of n bytes (n = strlen when the caller knows it).
TRDCOMP_FORCE_INLINE int CompressText(char* out, const char* text, std::size_t n) {
    const int k = PutVarint(out, n);
    trdcomp::detail::CopyShort(out + k, text, n);
    return k + static_cast<int>(n);
}

// The same for a text read from a field of W bytes (n <= W).
template <std::size_t W>
TRDCOMP_FORCE_INLINE int CompressField(char* out, const char* text, std::size_t n) {
    int k;
    if constexpr (W < 0x80) {
        out[0] = static_cast<char>(n);  // n <= W: one byte
        k = 1;
    } else {
        k = PutVarint(out, n);
    }
    trdcomp::detail::CopyAtMost<W>(out + k, text, n);
    return k + static_cast<int>(n);
}

TRDCOMP_FORCE_INLINE int CompressString(char* out, const char* text) {
    return CompressText(out, text, std::strlen(text));
}

TRDCOMP_FORCE_INLINE int DecompressString(const char* in, char* dest, int max) {
    std::int64_t n;
    const int k = GetLength(in, n);
    if (max > 0) {
        if (n < max) {
            const auto len = static_cast<std::uint32_t>(n);  // 0 <= n < max
            trdcomp::detail::CopyShort(dest, in + k, len);
            dest[len] = '\0';
        } else {
            std::memcpy(dest, in + k, static_cast<std::size_t>(max));
        }
    }
    return k + static_cast<int>(n);
}

// DecompressString or DecompressBinData keeping at most W (< 128) bytes, into
// a field of W bytes that holds zeros, for a value no longer than the field
// (the two coders then leave the same bytes: a string's terminator lands on
// a zero): the value moved by whole loads and stores (detail::CopyMasked),
// with no branch on its length. The W + 1 bytes at in must be readable.
// Returns the bytes consumed, or 0 (nothing decoded) for a longer value.
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE std::int64_t DecompressIntoZeroField(const char* in, char* dest) {
    static_assert(W < 0x80, "the value's length is its first byte");
    const auto n = static_cast<u8>(in[0]);
    if (n > W) [[unlikely]]
        return 0;
    trdcomp::detail::CopyMasked<W>(dest, in + 1, n);
    return 1 + static_cast<std::int64_t>(n);
}

// Bytes of the block up to its last non-zero byte: whole zero words are
// dropped eight bytes at a time from the end.
TRDCOMP_FORCE_INLINE std::size_t TrimmedLength(const char* data, std::size_t n) {
    while (n >= 8) {
        std::uint64_t w;
        std::memcpy(&w, data + n - 8, 8);
        if (w != 0) break;
        n -= 8;
    }
    while (n > 0 && data[n - 1] == 0) --n;
    return n;
}

TRDCOMP_FORCE_INLINE int CompressBinData(char* out, const char* data, int len) {
    const std::size_t n = TrimmedLength(data, len > 0 ? static_cast<std::size_t>(len) : 0);
    const int k = PutVarint(out, n);
    trdcomp::detail::CopyShort(out + k, data, n);
    return k + static_cast<int>(n);
}

TRDCOMP_FORCE_INLINE int DecompressBinData(const char* in, char* dest, int max, int& len) {
    std::int64_t n;
    const int k = GetLength(in, n);
    len = static_cast<int>(n);
    const std::int64_t keep = n < max ? n : max;
    if (keep > 0) trdcomp::detail::CopyShort(dest, in + k, static_cast<std::uint32_t>(keep));  // keep <= max
    return k + static_cast<int>(n);
}

}  // namespace trdcomp::kx
