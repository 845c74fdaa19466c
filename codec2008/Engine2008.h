// The 2008 record coding: one generic record encoder and decoder, specialised
// per layout and per set of value coders at compile time, and its policy for
// the request and answer frames both codings share (common/RecordFrames.h).
//
// A coded record on the wire is a 32-bit length L and L bytes of fields, each
// coded through the value coders of KXPfdk in layout order (ValueCoders.h:
// ours compiled in, or another KXPfdk's exported CKXNetCompressHelper):
//   char    the byte as it is
//   text    NCH_compress_string of the text up to its zero or the field's end
//   bytes   NCH_compress_binData of the whole field
//   int32   flag 0: NCH_compress_int; flag 1: NCH_compress_int64 of the
//           sign-extended value; any other flag: not written at all
//           (the decoder reads int64 under every non-zero flag: kept as is)
//   int64   NCH_compress_int64
//   double  NCH_compress_int64 of the scaled value (trdcomp/PriceScale.hpp:
//           four places)
// A decoder zero-fills its record and decodes fields only while it has
// consumed fewer bytes than the record's length, so a shorter record reads
// into a longer layout with the tail zero.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Bytes.h"
#include "Framing.h"
#include "Inline.h"
#include "Layout.h"
#include "RecordFrames.h"
#include "Text.h"
#include "ValueCoders.h"
#include "trdcomp/PriceScale.hpp"

