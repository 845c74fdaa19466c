// Answer framings of both engines (several sections, count-switched layouts)
// and hostile input swept over truncations and single-byte corruptions.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "codec2008/Engine2008.h"
#include "common/LayoutMacros.h"
#include "fastcodec/FastEngine.h"
#include "support/AllocHook.h"
#include "support/Messages.h"

#include "engine_layouts.def"

using namespace testmsg;
namespace d = trdcomp::detail;

namespace {

using TwoSections = d::Sections<kT_SEVEN, kT_EIGHT>;
using CountSwitched = d::Switched<kT_GAP, kT_SEVEN>;

std::vector<char> Records(int count, int size, char seed) {
    std::vector<char> v(static_cast<std::size_t>(count * size), 0);
    for (int i = 0; i < count; ++i) {
        char* r = v.data() + i * size;
        r[0] = static_cast<char>(seed + i);
        if (size == 28) {
            const int n = 1000 * i - 7;
            std::memcpy(r + 2, &n, 4);
            std::memcpy(r + 22, "ab", 2);
        } else {
            r[size - 1] = static_cast<char>(seed);
        }
    }
    return v;
}

struct Answer {
    tagANS_Proc proc{};
    std::vector<std::vector<char>> arrays;
};

Answer Make(std::vector<std::pair<int, int>> shape) {
    Answer a;
    a.proc.nFuncId = 9000;
    a.proc.nArrayCount = static_cast<int>(shape.size());
    char seed = 'a';
    for (std::size_t j = 0; j < shape.size(); ++j) {
        a.proc.nRecCount[j] = shape[j].first;
        a.proc.nRecSize[j] = shape[j].second;
        a.arrays.push_back(Records(shape[j].first, shape[j].second, seed));
        seed = static_cast<char>(seed + 10);
    }
    a.arrays.resize(5);
    return a;
}

// Head (and the 2008 section table) as the dispatcher writes them, then the codec.
template <class Shape, bool Fast>
std::vector<char> Pack(const Answer& a) {
    std::vector<char> out(1 << 16, 0);
    SetWord(out.data(), 0, 96);
    SetWord(out.data(), 4, 9000);
    const int k = a.proc.nArrayCount;
    SetWord(out.data(), 8, (k > 1 ? 2 : 0) | (Fast ? 0x10 : 0));
    SetWord(out.data(), 88, a.proc.nRecCount[0]);
    SetWord(out.data(), 92, a.proc.nRecSize[0]);
    int len = 96;
    if (k > 1 && !Fast) {
        SetWord(out.data(), 96, 8 * k + 4);
        for (int j = 0; j < k; ++j) {
            SetWord(out.data(), 100 + 8 * j, a.proc.nRecCount[j]);
            SetWord(out.data(), 104 + 8 * j, a.proc.nRecSize[j]);
        }
        len += 8 * k + 4;
    }
    char* arrays[5];
    for (int j = 0; j < 5; ++j) arrays[j] = const_cast<char*>(a.arrays[static_cast<std::size_t>(j)].data());
    int rc;
    if constexpr (Fast)
        rc = trdcomp::fast::PackAnswer<Shape>(out.data(), len, &a.proc, arrays, 1);
    else
        rc = trdcomp::codec2008::PackAnswer<Shape>(out.data(), len, &a.proc, arrays, 0);
    EXPECT_EQ(rc, 1);
    out.resize(static_cast<std::size_t>(len));
    return out;
}

template <class Shape, bool Fast>
void Restore(Restored& r, const std::vector<char>& m) {
    Exact in(m);
    if constexpr (Fast)
        r.rc = trdcomp::fast::RestoreAnswer<Shape>(in.data(), in.size(), &r.p, r.len, 1);
    else
        r.rc = trdcomp::codec2008::RestoreAnswer<Shape>(in.data(), in.size(), &r.p, r.len, 0);
}

template <bool Fast>
void CheckTwoSections() {
    const Answer a = Make({{3, 28}, {2, 8}});
    const auto m = Pack<TwoSections, Fast>(a);
    if (Fast) {
        EXPECT_EQ(Word(m.data(), 96) & 0xFFFF, 3);  // all counts first
        EXPECT_EQ((Word(m.data(), 96) >> 16) & 0xFFFF, 2);
    }
    Restored r;
    Restore<TwoSections, Fast>(r, m);
    ASSERT_EQ(r.rc, 1);
    ASSERT_EQ(r.len, 96 + 20 + 3 * 28 + 2 * 8);
    EXPECT_EQ(Word(r.p, 0), 96);
    EXPECT_EQ(Word(r.p, 8) & 2, 2);
    const std::int32_t table[] = {20, 3, 28, 2, 8};
    EXPECT_EQ(std::memcmp(r.p + 96, table, sizeof table), 0);
    EXPECT_EQ(std::vector<char>(r.p + 116, r.p + 116 + 84), a.arrays[0]);
    EXPECT_EQ(std::vector<char>(r.p + 200, r.p + 216), a.arrays[1]);
}

}  // namespace

