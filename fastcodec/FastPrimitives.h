// Stop-bit primitives of the Fast coding.
//
// Integers travel as groups of 7 bits, most significant group first; bit 0x80
// (the stop bit) marks the LAST byte of a value. A negative value has 0x40 set
// in its first byte, and the reader takes the sign from that bit alone. The
// byte count of a value is fixed by a size estimator before any byte is
// written; the writers then fill the bytes from the last one backwards.
//
// Writers return the bytes written (unsigned), readers the bytes consumed
// (signed: a negative counted length makes the count smaller than the bytes
// actually read, and the framing clamps the cursor it adds the count to). None of them
// is told the size of its buffer: the framing guarantees room on the writing
// side and hands the readers only input that ends in a stop byte within reach
// (see FastEngine). The kept quirks are marked where they occur.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Bytes.h"
#include "Cpu.h"
#include "Inline.h"
#include "trdcomp/PriceScale.hpp"

namespace trdcomp::fast {

using byte = unsigned char;

namespace internal {
// Byte counts by bit width (0..64) of the value or magnitude: signed
// smallest n with |v| < 2^(7n-1), unsigned smallest n with v < 2^(7n), both
// at least 1 and at most 10.
// signedShift: 8 * (8 - n) for the signed count n when n <= 8 (where a
// word writer places the n bytes), else 0.
struct SizeTables {
    std::uint8_t signedBytes[65];
    std::uint8_t unsignedBytes[65];
    std::uint8_t signedShift[65];
};
inline constexpr SizeTables kSizes = [] {
    SizeTables t{};
    for (unsigned bits = 0; bits <= 64; ++bits) {
        t.signedBytes[bits] = static_cast<std::uint8_t>((bits + 7) / 7);
        t.unsignedBytes[bits] = static_cast<std::uint8_t>(bits == 0 ? 1 : (bits + 6) / 7);
        t.signedShift[bits] = static_cast<std::uint8_t>(t.signedBytes[bits] <= 8 ? 8 * (8 - t.signedBytes[bits]) : 0);
    }
    return t;
}();
}  // namespace internal

// Bytes the unsigned writer uses for v: the smallest n in 1..9 with
// v < 2^(7n), else 10. The position of the highest set bit (one instruction)
// indexes a table, so there is no loop and no chain of tests.
TRDCOMP_FORCE_INLINE std::uint32_t FastSizeUInt64(std::uint64_t v) {
    return internal::kSizes.unsignedBytes[std::bit_width(v)];
}

// Bytes the signed writer uses for v: the smallest n in 1..9 with
// |v| < 2^(7n-1), else 10. The magnitude is tested, so -64, -8192, ... take
// one byte more than the shortest coding would; readers accept both.
// (m | 1 has the same table entry as m and spares the zero test.)
namespace internal {
// The table row of v's signed count: the bit width of its magnitude.
TRDCOMP_FORCE_INLINE unsigned SignedRow(std::int64_t v) {
    const std::uint64_t m =
        v < 0 ? ~static_cast<std::uint64_t>(v) + 1u : static_cast<std::uint64_t>(v);
    return static_cast<unsigned>(std::bit_width(m | 1u));
}
}  // namespace internal
TRDCOMP_FORCE_INLINE std::uint32_t FastSizeInt64(std::int64_t v) {
    return internal::kSizes.signedBytes[internal::SignedRow(v)];
}

namespace internal {
// Writes the low 7n bits of v as n groups, last byte first, stop bit on the last.
inline void PutGroups(byte* out, std::uint64_t v, std::uint32_t n) {
    byte* p = out + n - 1;
    *p = static_cast<byte>((v & 0x7Fu) | 0x80u);
    while (p != out) {
        v >>= 7;
        *--p = static_cast<byte>(v & 0x7Fu);
    }
}

// Word-at-a-time forms of the same coding, for the record engine. The 7-bit
// groups of up to 56 bits are spread over (Spread7) or gathered from
// (Gather7) the bytes of one 64-bit word, group k in byte k.
TRDCOMP_FORCE_INLINE std::uint64_t Spread7(std::uint64_t v) {
    v &= 0x00FFFFFFFFFFFFFFull;
    v = (v & 0x000000000FFFFFFFull) | ((v & 0x00FFFFFFF0000000ull) << 4);
    v = (v & 0x00003FFF00003FFFull) | ((v & 0x0FFFC0000FFFC000ull) << 2);
    return (v & 0x007F007F007F007Full) | ((v & 0x3F803F803F803F80ull) << 1);
}
TRDCOMP_FORCE_INLINE std::uint64_t Gather7(std::uint64_t v) {
    v &= 0x7F7F7F7F7F7F7F7Full;
    v = (v & 0x007F007F007F007Full) | ((v & 0x7F007F007F007F00ull) >> 1);
    v = (v & 0x00003FFF00003FFFull) | ((v & 0x3FFF00003FFF0000ull) >> 2);
    return (v & 0x000000000FFFFFFFull) | ((v & 0x0FFFFFFF00000000ull) >> 4);
}
// Gather7 of a value of n bytes (the rest of v zero): the stages its bytes
// need. A field keeps its magnitude from record to record, so the branch
// is predicted; most values take one or two bytes.
// kBmi2: one pext (see common/Cpu.h).
template <bool kBmi2 = false>
TRDCOMP_FORCE_INLINE std::uint64_t GatherBytes(std::uint64_t v, std::uint32_t n) {
#if TRDCOMP_HAVE_BMI2
    if constexpr (kBmi2) return detail::Pext(v, 0x7F7F7F7F7F7F7F7Full);
#endif
    if (n <= 2) return (v & 0x7Fu) | ((v >> 1) & 0x3F80u);
    if (n <= 4) {
        v &= 0x7F7F7F7Fu;
        v = (v & 0x007F007Fu) | ((v & 0x7F007F00u) >> 1);
        return (v & 0x3FFFu) | ((v >> 2) & 0x0FFFC000u);
    }
    return Gather7(v);
}
TRDCOMP_FORCE_INLINE std::uint64_t Load64(const void* p) {
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
TRDCOMP_FORCE_INLINE void Store64(void* p, std::uint64_t v) { std::memcpy(p, &v, 8); }

// The n (1..8) bytes of a value, first group first, with the stop bit on the
// last byte and `sign` (0 or 0x40) in the first, as one 8-byte store: the
// bytes after the n-th are scratch that the caller allows to be written.
// Spread7 of the low 7n bits of v (n from 1 to 8), by the stages those
// bits need: a field keeps its magnitude from record to record, so the
// branch is predicted.
// kBmi2: one pdep, which spreads all eight groups (the caller's shift drops
// those past the n-th).
template <bool kBmi2 = false>
TRDCOMP_FORCE_INLINE std::uint64_t SpreadBytes(std::uint64_t v, std::uint32_t n) {
#if TRDCOMP_HAVE_BMI2
    if constexpr (kBmi2) return detail::Pdep(v, 0x7F7F7F7F7F7F7F7Full);
#endif
    if (n <= 2) return (v & 0x7Fu) | ((v << 1) & 0x7F00u);
    if (n <= 4) {
        v &= 0x0FFFFFFFu;
        v = (v & 0x3FFFu) | ((v & 0x0FFFC000u) << 2);
        return (v & 0x007F007Fu) | ((v & 0x3F803F80u) << 1);
    }
    return Spread7(v);
}
// A negative value's sign bit (0x40 of its first byte) is the top bit of
// its 7n bits in two's complement, as n is chosen so that |v| < 2^(7n - 1):
// the groups carry it without a separate step.
// shift: 8 * (8 - n), where the n bytes start in the word.
template <bool kBmi2 = false>
TRDCOMP_FORCE_INLINE void PutWord(byte* out, std::uint64_t v, std::uint32_t n, std::uint32_t shift) {
    const std::uint64_t w = (SpreadBytes<kBmi2>(v, n) | 0x80u) << shift;
    Store64(out, __builtin_bswap64(w));
}
}  // namespace internal

// Writers that may write up to 8 bytes at out whatever the value's length
// (the engine leaves room for this); same bytes as FastPutUInt64 / FastPutInt64
// within the returned count.
TRDCOMP_FORCE_INLINE std::uint32_t PutUInt64Wide(byte* out, std::uint64_t v) {
    const std::uint32_t n = FastSizeUInt64(v);
    if (n <= 8) [[likely]] {
        internal::PutWord(out, v, n, 8 * (8 - n));
    } else {
        internal::PutGroups(out, v, n);
    }
    return n;
}
// kBits: the width of the value's type; one of at most 55 bits always fits
// the one word.
template <int kBits = 64, bool kBmi2 = false>
TRDCOMP_FORCE_INLINE std::uint32_t PutInt64Wide(byte* out, std::int64_t v) {
    // The count and the word's shift from one table row. The spread takes
    // the low 56 bits alone: the sign bit needs no clearing for it.
    const unsigned row = internal::SignedRow(v);
    const std::uint32_t n = internal::kSizes.signedBytes[row];
    if (kBits <= 55 || n <= 8) [[likely]] {
        internal::PutWord<kBmi2>(out, static_cast<std::uint64_t>(v), n, internal::kSizes.signedShift[row]);
    } else {
        internal::PutGroups(out, static_cast<std::uint64_t>(v) & 0x7FFFFFFFFFFFFFFFull, n);
        if (v < 0) out[0] |= 0x40u;
    }
    return n;
}

// A character's value, the signed writer's bytes for it: one byte for
// -63..63, else two. Both bytes are stored whatever the length (the second
// is scratch after a one-byte value), so no branch is taken. The first byte
// of a two-byte value holds only the sign, the second the low seven bits.
TRDCOMP_FORCE_INLINE std::uint32_t PutInt8Wide(byte* out, signed char v) {
    const auto low = static_cast<byte>((static_cast<unsigned>(v) & 0x7Fu) | 0x80u);
    const bool one = static_cast<unsigned>(v + 63) <= 126u;
    out[0] = one ? low : static_cast<byte>(v < 0 ? 0x7Fu : 0u);
    out[1] = low;
    return one ? 1u : 2u;
}
// The same bytes, no byte written behind them.
TRDCOMP_FORCE_INLINE std::uint32_t PutInt8Exact(byte* out, signed char v) {
    const auto low = static_cast<byte>((static_cast<unsigned>(v) & 0x7Fu) | 0x80u);
    if (static_cast<unsigned>(v + 63) <= 126u) {
        out[0] = low;
        return 1;
    }
    out[0] = static_cast<byte>(v < 0 ? 0x7Fu : 0u);
    out[1] = low;
    return 2;
}

// Signed reader over 8 readable bytes at p: the value when its stop byte is
// among them (returns its byte count), else 0 and the caller reads it byte
// by byte. Same result as GetSignedAt, computed in the width of T.
namespace internal {
// The value of the n (1..8) bytes at p, the last of them the stop byte, with
// 8 bytes at p readable.
template <bool kSigned, bool kBmi2>
TRDCOMP_FORCE_INLINE std::uint64_t ValueOfBytes(const byte* p, std::uint64_t w, std::uint32_t n) {
    std::uint64_t x = GatherBytes<kBmi2>(__builtin_bswap64(w) >> (8 * (8 - n)), n);
    if constexpr (kSigned) {
        if (p[0] & 0x40u) x |= ~std::uint64_t{0} << (7 * n);
    }
    return x;
}
}  // namespace internal

template <class T, bool kSigned = true, bool kBmi2 = false>
TRDCOMP_FORCE_INLINE std::int64_t GetWord(const byte* p, T* v) {
    const std::uint64_t w = internal::Load64(p);
    const std::uint64_t stops = w & 0x8080808080808080ull;
    if (stops == 0) [[unlikely]]
        return 0;
    const auto n = static_cast<std::uint32_t>(std::countr_zero(stops)) / 8 + 1;
    const std::uint64_t x = internal::ValueOfBytes<kSigned, kBmi2>(p, w, n);
    *v = static_cast<T>(static_cast<std::make_unsigned_t<T>>(x));
    return n;
}

// The stop bits of the 64 bytes at p, byte i's in bit i: where every value
// among them ends, found at once, so that finding the next value's end no
// longer waits for the value before it.
TRDCOMP_FORCE_INLINE std::uint64_t StopBits64(const byte* p) {
#if defined(__SSE2__)
    std::uint64_t m = 0;
    for (int k = 0; k < 4; ++k) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * k));
        m |= static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm_movemask_epi8(v))) << (16 * k);
    }
    return m;
