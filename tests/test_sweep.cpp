// One sweep over the whole catalogue: every routed function id, in the 2008
// coding under flags 0, 1 and 2 and in the Fast coding, requests and answers,
// each message built once from the catalogue's sample records. Per message:
//   - the classic members give the frozen golden bytes (flag 0 and Fast:
//     the caller's input, the wire and the restored bytes the golden corpus
//     holds; TRDCOMP_GOLDEN_WRITE=1 rewrites the corpus from them instead);
//   - restored records are what the documented losses predict; raw,
//     head-only and empty routes do what their routing cell says;
//   - the classic packer writes nothing past the message;
//   - the modern size bound is never below the packed length, a buffer of
//     exactly that length packs the same bytes, and one byte fewer, half of
//     it or none is refused with the length needed, none of them allocating;
//   - RestoreInto an exact block, strict, gives the classic restore's bytes
//     without allocating, and a block one byte short is refused and left
//     untouched;
//   - MessageLength finds the message's length from every prefix of it;
//   - damaged copies (cut short, single bytes overwritten) are refused or
//     restored without an access outside the buffers (the sanitizers watch).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "model/Samples.h"
#include "support/AllocHook.h"
#include "support/Golden.h"
#include "support/Messages.h"
#include "trdcomp/trdcomp.hpp"

using catalogue_model::Coding;
using catalogue_model::Get;
using catalogue_model::Layout;
using Kind = catalogue_model::CellKind;
using namespace testmsg;

namespace {

// Fast, and 2008 under each flag (0: int32 as int, 1: as int64, 2: int32
// fields not written, read back as int64).
struct Variant {
    Coding coding;
    char flag;
    bool Fast() const { return coding == Coding::kFast; }
    trdcomp::Coding Modern() const { return Fast() ? trdcomp::Coding::Fast(1) : trdcomp::Coding::C2008(flag); }
    std::string Name() const { return Fast() ? "fast" : "2008 flag " + std::to_string(int{flag}); }
};
constexpr Variant kVariants[] = {{Coding::k2008, 0}, {Coding::k2008, 1}, {Coding::k2008, 2}, {Coding::kFast, 0}};

// Under flag 2 only records without an int32-coded field come back as packed.
bool Comparable(const Layout& l, Variant v) {
    if (v.flag != 2) return true;
    for (const auto& f : l.fields)
        if (f.kind == catalogue_model::FieldKind::Int32 || f.kind == catalogue_model::FieldKind::Sized ||
            f.kind == catalogue_model::FieldKind::Array)
            return false;
    return true;
}

trdcomp::span<const char> Span(const std::vector<char>& v) { return {v.data(), v.size()}; }

void ExpectRecords(const Layout& l, const std::vector<char>& sent, std::int64_t count, const char* at, Variant v) {
    if (!Comparable(l, v)) return;
    for (std::int64_t i = 0; i < count; ++i) {
        const std::vector<char> rec(sent.begin() + i * l.size, sent.begin() + (i + 1) * l.size);
        const std::string diff = catalogue_model::Compare(l, catalogue_model::Expected(l, rec, v.coding), at + i * l.size);
        ASSERT_EQ(diff, "") << "record " << i;
    }
}

// What every message of the sweep goes through, whatever its route.
struct Sweep {
    std::set<std::string> goldenSeen;
    int coded = 0, compared = 0;

