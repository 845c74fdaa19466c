// The value coders the 2008 record engine codes with, as two policies:
//
//   BuiltInCoders   the coders of our own KXPfdk, compiled into the engine
//                   (no call across the library boundary);
//   ExportedCoders  the eight exported CKXNetCompressHelper members of
//                   whatever KXPfdk the process loaded, called as they are.
//
// The engine runs with the built-in coders only when the loaded KXPfdk is
// ours, recognised once at load time by the value-format mark that only our
// KXPfdk exports (ValueCoders.cpp). Both policies give the same bytes with
// our library. Any other KXPfdk changes the value format, and is trusted
// only as far as the contract below (docs/porting-guide.md, "A KXPfdk of
// another format"):
//
//   - an integer (int or int64) is coded in at most kContractSlack bytes;
//     a text of n bytes and a block of n bytes in at most n + kContractSlack;
//   - an encoder writes only the bytes it returns;
//   - a decoder reads at most kContractSlack bytes of an integer, and at most
//     max + kContractSlack bytes of a text or block; it writes at most `max`
//     bytes at dest and nothing at `in`;
//   - the coders keep no state and may run on any number of threads.
//
// Whatever numbers a foreign coder returns, the engine keeps its cursors
// inside those bounds: an encoder's count is clamped to its value's maximum
// and a decoder's negative count is taken as 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "src/KXCoding.h"
#include "Inline.h"
#include "trdcomp/KXNetCompressHelper.h"
#include "trdcomp/TrdCompData.h"

namespace trdcomp {
TRDCOMP_API bool BuiltInValueCoders() noexcept;  // trdcomp.hpp
namespace codec2008 {
// Set once while the library loads (ValueCoders.cpp), false until then;
// exported so that engine code instantiated outside the library reads the
// same decision.
extern TRDCOMP_API bool gBuiltInCoders;
}  // namespace codec2008
}  // namespace trdcomp

namespace trdcomp::codec2008 {

// Bytes a value of another KXPfdk may take beyond its payload (see above).
inline constexpr std::uint32_t kContractSlack = 32;
// The widest text of any layout (checked where the layouts are built).
inline constexpr std::size_t kMaxTextWidth = 32768;

// Is the loaded KXPfdk ours? Decided once while the library loads; false
// (the exported coders, always safe) until then. Asked once per record run.
inline bool BuiltInCodersActive() noexcept { return gBuiltInCoders; }

struct BuiltInCoders {
    // Worst-case bytes of an int, of an int64, and of the length header of a text or block.
    static constexpr std::uint32_t kInt = 5;
    static constexpr std::uint32_t kInt64 = 10;
    static constexpr std::uint32_t kHeader = 5;
    // A decoder reads no byte it does not consume: a field near a record's
    // end may be decoded in place and kept when it stayed inside the record.
    static constexpr bool kReadsOnlyConsumed = true;
    // Compiled in: the engine specialises its record coder for each layout.
    static constexpr bool kSpecialised = true;