#else
    std::uint64_t m = 0;
    for (int k = 0; k < 8; ++k) {
        const std::uint64_t w = internal::Load64(p + 8 * k) & 0x8080808080808080ull;
        m |= ((w * 0x0002040810204081ull) >> 56) << (8 * k);
    }
    return m;
#endif
}

// The character reader over 8 readable bytes at p: GetWord's count and
// value in the width of a char. A value's low eight bits are the seven of
// its last byte and the lowest bit of the byte before (of a one-byte value:
// its sign bit 0x40), so no other byte is gathered.
namespace internal {
// A char's value from its bytes p[0..k], p[k] the stop byte.
TRDCOMP_FORCE_INLINE signed char Int8OfBytes(const byte* p, std::uint32_t k) {
    const unsigned high = k == 0 ? (p[0] & 0x40u) << 1 : (p[k - 1] & 1u) << 7;
    return static_cast<signed char>(static_cast<byte>((p[k] & 0x7Fu) | high));
}
}  // namespace internal

TRDCOMP_FORCE_INLINE std::int64_t GetInt8Word(const byte* p, signed char* v) {
    const std::uint64_t stops = internal::Load64(p) & 0x8080808080808080ull;
    if (stops == 0) [[unlikely]]
        return 0;
    const auto k = static_cast<std::uint32_t>(std::countr_zero(stops)) / 8;
    *v = internal::Int8OfBytes(p, k);
    return k + 1;
}