    // The classic restore of `wire` (an exact heap block), then the modern
    // restores and framing of the same bytes.
    void Restore(const std::vector<char>& wire, bool request, Variant v, Restored& r) {
        Exact in(wire);
        testmsg::Restore(r, in.data(), in.size(), request, v.flag);
        ASSERT_EQ(r.rc, 1);

        trdcomp::RestoreOptions options;
        options.flag = v.flag;
        options.strict = true;  // every message the sweep packs is exact
        const std::size_t need = trdcomp::RestoredSize(Span(wire), v.flag);
        ASSERT_GE(need, static_cast<std::size_t>(r.p ? r.len : 0));
        if (need > 0) {
            const std::unique_ptr<char[]> block(new char[need]);  // exact: ASan sees any write past it
            const std::size_t allocations = alloc_hook::Allocations();
            const trdcomp::RestoredView view = trdcomp::RestoreInto({block.get(), need}, Span(wire), options);
            EXPECT_EQ(alloc_hook::Allocations(), allocations) << "RestoreInto allocated";
            ASSERT_TRUE(view) << trdcomp::Message(view.Error());
            ASSERT_EQ(view.Size(), static_cast<std::size_t>(r.len));
            EXPECT_EQ(std::memcmp(block.get(), r.p, view.Size()), 0);
            std::vector<char> shorter(need, 0x5A);  // the block handed over is one byte shorter
            const std::size_t before = alloc_hook::Allocations();
            const trdcomp::RestoredView refused = trdcomp::RestoreInto({shorter.data(), need - 1}, Span(wire), options);
            EXPECT_EQ(alloc_hook::Allocations(), before) << "a refused RestoreInto allocated";
            EXPECT_EQ(refused.Error(), trdcomp::Errc::buffer_too_small);
            EXPECT_EQ(refused.Needed(), need);
            EXPECT_EQ(shorter, std::vector<char>(need, 0x5A)) << "a refused restore wrote";
        }

        // The message's length from every prefix; the next message's bytes change nothing.
        std::vector<char> two = wire;
        two.insert(two.end(), wire.begin(), wire.end());
        const trdcomp::FrameLength whole = trdcomp::MessageLength(Span(wire));
        const trdcomp::FrameLength followed = trdcomp::MessageLength(Span(two));
        EXPECT_EQ(followed.status, whole.status);
        EXPECT_EQ(followed.length, whole.length);
        ASSERT_TRUE(whole.status == trdcomp::Framing::complete || whole.status == trdcomp::Framing::cannot_tell);
        if (whole.status == trdcomp::Framing::complete) { ASSERT_EQ(whole.length, wire.size()); }
        if (v.flag != 0) return;  // framing does not depend on the flag
        for (std::size_t k = 0; k < wire.size(); k += 1 + k / 64) {
            Exact prefix(wire.data(), static_cast<int>(k));
            const trdcomp::FrameLength f = trdcomp::MessageLength({prefix.data(), k});
            if (f.status == trdcomp::Framing::need_more) {
                ASSERT_GT(f.length, k) << "prefix " << k;
                ASSERT_LE(f.length, wire.size()) << "prefix " << k;
            } else {
                ASSERT_EQ(f.status, whole.status) << "prefix " << k;
                ASSERT_EQ(f.length, whole.length) << "prefix " << k;
            }
        }
    }

    // What the caller handed over, the packed and the restored bytes against
    // the frozen corpus (TRDCOMP_GOLDEN_WRITE set: written to it instead). A
    // KXPfdk of another value format (the tests swap one in) codes other
    // 2008 bytes: those are counted, not compared.
    void Golden(const std::string& name, const std::vector<char>& input, const std::vector<char>& wire, const Restored& r) {
        goldenSeen.insert(name);
        const std::vector<char> files[] = {input, wire, r.bytes()};
        const char* const parts[] = {".input", ".wire", ".restored"};
        for (int i = 0; i < 3; ++i) {
            if (kWrite) {
                std::ofstream(std::filesystem::path(TRDCOMP_GOLDEN_DIR) / (name + parts[i]), std::ios::binary)
                    .write(files[i].data(), static_cast<std::streamsize>(files[i].size()));
            } else if (kOtherFormat && name.find("_2008") != std::string::npos) {
                otherBytes += i == 1 && golden::File(name + parts[i]) != files[i];
            } else if (const std::vector<char> frozen = golden::File(name + parts[i]); frozen != files[i]) {
                const auto at = std::mismatch(frozen.begin(), frozen.end(), files[i].begin(), files[i].end()).first;
                ADD_FAILURE() << name << parts[i] << " differs from the corpus at byte " << at - frozen.begin() << " (frozen "
                              << frozen.size() << " bytes, now " << files[i].size() << "): the wire format changed";
            }
        }
    }
    static inline const bool kWrite = std::getenv("TRDCOMP_GOLDEN_WRITE") != nullptr;
    static inline const bool kOtherFormat = [] {
        const char* loaded = std::getenv("TRDCOMP_TEST_KXPFDK");
        return loaded && (std::string(loaded) == "foreign" || std::string(loaded) == "interposed");
    }();
    int otherBytes = 0;

