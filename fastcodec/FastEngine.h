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

#include <cstdint>
#include <cstring>
#include <utility>

#include "common/Bytes.h"
#include "common/Framing.h"
#include "common/Inline.h"
#include "common/Layout.h"
#include "common/RecordFrames.h"
#include "common/Text.h"
#include "fastcodec/FastPrimitives.h"

namespace trdcomp::fast {

using model::FastKind;
using model::Field;
namespace d = trdcomp::detail;

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
        default: return 5 + f.width;
    }
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

// Records whose worst case is at most this many bytes have an exact encoder
// beside the wide one (RecordCoder).
inline constexpr std::size_t kExactInPlaceMax = 64;

namespace internal {

template <Field F>
TRDCOMP_FORCE_INLINE std::int32_t I32(const char* rec) {
    return d::LoadI32(rec + F.offset);
}

// Is the field sent? Against prev, or for the first record (prev null)
// against the defaults. One instantiation serves both: the test of prev is
// the same for every field of a record and predicted.
template <Field F, const auto& L>
TRDCOMP_FORCE_INLINE bool Sent(const char* cur, const char* prev) {
    const char* c = cur + F.offset;
    if constexpr (F.fast == FastKind::Char) {
        return prev ? *c != prev[F.offset] : static_cast<unsigned char>(*c) != F.fastDefault;
    } else if constexpr (F.fast == FastKind::Int) {
        return prev ? I32<F>(cur) != I32<F>(prev) : I32<F>(cur) != F.fastDefault;
    } else if constexpr (F.fast == FastKind::Int64) {
        std::int64_t v, w = 0;
        std::memcpy(&v, c, 8);
        if (prev) std::memcpy(&w, prev + F.offset, 8);
        return v != w;
    } else if constexpr (F.fast == FastKind::Double) {
        double v, w = 0.0;
        std::memcpy(&v, c, 8);
        if (prev) std::memcpy(&w, prev + F.offset, 8);
        return v != w;  // a NaN always counts as changed
    } else if constexpr (F.fast == FastKind::String || F.fast == FastKind::Ascii) {
        // strcmp semantics: a full text compares on into the bytes behind it,
        // but never past the end of the record. The first record sends its texts.
        return !prev || d::TextDiffers<F.width>(c, prev + F.offset, L.size - F.offset);
    } else if constexpr (F.fast == FastKind::Bytes) {
        return prev ? d::BlockDiffers<F.width>(c, prev + F.offset) : d::AnyNonZero<F.width>(c);
    } else {
        return true;  // the sized block and its length are always sent
    }
}

// A signed value, as whole words (kExact false: the bytes behind it are
// scratch) or as exactly its own bytes. kBits is the width of the value's
// type: one of at most 55 bits codes in at most 8 bytes, one word.
template <bool kExact, int kBits = 64>
TRDCOMP_FORCE_INLINE std::uint32_t PutSigned(byte* out, std::int64_t v) {
    if constexpr (kExact) {
        return FastPutInt64(out, v);
    } else if constexpr (kBits <= 55) {
        const std::uint32_t n = FastSizeInt64(v);
        internal::PutWord(out, static_cast<std::uint64_t>(v) & 0x7FFFFFFFFFFFFFFFull, n, v < 0 ? 0x40u : 0u);
        return n;
    } else {
        return PutInt64Wide(out, v);
    }
}

// The length of a text of at most 63 bytes: one byte, its stop bit set.
TRDCOMP_FORCE_INLINE std::uint32_t PutShortLength(byte* out, std::uint32_t n) {
    out[0] = static_cast<byte>(0x80u | n);
    return 1;
}

// Writes the field's value at out and returns the bytes of the value. The
// wide form may write up to MaxCoded(F) + kEncodeSlack bytes; the exact form
// (kExact) writes only the bytes it returns.
template <Field F, bool kExact = false>
TRDCOMP_FORCE_INLINE std::uint32_t Put(byte* out, const char* cur) {
    const char* c = cur + F.offset;
    if constexpr (F.fast == FastKind::Char) {
        return PutSigned<kExact, 8>(out, static_cast<signed char>(*c));
    } else if constexpr (F.fast == FastKind::Int || F.fast == FastKind::BlockLength) {
        return PutSigned<kExact, 32>(out, I32<F>(cur));
    } else if constexpr (F.fast == FastKind::Int64) {
        std::int64_t v;
        std::memcpy(&v, c, 8);
        return PutSigned<kExact>(out, v);
    } else if constexpr (F.fast == FastKind::Double) {
        double v;
        std::memcpy(&v, c, 8);
        return PutSigned<kExact>(out, d::TruncToInt64(v * 1000.0 + 0.00005));
    } else if constexpr (F.fast == FastKind::String) {
        // The length, then the text: the whole field is copied when it is
        // short, only the text's bytes count.
        const std::uint32_t n = d::TextLength<F.width>(c);
        std::uint32_t k;
        if constexpr (F.width <= 63) {
            k = PutShortLength(out, n);
        } else {
            k = PutSigned<kExact, 32>(out, static_cast<std::int32_t>(n));
        }
        if constexpr (kExact && F.width <= 64) {
            d::CopyAtMost<F.width>(out + k, c, n);
        } else if constexpr (F.width <= 64) {
            std::memcpy(out + k, c, F.width);
        } else {
            std::memcpy(out + k, c, n);
        }
        return k + n;
    } else if constexpr (F.fast == FastKind::Ascii) {
        return FastPutAscii(out, c, static_cast<int>(F.width));
    } else if constexpr (F.fast == FastKind::Bytes) {
        return FastPutBytes(out, c, static_cast<std::int32_t>(F.width));
    } else {
        // The block, with its length when that lies in 0..N, else N.
        const std::int32_t len = d::LoadI32(c + F.width);
        const std::int32_t n = len >= 0 && len <= static_cast<std::int32_t>(F.width) ? len : F.width;
        return FastPutBytes(out, c, n);
    }
}

// Is the value always written, sent or not (cheap to code, no branch)?
template <Field F>
inline constexpr bool kAlwaysWritten = F.fast == FastKind::Char || F.fast == FastKind::Int ||
                                       F.fast == FastKind::Int64 || F.fast == FastKind::Double;

// Reads a value through the bounded source into the field at c: the cold
// path near the message's end, out of line and shared by every field of the
// same kind and width.
template <FastKind K, std::uint32_t W>
[[gnu::noinline]] std::int64_t Get(const BoundedSource& in, std::int64_t at, char* c) {
    if constexpr (K == FastKind::Char) {
        signed char v;
        const std::int64_t k = GetSignedAt(in, at, &v);
        *c = static_cast<char>(v);
        return k;
    } else if constexpr (K == FastKind::Int || K == FastKind::BlockLength) {
        std::int32_t v;
        const std::int64_t k = GetSignedAt(in, at, &v);
        d::StoreI32(c, v);
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
        return GetBytesAt(in, at, c, static_cast<int>(W));
    }
}

// Bytes from the cursor that the unchecked reader of a field may read: one
// word for a number, or for the length of a text or block (whose kept bytes
// are checked against the message once the length is known). The ascii kind
// searches for its stop byte and is always checked.
template <Field F>
constexpr std::int64_t Window() {
    return F.fast == FastKind::Ascii ? -1 : 8;
}

// Reads a field at in[at]: unchecked when its window lies inside the
// message, else through the bounded source (same values, same count).
template <Field F>
TRDCOMP_FORCE_INLINE std::int64_t GetField(const BoundedSource& in, std::int64_t at, char* cur) {
    constexpr std::int64_t kWindow = Window<F>();
    if constexpr (kWindow > 0) {
        if (at >= 0 && at <= in.size - kWindow) [[likely]] {
            const byte* p = in.p + at;
            char* c = cur + F.offset;
            if constexpr (F.fast == FastKind::Char) {
                signed char v;
                if (const std::int64_t k = GetWord(p, &v)) {
                    *c = static_cast<char>(v);
                    return k;
                }
            } else if constexpr (F.fast == FastKind::Int || F.fast == FastKind::BlockLength) {
                std::int32_t v;
                if (const std::int64_t k = GetWord(p, &v)) {
                    d::StoreI32(c, v);
                    return k;
                }
            } else if constexpr (F.fast == FastKind::Int64) {
                std::int64_t v;
                if (const std::int64_t k = GetWord(p, &v)) {
                    std::memcpy(c, &v, 8);
                    return k;
                }
            } else if constexpr (F.fast == FastKind::Double) {
                std::int64_t v;
                if (const std::int64_t k = GetWord(p, &v)) {
                    const double x = static_cast<double>(v) / 1000.0;
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
                        if constexpr (F.fast == FastKind::String) c[0] = '\0';
                        return 1 + len;
                    }
                    constexpr std::int32_t kMaxKeep =
                        F.fast == FastKind::String ? static_cast<std::int32_t>(F.width) - 1 : F.width;
                    const std::int32_t keep = len < kMaxKeep ? len : kMaxKeep;
                    // A text at the end of the message: its kept bytes must lie inside too.
                    if (keep <= in.size - at - 1) {
                        d::CopyShort(c, p + 1, static_cast<std::size_t>(keep));
                        if constexpr (F.fast == FastKind::String) c[keep] = '\0';
                        return 1 + len;
                    }
                }
            }
        }
    }
    return Get<F.fast, F.width>(in, at, cur + F.offset);
}

