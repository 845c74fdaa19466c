// Restoring into the caller's memory and finding message boundaries where
// the catalogue sweep does not reach: refusals that write nothing (negative
// counts among them), the caller's limits, strict mode, and what the bytes
// alone cannot tell.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "support/AllocHook.h"
#include "support/Golden.h"
#include "support/Messages.h"
#include "trdcomp/trdcomp.hpp"

namespace {

trdcomp::span<const char> Span(const std::vector<char>& v) { return {v.data(), v.size()}; }

}  // namespace

// The classic restores refuse these too (rc 0), but for the few quirks
// they keep: any request head length, and a negative count, which the 2008
// request restore takes as 76 + count * size bytes (below its own head).
TEST(RestoreInto, RefusesWhatTheClassicRestoreRefusesWithoutWriting) {
    struct Case {
        const char* what;
        const char* golden;
        std::size_t keep;   // bytes of the message kept (0: all)
        int offset, value;  // a 32-bit word set (offset < 0: none)
        bool u16;           // the word is 16 bits
        trdcomp::Reason why;
        int classicRc = 0;
        std::optional<int> classicLen = {};  // a buffer handed out all the same, of this outLen
    };
    using R = trdcomp::Reason;
    const Case cases[] = {
        {"answer cut inside its records", "ans_1110_2008", 100, -1, 0, false, R::count_past_message},
        {"Fast stream count other than the head's", "req_1002_fast", 0, 76, 2, true, R::stream_count_differs, 0, 76 + 3 * 83},
        {"Fast answer count other than the head's", "ans_1003_fast", 0, 96, 7, true, R::stream_count_differs},
        {"request count beyond the bytes", "req_1002_2008", 0, 68, 1 << 20, false, R::count_past_message},
        {"head length beyond the message", "ans_1002_2008", 0, 0, 1 << 20, false, R::head_too_short},
        {"head word 0 neither 76 nor 96", "req_1002_2008", 0, 0, 55, false, R::head_length_invalid, 1},
        {"coded records of an id without a codec", "req_1002_2008", 0, 4, 777, false, R::unknown_function_id},
        {"request head with several arrays", "req_1002_2008", 0, 8, 3, false, R::several_arrays_request},
        {"answer shorter than its head", "ans_1110_2008", 90, -1, 0, false, R::head_too_short},
        {"2008 section table shorter than its entries", "ans_1002_2008", 0, 96, 12, false, R::section_table_invalid},
        {"2008 request with a negative count", "req_1002_2008", 0, 68, -1, false, R::negative_count, 1, 76 - 83},
        {"Fast request with a negative count", "req_1002_fast", 0, 68, -1, false, R::negative_count},
        {"2008 answer with a negative count", "ans_1003_2008", 0, 88, -2, false, R::negative_count, 1},
        {"Fast answer with a negative count", "ans_1003_fast", 0, 88, -2, false, R::negative_count},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<char> wire = golden::Wire(c.golden);
        if (c.keep) wire.resize(c.keep);
        if (c.offset >= 0) std::memcpy(wire.data() + c.offset, &c.value, c.u16 ? 2 : 4);
        const bool request = c.golden[0] == 'r';
        testmsg::Restored classic;
        testmsg::Restore(classic, wire.data(), static_cast<int>(wire.size()), request);
        EXPECT_EQ(classic.rc, c.classicRc);
        if (c.classicLen) {
            EXPECT_NE(classic.p, nullptr);
            EXPECT_EQ(classic.len, *c.classicLen);
        }
        EXPECT_EQ(trdcomp::RestoredSize(Span(wire)), 0u);
        std::vector<char> block(1 << 16, 0x5A);
        const trdcomp::RestoredView v = trdcomp::RestoreInto(block, Span(wire));
        EXPECT_EQ(v.Error(), trdcomp::Errc::refused);
        // RestoreInto tells the direction by head word 0 first.
        const std::int32_t word0 = testmsg::Word(wire.data(), 0);
        EXPECT_EQ(v.Why(), word0 == 76 || word0 == 96 ? c.why : trdcomp::Reason::head_length_invalid) << trdcomp::Message(v.Why());
        EXPECT_EQ(v.Size(), 0u);
        EXPECT_EQ(block, std::vector<char>(1 << 16, 0x5A)) << "a refused restore wrote";
        if (word0 != 76 && word0 != 96) continue;
        const trdcomp::Restored r = request ? trdcomp::RestoreRequest(Span(wire)) : trdcomp::RestoreAnswer(Span(wire));
        EXPECT_EQ(r.Why(), c.why) << trdcomp::Message(r.Why());
    }
}

