// The seam to KXPfdk: which coders the 2008 engine runs with, that the two
// sets give the same bytes with our library, and that coders which misreport
// their counts cannot move the engine outside its buffers.
//
// The test suite runs this binary several times (tests/CMakeLists.txt): with
// our KXPfdk, with ours stripped of its mark, with a KXPfdk of another value
// format in its place, and with that one preloaded in front of ours.
// TRDCOMP_TEST_KXPFDK names the library loaded (ours, unmarked, foreign,
// interposed).
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Engine2008.h"
#include "LayoutMacros.h"
#include "support/Messages.h"
#include "trdcomp/trdcomp.hpp"

#include "engine_layouts.def"
#define TRD_REQ_LAYOUT_IDS(...)
#include "answer_layouts.def"
#include "request_layouts.def"

namespace e8 = trdcomp::codec2008;
using testmsg::Exact;

namespace {

std::string LoadedKXPfdk() {
    const char* v = std::getenv("TRDCOMP_TEST_KXPFDK");
    return v ? v : "ours";
}

std::vector<char> RandomRecord(std::size_t size, std::mt19937& rng) {
    std::vector<char> r(size);
    for (char& c : r) c = static_cast<char>(rng() % 4 == 0 ? 0 : rng());
    return r;
}

// Both coder sets on one layout: the same bytes out, the same record back.
template <const auto& L>
void ExpectSameCoding(std::mt19937& rng) {
    for (char flag : {0, 1, 2}) {
        for (int k = 0; k < 20; ++k) {
            const std::vector<char> rec = RandomRecord(L.size, rng);
            std::vector<char> a(e8::MaxRecord<L, e8::BuiltInCoders>() + 1), b(e8::MaxRecord<L, e8::ExportedCoders>() + 1);
            const auto na = e8::EncodeRecord<L, e8::BuiltInCoders>(rec.data(), a.data(), flag);
            const auto nb = e8::EncodeRecord<L, e8::ExportedCoders>(rec.data(), b.data(), flag);
            ASSERT_EQ(std::vector<char>(a.begin(), a.begin() + na), std::vector<char>(b.begin(), b.begin() + nb))
                << "flag " << int{flag};
            std::vector<char> ra(L.size + 16, 0), rb(L.size + 16, 0);
            e8::DecodeRecord<L, e8::BuiltInCoders>(a.data(), na, ra.data(), flag);
            e8::DecodeRecord<L, e8::ExportedCoders>(a.data(), na, rb.data(), flag);
            ASSERT_EQ(ra, rb) << "flag " << int{flag};
        }
    }
}

// A KXPfdk that keeps the contract on what it reads and writes but returns
// whatever count it is told to: negative, zero, or far beyond its bytes.
struct Misreporting {
    static inline int kCount = 0;
    static int Fill(char* out, int n) {
        for (int i = 0; i < n; ++i) out[i] = static_cast<char>(0x41 + i);
        return kCount;
    }
    static int NCH_compress_int(char* out, int) { return Fill(out, 3); }
    static int NCH_decompress_int(char*, int& v) { return v = 7, kCount; }
    static int NCH_compress_int64(char* out, long long) { return Fill(out, 5); }
    static int NCH_decompress_int64(char*, long long& v) { return v = 9, kCount; }
    static int NCH_compress_string(char* out, const char*) { return Fill(out, 2); }
    static int NCH_decompress_string(char* in, char* dest, int max) {
        if (max > 0) std::memcpy(dest, in, static_cast<std::size_t>(max));  // reads max bytes, writes max
        return kCount;
    }
    static int NCH_compress_binData(char* out, char*, int) { return Fill(out, 1); }
    static int NCH_decompress_binData(char* in, char* dest, int max, int& len) {
        if (max > 0) std::memcpy(dest, in, static_cast<std::size_t>(max));
        len = INT_MAX;
        return kCount;
    }
};

// Encodes into a block of exactly the worst case and decodes every prefix of
// the result from an exact-size copy into a slot with guard bytes around it.
template <const auto& L, class C>
void ExpectContained(std::mt19937& rng) {
    constexpr std::size_t kMax = e8::MaxRecord<L, C>();
    for (char flag : {0, 1, 2}) {
        const std::vector<char> rec = RandomRecord(L.size, rng);
        Exact out(std::vector<char>(kMax, 0));
        const auto n = e8::EncodeRecord<L, C>(rec.data(), out.data(), flag);
        ASSERT_LE(n, kMax);
        const std::size_t spare = trdcomp::model::MaxDecodeEnd(L) - L.size;
        for (std::uint32_t len = 1; len <= n; len += 1 + len / 8) {
            Exact in(out.data(), static_cast<int>(len));
            std::vector<char> slot(16 + L.size + spare + 16, '#');
            e8::DecodeRecord<L, C>(in.data(), len, slot.data() + 16, flag);
            EXPECT_EQ(std::string(slot.data(), 16), std::string(16, '#'));
            EXPECT_EQ(std::string(slot.data() + 16 + L.size + spare, 16), std::string(16, '#'));
        }
    }
}

// A run of records of layout L coded by the built-in coders, whole and then
// damaged: a record's length made shorter or longer than its fields, bytes
// overwritten by any value or by small ones (lengths of texts past their
// fields), the run cut anywhere. The built-in coders' decoder (every field in place, the
// record's length tested once) and the exported coders' (field by field, each
// tested against the record's end) restore the same slots and stop at the
// same place. The input is an exact-size copy, so that a read past it shows
// under the sanitizers. Wire: the layout the records are coded with (a peer's).
template <const auto& L, const auto& Wire = L>
void ExpectInPlaceAsFieldByField(std::mt19937& rng) {
    constexpr std::int64_t kCount = 9;
    const std::size_t spare = trdcomp::model::MaxDecodeEnd(L) - L.size;
    for (char flag : {0, 1, 2}) {
        std::vector<char> wire;
        std::vector<std::size_t> starts;
        for (std::int64_t i = 0; i < kCount; ++i) {
            const std::vector<char> rec = RandomRecord(Wire.size, rng);
            std::vector<char> coded(4 + e8::MaxRecord<Wire, e8::BuiltInCoders>());
            const auto n = e8::EncodeRecord<Wire, e8::BuiltInCoders>(rec.data(), coded.data() + 4, flag);
            std::memcpy(coded.data(), &n, 4);
            starts.push_back(wire.size());
            wire.insert(wire.end(), coded.begin(), coded.begin() + 4 + n);
        }
        for (int variant = 0; variant < 80; ++variant) {
            std::vector<char> bad = wire;
            if (variant % 4 == 3) {
                // Small byte values: texts' lengths past their fields, most often.
                for (int k = 0; k < 3; ++k) bad[rng() % bad.size()] = static_cast<char>(rng() % 16);
            } else if (variant % 4 == 1) {
                const std::size_t at = starts[rng() % starts.size()];
                std::int32_t len;
                std::memcpy(&len, bad.data() + at, 4);
                len += static_cast<std::int32_t>(rng() % 9) - 4;
                std::memcpy(bad.data() + at, &len, 4);
            } else if (variant % 4 == 2) {
                for (int k = 0; k < 3; ++k) bad[rng() % bad.size()] = static_cast<char>(rng());
            }
            if (variant >= 40) bad.resize(rng() % (bad.size() + 1));
            SCOPED_TRACE(testing::Message() << "flag " << int{flag} << ", variant " << variant);
            Exact in(bad);
            std::vector<char> a(kCount * L.size + spare, 0), b(kCount * L.size + spare, 0);
            std::int64_t ca = 0, cb = 0;
            const auto na = e8::DecodeRunWith<L, e8::BuiltInCoders>(in.data(), in.size(), ca, kCount, a.data(), flag);
            const auto nb = e8::DecodeRunWith<L, e8::ExportedCoders>(in.data(), in.size(), cb, kCount, b.data(), flag);
            ASSERT_EQ(na, nb);
            ASSERT_EQ(ca, cb);
            ASSERT_EQ(a, b);
        }
    }
}

}  // namespace