    // Packs into exactly the packed length, one byte fewer, half of it and
    // nothing, each in a heap block of its own: a refusal tells the exact
    // length, and no capacity makes the packer allocate.
    template <class Pack>
    void Capacity(const std::vector<char>& classic, std::uint64_t bound, Pack pack) {
        EXPECT_GE(bound, classic.size());
        for (std::size_t capacity : {classic.size(), classic.size() - 1, classic.size() / 2, std::size_t{0}}) {
            const std::unique_ptr<char[]> block(new char[capacity]);
            const std::size_t allocations = alloc_hook::Allocations();
            const trdcomp::PackResult r = pack(trdcomp::span<char>(block.get(), capacity));
            EXPECT_EQ(alloc_hook::Allocations(), allocations) << "the pack allocated, capacity " << capacity;
            if (capacity == classic.size()) {
                ASSERT_TRUE(r) << trdcomp::Message(r.error);
                ASSERT_EQ(r.size, classic.size());
                EXPECT_EQ(std::memcmp(block.get(), classic.data(), classic.size()), 0);
            } else {
                EXPECT_EQ(r.error, trdcomp::Errc::buffer_too_small);
                EXPECT_EQ(r.needed, classic.size()) << capacity;
            }
        }
    }

    // Damaged copies: cut at spread-out lengths, single bytes overwritten.
    void Damage(const std::vector<char>& valid, bool request, Variant v) {
        const std::size_t n = valid.size();
        const std::size_t step = n / 24 + 1;
        auto restore = [&](std::vector<char> bytes) {
            Exact in(bytes);
            Restored r;
            testmsg::Restore(r, in.data(), in.size(), request, v.flag);
            ASSERT_TRUE(r.rc == 0 || r.rc == 1);
        };
        for (std::size_t len = request ? 76 : 96; len < n; len += step) restore(std::vector<char>(valid.begin(), valid.begin() + len));
        for (std::size_t i = 0; i < n; i += step)
            for (unsigned char b : {0x00, 0x80, 0xFF}) {
                std::vector<char> m = valid;
                m[i] = static_cast<char>(b);
                restore(m);
            }
    }

