// The record layout model: a layout is its size and its coded fields in
// coding order. Layouts are written once, as entries in offset order (the
// catalogue's .def files, through the TRD_* macros of LayoutMacros.h), and
// turned into constant tables at compile time; both record engines are
// templates over these tables, so every field is specialised by the compiler.
//
// Build() checks at compile time that every entry lies inside the record and
// that entries do not overlap (a decode limit beyond the width is allowed).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace trdcomp::model {

// How a field travels in the 2008 coding.
enum class Kind : std::uint8_t {
    Char,
    Text,         // char[N], zero-terminated when shorter than N
    Bytes,        // byte[N], always coded at its full width
    Int32,
    Int64,
    Double,
    SizedBlock,   // byte[N] whose length is the int32 stored right after it
    BlockLength,  // that int32
};

// How a field travels in the Fast coding.
enum class FastKind : std::uint8_t {
    Char,
    Int,
    Int64,
    Double,
    String,       // counted string, any byte values
    Ascii,        // stop bit on the last character
    Bytes,
    SizedBlock,   // always sent, with its length clamped to 0..N
    BlockLength,  // always sent, never compared
};

struct Field {
    Kind kind{};
    FastKind fast{};
    std::uint32_t offset = 0;
    std::uint32_t width = 0;
    std::uint32_t limit = 0;        // 2008 decode limit of a text or block
    std::int32_t fastDefault = 0;   // Fast first-record value of a char or int
    bool late = false;              // coded after every other field
    std::int32_t entry = -1;        // entry index inside a counted array
};

// One line of a layout as written in the catalogue, in offset order.
enum class EntryType : std::uint8_t { Begin, Field, Uncoded, SizedBlock, Array };

struct Entry {
    EntryType type{};
    Field field{};                   // Field
    std::uint32_t offset = 0;        // Uncoded, SizedBlock, Array
    std::uint32_t width = 0;         // Begin: record size; Uncoded, SizedBlock: N; Array: entry count
    const Entry* sub = nullptr;      // Array: the entry layout's entries
    std::uint32_t subCount = 0;
    std::uint32_t countOffset = 0;   // Array: offset of its int32 count
};

constexpr Entry Begin(std::uint32_t size) { return {EntryType::Begin, {}, 0, size}; }

constexpr Entry MakeField(Kind k, FastKind f, std::uint32_t off, std::uint32_t width, std::int32_t def = 0,
                          std::uint32_t limit = 0, bool late = false) {
    Entry e{EntryType::Field};
    e.field = Field{k, f, off, width, limit ? limit : width, def, late, -1};
    return e;
}

constexpr Entry Char(std::uint32_t off, std::int32_t def = 0) { return MakeField(Kind::Char, FastKind::Char, off, 1, def); }
constexpr Entry Text(std::uint32_t off, std::uint32_t n, std::uint32_t limit = 0, bool late = false) {
    return MakeField(Kind::Text, FastKind::String, off, n, 0, limit, late);
}
constexpr Entry Ascii(std::uint32_t off, std::uint32_t n) { return MakeField(Kind::Text, FastKind::Ascii, off, n); }
constexpr Entry Bytes(std::uint32_t off, std::uint32_t n) { return MakeField(Kind::Bytes, FastKind::Bytes, off, n); }
constexpr Entry Int32(std::uint32_t off, std::int32_t def = 0) { return MakeField(Kind::Int32, FastKind::Int, off, 4, def); }
constexpr Entry Int64(std::uint32_t off) { return MakeField(Kind::Int64, FastKind::Int64, off, 8); }
constexpr Entry Double(std::uint32_t off) { return MakeField(Kind::Double, FastKind::Double, off, 8); }
constexpr Entry Uncoded(std::uint32_t off, std::uint32_t n) { return {EntryType::Uncoded, {}, off, n}; }
constexpr Entry SizedBlock(std::uint32_t off, std::uint32_t n) { return {EntryType::SizedBlock, {}, off, n}; }
template <std::size_t M>
constexpr Entry Array(std::uint32_t off, std::uint32_t entries, const Entry (&sub)[M], std::uint32_t countOff) {
    return {EntryType::Array, {}, off, entries, sub, M, countOff};
}

