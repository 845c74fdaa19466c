// The Fast record coding: one generic record encoder and decoder, specialised
// per layout at compile time, and its policy for the request and answer
// frames both codings share (common/RecordFrames.h).
//
// A coded record is a presence map of P = ceil(F / 7) bytes (field i owns bit
// 0x40 >> (i % 7) of byte i / 7; 0x80 marks the last map byte) followed by
// the values of the fields that are sent, in field order. A field is sent
// when it differs from the same field of the previous record of its array
// (the first record: from the field's default); the decoder fills a field
// that was not sent from the previous decoded record (first: the default).
//
// Message body: u16 record count, then per record a u16 length and the coded
// record; an answer with several arrays sends all counts first and codes
// every array as its own chain.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

#include "Bytes.h"
#include "Framing.h"
#include "Inline.h"
#include "Layout.h"
#include "RecordFrames.h"
#include "Text.h"
#include "FastPrimitives.h"
#include "trdcomp/PriceScale.hpp"

namespace trdcomp::fast {

using model::FastKind;
using model::Field;

template <const auto& L>
inline constexpr std::size_t kPresenceBytes = (L.fields.size() + 6) / 7;

// Worst-case bytes of one coded value.
constexpr std::uint32_t MaxCoded(const Field& f) {
    switch (f.fast) {
        case FastKind::Char: return 2;
        case FastKind::Int:
        case FastKind::BlockLength: return 5;
        case FastKind::Int64:
        case FastKind::Double: return 10;
        case FastKind::String:
        case FastKind::Ascii:
        case FastKind::Bytes:
        case FastKind::SizedBlock: return 5 + f.width;
    }
    return 0;
}

template <const auto& L>
constexpr std::uint32_t MaxRecord() {
    std::uint32_t n = static_cast<std::uint32_t>(kPresenceBytes<L>);
    for (const Field& f : L.fields) n += MaxCoded(f);
    return n;
}

// Bytes a record encoder may write behind its worst case: values are stored
// as whole 8-byte words and texts as their whole field, and the count of
// bytes that belong to the value decides where the next one starts.
inline constexpr std::uint32_t kEncodeSlack = 16;

// Records whose worst case is at most this many bytes, and records coded in
// line (kInlineRecord), have an exact encoder beside the wide one
// (RecordCoder).
inline constexpr std::size_t kExactInPlaceMax = 64;

namespace internal {

// The coders of one field are templates over what they depend on (kind K,
// width W, first-record default D), not over the field's place in the
// record, so that fields alike share one instantiation; the field comes in
// as its address c in the record and its offset `off`.

// Is the field sent? Against `base`: the previous record, or for the first
// record (`first`) the record of defaults (kDefaultRecord: a char's and an
// int's default, zero elsewhere), so that only texts test `first`. `size` is
// the record's.
template <FastKind K, std::uint32_t W>
TRDCOMP_FORCE_INLINE bool Sent(const char* c, const char* base, bool first, std::uint32_t off, std::uint32_t size) {
    if constexpr (K == FastKind::Char) {
        return *c != base[off];
    } else if constexpr (K == FastKind::Int) {
        return detail::LoadI32(c) != detail::LoadI32(base + off);
    } else if constexpr (K == FastKind::Int64) {
        std::int64_t v, w;
        std::memcpy(&v, c, 8);
        std::memcpy(&w, base + off, 8);
        return v != w;
    } else if constexpr (K == FastKind::Double) {
        double v, w;
        std::memcpy(&v, c, 8);
        std::memcpy(&w, base + off, 8);
        return v != w;  // a NaN always counts as changed
    } else if constexpr (K == FastKind::String || K == FastKind::Ascii) {
        // strcmp semantics: a full text compares on into the bytes behind it,
        // but never past the end of the record. The first record sends its texts.
        return first || detail::TextDiffers<W>(c, base + off, size - off);
    } else if constexpr (K == FastKind::Bytes) {
        return detail::BlockDiffers<W>(c, base + off);  // the first record: any byte not zero
    } else {
        static_assert(K == FastKind::SizedBlock || K == FastKind::BlockLength, "a kind without its presence test");
        return true;  // the sized block and its length are always sent
    }
}

// A signed value, as whole words (kExact false: the bytes behind it are
// scratch) or as exactly its own bytes; kBits is the width of the value's
// type.
template <bool kExact, int kBits = 64, bool kBmi2 = false>
TRDCOMP_FORCE_INLINE std::uint32_t PutSigned(byte* out, std::int64_t v) {
    if constexpr (kExact) {
        return FastPutInt64(out, v);
    } else {
        return PutInt64Wide<kBits, kBmi2>(out, v);
    }
}

// The length of a text of at most 63 bytes: one byte, its stop bit set.
TRDCOMP_FORCE_INLINE std::uint32_t PutShortLength(byte* out, std::uint32_t n) {
    out[0] = static_cast<byte>(0x80u | n);
    return 1;
}

// Writes the value of the field at c to out and returns the bytes of the
// value. The wide form may write up to MaxCoded(F) + kEncodeSlack bytes; the
// exact form (kExact) writes only the bytes it returns.
template <FastKind K, std::uint32_t W, bool kExact>
TRDCOMP_FORCE_INLINE std::uint32_t PutText(byte* out, const char* c, std::uint32_t n);

template <FastKind K, std::uint32_t W, bool kExact = false, bool kBmi2 = false>
TRDCOMP_FORCE_INLINE std::uint32_t Put(byte* out, const char* c) {
    if constexpr (K == FastKind::Char) {
        if constexpr (kExact) {
            return PutInt8Exact(out, static_cast<signed char>(*c));
        } else {
            return PutInt8Wide(out, static_cast<signed char>(*c));
        }
    } else if constexpr (K == FastKind::Int || K == FastKind::BlockLength) {
        return PutSigned<kExact, 32, kBmi2>(out, detail::LoadI32(c));
    } else if constexpr (K == FastKind::Int64) {
        std::int64_t v;
        std::memcpy(&v, c, 8);
        return PutSigned<kExact, 64, kBmi2>(out, v);
    } else if constexpr (K == FastKind::Double) {
        double v;
        std::memcpy(&v, c, 8);
        return PutSigned<kExact, 64, kBmi2>(out, detail::TruncToInt64(price::ScaledFast(v)));
    } else if constexpr (K == FastKind::String || K == FastKind::Ascii) {
        return PutText<K, W, kExact>(out, c, detail::TextLength<W>(c));
    } else if constexpr (K == FastKind::Bytes) {
        return FastPutBytes(out, c, static_cast<std::int32_t>(W));
    } else {
        static_assert(K == FastKind::SizedBlock, "a kind without its encoder");
        // The block, with its length when that lies in 0..N, else N.
        const std::int32_t len = detail::LoadI32(c + W);
        const std::int32_t n = len >= 0 && len <= static_cast<std::int32_t>(W) ? len : W;
        return FastPutBytes(out, c, n);
    }
}

// A text of n bytes (its length inside the field of W bytes at c): a counted
// string or an ascii text.
template <FastKind K, std::uint32_t W, bool kExact>
TRDCOMP_FORCE_INLINE std::uint32_t PutText(byte* out, const char* c, std::uint32_t n) {
    if constexpr (K == FastKind::String) {
        // The length, then the text: the whole field is copied when it is
        // short, only the text's bytes count.
        std::uint32_t k;
        if constexpr (W <= 63) {
            k = PutShortLength(out, n);
        } else {
            k = PutSigned<kExact, 32>(out, static_cast<std::int32_t>(n));
        }
        if constexpr (kExact && W <= 64) {
            detail::CopyAtMost<W>(out + k, c, n);
        } else if constexpr (W <= 64) {
            std::memcpy(out + k, c, W);
        } else {
            std::memcpy(out + k, c, n);
        }
        return k + n;
    } else {
        static_assert(K == FastKind::Ascii, "a text kind");
        // The text's characters, the last with the stop bit; the empty text
        // is 0x80. A field of up to 64 bytes is copied whole (the wide form)
        // and only the text's bytes count.
        if (n == 0) {
            out[0] = 0x80u;
            return 1;
        }
        if constexpr (kExact && W <= 64) {
            detail::CopyAtMost<W>(out, c, n);
        } else if constexpr (W <= 64) {
            std::memcpy(out, c, W);
        } else {
            std::memcpy(out, c, n);
        }
        out[n - 1] |= 0x80u;
        return n;
    }
}

// Is the value always written, sent or not, so that a change costs no
// branch? The numbers that move from record to record (prices, amounts);
// characters and ints mostly keep their value and are coded when sent.
template <FastKind K>
inline constexpr bool kAlwaysWritten = K == FastKind::Int64 || K == FastKind::Double;

// Reads a value through the bounded source into the field at c: the cold
// path near the message's end, out of line and shared by every field of the
// same kind and width.
template <FastKind K, std::uint32_t W>
[[gnu::noinline]] std::int64_t Get(BoundedSource in, std::int64_t at, char* c) {
    if constexpr (K == FastKind::Char) {
        signed char v;
        const std::int64_t k = GetSignedAt(in, at, &v);
        *c = static_cast<char>(v);
        return k;
    } else if constexpr (K == FastKind::Int || K == FastKind::BlockLength) {
        std::int32_t v;
        const std::int64_t k = GetSignedAt(in, at, &v);
        detail::StoreI32(c, v);
        return k;
    } else if constexpr (K == FastKind::Int64) {
        std::int64_t v;
        const std::int64_t k = GetSignedAt(in, at, &v);
        std::memcpy(c, &v, 8);
        return k;
    } else if constexpr (K == FastKind::Double) {
        double v;
        const std::int64_t k = GetPriceAt(in, at, &v);
        std::memcpy(c, &v, 8);
        return k;
    } else if constexpr (K == FastKind::String) {
        return GetStringAt(in, at, c, static_cast<int>(W));
    } else if constexpr (K == FastKind::Ascii) {
        return GetAsciiAt(in, at, c, static_cast<int>(W));
    } else {
        static_assert(K == FastKind::Bytes || K == FastKind::SizedBlock, "a kind without its decoder");
        return GetBytesAt(in, at, c, static_cast<int>(W));
    }
}

// Bytes from the cursor that the unchecked reader of a field may read: one
// word for a number; the length byte of a text or block (its kept bytes are
// checked against the message once the length is known, and a length of
// more than one byte takes the bounded reader). The ascii kind searches for
// its stop byte (GetAsciiInside) and has no fixed window.
template <FastKind K>
constexpr std::int64_t Window() {
    if constexpr (K == FastKind::Ascii) return -1;
    if constexpr (K == FastKind::String || K == FastKind::Bytes || K == FastKind::SizedBlock) return 1;
    return 8;
}

// An ascii text whose field's width of bytes lies inside the message: the
// first byte with the stop bit among the W - 1 a text keeps, found a word at
// a time. The text (its last byte's stop bit cleared) and a terminator go
// to c; returns the bytes consumed, or 0 when no stop byte is among them
// (the bounded reader then takes it, skipping the rest of the text).
template <std::uint32_t W>
TRDCOMP_FORCE_INLINE std::int64_t GetAsciiInside(const byte* p, char* c) {
    static_assert(W >= 2);
    if (p[0] == 0x80u) {  // the empty text
        c[0] = '\0';
        return 1;
    }
    // The words at 0, 8, ... up to the one holding byte W - 2; from a field
    // of 8 bytes on, the last one ends at the field's end and overlaps the
    // one before, whose bytes hold no stop bit by then.
    std::uint32_t stop = W;
    [&]<std::uint32_t... K>(std::integer_sequence<std::uint32_t, K...>) TRDCOMP_LAMBDA_INLINE {
        static_cast<void>(((stop == W ? [&]() TRDCOMP_LAMBDA_INLINE {
            constexpr std::uint32_t at = W >= 8 ? detail::WordAt<W>(K) : 0;
            std::uint64_t w = 0;
            std::memcpy(&w, p + at, W >= 8 ? 8 : W);
            if (const std::uint64_t m = w & 0x8080808080808080ull)
                stop = at + static_cast<std::uint32_t>(std::countr_zero(m) >> 3);
            return 0;
        }() : 0), ...));
    }(std::make_integer_sequence<std::uint32_t, (W - 1 + 7) / 8>{});
    if (stop >= W - 1) return 0;
    detail::CopyAtMost<W>(c, p, stop + 1);
    c[stop] = static_cast<char>(p[stop] & 0x7Fu);
    c[stop + 1] = '\0';
    return stop + 1;
}

// Reads the field at c from in[at]: unchecked when its window lies inside
// the message, else through the bounded source (same values, same count).
template <FastKind K, std::uint32_t W, bool kBmi2>
TRDCOMP_FORCE_INLINE std::int64_t GetField(BoundedSource in, std::int64_t at, char* c) {
    if constexpr (K == FastKind::Ascii && W >= 2) {
        if (at >= 0 && at <= in.size - static_cast<std::int64_t>(W)) [[likely]] {
            if (const std::int64_t k = GetAsciiInside<W>(in.p + at, c)) return k;
        }
    }
    if constexpr (K == FastKind::Char) {
        // Most characters take one byte: taken on its own, the cursor's next
        // position waits for no load (the branch is predicted).
        if (at >= 0 && at < in.size && (in.p[at] & 0x80u)) [[likely]] {
            *c = static_cast<char>(Int8OfBytes(in.p + at, 0));
            return 1;
        }
    }
    constexpr std::int64_t kWindow = Window<K>();
    if constexpr (kWindow > 0) {
        if (at >= 0 && at <= in.size - kWindow) [[likely]] {
            const byte* p = in.p + at;
            if constexpr (K == FastKind::Char) {
                signed char v;
                if (const std::int64_t k = GetInt8Word(p, &v)) {
                    *c = static_cast<char>(v);
                    return k;
                }
            } else if constexpr (K == FastKind::Int || K == FastKind::BlockLength) {
                std::int32_t v;
                if (const std::int64_t k = GetWord<decltype(v), true, kBmi2>(p, &v)) {
                    detail::StoreI32(c, v);
                    return k;
                }
            } else if constexpr (K == FastKind::Int64) {
                std::int64_t v;
                if (const std::int64_t k = GetWord<decltype(v), true, kBmi2>(p, &v)) {
                    std::memcpy(c, &v, 8);
                    return k;
                }
            } else if constexpr (K == FastKind::Double) {
                std::int64_t v;
                if (const std::int64_t k = GetWord<decltype(v), true, kBmi2>(p, &v)) {
                    const double x = price::RestoredFast(v);
                    std::memcpy(c, &x, 8);
                    return k;
                }
            } else {
                // Counted string (keeps L or max-1 bytes and a terminator) or
                // block (keeps L or max bytes); the full length is skipped.
                // Most texts are shorter than 64 bytes: their length is one
                // byte, read without gathering the word (the cursor waits for
                // it). A longer length takes the bounded reader.
                if (p[0] & 0x80u) [[likely]] {
                    const std::int32_t len =
                        static_cast<std::int32_t>(p[0] & 0x3Fu) - static_cast<std::int32_t>(p[0] & 0x40u);
                    if (len < 1) {
                        if constexpr (K == FastKind::String) c[0] = '\0';
                        return 1 + len;
                    }
                    constexpr std::int32_t kMaxKeep =
                        K == FastKind::String ? static_cast<std::int32_t>(W) - 1 : W;
                    const std::int32_t keep = len < kMaxKeep ? len : kMaxKeep;
                    // A text at the end of the message: its kept bytes must lie inside too.
                    if (keep <= in.size - at - 1) {
                        detail::CopyShort(c, p + 1, static_cast<std::size_t>(keep));
                        if constexpr (K == FastKind::String) c[keep] = '\0';
                        return 1 + len;
                    }
                }
            }
        }
    }
    return Get<K, W>(in, at, c);
}

// A field that was not sent: from prev as it stands, else its default.
template <FastKind K, std::uint32_t W, std::int32_t D>
TRDCOMP_FORCE_INLINE void Fill(char* c, const char* prev, std::uint32_t off) {
    if (prev) {
        std::memcpy(c, prev + off, W);
    } else if constexpr (K == FastKind::Char) {
        *c = static_cast<char>(D);
    } else if constexpr (K == FastKind::Int) {
        detail::StoreI32(c, D);
    }
    // Everything else defaults to zero, which the cleared record holds.
}

// Does the decoder of a field of kind K write every byte of the field? The
// others (texts, blocks) write what they read and leave the rest as it was.
template <FastKind K>
inline constexpr bool kWritesWholeField = K == FastKind::Char || K == FastKind::Int || K == FastKind::Int64 ||
                                          K == FastKind::Double || K == FastKind::BlockLength;

// A sent field decoded over the previous record's copy of it: a text or
// block is cleared first, so that it reads as if decoded into a cleared
// record.
template <FastKind K, std::uint32_t W, bool kBmi2>
TRDCOMP_FORCE_INLINE std::int64_t PatchField(BoundedSource in, std::int64_t at, char* c) {
    if constexpr (!kWritesWholeField<K>) detail::ZeroFixed<W>(c);
    return GetField<K, W, kBmi2>(in, at, c);
}

// Reads a sent field at b[pos] by the chunk's stop bits (`stops`: bit i is
// the stop bit of b[i], none below pos), 72 bytes at b readable: the field's
// end is the lowest stop bit, found without waiting for the field before.
// Returns false, having written nothing, for a field these reads do not
// cover (a value of more than 8 bytes, a counted length of more than one
// byte or not above zero, a text past the readable bytes); the general
// reader takes it and the rest of the chunk. Same bytes written and the
// same end as GetField.
template <FastKind K, std::uint32_t W, bool kBmi2>
TRDCOMP_FORCE_INLINE bool PatchMasked(const byte* b, std::int64_t avail, std::uint32_t& pos, std::uint64_t& stops,
                                      char* c) {
    if constexpr (K == FastKind::String || K == FastKind::Bytes || K == FastKind::SizedBlock) {
        // A counted text or block: one length byte (1..63), then its bytes.
        if (pos >= 64) return false;
        const unsigned l = b[pos];
        if ((l & 0xC0u) != 0x80u || l == 0x80u) return false;
        const std::uint32_t len = l & 0x3Fu;
        constexpr std::uint32_t kMaxKeep = K == FastKind::String ? W - 1 : W;
        const std::uint32_t keep = len < kMaxKeep ? len : kMaxKeep;
        if (pos + 1 + keep > avail) return false;
        detail::ZeroFixed<W>(c);
        detail::CopyShort(c, b + pos + 1, keep);
        pos += 1 + len;
        stops = pos < 64 ? stops & (~std::uint64_t{0} << pos) : 0;
        return true;
    } else {
        if (stops == 0) return false;
        const auto e = static_cast<std::uint32_t>(std::countr_zero(stops));
        const std::uint32_t n = e - pos + 1;
        const byte* p = b + pos;
        if constexpr (K == FastKind::Ascii) {
            // The text's bytes, the last with its stop bit cleared; 0x80 alone
            // is the empty text. A text longer than the field keeps is the
            // general reader's.
            if (n > W - 1 || pos + W > avail) return false;
            detail::ZeroFixed<W>(c);
            if (p[0] != 0x80u) {
                detail::CopyAtMost<W>(c, p, n);
                c[n - 1] = static_cast<char>(p[n - 1] & 0x7Fu);
            }
        } else if constexpr (K == FastKind::Char) {
            if (n > 8) return false;
            *c = static_cast<char>(Int8OfBytes(p, n - 1));
        } else {
            if (n > 8) return false;
            const std::uint64_t x = internal::ValueOfBytes<true, kBmi2>(p, internal::Load64(p), n);
            if constexpr (K == FastKind::Int || K == FastKind::BlockLength) {
                detail::StoreI32(c, static_cast<std::int32_t>(static_cast<std::uint32_t>(x)));
            } else if constexpr (K == FastKind::Int64) {
                std::memcpy(c, &x, 8);
            } else {
                static_assert(K == FastKind::Double, "a kind without its masked reader");
                const double v = price::RestoredFast(static_cast<std::int64_t>(x));
                std::memcpy(c, &v, 8);
            }
        }
        pos = e + 1;
        stops &= stops - 1;
        return true;
    }
}

// Layouts of eight numbers wider than a char or more (quotes, positions,
// balances): the ones whose chunks are read by their stop bits, and whose
// records are also coded by the coders built for BMI2 (see common/Cpu.h)
// where the build has them. There, finding values and gathering and
// spreading their groups is most of the work; on a layout of texts and a
// few ints (an order) neither gains measurably, and both grow the code.
// Fields coded as stop-bit numbers among `fields` (chars too, if asked).
constexpr int Numbers(const auto& fields, bool chars) {
    int n = 0;
    for (const Field& f : fields)
        n += (chars && f.fast == FastKind::Char) || f.fast == FastKind::Int || f.fast == FastKind::Int64 ||
             f.fast == FastKind::Double || f.fast == FastKind::BlockLength;
    return n;
}
inline constexpr int kManyNumbersFrom = 8;
template <const auto& L>
inline constexpr bool kManyNumbers = Numbers(L.fields, false) >= kManyNumbersFrom;
template <const auto& L>
inline constexpr bool kBmi2Coded = TRDCOMP_HAVE_BMI2 && kManyNumbers<L>;

// Bytes from a chunk's first value that must lie inside the message for its
// fields to be read by their stop bits: the 64 bytes of the stop bits and the
// word a value at the last of them loads.
inline constexpr std::int64_t kMaskedWindow = 72;

// Chunks read by their stop bits: those with at least two numbers, and only
// when four or more of their fields were sent; finding the stop bits costs
// more than it saves on fewer.
template <auto Fs>
inline constexpr bool kMaskedChunk = Numbers(Fs, true) >= 2;

// The fields of one chunk (one presence byte `map`) decoded at in[cursor]:
// returns the cursor behind them. kPatch: the record already holds the
// previous record (the first: the defaults), so only the sent fields are
// written; else it is clear and the fields not sent are filled from prev.
template <auto Fs, bool kPatch, bool kBmi2, bool kStopBits = true>
TRDCOMP_FORCE_INLINE std::int64_t DecodeChunk(BoundedSource in, std::int64_t cursor, unsigned map, char* cur,
                                              const char* prev) {
    [&]<std::size_t... J>(std::index_sequence<J...>) TRDCOMP_LAMBDA_INLINE {
        if constexpr (kPatch) {
            if ((map & 0x7Fu) == 0) return;  // a chunk of unchanged fields
            // Fields from `from` on are read by the general reader.
            std::size_t from = 0;
            if constexpr (kMaskedChunk<Fs> && kStopBits) {
                // Four or more fields sent, inside the message by a window:
                // they are read by the chunk's stop bits until one needs the
                // general reader, which takes it and the rest.
                const std::int64_t at0 = cursor;
                const std::int64_t avail = in.size - at0;
                unsigned rest = map & 0x7Fu;
                rest &= rest - 1;
                rest &= rest - 1;
                rest &= rest - 1;  // the sent fields but the first three
                if (rest != 0 && at0 >= 0 && avail >= kMaskedWindow) {
                    const byte* b = in.p + at0;
                    std::uint64_t stops = StopBits64(b);
                    std::uint32_t pos = 0;
                    from = Fs.size();
                    const auto field = [&]<std::size_t I>() TRDCOMP_LAMBDA_INLINE {
                        constexpr Field F = Fs[I];
                        if (from == Fs.size() && (map & (0x40u >> I)) &&
                            !PatchMasked<F.fast, F.width, kBmi2>(b, avail, pos, stops, cur + F.offset))
                            from = I;
                    };
                    (field.template operator()<J>(), ...);
                    cursor = at0 + pos;
                }
            }
            ((J >= from && (map & (0x40u >> J))
                  ? (void)(cursor += PatchField<Fs[J].fast, Fs[J].width, kBmi2>(in, cursor, cur + Fs[J].offset))
                  : void()),
             ...);
        } else {
            ((map & (0x40u >> J)
                  ? (void)(cursor += GetField<Fs[J].fast, Fs[J].width, kBmi2>(in, cursor, cur + Fs[J].offset))
                  : Fill<Fs[J].fast, Fs[J].width, Fs[J].fastDefault>(cur + Fs[J].offset, prev, Fs[J].offset)),
             ...);
        }
    }(std::make_index_sequence<Fs.size()>{});
    return cursor;
}
template <auto Fs, bool kPatch, bool kStopBits>
[[gnu::noinline]] std::int64_t DecodeSharedChunk(BoundedSource in, std::int64_t cursor, unsigned map, char* cur,
                                                 const char* prev) {
    return DecodeChunk<Fs, kPatch, false, kStopBits>(in, cursor, map, cur, prev);
}
template <auto Fs, bool kPatch>
TRDCOMP_TARGET_BMI2 std::int64_t DecodeSharedChunkBmi2(BoundedSource in, std::int64_t cursor, unsigned map, char* cur,
                                                       const char* prev) {
    return DecodeChunk<Fs, kPatch, true>(in, cursor, map, cur, prev);
}

// Records of at most this many bytes are decoded by copy and patch: the
// previous record (the first: the defaults) copied whole, then the sent
// fields decoded over it. Larger records (whole blocks) are cleared and
// filled field by field, so that a block is written once.
inline constexpr std::uint32_t kPatchedRecordMax = 512;
template <const auto& L>
inline constexpr bool kPatched = L.size <= kPatchedRecordMax;

// The first record as the decoder fills it when nothing was sent: the char
// and int defaults, zero elsewhere.
template <const auto& L>
inline constexpr auto kDefaultRecord = [] {
    std::array<char, L.size> r{};
    for (const Field& f : L.fields) {
        if (f.fast == FastKind::Char) {
            // A char's default is a byte value: the encoder compares the
            // record's byte with this one.
            if (f.fastDefault < 0 || f.fastDefault > 255) throw "a char's default must be a byte value";
            r[f.offset] = static_cast<char>(f.fastDefault);
        } else if (f.fast == FastKind::Int) {
            const auto v = static_cast<std::uint32_t>(f.fastDefault);
            for (std::uint32_t k = 0; k < 4; ++k) r[f.offset + k] = static_cast<char>(v >> (8 * k) & 0xFFu);
        }
    }
    return r;
}();

template <const auto& L, std::size_t K, bool kBmi2, bool kStopBits>
TRDCOMP_FORCE_INLINE std::int64_t DecodeChunkOf(BoundedSource in, std::int64_t cursor, unsigned map, char* cur,
                                                const char* prev) {
    constexpr auto kFields = model::ChunkFields<L, K>();
    if constexpr (model::kChunkOutOfLine<L, K> && kPatched<L>) {
        // The record holds the previous one: a chunk of unchanged fields
        // costs no call.
        if ((map & 0x7Fu) == 0) return cursor;
    }
    if constexpr (model::kChunkOutOfLine<L, K> && kBmi2) {
        return DecodeSharedChunkBmi2<kFields, kPatched<L>>(in, cursor, map, cur, prev);
    } else if constexpr (model::kChunkOutOfLine<L, K>) {
        return DecodeSharedChunk<kFields, kPatched<L>, kStopBits && kManyNumbers<L>>(in, cursor, map, cur, prev);
    } else {
        return DecodeChunk<kFields, kPatched<L>, kBmi2, kStopBits && kManyNumbers<L>>(in, cursor, map, cur, prev);
    }
}

// One field of the encoder, the J-th of its presence byte: numbers are
// written whether sent or not and kept by advancing the cursor, so that a
// change costs no branch (the exact form writes only what is sent); the
// presence bit goes into `map`.
template <FastKind K, std::uint32_t W, std::size_t J, bool kExact, bool kBmi2>
TRDCOMP_FORCE_INLINE void EncodeField(const char* cur, const char* base, bool first, std::uint32_t off,
                                      std::uint32_t size, byte* out, std::uint32_t& n, unsigned& map) {
    const char* c = cur + off;
#if TRDCOMP_TEXT_MASKS
    if constexpr ((K == FastKind::Ascii || K == FastKind::String) && detail::kMaskedText<W>) {
        // One pass over the text: its masks against the previous record's
        // give both whether it is sent and its length.
        std::uint32_t len;
        bool sent = true;
        if (!first) {
            const detail::TextMasks m = detail::CompareText<W>(c, base + off);
            sent = detail::MaskedTextDiffers<W>(m, c, base + off, size - off);
            len = detail::MaskedLength<W>(m);
        } else {
            len = detail::TextLength<W>(c);
        }
        if (sent) {
            n += PutText<K, W, kExact>(out + n, c, len);
            map |= 0x40u >> J;
        }
        return;
    }
#endif
    const bool sent = Sent<K, W>(c, base, first, off, size);
    if constexpr (kAlwaysWritten<K> && !kExact) {
        const std::uint32_t k = Put<K, W, false, kBmi2>(out + n, c);
        n += k & (0u - static_cast<std::uint32_t>(sent));  // a mask, not a branch on sent
        map |= static_cast<unsigned>(sent) << (6 - J);
    } else if (sent) {
        n += Put<K, W, kExact, kBmi2>(out + n, c);
        map |= 0x40u >> J;
    }
}

// The fields of one chunk (one presence byte), coded at out + n: returns
// the new length, the chunk's presence bits in *map.
template <auto Fs, bool kExact, bool kBmi2>
TRDCOMP_FORCE_INLINE std::uint32_t EncodeChunk(const char* cur, const char* base, bool first, std::uint32_t size,
                                               byte* out, std::uint32_t n, unsigned* map) {
    unsigned bits = 0;
    [&]<std::size_t... J>(std::index_sequence<J...>) TRDCOMP_LAMBDA_INLINE {
        (EncodeField<Fs[J].fast, Fs[J].width, J, kExact, kBmi2>(cur, base, first, Fs[J].offset, size, out, n, bits),
         ...);
    }(std::make_index_sequence<Fs.size()>{});
    *map = bits;
    return n;
}
// The bytes a chunk's fields occupy, and the offset of its last text in the
// record (-1: none); `whole` when equal bytes mean unchanged fields (no
// double, whose NaN is always sent, no sized block, always sent).
struct ChunkSpan {
    std::uint32_t lo = 0, hi = 0;
    std::int64_t lastText = -1;
    bool whole = true;
};
template <auto Fs>
inline constexpr ChunkSpan kChunkSpan = [] {
    ChunkSpan s{Fs[0].offset, Fs[0].offset};
    for (const Field& f : Fs) {
        s.lo = f.offset < s.lo ? f.offset : s.lo;
        s.hi = f.offset + f.width > s.hi ? f.offset + f.width : s.hi;
        if ((f.fast == FastKind::String || f.fast == FastKind::Ascii) && static_cast<std::int64_t>(f.offset) > s.lastText)
            s.lastText = f.offset;
        if (f.fast == FastKind::Double || f.fast == FastKind::SizedBlock || f.fast == FastKind::BlockLength)
            s.whole = false;
    }
    return s;
}();

// Is every field of the chunk unsent against base, told by its bytes at
// once? Its bytes equal base's, and a terminator at or behind its last text
// within them stops every text's comparison (strcmp semantics) inside the
// chunk. False says nothing: the fields are then compared one by one.
template <auto Fs>
TRDCOMP_FORCE_INLINE bool ChunkUnchanged(const char* cur, const char* base) {
    constexpr ChunkSpan s = kChunkSpan<Fs>;
    if constexpr (!s.whole || s.hi - s.lo < 16 || s.hi - s.lo > 512) {
        return false;
    } else {
        if (!detail::BytesEqual<s.hi - s.lo>(cur + s.lo, base + s.lo)) return false;
        if constexpr (s.lastText < 0) {
            return true;
        } else {
            constexpr auto kTail = static_cast<std::uint32_t>(s.hi - s.lastText);
            return detail::TextLength<kTail>(cur + s.lastText) < kTail;
        }
    }
}

// Shared chunks are the heads records share (who sends, from where), which
// mostly stay the same through a message: tested as a whole first, in line,
// and coded field by field out of line only when that test fails.
template <auto Fs, bool kExact>
[[gnu::noinline]] std::uint32_t EncodeSharedChunk(const char* cur, const char* base, bool first, std::uint32_t size,
                                                  byte* out, std::uint32_t n, unsigned* map) {
    return EncodeChunk<Fs, kExact, false>(cur, base, first, size, out, n, map);
}
template <auto Fs, bool kExact>
TRDCOMP_TARGET_BMI2 std::uint32_t EncodeSharedChunkBmi2(const char* cur, const char* base, bool first,
                                                        std::uint32_t size, byte* out, std::uint32_t n,
                                                        unsigned* map) {
    return EncodeChunk<Fs, kExact, true>(cur, base, first, size, out, n, map);
}

template <const auto& L, std::size_t K, bool kExact, bool kBmi2>
TRDCOMP_FORCE_INLINE std::uint32_t EncodeChunkOf(const char* cur, const char* base, bool first, byte* out,
                                                 std::uint32_t n, unsigned* map) {
    constexpr auto kFields = model::ChunkFields<L, K>();
    if constexpr (model::kChunkOutOfLine<L, K>) {
        if (!first && ChunkUnchanged<kFields>(cur, base)) {
            *map = 0;
            return n;
        }
        if constexpr (kBmi2)
            return EncodeSharedChunkBmi2<kFields, kExact>(cur, base, first, L.size, out, n, map);
        else
            return EncodeSharedChunk<kFields, kExact>(cur, base, first, L.size, out, n, map);
    } else {
        return EncodeChunk<kFields, kExact, kBmi2>(cur, base, first, L.size, out, n, map);
    }
}

template <const auto& L, bool kExact, bool kBmi2>
TRDCOMP_FORCE_INLINE std::uint32_t EncodeFields(const char* cur, const char* prev, byte* out) {
    constexpr std::size_t P = kPresenceBytes<L>;
    unsigned map[P] = {};
    std::uint32_t n = P;
    const bool first = prev == nullptr;
    const char* const base = first ? kDefaultRecord<L>.data() : prev;
    [&]<std::size_t... K>(std::index_sequence<K...>) TRDCOMP_LAMBDA_INLINE {
        ((n = EncodeChunkOf<L, K, kExact, kBmi2>(cur, base, first, out, n, &map[K])), ...);
    }(std::make_index_sequence<P>{});
    [&]<std::size_t... K>(std::index_sequence<K...>) TRDCOMP_LAMBDA_INLINE {
        ((out[K] = static_cast<byte>(map[K] | (K + 1 == P ? 0x80u : 0u))), ...);
    }(std::make_index_sequence<P>{});
    return n;
}

}  // namespace internal

// Codes one record against prev (null: the defaults) at out, where
// MaxRecord<L>() + kEncodeSlack bytes may be written; returns its length.
// The exact form (kExact) writes only the bytes it returns, each value and
// text on its own: slower per value, but nothing to copy afterwards.
namespace internal {
template <const auto& L, bool kExact>
TRDCOMP_TARGET_BMI2 std::uint32_t EncodeRecordBmi2(const char* cur, const char* prev, byte* out) {
    return EncodeFields<L, kExact, true>(cur, prev, out);
}
}  // namespace internal

template <const auto& L, bool kExact = false, bool kBmi2 = false>
inline std::uint32_t EncodeRecord(const char* cur, const char* prev, byte* out) {
    if constexpr (kPresenceBytes<L> == 0) {
        return 0;
    } else if constexpr (kBmi2) {
        return internal::EncodeRecordBmi2<L, kExact>(cur, prev, out);
    } else {
        return internal::EncodeFields<L, kExact, false>(cur, prev, out);
    }
}

// Records of at most this many fields are coded in line in their run (the
// frames' loop over the records): a call and the registers it saves and
// restores are a large part of coding a small record, and each layout's run
// has one call site.
inline constexpr std::size_t kInlineRecordFields = 8;
template <const auto& L>
inline constexpr bool kInlineRecord = L.fields.size() <= kInlineRecordFields;


namespace internal {
template <const auto& L, bool kExact, bool kBmi2>
TRDCOMP_FORCE_INLINE std::uint32_t EncodeInRun(const char* cur, const char* prev, byte* out) {
    if constexpr (kPresenceBytes<L> == 0) {
        return 0;
    } else if constexpr (kInlineRecord<L>) {
        return EncodeFields<L, kExact, kBmi2>(cur, prev, out);
    } else {
        return EncodeRecord<L, kExact, kBmi2>(cur, prev, out);
    }
}
}  // namespace internal

// Decodes the record of `len` bytes at in[at] into cur against prev (null:
// the defaults). Reads outside the message see 0x80 and stop there. A
// patched layout's record is written whole; another's is cleared first
// unless the caller hands in one already zero.
namespace internal {
template <const auto& L, bool kZeroed, bool kBmi2, bool kStopBits = true>
TRDCOMP_FORCE_INLINE void DecodeFields(BoundedSource in, std::int64_t at, std::int64_t len, char* cur,
                                       const char* prev) {
    constexpr std::size_t P = kPresenceBytes<L>;
    if constexpr (kPatched<L>) {
        detail::CopyRecordBytes<L.size>(cur, prev != nullptr ? prev : kDefaultRecord<L>.data());
    } else if constexpr (!kZeroed) {
        std::memset(cur, 0, L.size);
    }
    byte map[P > 0 ? P : 1] = {};
    std::int64_t mapLen = 1;
    // Most maps are one byte: its stop bit read at once (the bytes of the
    // map behind it stay clear: their fields were not sent).
    if (len > 0 && at >= 0 && at < in.size && (in.p[at] & 0x80u)) [[likely]] {
        map[0] = in.p[at];
    } else if (const std::int64_t k = P > 1 && at >= 0 && at <= in.size - 8 ? MapInWord(in.p + at, len) : 0) {
        // A map of several bytes, its stop bit found in one word.
        mapLen = k;
        const std::uint64_t w = internal::Load64(in.p + at);
        for (std::size_t j = 0; j < P; ++j) map[j] = j < static_cast<std::size_t>(k) ? static_cast<byte>(w >> (8 * j)) : 0;
    } else {
        mapLen = ReadPresenceMap(in, at, len, map, P);
        // No stop bit within the record: nothing was sent.
        if (mapLen == 0) std::memset(map, 0, sizeof map);
    }
    std::int64_t cursor = at + mapLen;
    [&]<std::size_t... K>(std::index_sequence<K...>) TRDCOMP_LAMBDA_INLINE {
        ((cursor = internal::DecodeChunkOf<L, K, kBmi2, kStopBits>(in, cursor, map[K], cur, prev)), ...);
    }(std::make_index_sequence<P>{});
}
}  // namespace internal

namespace internal {
template <const auto& L, bool kZeroed>
TRDCOMP_TARGET_BMI2 void DecodeRecordBmi2(BoundedSource in, std::int64_t at, std::int64_t len, char* cur,
                                          const char* prev) {
    DecodeFields<L, kZeroed, true>(in, at, len, cur, prev);
}
}  // namespace internal

// kStopBits false: every field by the general reader (the reference the
// tests hold the stop-bit reads to).
template <const auto& L, bool kZeroed = false, bool kBmi2 = false, bool kStopBits = true>
inline void DecodeRecord(const BoundedSource& in, std::int64_t at, std::int64_t len, char* cur, const char* prev) {
    if constexpr (kBmi2) {
        internal::DecodeRecordBmi2<L, kZeroed>(in, at, len, cur, prev);
    } else {
        internal::DecodeFields<L, kZeroed, false, kStopBits>(in, at, len, cur, prev);
    }
}

namespace internal {
// A record of a run: in line when it is small (see kInlineRecord).
template <const auto& L, bool kBmi2, bool kStopBits>
TRDCOMP_FORCE_INLINE void DecodeInRun(BoundedSource in, std::int64_t at, std::int64_t len, char* cur,
                                      const char* prev) {
    if constexpr (kInlineRecord<L>) {
        DecodeFields<L, true, kBmi2, kStopBits>(in, at, len, cur, prev);
    } else {
        DecodeRecord<L, true, kBmi2, kStopBits>(in, at, len, cur, prev);
    }
}
}  // namespace internal

// Can every ascii field of the record travel? Its coding ends a text at the
// first byte with bit 7, so a text holding one (0x80 and above) would run
// into the next field. Checked only in strict mode.
template <const auto& L>
inline bool AsciiRepresentable(const char* rec) {
    for (const Field& f : L.fields) {
        if (f.fast != FastKind::Ascii) continue;
        const char* t = rec + f.offset;
        for (std::uint32_t i = 0; i < f.width && t[i] != 0; ++i)
            if (static_cast<unsigned char>(t[i]) >= 0x80) return false;
    }
    return true;
}

// The Fast record policy of the shared frames (common/RecordFrames.h), for
// records of layout L: a u16 length, then the record coded against the one
// before. An encoder may use kEncodeSlack bytes behind its worst case as
// scratch. Records of at most kExactInPlaceMax bytes, and the small records
// coded in line, also have the exact encoder: a classic call codes its last record with it straight into the
// caller's buffer. Encoding into scratch and reading it back right away
// waits for the encoder's overlapping stores: about a quarter of the pack of
// a one-record request.
template <const auto& L, bool kBmi2 = false>
struct RecordCoder {
    static constexpr int kLengthBytes = 2;
    static constexpr std::size_t kMaxRecord = MaxRecord<L>();
    static_assert(kMaxRecord <= 0xFFFF, "a coded record's length must fit its u16 slot");
    static constexpr std::size_t kSlack = kEncodeSlack;
    static constexpr std::int64_t kLeastRecord = static_cast<std::int64_t>(kPresenceBytes<L>);
    static constexpr bool kExactWrites = false;
    static constexpr bool kExactInPlace = kMaxRecord <= kExactInPlaceMax || kInlineRecord<L>;