    void Request(int id, Variant v) {
        SCOPED_TRACE("request " + std::to_string(id) + " " + v.Name());
        const catalogue_model::Cell pack = Get().PackCell(true, id, v.Fast()), restore = Get().RestoreCell(true, id, v.Fast());
        catalogue_model::RequestSample s;
        if (!pack.IsCodec() || !catalogue_model::SampleRequest(id, v.coding, s)) {
            s.head = ReqHead(id, v.Fast() ? 0x10 : 0, 1, 10);
            s.data.assign({'r', 'a', 'w', '-', 'd', 'a', 't', 'a', '!', '!'});
        }
        std::vector<char> wire(1 << 20);
        int len = -1;
        ASSERT_EQ(CTrdCompData::PackReq2008(wire.data(), len, &s.head, s.data.data(), static_cast<int>(s.data.size()), v.flag), 1);
        wire.resize(static_cast<std::size_t>(len));
        // Not told its capacity, the packer writes no byte past the message.
        std::vector<char> exact(wire.size() + 32, '\xA5');
        std::fill_n(exact.begin(), wire.size(), '\0');
        int exactLen = -1;
        ASSERT_EQ(CTrdCompData::PackReq2008(exact.data(), exactLen, &s.head, s.data.data(),
                                            static_cast<int>(s.data.size()), v.flag),
                  1);
        ASSERT_EQ(exactLen, len);
        EXPECT_TRUE(std::equal(wire.begin(), wire.end(), exact.begin()));
        EXPECT_EQ(std::count(exact.begin() + len, exact.end(), '\xA5'), 32) << "a write past the message";
        switch (pack.kind) {
            case Kind::no_records:
            case Kind::head_only:
                ASSERT_EQ(len, 76);
                EXPECT_EQ(Word(wire.data(), 68), pack.kind == Kind::no_records ? 0 : s.head.nRecCount);
                EXPECT_EQ(Word(wire.data(), 8), s.head.nFlags);  // no coded bit
                break;
            case Kind::raw:
                ASSERT_EQ(wire.size(), 76 + s.data.size());
                EXPECT_TRUE(std::equal(s.data.begin(), s.data.end(), wire.begin() + 76));
                break;
            default:
                EXPECT_EQ(Word(wire.data(), 8) & 1, 1);
                ++coded;
        }
        Capacity(wire, trdcomp::RequestSizeBound(s.head, s.data.size(), v.Modern()), [&](trdcomp::span<char> out) {
            return trdcomp::PackRequest(out, s.head, Span(s.data), v.Modern());
        });

        Restored r;
        Restore(wire, true, v, r);
        if (::testing::Test::HasFatalFailure()) return;
        if (restore.kind == Kind::nothing) {
            EXPECT_EQ(r.p, nullptr);
            EXPECT_EQ(r.len, 0);
        } else if (restore.kind == Kind::raw) {
            EXPECT_EQ(r.bytes(), wire);
        } else {
            const Layout& back = Get().At(Get().requestLayoutOf.at(restore.codec));
            const int records = Word(wire.data(), 68);
            EXPECT_EQ(r.len, 76 + records * back.size);
            EXPECT_EQ(Word(r.p, 72), back.size);
            if (s.layout && s.layout->size == back.size) ExpectRecords(back, s.data, records, r.p + 76, v);
            ++compared;
        }
        if (pack.IsCodec() && v.flag == 0) {
            std::vector<char> input = ReqBytes(s.head, s.data.size());
            std::copy(s.data.begin(), s.data.end(), input.begin() + 76);
            Golden("req_" + std::to_string(id) + (v.Fast() ? "_fast" : "_2008"), input, wire, r);
        }
        if (v.flag != 2) Damage(wire, true, v);
    }

