// The modern interface over the classic members beyond the catalogue sweep:
// size bounds of raw and head-only ids and of heads that promise more than
// they carry, and restored messages that own and release their buffers.
#include <gtest/gtest.h>

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

TEST(ModernInterface, RawIdsAndHeadOnlyIdsAreBoundedToo) {
    const std::vector<char> data(300, 'r');
    for (int id : {999, 1017, 1000, 5000}) {
        for (trdcomp::Coding c : {trdcomp::Coding::C2008(), trdcomp::Coding::Fast()}) {
            tagREQ_HEAD h = testmsg::ReqHead(id, 0, 3, 100);
            EXPECT_GE(trdcomp::RequestSizeBound(h, data.size(), c), ClassicRequest(h, data, c).size()) << id;
            catalogue_model::AnswerSample s;
            s.proc.nFuncId = id;
            s.proc.nArrayCount = 7;  // more arrays than the table has entries for
            for (int j = 0; j < 5; ++j) {
                s.proc.nRecCount[j] = 3;
                s.proc.nRecSize[j] = 10;
                s.arrays[static_cast<std::size_t>(j)] = std::vector<char>(30, static_cast<char>('a' + j));
            }
            EXPECT_GE(trdcomp::AnswerSizeBound(s.proc, c), ClassicAnswer(s, c).size()) << id;
        }
    }
}

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
            EXPECT_TRUE(moved.Records<tagREQ_1003>().empty());  // the wrong record type
            EXPECT_TRUE(moved.Records<tagREQ_1002>(1).empty());  // no second section
        }
    }
}

TEST(ModernInterface, AnswerSectionsAndRefusals) {
    const auto samples = catalogue_model::SampleAnswers(1002, Coding::k2008);
    ASSERT_EQ(samples.size(), 1u);
    const auto& s = samples[0];
    for (trdcomp::Coding c : {trdcomp::Coding::C2008(), trdcomp::Coding::Fast()}) {
        std::vector<char> wire(trdcomp::AnswerSizeBound(s.proc, c));
        const trdcomp::PackResult packed = ModernAnswer(wire, s, c);
        ASSERT_TRUE(packed);
        const trdcomp::Restored r = trdcomp::RestoreAnswer({wire.data(), packed.size});
        ASSERT_TRUE(r);
        ASSERT_EQ(r.Sections(), 3);
        EXPECT_EQ(r.Records<tagANS_1002_1>(0).size(), static_cast<std::size_t>(s.proc.nRecCount[0]));
        EXPECT_EQ(r.Records<tagANS_1002_2>(1).size(), static_cast<std::size_t>(s.proc.nRecCount[1]));
        EXPECT_EQ(r.Records<tagANS_1002_3>(2).size(), static_cast<std::size_t>(s.proc.nRecCount[2]));
        EXPECT_EQ(r.GetSection(3).data, nullptr);

        // Truncated copies are refused or restored, never read past.
        for (std::size_t len : {std::size_t{0}, std::size_t{11}, std::size_t{95}, packed.size - 1}) {
            testmsg::Exact cut(wire.data(), static_cast<int>(len));
            const trdcomp::Restored bad = trdcomp::RestoreAnswer({cut.data(), len});
            if (!bad) {
                EXPECT_EQ(bad.Error(), trdcomp::Errc::refused);
            }
        }
    }
    EXPECT_EQ(trdcomp::RestoreRequest(trdcomp::span<const char>(static_cast<const char*>(nullptr), 0)).Error(), trdcomp::Errc::null_argument);
    char small[100] = {};
    EXPECT_EQ(trdcomp::PackAnswer(trdcomp::span<char>(small, 95), s.proc, {}, trdcomp::Coding::C2008()).error,
              trdcomp::Errc::buffer_too_small);
    EXPECT_EQ(trdcomp::PackRequest(trdcomp::span<char>(), testmsg::ReqHead(1002), trdcomp::span<const char>(), trdcomp::Coding::C2008()).error,
              trdcomp::Errc::null_argument);
}

TEST(ModernInterface, ANegativeRestoredLengthGivesNoBytes) {
    // A head with a negative record count restores to 76 + count * size
    // bytes, below the head itself: nothing of it is handed out as bytes.
    tagREQ_1002 order = {};
    tagREQ_HEAD head = testmsg::ReqHead(1002, 0, -1, sizeof order);
    for (trdcomp::Coding c : {trdcomp::Coding::C2008(), trdcomp::Coding::Fast()}) {
        std::vector<char> wire(1024);
        const trdcomp::PackResult packed =
            trdcomp::PackRequest(wire, head, trdcomp::span<const char>(reinterpret_cast<const char*>(&order), sizeof order), c);
        ASSERT_TRUE(packed);
        const trdcomp::Restored r = trdcomp::RestoreRequest({wire.data(), packed.size});
        // The Fast stream counts 65535 (the count's low 16 bits), unlike the
        // head: refused, its zeroed buffer still released by the destructor.
        EXPECT_EQ(static_cast<bool>(r), !c.IsFast());
        EXPECT_EQ(r.Size(), 0u);
        EXPECT_EQ(r.Sections(), 0);
        EXPECT_TRUE(r.Records<tagREQ_1002>().empty());
    }
}