// A field that was not sent: from prev as it stands, else its default.
template <Field F>
TRDCOMP_FORCE_INLINE void Fill(char* cur, const char* prev) {
    if (prev) {
        std::memcpy(cur + F.offset, prev + F.offset, F.width);
    } else if constexpr (F.fast == FastKind::Char) {
        cur[F.offset] = static_cast<char>(F.fastDefault);
    } else if constexpr (F.fast == FastKind::Int) {
        d::StoreI32(cur + F.offset, F.fastDefault);
    }
    // Everything else defaults to zero, which the cleared record holds.
}

// One field of the encoder: numbers are written whether sent or not and
// kept by advancing the cursor, so that a change costs no branch (the exact
// form writes only what is sent); the presence bits gather in `map`.
template <std::size_t I, const auto& L, bool kExact>
TRDCOMP_FORCE_INLINE void EncodeField(const char* cur, const char* prev, byte* out, std::uint32_t& n,
                                               byte* map) {
    constexpr Field F = L.fields[I];
    const bool sent = Sent<F, L>(cur, prev);
    if constexpr (kAlwaysWritten<F> && !kExact) {
        const std::uint32_t k = Put<F>(out + n, cur);
        n += sent ? k : 0u;
        map[I / 7] |= static_cast<byte>(static_cast<unsigned>(sent) << (6 - I % 7));
    } else if (sent) {
        n += Put<F, kExact>(out + n, cur);
        map[I / 7] |= static_cast<byte>(0x40u >> (I % 7));
    }
}