template <std::size_t N>
struct Layout {
    std::uint32_t size = 0;
    std::array<Field, N> fields{};
    std::int32_t countOffset = -1;  // the counted array's count, -1 without one
    std::uint32_t countMax = 0;     // entries of the counted array

    static constexpr std::size_t kFields = N;
};

namespace build {

// Bytes an entry occupies in the record.
constexpr std::uint32_t Extent(const Entry& e) {
    switch (e.type) {
        case EntryType::Field: return e.field.width;
        case EntryType::Uncoded: return e.width;
        case EntryType::SizedBlock: return e.width + 4;
        case EntryType::Array: return e.width * e.sub[0].width;
        case EntryType::Begin: return 0;
    }
    return 0;
}
constexpr std::uint32_t Start(const Entry& e) { return e.type == EntryType::Field ? e.field.offset : e.offset; }

constexpr std::size_t CodedFields(const Entry* e, std::size_t n) {
    std::size_t count = 0;
    for (std::size_t i = 1; i < n; ++i) {
        switch (e[i].type) {
            case EntryType::Field: ++count; break;
            case EntryType::SizedBlock: count += 2; break;
            case EntryType::Array: count += e[i].width * CodedFields(e[i].sub, e[i].subCount); break;
            default: break;
        }
    }
    return count;
}

// Compile-time checks: a layout begins with its size, and its entries run
// in offset order inside the record without overlapping.
constexpr void Check(const Entry* e, std::size_t n) {
    if (n == 0 || e[0].type != EntryType::Begin) throw "a layout starts with TRD_LAYOUT(name, size)";
    const std::uint32_t size = e[0].width;
    std::uint32_t end = 0;
    for (std::size_t i = 1; i < n; ++i) {
        if (e[i].type == EntryType::Begin) throw "a layout has one TRD_LAYOUT line";
        if (Start(e[i]) < end) throw "layout entries overlap or are out of offset order";
        end = Start(e[i]) + Extent(e[i]);
        if (end > size) throw "a layout entry runs past the end of the record";
        if (e[i].type == EntryType::Array) Check(e[i].sub, e[i].subCount);
        if (e[i].type == EntryType::Field && e[i].field.limit < e[i].field.width)
            throw "a decode limit is never below the field's width";
    }
}

}  // namespace build

// Turns a layout's entries into its coded fields in coding order: entries in
// offset order, counted arrays expanded entry by entry, a sized block as its
// block and its length, never-coded bytes left out, and the fields marked
// late moved behind all others.
template <std::size_t N, std::size_t M>
consteval Layout<N> Build(const Entry (&e)[M]) {
    build::Check(e, M);
    Layout<N> layout;
    layout.size = e[0].width;
    std::array<Field, N> flat{};
    std::size_t n = 0;
    for (std::size_t i = 1; i < M; ++i) {
        const Entry& x = e[i];
        if (x.type == EntryType::Field) {
            flat[n++] = x.field;
        } else if (x.type == EntryType::SizedBlock) {
            flat[n++] = Field{Kind::SizedBlock, FastKind::SizedBlock, x.offset, x.width, x.width, 0, false, -1};
            flat[n++] = Field{Kind::BlockLength, FastKind::BlockLength, x.offset + x.width, 4, 4, 0, false, -1};
        } else if (x.type == EntryType::Array) {
            if (layout.countOffset >= 0) throw "a layout has at most one counted array";
            layout.countOffset = static_cast<std::int32_t>(x.countOffset);
            layout.countMax = x.width;
            const std::uint32_t stride = x.sub[0].width;
            for (std::uint32_t k = 0; k < x.width; ++k) {
                for (std::size_t j = 1; j < x.subCount; ++j) {
                    if (x.sub[j].type != EntryType::Field) throw "an array entry holds plain fields only";
                    Field f = x.sub[j].field;
                    f.offset += x.offset + k * stride;
                    f.entry = static_cast<std::int32_t>(k);
                    flat[n++] = f;
                }
            }
        }
    }
    std::size_t out = 0;
    for (std::size_t i = 0; i < N; ++i)
        if (!flat[i].late) layout.fields[out++] = flat[i];
    for (std::size_t i = 0; i < N; ++i)
        if (flat[i].late) layout.fields[out++] = flat[i];
    if (layout.countOffset >= 0) {
        bool countBefore = false;
        for (std::size_t i = 0; i < N && layout.fields[i].entry < 0; ++i)
            countBefore |= layout.fields[i].kind == Kind::Int32 &&
                           layout.fields[i].offset == static_cast<std::uint32_t>(layout.countOffset);
        if (!countBefore) throw "a counted array's count is an int32 coded before the array";
    }
    return layout;
}