TEST(ValueCoders, InPlaceDecodeRestoresAsFieldByField) {
    const std::string loaded = LoadedKXPfdk();
    if (loaded != "ours" && loaded != "unmarked") GTEST_SKIP() << "the loaded KXPfdk has another format";
    // Which layouts take the in-place decoder: those whose decodes stay inside
    // their fields (a decode limit past a field keeps the checked one), of
    // more than a few short fields and fewer than eight numbers.
    static_assert(e8::kInPlace<kREQ_1030, e8::BuiltInCoders> && e8::kInPlace<kT_WIDE, e8::BuiltInCoders> &&
                  e8::kInPlace<kT_ORDER, e8::BuiltInCoders> && !e8::kInPlace<kT_SEVEN, e8::BuiltInCoders> &&
                  !e8::kInPlace<kT_TAIL_LIMIT, e8::BuiltInCoders> && !e8::kInPlace<kANS_1110, e8::BuiltInCoders> &&
                  !e8::kInPlace<kREQ_1030, e8::ExportedCoders>);
    std::mt19937 rng(31);
    ExpectInPlaceAsFieldByField<kT_SEVEN>(rng);
    ExpectInPlaceAsFieldByField<kT_ORDER>(rng);
    ExpectInPlaceAsFieldByField<kT_LIMIT>(rng);
    ExpectInPlaceAsFieldByField<kT_COUNTED>(rng);
    ExpectInPlaceAsFieldByField<kT_BLOCK>(rng);
    ExpectInPlaceAsFieldByField<kT_MIXED>(rng);
    ExpectInPlaceAsFieldByField<kT_WIDE>(rng);
    ExpectInPlaceAsFieldByField<kT_WIDE, kT_WIDE_PEER>(rng);  // a text past its field into the next
    ExpectInPlaceAsFieldByField<kREQ_1030>(rng);
    ExpectInPlaceAsFieldByField<kANS_1110>(rng);
    ExpectInPlaceAsFieldByField<kT_TAIL_LIMIT>(rng);
}

