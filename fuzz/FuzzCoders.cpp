// Fuzz target: the word-at-a-time coders the record engines use, held
// against the byte-by-byte primitives and the C library, and the exact Fast
// record encoder against the wide one, on values and records taken from the
// input. Checked on every input:
//   - the wide writers write the bytes (and count) of the byte writers, and
//     those bytes read back as the value (but bit 63 of a negative value of
//     magnitude 2^62 or more, which the format drops);
//   - the word reader reads what the byte reader reads, or leaves a value of
//     more than eight bytes to it;
//   - the text and block comparisons and lengths agree with the C library;
//   - a short copy copies exactly its bytes;
//   - the exact encoder of a small test layout writes the wide encoder's
//     bytes and nothing past them.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "LayoutMacros.h"
#include "Text.h"
#include "FastEngine.h"
#include "engine_layouts.def"

using namespace trdcomp::fast;
namespace d = trdcomp::detail;

namespace {

#define Check(ok)                                                                \
    do {                                                                         \
        if (!(ok)) {                                                             \
            std::fprintf(stderr, "check failed, line %d: %s\n", __LINE__, #ok); \
            __builtin_trap();                                                    \
        }                                                                        \
    } while (0)

void Writers(std::int64_t v) {
    byte a[16], b[16];
    const std::uint32_t n = FastPutInt64(a, v);
    std::int64_t back = 0;
    Check(GetSignedAt(PtrSource{a}, 0, &back) == n && (v <= -(std::int64_t{1} << 62) || back == v));
    Check(PutInt64Wide(b, v) == n && FastSizeInt64(v) == n && std::memcmp(a, b, n) == 0);
    const auto u = static_cast<std::uint64_t>(v);
    const std::uint32_t m = FastPutUInt64(a, u);
    Check(PutUInt64Wide(b, u) == m && FastSizeUInt64(u) == m && std::memcmp(a, b, m) == 0);
}

template <class T, bool kSigned = true>
void ReadBothWays(const byte* p) {
    T slow{}, fast{};
    std::int64_t k;
    if constexpr (kSigned) {
        k = GetSignedAt(PtrSource{p}, 0, &slow);
    } else {
        k = GetUInt16At(PtrSource{p}, 0, &slow);
    }
    const std::int64_t w = GetWord<T, kSigned>(p, &fast);
    Check(k <= 8 ? w == k && fast == slow : w == 0);
}

// A text field of W bytes and the bytes behind it, against another.
template <std::uint32_t W>
void Texts(const char* a, const char* b, std::size_t limit) {
    Check(d::TextDiffers<W>(a, b, limit) == (std::strncmp(a, b, limit) != 0));
    Check(d::TextLength<W>(a) == ::strnlen(a, W));
    Check(d::BlockDiffers<W>(a, b) == (std::memcmp(a, b, W) != 0));
    bool any = false;
    for (std::uint32_t k = 0; k < W; ++k) any |= a[k] != 0;
    Check(d::AnyNonZero<W>(a) == any);
}

template <const auto& L>
void ExactEncoder(const char* cur, const char* prev) {
    static_assert(RecordCoder<L>::kExactInPlace, "a layout small enough for the exact encoder");
    constexpr std::size_t kMax = MaxRecord<L>();
    std::vector<byte> wide(kMax + kEncodeSlack), exact(kMax + 8, 0xA5);
    const std::uint32_t n = EncodeRecord<L>(cur, prev, wide.data());
    const std::uint32_t m = EncodeRecord<L, true>(cur, prev, exact.data());
    Check(m == n && std::memcmp(exact.data(), wide.data(), m) == 0);
    for (std::size_t i = m; i < exact.size(); ++i) Check(exact[i] == 0xA5);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The input, twice over when short, as two records' worth of bytes.
    char buf[2 * 80] = {};
    for (std::size_t i = 0; i < sizeof buf && size > 0; ++i) buf[i] = static_cast<char>(data[i % size]);
    const auto* bytes = reinterpret_cast<const byte*>(buf);

    std::int64_t v;
    std::memcpy(&v, buf, 8);
    const int shift = static_cast<unsigned char>(buf[8]) % 64;
    const std::int64_t narrow = v >> shift;
    for (const std::int64_t x : {v, narrow, static_cast<std::int64_t>(0 - static_cast<std::uint64_t>(narrow))}) Writers(x);

    // A value of at most 16 bytes: stop bytes behind them.
    byte word[24];
    std::memcpy(word, bytes, 16);
    std::memset(word + 16, 0x80, 8);
    ReadBothWays<signed char>(word);
    ReadBothWays<std::int16_t>(word);
    ReadBothWays<std::int32_t>(word);
    ReadBothWays<std::int64_t>(word);
    ReadBothWays<std::uint16_t, false>(word);

    const std::size_t limit = static_cast<unsigned char>(buf[9]) % 9;
    Texts<8>(buf, buf + 80, 8 + limit);
    Texts<12>(buf, buf + 80, 12 + limit);
    Texts<16>(buf, buf + 80, 16 + limit);
    Texts<24>(buf, buf + 80, 24 + limit);
    Texts<64>(buf + 1, buf + 80, 64 + limit);

    char copy[64];
    const std::size_t n = static_cast<unsigned char>(buf[10]) % 41;
    std::memset(copy, '.', sizeof copy);
    d::CopyShort(copy + 8, buf, n);
    for (std::size_t k = 0; k < sizeof copy; ++k) Check(copy[k] == (k >= 8 && k < 8 + n ? buf[k - 8] : '.'));

    // The previous record, when there is one, is the second half of the input.
    const unsigned pick = size > 0 ? data[0] : 0;
    const char* prev = pick & 0x80 ? buf + 80 : nullptr;
    switch (pick % 7) {
        case 0: ExactEncoder<kT_SEVEN>(buf, prev); break;
        case 1: ExactEncoder<kT_EIGHT>(buf, prev); break;
        case 2: ExactEncoder<kT_LATE>(buf, prev); break;
        case 3: ExactEncoder<kT_GAP>(buf, prev); break;
        case 4: ExactEncoder<kT_LIMIT>(buf, prev); break;
        case 5: ExactEncoder<kT_BLOCK>(buf, prev); break;
        default: ExactEncoder<kT_COUNTED>(buf, prev); break;
    }
    return 0;
}