    void Answer(int id, Variant v) {
        const catalogue_model::Cell pack = Get().PackCell(false, id, v.Fast()), restore = Get().RestoreCell(false, id, v.Fast());
        std::vector<catalogue_model::AnswerSample> samples = catalogue_model::SampleAnswers(id, v.coding);
        if (samples.empty()) {  // no codec: one raw array of 6-byte records
            catalogue_model::AnswerSample s;
            s.proc = Proc(id, {{3, 6}});
            s.arrays[0].assign(18, 'q');
            samples.push_back(s);
        } else {  // and the first shape with no records at all
            catalogue_model::AnswerSample none = samples[0];
            none.variant = "(no records)";
            for (int j = 0; j < 5; ++j) none.proc.nRecCount[j] = 0;
            samples.push_back(none);
        }
        for (catalogue_model::AnswerSample& s : samples) {
            SCOPED_TRACE("answer " + std::to_string(id) + s.variant + " " + v.Name());
            auto& a = s.arrays;
            std::vector<char> wire(1 << 20, 0);
            int len = -1;
            EXPECT_EQ(CTrdCompData::PackAns2008(wire.data(), static_cast<int>(wire.size()), len, &s.proc, a[0].data(), a[1].data(),
                                                a[2].data(), a[3].data(), a[4].data(), v.flag, v.Fast() ? 0x10 : 0),
                      0);
            ASSERT_GE(len, 96);
            wire.resize(static_cast<std::size_t>(len));
            if (pack.kind == Kind::head_only) { EXPECT_EQ(len, 96); }
            if (pack.IsCodec()) {
                EXPECT_EQ(Word(wire.data(), 8) & 1, 1);
                ++coded;
            }
            std::vector<trdcomp::Array> arrays;
            for (int j = 0; j < s.proc.nArrayCount; ++j)
                arrays.emplace_back(a[static_cast<std::size_t>(j)].data(), s.proc.nRecCount[j], s.proc.nRecSize[j]);
            Capacity(wire, trdcomp::AnswerSizeBound(s.proc, v.Modern()), [&](trdcomp::span<char> out) {
                return trdcomp::PackAnswer(out, s.proc, trdcomp::span<const trdcomp::Array>(arrays.data(), arrays.size()), v.Modern());
            });

            Restored r;
            Restore(wire, false, v, r);
            if (::testing::Test::HasFatalFailure()) return;
            if (restore.kind == Kind::nothing) {
                EXPECT_EQ(r.p, nullptr);
                EXPECT_EQ(r.len, 0);
                continue;
            }
            EXPECT_EQ(Word(r.p, 0), 96);
            if (restore.kind == Kind::raw) {
                EXPECT_EQ(r.bytes(), wire);
            } else {
                const catalogue_model::Shape& back = Get().AnswerShape(restore.codec);
                const int sections = s.proc.nArrayCount;
                const char* at = r.p + 96 + (sections > 1 ? 8 * sections + 4 : 0);
                EXPECT_EQ(Word(r.p, 8) & 2, sections > 1 ? 2 : 0);
                for (int j = 0; j < sections; ++j) {
                    const Layout& l = Get().At(back.LayoutOf(j, s.proc.nRecCount[0]));
                    const int count = s.proc.nRecCount[j];
                    EXPECT_EQ(Word(r.p, sections > 1 ? 100 + 8 * j : 88), count);
                    EXPECT_EQ(Word(r.p, sections > 1 ? 104 + 8 * j : 92), l.size);
                    if (static_cast<std::size_t>(j) < s.layouts.size() && s.layouts[static_cast<std::size_t>(j)]->size == l.size)
                        ExpectRecords(l, a[static_cast<std::size_t>(j)], count, at, v);
                    at += static_cast<std::ptrdiff_t>(count) * l.size;
                }
                EXPECT_EQ(r.len, at - r.p);
                ++compared;
            }
            if (pack.IsCodec() && v.flag == 0 && s.variant != "(no records)")
{
                std::vector<char> input(reinterpret_cast<const char*>(&s.proc), reinterpret_cast<const char*>(&s.proc + 1));
                for (const auto& array : a) input.insert(input.end(), array.begin(), array.end());
                Golden("ans_" + std::to_string(id) + (v.Fast() ? "_fast" : "_2008") + s.variant, input, wire, r);
            }
            if (v.flag != 2 && s.variant != "_n1") Damage(wire, false, v);
        }
    }
};

}  // namespace

TEST(Catalogue, EveryIdCodingAndDirection) {
    if (Sweep::kWrite)
        for (const auto& e : std::filesystem::directory_iterator(TRDCOMP_GOLDEN_DIR)) std::filesystem::remove(e.path());
    Sweep sweep;
    for (int id : catalogue_model::RoutedIds())
        for (const Variant v : kVariants) {
            sweep.Request(id, v);
            sweep.Answer(id, v);
        }
    EXPECT_GT(sweep.coded, 1000);
    EXPECT_GT(sweep.compared, 1000);
    // Every golden message was produced again: none is left unchecked.
    const std::vector<std::string> names = golden::Names();
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), sweep.goldenSeen);
    // Another value format is told apart by its 2008 bytes (its Fast bytes are compared above).
    EXPECT_EQ(sweep.otherBytes > 0, Sweep::kOtherFormat);
}

// Cases the samples of the sweep do not reach.
TEST(CatalogueRequests, SharedEncoderPairsKeepTheLongerText) {
    // 1045 is packed with the encoder of the 153-byte layout; its 16-byte text survives.
    const auto& c = Get();
    const Layout& l = c.At("REQ_1045");
    std::vector<char> rec(static_cast<std::size_t>(l.size), 0);
    std::memcpy(rec.data() + 145, "SIXTEEN-CHARS-OK", 16);
    tagREQ_HEAD head = ReqHead(1045, 0, 1, l.size);
    std::vector<char> wire(4096);
    int len = 0;
    CTrdCompData::PackReq2008(wire.data(), len, &head, rec.data(), l.size, 0);
    Exact in(wire.data(), len);
    Restored r;
    RestoreReq(r, in.data(), in.size());
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(std::string(r.p + 76 + 145, 16), "SIXTEEN-CHARS-OK");
}