inline std::uint32_t FastPutUInt64(byte* out, std::uint64_t v) {
    const std::uint32_t n = FastSizeUInt64(v);
    internal::PutGroups(out, v, n);
    return n;
}

inline std::uint32_t FastPutUInt16(byte* out, std::uint16_t v) { return FastPutUInt64(out, v); }

// The byte count is that of v; the bytes are those of v with bit 63 cleared,
// so a negative value of magnitude 2^62 or more reads back with bit 63 clear
// (INT64_MIN reads back as 0). This is the wire format and is kept.
inline std::uint32_t FastPutInt64(byte* out, std::int64_t v) {
    const std::uint32_t n = FastSizeInt64(v);
    internal::PutGroups(out, static_cast<std::uint64_t>(v) & 0x7FFFFFFFFFFFFFFFull, n);
    if (v < 0) out[0] |= 0x40u;
    return n;
}

inline std::uint32_t FastPutInt32(byte* out, std::int32_t v) { return FastPutInt64(out, v); }
inline std::uint32_t FastPutInt16(byte* out, std::int16_t v) { return FastPutInt64(out, v); }
// Characters go through here, so a character at or above 0x80 is negative.
inline std::uint32_t FastPutInt8(byte* out, signed char v) { return FastPutInt64(out, v); }

