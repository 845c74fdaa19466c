// The modern interface beyond the catalogue sweep: packs into capacities
// that cut the head, a record or the section table,
// size bounds of raw and head-only ids and of heads that promise more than
// they carry, restored messages that own and release their buffers, the
// reasons of pack refusals, the caller's limits and strict mode, and what
// MessageLength cannot tell from the bytes (refusals of every restore:
// test_hostile_heads.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "model/Samples.h"
#include "support/AllocHook.h"
#include "support/Golden.h"
#include "support/Messages.h"
#include "trdcomp/Inspect.hpp"
#include "trdcomp/trdcomp.hpp"

using catalogue_model::Coding;

namespace {

trdcomp::span<const char> Span(const std::vector<char>& v) { return {v.data(), v.size()}; }

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

// Packs into every capacity from none to the whole message, for requests
// and answers of a coded id in both codings and of a raw id: each either
// gives the classic bytes or refuses with buffer_too_small and the exact
// length, writes nothing past the capacity, and never allocates.
TEST(ModernInterface, EveryCapacityPacksOrSaysTheExactLength) {
    std::vector<char> orders(3 * sizeof(tagREQ_1002));
    for (std::size_t i = 0; i < orders.size(); ++i) orders[i] = static_cast<char>('A' + i % 26);
    const auto answer = catalogue_model::SampleAnswers(1003, Coding::k2008).at(0);
    struct Case {
        const char* what;
        trdcomp::Coding coding;
        int id;  // a request of three orders, or the sample answer (0)
    };
    const Case cases[] = {
        {"Fast request 1002", trdcomp::Coding::Fast(), 1002},
        {"2008 request 1002", trdcomp::Coding::C2008(), 1002},
        {"raw request 9001", trdcomp::Coding::C2008(), 9001},
        {"Fast answer 1003", trdcomp::Coding::Fast(), 0},
        {"2008 answer 1003", trdcomp::Coding::C2008(), 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const tagREQ_HEAD head = testmsg::ReqHead(c.id, 0, 3, sizeof(tagREQ_1002));
        std::vector<trdcomp::Array> arrays;
        for (int j = 0; j < answer.proc.nArrayCount; ++j)
            arrays.emplace_back(answer.arrays[static_cast<std::size_t>(j)].data(), answer.proc.nRecCount[j],
                                answer.proc.nRecSize[j]);
        const auto pack = [&](trdcomp::span<char> out) {
            return c.id != 0 ? trdcomp::PackRequest(out, head, Span(orders), c.coding)
                             : trdcomp::PackAnswer(out, answer.proc, {arrays.data(), arrays.size()}, c.coding);
        };
        std::vector<char> whole(1 << 16);
        const trdcomp::PackResult full = pack({whole.data(), whole.size()});
        ASSERT_TRUE(full);
        whole.resize(full.size);
        if (c.id == 0) {
            EXPECT_EQ(whole, ClassicAnswer(answer, c.coding));
        } else {
            std::vector<char> classic(1 << 16);
            int len = 0;
            tagREQ_HEAD h = head;
            h.nFlags = c.coding.fastVersion << TRDCOMP_FLAG_FAST_SHIFT;
            CTrdCompData::PackReq2008(classic.data(), len, &h, orders.data(), static_cast<int>(orders.size()), 0);
            classic.resize(static_cast<std::size_t>(len));
            EXPECT_EQ(whole, classic);
        }
        for (std::size_t capacity = 0; capacity < whole.size(); ++capacity) {
            std::vector<char> out(capacity + 64, 0x5A);
            const std::size_t allocations = alloc_hook::Allocations();
            const trdcomp::PackResult r = pack({out.data(), capacity});
            ASSERT_EQ(alloc_hook::Allocations(), allocations) << capacity;
            ASSERT_EQ(r.error, trdcomp::Errc::buffer_too_small) << capacity;
            ASSERT_EQ(r.needed, whole.size()) << capacity;
            ASSERT_EQ(std::vector<char>(out.begin() + static_cast<std::ptrdiff_t>(capacity), out.end()),
                      std::vector<char>(64, 0x5A))
                << "written past capacity " << capacity;
        }
    }
}

// Answers of more arrays than the section table has entries for (heads
// that promise more records than the data holds: fuzz_modern, which packs
// into a block of the bound).
TEST(ModernInterface, SizeBoundsHoldForMoreArraysThanTheTableDescribes) {
    for (trdcomp::Coding c : {trdcomp::Coding::C2008(), trdcomp::Coding::Fast()}) {
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

TEST(RestoreOptions, LimitsRefuseBeforeAnythingIsAllocated) {
    // 20 KB of a Fast answer of id 8996: 10000 empty records of 32788 bytes
    // each, about 330 MB restored.
    std::vector<char> wire = testmsg::AnsBytes(8996, 0x11, 10000, 0, {}, 2 + 2 * 10000);
    std::memset(wire.data() + 96, 0, wire.size() - 96);
    wire[96] = static_cast<char>(10000 & 0xFF);
    wire[97] = static_cast<char>(10000 >> 8);
    const std::size_t need = 96 + 10000 * std::size_t{32788};
    EXPECT_EQ(trdcomp::RestoredSize(Span(wire)), need);
    struct Case { std::size_t maxBytes, maxRecords; trdcomp::Reason why; };
    const Case cases[] = {
        {1 << 20, std::size_t(-1), trdcomp::Reason::bytes_over_limit},
        {need - 1, std::size_t(-1), trdcomp::Reason::bytes_over_limit},
        {std::size_t(-1), 9999, trdcomp::Reason::records_over_limit},
    };
    for (const Case& c : cases) {
        trdcomp::RestoreOptions o;
        o.maxBytes = c.maxBytes;
        o.maxRecords = c.maxRecords;
        alloc_hook::ResetLastNothrowSize();
        const trdcomp::Restored r = trdcomp::RestoreAnswer(Span(wire), o);
        EXPECT_EQ(alloc_hook::LastNothrowSize(), 0u) << "allocated before the limit";
        EXPECT_EQ(r.Error(), trdcomp::Errc::limit_exceeded);
        EXPECT_EQ(r.Why(), c.why);
        EXPECT_EQ(r.Needed(), need);
        std::vector<char> block(4096, 0x5A);
        const trdcomp::RestoredView v = trdcomp::RestoreAnswerInto(block, Span(wire), o);
        EXPECT_EQ(v.Why(), c.why);
        EXPECT_EQ(v.Needed(), need);
        EXPECT_EQ(block, std::vector<char>(4096, 0x5A));
        EXPECT_EQ(trdcomp::RestoredSize(Span(wire), o), 0u);
    }
    // A limit of exactly the message passes; the record limit counts every
    // array of the message.
    const std::vector<char> wire1002 = golden::Wire("ans_1002_2008");
    const trdcomp::Restored all = trdcomp::RestoreAnswer(Span(wire1002));
    ASSERT_TRUE(all);
    std::size_t records = 0;
    for (int j = 0; j < all.Sections(); ++j) records += static_cast<std::size_t>(all.GetSection(j).count);
    trdcomp::RestoreOptions o;
    o.maxRecords = records - 1;
    EXPECT_EQ(trdcomp::RestoreAnswer(Span(wire1002), o).Why(), trdcomp::Reason::records_over_limit);
    o.maxRecords = records;
    o.maxBytes = trdcomp::RestoredSize(Span(wire1002));
    std::vector<char> block(o.maxBytes);
    EXPECT_TRUE(trdcomp::RestoreAnswer(Span(wire1002), o));
    EXPECT_TRUE(trdcomp::RestoreInto(block, Span(wire1002), o));
}

// Golden messages cut inside their last record or with a byte behind it, a
// count the stream does not hold, and raw records with bytes behind them.
TEST(RestoreOptions, StrictRefusesWhatTheClassicRestoresAccept) {
    using R = trdcomp::Reason;
    std::vector<std::pair<std::vector<char>, R>> cases;
    for (const char* name : {"req_1002_2008", "req_1002_fast", "ans_1110_2008", "ans_1110_fast", "ans_1002_fast"}) {
        std::vector<char> w = golden::Wire(name);
        cases.emplace_back(std::vector<char>(w.begin(), w.end() - 1), R::ends_inside_record);
        w.push_back(1);
        cases.emplace_back(w, R::trailing_bytes);
    }
    std::vector<char> more = golden::Wire("req_1002_2008");
    testmsg::SetWord(more.data(), 68, 4);
    cases.emplace_back(more, R::count_not_held);
    more.insert(more.end(), 2, 1);  // and the next record's length cut short
    cases.emplace_back(more, R::ends_inside_record);
    cases.emplace_back(testmsg::AnsBytes(777, 0, 3, 10, {}, 31), R::trailing_bytes);
    for (const auto& [wire, why] : cases) {
        SCOPED_TRACE(std::to_string(wire.size()) + " bytes, " + trdcomp::Message(why));
        trdcomp::RestoreOptions strict;
        strict.strict = true;
        std::vector<char> block(1 << 16);
        EXPECT_TRUE(trdcomp::RestoreInto(block, Span(wire))) << "the default restore accepts it";
        EXPECT_EQ(trdcomp::RestoreInto(block, Span(wire), strict).Why(), why) << trdcomp::Message(why);
        const bool request = wire[0] == 76;
        const trdcomp::Restored r = request ? trdcomp::RestoreRequest(Span(wire), strict) : trdcomp::RestoreAnswer(Span(wire), strict);
        EXPECT_EQ(r.Why(), why);
    }
}

TEST(MessageLength, WhatTheBytesCannotTell) {
    struct Case { const char* what; std::vector<char> bytes; trdcomp::Framing status; std::size_t length; };
    auto request = [](int id, int flags, int count, int size, std::size_t extra) {
        return testmsg::ReqBytes(testmsg::ReqHead(id, flags, count, size), extra);
    };
    auto answer = [](int id, int flags, int count, int size, std::size_t extra) {
        return testmsg::AnsBytes(id, flags, count, size, {}, extra);
    };
    const Case cases[] = {
        {"raw request: the transport knows its length", request(777, 0, 2, 10, 20), trdcomp::Framing::cannot_tell, 0},
        {"codec id, records shorter than one record travel raw", request(1002, 0, 0, 0, 5), trdcomp::Framing::cannot_tell, 0},
        {"raw answer: count times size", answer(777, 0, 3, 10, 30), trdcomp::Framing::complete, 126},
        {"raw answer: the head alone so far", answer(777, 0, 3, 10, 0), trdcomp::Framing::complete, 126},
        {"raw answer with a negative size", answer(777, 0, 3, -10, 0), trdcomp::Framing::invalid, 0},
        {"coded request: its first record's length word missing", request(1002, 1, 2, 83, 0), trdcomp::Framing::need_more, 80},
        {"head word 0 neither 76 nor 96", std::vector<char>(12, 1), trdcomp::Framing::invalid, 0},
        {"three bytes", std::vector<char>(3, 76), trdcomp::Framing::need_more, 4},
        {"a request head cut short", std::vector<char>{76, 0, 0, 0, 1}, trdcomp::Framing::need_more, 76},
        {"a section table shorter than 4 bytes", testmsg::AnsBytes(1001, 3, 0, 0, {3}), trdcomp::Framing::invalid, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const trdcomp::FrameLength f = trdcomp::MessageLength(Span(c.bytes));
        EXPECT_EQ(f.status, c.status);
        EXPECT_EQ(f.length, c.length);
    }
}

// The coded records CodedRecords frames end where MessageLength says the
// message ends, one for every record the restored message holds, on every
// golden message; a cut message frames only the records it holds whole.
TEST(Inspect, CodedRecordsFrameEveryGoldenMessage) {
    int coded = 0;
    for (const std::string& name : golden::Names()) {
        SCOPED_TRACE(name);
        const std::vector<char> wire = golden::Wire(name);
        const std::size_t n = trdcomp::CodedRecords(wire.data(), wire.size(), nullptr, 0);
        if (n == 0) continue;
        ++coded;
        std::vector<trdcomp::CodedRecord> records(n);
        ASSERT_EQ(trdcomp::CodedRecords(wire.data(), wire.size(), records.data(), n), n);
        const trdcomp::FrameLength length = trdcomp::MessageLength(Span(wire));
        ASSERT_EQ(length.status, trdcomp::Framing::complete);
        EXPECT_EQ(records.back().offset + records.back().length, length.length);
        // One record per record the restore decodes, array by array, in order.
        std::vector<char> block(trdcomp::RestoredSize(Span(wire)));
        const trdcomp::RestoredView v = trdcomp::RestoreInto(block, Span(wire));
        ASSERT_TRUE(v);
        std::size_t expected = 0;
        for (int j = 0; j < v.Sections(); ++j) expected += static_cast<std::size_t>(std::max(0, v.GetSection(j).count));
        EXPECT_EQ(n, expected);
        for (std::size_t i = 1; i < n; ++i) {
            EXPECT_GE(records[i].array, records[i - 1].array);
            EXPECT_EQ(records[i].index, records[i].array == records[i - 1].array ? records[i - 1].index + 1 : 0u);
            EXPECT_GT(records[i].offset, records[i - 1].offset);
        }
        const std::vector<char> cut(wire.begin(), wire.end() - 1);
        // The last byte is the last record's (still framed by its length
        // word), or, for an empty record, its length word's (no longer held).
        EXPECT_EQ(trdcomp::CodedRecords(cut.data(), cut.size(), nullptr, 0), records.back().length > 0 ? n : n - 1);
    }
    EXPECT_GT(coded, 100);
}

// FastSentFields reads a record's presence map field by field: the first
// record of an order request sends what differs from the defaults, the
// second only what differs from the first.
TEST(Inspect, FastSentFieldsFollowThePresenceMap) {
    tagREQ_1002 orders[2] = {};
    std::memcpy(orders[0].f3, "0330100217", 10);
    std::memcpy(orders[0].f35, "ORD-1", 5);
    orders[1] = orders[0];
    std::memcpy(orders[1].f35, "ORD-2", 5);
    std::vector<char> wire(1024);
    const trdcomp::PackResult packed = trdcomp::PackRequest(wire, testmsg::ReqHead(1002),
                                                            trdcomp::span<const tagREQ_1002>(orders, 2),
                                                            trdcomp::Coding::Fast());
    ASSERT_TRUE(packed);
    wire.resize(packed.size);
    trdcomp::CodedRecord records[2];
    ASSERT_EQ(trdcomp::CodedRecords(wire.data(), wire.size(), records, 2), 2u);
    const catalogue_model::Layout& layout = catalogue_model::Get().At("REQ_1002");
    const std::vector<int>& order = layout.codingOrder;
    const auto sentOffsets = [&](const trdcomp::CodedRecord& r) {
        std::unique_ptr<bool[]> sent(new bool[order.size()]());
        EXPECT_TRUE(trdcomp::FastSentFields(wire.data(), wire.size(), r, sent.get(), order.size()));
        std::vector<int> offsets;
        for (std::size_t k = 0; k < order.size(); ++k)
            if (sent[k]) offsets.push_back(order[k]);
        return offsets;
    };
    // The three chars of the layout have Fast defaults that a zero differs from.
    std::vector<int> first;
    for (const catalogue_model::Field& f : layout.fields)
        if (f.kind == catalogue_model::FieldKind::Char && f.def != 0) first.push_back(f.offset);
    for (const int off : {3, 35, 59}) first.push_back(off);  // the first record sends every text
    std::sort(first.begin(), first.end());
    std::vector<int> got = sentOffsets(records[0]);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, first);
    EXPECT_EQ(sentOffsets(records[1]), std::vector<int>{35});
    // A record whose bytes hold no stop bit sent nothing; one past the message is refused.
    bool sent[8] = {true, true, true, true, true, true, true, true};
    trdcomp::CodedRecord empty = records[1];
    empty.length = 0;
    EXPECT_FALSE(trdcomp::FastSentFields(wire.data(), wire.size(), empty, sent, 8));
    EXPECT_EQ(std::count(sent, sent + 8, true), 0);
    trdcomp::CodedRecord past = records[1];
    past.offset = wire.size() + 1;
    EXPECT_FALSE(trdcomp::FastSentFields(wire.data(), wire.size(), past, sent, 8));
}