    static bool Representable(const char* rec) { return AsciiRepresentable<L>(rec); }
    TRDCOMP_FORCE_INLINE static std::int64_t Encode(const char* rec, const char* prev, char* dst) {
        return static_cast<std::int64_t>(
            internal::EncodeInRun<L, false, kBmi2>(rec, prev, reinterpret_cast<byte*>(dst)));
    }
    TRDCOMP_FORCE_INLINE static std::int64_t EncodeExact(const char* rec, const char* prev, char* dst) {
        return static_cast<std::int64_t>(
            internal::EncodeInRun<L, true, kBmi2>(rec, prev, reinterpret_cast<byte*>(dst)));
    }
    static void StoreLength(char* at, std::int64_t n) { detail::StoreU16(at, static_cast<std::uint16_t>(n)); }
};

// Codes records of layout L (data of `extent` bytes, `stride` apart) as
// u16-length-prefixed records at out + pos, each against the one before.
// False when the call's capacity ran out.
namespace internal {
template <const auto& L>
TRDCOMP_TARGET_BMI2 bool EncodeRunBmi2(detail::Call& call, char* out, std::int64_t& pos, const char* data,
                                       std::int64_t extent, std::int64_t count, std::int32_t stride) {
    return detail::EncodeRecords(call, RecordCoder<L, true>{}, L.size, out, pos, data, extent, count, stride);
}
}  // namespace internal

template <const auto& L>
TRDCOMP_FORCE_INLINE bool EncodeRun(detail::Call& call, char* out, std::int64_t& pos, const char* data, std::int64_t extent,
                                    std::int64_t count, std::int32_t stride) {
    if constexpr (internal::kBmi2Coded<L>) {
        if (detail::UseBmi2()) return internal::EncodeRunBmi2<L>(call, out, pos, data, extent, count, stride);
    }
    return detail::EncodeRecords(call, RecordCoder<L>{}, L.size, out, pos, data, extent, count, stride);
}

// Decodes up to `count` records from in[cursor, ...) into consecutive slots
// of a freshly zeroed restore buffer, each against the decoded one before;
// stops when the cursor reaches inLen.
// Returns the records decoded.
template <const auto& L, bool kBmi2 = false, bool kStopBits = true>
TRDCOMP_FORCE_INLINE std::int64_t DecodeRunInLine(BoundedSource in, std::int64_t& cursorOut, std::int64_t count,
                                                  char* slots) {
    // The source and the cursor in locals: the records' byte stores cannot
    // change them, so they stay in registers.
    std::int64_t cursor = cursorOut;
    const char* prev = nullptr;
    std::int64_t i = 0;
    for (; i < count && cursor < in.size; ++i) {
        const std::int64_t len = cursor + 2 <= in.size ? static_cast<std::int64_t>(detail::LoadU16(in.p + cursor))
                                                       : static_cast<std::int64_t>(in[cursor]) |
                                                             static_cast<std::int64_t>(in[cursor + 1]) << 8;
        char* rec = slots + i * L.size;
        internal::DecodeInRun<L, kBmi2, kStopBits>(in, cursor + 2, len, rec, prev);
        prev = rec;
        cursor += 2 + len;
    }
    cursorOut = cursor;
    return i;
}
// The run as a function of its own, for large layouts; a small layout's run
// is in line in its frame (Frames::DecodeRun), which has one call site each.
template <const auto& L>
inline std::int64_t DecodeRun(BoundedSource in, std::int64_t& cursor, std::int64_t count, char* slots) {
    return DecodeRunInLine<L>(in, cursor, count, slots);
}
// The run built for BMI2 (common/Cpu.h): the same records, the same cursor.
template <const auto& L>
TRDCOMP_TARGET_BMI2 std::int64_t DecodeRunBmi2(BoundedSource in, std::int64_t& cursor, std::int64_t count,
                                               char* slots) {
    return DecodeRunInLine<L, true>(in, cursor, count, slots);
}

// The Fast restore policy of the shared frames (common/RecordFrames.h): the
// stream carries a u16 count behind the head (one per section in an
// answer, all counts first); a coded record takes its u16 length at least.
// Under a version below 1 coded records are not decoded.
struct Frames {
    static constexpr int kCountBytes = 2;
    static constexpr int kMinCoded = 2;
    static constexpr bool kZeroLengthOnFailure = true;
    static constexpr bool kClearsSectionsBit = true;
    int version;

