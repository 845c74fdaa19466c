// A KXPfdk of another value format, as a peer's library would be: the same
// eight CKXNetCompressHelper operations, none of our format, and no mark.
// The tests load it in place of ours to prove that trdcomp relies on the
// contract alone.
//
//   int, int64  a tag byte ('i' or 'l'), then the value as 8 little-endian bytes
//   string      'S', a 4-byte little-endian length n, then the n text bytes
//   binData     'B', a 4-byte little-endian length n, then all n bytes
//
// Decoders trust the length they read (a peer's library need not check it)
// but stay within the contract: they read at most 5 + max bytes of a text or
// block and write at most max bytes.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "trdcomp/KXNetCompressHelper.h"

namespace {

// Little-endian words of 4 or 8 bytes.
template <class T>
void PutLE(char* out, T v) {
    for (std::size_t i = 0; i < sizeof(T); ++i) out[i] = static_cast<char>(v >> (8 * i));
}
template <class T>
T GetLE(const char* in) {
    T v = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) v |= static_cast<T>(static_cast<unsigned char>(in[i])) << (8 * i);
    return v;
}

// Bytes consumed by a header and a payload of `n`, as an int.
int Consumed(std::uint32_t n) { return n > static_cast<std::uint32_t>(INT_MAX - 5) ? INT_MAX : static_cast<int>(5 + n); }

int PutBytes(char* out, char tag, const char* data, std::uint32_t n) {
    out[0] = tag;
    PutLE<std::uint32_t>(out + 1, n);
    if (n > 0) std::memcpy(out + 5, data, n);
    return static_cast<int>(5 + n);
}

}  // namespace

int CKXNetCompressHelper::NCH_compress_int(char* out, int value) {
    out[0] = 'i';
    PutLE<std::uint64_t>(out + 1, static_cast<std::uint64_t>(static_cast<long long>(value)));
    return 9;
}

int CKXNetCompressHelper::NCH_decompress_int(char* in, int& value) {
    value = static_cast<int>(static_cast<std::uint32_t>(GetLE<std::uint64_t>(in + 1)));
    return 9;
}

int CKXNetCompressHelper::NCH_compress_int64(char* out, long long value) {
    out[0] = 'l';
    PutLE<std::uint64_t>(out + 1, static_cast<std::uint64_t>(value));
    return 9;
}

int CKXNetCompressHelper::NCH_decompress_int64(char* in, long long& value) {
    value = static_cast<long long>(GetLE<std::uint64_t>(in + 1));
    return 9;
}

int CKXNetCompressHelper::NCH_compress_string(char* out, const char* text) {
    return PutBytes(out, 'S', text, static_cast<std::uint32_t>(std::strlen(text)));
}

int CKXNetCompressHelper::NCH_decompress_string(char* in, char* dest, int max) {
    const std::uint32_t n = GetLE<std::uint32_t>(in + 1);
    if (max > 0) {
        if (n < static_cast<std::uint32_t>(max)) {
            std::memcpy(dest, in + 5, n);
            dest[n] = '\0';
        } else {
            std::memcpy(dest, in + 5, static_cast<std::size_t>(max));
        }
    }
    return Consumed(n);
}

int CKXNetCompressHelper::NCH_compress_binData(char* out, char* data, int len) {
    return PutBytes(out, 'B', data, len > 0 ? static_cast<std::uint32_t>(len) : 0);
}

int CKXNetCompressHelper::NCH_decompress_binData(char* in, char* dest, int max, int& len) {
    const std::uint32_t n = GetLE<std::uint32_t>(in + 1);
    len = n > static_cast<std::uint32_t>(INT_MAX) ? INT_MAX : static_cast<int>(n);
    const std::uint32_t keep = max > 0 && n > static_cast<std::uint32_t>(max) ? static_cast<std::uint32_t>(max) : (max > 0 ? n : 0);
    if (keep > 0) std::memcpy(dest, in + 5, keep);
    return Consumed(n);
}