TEST(ValueCoders, TheLoadedKXPfdkIsRecognised) {
    const std::string loaded = LoadedKXPfdk();
    ASSERT_TRUE(loaded == "ours" || loaded == "unmarked" || loaded == "foreign" || loaded == "interposed") << loaded;
    // Only ours, with its mark and all eight coders from the same library,
    // runs the engine on the built-in coders.
    EXPECT_EQ(trdcomp::BuiltInValueCoders(), loaded == "ours");
}

TEST(ValueCoders, BuiltInAndExportedCodersGiveTheSameBytes) {
    const std::string loaded = LoadedKXPfdk();
    if (loaded != "ours" && loaded != "unmarked") GTEST_SKIP() << "the loaded KXPfdk has another format";
    std::mt19937 rng(12);
    ExpectSameCoding<kT_SEVEN>(rng);
    ExpectSameCoding<kT_ORDER>(rng);
    ExpectSameCoding<kT_COUNTED>(rng);
    ExpectSameCoding<kT_BLOCK>(rng);
    ExpectSameCoding<kT_LIMIT>(rng);
    // A peer's text longer than its 4-byte field, decoded with the limit 12:
    // it runs into the next record, which each coder clears before decoding
    // it, or after the run when the message does not hold it. Two records:
    // int 0 and "ABCDEFGHIJK", int 0 and "x"; then the first alone.
    const std::vector<char> run = {13, 0, 0, 0, 0, 11, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K',
                                   3,  0, 0, 0, 0, 1,  'x'};
    std::vector<char> expected = {0, 0, 0, 0, 'A', 'B', 'C', 'D', 0, 0, 0, 0, 'x', 0, 0, 0, 0, 0, 0, 0};
    for (const auto& [n, held] : {std::pair<std::int64_t, std::int64_t>{24, 2}, {17, 1}}) {
        SCOPED_TRACE(n);
        if (held == 1) expected[12] = 0;
        std::vector<char> builtIn(20, 0), exported(20, 0);
        std::int64_t a = 0, b = 0;
        EXPECT_EQ((e8::DecodeRunWith<kT_TAIL_LIMIT, e8::BuiltInCoders>(run.data(), n, a, 2, builtIn.data(), 0)), held);
        EXPECT_EQ((e8::DecodeRunWith<kT_TAIL_LIMIT, e8::ExportedCoders>(run.data(), n, b, 2, exported.data(), 0)), held);
        EXPECT_EQ(builtIn, expected);
        EXPECT_EQ(exported, expected);
    }
}

TEST(ValueCoders, MisreportedCountsStayInsideTheBuffers) {
    std::mt19937 rng(5);
    using Liar = e8::ContractCoders<Misreporting>;
    for (int count : {-9, 0, 1, 2, 3, 40, INT_MAX}) {
        SCOPED_TRACE(count);
        Misreporting::kCount = count;
        ExpectContained<kT_SEVEN, Liar>(rng);
        ExpectContained<kT_BLOCK, Liar>(rng);
        ExpectContained<kT_TAIL_LIMIT, Liar>(rng);
        ExpectContained<kT_COUNTED, Liar>(rng);
    }
    ExpectContained<kT_ORDER, e8::ExportedCoders>(rng);
    ExpectContained<kT_TAIL_LIMIT, e8::ExportedCoders>(rng);
}
