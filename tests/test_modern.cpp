// The modern interface over the classic members beyond the catalogue sweep:
// size bounds of raw and head-only ids and of heads that promise more than
// they carry, restored messages that own and release their buffers, and the
// reasons of pack refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "model/Samples.h"
#include "support/AllocHook.h"
#include "support/Messages.h"
#include "trdcomp/trdcomp.hpp"

using catalogue_model::Coding;

namespace {

std::vector<char> ClassicRequest(tagREQ_HEAD head, const std::vector<char>& data, trdcomp::Coding c) {
    head.nFlags = (head.nFlags & ~TRDCOMP_FLAG_FAST_MASK) | c.fastVersion << TRDCOMP_FLAG_FAST_SHIFT;
    std::vector<char> out(1 << 21);
    int len = 0;
    CTrdCompData::PackReq2008(out.data(), len, &head, const_cast<char*>(data.data()), static_cast<int>(data.size()), c.flag);
    out.resize(static_cast<std::size_t>(len));
    return out;
}

std::vector<char> ClassicAnswer(const catalogue_model::AnswerSample& s, trdcomp::Coding c) {
    std::vector<char> out(1 << 21, 0);
    int len = 0;
    tagANS_Proc proc = s.proc;
    auto a = s.arrays;
    CTrdCompData::PackAns2008(out.data(), static_cast<int>(out.size()), len, &proc, a[0].data(), a[1].data(), a[2].data(),
                              a[3].data(), a[4].data(), c.flag, c.fastVersion << TRDCOMP_FLAG_FAST_SHIFT);
    out.resize(static_cast<std::size_t>(len));
    return out;
}

trdcomp::PackResult ModernAnswer(trdcomp::span<char> out, const catalogue_model::AnswerSample& s, trdcomp::Coding c) {
    std::vector<trdcomp::Array> a;
    for (int j = 0; j < s.proc.nArrayCount; ++j) a.emplace_back(s.arrays[static_cast<std::size_t>(j)].data(), s.proc.nRecCount[j], s.proc.nRecSize[j]);
    return trdcomp::PackAnswer(out, s.proc, trdcomp::span<const trdcomp::Array>(a.data(), a.size()), c);
}

}  // namespace

TEST(ModernInterface, RestoredMessagesGiveTypedRecordsAndReleaseOnce) {
    tagREQ_1002 orders[3] = {};
    for (int i = 0; i < 3; ++i) std::snprintf(orders[i].f3, sizeof orders[i].f3, "ACCT-%d", i);
    tagREQ_HEAD head = testmsg::ReqHead(1002);
    for (trdcomp::Coding c : {trdcomp::Coding::C2008(), trdcomp::Coding::Fast(3)}) {
        const trdcomp::span<const tagREQ_1002> records(orders, 3);
        std::vector<char> wire(trdcomp::RequestSizeBound(head, records, c));
        const trdcomp::PackResult packed = trdcomp::PackRequest(wire, head, records, c);
        ASSERT_TRUE(packed);
        {
            // Moved from and moved to are both destroyed: the buffer is
            // released once (the sanitizers catch a double release or a leak).
            trdcomp::Restored r = trdcomp::RestoreRequest({wire.data(), packed.size});
            ASSERT_TRUE(r);
            EXPECT_EQ(alloc_hook::LastNothrowSize(), 76u + 3 * sizeof(tagREQ_1002) + 1024u);
            trdcomp::Restored moved = std::move(r);
            EXPECT_EQ(r.Data(), nullptr);
            ASSERT_EQ(moved.Records<tagREQ_1002>().size(), 3u);
            EXPECT_STREQ(moved.Records<tagREQ_1002>()[2].f3, "ACCT-2");
            EXPECT_EQ(moved.RequestHead()->nFuncId, 1002);
            EXPECT_EQ(moved.AnswerHead(), nullptr);
            trdcomp::Reason why = trdcomp::Reason::none;
            EXPECT_TRUE(moved.Records<tagREQ_1003>(0, &why).empty());  // the wrong record type
            EXPECT_EQ(why, trdcomp::Reason::record_type_mismatch);
            EXPECT_TRUE(moved.Records<tagREQ_1002>(1, &why).empty());  // no second section
            EXPECT_EQ(why, trdcomp::Reason::no_such_section);
            EXPECT_EQ(moved.Records<tagREQ_1002>(0, &why).size(), 3u);
            EXPECT_EQ(why, trdcomp::Reason::none);
        }
    }
    EXPECT_EQ(trdcomp::RestoreRequest(trdcomp::span<const char>(static_cast<const char*>(nullptr), 0)).Error(), trdcomp::Errc::null_argument);
    EXPECT_EQ(trdcomp::PackRequest(trdcomp::span<char>(), head, trdcomp::span<const char>(), trdcomp::Coding::C2008()).error,
              trdcomp::Errc::null_argument);
}

namespace {

std::vector<char> Repeat(std::size_t records, std::size_t size) {
    std::vector<char> v(records * size, 0);
    for (std::size_t i = 0; i < records; ++i) std::snprintf(v.data() + i * size, size, "r%zu", i % 10);
    return v;
}

}  // namespace