namespace trdcomp::codec2008 {

using model::Field;
using model::Kind;

// Worst-case bytes of an int32 field (an int64 under flag 1).
template <class C>
inline constexpr std::uint32_t kMaxInt32 = C::kInt > C::kInt64 ? C::kInt : C::kInt64;

// Worst-case coded bytes of one field with the coders C.
template <class C>
constexpr std::uint32_t MaxCoded(const Field& f) {
    switch (f.kind) {
        case Kind::Char: return 1;
        case Kind::Text:
        case Kind::Bytes: return C::kHeader + f.width;
        case Kind::SizedBlock: return kMaxInt32<C> + C::kHeader + f.width;  // its length, then the block
        case Kind::BlockLength: return 0;
        case Kind::Int32: return kMaxInt32<C>;
        case Kind::Int64:
        case Kind::Double: return C::kInt64;
    }
    return 0;
}

// Worst-case bytes a decoder of C reads for one field.
template <class C>
constexpr std::uint32_t MaxRead(const Field& f) {
    switch (f.kind) {
        case Kind::Char: return 1;
        case Kind::Text:
        case Kind::Bytes: return C::kHeader + f.limit;
        case Kind::SizedBlock: return C::kHeader + f.width;
        case Kind::Int32:
        case Kind::BlockLength:
        case Kind::Int64:
        case Kind::Double: return kMaxInt32<C>;
    }
    return 0;
}

// Worst-case bytes a decoder of C reads for a record of layout L (a block's
// length travels in front of it).
template <const auto& L, class C>
constexpr std::uint64_t MaxRecordRead() {
    std::uint64_t n = 0;
    for (const Field& f : L.fields) {
        if (f.kind == Kind::BlockLength) continue;
        n += MaxRead<C>(f);
        if (f.kind == Kind::SizedBlock) n += kMaxInt32<C>;
    }
    return n;
}

// Worst-case coded bytes of a record of layout L with the coders C.
template <const auto& L, class C = BuiltInCoders>
constexpr std::uint32_t MaxRecord() {
    std::uint32_t n = 0;
    for (const Field& f : L.fields) n += MaxCoded<C>(f);
    return n;
}
template <const auto& L>
constexpr std::uint32_t MaxRecordExported() {
    return MaxRecord<L, ExportedCoders>();
}

// Entries of a counted array that are coded: min(count, capacity), none below 1.
template <const auto& L>
inline std::int32_t ActiveEntries(const char* rec) {
    if constexpr (L.countOffset < 0) {
        return 0;
    } else {
        const std::int32_t count = detail::LoadI32(rec + L.countOffset);
        return count < 0 ? 0 : (count > static_cast<std::int32_t>(L.countMax) ? L.countMax : count);
    }
}

namespace internal {

template <class C>
TRDCOMP_FORCE_INLINE int CompressInt32(char* out, std::int32_t v, char flag) {
    if (flag == 0) return C::PutInt(out, v);
    if (flag == 1) return C::PutInt64(out, v);
    return 0;
}

// A field's width as the coders see it: a compile-time constant for a
// layout's specialised coder, a run-time value for the table-driven one.
template <std::uint32_t W>
using FixedWidth = std::integral_constant<std::uint32_t, W>;

// The text of a field up to its zero, or the whole field when it fills it
// (no byte past the field is read).
template <class C, std::uint32_t W>
TRDCOMP_FORCE_INLINE int PutFieldText(char* out, const char* p, FixedWidth<W>) {
    return C::template PutText<W>(out, p, detail::TextLength<W>(p));
}
template <class C>
TRDCOMP_FORCE_INLINE int PutFieldText(char* out, const char* p, std::uint32_t width) {
    return C::PutText(out, p, ::strnlen(p, width), width);
}

// Encodes the value of a field of kind `kind` at p to out; returns the bytes
// written. The one definition of each kind's 2008 coding: inlined with a
// constant kind and width it is that field's own encoder, called with a
// table row's it serves the table-driven coder.
template <class C, class Width>
TRDCOMP_FORCE_INLINE std::uint32_t EncodeValueOf(Kind kind, Width width, const char* p, char* out, char flag) {
    switch (kind) {
        case Kind::Char: out[0] = *p; return 1;
        case Kind::Text: return static_cast<std::uint32_t>(PutFieldText<C>(out, p, width));
        case Kind::Bytes: return static_cast<std::uint32_t>(C::PutBlock(out, p, static_cast<int>(width)));
        case Kind::Int32: return static_cast<std::uint32_t>(CompressInt32<C>(out, detail::LoadI32(p), flag));
        case Kind::Int64: {
            std::int64_t v;
            std::memcpy(&v, p, 8);
            return static_cast<std::uint32_t>(C::PutInt64(out, v));
        }
        case Kind::Double: {
            double v;
            std::memcpy(&v, p, 8);
            return static_cast<std::uint32_t>(C::PutInt64(out, detail::TruncToInt64(price::Scaled2008(v))));
        }
        case Kind::SizedBlock: {
            // Its length (the int32 behind the block) first; then the block, of
            // that many bytes (the decoder keeps no more than that).
            const std::uint32_t w = width;
            const std::int32_t len = detail::LoadI32(p + w);
            const std::uint32_t n = static_cast<std::uint32_t>(CompressInt32<C>(out, len, flag));
            const std::int32_t keep = len < 0 ? 0 : (len > static_cast<std::int32_t>(w) ? static_cast<std::int32_t>(w) : len);
            return n + static_cast<std::uint32_t>(C::PutBlock(out + n, p, keep));
        }
        case Kind::BlockLength: return 0;  // travels with its block
    }
    return 0;
}

template <Kind K, std::uint32_t W, class C>
TRDCOMP_FORCE_INLINE void EncodeField(const char* p, char* out, std::uint32_t& n, char flag) {
    n += EncodeValueOf<C>(K, FixedWidth<W>{}, p, out + n, flag);
}

// What decoding a field depends on: its kind, width and decode limit, not
// its place in the record, so that fields alike share one instantiation.
struct ValueKey {
    Kind kind;
    std::uint32_t width;
    std::uint32_t limit;
};
constexpr ValueKey KeyOf(const Field& f) { return {f.kind, f.width, f.limit}; }

// Are the bytes of field f of layout L still zero when it is decoded? The
// record is cleared first; only another field's decode limit could reach
// into them.
template <const auto& L>
constexpr bool StartsZero(const Field& f) {
    for (const Field& g : L.fields)
        if (g.offset != f.offset && g.offset < f.offset + f.width && g.offset + g.limit > f.offset) return false;
    return true;
}

// Decodes one value of a field of kind `kind` (width and decode limit as
// given) at `in` into the field at p; returns the bytes consumed. Inlined with
// a constant kind it is that field's own decoder; called with a table row's
// kind it serves the table-driven coder.
template <class C>
TRDCOMP_FORCE_INLINE std::int64_t DecodeValueOf(Kind kind, std::uint32_t width, std::uint32_t limit, const char* in,
                                                char* p, char flag) {
    switch (kind) {
        case Kind::Char: *p = in[0]; return 1;
        case Kind::Text: return C::GetText(in, p, static_cast<int>(limit));
        case Kind::Bytes: return C::GetBlock(in, p, static_cast<int>(limit));
        case Kind::Int32:
        case Kind::BlockLength: {
            if (flag == 0) {
                int v = 0;
                const int k = C::GetInt(in, v);
                detail::StoreI32(p, v);
                return k;
            }
            long long v = 0;
            const int k = C::GetInt64(in, v);
            detail::StoreI32(p, static_cast<std::int32_t>(v));
            return k;
        }
        case Kind::Int64: {
            long long v = 0;
            const int k = C::GetInt64(in, v);
            std::memcpy(p, &v, 8);
            return k;
        }
        case Kind::Double: {
            long long v = 0;
            const int k = C::GetInt64(in, v);
            const double x = price::Restored2008(v);
            std::memcpy(p, &x, 8);
            return k;
        }
        case Kind::SizedBlock: {
            // The block's length was decoded first (see DecodeRecord) and limits it.
            const std::int32_t len = detail::LoadI32(p + width);
            const int max = len < 0 ? 0 : (len > static_cast<std::int32_t>(width) ? static_cast<int>(width) : len);
            return C::GetBlock(in, p, max);
        }
    }
    return 0;
}

template <ValueKey V, class C>
TRDCOMP_FORCE_INLINE std::int64_t DecodeValue(const char* in, char* p, char flag) {
    return DecodeValueOf<C>(V.kind, V.width, V.limit, in, p, flag);
}

// A field whose worst-case read would pass the end of the record's bytes is
// decoded from a zero-padded copy of what is left: the cold path, out of line.
template <ValueKey V, class C>
[[gnu::noinline]] std::int64_t DecodePadded(const char* in, std::int64_t left, char* p, char flag) {
    char pad[MaxRead<C>(Field{V.kind, {}, 0, V.width, V.limit, 0, false, -1}) + 32] = {};  // 32 more: the coders copy short texts by words
    std::memcpy(pad, in, static_cast<std::size_t>(left));
    return DecodeValue<V, C>(pad, p, flag);
}

// Does decoding the field at in read only inside the `left` (>= 1) bytes
// there? Known without decoding for coders that read no byte they do not
// consume; others are never asked.
template <ValueKey V, class C>
TRDCOMP_FORCE_INLINE bool ReadsWithin(const char* in, std::int64_t left, char flag) {
    if constexpr (!C::kReadsOnlyConsumed || V.kind == Kind::SizedBlock) {
        return false;
    } else if constexpr (V.kind == Kind::Char) {
        return true;
    } else if constexpr (V.kind == Kind::Int32 || V.kind == Kind::BlockLength) {
        return C::IntWithin(in, left, flag == 0 ? C::kInt : C::kInt64);
    } else if constexpr (V.kind == Kind::Int64 || V.kind == Kind::Double) {
        return C::IntWithin(in, left, C::kInt64);
    } else {
        return C::TextWithin(in, left, static_cast<int>(V.limit));
    }
}

// Decodes a field at in[used] of a record of `len` bytes. A field whose
// worst case fits the record, or whose actual read does, decodes in place;
// else from a zero-padded copy of what is left (the same value as a decoder
// reading zeros past the record's end would find).
template <ValueKey V, class C>
TRDCOMP_FORCE_INLINE std::int64_t DecodeAt(const char* in, std::int64_t len, std::int64_t used, char* p, char flag) {
    constexpr auto kMaxRead = static_cast<std::int64_t>(MaxRead<C>(Field{V.kind, {}, 0, V.width, V.limit, 0, false, -1}));
    const std::int64_t left = len - used;
    if (left >= kMaxRead || ReadsWithin<V, C>(in + used, left, flag)) return DecodeValue<V, C>(in + used, p, flag);
    return DecodePadded<V, C>(in + used, left, p, flag);
}

// Decodes the field at p while bytes remain; false ends the record. `skip`:
// a counted-array entry at or above the active count, left as it is.
template <ValueKey V, class C>
TRDCOMP_FORCE_INLINE bool DecodeField(const char* in, std::int64_t len, std::int64_t& used, char* p, char flag,
                                      bool skip) {
    if (skip) return used < len;
    if constexpr (V.kind != Kind::SizedBlock && V.kind != Kind::BlockLength) {
        // Room for the field's worst case: bytes remain and its read stays
        // inside the record, both told by one test.
        constexpr auto kMaxRead =
            static_cast<std::int64_t>(MaxRead<C>(Field{V.kind, {}, 0, V.width, V.limit, 0, false, -1}));
        if (len - used >= kMaxRead) [[likely]] {
            used += DecodeValue<V, C>(in + used, p, flag);
            return true;
        }
    }
    if (used >= len) return false;
    if constexpr (V.kind == Kind::SizedBlock) {
        used += DecodeAt<ValueKey{Kind::BlockLength, 4, 4}, C>(in, len, used, p + V.width, flag);
        if (used >= len) return false;
    }
    if constexpr (V.kind != Kind::BlockLength) used += DecodeAt<V, C>(in, len, used, p, flag);
    return true;
}

// Every field of a record of layout L decoded in place with no test of the
// record's length: the caller has made sure that the worst-case read of
// every field (MaxRecordRead) is there to read. Returns the bytes consumed,
// or kNotInPlace when a value consumed more than its field's worst-case read
// (a text longer than its field, a length of more than one byte where the
// field is shorter than 128 bytes): its end could then lie anywhere, and the
// fields behind it are not read. When the bytes consumed are no more than
// the record's length, the record decoded as the checked decoder decodes it:
// each value read only the bytes it consumed, all inside the record, and
// every field but a skipped entry consumes one byte at least, so that none
// started past the record's end.
inline constexpr std::int64_t kNotInPlace = INT64_MAX;

template <const auto& L, class C>
TRDCOMP_FORCE_INLINE std::int64_t DecodeInPlace(const char* in, char* rec, char flag) {
    std::int64_t used = 0;
    const bool whole = [&]<std::size_t... J>(std::index_sequence<J...>) TRDCOMP_LAMBDA_INLINE {
        return ([&]() TRDCOMP_LAMBDA_INLINE {
            constexpr Field f = L.fields[J];
            constexpr ValueKey v = KeyOf(f);
            constexpr auto kMost = static_cast<std::int64_t>(MaxRead<C>(f));
            if constexpr (f.kind == Kind::BlockLength) {
                return true;  // travels with its block
            } else {
                if (f.entry >= 0 && f.entry >= ActiveEntries<L>(rec)) return true;
                char* p = rec + f.offset;
                if constexpr (f.kind == Kind::Char || f.kind == Kind::Int32 || f.kind == Kind::Int64 ||
                              f.kind == Kind::Double) {
                    used += DecodeValue<v, C>(in + used, p, flag);  // at most kMost bytes
                    return true;
                } else if constexpr ((f.kind == Kind::Text || f.kind == Kind::Bytes) && f.limit == f.width &&
                                     StartsZero<L>(f) && C::template kIntoZeroField<f.width>) {
                    const std::int64_t k = C::template GetIntoZeroField<f.width>(in + used, p);
                    used += k;
                    return k != 0;
                } else {
                    if constexpr (f.kind == Kind::SizedBlock)
                        used += DecodeValue<ValueKey{Kind::BlockLength, 4, 4}, C>(in + used, p + f.width, flag);
                    const std::int64_t k = DecodeValue<v, C>(in + used, p, flag);
                    used += k;
                    return k <= kMost;
                }
            }
        }() && ...);
    }(std::make_index_sequence<L.fields.size()>{});
    return whole ? used : kNotInPlace;
}

// The fields of one chunk, encoded at out + n: returns the new length.
template <auto Fs, class C>
TRDCOMP_FORCE_INLINE std::uint32_t EncodeChunk(const char* rec, char* out, std::uint32_t n, char flag,
                                               std::int32_t active) {
    [&]<std::size_t... J>(std::index_sequence<J...>) TRDCOMP_LAMBDA_INLINE {
        ((Fs[J].entry < 0 || Fs[J].entry < active
              ? EncodeField<Fs[J].kind, Fs[J].width, C>(rec + Fs[J].offset, out, n, flag)
              : void()),
         ...);
    }(std::make_index_sequence<Fs.size()>{});
    return n;
}
template <auto Fs, class C>
[[gnu::noinline]] std::uint32_t EncodeSharedChunk(const char* rec, char* out, std::uint32_t n, char flag) {
    return EncodeChunk<Fs, C>(rec, out, n, flag, 0);
}
template <const auto& L, std::size_t K, class C>
TRDCOMP_FORCE_INLINE std::uint32_t EncodeChunkOf(const char* rec, char* out, std::uint32_t n, char flag,
                                                 std::int32_t active) {
    constexpr auto kFields = model::ChunkFields<L, K>();
    if constexpr (model::kChunkOutOfLine<L, K>) {
        static_assert(!model::HasEntries(kFields), "a shared chunk holds no counted-array entry");
        return EncodeSharedChunk<kFields, C>(rec, out, n, flag);
    } else {
        return EncodeChunk<kFields, C>(rec, out, n, flag, active);
    }
}

// The fields of one chunk of layout A, decoded while bytes remain: returns
// the bytes used so far (at least len: the record ended). The decoder codes
// shared chunks in line too: out of line, the call and the registers it
// saves cost about 5 % of the restore of a run of order requests. Decoding
// chunk by chunk still pays: a record's end is tested once per chunk in the
// fold, and the golden corpus's 2008 restores run 2 % fewer instructions than
// with one fold over every field.
template <auto Fs, const auto& A, class C>
TRDCOMP_FORCE_INLINE std::int64_t DecodeChunk(const char* in, std::int64_t len, std::int64_t used, char* rec,
                                              char flag) {
    [&]<std::size_t... J>(std::index_sequence<J...>) TRDCOMP_LAMBDA_INLINE {
        static_cast<void>((DecodeField<KeyOf(Fs[J]), C>(in, len, used, rec + Fs[J].offset, flag,
                                                        Fs[J].entry >= 0 && Fs[J].entry >= ActiveEntries<A>(rec)) &&
                           ...));
    }(std::make_index_sequence<Fs.size()>{});
    return used;
}

}  // namespace internal

// The record coder for value coders that are called, not compiled in (the
// exported ones of another KXPfdk): each value costs a call across the
// library boundary, so nothing is gained by specialising each field. One loop
// over the layout's field table serves every layout, with the same bytes,
// bounds and stops as the specialised coder.
namespace table {

struct View {
    const Field* fields;
    std::size_t count;
    std::int32_t countOffset;
    std::uint32_t countMax;
    std::uint32_t size;
};

// The padded copy of a field near the record's end.
inline constexpr std::size_t kPad = 65536 + 128;

template <const auto& L>
constexpr View ViewOf() {
    return {L.fields.data(), L.fields.size(), L.countOffset, L.countMax, L.size};
}

// Every field's padded copy fits kPad, every text the coders' terminated copy.
template <const auto& L, class C>
consteval bool Fits() {
    for (const Field& f : L.fields) {
        if (MaxRead<C>(f) + 32 > kPad) return false;
        if (f.kind == Kind::Text && f.width > kMaxTextWidth) return false;
    }
    return true;
}

inline std::int32_t Active(const View& v, const char* rec) {
    if (v.countOffset < 0) return 0;
    const std::int32_t count = detail::LoadI32(rec + v.countOffset);
    return count < 0 ? 0 : (count > static_cast<std::int32_t>(v.countMax) ? static_cast<std::int32_t>(v.countMax) : count);
}

template <class C>
std::uint32_t EncodeRecord(const View& v, const char* rec, char* out, char flag) {
    std::uint32_t n = 0;
    const std::int32_t active = Active(v, rec);
    for (std::size_t i = 0; i < v.count; ++i) {
        const Field& f = v.fields[i];
        if (f.entry >= 0 && f.entry >= active) continue;
        const char* p = rec + f.offset;
        n += internal::EncodeValueOf<C>(f.kind, f.width, p, out + n, flag);
    }
    return n;
}

// A field in place where its worst-case read stays inside the record, else
// from a zero-padded copy of what is left of it.
template <class C>
std::int64_t DecodeAt(const char* in, std::int64_t len, std::int64_t used, char* rec, const Field& f, char flag) {
    const std::int64_t left = len - used;
    const std::int64_t maxRead = MaxRead<C>(f);
    if (left >= maxRead) return internal::DecodeValueOf<C>(f.kind, f.width, f.limit, in + used, rec + f.offset, flag);
    char pad[kPad];  // zero from the record's end to the field's worst-case read, and some
    std::memcpy(pad, in + used, static_cast<std::size_t>(left));
    std::memset(pad + left, 0, static_cast<std::size_t>(maxRead - left + 32));
    return internal::DecodeValueOf<C>(f.kind, f.width, f.limit, pad, rec + f.offset, flag);
}

template <class C>
void DecodeRecord(const View& v, const char* in, std::int64_t len, char* rec, char flag, bool zeroed) {
    if (!zeroed) std::memset(rec, 0, v.size);
    std::int64_t used = 0;
    for (std::size_t i = 0; i < v.count; ++i) {
        const Field& f = v.fields[i];
        if (used >= len) return;
        if (f.entry >= 0 && f.entry >= Active(v, rec)) continue;
        if (f.kind == Kind::SizedBlock) {
            const Field length{Kind::BlockLength, {}, f.offset + f.width, 4, 4, 0, false, -1};
            used += DecodeAt<C>(in, len, used, rec, length, flag);
            if (used >= len) return;
        }
        if (f.kind != Kind::BlockLength) used += DecodeAt<C>(in, len, used, rec, f, flag);
    }
}

}  // namespace table

// Codes one record (its layout's fields) at out; returns the bytes written.
template <const auto& L, class C>
inline std::uint32_t EncodeRecord(const char* rec, char* out, char flag) {
    if constexpr (!C::kSpecialised) {
        static_assert(table::Fits<L, C>(), "a field is wider than the table-driven coder's buffers");
        return table::EncodeRecord<C>(table::ViewOf<L>(), rec, out, flag);
    } else {
        std::uint32_t n = 0;
        const std::int32_t active = ActiveEntries<L>(rec);
        [&]<std::size_t... K>(std::index_sequence<K...>) TRDCOMP_LAMBDA_INLINE {
            ((n = internal::EncodeChunkOf<L, K, C>(rec, out, n, flag, active)), ...);
        }(std::make_index_sequence<model::kChunks<L>>{});
        return n;
    }
}

// A record decoded in place (internal::DecodeInPlace) with coders that read
// no byte they do not consume, of a layout whose decodes stay inside their
// fields: the message's last record of a layout is copied to a block of
// zeros that covers its worst-case read, when that is at most kPaddedRecord.
// A layout whose worst-case read is at most kSmallRecordRead (a few short
// fields) keeps the field-by-field decoder: it gains little from one pass,
// and its one-record messages would pay the copy of their only record. So
// does a layout of kManyNumbers numbers or more (a quote's 18 prices): each
// integer's length is found byte by byte, a branch a byte, and in one pass
// of 18 such loops the time measured from one build of the library to the
// next between 0.8 and 2.5 times that of the field-by-field decoder, which
// measured the same in every build.
inline constexpr std::uint64_t kPaddedRecord = 1024;
inline constexpr std::uint64_t kSmallRecordRead = 64;
inline constexpr int kManyNumbers = 8;
template <const auto& L>
constexpr int NumbersOf() {
    int n = 0;
    for (const Field& f : L.fields)
        n += f.kind == Kind::Int32 || f.kind == Kind::Int64 || f.kind == Kind::Double ? 1 : 0;
    return n;
}
template <const auto& L, class C>
inline constexpr bool kInPlace = C::kSpecialised && C::kReadsOnlyConsumed && model::MaxDecodeEnd(L) == L.size &&
                                 MaxRecordRead<L, C>() > kSmallRecordRead && NumbersOf<L>() < kManyNumbers;

namespace internal {
// The record field by field, each tested against the record's end.
template <const auto& L, class C>
TRDCOMP_FORCE_INLINE void DecodeChecked(const char* in, std::int64_t len, char* rec, char flag) {
    std::int64_t used = 0;
    [&]<std::size_t... K>(std::index_sequence<K...>) TRDCOMP_LAMBDA_INLINE {
        static_cast<void>(
            (((used = DecodeChunk<model::ChunkFields<L, K>(), L, C>(in, len, used, rec, flag)) < len) && ...));
    }(std::make_index_sequence<model::kChunks<L>>{});
}
}  // namespace internal

// Decodes the `len` bytes at `in` into the record; no byte outside them is
// read, nor any past in + avail (avail >= len: the bytes of the message from
// the record on). The record is cleared first unless the caller hands in one
// already zero.
template <const auto& L, class C, bool kZeroed = false>
inline void DecodeRecord(const char* in, std::int64_t len, std::int64_t avail, char* rec, char flag) {
    if constexpr (!C::kSpecialised) {
        static_assert(table::Fits<L, C>(), "a field is wider than the table-driven coder's buffers");
        table::DecodeRecord<C>(table::ViewOf<L>(), in, len, rec, flag, kZeroed);
    } else if constexpr (kInPlace<L, C>) {
        // Every field in place, the record's length tested once at the end;
        // a record whose fields run past its length (a peer's shorter layout,
        // damaged bytes) is decoded again, field by field with its tests.
        static_assert(table::Fits<L, C>(), "a field is wider than the table-driven coder's buffers");
        constexpr std::uint64_t kRead = MaxRecordRead<L, C>();
        if constexpr (!kZeroed) std::memset(rec, 0, L.size);
        const char* from = in;
        char padded[kRead <= kPaddedRecord ? kRead : 1];
        if (static_cast<std::uint64_t>(avail) < kRead) {
            if constexpr (kRead <= kPaddedRecord) {
                std::memcpy(padded, in, static_cast<std::size_t>(len));
                std::memset(padded + len, 0, static_cast<std::size_t>(kRead - static_cast<std::uint64_t>(len)));
                from = padded;
            } else {
                table::DecodeRecord<C>(table::ViewOf<L>(), in, len, rec, flag, true);
                return;
            }
        }
        if (internal::DecodeInPlace<L, C>(from, rec, flag) <= len) [[likely]]
            return;
        std::memset(rec, 0, L.size);
        table::DecodeRecord<C>(table::ViewOf<L>(), in, len, rec, flag, true);
    } else {
        if constexpr (!kZeroed) std::memset(rec, 0, L.size);
        internal::DecodeChecked<L, C>(in, len, rec, flag);
    }
}
template <const auto& L, class C, bool kZeroed = false>
inline void DecodeRecord(const char* in, std::int64_t len, char* rec, char flag) {
    DecodeRecord<L, C, kZeroed>(in, len, len, rec, flag);
}

// The 2008 record policy of the shared frames (common/RecordFrames.h), for
// records of layout L coded with the value coders C: a 32-bit length, then
// the coded fields. The encoders write only the bytes they count, so the
// classic members (not told their capacity) write straight into the
// caller's buffer.
template <const auto& L, class C>
struct RecordCoder {
    static constexpr int kLengthBytes = 4;
    static constexpr std::size_t kMaxRecord = MaxRecord<L, C>();
    static constexpr std::size_t kSlack = 0;
    static constexpr std::int64_t kLeastRecord = 0;
    static constexpr bool kExactWrites = true;
    static constexpr bool kExactInPlace = false;  // every write is exact already
    char flag;