template <std::size_t M>
constexpr std::size_t CodedFields(const Entry (&e)[M]) {
    return build::CodedFields(e, M);
}

// A layout's coded fields in chunks of kChunk (one Fast presence byte each).
// A chunk that several layouts hold field for field (most requests begin
// with the same seven fields) is coded by one out-of-line function for all
// of them, keyed on the chunk's fields (by the Fast coders and the 2008
// encoder; the 2008 decoder keeps every chunk in line). Bit k of
// kSharedChunks<L> marks chunk k of L as such (chunks 0 to 63): the catalogue
// generator sets it for the chunks it finds in more than one layout; the
// other chunks are coded in line. A shared chunk holds no counted-array entry.
inline constexpr std::size_t kChunk = 7;
template <const auto& L>
inline constexpr std::uint64_t kSharedChunks = 0;

template <const auto& L>
inline constexpr std::size_t kChunks = (L.fields.size() + kChunk - 1) / kChunk;

template <const auto& L, std::size_t K>
consteval auto ChunkFields() {
    constexpr std::size_t first = K * kChunk;
    constexpr std::size_t n = L.fields.size() - first < kChunk ? L.fields.size() - first : kChunk;
    std::array<Field, n> fields{};
    for (std::size_t i = 0; i < n; ++i) fields[i] = L.fields[first + i];
    return fields;
}

template <const auto& L, std::size_t K>
inline constexpr bool kChunkOutOfLine = K < 64 && ((kSharedChunks<L> >> K) & 1u) != 0;

template <std::size_t N>
constexpr bool HasEntries(const std::array<Field, N>& fields) {
    for (const Field& f : fields)
        if (f.entry >= 0) return true;
    return false;
}

// Widest field of a layout (bounds the padding a decoder may need).
template <std::size_t N>
constexpr std::uint32_t MaxLimit(const Layout<N>& l) {
    std::uint32_t m = 0;
    for (const Field& f : l.fields) m = f.limit > m ? f.limit : m;
    return m;
}

// Do two layouts code the same sequence of field kinds (so that one encoder
// yields the same bytes for both)?
template <std::size_t N, std::size_t M>
constexpr bool SameKinds(const Layout<N>& a, const Layout<M>& b) {
    if (N != M) return false;
    for (std::size_t i = 0; i < N; ++i)
        if (a.fields[i].kind != b.fields[i].kind || a.fields[i].fast != b.fields[i].fast) return false;
    return true;
}

// End of the furthest byte a 2008 decoder may write: a decode limit beyond a
// field's width (kept on purpose in a few layouts) writes past it, into the
// next record or the restored buffer's spare bytes.
template <std::size_t N>
constexpr std::uint32_t MaxDecodeEnd(const Layout<N>& l) {
    std::uint32_t m = l.size;
    for (const Field& f : l.fields) m = f.offset + f.limit > m ? f.offset + f.limit : m;
    return m;
}

}  // namespace trdcomp::model