template <const auto& L, bool kExact>
TRDCOMP_FORCE_INLINE std::uint32_t EncodeFields(const char* cur, const char* prev, byte* out) {
    constexpr std::size_t P = kPresenceBytes<L>;
    byte map[P] = {};
    std::uint32_t n = P;
    [&]<std::size_t... I>(std::index_sequence<I...>) TRDCOMP_LAMBDA_INLINE {
        (EncodeField<I, L, kExact>(cur, prev, out, n, map), ...);
    }(std::make_index_sequence<L.fields.size()>{});
    map[P - 1] |= 0x80u;
    std::memcpy(out, map, P);
    return n;
}

}  // namespace internal

// Codes one record against prev (null: the defaults) at out, where
// MaxRecord<L>() + kEncodeSlack bytes may be written; returns its length.
// The exact form (kExact) writes only the bytes it returns, each value and
// text on its own: slower per value, but nothing to copy afterwards.
template <const auto& L, bool kExact = false>
inline std::uint32_t EncodeRecord(const char* cur, const char* prev, byte* out) {
    if constexpr (kPresenceBytes<L> == 0) {
        return 0;
    } else {
        return internal::EncodeFields<L, kExact>(cur, prev, out);
    }
}

// Decodes the record of `len` bytes at in[at] into cur against prev (null:
// the defaults). Reads outside the message see 0x80 and stop there. The
// record is cleared first unless the caller hands in one already zero.
template <const auto& L, bool kZeroed = false>
inline void DecodeRecord(const BoundedSource& in, std::int64_t at, std::int64_t len, char* cur, const char* prev) {
    constexpr std::size_t P = kPresenceBytes<L>;
    if constexpr (!kZeroed) std::memset(cur, 0, L.size);
    byte map[P > 0 ? P : 1] = {};
    const std::int64_t mapLen = ReadPresenceMap(in, at, len, map, P);
    // No stop bit within the record: nothing was sent.
    if (mapLen == 0) std::memset(map, 0, sizeof map);
    std::int64_t cursor = at + mapLen;
    [&]<std::size_t... I>(std::index_sequence<I...>) TRDCOMP_LAMBDA_INLINE {
        ((map[I / 7] & (0x40u >> (I % 7)) ? (void)(cursor += internal::GetField<L.fields[I]>(in, cursor, cur))
                                           : internal::Fill<L.fields[I]>(cur, prev)),
         ...);
    }(std::make_index_sequence<L.fields.size()>{});
}

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
// scratch. Records of at most kExactInPlaceMax bytes also have the exact
// encoder: a classic call codes its last record with it straight into the
// caller's buffer. Encoding into scratch and reading it back right away
// waits for the encoder's overlapping stores: about a quarter of the pack of
// a one-record request.
template <const auto& L>
struct RecordCoder {
    static constexpr int kLengthBytes = 2;
    static constexpr std::size_t kMaxRecord = MaxRecord<L>();
    static_assert(kMaxRecord <= 0xFFFF, "a coded record's length must fit its u16 slot");
    static constexpr std::size_t kSlack = kEncodeSlack;
    static constexpr std::int64_t kLeastRecord = static_cast<std::int64_t>(kPresenceBytes<L>);
    static constexpr bool kExactWrites = false;
    static constexpr bool kExactInPlace = kMaxRecord <= kExactInPlaceMax;