    static bool Representable(const char*) { return true; }
    std::int64_t Encode(const char* rec, const char* /*prev*/, char* dst) const {
        return static_cast<std::int64_t>(EncodeRecord<L, C>(rec, dst, flag));
    }
    static void StoreLength(char* at, std::int64_t n) { detail::StoreI32(at, static_cast<std::int32_t>(n)); }
};

// Codes `count` records of layout L read from `data` (extent bytes, stride
// apart) as length-prefixed records at out + pos. False when the capacity
// ran out.
template <const auto& L>
inline bool EncodeRun(detail::Call& call, char* out, std::int64_t& pos, const char* data, std::int64_t extent,
                      std::int64_t count, std::int32_t stride, char flag) {
    return WithValueCoders([&]<class C>() {
        return detail::EncodeRecords(call, RecordCoder<L, C>{flag}, L.size, out, pos, data, extent, count, stride);
    });
}

// Decodes up to `count` length-prefixed records from in[cursor, inLen) into
// consecutive slots of `size` bytes; records the message does not hold stay
// zero. `decode(at, len, avail, rec)` decodes one record of len bytes with
// avail bytes of the message from at on. maxEnd is
// the furthest a record's decode may write (model::MaxDecodeEnd). Returns
// the records decoded; the cursor ends behind the last one (past inLen when
// its length passed the end, before it when a length was cut).
template <class Decode>
TRDCOMP_FORCE_INLINE std::int64_t DecodeRunOf(std::uint32_t size, std::uint32_t maxEnd, const Decode& decode,
                                              const char* in, std::int64_t inLen, std::int64_t& cursor,
                                              std::int64_t count, char* slots) {
    for (std::int64_t i = 0; i < count; ++i) {
        if (inLen - cursor < 4) {
            // A decode limit wider than its field may have written into this
            // slot from the record before: the records not held stay zero.
            if (maxEnd > size && i > 0) {
                const std::int64_t end = (i - 1) * size + maxEnd;
                const std::int64_t stop = count * size < end ? count * size : end;
                std::memset(slots + i * size, 0, static_cast<std::size_t>(stop - i * size));
            }
            return i;
        }
        std::uint32_t len;
        std::memcpy(&len, in + cursor, 4);
        const std::int64_t avail = inLen - cursor - 4;
        const std::int64_t take = static_cast<std::int64_t>(len) < avail ? static_cast<std::int64_t>(len) : avail;
        // The slots come zeroed; only a layout whose decode limits write past
        // a record's end must clear the next record again, and the first slot
        // is cleared as a record of the section before may have written there.
        if (i == 0) std::memset(slots, 0, size);
        decode(in + cursor + 4, take, avail, slots + i * size);
        cursor += 4 + static_cast<std::int64_t>(len);
    }
    return count > 0 ? count : 0;
}

namespace table {

// The run of records for the table-driven coder: one function for every
// layout.
template <class C>
[[gnu::noinline]] std::int64_t DecodeRun(const View& v, std::uint32_t maxEnd, const char* in, std::int64_t inLen,
                                         std::int64_t& cursor, std::int64_t count, char* slots, char flag) {
    const auto decode = [&](const char* at, std::int64_t len, std::int64_t /*avail*/, char* rec) {
        DecodeRecord<C>(v, at, len, rec, flag, maxEnd == v.size);
    };
    return DecodeRunOf(v.size, maxEnd, decode, in, inLen, cursor, count, slots);
}

}  // namespace table

template <const auto& L, class C>
inline std::int64_t DecodeRunWith(const char* in, std::int64_t inLen, std::int64_t& cursor, std::int64_t count,
                                  char* slots, char flag) {
    constexpr std::uint32_t kMaxEnd = model::MaxDecodeEnd(L);
    if constexpr (C::kSpecialised) {
        const auto decode = [&](const char* at, std::int64_t len, std::int64_t avail, char* rec) TRDCOMP_LAMBDA_INLINE {
            DecodeRecord<L, C, kMaxEnd == L.size>(at, len, avail, rec, flag);
        };
        return DecodeRunOf(L.size, kMaxEnd, decode, in, inLen, cursor, count, slots);
    } else {
        static_assert(table::Fits<L, C>(), "a field is wider than the table-driven coder's buffers");
        return table::DecodeRun<C>(table::ViewOf<L>(), kMaxEnd, in, inLen, cursor, count, slots, flag);
    }
}

template <const auto& L>
inline std::int64_t DecodeRun(const char* in, std::int64_t inLen, std::int64_t& cursor, std::int64_t count, char* slots,
                              char flag) {
    return WithValueCoders([&]<class C>() { return DecodeRunWith<L, C>(in, inLen, cursor, count, slots, flag); });
}

// The 2008 restore policy of the shared frames (common/RecordFrames.h):
// records follow the head (a request) or the section table (several
// sections) with no count of their own; each takes 4 bytes at least.
struct Frames {
    static constexpr int kCountBytes = 0;
    static constexpr int kMinCoded = 4;
    static constexpr bool kZeroLengthOnFailure = false;
    static constexpr bool kClearsSectionsBit = false;
    char flag;