TEST(ModernInterface, PackRefusalsSayWhy) {
    const auto sample = catalogue_model::SampleAnswers(1003, Coding::k2008).at(0);
    const std::vector<char> big = Repeat(70000, sizeof(tagANS_1019));
    tagANS_Proc proc1019 = {};
    proc1019.nFuncId = 1019;
    tagREQ_1002 order = {};
    std::memcpy(order.f35, "Z\xC3\xBCrich", 7);  // offset 35: the ascii field
    const tagREQ_HEAD head = testmsg::ReqHead(1002);
    std::vector<char> out(4 << 20);
    const trdcomp::span<char> all(out.data(), out.size());
    struct Case { const char* what; trdcomp::PackResult result; trdcomp::Errc errc; trdcomp::Reason why; };
    const Case cases[] = {
        {"request, Fast version 16", trdcomp::PackRequest(all, head, trdcomp::span<const tagREQ_1002>(&order, 1), trdcomp::Coding{16}),
         trdcomp::Errc::invalid_argument, trdcomp::Reason::invalid_fast_version},
        {"answer, Fast version 16", ModernAnswer(all, sample, trdcomp::Coding{16}), trdcomp::Errc::invalid_argument,
         trdcomp::Reason::invalid_fast_version},
        {"answer, 70000 Fast records", trdcomp::PackAnswer(all, proc1019, {trdcomp::Array(big.data(), 70000, 16)}, trdcomp::Coding::Fast()),
         trdcomp::Errc::refused, trdcomp::Reason::too_many_fast_records},
        {"request, 70000 Fast records",
         trdcomp::PackRequest(all, testmsg::ReqHead(1019, 0, 70000, 16), trdcomp::span<const char>(big.data(), big.size()), trdcomp::Coding::Fast()),
         trdcomp::Errc::refused, trdcomp::Reason::too_many_fast_records},
        {"strict Fast, a byte of 0x80 or above in an ascii field",
         trdcomp::PackRequest(all, head, trdcomp::span<const tagREQ_1002>(&order, 1), trdcomp::Coding::Fast().Strict()),
         trdcomp::Errc::refused, trdcomp::Reason::value_not_representable},
        {"six arrays", trdcomp::PackAnswer(all, sample.proc, {{}, {}, {}, {}, {}, {}}, trdcomp::Coding::C2008()),
         trdcomp::Errc::too_large, trdcomp::Reason::too_many_arrays},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.result.error, c.errc);
        EXPECT_EQ(c.result.reason, c.why);
        EXPECT_STRNE(trdcomp::Message(c.result.reason), "unknown reason");
    }
    // Without strict the ascii text is coded as the classic packer codes it,
    // and the 2008 coding carries it in either mode.
    EXPECT_TRUE(trdcomp::PackRequest(all, head, trdcomp::span<const tagREQ_1002>(&order, 1), trdcomp::Coding::Fast()));
    EXPECT_TRUE(trdcomp::PackRequest(all, head, trdcomp::span<const tagREQ_1002>(&order, 1), trdcomp::Coding::C2008().Strict()));
    // 65535 records is the most the Fast coding counts.
    EXPECT_TRUE(trdcomp::PackAnswer(all, proc1019, {trdcomp::Array(big.data(), 65535, 16)}, trdcomp::Coding::Fast()));
}

TEST(ModernInterface, SizeBoundsHoldWhereTheHeadPromisesMore) {
    // A head count far beyond the data: the packer stops at the data's end,
    // and so does the bound (a 274-byte request, not a gigabyte).
    const std::vector<char> data = Repeat(1, sizeof(tagREQ_1019));
    for (trdcomp::Coding c : {trdcomp::Coding::C2008(), trdcomp::Coding::Fast()}) {
        for (int stride : {static_cast<int>(sizeof(tagREQ_1019)), 100, 1, -5}) {
            const tagREQ_HEAD h = testmsg::ReqHead(1019, 0, 3000000, stride);
            const std::uint64_t bound = trdcomp::RequestSizeBound(h, data.size(), c);
            EXPECT_GE(bound, ClassicRequest(h, data, c).size()) << stride;
            EXPECT_LT(bound, 76u + 4u + 200u * 1000u) << stride;
        }
        // Answers of more arrays than the section table has entries for.
        for (int id : {999, 1017, 1000, 5000}) {
            catalogue_model::AnswerSample s;
            s.proc = testmsg::Proc(id, std::vector<std::pair<int, int>>(5, {3, 10}));
            s.proc.nArrayCount = 7;
            for (std::size_t j = 0; j < 5; ++j) s.arrays[j] = std::vector<char>(30, static_cast<char>('a' + j));
            EXPECT_GE(trdcomp::AnswerSizeBound(s.proc, c), ClassicAnswer(s, c).size()) << id;
        }
    }
}

TEST(ModernInterface, TheOneStringAnswerEncoderCodesAnyStride) {
    // Ids 1019 and 1068 share the 2008 encoder of 1006's text: records laid
    // out with padding or a larger record size are coded all the same.
    for (int id : {1019, 1068}) {
        for (int stride : {16, 20, 24, 28, 40}) {
            SCOPED_TRACE(std::to_string(id) + " stride " + std::to_string(stride));
            std::vector<char> records(3 * static_cast<std::size_t>(stride), 0);
            const char* texts[] = {"ALPHA", "fifteen chars!!", "c"};
            for (int i = 0; i < 3; ++i) std::memcpy(records.data() + i * stride, texts[i], std::strlen(texts[i]));
            catalogue_model::AnswerSample s;
            s.proc = testmsg::Proc(id, {{3, stride}});
            s.arrays[0] = records;
            std::vector<char> wire = ClassicAnswer(s, trdcomp::Coding::C2008());
            const trdcomp::Restored r = trdcomp::RestoreAnswer({wire.data(), wire.size()});
            ASSERT_TRUE(r) << trdcomp::Message(r.Why());
            const auto back = r.Records<tagANS_1019>();
            ASSERT_EQ(back.size(), 3u);
            for (int i = 0; i < 3; ++i) EXPECT_STREQ(back[static_cast<std::size_t>(i)].f0, texts[i]);
        }
    }
}