TEST(AnswerFraming, TwoSections2008) { CheckTwoSections<false>(); }
TEST(AnswerFraming, TwoSectionsFast) { CheckTwoSections<true>(); }

TEST(AnswerFraming, CountSwitchedLayoutFollowsTheCount) {
    struct Case {
        int count;
        int size;
    };
    for (const Case c : {Case{0, 12}, Case{1, 12}, Case{2, 28}, Case{5, 28}}) {
        SCOPED_TRACE(c.count);
        const Answer a = Make({{c.count, c.size}});
        for (bool fast : {false, true}) {
            const auto m = fast ? Pack<CountSwitched, true>(a) : Pack<CountSwitched, false>(a);
            Restored r;
            if (fast)
                Restore<CountSwitched, true>(r, m);
            else
                Restore<CountSwitched, false>(r, m);
            ASSERT_EQ(r.rc, 1);
            EXPECT_EQ(r.len, 96 + c.count * c.size);
            EXPECT_EQ(Word(r.p, 88), c.count);
            EXPECT_EQ(Word(r.p, 92), c.size);
            EXPECT_EQ(Word(r.p, 8) & 2, 0);
            std::vector<char> expected = a.arrays[0];
            if (c.size == 12)  // the narrow layout does not carry bytes 1..7
                for (int i = 0; i < c.count; ++i) std::fill(expected.begin() + 12 * i + 1, expected.begin() + 12 * i + 8, 0);
            EXPECT_EQ(std::vector<char>(r.p + 96, r.p + r.len), expected);
        }
    }
}

TEST(FastFraming, StreamCountMustMatchTheHead) {
    // The u16 count behind a request's head, and an answer head's count,
    // each one more than the other says: refused. The request's zeroed
    // buffer stays in *out.
    const Answer a = Make({{2, 28}});
    std::vector<char> req(1 << 12, 0);
    const tagREQ_HEAD head = ReqHead(9000, 0x10, 2, 28);
    std::memcpy(req.data(), &head, 76);
    int len = 76;
    trdcomp::fast::PackRequest<kT_SEVEN>(req.data(), len, a.arrays[0].data(), 56, 1);
    req.resize(static_cast<std::size_t>(len));
    req[76] = 3;
    auto ans = Pack<d::Sections<kT_SEVEN>, true>(a);
    SetWord(ans.data(), 88, 3);

    Restored r, q;
    Exact in(req);
    r.rc = trdcomp::fast::RestoreRequest<kT_SEVEN>(in.data(), in.size(), &r.p, r.len, 1);
    EXPECT_EQ(r.rc, 0);
    EXPECT_NE(r.p, nullptr);
    EXPECT_EQ(r.len, 76 + 2 * 28);
    Restore<d::Sections<kT_SEVEN>, true>(q, ans);
    EXPECT_EQ(q.rc, 0);
}

TEST(AnswerFraming, AllocationFailureClearsOutLen) {
    const Answer a = Make({{2, 28}});
    const auto m = Pack<d::Sections<kT_SEVEN>, true>(a);
    Restored r;
    alloc_hook::FailNext(1);
    Restore<d::Sections<kT_SEVEN>, true>(r, m);
    alloc_hook::FailNext(0);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.p, nullptr);
    EXPECT_EQ(r.len, 0);
}

TEST(AnswerFraming, CapacityBoundsThePackers) {
    const Answer a = Make({{3, 28}});
    const auto full = Pack<d::Sections<kT_SEVEN>, false>(a);
    char* arrays[5] = {const_cast<char*>(a.arrays[0].data())};
    for (std::int64_t cap : {static_cast<std::int64_t>(full.size()) - 1, static_cast<std::int64_t>(full.size())}) {
        std::vector<char> out(full.size() + 64, 0);
        std::memcpy(out.data(), full.data(), 96);
        SetWord(out.data(), 8, 0);
        int len = 96;
        const int rc = trdcomp::codec2008::PackAnswer<d::Sections<kT_SEVEN>>(out.data(), len, &a.proc, arrays, 0, cap);
        EXPECT_EQ(rc, cap >= static_cast<std::int64_t>(full.size()) ? 1 : 0) << cap;
        EXPECT_LE(len, cap);
    }
}

// ---- hostile input ----

