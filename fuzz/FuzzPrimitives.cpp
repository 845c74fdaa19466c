// Fuzz target: the value coders. Readers get the input followed by padding
// (0x80 for the stop-bit readers, zeros for KXPfdk), so that they stop where
// they would run past it; writers must round-trip what they are given.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fastcodec/FastPrimitives.h"
#include "trdcomp/KXNetCompressHelper.h"

using namespace trdcomp::fast;

namespace {

constexpr int kMax = 40;

template <class T>
T Take(const std::uint8_t* data, std::size_t size) {
    T v{};
    std::memcpy(&v, data, size < sizeof v ? size : sizeof v);
    return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Readers over the input, stop-bit padded.
    std::vector<byte> in(data, data + size);
    in.resize(size + kMax + 16, 0x80);
    signed char i8;
    std::int16_t i16;
    std::int32_t i32;
    std::int64_t i64;
    std::uint16_t u16;
    double d;
    char text[kMax];
    byte block[kMax];
    FastGetInt8(in.data(), &i8);
    FastGetInt16(in.data(), &i16);
    FastGetInt32(in.data(), &i32);
    FastGetInt64(in.data(), &i64);
    FastGetUInt16(in.data(), &u16);
    FastGetPrice(in.data(), &d);
    const int max = 1 + (size ? data[0] % kMax : 0);
    FastGetAscii(in.data(), text, max);
    FastGetString(in.data(), text, max);
    FastGetBytes(in.data(), block, max);

    // KXPfdk decoders over zero-padded input.
    std::vector<char> kin(data, data + size);
    kin.resize(size + kMax + 16, 0);
    int v32, len;
    long long v64;
    CKXNetCompressHelper::NCH_decompress_int(kin.data(), v32);
    CKXNetCompressHelper::NCH_decompress_int64(kin.data(), v64);
    CKXNetCompressHelper::NCH_decompress_string(kin.data(), text, max);
    CKXNetCompressHelper::NCH_decompress_binData(kin.data(), text, max, len);

    // Writers round-trip.
    byte buf[64];
    const std::int64_t x = Take<std::int64_t>(data, size);
    FastPutInt64(buf, x);
    FastGetInt64(buf, &i64);
    if (x > -(std::int64_t{1} << 62) && i64 != x) std::abort();
    const std::int32_t y = Take<std::int32_t>(data, size);
    FastPutInt32(buf, y);
    FastGetInt32(buf, &i32);
    if (i32 != y) std::abort();
    const double p = Take<double>(data, size);
    FastPutPrice(buf, p);
    FastGetPrice(buf, &d);
    if (std::isfinite(p) && std::fabs(p) < 1e12 && std::fabs(d - p) > 0.0011) std::abort();

    char kbuf[64];
    CKXNetCompressHelper::NCH_compress_int(kbuf, y);
    CKXNetCompressHelper::NCH_decompress_int(kbuf, v32);
    if (v32 != y) std::abort();
    CKXNetCompressHelper::NCH_compress_int64(kbuf, x);
    CKXNetCompressHelper::NCH_decompress_int64(kbuf, v64);
    if (v64 != x) std::abort();
    return 0;
}