// Where the readers take their bytes from. PtrSource is the plain pointer of
// the named primitives, trusted to reach a stop byte. BoundedSource is a
// received message: positions outside [0, size) read as 0x80, so a reader
// stops where it would otherwise run past the message.
struct PtrSource {
    const byte* p;
    byte operator[](std::int64_t i) const { return p[i]; }
    void Copy(void* dst, std::int64_t at, std::size_t n) const { std::memcpy(dst, p + at, n); }
};

struct BoundedSource {
    const byte* p;
    std::int64_t size;
    byte operator[](std::int64_t i) const {
        return static_cast<std::uint64_t>(i) < static_cast<std::uint64_t>(size) ? p[i] : byte{0x80};
    }
    void Copy(void* dst, std::int64_t at, std::size_t n) const {
        auto* d = static_cast<byte*>(dst);
        const std::int64_t end = at + static_cast<std::int64_t>(n);
        const std::int64_t lo = at < 0 ? 0 : at;
        const std::int64_t hi = end < size ? end : size;
        if (lo >= hi) {
            std::memset(d, 0x80, n);
            return;
        }
        std::memset(d, 0x80, static_cast<std::size_t>(lo - at));
        std::memcpy(d + (lo - at), p + lo, static_cast<std::size_t>(hi - lo));
        std::memset(d + (hi - at), 0x80, static_cast<std::size_t>(end - hi));
    }
};