namespace {

// A raw answer of id 777: its head, `words`, then `records` bytes.
std::vector<char> RawAnswer(int flags, std::vector<std::int32_t> words, std::size_t records) {
    return testmsg::AnsBytes(777, flags, 0, 0, words, records);
}

}  // namespace

TEST(RestoreOptions, LimitsRefuseBeforeAnythingIsAllocated) {
    // 20 KB of a Fast answer of id 8996: 10000 empty records of 32788 bytes
    // each, about 330 MB restored.
    std::vector<char> wire = RawAnswer(0x11, {}, 2 + 2 * 10000);
    std::memset(wire.data() + 96, 0, wire.size() - 96);
    testmsg::SetWord(wire.data(), 4, 8996);
    testmsg::SetWord(wire.data(), 88, 10000);
    wire[96] = static_cast<char>(10000 & 0xFF);
    wire[97] = static_cast<char>(10000 >> 8);
    const std::size_t need = 96 + 10000 * std::size_t{32788};
    EXPECT_EQ(trdcomp::RestoredSize(Span(wire)), need);
    struct Case {
        std::size_t maxBytes, maxRecords;
        trdcomp::Reason why;
    };
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

TEST(RestoreOptions, StrictRefusesWhatTheClassicRestoresAccept) {
    using R = trdcomp::Reason;
    struct Case {
        const char* what;
        std::vector<char> wire;
        R why;
    };
    auto edit = [](const char* name, int cut, int extra, int countOffset = -1, int count = 0) {
        std::vector<char> w = golden::Wire(name);
        w.resize(w.size() - static_cast<std::size_t>(cut));
        w.insert(w.end(), static_cast<std::size_t>(extra), '\x01');
        if (countOffset >= 0) testmsg::SetWord(w.data(), countOffset, count);
        return w;
    };
    const Case cases[] = {
        {"2008 request cut inside its last record", edit("req_1002_2008", 1, 0), R::ends_inside_record},
        {"2008 request, bytes after the last record", edit("req_1002_2008", 0, 3), R::trailing_bytes},
        {"2008 request, a count the stream does not hold", edit("req_1002_2008", 0, 0, 68, 4), R::count_not_held},
        {"2008 request cut inside a record's length", edit("req_1002_2008", 0, 2, 68, 4), R::ends_inside_record},
        {"Fast request cut inside its last record", edit("req_1002_fast", 1, 0), R::ends_inside_record},
        {"Fast request, bytes after the last record", edit("req_1002_fast", 0, 1), R::trailing_bytes},
        {"2008 answer cut inside its last record", edit("ans_1110_2008", 1, 0), R::ends_inside_record},
        {"2008 answer, bytes after the last record", edit("ans_1110_2008", 0, 5), R::trailing_bytes},
        {"Fast answer, bytes after the last record", edit("ans_1110_fast", 0, 1), R::trailing_bytes},
        {"Fast answer of several arrays cut short", edit("ans_1002_fast", 1, 0), R::ends_inside_record},
        {"raw answer, bytes after the records", RawAnswer(0, {}, 31), R::trailing_bytes},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<char> wire = c.wire;
        if (c.what[0] == 'r') {
            testmsg::SetWord(wire.data(), 88, 3);
            testmsg::SetWord(wire.data(), 92, 10);
        }
        const bool request = trdcomp::detail::Direction(Span(wire)) == 1;
        auto restore = [&](const trdcomp::RestoreOptions& o) {
            return request ? trdcomp::RestoreRequest(Span(wire), o) : trdcomp::RestoreAnswer(Span(wire), o);
        };
        EXPECT_TRUE(restore({})) << "the default restore accepts it";
        trdcomp::RestoreOptions strict;
        strict.strict = true;
        const trdcomp::Restored r = restore(strict);
        EXPECT_EQ(r.Error(), trdcomp::Errc::refused);
        EXPECT_EQ(r.Why(), c.why) << trdcomp::Message(r.Why());
        std::vector<char> block(1 << 16);
        EXPECT_EQ(trdcomp::RestoreInto(block, Span(wire), strict).Why(), c.why);
    }
}

TEST(MessageLength, WhatTheBytesCannotTell) {
    struct Case {
        const char* what;
        std::vector<char> bytes;
        trdcomp::Framing status;
        std::size_t length;
    };
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
