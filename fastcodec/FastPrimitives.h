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

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "common/Bytes.h"

namespace trdcomp::fast {

using byte = unsigned char;

// Bytes the unsigned writer uses for v: the smallest n in 1..9 with
// v < 2^(7n), else 10. Mask tests on the two 32-bit halves, no loop.
inline std::uint32_t FastSizeUInt64(std::uint64_t v) {
    const auto hi = static_cast<std::uint32_t>(v >> 32);
    const auto lo = static_cast<std::uint32_t>(v);
    if (hi == 0) {
        if ((lo & 0xFFFFFF80u) == 0) return 1;
        if ((lo & 0xFFFFC000u) == 0) return 2;
        if ((lo & 0xFFE00000u) == 0) return 3;
        if ((lo & 0xF0000000u) == 0) return 4;
        return 5;
    }
    if ((hi & 0xFFFFFFF8u) == 0) return 5;
    if ((hi & 0xFFFFFC00u) == 0) return 6;
    if ((hi & 0xFFFE0000u) == 0) return 7;
    if ((hi & 0xFF000000u) == 0) return 8;
    if ((hi & 0x80000000u) == 0) return 9;
    return 10;
}

// Bytes the signed writer uses for v: the smallest n in 1..9 with
// |v| < 2^(7n-1), else 10. The magnitude is tested, so -64, -8192, ... take
// one byte more than the shortest coding would; readers accept both.
inline std::uint32_t FastSizeInt64(std::int64_t v) {
    const std::uint64_t m =
        v < 0 ? ~static_cast<std::uint64_t>(v) + 1u : static_cast<std::uint64_t>(v);
    const auto hi = static_cast<std::uint32_t>(m >> 32);
    const auto lo = static_cast<std::uint32_t>(m);
    if (hi == 0) {
        if ((lo & 0xFFFFFFC0u) == 0) return 1;
        if ((lo & 0xFFFFE000u) == 0) return 2;
        if ((lo & 0xFFF00000u) == 0) return 3;
        if ((lo & 0xF8000000u) == 0) return 4;
        return 5;
    }
    if ((hi & 0xFFFFFFFCu) == 0) return 5;
    if ((hi & 0xFFFFFE00u) == 0) return 6;
    if ((hi & 0xFFFF0000u) == 0) return 7;
    if ((hi & 0xFF800000u) == 0) return 8;
    if ((hi & 0xC0000000u) == 0) return 9;
    return 10;
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
}  // namespace internal

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
    *v = static_cast<double>(scaled) / 1000.0;
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

// Scaled decimal: trunc(v * 1000 + 0.00005) as a signed integer; three places.
inline std::uint32_t FastPutPrice(byte* out, double v) {
    return FastPutInt64(out, detail::TruncToInt64(v * 1000.0 + 0.00005));
}

}  // namespace trdcomp::fast
