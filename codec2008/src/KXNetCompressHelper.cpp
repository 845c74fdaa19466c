// Value coders of the 2008 record coding.
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
// count returned fits an int.
#include "trdcomp/KXNetCompressHelper.h"

#include <climits>
#include <cstdint>
#include <cstring>

namespace {

using u8 = unsigned char;

int PutVarint(char* out, std::uint64_t v) {
    int n = 0;
    while (v >= 0x80u) {
        out[n++] = static_cast<char>(static_cast<u8>(v) | 0x80u);
        v >>= 7;
    }
    out[n++] = static_cast<char>(v);
    return n;
}

int GetVarint(const char* in, std::uint64_t& v, int maxBytes) {
    std::uint64_t value = 0;
    int n = 0;
    while (n < maxBytes) {
        const u8 b = static_cast<u8>(in[n]);
        value |= static_cast<std::uint64_t>(b & 0x7Fu) << (7 * n);
        ++n;
        if (!(b & 0x80u)) break;
    }
    v = value;
    return n;
}

constexpr std::uint64_t kMaxLength = INT_MAX - 5;

// Reads a string or block length and clamps it so that header + length fits an int.
int GetLength(const char* in, std::int64_t& len) {
    std::uint64_t raw;
    const int k = GetVarint(in, raw, 5);
    len = static_cast<std::int64_t>(raw > kMaxLength ? kMaxLength : raw);
    return k;
}

}  // namespace

int CKXNetCompressHelper::NCH_compress_int(char* out, int value) {
    const auto u = static_cast<std::uint32_t>(value);
    const std::uint32_t zz = (u << 1) ^ (value < 0 ? 0xFFFFFFFFu : 0u);
    return PutVarint(out, zz);
}

int CKXNetCompressHelper::NCH_decompress_int(char* in, int& value) {
    std::uint64_t zz;
    const int k = GetVarint(in, zz, 5);
    const auto z = static_cast<std::uint32_t>(zz);
    value = static_cast<int>((z >> 1) ^ (0u - (z & 1u)));
    return k;
}

int CKXNetCompressHelper::NCH_compress_int64(char* out, long long value) {
    const auto u = static_cast<std::uint64_t>(value);
    const std::uint64_t zz = (u << 1) ^ (value < 0 ? ~std::uint64_t{0} : 0u);
    return PutVarint(out, zz);
}

int CKXNetCompressHelper::NCH_decompress_int64(char* in, long long& value) {
    std::uint64_t zz;
    const int k = GetVarint(in, zz, 10);
    value = static_cast<long long>((zz >> 1) ^ (std::uint64_t{0} - (zz & 1u)));
    return k;
}

int CKXNetCompressHelper::NCH_compress_string(char* out, const char* text) {
    const std::size_t n = std::strlen(text);
    const int k = PutVarint(out, n);
    std::memcpy(out + k, text, n);
    return k + static_cast<int>(n);
}

int CKXNetCompressHelper::NCH_decompress_string(char* in, char* dest, int max) {
    std::int64_t n;
    const int k = GetLength(in, n);
    if (max > 0) {
        if (n < max) {
            std::memcpy(dest, in + k, static_cast<std::size_t>(n));
            dest[n] = '\0';
        } else {
            std::memcpy(dest, in + k, static_cast<std::size_t>(max));
        }
    }
    return k + static_cast<int>(n);
}

int CKXNetCompressHelper::NCH_compress_binData(char* out, char* data, int len) {
    std::size_t n = len > 0 ? static_cast<std::size_t>(len) : 0;
    while (n > 0 && data[n - 1] == 0) --n;
    const int k = PutVarint(out, n);
    if (n > 0) std::memcpy(out + k, data, n);
    return k + static_cast<int>(n);
}

int CKXNetCompressHelper::NCH_decompress_binData(char* in, char* dest, int max, int& len) {
    std::int64_t n;
    const int k = GetLength(in, n);
    len = static_cast<int>(n);
    const std::int64_t keep = n < max ? n : max;
    if (keep > 0) std::memcpy(dest, in + k, static_cast<std::size_t>(keep));
    return k + static_cast<int>(n);
}