    static bool Representable(const char* rec) { return AsciiRepresentable<L>(rec); }
    static std::int64_t Encode(const char* rec, const char* prev, char* dst) {
        return static_cast<std::int64_t>(EncodeRecord<L>(rec, prev, reinterpret_cast<byte*>(dst)));
    }
    static std::int64_t EncodeExact(const char* rec, const char* prev, char* dst) {
        return static_cast<std::int64_t>(EncodeRecord<L, true>(rec, prev, reinterpret_cast<byte*>(dst)));
    }
    static void StoreLength(char* at, std::int64_t n) { d::StoreU16(at, static_cast<std::uint16_t>(n)); }
};

// Codes records of layout L (data of `extent` bytes, `stride` apart) as
// u16-length-prefixed records at out + pos, each against the one before.
// False when the capacity ran out.
template <const auto& L>
inline bool EncodeRun(char* out, std::int64_t& pos, std::int64_t cap, const char* data, std::int64_t extent,
                      std::int64_t count, std::int32_t stride) {
    return d::EncodeRecords(RecordCoder<L>{}, L.size, out, pos, cap, data, extent, count, stride);
}

// Decodes up to `count` records from in[cursor, ...) into consecutive slots
// of a freshly zeroed restore buffer, each against the decoded one before;
// stops when the cursor reaches inLen.
// Returns the records decoded.
template <const auto& L>
inline std::int64_t DecodeRun(const BoundedSource& in, std::int64_t& cursor, std::int64_t count, char* slots) {
    const char* prev = nullptr;
    std::int64_t i = 0;
    for (; i < count && cursor < in.size; ++i) {
        const std::int64_t len = cursor + 2 <= in.size ? static_cast<std::int64_t>(d::LoadU16(in.p + cursor))
                                                       : static_cast<std::int64_t>(in[cursor]) |
                                                             static_cast<std::int64_t>(in[cursor + 1]) << 8;
        char* rec = slots + i * L.size;
        DecodeRecord<L, true>(in, cursor + 2, len, rec, prev);
        prev = rec;
        cursor += 2 + len;
    }
    return i;
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
    static bool CountAgrees(const char* at, std::int32_t count) { return d::LoadU16(at) == count; }
    template <const auto& L>
    static constexpr std::int64_t Tail() {
        return 0;
    }
    template <const auto& L>
    static std::int64_t DecodeRun(const char* in, std::int64_t inLen, std::int64_t& cursor, std::int64_t count,
                                  char* slots) {
        return fast::DecodeRun<L>(BoundedSource{reinterpret_cast<const byte*>(in), inLen}, cursor, count, slots);
    }
    // One section: its count in the head. Several: the stream's u16 counts
    // (none under a version below 1).
    template <int k>
    Reason ReadCounts(const char* in, std::int64_t inLen, std::int32_t headLen, std::int32_t* counts,
                      std::int64_t& cursor) const {
        if (Decodes() && inLen - headLen < 2 * k) return Reason::count_past_message;
        if constexpr (k == 1) {
            counts[0] = d::LoadI32(in + d::kAnsOffCount);
        } else {
            for (int j = 0; j < k; ++j) counts[j] = Decodes() ? d::LoadU16(in + headLen + 2 * j) : 0;
        }
        cursor = headLen + 2 * k;
        return Reason::none;
    }
    static std::int64_t RecordRoom(std::int64_t inLen, std::int32_t headLen, std::int64_t /*cursor*/) {
        return (inLen - headLen) / 2;
    }
};

