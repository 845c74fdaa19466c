// Little-endian loads and stores at any alignment, overflow-free size helpers
// and the one allocator of restored buffers.
#pragma once

#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#if defined(__x86_64__) || defined(_M_X64)
#include <emmintrin.h>
#endif

#include "Inline.h"

namespace trdcomp::detail {

static_assert(std::endian::native == std::endian::little,
              "the wire and record layouts are little-endian; a big-endian port needs byte swaps here");

inline std::int32_t LoadI32(const void* p) {
    std::int32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline void StoreI32(void* p, std::int32_t v) { std::memcpy(p, &v, sizeof v); }
inline std::uint16_t LoadU16(const void* p) {
    std::uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline void StoreU16(void* p, std::uint16_t v) { std::memcpy(p, &v, sizeof v); }

// Largest block a restore may ask for: a length that fits an int plus the
// spare bytes behind it. Anything larger takes the allocation-failure path.
inline constexpr std::uint64_t kMaxAllocation = static_cast<std::uint64_t>(INT_MAX) + 1024u;

// A zero-filled block from the global operator new, or null when the size is
// out of range or the allocation fails. No exception escapes. Released by
// ReleaseAnsData with the matching global operator delete.
// `from`: the bytes before it are the caller's to write, so only those from
// there on are zeroed.
inline char* AllocZeroed(std::uint64_t bytes, std::uint64_t from = 0) noexcept {
    if (bytes > kMaxAllocation) return nullptr;
    void* p = ::operator new(static_cast<std::size_t>(bytes), std::nothrow);
    if (p != nullptr && from < bytes) std::memset(static_cast<char*>(p) + from, 0, static_cast<std::size_t>(bytes - from));
    return static_cast<char*>(p);
}

// Converts a double to a 64-bit integer by truncation toward zero. NaN,
// infinities and values outside the int64 range give INT64_MIN, as the x86
// conversion instruction does, instead of undefined behaviour (on x86-64 the
// instruction itself is used: one instruction, no range tests).
TRDCOMP_FORCE_INLINE std::int64_t TruncToInt64(double d) noexcept {
#if defined(__x86_64__) || defined(_M_X64)
    return _mm_cvttsd_si64(_mm_set_sd(d));
#else
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return INT64_MIN;
    return static_cast<std::int64_t>(d);
#endif
}

}  // namespace trdcomp::detail