namespace {

using RestoreFn = std::function<void(Restored&, const std::vector<char>&)>;

// Every truncation and a set of single-byte corruptions of a valid message:
// each restore either refuses or succeeds, and the sanitizers see no stray access.
void Sweep(const std::vector<char>& valid, const RestoreFn& restore, int headLen) {
    int accepted = 0;
    for (std::size_t n = static_cast<std::size_t>(headLen); n <= valid.size(); ++n) {
        std::vector<char> m(valid.begin(), valid.begin() + static_cast<long>(n));
        Restored r;
        restore(r, m);
        accepted += r.rc == 1;
        ASSERT_TRUE(r.rc == 0 || r.rc == 1);
    }
    for (std::size_t i = 0; i < valid.size(); ++i) {
        for (unsigned char v : {0x00, 0x7F, 0x80, 0xFF}) {
            std::vector<char> m = valid;
            m[i] = static_cast<char>(v);
            Restored r;
            restore(r, m);
            ASSERT_TRUE(r.rc == 0 || r.rc == 1);
        }
    }
    EXPECT_GT(accepted, 0);
}

std::vector<char> Request(bool fast, int count, const std::vector<char>& data) {
    std::vector<char> out(1 << 16, 0);
    tagREQ_HEAD head = ReqHead(9000, fast ? 0x10 : 0, count, 28);
    std::memcpy(out.data(), &head, 76);
    int len = 76;
    if (fast)
        trdcomp::fast::PackRequest<kT_SEVEN>(out.data(), len, data.data(), static_cast<int>(data.size()), 1);
    else
        trdcomp::codec2008::PackRequest<kT_SEVEN>(out.data(), len, data.data(), static_cast<int>(data.size()), 0);
    out.resize(static_cast<std::size_t>(len));
    return out;
}

}  // namespace

TEST(HostileEngines, TruncatedAndCorruptedRequests) {
    const auto data = Records(4, 28, 'k');
    Sweep(Request(false, 4, data), [](Restored& r, const std::vector<char>& m) {
        Exact in(m);
        r.rc = trdcomp::codec2008::RestoreRequest<kT_SEVEN>(in.data(), in.size(), &r.p, r.len, 0);
    }, 76);
    Sweep(Request(true, 4, data), [](Restored& r, const std::vector<char>& m) {
        Exact in(m);
        r.rc = trdcomp::fast::RestoreRequest<kT_SEVEN>(in.data(), in.size(), &r.p, r.len, 1);
    }, 76);
}

TEST(HostileEngines, TruncatedAndCorruptedAnswers) {
    const Answer a = Make({{3, 28}, {2, 8}});
    Sweep(Pack<TwoSections, false>(a), [](Restored& r, const std::vector<char>& m) { Restore<TwoSections, false>(r, m); }, 96);
    Sweep(Pack<TwoSections, true>(a), [](Restored& r, const std::vector<char>& m) { Restore<TwoSections, true>(r, m); }, 96);
    const Answer s = Make({{4, 28}});
    Sweep(Pack<CountSwitched, true>(s), [](Restored& r, const std::vector<char>& m) { Restore<CountSwitched, true>(r, m); }, 96);
}

TEST(HostileEngines, CountsBeyondTheMessageAreRefusedBeforeAllocating) {
    struct Case {
        bool fast;
        int count;
    };
    for (const Case c : {Case{false, 1 << 30}, Case{true, 1 << 30}, Case{false, 1000}, Case{true, 60000}}) {
        SCOPED_TRACE(c.count);
        auto m = Request(c.fast, 1, Records(1, 28, 'z'));
        SetWord(m.data(), 68, c.count);
        if (c.fast) m[76] = static_cast<char>(c.count & 0xFF), m[77] = static_cast<char>((c.count >> 8) & 0xFF);
        Exact in(m);
        Restored r;
        alloc_hook::ResetLastNothrowSize();
        r.rc = c.fast ? trdcomp::fast::RestoreRequest<kT_SEVEN>(in.data(), in.size(), &r.p, r.len, 1)
                      : trdcomp::codec2008::RestoreRequest<kT_SEVEN>(in.data(), in.size(), &r.p, r.len, 0);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(r.p, nullptr);
        EXPECT_EQ(alloc_hook::LastNothrowSize(), 0u);
    }
}

TEST(HostileEngines, RecordsOutsideTheCallersDataAreNotRead) {
    // The head promises four records of a 28-byte stride; the data holds two.
    const auto data = Records(2, 28, 'p');
    for (bool fast : {false, true}) {
        Exact exact(data);
        std::vector<char> out(4096, 0);
        tagREQ_HEAD head = ReqHead(9000, fast ? 0x10 : 0, 4, 28);
        std::memcpy(out.data(), &head, 76);
        int len = 76;
        if (fast)
            trdcomp::fast::PackRequest<kT_SEVEN>(out.data(), len, exact.data(), exact.size(), 1);
        else
            trdcomp::codec2008::PackRequest<kT_SEVEN>(out.data(), len, exact.data(), exact.size(), 0);
        out.resize(static_cast<std::size_t>(len));
        Restored r;
        Exact in(out);
        r.rc = fast ? trdcomp::fast::RestoreRequest<kT_SEVEN>(in.data(), in.size(), &r.p, r.len, 1)
                    : trdcomp::codec2008::RestoreRequest<kT_SEVEN>(in.data(), in.size(), &r.p, r.len, 0);
        ASSERT_EQ(r.rc, 1);
        EXPECT_EQ(std::vector<char>(r.p + 76, r.p + 76 + 56), data);
        EXPECT_EQ(std::vector<char>(r.p + 132, r.p + 188), std::vector<char>(56, 0));
    }
}