// ---- requests ----

template <const auto& L>
int PackRequest(char* out, int& outLen, const char* data, int dataLen, int version, std::int64_t cap = d::kUnbounded) {
    if (dataLen < static_cast<std::int64_t>(L.size)) {
        // Shorter than one record: the bytes travel raw, flags untouched.
        if (dataLen < 0 || (dataLen > 0 && data == nullptr)) return d::Refuse(Reason::null_argument);
        if (dataLen > cap - outLen) return d::Refuse(Reason::buffer_too_small);
        if (dataLen > 0) std::memcpy(out + outLen, data, static_cast<std::size_t>(dataLen));
        outLen += dataLen;
        return 1;
    }
    if (version < 1) return 1;
    const std::uint16_t count = static_cast<std::uint16_t>(d::LoadI32(out + d::kReqOffCount));
    std::int64_t pos = outLen;
    if (cap - pos < 2) return d::Refuse(Reason::buffer_too_small);
    d::StoreU16(out + pos, count);
    pos += 2;
    const bool fits = EncodeRun<L>(out, pos, cap, data, dataLen, count, d::LoadI32(out + d::kReqOffSize));
    outLen = static_cast<int>(pos);
    if (!fits) return 0;
    d::SetFlags(out, TRDCOMP_FLAG_CODED);
    return 1;
}

template <const auto& L>
int RestoreRequest(char* in, int inLen, char** out, int& outLen, int version) {
    return d::RestoreRequestFrame<L>(Frames{version}, in, inLen, out, outLen);
}

// ---- answers ----

template <class Shape>
int PackAnswer(char* out, int& outLen, const tagANS_Proc* proc, char* const arrays[5], int version,
               std::int64_t cap = d::kUnbounded) {
    if (version < 1) return 1;
    std::int64_t pos = outLen;
    if (cap - pos < 2 * Shape::kCount) return d::Refuse(Reason::buffer_too_small);
    for (int j = 0; j < Shape::kCount; ++j) {
        d::StoreU16(out + pos, static_cast<std::uint16_t>(proc->nRecCount[j]));
        pos += 2;
    }
    // Each array codes as many records as its u16 count says.
    const bool fits = d::PackSections<Shape>(
        proc, arrays, [&]<const auto& L>(const char* data, std::int64_t extent, std::int32_t count, std::int32_t size) {
            return EncodeRun<L>(out, pos, cap, data, extent, static_cast<std::uint16_t>(count), size);
        });
    outLen = static_cast<int>(pos);
    if (!fits) return 0;
    d::SetFlags(out, TRDCOMP_FLAG_CODED);
    return 1;
}

template <class Shape>
int RestoreAnswer(char* in, int inLen, char** out, int& outLen, int version) {
    return d::RestoreAnswerFrame<Shape>(Frames{version}, in, inLen, out, outLen);
}

}  // namespace trdcomp::fast