    TRDCOMP_FORCE_INLINE static int PutInt(char* out, int v) { return kx::CompressInt(out, v); }
    TRDCOMP_FORCE_INLINE static int PutInt64(char* out, long long v) { return kx::CompressInt64(out, v); }
    // The text of a W-byte field, of length len <= W (no terminator needed).
    template <std::size_t W>
    TRDCOMP_FORCE_INLINE static int PutText(char* out, const char* text, std::size_t len) {
        return kx::CompressField<W>(out, text, len);
    }
    TRDCOMP_FORCE_INLINE static int PutBlock(char* out, const char* data, int len) {
        return kx::CompressBinData(out, data, len);
    }
    // Does the decoder of an integer (at most maxBytes), or of a text or block
    // keeping at most max bytes, read only inside the left (>= 1) bytes at in?
    // Told by the bytes themselves, as the decoders read no byte they do not
    // consume: a field near the end of its record decodes in place.
    TRDCOMP_FORCE_INLINE static bool IntWithin(const char* in, std::int64_t left, int maxBytes) {
        return static_cast<unsigned char>(in[0]) < 0x80u || kx::VarintWithin(in, left, maxBytes) != 0;
    }
    TRDCOMP_FORCE_INLINE static bool TextWithin(const char* in, std::int64_t left, int max) {
        const auto b = static_cast<unsigned char>(in[0]);
        if (b < 0x80u) [[likely]]
            return 1 + (max <= 0 ? 0 : (b < max ? b : max)) <= left;
        return kx::TextWithin(in, left, max);
    }
    TRDCOMP_FORCE_INLINE static int GetInt(const char* in, int& v) { return kx::DecompressInt(in, v); }
    TRDCOMP_FORCE_INLINE static int GetInt64(const char* in, long long& v) { return kx::DecompressInt64(in, v); }
    TRDCOMP_FORCE_INLINE static int GetText(const char* in, char* dest, int max) {
        return kx::DecompressString(in, dest, max);
    }
    TRDCOMP_FORCE_INLINE static int GetBlock(const char* in, char* dest, int max) {
        int len;
        return kx::DecompressBinData(in, dest, max, len);
    }
    // A text or block no longer than its field of W bytes (decode limit W),
    // into the field while it holds zeros: the bytes GetText and GetBlock
    // leave there. 0 for a longer one, left to them.
    template <std::uint32_t W>
    static constexpr bool kIntoZeroField = detail::kMaskedCopy<W>;
    template <std::uint32_t W>
    TRDCOMP_FORCE_INLINE static std::int64_t GetIntoZeroField(const char* in, char* dest) {
        return kx::DecompressIntoZeroField<W>(in, dest);
    }
};

// Coders that call the eight operations of a KXPfdk class N (its exported
// CKXNetCompressHelper) and hold its results to the contract.
template <class N>
struct ContractCoders {
    static constexpr std::uint32_t kInt = kContractSlack;
    static constexpr std::uint32_t kInt64 = kContractSlack;
    static constexpr std::uint32_t kHeader = kContractSlack;
    // Nothing is known of what a decoder reads beyond what it consumes.
    static constexpr bool kReadsOnlyConsumed = false;
    // Called across the library boundary: one table-driven record coder.
    static constexpr bool kSpecialised = false;

    static int Written(int n, std::size_t max) {
        return n < 0 ? 0 : (static_cast<std::size_t>(n) > max ? static_cast<int>(max) : n);
    }
    static int Consumed(int n) { return n < 0 ? 0 : n; }

    static int PutInt(char* out, int v) { return Written(N::NCH_compress_int(out, v), kInt); }
    static int PutInt64(char* out, long long v) { return Written(N::NCH_compress_int64(out, v), kInt64); }
    // The coder takes a terminated text: a text that fills its field has no
    // terminator, so it is handed over as a terminated copy.
    static int PutText(char* out, const char* text, std::size_t len, std::size_t width) {
        if (len < width) return Written(N::NCH_compress_string(out, text), len + kHeader);
        char copy[kMaxTextWidth + 1];
        std::memcpy(copy, text, width);
        copy[width] = '\0';
        return Written(N::NCH_compress_string(out, copy), width + kHeader);
    }
    static int PutBlock(char* out, const char* data, int len) {
        const std::size_t payload = len > 0 ? static_cast<std::size_t>(len) : 0;
        return Written(N::NCH_compress_binData(out, const_cast<char*>(data), len), payload + kHeader);
    }
    static int GetInt(const char* in, int& v) { return Consumed(N::NCH_decompress_int(const_cast<char*>(in), v)); }
    static int GetInt64(const char* in, long long& v) {
        return Consumed(N::NCH_decompress_int64(const_cast<char*>(in), v));
    }
    static int GetText(const char* in, char* dest, int max) {
        return Consumed(N::NCH_decompress_string(const_cast<char*>(in), dest, max));
    }
    static int GetBlock(const char* in, char* dest, int max) {
        int len = 0;
        return Consumed(N::NCH_decompress_binData(const_cast<char*>(in), dest, max, len));
    }
};

using ExportedCoders = ContractCoders<CKXNetCompressHelper>;

// Calls fn.template operator()<C>() with the coders of the loaded KXPfdk.
template <class Fn>
TRDCOMP_FORCE_INLINE decltype(auto) WithValueCoders(const Fn& fn) {
    if (BuiltInCodersActive()) [[likely]]
        return fn.template operator()<BuiltInCoders>();
    return fn.template operator()<ExportedCoders>();
}

}  // namespace trdcomp::codec2008