// Reads the presence map of the record of `len` bytes at in[at]: its first
// `bytes` map bytes into map[0, bytes) (the rest stay as they were), up to
// and including the byte with the stop bit 0x80. Returns the map's length,
// 0 when no byte of the record carries the stop bit (then nothing was sent).
// Field i of the record's coding order is sent when map[i / 7] has bit
// 0x40 >> (i % 7): the record decoder and the tool read the map here.
TRDCOMP_FORCE_INLINE std::int64_t ReadPresenceMap(const BoundedSource& in, std::int64_t at, std::int64_t len, byte* map,
                                                  std::size_t bytes) {
    if (at >= 0 && len <= in.size - at) [[likely]] {
        const byte* p = in.p + at;
        for (std::int64_t j = 0; j < len; ++j) {
            const byte b = p[j];
            if (j < static_cast<std::int64_t>(bytes)) map[j] = b;
            if (b & 0x80u) return j + 1;
        }
        return 0;
    }
    for (std::int64_t j = 0; j < len; ++j) {
        const byte b = in[at + j];
        if (j < static_cast<std::int64_t>(bytes)) map[j] = b;
        if (b & 0x80u) return j + 1;
    }
    return 0;
}

// The length of the presence map at p (8 readable bytes) when its stop bit
// lies in them and within the record's `len` bytes, else 0 (ReadPresenceMap
// then reads it).
TRDCOMP_FORCE_INLINE std::int64_t MapInWord(const byte* p, std::int64_t len) {
    const std::uint64_t stops = internal::Load64(p) & 0x8080808080808080ull;
    if (stops == 0) return 0;
    const std::int64_t k = std::countr_zero(stops) / 8 + 1;
    return k <= len ? k : 0;
}

// Signed reader in the width of T (wrapping arithmetic in the unsigned twin):
// starts from all ones when the first byte has 0x40, then shifts in 7 bits a
// byte up to and including the byte with the stop bit.
template <class T, class Src>
inline std::int64_t GetSignedAt(const Src& in, std::int64_t at, T* v) {
    using U = std::make_unsigned_t<T>;
    U value = (in[at] & 0x40u) ? static_cast<U>(~U{0}) : U{0};
    std::int64_t i = at;
    for (;;) {
        const byte b = in[i++];
        value = static_cast<U>(static_cast<U>(value << 7) | (b & 0x7Fu));
        if (b & 0x80u) break;
    }
    *v = static_cast<T>(value);
    return i - at;
}

// The unsigned 16-bit reader starts from 0 whatever bit 0x40 says.
template <class Src>
inline std::int64_t GetUInt16At(const Src& in, std::int64_t at, std::uint16_t* v) {
    std::uint16_t value = 0;
    std::int64_t i = at;
    for (;;) {
        const byte b = in[i++];
        value = static_cast<std::uint16_t>((value << 7) | (b & 0x7Fu));
        if (b & 0x80u) break;
    }
    *v = value;
    return i - at;
}

// Keeps at most max-1 characters. When no stop byte is met within them the
// string is cut and the stop byte is searched from offset max on (offset
// max-1 is never examined); the count returned is that offset, one less than
// the bytes the string occupied. A string that fills its field therefore does
// not read back cleanly: the wire format, kept as it is.
template <class Src>
inline std::int64_t GetAsciiAt(const Src& in, std::int64_t at, char* s, int max) {
    if (in[at] == 0x80u) {
        s[0] = '\0';
        return 1;
    }
    const int keep = max - 1;
    for (int i = 0; i < keep; ++i) {
        const byte b = in[at + i];
        if (b & 0x80u) {
            s[i] = static_cast<char>(b & 0x7Fu);
            s[i + 1] = '\0';
            return i + 1;
        }
        s[i] = static_cast<char>(b);
    }
    if (keep >= 0) s[keep] = '\0';
    std::int64_t off = max < 0 ? 0 : max;
    while (!(in[at + off] & 0x80u)) ++off;
    return off;
}