    bool Decodes() const { return version >= 1; }
    static bool CountAgrees(const char* at, std::int32_t count) { return detail::LoadU16(at) == count; }
    template <const auto& L>
    static constexpr std::int64_t Tail() {
        return 0;
    }
    template <const auto& L>
    static constexpr bool WritesRecords() {
        return internal::kPatched<L>;
    }
    template <const auto& L>
    TRDCOMP_FORCE_INLINE static std::int64_t DecodeRun(const char* in, std::int64_t inLen, std::int64_t& cursor,
                                                       std::int64_t count, char* slots) {
        const BoundedSource source{reinterpret_cast<const byte*>(in), inLen};
        if constexpr (internal::kBmi2Coded<L>) {
            if (detail::UseBmi2()) return DecodeRunBmi2<L>(source, cursor, count, slots);
        }
        if constexpr (kInlineRecord<L>) {
            return DecodeRunInLine<L>(source, cursor, count, slots);
        } else {
            return fast::DecodeRun<L>(source, cursor, count, slots);
        }
    }
    // One section: its count in the head. Several: the stream's u16 counts
    // (none under a version below 1).
    template <int k>
    Reason ReadCounts(const char* in, std::int64_t inLen, std::int32_t headLen, std::int32_t* counts,
                      std::int64_t& cursor) const {
        if (Decodes() && inLen - headLen < 2 * k) return Reason::count_past_message;
        if constexpr (k == 1) {
            counts[0] = head::AnswerArray(in).count;
        } else {
            for (int j = 0; j < k; ++j) counts[j] = Decodes() ? detail::LoadU16(in + headLen + 2 * j) : 0;
        }
        cursor = headLen + 2 * k;
        return Reason::none;
    }
    static std::int64_t RecordRoom(std::int64_t inLen, std::int32_t headLen, std::int64_t /*cursor*/) {
        return (inLen - headLen) / 2;
    }
};

// ---- requests ----

// Appends the coded records of a request behind the head at out (outLen
// bytes so far): the u16 count, then each record. Records shorter than one
// record travel raw, flags untouched. Writes nothing past the call's
// capacity; a call that measures learns the bytes the message needs.
// Out of line: the route tables and the members share this one instance.
template <const auto& L>
[[gnu::noinline]] int PackRequest(detail::Call& call, char* out, int& outLen, const char* data, int dataLen, int version) {
    if (dataLen < static_cast<std::int64_t>(L.size)) {
        if (dataLen < 0 || (dataLen > 0 && data == nullptr)) return call.Refuse(Reason::null_argument);
        if (dataLen > call.capacity - outLen) return call.TooSmall(static_cast<std::int64_t>(outLen) + dataLen);
        if (dataLen > 0) std::memcpy(out + outLen, data, static_cast<std::size_t>(dataLen));
        outLen += dataLen;
        return 1;
    }
    if (version < 1) return 1;
    const head::Array array = head::RequestArray(out);
    const auto count = static_cast<std::uint16_t>(array.count);
    std::int64_t pos = outLen;
    if (call.capacity - pos >= 2) {
        detail::StoreU16(out + pos, count);
    } else if (!call.measure) {
        return call.TooSmall(pos + 2);
    }
    pos += 2;
    const bool fits = EncodeRun<L>(call, out, pos, data, dataLen, count, array.size);
    if (!fits) return 0;
    if (pos > call.capacity) return call.TooSmall(pos);
    outLen = static_cast<int>(pos);
    detail::SetFlags(out, TRDCOMP_FLAG_CODED);
    return 1;
}

template <const auto& L>
[[gnu::noinline]] int RestoreRequest(detail::Call& call, const char* in, int inLen, char** out, int& outLen, int version) {
    return detail::RestoreRequestFrame<L>(call, Frames{version}, in, inLen, out, outLen);
}

// ---- answers ----

// Appends the coded arrays of an answer behind its head: every array's u16
// count, then each array's records as a chain of its own.
template <class Shape>
[[gnu::noinline]] int PackAnswer(detail::Call& call, char* out, int& outLen, const tagANS_Proc* proc,
                                 char* const arrays[5], int version) {
    if (version < 1) return 1;
    std::int64_t pos = outLen;
    for (int j = 0; j < Shape::kCount; ++j) {
        if (call.capacity - pos >= 2) {
            detail::StoreU16(out + pos, static_cast<std::uint16_t>(proc->nRecCount[j]));
        } else if (!call.measure) {
            return call.TooSmall(pos + 2);
        }
        pos += 2;
    }
    // Each array codes as many records as its u16 count says.
    const bool fits = detail::PackSections<Shape>(
        proc, arrays, [&]<const auto& L>(const char* data, std::int64_t extent, std::int32_t count, std::int32_t size) {
            return EncodeRun<L>(call, out, pos, data, extent, static_cast<std::uint16_t>(count), size);
        });
    if (!fits) return 0;
    if (pos > call.capacity) return call.TooSmall(pos);
    outLen = static_cast<int>(pos);
    detail::SetFlags(out, TRDCOMP_FLAG_CODED);
    return 1;
}

template <class Shape>
[[gnu::noinline]] int RestoreAnswer(detail::Call& call, const char* in, int inLen, char** out, int& outLen, int version) {
    return detail::RestoreAnswerFrame<Shape>(call, Frames{version}, in, inLen, out, outLen);
}

}  // namespace trdcomp::fast