    static constexpr bool Decodes() { return true; }
    static constexpr bool CountAgrees(const char*, std::int32_t) { return true; }
    template <const auto& L>
    static constexpr std::int64_t Tail() {
        return model::MaxDecodeEnd(L) - L.size;
    }
    template <const auto& L>
    static constexpr bool WritesRecords() {
        return false;  // a record's fields past the end of its bytes stay as the slot held them
    }
    template <const auto& L>
    std::int64_t DecodeRun(const char* in, std::int64_t inLen, std::int64_t& cursor, std::int64_t count,
                           char* slots) const {
        return codec2008::DecodeRun<L>(in, inLen, cursor, count, slots, flag);
    }
    // One section: its count in the head. Several: the section table behind
    // the head (its length, then each count and layout size).
    template <int k>
    static Reason ReadCounts(const char* in, std::int64_t inLen, std::int32_t headLen, std::int32_t* counts,
                             std::int64_t& cursor) {
        if constexpr (k == 1) {
            counts[0] = head::AnswerArray(in).count;
        } else {
            if (inLen - headLen < 4) return Reason::section_table_invalid;
            const std::int32_t tableLen = head::Load(in + headLen, 0);
            if (tableLen < 4 + 8 * k || tableLen > inLen - headLen) return Reason::section_table_invalid;
            for (int j = 0; j < k; ++j) counts[j] = head::SectionEntry(in + headLen, j).count;
            cursor += tableLen;
        }
        return Reason::none;
    }
    static std::int64_t RecordRoom(std::int64_t inLen, std::int32_t /*headLen*/, std::int64_t cursor) {
        return (inLen - cursor) / 4;
    }
};

// ---- requests ----

// Appends the coded records of a request behind the head at out (outLen
// bytes so far), each behind its 32-bit length. Records shorter than one
// record travel raw, flag bit 0 clear. Writes nothing past the call's
// capacity; a call that measures learns the bytes the message needs.
// Out of line: the route tables and the members share this one instance.
template <const auto& L>
[[gnu::noinline]] int PackRequest(detail::Call& call, char* out, int& outLen, const char* data, int dataLen, char flag) {
    if (static_cast<unsigned>(dataLen) < L.size) {
        if (dataLen > 0) {
            if (data == nullptr) return call.Refuse(Reason::null_argument);
            if (dataLen > call.capacity - outLen) return call.TooSmall(static_cast<std::int64_t>(outLen) + dataLen);
            std::memcpy(out + outLen, data, static_cast<std::size_t>(dataLen));
        }
        outLen += dataLen;
        return 1;
    }
    std::int64_t pos = outLen;
    const head::Array array = head::RequestArray(out);
    const bool fits = EncodeRun<L>(call, out, pos, data, dataLen < 0 ? 0 : dataLen, array.count, array.size, flag);
    if (!fits) return 0;
    if (pos > call.capacity) return call.TooSmall(pos);
    outLen = static_cast<int>(pos);
    detail::SetFlags(out, TRDCOMP_FLAG_CODED);
    return 1;
}

template <const auto& L>
[[gnu::noinline]] int RestoreRequest(detail::Call& call, const char* in, int inLen, char** out, int& outLen, char flag) {
    return detail::RestoreRequestFrame<L>(call, Frames{flag}, in, inLen, out, outLen);
}

// ---- answers ----

// Appends the coded arrays of an answer behind its head (and section table).
template <class Shape>
[[gnu::noinline]] int PackAnswer(detail::Call& call, char* out, int& outLen, const tagANS_Proc* proc,
                                 char* const arrays[5], char flag) {
    std::int64_t pos = outLen;
    const bool fits = detail::PackSections<Shape>(
        proc, arrays, [&]<const auto& L>(const char* data, std::int64_t extent, std::int32_t count, std::int32_t size) {
            return EncodeRun<L>(call, out, pos, data, extent, count, size, flag);
        });
    if (!fits) return 0;
    if (pos > call.capacity) return call.TooSmall(pos);
    outLen = static_cast<int>(pos);
    detail::SetFlags(out, TRDCOMP_FLAG_CODED);
    return 1;
}

template <class Shape>
[[gnu::noinline]] int RestoreAnswer(detail::Call& call, const char* in, int inLen, char** out, int& outLen, char flag) {
    return detail::RestoreAnswerFrame<Shape>(call, Frames{flag}, in, inLen, out, outLen);
}

}  // namespace trdcomp::codec2008