// Counted string: keeps min(L, max-1) bytes and a terminator, and skips the
// full length. A negative length returns k + L, fewer than the bytes read:
// the caller adds the count as it is.
template <class Src>
inline std::int64_t GetStringAt(const Src& in, std::int64_t at, char* s, int max) {
    std::int32_t len;
    const std::int64_t k = GetSignedAt(in, at, &len);
    if (len < 1) {
        s[0] = '\0';
        return k + len;
    }
    const std::int32_t keep = len < max - 1 ? len : max - 1;
    if (keep > 0) in.Copy(s, at + k, static_cast<std::size_t>(keep));
    s[keep > 0 ? keep : 0] = '\0';
    return k + len;
}

// Counted byte block: keeps min(L, max) bytes, no terminator; skips L.
template <class Src>
inline std::int64_t GetBytesAt(const Src& in, std::int64_t at, void* p, int max) {
    std::int32_t len;
    const std::int64_t k = GetSignedAt(in, at, &len);
    if (len < 1) return k + len;
    const std::int32_t keep = len < max ? len : max;
    if (keep > 0) in.Copy(p, at + k, static_cast<std::size_t>(keep));
    return k + len;
}

template <class Src>
inline std::int64_t GetPriceAt(const Src& in, std::int64_t at, double* v) {
    std::int64_t scaled;
    const std::int64_t k = GetSignedAt(in, at, &scaled);
    *v = price::RestoredFast(scaled);
    return k;
}

inline std::int64_t FastGetInt8(const byte* in, signed char* v) { return GetSignedAt(PtrSource{in}, 0, v); }
inline std::int64_t FastGetInt16(const byte* in, std::int16_t* v) { return GetSignedAt(PtrSource{in}, 0, v); }
inline std::int64_t FastGetInt32(const byte* in, std::int32_t* v) { return GetSignedAt(PtrSource{in}, 0, v); }
inline std::int64_t FastGetInt64(const byte* in, std::int64_t* v) { return GetSignedAt(PtrSource{in}, 0, v); }
inline std::int64_t FastGetUInt16(const byte* in, std::uint16_t* v) { return GetUInt16At(PtrSource{in}, 0, v); }
inline std::int64_t FastGetAscii(const byte* in, char* s, int max) { return GetAsciiAt(PtrSource{in}, 0, s, max); }
inline std::int64_t FastGetString(const byte* in, char* s, int max) { return GetStringAt(PtrSource{in}, 0, s, max); }
inline std::int64_t FastGetBytes(const byte* in, void* p, int max) { return GetBytesAt(PtrSource{in}, 0, p, max); }
inline std::int64_t FastGetPrice(const byte* in, double* v) { return GetPriceAt(PtrSource{in}, 0, v); }

// ASCII string: the characters, the last one with 0x80 set; "" is 80.
inline std::uint32_t FastPutAscii(byte* out, const char* s, int max) {
    const std::size_t len = max < 1 ? 0 : ::strnlen(s, static_cast<std::size_t>(max));
    if (len == 0) {
        out[0] = 0x80;
        return 1;
    }
    std::memcpy(out, s, len);
    out[len - 1] |= 0x80u;
    return static_cast<std::uint32_t>(len);
}

// Counted string: a signed stop-bit length, then that many raw bytes.
inline std::uint32_t FastPutString(byte* out, const char* s, int max) {
    const std::int32_t n =
        max < 1 ? 0 : static_cast<std::int32_t>(::strnlen(s, static_cast<std::size_t>(max)));
    const std::uint32_t k = FastPutInt32(out, n);
    if (n > 0) std::memcpy(out + k, s, static_cast<std::size_t>(n));
    return k + static_cast<std::uint32_t>(n);
}

// Counted byte block of n bytes (only the length when n < 1).
inline std::uint32_t FastPutBytes(byte* out, const void* p, std::int32_t n) {
    const std::uint32_t k = FastPutInt32(out, n);
    if (n > 0) std::memcpy(out + k, p, static_cast<std::size_t>(n));
    return k + (n > 0 ? static_cast<std::uint32_t>(n) : 0u);
}

// Scaled decimal: the value scaled to three places (trdcomp/PriceScale.hpp),
// truncated, as a signed integer.
inline std::uint32_t FastPutPrice(byte* out, double v) {
    return FastPutInt64(out, detail::TruncToInt64(price::ScaledFast(v)));
}

}  // namespace trdcomp::fast
